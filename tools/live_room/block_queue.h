// A single-producer, single-consumer ring of fixed-size audio blocks. The
// network thread hands a client's microphone blocks to the audio thread, and
// the audio thread hands the client's mixes back, without either side ever
// waiting for the other: a full ring refuses the block (the caller counts it
// as dropped), an empty one yields nothing.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstring>
#include <vector>

namespace quelora::live_room {

class block_queue {
public:
    block_queue(std::size_t block_samples, std::size_t capacity)
        : samples_(block_samples), slots_(capacity + 1), data_(slots_ * block_samples) {}

    // Producer side. False (and nothing stored) when the ring is full.
    bool push(const float* block) {
        const std::size_t tail = tail_.load(std::memory_order_relaxed);
        const std::size_t next = (tail + 1) % slots_;
        if (next == head_.load(std::memory_order_acquire)) return false;
        std::memcpy(data_.data() + tail * samples_, block, samples_ * sizeof(float));
        tail_.store(next, std::memory_order_release);
        return true;
    }

    // Consumer side. False when the ring is empty.
    bool pop(float* block) {
        const std::size_t head = head_.load(std::memory_order_relaxed);
        if (head == tail_.load(std::memory_order_acquire)) return false;
        std::memcpy(block, data_.data() + head * samples_, samples_ * sizeof(float));
        head_.store((head + 1) % slots_, std::memory_order_release);
        return true;
    }

    // Blocks waiting; exact on either side, a snapshot elsewhere.
    std::size_t size() const {
        const std::size_t head = head_.load(std::memory_order_acquire);
        const std::size_t tail = tail_.load(std::memory_order_acquire);
        return (tail + slots_ - head) % slots_;
    }

    std::size_t block_samples() const { return samples_; }

private:
    std::size_t samples_, slots_;
    std::vector<float> data_;
    std::atomic<std::size_t> head_{0}, tail_{0};
};

} // namespace quelora::live_room
