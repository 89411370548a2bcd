#include "audio/crosstalk_processor.h"

#include "dsp/vector_ops.h"

#include <algorithm>
#include <numeric>
#include <stdexcept>

namespace quelora {

namespace {

// The pre-stage: a first-order DC blocker, y[n] = x[n] - x[n-1] + r y[n-1],
// corner about 20 Hz. The filters pass DC at about -30 dB: small, but not
// zero. The blocker makes it zero, so an offset in the mix never becomes a
// constant loudspeaker excursion.
constexpr float dc_pole = 0.9974f;

// acc[k] += x[k] y[k] + u[k] v[k], written out in real arithmetic: a
// std::complex product goes through the NaN-checking library call otherwise.
void multiply_add_two(const std::complex<float>* x, const std::complex<float>* y,
                      const std::complex<float>* u, const std::complex<float>* v,
                      std::complex<float>* acc, int32_t count) {
    for (int32_t k = 0; k < count; ++k) {
        const float re = x[k].real() * y[k].real() - x[k].imag() * y[k].imag() +
                         u[k].real() * v[k].real() - u[k].imag() * v[k].imag();
        const float im = x[k].real() * y[k].imag() + x[k].imag() * y[k].real() +
                         u[k].real() * v[k].imag() + u[k].imag() * v[k].real();
        acc[k] += std::complex<float>(re, im);
    }
}

} // namespace

crosstalk_processor::crosstalk_processor(const crosstalk_filter_bank& bank, int32_t frames)
    : bank_(bank), frames_(frames),
      latency_(frames >= 1 && frames <= block ? block - std::gcd(frames, block) : 0),
      // In: under a block waits before a write of N. Out: at most latency +
      // N after a block lands (see latency()), under two blocks.
      input_(2, 2 * block), output_(2, 2 * block), fft_(crosstalk_filter_bank::transform_size),
      block_(2 * block), time_(crosstalk_filter_bank::transform_size), overlap_(2 * block, 0.0f),
      spectrum_(2 * bins), pending_(2 * partitions * bins) {
    if (frames < 1 || frames > block) {
        throw std::invalid_argument("crosstalk_processor: frames must be 1 .. 1024");
    }
    for (int32_t written = 0; written < latency_;) { // block_ is still silence
        written += output_.write(block_.data(), block, std::min(block, latency_ - written));
    }
}

void crosstalk_processor::process(float* mix, int32_t frames, int32_t half_span_angle) {
    const int32_t half_span =
        std::clamp(half_span_angle, int32_t{1}, crosstalk_filter_bank::max_half_span);
    frames = std::clamp(frames, int32_t{0}, frames_);
    input_.write(mix, frames, frames);
    while (input_.frames_available() >= block) {
        input_.read(block_.data(), block, block);
        process_block(half_span);
        output_.write(block_.data(), block, block);
    }
    if (output_.read(mix, frames, frames) == 0) {
        dsp::zero(mix, frames);
        dsp::zero(mix + frames, frames);
    }
}

// One block of the uniformly partitioned convolution. pending_ holds, per
// output, the spectra still to come: slot (ring_position_ + q) mod 2 gets
// this input times partition q, so the slot at ring_position_ now holds
// x_b c_0 + x_(b-1) c_1, whose inverse (2047 samples, no wrap in 2048) is
// this block's first half and the next block's overlap.
void crosstalk_processor::process_block(int32_t half_span) {
    for (int32_t c = 0; c < 2; ++c) {
        float* x = block_.data() + c * block;
        float in = last_in_[c], out = last_out_[c];
        for (int32_t n = 0; n < block; ++n) {
            const float y = x[n] - in + dc_pole * out;
            in = x[n];
            out = x[n] = y;
        }
        last_in_[c] = in;
        last_out_[c] = out;
        std::copy_n(x, block, time_.begin());
        std::fill(time_.begin() + block, time_.end(), 0.0f);
        fft_.forward(time_.data(), spectrum_.data() + c * bins);
    }

    using path = crosstalk_filter_bank::path;
    const std::complex<float>* left = spectrum_.data();
    const std::complex<float>* right = spectrum_.data() + bins;
    // Output o (left, right loudspeaker) takes the left input through the
    // left-to-o path and the right input through the right-to-o path.
    const path from_left[2] = {path::left_to_left, path::left_to_right};
    const path from_right[2] = {path::right_to_left, path::right_to_right};
    for (int32_t o = 0; o < 2; ++o) {
        const std::complex<float>* a = bank_.spectra(half_span, from_left[o]);
        const std::complex<float>* b = bank_.spectra(half_span, from_right[o]);
        std::complex<float>* ring = pending_.data() + o * partitions * bins;
        for (int32_t q = 0; q < partitions; ++q) {
            std::complex<float>* slot = ring + ((ring_position_ + q) % partitions) * bins;
            multiply_add_two(left, a + q * bins, right, b + q * bins, slot, bins);
        }
        std::complex<float>* now = ring + ring_position_ * bins;
        fft_.inverse(now, time_.data());
        std::fill(now, now + bins, std::complex<float>());
        float* y = block_.data() + o * block;
        float* tail = overlap_.data() + o * block;
        for (int32_t n = 0; n < block; ++n) y[n] = time_[n] + tail[n];
        std::copy_n(time_.begin() + block, block, tail);
    }
    ring_position_ = (ring_position_ + 1) % partitions;
}

} // namespace quelora
