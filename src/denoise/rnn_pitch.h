// The recurrent suppressor's pitch tracker: an open-loop search on the last
// 1728 high-passed samples, decimated by two and whitened, followed by a
// check for octave errors that favours the period of the previous frame.
// The period selects the past stretch the pitch filter adds to the frame,
// and it is one of the network's features. No allocation: all scratch lives
// in the object.
#pragma once

#include <array>

namespace quelora::denoise {

inline constexpr int rnn_pitch_min_period = 60;
inline constexpr int rnn_pitch_max_period = 768;
inline constexpr int rnn_pitch_frame_size = 960;
inline constexpr int rnn_pitch_buffer_size = rnn_pitch_max_period + rnn_pitch_frame_size;

class rnn_pitch_tracker {
public:
    // input_scale multiplies the samples before the search. The search's
    // additive terms (+1 in energies and gains) assume the 16-bit range;
    // another scale reproduces trackers that run on other ranges (the
    // comparison with FFmpeg's arnndn needs 1/960).
    explicit rnn_pitch_tracker(float input_scale = 1.0f) : input_scale_(input_scale) {}

    // buffer: the last rnn_pitch_buffer_size high-passed samples, oldest
    // first. Returns the period in samples (60 .. 768) and keeps it, with
    // its gain, for the next frame.
    int track(const float* buffer);
    int period() const { return period_; }
    float gain() const { return gain_; }

private:
    static constexpr int half_buffer = rnn_pitch_buffer_size / 2;
    void downsample(const float* buffer);
    int search() const;
    int remove_doubling(int period);

    float input_scale_;
    int period_ = 0;
    float gain_ = 0.0f;
    std::array<float, half_buffer> lp_{};
};

} // namespace quelora::denoise
