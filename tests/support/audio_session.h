// A library with one room for audio tests, driven through the C interface:
// participants are added with explicit configurations and fed/pulled with
// blocks of any sample type.
#pragma once

#include "support/library_fixture.h"

#include <quelora/quelora.h>

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

namespace quelora::testing {

inline constexpr uint32_t audio_room = 1;
// The spec's numbers for a 3D-off listener, written here as the spec gives
// them (not taken from the library): the limiter's look-ahead of 9 samples
// (Part 4.2) and the gain 0.70710677 of a mono source in each ear.
inline constexpr int limiter_delay = 9;
inline constexpr float ear = 0.70710677f;

class audio_session {
public:
    explicit audio_session(qel_library_configuration configuration = default_configuration())
        : configuration_(configuration), library_(nullptr, configuration) {
        EXPECT_EQ(library_.init_error(), QEL_ERROR_NONE);
        EXPECT_EQ(qel_create_room(library_, audio_room), QEL_ERROR_NONE);
    }

    qel_handle handle() const { return library_.get(); }
    const qel_library_configuration& configuration() const { return configuration_; }
    int32_t output_samples() const {
        return configuration_.output_number_frames * configuration_.output_number_channels;
    }

    void add(uint32_t id, int32_t rate = 48000, int32_t channels = 1,
             int32_t type = QEL_PARTICIPANT_REGULAR) {
        const qel_participant_configuration c{rate, channels, type};
        ASSERT_EQ(qel_add_participant(library_, audio_room, id, "p", c), QEL_ERROR_NONE);
    }

    void set(uint32_t id, qel_audio_control control, int value) {
        ASSERT_EQ(qel_set_participant_state(library_, audio_room, id, control, value),
                  QEL_ERROR_NONE);
    }

    int input(uint32_t id, const std::vector<float>& block) {
        return qel_input_audio_float(library_, audio_room, id, block.data(),
                                     static_cast<int>(frames_of(id, block.size())));
    }
    int input(uint32_t id, const std::vector<int16_t>& block) {
        return qel_input_audio_short(library_, audio_room, id, block.data(),
                                     static_cast<int>(frames_of(id, block.size())));
    }
    int input(uint32_t id, const std::vector<double>& block) {
        return qel_input_audio_double(library_, audio_room, id, block.data(),
                                      static_cast<int>(frames_of(id, block.size())));
    }

    // One output block of float samples; the code goes to *code when given.
    std::vector<float> output(uint32_t id, int* code = nullptr) {
        std::vector<float> out(static_cast<size_t>(output_samples()), -7.0f);
        const int c = qel_output_audio_float(library_, audio_room, id, out.data());
        if (code != nullptr) *code = c;
        else EXPECT_EQ(c, QEL_ERROR_NONE);
        return out;
    }
    std::vector<int16_t> output_short(uint32_t id, int* code = nullptr) {
        std::vector<int16_t> out(static_cast<size_t>(output_samples()), 77);
        const int c = qel_output_audio_short(library_, audio_room, id, out.data());
        if (code != nullptr) *code = c;
        else EXPECT_EQ(c, QEL_ERROR_NONE);
        return out;
    }
    std::vector<double> output_double(uint32_t id, int* code = nullptr) {
        std::vector<double> out(static_cast<size_t>(output_samples()), -7.0);
        const int c = qel_output_audio_double(library_, audio_room, id, out.data());
        if (code != nullptr) *code = c;
        else EXPECT_EQ(c, QEL_ERROR_NONE);
        return out;
    }

    // The input channel count a test registered for a participant is not
    // kept here; blocks carry frames x channels samples, so the tests pass
    // the channel count through the participant's configuration.
    size_t frames_of(uint32_t id, size_t samples) const {
        qel_participant_configuration c{};
        EXPECT_EQ(qel_get_participant_configuration(library_, audio_room, id, &c), QEL_ERROR_NONE);
        return c.input_number_channels > 0 ? samples / static_cast<size_t>(c.input_number_channels)
                                           : samples;
    }

private:
    qel_library_configuration configuration_;
    library_handle library_;
};

// Interleaves or concatenates two channels as the library's flag asks.
template <typename T>
std::vector<T> stereo_block(const std::vector<T>& left, const std::vector<T>& right,
                            bool interleaved) {
    std::vector<T> out;
    out.reserve(left.size() * 2);
    if (interleaved) {
        for (size_t i = 0; i < left.size(); ++i) {
            out.push_back(left[i]);
            out.push_back(right[i]);
        }
    } else {
        out = left;
        out.insert(out.end(), right.begin(), right.end());
    }
    return out;
}

} // namespace quelora::testing
