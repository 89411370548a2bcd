// One talker and/or listener of a room.
#pragma once

#include "audio/input_chain.h"
#include "audio/listener_engine.h"
#include "audio/filter_banks.h"
#include "audio/output_chain.h"
#include "audio/source_spectra.h"
#include "conference/participant_identity.h"
#include "config/library_configuration.h"

#include <quelora/quelora.h>

#include <memory>
#include <mutex>
#include <string>

namespace quelora {

// Frames per call at the input rate: output frames x (input rate / output
// rate) in single precision, truncated (docs/design.md explains the order).
int32_t required_input_frames(int32_t output_frames, int32_t input_rate, int32_t output_rate);

class participant {
public:
    // Validates the configuration in a fixed order (channels, type, rate
    // ratio, rate limit) and builds the sides its type needs; throws
    // quelora_exception on the first failure.
    participant(int32_t id, std::string name, const qel_participant_configuration& configuration,
                const qel_library_configuration& audio_configuration, const filter_banks& banks,
                size_t expected_room_size);

    int32_t id() const { return id_; }
    const qel_participant_configuration& configuration() const { return configuration_; }
    int32_t channels() const { return configuration_.input_number_channels; }
    bool is_source_only() const { return configuration_.participant_type == QEL_PARTICIPANT_SOURCE_ONLY; }
    bool is_listener_only() const {
        return configuration_.participant_type == QEL_PARTICIPANT_LISTENER_ONLY;
    }
    // Input side with an input resampler: heard participants whose input rate
    // is not 48000. The auto EQ refusal (room_state.cpp) reads this.
    bool has_input_resampler() const {
        return !is_listener_only() && configuration_.input_sampling_rate != processing_rate;
    }
    const qel_library_configuration& audio_configuration() const { return audio_configuration_; }
    int32_t required_input_frames() const { return required_input_frames_; }
    int32_t processing_frames() const { return processing_frames_; }

    participant_identity& identity() { return identity_; }
    const participant_identity& identity() const { return identity_; }
    // Null for source-only participants.
    listener_engine* listener() { return listener_.get(); }
    const listener_engine* listener() const { return listener_.get(); }

    // Input side; null for listener-only participants. Use under
    // input_mutex().
    input_chain* input() { return input_.get(); }
    std::mutex& input_mutex() { return input_mutex_; }
    // The spectra of this talker's blocks for binaural listeners; null
    // without a spatial filter bank or an input side. Use under input_mutex().
    source_spectra* spectra() { return spectra_.get(); }
    // Output side; null for source-only participants. Use under
    // output_mutex().
    output_chain* output() { return output_.get(); }
    std::mutex& output_mutex() { return output_mutex_; }

private:
    int32_t id_;
    qel_participant_configuration configuration_;
    qel_library_configuration audio_configuration_; // copied at creation, never updated
    int32_t required_input_frames_ = 0;
    int32_t processing_frames_ = 0;
    participant_identity identity_;
    std::unique_ptr<listener_engine> listener_;
    // Plain, not recursive, mutexes: nothing here locks one twice.
    std::mutex input_mutex_;
    std::unique_ptr<input_chain> input_;
    std::unique_ptr<source_spectra> spectra_;
    std::mutex output_mutex_;
    std::unique_ptr<output_chain> output_;
};

} // namespace quelora
