// The recurrent suppressor: the .rnnn loader's refusals and a round trip,
// silent frames through analysis and synthesis against a double-precision
// high-pass, and agreement with FFmpeg's arnndn filter on the community models.
#include "denoise/rnn_suppressor.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <random>
#include <sstream>
#include <stdexcept>
#include <string>
#include <vector>

namespace {

using namespace quelora::denoise;
namespace fs = std::filesystem;

// The smallest sizes that chain (42 -> 2, GRUs of one neuron, 22 gains, one
// voice probability), every activation, and weights that run through all of
// -128..127. Lines: 1 header; layers start at 2, 5, 9, 13, 17 and 20.
std::string small_model_text() {
    const int shape[6][3] = {{42, 2, 0}, {2, 1, 1}, {45, 1, 2}, {44, 1, 0}, {1, 22, 1}, {1, 1, 2}};
    std::ostringstream s;
    s << "rnnoise-nu model file version 1\n";
    int next = 0;
    const auto numbers = [&](int count) {
        for (int i = 0; i < count; ++i) s << (i ? " " : "") << next++ % 256 - 128;
        s << '\n';
    };
    for (int layer = 0; layer < 6; ++layer) {
        const auto [inputs, neurons, activation] = shape[layer];
        const bool gru = layer >= 1 && layer <= 3;
        const int gates = gru ? 3 : 1;
        s << inputs << ' ' << neurons << ' ' << activation << '\n';
        numbers(inputs * gates * neurons);
        if (gru) numbers(neurons * gates * neurons);
        numbers(gates * neurons);
    }
    return s.str();
}

std::string replace_line(const std::string& text, int number, const std::string& line) {
    std::istringstream in(text);
    std::string out, current;
    for (int n = 1; std::getline(in, current); ++n) {
        if (n != number)
            out += current + '\n';
        else if (!line.empty())
            out += line + '\n';
    }
    return out;
}

struct malformed_case {
    const char* name;
    int line; // replaced (removed when `with` is empty); 0 appends
    const char* with;
    const char* message;
};

TEST(RnnModel, RefusesMalformedTextsNamingTheLine) {
    const malformed_case cases[] = {
        {"bad header", 1, "rnnoise model", "rnnn line 1: not an rnnn model"},
        {"wrong version", 1, "rnnoise-nu model file version 2",
         "rnnn line 1: version '2' is not supported"},
        {"sizes that do not chain", 5, "3 1 1",
         "rnnn line 5: vad_gru has 3 inputs, but input_dense makes 2"},
        {"not 22 gains", 17, "1 21 1",
         "rnnn line 17: denoise_output has 21 neurons, the suppressor needs 22"},
        {"unknown activation", 2, "42 2 3", "rnnn line 2: input_dense: activation 3 is not 0"},
        {"weight out of range", 4, "0 128", "rnnn line 4: input_dense biases: 128 is outside"},
        {"too few numbers", 4, "0", "rnnn line 4: input_dense biases: 1 numbers, expected 2"},
        {"too many numbers", 4, "0 0 0", "rnnn line 4: input_dense biases: 3 numbers, expected 2"},
        {"junk number", 7, "1x", "rnnn line 7: vad_gru recurrent weights: '1x' is not an integer"},
        {"missing line", 22, "", "rnnn line 22: the text ends before vad_output biases"},
        {"junk after the model", 0, "7", "rnnn line 23: junk after the last layer"},
    };
    const std::string valid = small_model_text();
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const std::string text =
            c.line ? replace_line(valid, c.line, c.with) : valid + c.with + "\n";
        try {
            parse_rnnn(text);
            ADD_FAILURE() << "accepted";
        } catch (const std::invalid_argument& e) {
            EXPECT_NE(std::string(e.what()).find(c.message), std::string::npos) << e.what();
        }
    }
}

// Writes a model back in the file's layout, each value times 256.
std::string format_rnnn(const rnn_model& m) {
    std::ostringstream s;
    s << "rnnoise-nu model file version 1\n";
    const auto numbers = [&](const std::vector<float>& v) {
        for (std::size_t i = 0; i < v.size(); ++i) s << (i ? " " : "") << std::lround(v[i] * 256);
        s << '\n';
    };
    const auto head = [&](const auto& l) {
        s << l.inputs << ' ' << l.neurons << ' ' << static_cast<int>(l.activation) << '\n';
    };
    head(m.input_dense), numbers(m.input_dense.weights), numbers(m.input_dense.bias);
    for (const rnn_gru_layer* g : {&m.vad_gru, &m.noise_gru, &m.denoise_gru}) {
        head(*g), numbers(g->input_weights), numbers(g->recurrent_weights), numbers(g->bias);
    }
    for (const rnn_dense_layer* d : {&m.denoise_output, &m.vad_output}) {
        head(*d), numbers(d->weights), numbers(d->bias);
    }
    return s.str();
}

TEST(RnnModel, RoundTripsAValidTextAndTheCompiledInModel) {
    const std::string text = small_model_text();
    EXPECT_EQ(format_rnnn(parse_rnnn(text)), text);
    EXPECT_NO_THROW(static_cast<void>(builtin_rnn_model()));
}

// Below 0.04 of band energy a frame is silent: no gains, no pitch filter, so
// analysis and synthesis must give back the high-passed input 480 samples
// late. The expectation is the same biquad in direct form I, in double. The
// float filter's rounding passes through poles at radius 0.998, which
// amplify it by about 1 / (1 - 0.998)^2: -70 dB of error is expected.
TEST(RnnSuppressor, PassesSilentFramesThroughTheHighPassOnly) {
    std::mt19937 rng(5);
    std::normal_distribution<double> noise(0.0, 0.2);
    constexpr int frames = 40;
    std::vector<float> signal(frames * rnn_frame_size);
    for (float& x : signal) x = static_cast<float>(noise(rng) + 0.1); // DC as well
    std::vector<double> expected(signal.size() + rnn_frame_size, 0.0);
    double x1 = 0, x2 = 0, y1 = 0, y2 = 0;
    for (std::size_t n = 0; n < signal.size(); ++n) {
        const double y = signal[n] - 2 * x1 + x2 + 1.99599 * y1 - 0.99600 * y2;
        x2 = x1, x1 = signal[n], y2 = y1, y1 = y;
        expected[n + rnn_frame_size] = y;
    }
    rnn_suppressor suppressor;
    std::vector<float> out = signal;
    double error = 0, energy = 0;
    for (int f = 0; f < frames; ++f) {
        float* frame = out.data() + f * rnn_frame_size;
        ASSERT_EQ(suppressor.process_frame(frame, frame), 0.0f) << f;
        for (int i = 0; i < rnn_frame_size; ++i) {
            const double d = frame[i] - expected[f * rnn_frame_size + i];
            error += d * d;
            energy += expected[f * rnn_frame_size + i] * expected[f * rnn_frame_size + i];
        }
    }
    EXPECT_LT(error, 1e-6 * energy);
}

#ifdef QUELORA_SHARED_DATA_DIR
const fs::path shared_data = QUELORA_SHARED_DATA_DIR;

void run(const std::string& command) {
    if (std::system(command.c_str()) != 0) throw std::runtime_error("failed: " + command);
}

std::vector<float> read_f32(const fs::path& path) {
    std::ifstream in(path, std::ios::binary);
    const std::string bytes{std::istreambuf_iterator<char>(in), {}};
    std::vector<float> v(bytes.size() / sizeof(float));
    std::memcpy(v.data(), bytes.data(), v.size() * sizeof(float));
    return v;
}

class RnnSuppressorAgainstFfmpeg : public testing::TestWithParam<const char*> {};

// FFmpeg's arnndn runs on its float samples as they come, not scaled to the
// 16-bit range, with an unnormalised forward transform: it computes our
// spectra, features and gains when fed our 16-bit samples divided by 960.
// Its pitch search then sees samples 960 times smaller than ours, where the
// search's +1 terms are no longer negligible and flip some of its choices
// (agreement 19 to 75 dB, depending on the mixture); our tracker is run at
// that scale too, so that both compute on the same numbers throughout. Its
// output lags by 480 samples, as ours does: they compare sample for sample.
TEST_P(RnnSuppressorAgainstFfmpeg, AgreesWithinThirtyDecibels) {
    const fs::path model_file =
        shared_data / "rnnoise-models" / (std::string(GetParam()) + ".rnnn");
    if (!fs::exists(model_file)) GTEST_SKIP() << "no community model at " << model_file;
    if (std::system("ffmpeg -version > /dev/null 2>&1") != 0)
        GTEST_SKIP() << "ffmpeg is not on PATH; the comparison runs its arnndn filter";
    const fs::path dir = fs::temp_directory_path() / ("quelora_rnn_" + std::string(GetParam()));
    fs::create_directories(dir);
    const auto decode = [&](const fs::path& in, const char* name) {
        run("ffmpeg -v error -y -i '" + in.string() + "' -f f32le -ac 1 -ar 48000 '" +
            (dir / name).string() + "'");
        return read_f32(dir / name);
    };
    // Speech at its own level (about -27 dBFS) with river noise 5 dB below
    // it, then half a second of the noise alone at 0.4 LSB RMS, whose frames
    // fall either side of the silence threshold (about a third silent).
    std::vector<float> mix = decode(shared_data / "speech/vctk-p239/p239_123.flac", "speech");
    const std::vector<float> noise =
        decode(shared_data / "noise/0ad/ambient/river_med_21.flac", "noise");
    const std::size_t speech = mix.size();
    ASSERT_GE(noise.size(), speech + 24000);
    double speech_power = 0, noise_power = 0;
    for (std::size_t i = 0; i < speech; ++i) {
        speech_power += double(mix[i]) * mix[i];
        noise_power += double(noise[i]) * noise[i];
    }
    const double noise_gain = std::sqrt(speech_power / noise_power) * 0.5623;
    const double quiet_gain = 0.4 / 32768 / std::sqrt(noise_power / double(speech));
    mix.resize(speech + 24000);
    std::vector<float> scaled(mix.size());
    for (std::size_t i = 0; i < mix.size(); ++i) {
        mix[i] = 32768.0f * static_cast<float>(i < speech ? mix[i] + noise_gain * noise[i]
                                                          : quiet_gain * noise[i]);
        scaled[i] = mix[i] / 960.0f;
    }
    std::ofstream(dir / "in", std::ios::binary)
        .write(reinterpret_cast<const char*>(scaled.data()), std::streamsize(scaled.size() * 4));
    run("ffmpeg -v error -y -f f32le -ar 48000 -ac 1 -i '" + (dir / "in").string() +
        "' -af arnndn=m='" + fs::canonical(model_file).string() + "' -f f32le '" +
        (dir / "out").string() + "'");
    const std::vector<float> theirs = read_f32(dir / "out");
    fs::remove_all(dir);

    std::ifstream file(model_file);
    const rnn_model model = parse_rnnn(std::string{std::istreambuf_iterator<char>(file), {}});
    rnn_suppressor suppressor(model, 1.0f / 960);
    // Where two lags score within rounding of each other, the two trackers
    // may pick different ones; the network then differs for a while (down
    // to about 40 dB over the whole, 70 dB without such a tie). The quiet
    // tail is judged on its own: it is inaudible in the whole.
    double energy[2] = {0, 0}, difference[2] = {0, 0};
    for (std::size_t at = 0; at + rnn_frame_size <= mix.size(); at += rnn_frame_size) {
        suppressor.process_frame(&mix[at], &mix[at]);
        for (std::size_t i = at; i < at + rnn_frame_size; ++i) {
            const double d = mix[i] - 960.0 * theirs[i];
            energy[i >= speech] += double(mix[i]) * mix[i];
            difference[i >= speech] += d * d;
        }
    }
    const double whole = 10 * std::log10((energy[0] + energy[1]) / (difference[0] + difference[1]));
    const double tail = 10 * std::log10(energy[1] / difference[1]);
    std::printf("[ %s ] difference %.1f dB below the signal, %.1f dB in the quiet tail\n",
                GetParam(), whole, tail);
    EXPECT_GE(whole, 30.0);
    EXPECT_GE(tail, 30.0);
}

INSTANTIATE_TEST_SUITE_P(CommunityModels, RnnSuppressorAgainstFfmpeg,
                         testing::Values("bd", "cb", "lq", "mp", "sh"),
                         [](const auto& p) { return std::string(p.param); });
#endif

} // namespace
