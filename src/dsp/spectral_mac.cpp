// The portable loop and the AVX2+FMA version of the spectral multiply-
// accumulate (see spectral_mac.h). The AVX2 function carries the target
// attribute rather than the file being built with -mavx2, so the rest of the
// library stays runnable on any x86-64; plain function pointers rather than
// ifunc resolvers, which crash under ThreadSanitizer.
#include "dsp/spectral_mac.h"

#include "dsp/processor_dispatch.h"

#if defined(__x86_64__) || defined(__i386__)
#define QUELORA_HAVE_AVX2_KERNELS 1
#include <immintrin.h>
#endif

namespace quelora::dsp {

void spectral_pair_mac_portable(const spectral_pair_inputs& in, const spectral_pair_outputs& out,
                                int32_t bins) {
    // Interleaved re/im floats through restrict pointers, with the complex
    // product written out: std::complex's operator* checks for NaN and
    // infinity and keeps the loop from vectorising.
    const float* __restrict a = reinterpret_cast<const float*>(in.a);
    const float* __restrict b = reinterpret_cast<const float*>(in.b);
    const float* __restrict l = reinterpret_cast<const float*>(in.left);
    const float* __restrict r = reinterpret_cast<const float*>(in.right);
    float* __restrict al = reinterpret_cast<float*>(out.a_left);
    float* __restrict ar = reinterpret_cast<float*>(out.a_right);
    float* __restrict bl = reinterpret_cast<float*>(out.b_left);
    float* __restrict br = reinterpret_cast<float*>(out.b_right);
    const float ga = in.a_gain;
    const float gb = in.b_gain;
    for (int32_t k = 0; k < 2 * bins; k += 2) {
        const float are = a[k] * ga, aim = a[k + 1] * ga;
        const float bre = b[k] * gb, bim = b[k + 1] * gb;
        const float lre = l[k], lim = l[k + 1];
        const float rre = r[k], rim = r[k + 1];
        al[k] += are * lre - aim * lim;
        al[k + 1] += are * lim + aim * lre;
        ar[k] += are * rre - aim * rim;
        ar[k + 1] += are * rim + aim * rre;
        bl[k] += bre * lre - bim * lim;
        bl[k + 1] += bre * lim + bim * lre;
        br[k] += bre * rre - bim * rim;
        br[k + 1] += bre * rim + bim * rre;
    }
}

#if QUELORA_HAVE_AVX2_KERNELS

namespace {

#define QUELORA_AVX2 __attribute__((target("avx2,fma")))

// x times y for four interleaved complex values:
// (xr yr - xi yi, xi yr + xr yi) = fmaddsub(x, yr yr, swap(x) * yi yi).
QUELORA_AVX2 inline __m256 complex_product(__m256 x, __m256 x_swapped, __m256 y) {
    return _mm256_fmaddsub_ps(x, _mm256_moveldup_ps(y),
                              _mm256_mul_ps(x_swapped, _mm256_movehdup_ps(y)));
}

QUELORA_AVX2 void avx2_spectral_pair_mac(const spectral_pair_inputs& in,
                                         const spectral_pair_outputs& out, int32_t bins) {
    const float* a = reinterpret_cast<const float*>(in.a);
    const float* b = reinterpret_cast<const float*>(in.b);
    const float* l = reinterpret_cast<const float*>(in.left);
    const float* r = reinterpret_cast<const float*>(in.right);
    float* al = reinterpret_cast<float*>(out.a_left);
    float* ar = reinterpret_cast<float*>(out.a_right);
    float* bl = reinterpret_cast<float*>(out.b_left);
    float* br = reinterpret_cast<float*>(out.b_right);
    const __m256 ga = _mm256_set1_ps(in.a_gain);
    const __m256 gb = _mm256_set1_ps(in.b_gain);
    const int32_t floats = 2 * bins;
    int32_t k = 0;
    for (; k + 8 <= floats; k += 8) {
        const __m256 av = _mm256_mul_ps(_mm256_loadu_ps(a + k), ga);
        const __m256 bv = _mm256_mul_ps(_mm256_loadu_ps(b + k), gb);
        const __m256 a_swapped = _mm256_permute_ps(av, 0xB1);
        const __m256 b_swapped = _mm256_permute_ps(bv, 0xB1);
        const __m256 lv = _mm256_loadu_ps(l + k);
        const __m256 rv = _mm256_loadu_ps(r + k);
        _mm256_storeu_ps(
            al + k, _mm256_add_ps(_mm256_loadu_ps(al + k), complex_product(av, a_swapped, lv)));
        _mm256_storeu_ps(
            ar + k, _mm256_add_ps(_mm256_loadu_ps(ar + k), complex_product(av, a_swapped, rv)));
        _mm256_storeu_ps(
            bl + k, _mm256_add_ps(_mm256_loadu_ps(bl + k), complex_product(bv, b_swapped, lv)));
        _mm256_storeu_ps(
            br + k, _mm256_add_ps(_mm256_loadu_ps(br + k), complex_product(bv, b_swapped, rv)));
    }
    if (k < floats) {
        // The last one to three bins (bins is odd for a real transform).
        const int32_t done = k / 2;
        const spectral_pair_inputs tail_in{in.a + done, in.a_gain,      in.b + done,
                                           in.b_gain,   in.left + done, in.right + done};
        const spectral_pair_outputs tail_out{out.a_left + done, out.a_right + done,
                                             out.b_left + done, out.b_right + done};
        spectral_pair_mac_portable(tail_in, tail_out, bins - done);
    }
}

} // namespace

#endif // QUELORA_HAVE_AVX2_KERNELS

spectral_pair_mac_function avx2_spectral_pair_mac() {
#if QUELORA_HAVE_AVX2_KERNELS
    initialize_processor_dispatch();
    const processor_features& cpu = current_processor_features();
    if (cpu.avx2 && cpu.fma) return avx2_spectral_pair_mac;
#endif
    return nullptr;
}

spectral_pair_mac_function selected_spectral_pair_mac() {
    static const spectral_pair_mac_function chosen = [] {
        const spectral_pair_mac_function fast = avx2_spectral_pair_mac();
        return fast != nullptr ? fast : spectral_pair_mac_portable;
    }();
    return chosen;
}

} // namespace quelora::dsp
