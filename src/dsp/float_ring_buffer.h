// The float ring buffer (FIFO): a multi-channel ring of power-of-two
// capacity for re-blocking a stage's input into its own hop length (the
// noise canceller's, for one). All-or-nothing: a write is accepted whole only
// if it fits, a read succeeds whole only if enough frames wait. Storage is
// allocated once at construction; reads and writes never allocate. Not
// thread-safe: the owner serialises access (its participant or engine mutex).
#pragma once

#include <cstdint>
#include <vector>

namespace quelora::dsp {

class float_ring_buffer {
public:
    // channels >= 1; the capacity is minimum_frames rounded up to a power of two.
    float_ring_buffer(int32_t channels, int32_t minimum_frames);

    int32_t channels() const { return channels_; }
    int32_t capacity() const { return capacity_; }
    int32_t frames_available() const; // frames waiting to be read
    int32_t frames_free() const;      // frames a write may add

    // source: planar, channel c at source + c * source_stride. Writes all
    // `frames` frames and returns frames, or writes nothing and returns 0.
    int32_t write(const float* source, int32_t source_stride, int32_t frames);
    // destination: planar, channel c at destination + c * destination_stride.
    // Reads all `frames` frames and returns frames, or reads nothing (the
    // destination keeps its contents) and returns 0.
    int32_t read(float* destination, int32_t destination_stride, int32_t frames);
    // Discards everything waiting.
    void clear();

private:
    struct span {
        int32_t start; // ring index of the block's first frame
        int32_t first; // frames before the end of the ring
    };
    span split(uint64_t position, int32_t frames) const;
    float* channel(int32_t c);

    int32_t channels_;
    int32_t capacity_;
    uint32_t mask_;
    uint64_t read_position_ = 0;
    uint64_t write_position_ = 0;
    std::vector<float> storage_; // channels x capacity, planar
};

} // namespace quelora::dsp
