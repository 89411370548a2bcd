// The float ring buffer (FIFO) of the Overview: power-of-two capacity,
// whole-or-nothing writes and reads, planar channels at any stride, and
// wrap-around checked against a plain double-ended queue.
#include "dsp/float_ring_buffer.h"

#include <gtest/gtest.h>

#include <deque>
#include <random>
#include <stdexcept>
#include <vector>

using quelora::dsp::float_ring_buffer;

namespace {

// Channel c of frame i carries 1000 c + i, so a value names where it came from.
std::vector<float> numbered_block(int32_t channels, int32_t stride, int32_t frames, int32_t first) {
    std::vector<float> block(static_cast<size_t>(channels * stride), -1.0f);
    for (int32_t c = 0; c < channels; ++c)
        for (int32_t i = 0; i < frames; ++i)
            block[static_cast<size_t>(c * stride + i)] = static_cast<float>(1000 * c + first + i);
    return block;
}

} // namespace

TEST(Overview_FloatRingBuffer, CapacityIsTheNextPowerOfTwo) {
    const struct {
        int32_t minimum, capacity;
    } rows[] = {{1, 1},     {2, 2},      {3, 4},       {480, 512},
                {512, 512}, {960, 1024}, {1025, 2048}, {4800, 8192}};
    for (const auto& r : rows) {
        float_ring_buffer ring(2, r.minimum);
        EXPECT_EQ(ring.capacity(), r.capacity) << r.minimum;
        EXPECT_EQ(ring.channels(), 2);
        EXPECT_EQ(ring.frames_available(), 0);
        EXPECT_EQ(ring.frames_free(), r.capacity);
    }
    EXPECT_THROW(float_ring_buffer(0, 16), std::invalid_argument);
    EXPECT_THROW(float_ring_buffer(1, 0), std::invalid_argument);
}

TEST(Overview_FloatRingBuffer, AWriteThatDoesNotFitWritesNothing) {
    float_ring_buffer ring(1, 8);
    const std::vector<float> first = numbered_block(1, 6, 6, 0);
    ASSERT_EQ(ring.write(first.data(), 6, 6), 6);
    const std::vector<float> second = numbered_block(1, 3, 3, 100);
    EXPECT_EQ(ring.write(second.data(), 3, 3), 0); // 3 > 2 free
    EXPECT_EQ(ring.frames_available(), 6);
    EXPECT_EQ(ring.frames_free(), 2);
    EXPECT_EQ(ring.write(second.data(), 3, 2), 2); // exactly fills the ring
    EXPECT_EQ(ring.frames_free(), 0);
    EXPECT_EQ(ring.write(second.data(), 3, 1), 0);
    std::vector<float> out(8);
    ASSERT_EQ(ring.read(out.data(), 8, 8), 8);
    const std::vector<float> expected{0, 1, 2, 3, 4, 5, 100, 101};
    EXPECT_EQ(out, expected);
    EXPECT_EQ(ring.write(first.data(), 6, 0), 0);
    EXPECT_EQ(ring.write(first.data(), 6, -1), 0);
    EXPECT_EQ(ring.frames_available(), 0);
}

TEST(Overview_FloatRingBuffer, AReadOfMoreThanWaitsReadsNothingAndLeavesTheDestination) {
    float_ring_buffer ring(2, 16);
    const std::vector<float> block = numbered_block(2, 5, 5, 0);
    ASSERT_EQ(ring.write(block.data(), 5, 5), 5);
    std::vector<float> destination(2 * 6, 42.0f);
    EXPECT_EQ(ring.read(destination.data(), 6, 6), 0);
    EXPECT_EQ(destination, std::vector<float>(12, 42.0f));
    EXPECT_EQ(ring.read(destination.data(), 6, 0), 0);
    EXPECT_EQ(destination, std::vector<float>(12, 42.0f));
    EXPECT_EQ(ring.frames_available(), 5);
    // The failed read consumed nothing: the five frames come out whole.
    ASSERT_EQ(ring.read(destination.data(), 6, 5), 5);
    const std::vector<float> expected{0, 1, 2, 3, 4, 42, 1000, 1001, 1002, 1003, 1004, 42};
    EXPECT_EQ(destination, expected);
}

TEST(Overview_FloatRingBuffer, PlanarChannelsAtAnyStride) {
    float_ring_buffer ring(3, 32);
    // Source channels 10 floats apart, destination channels 7 apart.
    const std::vector<float> block = numbered_block(3, 10, 7, 0);
    ASSERT_EQ(ring.write(block.data(), 10, 7), 7);
    std::vector<float> out(3 * 7, -5.0f);
    ASSERT_EQ(ring.read(out.data(), 7, 7), 7);
    for (int32_t c = 0; c < 3; ++c)
        for (int32_t i = 0; i < 7; ++i)
            EXPECT_EQ(out[static_cast<size_t>(c * 7 + i)], static_cast<float>(1000 * c + i));
}

TEST(Overview_FloatRingBuffer, WrapsAroundInFifoOrder) {
    // Re-blocking as the engine does it (160 in, 480 out style), with sizes
    // that never divide the capacity, so every split point is exercised.
    float_ring_buffer ring(2, 100); // capacity 128
    std::deque<float> expected_left, expected_right;
    std::mt19937 generator(5);
    std::uniform_int_distribution<int32_t> size(1, 60);
    int32_t next = 0;
    std::vector<float> in(2 * 64), out(2 * 64);
    for (int step = 0; step < 5000; ++step) {
        const int32_t frames = size(generator);
        if (step % 2 == 0) {
            for (int32_t i = 0; i < frames; ++i) {
                in[static_cast<size_t>(i)] = static_cast<float>(next + i);
                in[static_cast<size_t>(64 + i)] = static_cast<float>(-(next + i));
            }
            const bool fits = frames <= ring.frames_free();
            ASSERT_EQ(ring.write(in.data(), 64, frames), fits ? frames : 0);
            if (fits) {
                for (int32_t i = 0; i < frames; ++i) {
                    expected_left.push_back(static_cast<float>(next + i));
                    expected_right.push_back(static_cast<float>(-(next + i)));
                }
                next += frames;
            }
        } else {
            const bool waiting = frames <= ring.frames_available();
            ASSERT_EQ(ring.read(out.data(), 64, frames), waiting ? frames : 0);
            if (waiting) {
                for (int32_t i = 0; i < frames; ++i) {
                    ASSERT_EQ(out[static_cast<size_t>(i)], expected_left.front());
                    ASSERT_EQ(out[static_cast<size_t>(64 + i)], expected_right.front());
                    expected_left.pop_front();
                    expected_right.pop_front();
                }
            }
        }
        ASSERT_EQ(ring.frames_available(), static_cast<int32_t>(expected_left.size()));
        ASSERT_EQ(ring.frames_free(), 128 - ring.frames_available());
    }
    EXPECT_GT(next, 10 * 128); // the positions went round the ring many times
}

TEST(Overview_FloatRingBuffer, ClearDiscardsWhatWaits) {
    float_ring_buffer ring(1, 4);
    const std::vector<float> block{1, 2, 3};
    ASSERT_EQ(ring.write(block.data(), 3, 3), 3);
    ring.clear();
    EXPECT_EQ(ring.frames_available(), 0);
    EXPECT_EQ(ring.frames_free(), 4);
    std::vector<float> out(1, 9.0f);
    EXPECT_EQ(ring.read(out.data(), 1, 1), 0);
    EXPECT_EQ(out[0], 9.0f);
    // After a clear the ring works from wherever its positions stood.
    const std::vector<float> more{4, 5, 6, 7};
    ASSERT_EQ(ring.write(more.data(), 4, 4), 4);
    std::vector<float> all(4);
    ASSERT_EQ(ring.read(all.data(), 4, 4), 4);
    EXPECT_EQ(all, more);
}
