#include "conference/participant.h"

#include "api/quelora_exception.h"
#include "audio/crosstalk_processor.h"
#include "audio/spatial_filter_bank.h"
#include "conference/participant_stages.h"

namespace quelora {

int32_t required_input_frames(int32_t output_frames, int32_t input_rate, int32_t output_rate) {
    // The rate ratio is formed in single precision and the product taken
    // exactly (in double): under this order a 44100 Hz input to a 48000 Hz
    // library yields 440 frames (0.91875 rounds down in float) and fails the
    // ratio test, as it is meant to, while 8000..48000 Hz inputs give their
    // exact frame counts (docs/design.md).
    const float ratio = static_cast<float>(input_rate) / static_cast<float>(output_rate);
    const double frames = static_cast<double>(output_frames) * static_cast<double>(ratio);
    if (!(frames > -2.0e9 && frames < 2.0e9)) return -1;
    return static_cast<int32_t>(frames);
}

namespace {

// The library configuration's frame test applied to the input rate and the
// frames a call at that rate carries.
bool is_integer_ratio(int32_t input_rate, const qel_library_configuration& audio) {
    if (input_rate <= 0) return false;
    const int32_t frames =
        required_input_frames(audio.output_number_frames, input_rate, audio.output_sampling_rate);
    return is_accepted_processing_length(frames_at_processing_rate(input_rate, frames));
}

} // namespace

participant::participant(int32_t id, std::string name,
                         const qel_participant_configuration& configuration,
                         const qel_library_configuration& audio_configuration,
                         const filter_banks& banks, size_t expected_room_size)
    : id_(id), configuration_(configuration), audio_configuration_(audio_configuration),
      identity_(std::move(name)) {
    if (configuration.input_number_channels != 1 && configuration.input_number_channels != 2) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_NUM_CHANNELS,
                                "You provided %i but Quelora currently only supports 1 or 2 "
                                "channel input for new participants",
                                configuration.input_number_channels);
    }
    if (configuration.participant_type < QEL_PARTICIPANT_REGULAR ||
        configuration.participant_type > QEL_PARTICIPANT_LISTENER_ONLY) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_PARTICIPANT_TYPE, "%s",
                                "Must pick Regular, source only, or listener only for a new "
                                "participant");
    }
    const int32_t input_rate = configuration.input_sampling_rate;
    if (!is_integer_ratio(input_rate, audio_configuration)) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_SAMPLE_RATE,
                                "You provided %i but you must make input sampling rate an integer "
                                "ratio of the output sampling rate %i",
                                input_rate, audio_configuration.output_sampling_rate);
    }
    if (input_rate > processing_rate) {
        throw quelora_exception(QEL_LOG_ERROR, QEL_ERROR_SAMPLE_RATE,
                                "You provided %i but the Quelora library does not support "
                                "sampling rates above %i",
                                input_rate, processing_rate);
    }
    required_input_frames_ = quelora::required_input_frames(
        audio_configuration.output_number_frames, input_rate,
        audio_configuration.output_sampling_rate);
    processing_frames_ = frames_at_processing_rate(audio_configuration.output_sampling_rate,
                                                   audio_configuration.output_number_frames);
    if (!is_source_only()) {
        listener_ = std::make_unique<listener_engine>(processing_frames_, expected_room_size,
                                                      banks.spatial);
        output_ = std::make_unique<output_chain>(
            processing_frames_, audio_configuration.output_sampling_rate,
            audio_configuration.output_number_frames, audio_configuration.output_number_channels,
            audio_configuration.interleaved);
        if (banks.crosstalk != nullptr) {
            output_->attach_speaker_processor(
                std::make_unique<crosstalk_processor>(*banks.crosstalk, processing_frames_));
        }
    }
    if (!is_listener_only()) {
        input_ = std::make_unique<input_chain>(
            input_rate, channels(), required_input_frames_, processing_frames_,
            audio_configuration.interleaved, make_input_stages(channels(), processing_frames_));
        if (banks.spatial != nullptr) {
            spectra_ = std::make_unique<source_spectra>(processing_frames_,
                                                        2 * (banks.spatial->bins() - 1));
        }
    }
}

} // namespace quelora
