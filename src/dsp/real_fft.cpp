// KissFFT behind the real_fft facade (see real_fft.h).
#include "dsp/real_fft.h"

#include <kissfft/kiss_fftr.h>

#include <cstdlib>
#include <new>
#include <stdexcept>
#include <string>

namespace quelora::dsp {

namespace {

// Radices 2, 3, 4 and 5 have allocation-free butterflies in KissFFT.
bool has_only_small_factors(int n) {
    for (int factor : {2, 3, 5}) {
        while (n % factor == 0) n /= factor;
    }
    return n == 1;
}

kiss_fftr_cfg plan(void* p) { return static_cast<kiss_fftr_cfg>(p); }

// kiss_fft_cpx is {float r, i}; std::complex<float> is guaranteed to be laid
// out as float[2] (C++ [complex.numbers]), so an array of one is an array of
// the other.
static_assert(sizeof(kiss_fft_cpx) == sizeof(std::complex<float>));

} // namespace

void real_fft::plan_deleter::operator()(void* p) const { kiss_fftr_free(p); }

real_fft::real_fft(int size) : size_(size) {
    if (size <= 0 || size % 2 != 0 || !has_only_small_factors(size / 2)) {
        throw std::invalid_argument("real_fft: size " + std::to_string(size) +
                                    " is not even with a half of factors 2, 3, 5 only");
    }
    forward_plan_.reset(kiss_fftr_alloc(size, 0, nullptr, nullptr));
    inverse_plan_.reset(kiss_fftr_alloc(size, 1, nullptr, nullptr));
    if (!forward_plan_ || !inverse_plan_) throw std::bad_alloc();
}

real_fft::~real_fft() = default;
real_fft::real_fft(real_fft&&) noexcept = default;
real_fft& real_fft::operator=(real_fft&&) noexcept = default;

void real_fft::forward(const float* in, std::complex<float>* out) {
    kiss_fftr(plan(forward_plan_.get()), in, reinterpret_cast<kiss_fft_cpx*>(out));
}

void real_fft::inverse(const std::complex<float>* in, float* out) {
    kiss_fftri(plan(inverse_plan_.get()), reinterpret_cast<const kiss_fft_cpx*>(in), out);
}

} // namespace quelora::dsp
