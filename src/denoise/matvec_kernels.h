// The matrix products under the network layers (GRU gates, grouped linear
// blocks, convolutions as patch-matrix products) and the element-wise work
// around them, in three versions: a
// portable one for the baseline x86-64 target, one for AVX2+FMA and one for
// AVX-512, picked once per process from the processor dispatch
// (dsp/processor_dispatch.h). The shipped library has to run on any x86-64,
// yet the DFN model meets its real-time budget only with the wider
// instructions. Every version gives each output element the same sum up to
// the order of its terms; the convolution products of the two vector
// versions even keep that order (one FMA chain per element over the inner
// dimension), so they agree bit for bit.
// Plain function pointers rather than target_clones: the loader's ifunc
// resolvers crash under ThreadSanitizer.
#pragma once

#include <cstddef>
#include <cstdint>

namespace quelora::denoise {

// What the rows of a product go through before they are stored: the batch
// norm and the ReLU that follow every convolution of the model, folded in so
// that the map is written once. Row i of the call becomes
// (c - mean[i]) * factor[i] + shift[i], each operation rounded on its own
// exactly as the separate batch norm rounds it (the kernels are compiled
// without floating-point contraction), then max(c, 0) when relu is set.
struct row_epilogue {
    const float* mean;
    const float* factor;
    const float* shift;
    bool relu;
};

// The epilogue of a call's rows from `first` on (null stays null), for a
// kernel that hands its rows out in blocks; `shifted` holds the result.
inline const row_epilogue* rows_from(const row_epilogue* e, uint32_t first, row_epilogue& shifted) {
    if (e == nullptr) return nullptr;
    shifted = {e->mean + first, e->factor + first, e->shift + first, e->relu};
    return &shifted;
}

// The epilogue on m rows of n floats in place, for the paths that compute a
// map without these kernels (the depthwise convolutions).
void apply_row_epilogue(float* c, uint32_t m, uint32_t n, const row_epilogue& e);

struct matvec_kernels {
    // y[r] = sum_c a[r][c] x[c] for r < rows; a is row-major rows x cols.
    // y must not alias a or x.
    void (*matrix_vector)(const float* a, uint32_t rows, uint32_t cols, const float* x, float* y);
    // c[i][j] = sum_l a[i][l] b[l][j]: a is m x k, b is k x n, c is m x n,
    // all row-major and dense. c must not alias a or b. With m = 1 this is
    // the grouped linear layer's row vector times matrix. epilogue, when not
    // null, is applied to each row (its arrays hold m elements).
    void (*matrix_matrix)(const float* a, const float* b, uint32_t m, uint32_t k, uint32_t n,
                          float* c, const row_epilogue* epilogue);
    // y0 = a x0 and y1 = a x1 in one pass over a (two hops of the model
    // sharing each loaded row, so the weights leave the cache once per
    // block). Neither y may alias a, x0 or x1, nor the other y.
    void (*matrix_vector_pair)(const float* a, uint32_t rows, uint32_t cols, const float* x0,
                               const float* x1, float* y0, float* y1);
    // c0 = a0 b and c1 = a1 b for two row vectors a0, a1 (k floats) and the
    // row-major k x n matrix b, in one pass over b: the grouped linear layer
    // for two hops. Neither c may alias a0, a1, b or the other c.
    void (*row_pair_times_matrix)(const float* a0, const float* a1, const float* b, uint32_t k,
                                  uint32_t n, float* c0, float* c1);
    // The element-wise functions of the GRU gates and the model's outputs,
    // y = 1 / (exp(-x) + 1) and y = tanh(x) over count floats (in place
    // allowed; a version may differ from another by a few ulp), and the
    // [rows][cols] -> [cols][rows] transpose between the convolution maps and
    // the linear layers (no aliasing).
    // matrix_vector and matrix_vector_pair on a matrix in the packed order of
    // packed_matrix.h (the GRUs' weights); null in the versions that stream
    // the row-major matrix as it is. Equal to the row-major forms bit for bit.
    void (*packed_matrix_vector)(const float* packed, uint32_t rows, uint32_t cols, const float* x,
                                 float* y);
    void (*packed_matrix_vector_pair)(const float* packed, uint32_t rows, uint32_t cols,
                                      const float* x0, const float* x1, float* y0, float* y1);
    // The one-row depthwise convolutions of the model, channel by channel:
    // out[c][j] = (w0 x[s j - 1] + w1 x[s j]) + w2 x[s j + 1] with three taps
    // (x zero outside its n bins), w0 x[s j] with one; stride s is 1 or 2
    // and each channel's row has (n - 1) / s + 1 bins. w is [channel][taps].
    // after, when given, is applied to each channel's row (one row per
    // channel). out must not alias x.
    void (*row_taps)(const float* x, uint32_t channels, uint32_t n, const float* w, uint32_t taps,
                     uint32_t stride, float* out, const row_epilogue* after);
    void (*sigmoid)(const float* x, float* y, std::size_t count);
    void (*tanh)(const float* x, float* y, std::size_t count);
    void (*transpose)(const float* input, float* output, std::size_t rows, std::size_t cols);
    const char* name;
};

// Always available: Eigen's products, built for the baseline target.
const matvec_kernels& portable_matvec_kernels();

// The AVX2+FMA version, or nullptr when the build target is not x86 or the
// running processor lacks AVX2 or FMA.
const matvec_kernels* avx2_fma_matvec_kernels();

// The AVX-512 version (matvec_kernels_avx512.cpp), or nullptr when the build
// target is not x86-64 or the running processor lacks AVX-512F.
const matvec_kernels* avx512_matvec_kernels();

// The fastest version the processor runs, chosen at the first call
// (which initialises the processor dispatch if the library has not).
// Layers call it in their constructors, never in forward.
const matvec_kernels& selected_matvec_kernels();

} // namespace quelora::denoise
