// Flush-to-zero and denormals-are-zero for the length of one audio call, so
// that decaying tails and silence cost what speech costs (recursive filters
// and limiter envelopes would otherwise crawl through subnormal numbers),
// and round-to-nearest, so that conversions round the same whatever mode the
// host's thread runs in. The host's mode is restored when the guard ends.
#pragma once

#if defined(__SSE__) || defined(__x86_64__)
#include <xmmintrin.h>
#define QUELORA_HAS_MXCSR 1
#endif

namespace quelora::dsp {

class denormal_guard {
public:
#ifdef QUELORA_HAS_MXCSR
    denormal_guard() : saved_(_mm_getcsr()) {
        _mm_setcsr((saved_ & ~rounding_bits) | flush_bits);
    }
    ~denormal_guard() { _mm_setcsr(saved_); }
#else
    denormal_guard() = default;
#endif
    denormal_guard(const denormal_guard&) = delete;
    denormal_guard& operator=(const denormal_guard&) = delete;

private:
#ifdef QUELORA_HAS_MXCSR
    static constexpr unsigned flush_bits = 0x8040u;    // FTZ (bit 15) | DAZ (bit 6)
    static constexpr unsigned rounding_bits = 0x6000u; // RC (bits 13-14); 0 is nearest
    unsigned saved_;
#endif
};

} // namespace quelora::dsp
