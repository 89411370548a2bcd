// The network layers' products, portable and AVX2+FMA (see matvec_kernels.h;
// the AVX-512 version lives in matvec_kernels_avx512.cpp). The portable
// version is the Eigen code the layers ran before, so a processor without
// AVX2 computes exactly what it did. The AVX2+FMA version is written with
// intrinsics in functions carrying the target attribute, and deliberately
// without Eigen: Eigen's templates instantiated under other instruction
// flags would be merged by the linker with the baseline ones (one
// definition rule), leaving either the baseline build with AVX2 code or
// the fast path without it.
#include "denoise/matvec_kernels.h"

#include "denoise/activations.h"
#include "denoise/kernel_unroll.h"

#include "dsp/processor_dispatch.h"

#include <Eigen/Core>

#include <algorithm>
#include <cstddef>

#if defined(__x86_64__) || defined(__i386__)
#define QUELORA_HAVE_AVX2_KERNELS 1
#include <immintrin.h>
#endif

namespace quelora::denoise {

namespace {

using row_major = Eigen::Matrix<float, Eigen::Dynamic, Eigen::Dynamic, Eigen::RowMajor>;

void portable_matrix_vector(const float* a, uint32_t rows, uint32_t cols, const float* x,
                            float* y) {
    const auto r = static_cast<Eigen::Index>(rows);
    const auto c = static_cast<Eigen::Index>(cols);
    Eigen::Map<Eigen::VectorXf>(y, r).noalias() =
        Eigen::Map<const row_major>(a, r, c) * Eigen::Map<const Eigen::VectorXf>(x, c);
}

void portable_matrix_matrix(const float* a, const float* b, uint32_t m, uint32_t k, uint32_t n,
                            float* c, const row_epilogue* epilogue) {
    const auto rows = static_cast<Eigen::Index>(m);
    const auto inner = static_cast<Eigen::Index>(k);
    const auto cols = static_cast<Eigen::Index>(n);
    if (m == 1) {
        // A row vector times a matrix: Eigen's GEMV over the contiguous rows.
        Eigen::Map<Eigen::RowVectorXf>(c, cols).noalias() =
            Eigen::Map<const Eigen::RowVectorXf>(a, inner) *
            Eigen::Map<const row_major>(b, inner, cols);
    } else {
        Eigen::Map<row_major>(c, rows, cols).noalias() =
            Eigen::Map<const row_major>(a, rows, inner) *
            Eigen::Map<const row_major>(b, inner, cols);
    }
    if (epilogue != nullptr) apply_row_epilogue(c, m, n, *epilogue);
}

// One channel of the portable row taps: out[j] = (w0 x[Sj-1] + w1 x[Sj]) + w2 x[Sj+1],
// the input zero outside [0, n); the interior, which reads no padding, is a
// plain loop the compiler vectorises, the borders are computed apart.
template <uint32_t S>
void row_three_taps(const float* __restrict x, uint32_t n, const float* w, float* __restrict out,
                    uint32_t outs) {
    const float w0 = w[0], w1 = w[1], w2 = w[2];
    const auto border = [&](uint32_t j) {
        const std::size_t i = std::size_t{S} * j;
        const float before = i >= 1 ? x[i - 1] : 0.0f;
        const float after = i + 1 < n ? x[i + 1] : 0.0f;
        return (w0 * before + w1 * x[i]) + w2 * after;
    };
    // Outputs 1 .. end - 1 have both neighbours inside: S j + 1 < n.
    const uint32_t end = std::min(outs, n >= 2 ? (n - 2) / S + 1 : 1u);
    out[0] = border(0);
    for (uint32_t j = 1; j < end; ++j)
        out[j] = (w0 * x[S * j - 1] + w1 * x[S * j]) + w2 * x[S * j + 1];
    for (uint32_t j = std::max(end, 1u); j < outs; ++j) out[j] = border(j);
}

// Channel by channel, each row finished by its epilogue while it is in cache.
void portable_row_taps(const float* input, uint32_t channels, uint32_t n, const float* weights,
                       uint32_t taps, uint32_t stride, float* output, const row_epilogue* after) {
    const uint32_t outs = (n - 1) / stride + 1;
    row_epilogue shifted{};
    for (uint32_t c = 0; c < channels; ++c) {
        const float* x = input + std::size_t{c} * n;
        float* out = output + std::size_t{c} * outs;
        const float* w = weights + std::size_t{c} * taps;
        if (taps == 1 && stride == 1 && after != nullptr) {
            // The ERB decoder's skip paths: tap, norm and ReLU in one pass
            // over the short row, rounded as the separate steps round.
            const float tap = w[0], mean = after->mean[c], factor = after->factor[c],
                        shift = after->shift[c];
            for (uint32_t j = 0; j < outs; ++j) {
                const float v = (tap * x[j] - mean) * factor + shift;
                out[j] = !after->relu || v > 0.0f ? v : 0.0f;
            }
            continue;
        }
        if (taps == 1) {
            const float tap = w[0];
            for (uint32_t j = 0; j < outs; ++j) out[j] = tap * x[std::size_t{stride} * j];
        } else if (stride == 1) {
            row_three_taps<1>(x, n, w, out, outs);
        } else {
            row_three_taps<2>(x, n, w, out, outs);
        }
        if (after != nullptr) apply_row_epilogue(out, 1, outs, *rows_from(after, c, shifted));
    }
}

// The pair kernels of the portable version are the two single products:
// bit-identical to two separate calls, which is all a processor without
// AVX2 needs (the shared pass over the weights is a speed matter only).
void portable_matrix_vector_pair(const float* a, uint32_t rows, uint32_t cols, const float* x0,
                                 const float* x1, float* y0, float* y1) {
    portable_matrix_vector(a, rows, cols, x0, y0);
    portable_matrix_vector(a, rows, cols, x1, y1);
}

void portable_row_pair_times_matrix(const float* a0, const float* a1, const float* b, uint32_t k,
                                    uint32_t n, float* c0, float* c1) {
    portable_matrix_matrix(a0, b, 1, k, n, c0, nullptr);
    portable_matrix_matrix(a1, b, 1, k, n, c1, nullptr);
}

// The element-wise work of both versions in this file is activations.h's
// (Eigen's vectorised functions for the baseline target).
const matvec_kernels portable{.matrix_vector = portable_matrix_vector,
                              .matrix_matrix = portable_matrix_matrix,
                              .matrix_vector_pair = portable_matrix_vector_pair,
                              .row_pair_times_matrix = portable_row_pair_times_matrix,
                              .packed_matrix_vector = nullptr,
                              .packed_matrix_vector_pair = nullptr,
                              .row_taps = portable_row_taps,
                              .sigmoid = denoise::sigmoid,
                              .tanh = denoise::tanh,
                              .transpose = denoise::transpose,
                              .name = "portable"};

#if QUELORA_HAVE_AVX2_KERNELS

#define QUELORA_AVX2 __attribute__((target("avx2,fma")))

// Loading 8 floats from &mask_source[8 - n] gives a mask of the first n lanes.
alignas(64) constexpr int32_t mask_source[16] = {-1, -1, -1, -1, -1, -1, -1, -1,
                                                 0,  0,  0,  0,  0,  0,  0,  0};

QUELORA_AVX2 inline __m256i first_lanes(uint32_t n) {
    return _mm256_loadu_si256(reinterpret_cast<const __m256i*>(mask_source + 8 - n));
}

QUELORA_AVX2 inline float horizontal_sum(__m256 v) {
    __m128 s = _mm_add_ps(_mm256_castps256_ps128(v), _mm256_extractf128_ps(v, 1));
    s = _mm_add_ps(s, _mm_movehl_ps(s, s));
    s = _mm_add_ss(s, _mm_movehdup_ps(s));
    return _mm_cvtss_f32(s);
}

// The four horizontal sums of a, b, c, d as one vector.
QUELORA_AVX2 inline __m128 horizontal_sums(__m256 a, __m256 b, __m256 c, __m256 d) {
    const __m256 s = _mm256_hadd_ps(_mm256_hadd_ps(a, b), _mm256_hadd_ps(c, d));
    return _mm_add_ps(_mm256_castps256_ps128(s), _mm256_extractf128_ps(s, 1));
}

// R dot products of consecutive rows with x, two accumulators per row
// (2R independent FMA chains hide the FMA latency); the column tail goes
// through a masked load, which reads nothing past the end.
template <int R>
QUELORA_AVX2 void dot_rows(const float* a, std::size_t stride, uint32_t cols, const float* x,
                           float* y) {
    __m256 even[R], odd[R];
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) even[r] = odd[r] = _mm256_setzero_ps();
    uint32_t c = 0;
    for (; c + 16 <= cols; c += 16) {
        const __m256 x0 = _mm256_loadu_ps(x + c);
        const __m256 x1 = _mm256_loadu_ps(x + c + 8);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const float* row = a + static_cast<std::size_t>(r) * stride + c;
            even[r] = _mm256_fmadd_ps(_mm256_loadu_ps(row), x0, even[r]);
            odd[r] = _mm256_fmadd_ps(_mm256_loadu_ps(row + 8), x1, odd[r]);
        }
    }
    if (c + 8 <= cols) {
        const __m256 x0 = _mm256_loadu_ps(x + c);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r)
            even[r] = _mm256_fmadd_ps(_mm256_loadu_ps(a + static_cast<std::size_t>(r) * stride + c),
                                      x0, even[r]);
        c += 8;
    }
    if (c < cols) {
        const __m256i mask = first_lanes(cols - c);
        const __m256 x0 = _mm256_maskload_ps(x + c, mask);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r)
            odd[r] = _mm256_fmadd_ps(
                _mm256_maskload_ps(a + static_cast<std::size_t>(r) * stride + c, mask), x0, odd[r]);
    }
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) even[r] = _mm256_add_ps(even[r], odd[r]);
    if constexpr (R == 4) {
        _mm_storeu_ps(y, horizontal_sums(even[0], even[1], even[2], even[3]));
    } else {
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) y[r] = horizontal_sum(even[r]);
    }
}

QUELORA_AVX2 void avx2_matrix_vector(const float* a, uint32_t rows, uint32_t cols, const float* x,
                                     float* y) {
    const std::size_t stride = cols;
    uint32_t r = 0;
    for (; r + 4 <= rows; r += 4) dot_rows<4>(a + r * stride, stride, cols, x, y + r);
    for (; r < rows; ++r) dot_rows<1>(a + r * stride, stride, cols, x, y + r);
}

// An R x 8V tile of c = a b, kept in R·V registers over the whole inner
// dimension: each step loads V vectors of one row of b and broadcasts R
// elements of a. With Partial the last vector is the row's masked tail.
// A row's epilogue (matvec_kernels.h) on one vector of it.
QUELORA_AVX2 inline __m256 finish(__m256 v, const row_epilogue* e, std::size_t row) {
    if (e == nullptr) return v;
    v = _mm256_sub_ps(v, _mm256_set1_ps(e->mean[row]));
    v = _mm256_add_ps(_mm256_mul_ps(v, _mm256_set1_ps(e->factor[row])),
                      _mm256_set1_ps(e->shift[row]));
    return e->relu ? _mm256_max_ps(v, _mm256_setzero_ps()) : v;
}

template <int R, int V, bool Partial>
QUELORA_AVX2 void product_tile(const float* a, std::size_t lda, const float* b, std::size_t ldb,
                               uint32_t k, float* c, std::size_t ldc, __m256i tail,
                               const row_epilogue* e) {
    __m256 acc[R * V];
    QUELORA_UNROLL
    for (int i = 0; i < R * V; ++i) acc[i] = _mm256_setzero_ps();
    for (uint32_t l = 0; l < k; ++l) {
        const float* b_row = b + l * ldb;
        __m256 bv[V];
        QUELORA_UNROLL
        for (int v = 0; v < V; ++v)
            bv[v] = Partial && v == V - 1 ? _mm256_maskload_ps(b_row + 8 * v, tail)
                                          : _mm256_loadu_ps(b_row + 8 * v);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const __m256 av = _mm256_broadcast_ss(a + static_cast<std::size_t>(r) * lda + l);
            QUELORA_UNROLL
            for (int v = 0; v < V; ++v) acc[r * V + v] = _mm256_fmadd_ps(av, bv[v], acc[r * V + v]);
        }
    }
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) {
        float* c_row = c + static_cast<std::size_t>(r) * ldc;
        QUELORA_UNROLL
        for (int v = 0; v < V; ++v) {
            const __m256 out = finish(acc[r * V + v], e, static_cast<std::size_t>(r));
            if (Partial && v == V - 1)
                _mm256_maskstore_ps(c_row + 8 * v, tail, out);
            else
                _mm256_storeu_ps(c_row + 8 * v, out);
        }
    }
}

// A tile of `vectors` (1..V) column vectors: picks the instantiation.
template <int R, int V>
QUELORA_AVX2 void product_tile_of(uint32_t vectors, bool partial, const float* a, std::size_t lda,
                                  const float* b, std::size_t ldb, uint32_t k, float* c,
                                  std::size_t ldc, __m256i tail, const row_epilogue* e) {
    if constexpr (V > 1) {
        if (vectors < static_cast<uint32_t>(V)) {
            product_tile_of<R, V - 1>(vectors, partial, a, lda, b, ldb, k, c, ldc, tail, e);
            return;
        }
    }
    if (partial)
        product_tile<R, V, true>(a, lda, b, ldb, k, c, ldc, tail, e);
    else
        product_tile<R, V, false>(a, lda, b, ldb, k, c, ldc, tail, e);
}

// R rows of c, left to right in tiles of up to V vectors.
template <int R, int V>
QUELORA_AVX2 void product_rows(const float* a, const float* b, uint32_t k, uint32_t n, float* c,
                               const row_epilogue* e) {
    const uint32_t vectors = (n + 7) / 8;
    const bool partial = n % 8 != 0;
    const __m256i tail = first_lanes(partial ? n % 8 : 8);
    for (uint32_t v = 0; v < vectors; v += V) {
        const uint32_t count = vectors - v < static_cast<uint32_t>(V) ? vectors - v : V;
        product_tile_of<R, V>(count, partial && v + count == vectors, a, k, b + 8 * v, n, k,
                              c + 8 * v, n, tail, e);
    }
}

// Rows in blocks of R, then one at a time (single rows, such as the grouped
// linear layer's m = 1, get eight vectors: enough independent chains to
// cover the FMA latency).
template <int R, int V>
QUELORA_AVX2 void product_blocks(const float* a, const float* b, uint32_t m, uint32_t k, uint32_t n,
                                 float* c, const row_epilogue* epilogue) {
    row_epilogue shifted{};
    uint32_t i = 0;
    for (; i + R <= m; i += R)
        product_rows<R, V>(a + std::size_t{i} * k, b, k, n, c + std::size_t{i} * n,
                           rows_from(epilogue, i, shifted));
    for (; i < m; ++i)
        product_rows<1, 8>(a + std::size_t{i} * k, b, k, n, c + std::size_t{i} * n,
                           rows_from(epilogue, i, shifted));
}

// Tiles that fill the sixteen registers: 4 x 3 vectors (twelve accumulators,
// three loaded vectors and a broadcast) for maps wider than two vectors,
// 6 x 2 for two, 8 x 1 for one.
QUELORA_AVX2 void avx2_matrix_matrix(const float* a, const float* b, uint32_t m, uint32_t k,
                                     uint32_t n, float* c, const row_epilogue* epilogue) {
    if (n > 16)
        product_blocks<4, 3>(a, b, m, k, n, c, epilogue);
    else if (n > 8)
        product_blocks<6, 2>(a, b, m, k, n, c, epilogue);
    else
        product_blocks<8, 1>(a, b, m, k, n, c, epilogue);
}

// Keeps a loaded weight vector in its register: GCC otherwise folds the load
// into both FMAs that use it and reads every weight twice.
QUELORA_AVX2 inline __m256 in_register(__m256 v) {
    asm("" : "+x"(v));
    return v;
}

// R rows of a, each dotted with x0 and with x1: every row vector is loaded
// once for both. One accumulator per (row, vector): with R = 4 that is
// eight independent FMA chains, and eleven registers in all.
template <int R>
QUELORA_AVX2 void dot_rows_pair(const float* a, std::size_t stride, uint32_t cols, const float* x0,
                                const float* x1, float* y0, float* y1) {
    __m256 s0[R], s1[R];
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) s0[r] = s1[r] = _mm256_setzero_ps();
    uint32_t c = 0;
    for (; c + 8 <= cols; c += 8) {
        const __m256 v0 = _mm256_loadu_ps(x0 + c);
        const __m256 v1 = _mm256_loadu_ps(x1 + c);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const __m256 w =
                in_register(_mm256_loadu_ps(a + static_cast<std::size_t>(r) * stride + c));
            s0[r] = _mm256_fmadd_ps(w, v0, s0[r]);
            s1[r] = _mm256_fmadd_ps(w, v1, s1[r]);
        }
    }
    if (c < cols) {
        const __m256i mask = first_lanes(cols - c);
        const __m256 v0 = _mm256_maskload_ps(x0 + c, mask);
        const __m256 v1 = _mm256_maskload_ps(x1 + c, mask);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const __m256 w = _mm256_maskload_ps(a + static_cast<std::size_t>(r) * stride + c, mask);
            s0[r] = _mm256_fmadd_ps(w, v0, s0[r]);
            s1[r] = _mm256_fmadd_ps(w, v1, s1[r]);
        }
    }
    if constexpr (R == 4) {
        _mm_storeu_ps(y0, horizontal_sums(s0[0], s0[1], s0[2], s0[3]));
        _mm_storeu_ps(y1, horizontal_sums(s1[0], s1[1], s1[2], s1[3]));
    } else {
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            y0[r] = horizontal_sum(s0[r]);
            y1[r] = horizontal_sum(s1[r]);
        }
    }
}

QUELORA_AVX2 void avx2_matrix_vector_pair(const float* a, uint32_t rows, uint32_t cols,
                                          const float* x0, const float* x1, float* y0, float* y1) {
    const std::size_t stride = cols;
    uint32_t r = 0;
    for (; r + 4 <= rows; r += 4)
        dot_rows_pair<4>(a + r * stride, stride, cols, x0, x1, y0 + r, y1 + r);
    for (; r < rows; ++r) dot_rows_pair<1>(a + r * stride, stride, cols, x0, x1, y0 + r, y1 + r);
}

// A 2 x 8V tile of the two products a0 b and a1 b: each step loads V
// vectors of one row of b and uses them for both rows (2V accumulators,
// V loaded vectors and two broadcasts: at most 14 registers for V = 4).
// With Partial the last vector is the row's masked tail.
template <int V, bool Partial>
QUELORA_AVX2 void pair_tile(const float* a0, const float* a1, const float* b, std::size_t ldb,
                            uint32_t k, float* c0, float* c1, __m256i tail) {
    __m256 acc0[V], acc1[V];
    QUELORA_UNROLL
    for (int v = 0; v < V; ++v) acc0[v] = acc1[v] = _mm256_setzero_ps();
    for (uint32_t l = 0; l < k; ++l) {
        const float* b_row = b + l * ldb;
        const __m256 s0 = _mm256_broadcast_ss(a0 + l);
        const __m256 s1 = _mm256_broadcast_ss(a1 + l);
        QUELORA_UNROLL
        for (int v = 0; v < V; ++v) {
            const __m256 bv = Partial && v == V - 1 ? _mm256_maskload_ps(b_row + 8 * v, tail)
                                                    : _mm256_loadu_ps(b_row + 8 * v);
            acc0[v] = _mm256_fmadd_ps(s0, bv, acc0[v]);
            acc1[v] = _mm256_fmadd_ps(s1, bv, acc1[v]);
        }
    }
    QUELORA_UNROLL
    for (int v = 0; v < V; ++v) {
        if (Partial && v == V - 1) {
            _mm256_maskstore_ps(c0 + 8 * v, tail, acc0[v]);
            _mm256_maskstore_ps(c1 + 8 * v, tail, acc1[v]);
        } else {
            _mm256_storeu_ps(c0 + 8 * v, acc0[v]);
            _mm256_storeu_ps(c1 + 8 * v, acc1[v]);
        }
    }
}

// A pair tile of `vectors` (1..V) column vectors: picks the instantiation.
template <int V>
QUELORA_AVX2 void pair_tile_of(uint32_t vectors, bool partial, const float* a0, const float* a1,
                               const float* b, std::size_t ldb, uint32_t k, float* c0, float* c1,
                               __m256i tail) {
    if constexpr (V > 1) {
        if (vectors < static_cast<uint32_t>(V)) {
            pair_tile_of<V - 1>(vectors, partial, a0, a1, b, ldb, k, c0, c1, tail);
            return;
        }
    }
    if (partial)
        pair_tile<V, true>(a0, a1, b, ldb, k, c0, c1, tail);
    else
        pair_tile<V, false>(a0, a1, b, ldb, k, c0, c1, tail);
}

QUELORA_AVX2 void avx2_row_pair_times_matrix(const float* a0, const float* a1, const float* b,
                                             uint32_t k, uint32_t n, float* c0, float* c1) {
    constexpr uint32_t tile = 4;
    const uint32_t vectors = (n + 7) / 8;
    const bool partial = n % 8 != 0;
    const __m256i tail = first_lanes(partial ? n % 8 : 8);
    for (uint32_t v = 0; v < vectors; v += tile) {
        const uint32_t count = vectors - v < tile ? vectors - v : tile;
        pair_tile_of<tile>(count, partial && v + count == vectors, a0, a1, b + 8 * v, n, k,
                           c0 + 8 * v, c1 + 8 * v, tail);
    }
}

const matvec_kernels avx2_fma{.matrix_vector = avx2_matrix_vector,
                              .matrix_matrix = avx2_matrix_matrix,
                              .matrix_vector_pair = avx2_matrix_vector_pair,
                              .row_pair_times_matrix = avx2_row_pair_times_matrix,
                              .packed_matrix_vector = nullptr,
                              .packed_matrix_vector_pair = nullptr,
                              .row_taps = portable_row_taps,
                              .sigmoid = denoise::sigmoid,
                              .tanh = denoise::tanh,
                              .transpose = denoise::transpose,
                              .name = "avx2_fma"};

#endif // QUELORA_HAVE_AVX2_KERNELS

const matvec_kernels& choose_kernels() {
    if (const matvec_kernels* widest = avx512_matvec_kernels()) return *widest;
    if (const matvec_kernels* fast = avx2_fma_matvec_kernels()) return *fast;
    return portable;
}

} // namespace

// Element by element: the same operations, each rounded once, as the batch
// norm layer and relu() apply.
void apply_row_epilogue(float* c, uint32_t m, uint32_t n, const row_epilogue& e) {
    for (uint32_t i = 0; i < m; ++i) {
        float* row = c + std::size_t{i} * n;
        const float mean = e.mean[i], factor = e.factor[i], shift = e.shift[i];
        for (uint32_t j = 0; j < n; ++j) row[j] = (row[j] - mean) * factor + shift;
        if (e.relu)
            for (uint32_t j = 0; j < n; ++j) row[j] = row[j] > 0.0f ? row[j] : 0.0f;
    }
}

const matvec_kernels& portable_matvec_kernels() { return portable; }

const matvec_kernels* avx2_fma_matvec_kernels() {
#if QUELORA_HAVE_AVX2_KERNELS
    dsp::initialize_processor_dispatch();
    const dsp::processor_features& cpu = dsp::current_processor_features();
    if (cpu.avx2 && cpu.fma) return &avx2_fma;
#endif
    return nullptr;
}

const matvec_kernels& selected_matvec_kernels() {
    static const matvec_kernels& chosen = choose_kernels();
    return chosen;
}

} // namespace quelora::denoise
