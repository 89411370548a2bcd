// Part 5.1: the matrix kernels under the network layers
// (src/denoise/matvec_kernels.h), both versions against a double-precision
// reference on the model's shapes and on odd ones that exercise every
// remainder path (row blocks of 8, 4 and 1; column blocks of 16, 8, up to 64
// and masked tails), plus the processor dispatch's choice. The pair kernels
// (two vectors through one pass over the matrix) are held to the same bound
// for each of their two results.
//
// Tolerance, per element: |got - ref| <= k·u·sum_l |a_il·b_lj| + 1e-30,
// with u = 2^-24 and k the inner length: the classical worst-case bound for
// a float32 sum of k products in any order (an FMA only rounds less), so
// neither kernel's summation order can exceed it. An indexing mistake gives
// errors of the order of the terms themselves, about sum|terms|/sqrt(k),
// far above k·u·sum|terms| for every k used here (k <= 384: 2.3e-5 relative).
#include "denoise/matvec_kernels.h"
#include "dsp/processor_dispatch.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <random>
#include <string>
#include <vector>

namespace quelora::denoise {
namespace {

constexpr double unit_roundoff = 1.0 / 16777216.0; // 2^-24
constexpr std::size_t guard = 16;                   // sentinel floats after each output
constexpr float sentinel = 12345.0f;

std::vector<const matvec_kernels*> every_version() {
    std::vector<const matvec_kernels*> versions{&portable_matvec_kernels()};
    if (const matvec_kernels* fast = avx2_fma_matvec_kernels()) versions.push_back(fast);
    return versions;
}

std::vector<float> random_values(std::size_t count, uint32_t seed) {
    std::mt19937 engine(seed);
    std::uniform_real_distribution<float> value(-1.0f, 1.0f);
    std::vector<float> v(count);
    for (float& x : v) x = value(engine);
    return v;
}

// Compares out[0..count) with ref within the bound of `magnitude` (sum of
// |terms|) per element, and checks the guard after them was not written.
void expect_close(const std::vector<float>& out, const std::vector<double>& ref,
                  const std::vector<double>& magnitude, uint32_t k, const std::string& what) {
    const std::size_t count = ref.size();
    for (std::size_t i = 0; i < count; ++i) {
        const double bound = k * unit_roundoff * magnitude[i] + 1e-30;
        ASSERT_LE(std::fabs(static_cast<double>(out[i]) - ref[i]), bound)
            << what << ", element " << i;
    }
    for (std::size_t i = count; i < count + guard; ++i)
        ASSERT_EQ(out[i], sentinel) << what << " wrote past its output, at " << i;
}

// The double-precision products of a row-major rows x cols matrix with x,
// and the sums of |terms| that bound their float rounding.
void reference_matrix_vector(const std::vector<float>& a, uint32_t rows, uint32_t cols,
                             const std::vector<float>& x, std::vector<double>& ref,
                             std::vector<double>& magnitude) {
    ref.assign(rows, 0.0);
    magnitude.assign(rows, 0.0);
    for (uint32_t r = 0; r < rows; ++r)
        for (uint32_t c = 0; c < cols; ++c) {
            const double term =
                static_cast<double>(a[std::size_t{r} * cols + c]) * static_cast<double>(x[c]);
            ref[r] += term;
            magnitude[r] += std::fabs(term);
        }
}

void check_matrix_vector(uint32_t rows, uint32_t cols) {
    const std::vector<float> a = random_values(std::size_t{rows} * cols, rows * 7919u + cols);
    const std::vector<float> x = random_values(cols, cols * 31u + 5u);
    std::vector<double> ref, magnitude;
    reference_matrix_vector(a, rows, cols, x, ref, magnitude);
    for (const matvec_kernels* kernels : every_version()) {
        std::vector<float> y(rows + guard, sentinel);
        kernels->matrix_vector(a.data(), rows, cols, x.data(), y.data());
        expect_close(y, ref, magnitude, cols,
                     std::string(kernels->name) + " matrix_vector " + std::to_string(rows) + "x" +
                         std::to_string(cols));
    }
}

void check_matrix_matrix(uint32_t m, uint32_t k, uint32_t n) {
    const std::vector<float> a = random_values(std::size_t{m} * k, m * 7919u + k);
    const std::vector<float> b = random_values(std::size_t{k} * n, k * 104729u + n);
    std::vector<double> ref(std::size_t{m} * n, 0.0), magnitude(ref.size(), 0.0);
    for (uint32_t i = 0; i < m; ++i)
        for (uint32_t l = 0; l < k; ++l)
            for (uint32_t j = 0; j < n; ++j) {
                const double term = static_cast<double>(a[std::size_t{i} * k + l]) *
                                    static_cast<double>(b[std::size_t{l} * n + j]);
                ref[std::size_t{i} * n + j] += term;
                magnitude[std::size_t{i} * n + j] += std::fabs(term);
            }
    for (const matvec_kernels* kernels : every_version()) {
        std::vector<float> c(ref.size() + guard, sentinel);
        kernels->matrix_matrix(a.data(), b.data(), m, k, n, c.data());
        expect_close(c, ref, magnitude, k,
                     std::string(kernels->name) + " matrix_matrix " + std::to_string(m) + "x" +
                         std::to_string(k) + "x" + std::to_string(n));
    }
}


void check_matrix_vector_pair(uint32_t rows, uint32_t cols) {
    const std::vector<float> a = random_values(std::size_t{rows} * cols, rows * 7919u + cols);
    const std::vector<float> x0 = random_values(cols, cols * 31u + 5u);
    const std::vector<float> x1 = random_values(cols, cols * 37u + 11u);
    std::vector<double> ref0, mag0, ref1, mag1;
    reference_matrix_vector(a, rows, cols, x0, ref0, mag0);
    reference_matrix_vector(a, rows, cols, x1, ref1, mag1);
    for (const matvec_kernels* kernels : every_version()) {
        std::vector<float> y0(rows + guard, sentinel), y1(rows + guard, sentinel);
        kernels->matrix_vector_pair(a.data(), rows, cols, x0.data(), x1.data(), y0.data(),
                                    y1.data());
        const std::string what = std::string(kernels->name) + " matrix_vector_pair " +
                                 std::to_string(rows) + "x" + std::to_string(cols);
        expect_close(y0, ref0, mag0, cols, what + ", first vector");
        expect_close(y1, ref1, mag1, cols, what + ", second vector");
    }
}

// c = a b for one row a (k floats) and the k x n matrix b, in double.
void reference_row_times_matrix(const std::vector<float>& a, const std::vector<float>& b,
                                uint32_t k, uint32_t n, std::vector<double>& ref,
                                std::vector<double>& magnitude) {
    ref.assign(n, 0.0);
    magnitude.assign(n, 0.0);
    for (uint32_t l = 0; l < k; ++l)
        for (uint32_t j = 0; j < n; ++j) {
            const double term =
                static_cast<double>(a[l]) * static_cast<double>(b[std::size_t{l} * n + j]);
            ref[j] += term;
            magnitude[j] += std::fabs(term);
        }
}

void check_row_pair_times_matrix(uint32_t k, uint32_t n) {
    const std::vector<float> a0 = random_values(k, k * 7919u + 1u);
    const std::vector<float> a1 = random_values(k, k * 7907u + 3u);
    const std::vector<float> b = random_values(std::size_t{k} * n, k * 104729u + n);
    std::vector<double> ref0, mag0, ref1, mag1;
    reference_row_times_matrix(a0, b, k, n, ref0, mag0);
    reference_row_times_matrix(a1, b, k, n, ref1, mag1);
    for (const matvec_kernels* kernels : every_version()) {
        std::vector<float> c0(n + guard, sentinel), c1(n + guard, sentinel);
        kernels->row_pair_times_matrix(a0.data(), a1.data(), b.data(), k, n, c0.data(),
                                       c1.data());
        const std::string what = std::string(kernels->name) + " row_pair_times_matrix " +
                                 std::to_string(k) + "x" + std::to_string(n);
        expect_close(c0, ref0, mag0, k, what + ", first row");
        expect_close(c1, ref1, mag1, k, what + ", second row");
    }
}

TEST(Part5_1_Kernels, TheDispatchPicksAvx2FmaExactlyWhenTheProcessorHasBoth) {
    dsp::initialize_processor_dispatch();
    const dsp::processor_features& cpu = dsp::current_processor_features();
    const bool fast = cpu.avx2 && cpu.fma;
    EXPECT_EQ(avx2_fma_matvec_kernels() != nullptr, fast);
    EXPECT_EQ(std::string(selected_matvec_kernels().name), fast ? "avx2_fma" : "portable");
    EXPECT_EQ(&selected_matvec_kernels(), &selected_matvec_kernels());
}

TEST(Part5_1_Kernels, MatrixVectorOnTheGruShapes) {
    check_matrix_vector(768, 256); // [3H][I] and [3H][H] blocks of the model
    check_matrix_vector(256, 256); // one gate when the blocks are not contiguous
    check_matrix_vector(48, 24);   // the fixtures' GRU: 16 hidden, 24 inputs
}

TEST(Part5_1_Kernels, MatrixVectorOnOddShapes) {
    // Columns: below one vector, one and a half, 16 + 8 + tail, and so on;
    // rows: single rows only, and 4-row blocks followed by 1 to 3 single rows.
    for (const uint32_t rows : {1u, 2u, 3u, 4u, 5u, 7u, 9u, 13u})
        for (const uint32_t cols : {1u, 3u, 7u, 8u, 9u, 15u, 16u, 17u, 23u, 24u, 31u, 257u})
            check_matrix_vector(rows, cols);
}

TEST(Part5_1_Kernels, RowTimesMatrixOnTheGroupedLinearShapes) {
    check_matrix_matrix(1, 384, 64);  // 3072 -> 512 over 8 groups
    check_matrix_matrix(1, 128, 32);  // 1024 -> 256
    check_matrix_matrix(1, 32, 32);   // 256 -> 256
    check_matrix_matrix(1, 32, 64);   // 256 -> 512
    check_matrix_matrix(1, 32, 120);  // 256 -> 960: 8 vectors, then 7
}

TEST(Part5_1_Kernels, MatrixMatrixOnTheConvolutionShapes) {
    for (const uint32_t bins : {96u, 48u, 32u, 16u, 8u})
        check_matrix_matrix(64, 64, bins); // pointwise 64 -> 64
    check_matrix_matrix(64, 9, 32);        // the ERB encoder's 3x3
    check_matrix_matrix(32, 9, 96);        // the DF encoder's 3x3, per group
    check_matrix_matrix(1, 192, 32);       // the ERB output's 1x3 to one channel
    check_matrix_matrix(5, 160, 96);       // the DF path's 5x1, per group
    check_matrix_matrix(10, 10, 96);       // the DF path's pointwise
}

TEST(Part5_1_Kernels, MatrixMatrixOnOddShapes) {
    // m covers the 8-, 4- and 1-row blocks and their mixes (13 = 8 + 4 + 1,
    // 15 = 8 + 4 + 3 x 1); n covers partial vectors alone, after full ones,
    // and after a full tile of eight vectors (65, 71, 130).
    for (const uint32_t m : {1u, 2u, 3u, 4u, 5u, 8u, 12u, 13u, 15u})
        for (const uint32_t k : {1u, 7u, 33u})
            for (const uint32_t n : {1u, 3u, 7u, 8u, 9u, 15u, 17u, 63u, 64u, 65u, 71u, 130u})
                check_matrix_matrix(m, k, n);
}

TEST(Part5_1_Kernels, MatrixVectorPairOnTheGruShapes) {
    check_matrix_vector_pair(768, 256); // the model's input-side [3H][I] blocks
    check_matrix_vector_pair(256, 256); // one gate when the blocks are not contiguous
    check_matrix_vector_pair(48, 24);   // the fixtures' GRU
}

TEST(Part5_1_Kernels, MatrixVectorPairOnOddShapes) {
    // Rows: 4-row blocks and 1 to 3 single rows after them; columns: below
    // one vector, whole vectors, and whole vectors plus a masked tail.
    for (const uint32_t rows : {1u, 2u, 3u, 4u, 5u, 7u, 9u, 13u})
        for (const uint32_t cols : {1u, 3u, 7u, 8u, 9u, 15u, 16u, 17u, 23u, 24u, 31u, 257u})
            check_matrix_vector_pair(rows, cols);
}

TEST(Part5_1_Kernels, RowPairTimesMatrixOnTheGroupedLinearShapes) {
    check_row_pair_times_matrix(384, 64); // 3072 -> 512 over 8 groups
    check_row_pair_times_matrix(128, 32); // 1024 -> 256
    check_row_pair_times_matrix(32, 32);  // 256 -> 256
    check_row_pair_times_matrix(32, 64);  // 256 -> 512
    check_row_pair_times_matrix(32, 120); // 256 -> 960: tiles of 4, 4, 4 and 3 vectors
}

TEST(Part5_1_Kernels, RowPairTimesMatrixOnOddShapes) {
    // n: a partial vector alone, after whole ones, in a tile of fewer than
    // four vectors and after whole tiles (33, 39, 65, 130).
    for (const uint32_t k : {1u, 7u, 33u})
        for (const uint32_t n : {1u, 3u, 7u, 8u, 9u, 15u, 17u, 24u, 31u, 32u, 33u, 39u, 63u, 64u,
                                 65u, 130u})
            check_row_pair_times_matrix(k, n);
}

} // namespace
} // namespace quelora::denoise
