// The AVX-512 version of the network's products (see matvec_kernels.h).
// Like the AVX2 version it is written with intrinsics in functions carrying
// the target attribute and without Eigen, so that no template is
// instantiated twice under different instruction flags. Only AVX-512F
// instructions are used.
//
// The matrix-vector products stream each weight once per call from L2 or
// L3, so they are bound by that read rate: eight rows at a time keep eight
// independent FMA chains and eight read streams in flight. The convolution
// products are compute bound: each tile keeps rows x vectors accumulators in
// registers for the whole inner dimension (4 x 6 for the 96-wide maps), one
// FMA chain per output element in the order l = 0, 1, ..., as the AVX2
// version sums, so both give identical floats.
#include "denoise/matvec_kernels.h"

#include "denoise/kernel_unroll.h"
#include "denoise/packed_matrix.h"
#include "dsp/processor_dispatch.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>

#if defined(__x86_64__)
#define QUELORA_HAVE_AVX512_KERNELS 1
#include <immintrin.h>
#endif

// GCC 12's AVX-512 intrinsics fill their unused merge operand with a
// self-initialised "undefined" vector, which its uninitialised-use warnings
// report at every inlined call.
#if defined(__GNUC__) && !defined(__clang__)
#pragma GCC diagnostic ignored "-Wuninitialized"
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#endif

namespace quelora::denoise {

#if QUELORA_HAVE_AVX512_KERNELS

namespace {

#define QUELORA_AVX512 __attribute__((target("avx512f,avx2,fma")))

constexpr uint32_t lanes = 16;

// The first n lanes, 1 <= n <= 16.
QUELORA_AVX512 inline __mmask16 first_lanes(uint32_t n) {
    return static_cast<__mmask16>((1u << n) - 1u);
}

// The sum of the two 256-bit halves.
QUELORA_AVX512 inline __m256 fold(__m512 v) {
    return _mm256_add_ps(_mm512_castps512_ps256(v),
                         _mm256_castpd_ps(_mm512_extractf64x4_pd(_mm512_castps_pd(v), 1)));
}

QUELORA_AVX512 inline float horizontal_sum(__m512 v) {
    const __m256 h = fold(v);
    __m128 s = _mm_add_ps(_mm256_castps256_ps128(h), _mm256_extractf128_ps(h, 1));
    s = _mm_add_ps(s, _mm_movehl_ps(s, s));
    s = _mm_add_ss(s, _mm_movehdup_ps(s));
    return _mm_cvtss_f32(s);
}

// The horizontal sums of eight accumulators, in order, as one vector.
QUELORA_AVX512 inline __m256 horizontal_sums(const __m512* v) {
    const __m256 t0 = _mm256_hadd_ps(fold(v[0]), fold(v[1]));
    const __m256 t1 = _mm256_hadd_ps(fold(v[2]), fold(v[3]));
    const __m256 t2 = _mm256_hadd_ps(fold(v[4]), fold(v[5]));
    const __m256 t3 = _mm256_hadd_ps(fold(v[6]), fold(v[7]));
    const __m256 u0 = _mm256_hadd_ps(t0, t1); // rows 0-3, low and high 128-bit halves
    const __m256 u1 = _mm256_hadd_ps(t2, t3); // rows 4-7
    return _mm256_add_ps(_mm256_permute2f128_ps(u0, u1, 0x20),
                         _mm256_permute2f128_ps(u0, u1, 0x31));
}

// R accumulators to y[0 .. R).
template <int R> QUELORA_AVX512 inline void store_sums(const __m512* acc, float* y) {
    if constexpr (R == 8) {
        _mm256_storeu_ps(y, horizontal_sums(acc));
    } else {
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) y[r] = horizontal_sum(acc[r]);
    }
}

// Keeps a loaded weight vector in its register. Left alone, GCC folds the
// load into each FMA that uses it, so that with two vectors every weight is
// read twice from L1 and the pair products ran a quarter slower than the
// single ones on the same bytes.
QUELORA_AVX512 inline __m512 in_register(__m512 v) {
    asm("" : "+v"(v));
    return v;
}

// R rows of a, each dotted with the P vectors xs[0 .. P): R x P chains, every
// row vector loaded once for all of them; the column tail is a masked load,
// which reads nothing past the end.
template <int R, int P>
QUELORA_AVX512 void dot_rows(const float* a, std::size_t stride, uint32_t cols,
                             const float* const* xs, float* const* ys, std::size_t row) {
    __m512 acc[P][R];
    QUELORA_UNROLL
    for (int p = 0; p < P; ++p) QUELORA_UNROLL
    for (int r = 0; r < R; ++r) acc[p][r] = _mm512_setzero_ps();
    uint32_t c = 0;
    for (; c + lanes <= cols; c += lanes) {
        __m512 x[P];
        QUELORA_UNROLL
        for (int p = 0; p < P; ++p) x[p] = _mm512_loadu_ps(xs[p] + c);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const __m512 w =
                in_register(_mm512_loadu_ps(a + static_cast<std::size_t>(r) * stride + c));
            QUELORA_UNROLL
            for (int p = 0; p < P; ++p) acc[p][r] = _mm512_fmadd_ps(w, x[p], acc[p][r]);
        }
    }
    if (c < cols) {
        const __mmask16 mask = first_lanes(cols - c);
        __m512 x[P];
        QUELORA_UNROLL
        for (int p = 0; p < P; ++p) x[p] = _mm512_maskz_loadu_ps(mask, xs[p] + c);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const __m512 w =
                _mm512_maskz_loadu_ps(mask, a + static_cast<std::size_t>(r) * stride + c);
            QUELORA_UNROLL
            for (int p = 0; p < P; ++p) acc[p][r] = _mm512_fmadd_ps(w, x[p], acc[p][r]);
        }
    }
    QUELORA_UNROLL
    for (int p = 0; p < P; ++p) store_sums<R>(acc[p], ys[p] + row);
}

template <int P>
QUELORA_AVX512 void matrix_times_vectors(const float* a, uint32_t rows, uint32_t cols,
                                         const float* const* xs, float* const* ys) {
    const std::size_t stride = cols;
    uint32_t r = 0;
    for (; r + 8 <= rows; r += 8) dot_rows<8, P>(a + r * stride, stride, cols, xs, ys, r);
    for (; r < rows; ++r) dot_rows<1, P>(a + r * stride, stride, cols, xs, ys, r);
}

QUELORA_AVX512 void avx512_matrix_vector(const float* a, uint32_t rows, uint32_t cols,
                                         const float* x, float* y) {
    const float* const xs[1] = {x};
    float* const ys[1] = {y};
    matrix_times_vectors<1>(a, rows, cols, xs, ys);
}

QUELORA_AVX512 void avx512_matrix_vector_pair(const float* a, uint32_t rows, uint32_t cols,
                                              const float* x0, const float* x1, float* y0,
                                              float* y1) {
    const float* const xs[2] = {x0, x1};
    float* const ys[2] = {y0, y1};
    matrix_times_vectors<2>(a, rows, cols, xs, ys);
}

// The same sums over a packed matrix (packed_matrix.h): each block of eight
// rows is one forward stream of 8 x 16-float chunks.
template <int P>
QUELORA_AVX512 void packed_times_vectors(const float* packed, uint32_t rows, uint32_t cols,
                                         const float* const* xs, float* const* ys) {
    const uint32_t chunks = (cols + lanes - 1) / lanes;
    const __mmask16 tail = first_lanes(cols % lanes == 0 ? lanes : cols % lanes);
    for (uint32_t r = 0; r < rows; r += packed_block_rows) {
        const float* block = packed + std::size_t{r} * chunks * lanes;
        __m512 acc[P][packed_block_rows];
        QUELORA_UNROLL
        for (int p = 0; p < P; ++p) QUELORA_UNROLL
        for (uint32_t i = 0; i < packed_block_rows; ++i) acc[p][i] = _mm512_setzero_ps();
        for (uint32_t q = 0; q < chunks; ++q) {
            const __mmask16 mask = q + 1 == chunks ? tail : first_lanes(lanes);
            __m512 x[P];
            QUELORA_UNROLL
            for (int p = 0; p < P; ++p) x[p] = _mm512_maskz_loadu_ps(mask, xs[p] + q * lanes);
            const float* chunk = block + std::size_t{q} * packed_block_rows * lanes;
            QUELORA_UNROLL
            for (uint32_t i = 0; i < packed_block_rows; ++i) {
                const __m512 w = in_register(_mm512_loadu_ps(chunk + i * lanes));
                QUELORA_UNROLL
                for (int p = 0; p < P; ++p) acc[p][i] = _mm512_fmadd_ps(w, x[p], acc[p][i]);
            }
        }
        QUELORA_UNROLL
        for (int p = 0; p < P; ++p) {
            if (r + packed_block_rows <= rows) {
                store_sums<packed_block_rows>(acc[p], ys[p] + r);
            } else {
                // A fixed trip count: a loop bounded by rows would index the
                // accumulators at run time and keep them all in memory.
                QUELORA_UNROLL
                for (uint32_t i = 0; i < packed_block_rows; ++i)
                    if (r + i < rows) ys[p][r + i] = horizontal_sum(acc[p][i]);
            }
        }
    }
}

QUELORA_AVX512 void avx512_packed_matrix_vector(const float* packed, uint32_t rows, uint32_t cols,
                                                const float* x, float* y) {
    const float* const xs[1] = {x};
    float* const ys[1] = {y};
    packed_times_vectors<1>(packed, rows, cols, xs, ys);
}

QUELORA_AVX512 void avx512_packed_matrix_vector_pair(const float* packed, uint32_t rows,
                                                     uint32_t cols, const float* x0,
                                                     const float* x1, float* y0, float* y1) {
    const float* const xs[2] = {x0, x1};
    float* const ys[2] = {y0, y1};
    packed_times_vectors<2>(packed, rows, cols, xs, ys);
}

// A row's epilogue (matvec_kernels.h) on one vector of it.
QUELORA_AVX512 inline __m512 finish(__m512 v, const row_epilogue* e, std::size_t row) {
    if (e == nullptr) return v;
    v = _mm512_sub_ps(v, _mm512_set1_ps(e->mean[row]));
    v = _mm512_add_ps(_mm512_mul_ps(v, _mm512_set1_ps(e->factor[row])),
                      _mm512_set1_ps(e->shift[row]));
    return e->relu ? _mm512_max_ps(v, _mm512_setzero_ps()) : v;
}

// An R x 16V tile of c = a b (R rows of a, broadcast one element at a time,
// against V vectors of each row of b). The last vector is loaded and stored
// under `tail`, all lanes when the row length is a multiple of 16.
template <int R, int V>
QUELORA_AVX512 void product_tile(const float* a, std::size_t lda, const float* b, std::size_t ldb,
                                 uint32_t k, float* c, std::size_t ldc, __mmask16 tail,
                                 const row_epilogue* e) {
    __m512 acc[R][V];
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) QUELORA_UNROLL
    for (int v = 0; v < V; ++v) acc[r][v] = _mm512_setzero_ps();
    for (uint32_t l = 0; l < k; ++l) {
        const float* b_row = b + l * ldb;
        __m512 bv[V];
        QUELORA_UNROLL
        for (int v = 0; v < V - 1; ++v) bv[v] = _mm512_loadu_ps(b_row + lanes * v);
        bv[V - 1] = _mm512_maskz_loadu_ps(tail, b_row + lanes * (V - 1));
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r) {
            const __m512 av = _mm512_set1_ps(a[static_cast<std::size_t>(r) * lda + l]);
            QUELORA_UNROLL
            for (int v = 0; v < V; ++v) acc[r][v] = _mm512_fmadd_ps(av, bv[v], acc[r][v]);
        }
    }
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) {
        float* c_row = c + static_cast<std::size_t>(r) * ldc;
        QUELORA_UNROLL
        for (int v = 0; v < V - 1; ++v)
            _mm512_storeu_ps(c_row + lanes * v, finish(acc[r][v], e, static_cast<std::size_t>(r)));
        _mm512_mask_storeu_ps(c_row + lanes * (V - 1), tail,
                              finish(acc[r][V - 1], e, static_cast<std::size_t>(r)));
    }
}

// A tile of `vectors` (1..V) column vectors: picks the instantiation.
template <int R, int V>
QUELORA_AVX512 void product_tile_of(uint32_t vectors, const float* a, std::size_t lda,
                                    const float* b, std::size_t ldb, uint32_t k, float* c,
                                    std::size_t ldc, __mmask16 tail, const row_epilogue* e) {
    if constexpr (V > 1) {
        if (vectors < static_cast<uint32_t>(V)) {
            product_tile_of<R, V - 1>(vectors, a, lda, b, ldb, k, c, ldc, tail, e);
            return;
        }
    }
    product_tile<R, V>(a, lda, b, ldb, k, c, ldc, tail, e);
}

// R rows of c, left to right in tiles of up to V vectors.
template <int R, int V>
QUELORA_AVX512 void product_rows(const float* a, const float* b, uint32_t k, uint32_t n, float* c,
                                 const row_epilogue* e) {
    const uint32_t vectors = (n + lanes - 1) / lanes;
    const __mmask16 partial_tail = first_lanes(n % lanes == 0 ? lanes : n % lanes);
    for (uint32_t v = 0; v < vectors; v += V) {
        const uint32_t count = vectors - v < static_cast<uint32_t>(V) ? vectors - v : V;
        const __mmask16 tail = v + count == vectors ? partial_tail : first_lanes(lanes);
        product_tile_of<R, V>(count, a, k, b + lanes * v, n, k, c + lanes * v, n, tail, e);
    }
}

// Rows in blocks of R, then one at a time.
template <int R, int V>
QUELORA_AVX512 void product_blocks(const float* a, const float* b, uint32_t m, uint32_t k,
                                   uint32_t n, float* c, const row_epilogue* epilogue) {
    row_epilogue shifted{};
    uint32_t i = 0;
    for (; i + R <= m; i += R)
        product_rows<R, V>(a + std::size_t{i} * k, b, k, n, c + std::size_t{i} * n,
                           rows_from(epilogue, i, shifted));
    for (; i < m; ++i)
        product_rows<1, V>(a + std::size_t{i} * k, b, k, n, c + std::size_t{i} * n,
                           rows_from(epilogue, i, shifted));
}

// Maps at most eight wide (the 8-band ones) in 256-bit vectors: a processor
// that splits 512-bit FMAs in two runs twice as many of these per cycle,
// and half of each 512-bit lane would be masked off anyway. R rows of one
// vector each, the same chains as the AVX2 version's.
template <int R, bool Partial>
QUELORA_AVX512 void narrow_tile(const float* a, const float* b, uint32_t k, uint32_t n, float* c,
                                const row_epilogue* e) {
    // AVX-512 masked loads and stores (the AVX2 ones are slow on some
    // processors); only the low eight lanes are ever enabled.
    const __mmask16 tail = first_lanes(n);
    __m256 acc[R];
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) acc[r] = _mm256_setzero_ps();
    for (uint32_t l = 0; l < k; ++l) {
        const float* b_row = b + std::size_t{l} * n;
        const __m256 bv = Partial ? _mm512_castps512_ps256(_mm512_maskz_loadu_ps(tail, b_row))
                                  : _mm256_loadu_ps(b_row);
        QUELORA_UNROLL
        for (int r = 0; r < R; ++r)
            acc[r] = _mm256_fmadd_ps(_mm256_broadcast_ss(a + static_cast<std::size_t>(r) * k + l),
                                     bv, acc[r]);
    }
    QUELORA_UNROLL
    for (int r = 0; r < R; ++r) {
        __m256 v = acc[r];
        if (e != nullptr) {
            v = _mm256_sub_ps(v, _mm256_set1_ps(e->mean[r]));
            v = _mm256_add_ps(_mm256_mul_ps(v, _mm256_set1_ps(e->factor[r])),
                              _mm256_set1_ps(e->shift[r]));
            if (e->relu) v = _mm256_max_ps(v, _mm256_setzero_ps());
        }
        _mm512_mask_storeu_ps(c + static_cast<std::size_t>(r) * n, tail, _mm512_castps256_ps512(v));
    }
}

// Whole eight-float rows load plainly; shorter ones under a mask.
template <bool Partial>
QUELORA_AVX512 void narrow_rows(const float* a, const float* b, uint32_t m, uint32_t k, uint32_t n,
                                float* c, const row_epilogue* epilogue) {
    row_epilogue shifted{};
    uint32_t i = 0;
    for (; i + 8 <= m; i += 8)
        narrow_tile<8, Partial>(a + std::size_t{i} * k, b, k, n, c + std::size_t{i} * n,
                                rows_from(epilogue, i, shifted));
    for (; i < m; ++i)
        narrow_tile<1, Partial>(a + std::size_t{i} * k, b, k, n, c + std::size_t{i} * n,
                                rows_from(epilogue, i, shifted));
}

QUELORA_AVX512 void narrow_product(const float* a, const float* b, uint32_t m, uint32_t k,
                                   uint32_t n, float* c, const row_epilogue* epilogue) {
    if (n == 8)
        narrow_rows<false>(a, b, m, k, n, c, epilogue);
    else
        narrow_rows<true>(a, b, m, k, n, c, epilogue);
}

// Wide maps (four vectors or more, the 96- and 48-wide ones) in 4 x 6 tiles:
// 24 accumulators, six loaded vectors and a broadcast fill the 32 registers.
// Middle ones in 8 x 3 tiles, so that at least eight chains hide the FMA
// latency.
QUELORA_AVX512 void avx512_matrix_matrix(const float* a, const float* b, uint32_t m, uint32_t k,
                                         uint32_t n, float* c, const row_epilogue* epilogue) {
    if (n > 3 * lanes)
        product_blocks<4, 6>(a, b, m, k, n, c, epilogue);
    else if (n > 8)
        product_blocks<8, 3>(a, b, m, k, n, c, epilogue);
    else
        narrow_product(a, b, m, k, n, c, epilogue);
}

// A 2 x 16V tile of the two products a0 b and a1 b: each loaded vector of b
// serves both rows.
template <int V>
QUELORA_AVX512 void pair_tile(const float* a0, const float* a1, const float* b, std::size_t ldb,
                              uint32_t k, float* c0, float* c1, __mmask16 tail) {
    __m512 acc0[V], acc1[V];
    QUELORA_UNROLL
    for (int v = 0; v < V; ++v) acc0[v] = acc1[v] = _mm512_setzero_ps();
    for (uint32_t l = 0; l < k; ++l) {
        const float* b_row = b + l * ldb;
        const __m512 s0 = _mm512_set1_ps(a0[l]);
        const __m512 s1 = _mm512_set1_ps(a1[l]);
        QUELORA_UNROLL
        for (int v = 0; v < V; ++v) {
            const __m512 bv = v == V - 1 ? _mm512_maskz_loadu_ps(tail, b_row + lanes * v)
                                         : _mm512_loadu_ps(b_row + lanes * v);
            acc0[v] = _mm512_fmadd_ps(s0, bv, acc0[v]);
            acc1[v] = _mm512_fmadd_ps(s1, bv, acc1[v]);
        }
    }
    QUELORA_UNROLL
    for (int v = 0; v < V - 1; ++v) {
        _mm512_storeu_ps(c0 + lanes * v, acc0[v]);
        _mm512_storeu_ps(c1 + lanes * v, acc1[v]);
    }
    _mm512_mask_storeu_ps(c0 + lanes * (V - 1), tail, acc0[V - 1]);
    _mm512_mask_storeu_ps(c1 + lanes * (V - 1), tail, acc1[V - 1]);
}

template <int V>
QUELORA_AVX512 void pair_tile_of(uint32_t vectors, const float* a0, const float* a1, const float* b,
                                 std::size_t ldb, uint32_t k, float* c0, float* c1,
                                 __mmask16 tail) {
    if constexpr (V > 1) {
        if (vectors < static_cast<uint32_t>(V)) {
            pair_tile_of<V - 1>(vectors, a0, a1, b, ldb, k, c0, c1, tail);
            return;
        }
    }
    pair_tile<V>(a0, a1, b, ldb, k, c0, c1, tail);
}

QUELORA_AVX512 void avx512_row_pair_times_matrix(const float* a0, const float* a1, const float* b,
                                                 uint32_t k, uint32_t n, float* c0, float* c1) {
    constexpr uint32_t tile = 4;
    const uint32_t vectors = (n + lanes - 1) / lanes;
    const __mmask16 partial_tail = first_lanes(n % lanes == 0 ? lanes : n % lanes);
    for (uint32_t v = 0; v < vectors; v += tile) {
        const uint32_t count = vectors - v < tile ? vectors - v : tile;
        const __mmask16 tail = v + count == vectors ? partial_tail : first_lanes(lanes);
        pair_tile_of<tile>(count, a0, a1, b + lanes * v, n, k, c0 + lanes * v, c1 + lanes * v,
                           tail);
    }
}

// Bins first .. first + 15 of a row of n, zero outside it (masked lanes are
// not read).
QUELORA_AVX512 inline __m512 row_bins(const float* x, int64_t first, uint32_t n) {
    const int64_t low = first < 0 ? -first : 0;
    const int64_t high = std::min<int64_t>(lanes, int64_t{n} - first);
    if (high <= low) return _mm512_setzero_ps();
    const auto mask = static_cast<__mmask16>(((1u << high) - 1u) & ~((1u << low) - 1u));
    return _mm512_maskz_loadu_ps(mask, x + first);
}

// The even and the odd lanes of the 32 floats a, b.
QUELORA_AVX512 inline __m512 evens(__m512 a, __m512 b) {
    return _mm512_permutex2var_ps(
        a, _mm512_setr_epi32(0, 2, 4, 6, 8, 10, 12, 14, 16, 18, 20, 22, 24, 26, 28, 30), b);
}

QUELORA_AVX512 inline __m512 odds(__m512 a, __m512 b) {
    return _mm512_permutex2var_ps(
        a, _mm512_setr_epi32(1, 3, 5, 7, 9, 11, 13, 15, 17, 19, 21, 23, 25, 27, 29, 31), b);
}

// Sixteen outputs from j0 on across the row: the three taps' inputs gathered
// into whole vectors, then the portable version's products and sums.
QUELORA_AVX512 void avx512_row_taps(const float* input, uint32_t channels, uint32_t n,
                                    const float* weights, uint32_t taps, uint32_t stride,
                                    float* output, const row_epilogue* after) {
    const uint32_t outs = (n - 1) / stride + 1;
    for (uint32_t c = 0; c < channels; ++c) {
        const float* x = input + std::size_t{c} * n;
        float* out = output + std::size_t{c} * outs;
        const float* w = weights + std::size_t{c} * taps;
        for (uint32_t j0 = 0; j0 < outs; j0 += lanes) {
            const int64_t at = int64_t{stride} * j0;
            __m512 before, centre, after_bin;
            if (stride == 1) {
                before = row_bins(x, at - 1, n);
                centre = row_bins(x, at, n);
                after_bin = row_bins(x, at + 1, n);
            } else {
                const __m512 a = row_bins(x, at - 1, n), b = row_bins(x, at + 15, n);
                before = evens(a, b);
                centre = odds(a, b);
                after_bin = evens(row_bins(x, at + 1, n), row_bins(x, at + 17, n));
            }
            __m512 v = _mm512_mul_ps(_mm512_set1_ps(w[0]), taps == 1 ? centre : before);
            if (taps == 3)
                v = _mm512_add_ps(_mm512_add_ps(v, _mm512_mul_ps(_mm512_set1_ps(w[1]), centre)),
                                  _mm512_mul_ps(_mm512_set1_ps(w[2]), after_bin));
            v = finish(v, after, c);
            _mm512_mask_storeu_ps(out + j0, first_lanes(std::min(lanes, outs - j0)), v);
        }
    }
}

// exp(x) for x in [-88.3, 88.3] (callers clamp): x = n ln 2 + r with
// |r| <= ln 2 / 2, exp(r) by the minimax polynomial of Moshier's Cephes
// expf (relative error about 1e-7), scaled by 2^n exactly.
QUELORA_AVX512 inline __m512 exp_clamped(__m512 x) {
    const __m512 n = _mm512_roundscale_ps(_mm512_mul_ps(x, _mm512_set1_ps(1.44269504088896341f)),
                                          _MM_FROUND_TO_NEAREST_INT | _MM_FROUND_NO_EXC);
    // ln 2 in two parts, the first exact in a few bits, so that r is exact.
    __m512 r = _mm512_fnmadd_ps(n, _mm512_set1_ps(0.693359375f), x);
    r = _mm512_fnmadd_ps(n, _mm512_set1_ps(-2.12194440e-4f), r);
    __m512 p = _mm512_set1_ps(1.9875691500e-4f);
    p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(1.3981999507e-3f));
    p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(8.3334519073e-3f));
    p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(4.1665795894e-2f));
    p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(1.6666665459e-1f));
    p = _mm512_fmadd_ps(p, r, _mm512_set1_ps(5.0000001201e-1f));
    p = _mm512_fmadd_ps(p, _mm512_mul_ps(r, r), _mm512_add_ps(r, _mm512_set1_ps(1.0f)));
    return _mm512_scalef_ps(p, n);
}

constexpr float exp_limit = 88.0f; // exp of it still is a normal float

QUELORA_AVX512 inline __m512 sigmoid16(__m512 x) {
    const __m512 minus_x = _mm512_min_ps(
        _mm512_max_ps(_mm512_sub_ps(_mm512_setzero_ps(), x), _mm512_set1_ps(-exp_limit)),
        _mm512_set1_ps(exp_limit));
    return _mm512_div_ps(_mm512_set1_ps(1.0f),
                         _mm512_add_ps(exp_clamped(minus_x), _mm512_set1_ps(1.0f)));
}

// tanh as Cephes tanhf computes it: an odd polynomial below |x| = 0.625,
// where 1 - 2 / (exp(2|x|) + 1) would cancel, that formula above.
QUELORA_AVX512 inline __m512 tanh16(__m512 x) {
    const __m512 magnitude = _mm512_abs_ps(x);
    const __m512 z = _mm512_mul_ps(x, x);
    __m512 p = _mm512_set1_ps(-5.70498872745e-3f);
    p = _mm512_fmadd_ps(p, z, _mm512_set1_ps(2.06390887954e-2f));
    p = _mm512_fmadd_ps(p, z, _mm512_set1_ps(-5.37397155531e-2f));
    p = _mm512_fmadd_ps(p, z, _mm512_set1_ps(1.33314422036e-1f));
    p = _mm512_fmadd_ps(p, z, _mm512_set1_ps(-3.33332819422e-1f));
    const __m512 small = _mm512_fmadd_ps(_mm512_mul_ps(p, z), x, x);
    const __m512 e =
        exp_clamped(_mm512_min_ps(_mm512_add_ps(magnitude, magnitude), _mm512_set1_ps(exp_limit)));
    __m512 large =
        _mm512_sub_ps(_mm512_set1_ps(1.0f),
                      _mm512_div_ps(_mm512_set1_ps(2.0f), _mm512_add_ps(e, _mm512_set1_ps(1.0f))));
    // The sign of x onto the result.
    large = _mm512_castsi512_ps(
        _mm512_or_si512(_mm512_castps_si512(large),
                        _mm512_and_si512(_mm512_castps_si512(x), _mm512_set1_epi32(INT32_MIN))));
    const __mmask16 use_small = _mm512_cmp_ps_mask(magnitude, _mm512_set1_ps(0.625f), _CMP_LT_OQ);
    return _mm512_mask_blend_ps(use_small, large, small);
}

template <__m512 (*F)(__m512)>
QUELORA_AVX512 void element_wise(const float* x, float* y, std::size_t count) {
    std::size_t i = 0;
    for (; i + lanes <= count; i += lanes) _mm512_storeu_ps(y + i, F(_mm512_loadu_ps(x + i)));
    if (i < count) {
        const __mmask16 tail = first_lanes(static_cast<uint32_t>(count - i));
        _mm512_mask_storeu_ps(y + i, tail, F(_mm512_maskz_loadu_ps(tail, x + i)));
    }
}

QUELORA_AVX512 void avx512_sigmoid(const float* x, float* y, std::size_t count) {
    element_wise<sigmoid16>(x, y, count);
}

QUELORA_AVX512 void avx512_tanh(const float* x, float* y, std::size_t count) {
    element_wise<tanh16>(x, y, count);
}

// Eight rows of eight: the classic unpack, shuffle and lane-swap sequence.
QUELORA_AVX512 inline void transpose_8x8(const float* in, std::size_t in_stride, float* out,
                                         std::size_t out_stride) {
    __m256 r[8], t[8];
    QUELORA_UNROLL
    for (int i = 0; i < 8; ++i)
        r[i] = _mm256_loadu_ps(in + static_cast<std::size_t>(i) * in_stride);
    QUELORA_UNROLL
    for (int i = 0; i < 8; i += 2) {
        t[i] = _mm256_unpacklo_ps(r[i], r[i + 1]);
        t[i + 1] = _mm256_unpackhi_ps(r[i], r[i + 1]);
    }
    QUELORA_UNROLL
    for (int i = 0; i < 8; i += 4) {
        r[i] = _mm256_shuffle_ps(t[i], t[i + 2], 0x44);
        r[i + 1] = _mm256_shuffle_ps(t[i], t[i + 2], 0xee);
        r[i + 2] = _mm256_shuffle_ps(t[i + 1], t[i + 3], 0x44);
        r[i + 3] = _mm256_shuffle_ps(t[i + 1], t[i + 3], 0xee);
    }
    QUELORA_UNROLL
    for (int i = 0; i < 4; ++i) {
        _mm256_storeu_ps(out + static_cast<std::size_t>(i) * out_stride,
                         _mm256_permute2f128_ps(r[i], r[i + 4], 0x20));
        _mm256_storeu_ps(out + static_cast<std::size_t>(i + 4) * out_stride,
                         _mm256_permute2f128_ps(r[i], r[i + 4], 0x31));
    }
}

QUELORA_AVX512 void avx512_transpose(const float* input, float* output, std::size_t rows,
                                     std::size_t cols) {
    const std::size_t full_rows = rows - rows % 8, full_cols = cols - cols % 8;
    for (std::size_t r = 0; r < full_rows; r += 8)
        for (std::size_t c = 0; c < full_cols; c += 8)
            transpose_8x8(input + r * cols + c, cols, output + c * rows + r, rows);
    // The edges that no whole block covers.
    for (std::size_t r = 0; r < rows; ++r)
        for (std::size_t c = r < full_rows ? full_cols : 0; c < cols; ++c)
            output[c * rows + r] = input[r * cols + c];
}

const matvec_kernels avx512{.matrix_vector = avx512_matrix_vector,
                            .matrix_matrix = avx512_matrix_matrix,
                            .matrix_vector_pair = avx512_matrix_vector_pair,
                            .row_pair_times_matrix = avx512_row_pair_times_matrix,
                            .packed_matrix_vector = avx512_packed_matrix_vector,
                            .packed_matrix_vector_pair = avx512_packed_matrix_vector_pair,
                            .row_taps = avx512_row_taps,
                            .sigmoid = avx512_sigmoid,
                            .tanh = avx512_tanh,
                            .transpose = avx512_transpose,
                            .name = "avx512"};

} // namespace

#endif // QUELORA_HAVE_AVX512_KERNELS

const matvec_kernels* avx512_matvec_kernels() {
#if QUELORA_HAVE_AVX512_KERNELS
    dsp::initialize_processor_dispatch();
    const dsp::processor_features& cpu = dsp::current_processor_features();
    if (cpu.avx512f && cpu.avx2 && cpu.fma) return &avx512;
#endif
    return nullptr;
}

} // namespace quelora::denoise
