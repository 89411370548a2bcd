#include "audio_loop.h"

#include <algorithm>
#include <chrono>
#include <cmath>
#include <filesystem>
#include <limits>

namespace quelora::conference {

namespace {

using clock_type = std::chrono::steady_clock;

// The input and output entry points of each of the three sample types.
template <typename Sample>
struct audio_calls;

template <>
struct audio_calls<int16_t> {
    static constexpr const char* input_name = "qel_input_audio_short";
    static constexpr const char* output_name = "qel_output_audio_short";
    static int input(qel_handle h, uint32_t room, uint32_t id, const int16_t* s, int n) {
        return qel_input_audio_short(h, room, id, s, n);
    }
    static int output(qel_handle h, uint32_t room, uint32_t id, int16_t* s) {
        return qel_output_audio_short(h, room, id, s);
    }
    static int16_t from_float(float x) { // the host's own conversion: round, saturate
        const float scaled = std::nearbyint(x * 32768.0f);
        return static_cast<int16_t>(std::clamp(scaled, -32768.0f, 32767.0f));
    }
    static double to_unit(int16_t x) { return x / 32768.0; }
};

template <>
struct audio_calls<float> {
    static constexpr const char* input_name = "qel_input_audio_float";
    static constexpr const char* output_name = "qel_output_audio_float";
    static int input(qel_handle h, uint32_t room, uint32_t id, const float* s, int n) {
        return qel_input_audio_float(h, room, id, s, n);
    }
    static int output(qel_handle h, uint32_t room, uint32_t id, float* s) {
        return qel_output_audio_float(h, room, id, s);
    }
    static float from_float(float x) { return x; }
    static double to_unit(float x) { return x; }
};

template <>
struct audio_calls<double> {
    static constexpr const char* input_name = "qel_input_audio_double";
    static constexpr const char* output_name = "qel_output_audio_double";
    static int input(qel_handle h, uint32_t room, uint32_t id, const double* s, int n) {
        return qel_input_audio_double(h, room, id, s, n);
    }
    static int output(qel_handle h, uint32_t room, uint32_t id, double* s) {
        return qel_output_audio_double(h, room, id, s);
    }
    static double from_float(float x) { return x; }
    static double to_unit(double x) { return x; }
};

// Frames per input call as the library computes them (docs/design.md): the rate
// ratio in single precision, the product with the output frames taken exactly,
// truncated.
int required_input_frames(const qel_library_configuration& c, int input_rate) {
    const float ratio = static_cast<float>(input_rate) / static_cast<float>(c.output_sampling_rate);
    return static_cast<int>(static_cast<double>(c.output_number_frames) * static_cast<double>(ratio));
}

// One block of a talker's clip from first_frame on (silence outside it), in
// the layout the library expects: interleaved, or planar for a stereo block
// when the interleaved flag is off.
template <typename Sample>
void fill_input_block(const talker& t, int64_t first_frame, int frames, bool interleaved,
                      std::vector<Sample>& block) {
    const int channels = t.audio.channels;
    const bool planar = channels == 2 && !interleaved;
    const int64_t clip_frames = t.audio.frames();
    for (int i = 0; i < frames; ++i) {
        const int64_t at = first_frame + i - t.start_frame;
        const bool inside = at >= 0 && at < clip_frames;
        for (int c = 0; c < channels; ++c) {
            const float value = inside ? t.audio.samples[static_cast<size_t>(at * channels + c)] : 0.0f;
            const size_t index = planar ? static_cast<size_t>(c * frames + i)
                                        : static_cast<size_t>(i * channels + c);
            block[index] = audio_calls<Sample>::from_float(value);
        }
    }
}

template <typename Sample>
void append_output_block(const std::vector<Sample>& block, int frames, int channels, bool interleaved,
                         std::vector<Sample>& recording) {
    if (channels == 1 || interleaved) {
        recording.insert(recording.end(), block.begin(), block.end());
        return;
    }
    for (int i = 0; i < frames; ++i) {
        recording.push_back(block[static_cast<size_t>(i)]);
        recording.push_back(block[static_cast<size_t>(frames + i)]);
    }
}

template <typename Sample>
void measure_levels(const std::vector<Sample>& recording, listener_result& out) {
    double peak = 0.0;
    double energy = 0.0;
    for (Sample s : recording) {
        const double x = audio_calls<Sample>::to_unit(s);
        peak = std::max(peak, std::fabs(x));
        energy += x * x;
    }
    const double rms = recording.empty() ? 0.0 : std::sqrt(energy / static_cast<double>(recording.size()));
    const auto to_db = [](double level) {
        return level > 0.0 ? 20.0 * std::log10(level) : -std::numeric_limits<double>::infinity();
    };
    out.peak_dbfs = to_db(peak);
    out.rms_dbfs = to_db(rms);
}

template <typename Sample>
bool run_typed(const options& opts, const library_session& session, const std::vector<talker>& talkers,
               loop_result& result, std::string& message) {
    using calls = audio_calls<Sample>;
    const qel_handle handle = session.handle();
    const uint32_t room = library_session::room_id;
    const auto& configuration = session.configuration();
    const auto& participants = session.participants();
    const int out_frames = configuration.output_number_frames;
    const int out_channels = configuration.output_number_channels;
    const int in_frames = required_input_frames(configuration, opts.input_rate);

    int64_t last_frame = 0;
    for (const auto& t : talkers) last_frame = std::max(last_frame, t.start_frame + t.audio.frames());
    const int64_t talk_blocks = (last_frame + in_frames - 1) / in_frames;
    result.blocks = talk_blocks + tail_milliseconds / opts.block_ms;
    result.input_frames = in_frames;
    result.audio_seconds = static_cast<double>(result.blocks) * opts.block_ms / 1000.0;

    std::vector<Sample> input_block(static_cast<size_t>(in_frames) * 2);
    std::vector<Sample> output_block(static_cast<size_t>(out_frames) * static_cast<size_t>(out_channels));
    std::vector<std::vector<Sample>> recordings(participants.size());
    for (auto& r : recordings) r.reserve(static_cast<size_t>(result.blocks) * output_block.size());
    result.listeners.assign(participants.size(), listener_result{});

    const auto loop_start = clock_type::now();
    for (int64_t block = 0; block < result.blocks; ++block) {
        double input_time = 0.0;
        for (const auto& p : participants) {
            if (p.talker_index < 0) continue; // listener only: nothing to send
            fill_input_block(talkers[static_cast<size_t>(p.talker_index)], block * in_frames, in_frames,
                             configuration.interleaved, input_block);
            const auto start = clock_type::now();
            const int code = calls::input(handle, room, p.id, input_block.data(), in_frames);
            input_time += std::chrono::duration<double>(clock_type::now() - start).count();
            if (code != QEL_ERROR_NONE) {
                message = describe_failure(calls::input_name, code) + " for participant " +
                          std::to_string(p.id) + " at block " + std::to_string(block);
                return false;
            }
        }
        double output_time = 0.0;
        for (size_t i = 0; i < participants.size(); ++i) {
            const auto start = clock_type::now();
            const int code = calls::output(handle, room, participants[i].id, output_block.data());
            output_time += std::chrono::duration<double>(clock_type::now() - start).count();
            if (code == QEL_ERROR_NO_INPUT_AUDIO) {
                // Nobody to hear in this block: the library wrote silence.
                ++result.listeners[i].silent_blocks;
            } else if (code != QEL_ERROR_NONE) {
                message = describe_failure(calls::output_name, code) + " for participant " +
                          std::to_string(participants[i].id) + " at block " + std::to_string(block);
                return false;
            }
            append_output_block(output_block, out_frames, out_channels, configuration.interleaved,
                                recordings[i]);
        }
        result.input_seconds += input_time;
        result.output_seconds += output_time;
        result.max_input_block_seconds = std::max(result.max_input_block_seconds, input_time);
        result.max_output_block_seconds = std::max(result.max_output_block_seconds, output_time);
    }

    result.loop_wall_seconds = std::chrono::duration<double>(clock_type::now() - loop_start).count();

    const auto writing_start = clock_type::now();
    for (size_t i = 0; i < participants.size(); ++i) {
        auto& listener = result.listeners[i];
        listener.id = participants[i].id;
        listener.name = participants[i].name;
        listener.path = (std::filesystem::path(opts.out_dir) /
                         ("listener_" + std::to_string(listener.id) + "_" + listener.name + ".wav"))
                            .string();
        if (!write_wav(listener.path, configuration.output_sampling_rate, out_channels, recordings[i],
                       message)) {
            return false;
        }
    }
    result.wav_seconds = std::chrono::duration<double>(clock_type::now() - writing_start).count();
    for (size_t i = 0; i < participants.size(); ++i) measure_levels(recordings[i], result.listeners[i]);
    return true;
}

} // namespace

bool run_conference(const options& opts, const library_session& session,
                    const std::vector<talker>& talkers, loop_result& result, std::string& message) {
    switch (opts.format) {
    case sample_format::int16: return run_typed<int16_t>(opts, session, talkers, result, message);
    case sample_format::float32: return run_typed<float>(opts, session, talkers, result, message);
    case sample_format::float64: return run_typed<double>(opts, session, talkers, result, message);
    }
    return false;
}

} // namespace quelora::conference
