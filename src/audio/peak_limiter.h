// The listener's stereo peak limiter: threshold -0.2 dB,
// attack 0.2 ms, release 10 ms at 48000 Hz, a look-ahead and hold of 9
// samples. A NaN or infinite side-chain value counts as 9e+20, so the
// envelope stays finite and later blocks are clean: the 9 samples before a
// bad one come out near silent, the bad sample itself passes once (gain x NaN
// is NaN: the output is always gain x delayed sample), and the gain
// releases back to 1 over about 140 ms. Allocation-free after construction;
// not thread-safe.
#pragma once

#include <cstdint>
#include <vector>

namespace quelora {

class peak_limiter {
public:
    static constexpr int32_t sampling_rate = 48000;
    static constexpr float threshold_db = -0.2f;
    static constexpr float attack_ms = 0.2f;
    static constexpr float release_ms = 10.0f;

    // max_frames: the largest block process() will be given.
    explicit peak_limiter(int32_t max_frames);

    // Look-ahead and hold length L = (int)(0.2 / 1000 x 48000) = 9.
    int32_t look_ahead() const;

    // Limits a planar stereo block in place: left[0..frames), right[0..frames).
    void process(float* left, float* right, int32_t frames);

    void reset();

private:
    void process_chunk(float* left, float* right, int32_t frames);

    int32_t max_frames_;
    // The envelope runs in double precision: a float envelope stalls up to
    // ~50 ulps above the threshold after every release (env - t times r
    // rounds back to itself), which would leave the gain a few 1e-6 below 1
    // for ever; in double the gain returns to exactly 1.0f.
    double threshold_;
    double attack_;
    double release_;
    double held_peak_;
    double envelope_;
    int32_t hold_counter_;
    std::vector<float> side_chain_; // max_frames_
    std::vector<float> gain_;       // max_frames_
    // Delay lines of L + max_frames_ samples: the last L samples of the
    // previous block, then the current block.
    std::vector<float> left_line_;
    std::vector<float> right_line_;
};

} // namespace quelora
