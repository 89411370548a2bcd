// The float ring buffer (FIFO) against a std::deque per channel: random
// all-or-nothing writes and reads at random strides, round the ring many
// times so that every split point at the wrap is crossed.
#include "dsp/float_ring_buffer.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <vector>

namespace {

using quelora::dsp::float_ring_buffer;

TEST(FloatRingBuffer, RoundTripAcrossTheWrapMatchesADeque) {
    constexpr int32_t channels = 3, capacity = 128;
    float_ring_buffer ring(channels, 100); // rounded up to a power of two; one stays as it is
    ASSERT_TRUE(ring.capacity() == capacity &&
                float_ring_buffer(1, capacity).capacity() == capacity);
    std::deque<float> model[channels];
    std::mt19937 rng(5);
    std::uniform_int_distribution<int32_t> size(-2, 70), extra_stride(0, 9);
    float next = 0.0f;
    for (int step = 0; step < 6000; ++step) {
        const int32_t frames = size(rng), stride = std::max(frames, 0) + extra_stride(rng);
        const auto waiting = static_cast<int32_t>(model[0].size());
        std::vector<float> block(static_cast<size_t>(channels * stride), -7.0f);
        if (step % 500 == 499) { // a clear discards what waits, wherever the positions stand
            ring.clear();
            for (auto& m : model) m.clear();
        } else if (step % 2 == 0) {
            for (int32_t c = 0; c < channels; ++c)
                for (int32_t i = 0; i < frames; ++i) block[c * stride + i] = next++;
            const bool fits = frames > 0 && frames <= capacity - waiting;
            ASSERT_EQ(ring.write(block.data(), stride, frames), fits ? frames : 0) << step;
            for (int32_t c = 0; c < channels && fits; ++c)
                model[c].insert(model[c].end(), &block[c * stride], &block[c * stride] + frames);
        } else {
            const bool enough = frames > 0 && frames <= waiting;
            ASSERT_EQ(ring.read(block.data(), stride, frames), enough ? frames : 0) << step;
            for (int32_t c = 0; c < channels; ++c) // what was not read, the destination keeps
                for (int32_t i = 0; i < stride; ++i)
                    ASSERT_EQ(block[c * stride + i], enough && i < frames ? model[c][i] : -7.0f);
            for (int32_t c = 0; c < channels && enough; ++c)
                model[c].erase(model[c].begin(), model[c].begin() + frames);
        }
        ASSERT_EQ(ring.frames_available(), static_cast<int32_t>(model[0].size())) << step;
        ASSERT_EQ(ring.frames_free(), capacity - ring.frames_available()) << step;
    }
    EXPECT_GT(next, 30 * capacity * channels); // the positions went round the ring many times
}

} // namespace
