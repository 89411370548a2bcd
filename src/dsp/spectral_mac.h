// The binaural renderer's inner loop: two source spectra (frames A and B)
// times one pair of ear filters, accumulated into four spectra. It runs once
// per listener, source and filter partition, so it is most of the cost of a
// large room; one pass loads each filter bin once for all four products.
//
// Two versions, picked once per process from the processor dispatch: a
// portable loop for any x86-64 (or other) target, and AVX2+FMA intrinsics.
// Both compute, per bin, acc += (gain x spectrum) x filter with the product
// rounded as the portable loop writes it, up to the fused rounding of FMA.
#pragma once

#include <complex>
#include <cstdint>

namespace quelora::dsp {

struct spectral_pair_inputs {
    const std::complex<float>* a; // frame A's spectrum
    float a_gain;
    const std::complex<float>* b; // frame B's spectrum
    float b_gain;
    const std::complex<float>* left;  // the left-ear filter partition
    const std::complex<float>* right; // the right-ear filter partition
};

struct spectral_pair_outputs {
    std::complex<float>* a_left;
    std::complex<float>* a_right;
    std::complex<float>* b_left;
    std::complex<float>* b_right;
};

using spectral_pair_mac_function = void (*)(const spectral_pair_inputs& in,
                                            const spectral_pair_outputs& out, int32_t bins);

// a_left += (a_gain a) left, a_right += (a_gain a) right,
// b_left += (b_gain b) left, b_right += (b_gain b) right, over bins values.
// Outputs must not alias inputs or each other.
void spectral_pair_mac_portable(const spectral_pair_inputs& in, const spectral_pair_outputs& out,
                                int32_t bins);

// The fastest version the processor runs (chosen at the first call, which
// initialises the processor dispatch if nothing has).
spectral_pair_mac_function selected_spectral_pair_mac();

// The AVX2+FMA version, or nullptr where the processor or target lacks it.
spectral_pair_mac_function avx2_spectral_pair_mac();

} // namespace quelora::dsp
