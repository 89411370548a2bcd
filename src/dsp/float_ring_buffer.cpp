#include "dsp/float_ring_buffer.h"

#include "dsp/vector_ops.h"

#include <cstddef>
#include <stdexcept>

namespace quelora::dsp {

namespace {

// The largest capacity whose storage index still fits the int32 frame
// counts of the interface.
constexpr int32_t maximum_capacity = int32_t{1} << 30;

int32_t round_up_to_power_of_two(int32_t frames) {
    int32_t capacity = 1;
    while (capacity < frames) capacity <<= 1;
    return capacity;
}


} // namespace

float_ring_buffer::float_ring_buffer(int32_t channels, int32_t minimum_frames)
    : channels_(channels), capacity_(0), mask_(0) {
    if (channels < 1) throw std::invalid_argument("float_ring_buffer: channels must be >= 1");
    if (minimum_frames < 1 || minimum_frames > maximum_capacity)
        throw std::invalid_argument("float_ring_buffer: minimum_frames out of range");
    capacity_ = round_up_to_power_of_two(minimum_frames);
    mask_ = static_cast<uint32_t>(capacity_) - 1u;
    storage_.assign(static_cast<size_t>(channels_) * static_cast<size_t>(capacity_), 0.0f);
}

int32_t float_ring_buffer::frames_available() const {
    return static_cast<int32_t>(write_position_ - read_position_);
}

int32_t float_ring_buffer::frames_free() const { return capacity_ - frames_available(); }

int32_t float_ring_buffer::write(const float* source, int32_t source_stride, int32_t frames) {
    if (frames <= 0 || frames > frames_free()) return 0;
    const span s = split(write_position_, frames);
    for (int32_t c = 0; c < channels_; ++c) {
        const float* from = source + static_cast<ptrdiff_t>(c) * source_stride;
        float* ring = channel(c);
        dsp::copy(from, ring + s.start, s.first);
        dsp::copy(from + s.first, ring, frames - s.first);
    }
    write_position_ += static_cast<uint64_t>(frames);
    return frames;
}

int32_t float_ring_buffer::read(float* destination, int32_t destination_stride, int32_t frames) {
    if (frames <= 0 || frames > frames_available()) return 0;
    const span s = split(read_position_, frames);
    for (int32_t c = 0; c < channels_; ++c) {
        float* to = destination + static_cast<ptrdiff_t>(c) * destination_stride;
        const float* ring = channel(c);
        dsp::copy(ring + s.start, to, s.first);
        dsp::copy(ring, to + s.first, frames - s.first);
    }
    read_position_ += static_cast<uint64_t>(frames);
    return frames;
}

float_ring_buffer::span float_ring_buffer::split(uint64_t position, int32_t frames) const {
    // A block crosses the end of the ring at most once: it is copied in two
    // parts, `first` frames from `start`, the rest from the ring's start.
    const int32_t start = static_cast<int32_t>(static_cast<uint32_t>(position) & mask_);
    return {start, frames < capacity_ - start ? frames : capacity_ - start};
}

float* float_ring_buffer::channel(int32_t c) {
    return storage_.data() + static_cast<size_t>(c) * static_cast<size_t>(capacity_);
}

void float_ring_buffer::clear() { read_position_ = write_position_; }

} // namespace quelora::dsp
