// The matrix kernels, portable, AVX2+FMA and AVX-512, against double sums on the
// model's shapes and on odd ones reaching every remainder path, with a guard after
// each output. Bound: k u sum_l |a_il b_lj| (u = 2^-24, k the inner length), the
// worst case of k float products summed in any order; a wrong index is off by a
// term. The products with a batch-norm epilogue must equal, bit for bit, the
// product followed by the separate norm and ReLU layers on the same kernels, and
// the two vector versions' convolution products must equal each other.
#include "denoise/activations.h"
#include "denoise/batch_norm_layer.h"
#include "denoise/matvec_kernels.h"
#include "denoise/packed_matrix.h"
#include "support/kernel_versions.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cmath>
#include <random>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

namespace quelora::denoise {
namespace {

enum kernel { matrix_vector, matrix_matrix, matrix_vector_pair, row_pair_times_matrix };
const char* const kernel_names[] = {"MatrixVector", "MatrixMatrix", "MatrixVectorPair",
                                    "RowPairTimesMatrix"};
constexpr float sentinel = 12345.0f;

struct shape {
    uint32_t m, k, n;
}; // (m x k) times (k x n)

// The model's: GRU gate blocks (768 x 256, one gate, the fixtures' 48 x 24),
// grouped linear groups (3072 -> 512 over 8 is 1 x 384 x 64, ...), and the
// convolutions as patch-matrix products. Then every mix of the blocks.
std::vector<shape> shapes(kernel kind) {
    using list = std::vector<uint32_t>;
    const bool vector = kind == matrix_vector || kind == matrix_vector_pair;
    std::vector<shape> all = {{1, 384, 64}, {1, 128, 32}, {1, 32, 32}, {1, 32, 64}, {1, 32, 120}};
    if (vector) all = {{768, 256, 1}, {256, 256, 1}, {48, 24, 1}};
    // clang-format off
    if (kind == matrix_matrix)
        all.insert(all.end(), {{64, 64, 96}, {64, 64, 48}, {64, 64, 32}, {64, 64, 16},
                               {64, 64, 8},  {64, 9, 32},  {32, 9, 96},  {1, 192, 32},
                               {5, 160, 96}, {10, 10, 96}});
    // clang-format on
    const list ms = vector                  ? list{1, 2, 3, 4, 5, 7, 9, 13}
                    : kind == matrix_matrix ? list{1, 2, 3, 4, 5, 8, 12, 13, 15}
                                            : list{1};
    const list ks = vector ? list{1, 3, 7, 8, 9, 15, 16, 17, 23, 24, 31, 257} : list{1, 7, 33};
    const list ns =
        vector ? list{1} : list{1, 3, 7, 8, 9, 15, 17, 24, 31, 32, 33, 39, 63, 64, 65, 71, 130};
    for (uint32_t m : ms)
        for (uint32_t k : ks)
            for (uint32_t n : ns) all.push_back({m, k, n});
    return all;
}

std::vector<float> random_values(std::size_t count, uint32_t seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<float> u(-1.0f, 1.0f);
    std::vector<float> v(count);
    for (float& x : v) x = u(rng);
    return v;
}

void expect_product(const std::vector<float>& c, const std::vector<float>& a,
                    const std::vector<float>& b, shape s, const char* which) {
    for (uint32_t i = 0; i < s.m * s.n; ++i) {
        double sum = 0.0, magnitude = 0.0;
        for (uint32_t l = 0; l < s.k; ++l) {
            sum += double{a[i / s.n * s.k + l]} * b[l * s.n + i % s.n];
            magnitude += std::fabs(double{a[i / s.n * s.k + l]} * b[l * s.n + i % s.n]);
        }
        ASSERT_LE(std::fabs(c[i] - sum), s.k * 0x1p-24 * magnitude + 1e-30)
            << s.m << "x" << s.k << "x" << s.n << ", " << which << " result, element " << i;
    }
    for (std::size_t i = s.m * s.n; i < c.size(); ++i)
        ASSERT_EQ(c[i], sentinel) << s.m << "x" << s.k << "x" << s.n << " wrote past its end";
}

using testing::kernel_version;
using testing::kernel_version_name;
using testing::kernels_of;

class MatvecKernels : public ::testing::TestWithParam<std::tuple<kernel_version, kernel>> {};

TEST_P(MatvecKernels, MatchDoubleSumsAndWriteNothingPastTheEnd) {
    const auto [which, kind] = GetParam();
    const matvec_kernels* f = kernels_of(which);
    if (f == nullptr) GTEST_SKIP() << "the processor lacks " << kernel_version_name(which);
    for (const shape s : shapes(kind)) {
        // Pairs: two left rows share the right matrix, or two right vectors the left one.
        const auto a0 = random_values(s.m * s.k, s.m * 7919u + s.k);
        const auto b0 = random_values(s.k * s.n, s.k * 104729u + s.n);
        const auto a1 = kind == row_pair_times_matrix ? random_values(a0.size(), 3) : a0;
        const auto b1 = kind == matrix_vector_pair ? random_values(b0.size(), 5) : b0;
        std::vector<float> c0(s.m * s.n + 16, sentinel), c1 = c0;
        if (kind == matrix_vector) f->matrix_vector(a0.data(), s.m, s.k, b0.data(), c0.data());
        if (kind == matrix_matrix)
            f->matrix_matrix(a0.data(), b0.data(), s.m, s.k, s.n, c0.data(), nullptr);
        if (kind == matrix_vector_pair)
            f->matrix_vector_pair(a0.data(), s.m, s.k, b0.data(), b1.data(), c0.data(), c1.data());
        if (kind == row_pair_times_matrix)
            f->row_pair_times_matrix(a0.data(), a1.data(), b0.data(), s.k, s.n, c0.data(),
                                     c1.data());
        expect_product(c0, a0, b0, s, "first");
        if (kind == matrix_vector_pair || kind == row_pair_times_matrix)
            expect_product(c1, a1, b1, s, "second");
    }
}

INSTANTIATE_TEST_SUITE_P(, MatvecKernels,
                         ::testing::Combine(testing::all_kernel_versions(),
                                            ::testing::Values(matrix_vector, matrix_matrix,
                                                              matrix_vector_pair,
                                                              row_pair_times_matrix)),
                         [](const ::testing::TestParamInfo<MatvecKernels::ParamType>& param) {
                             return std::string(kernel_version_name(std::get<0>(param.param))) +
                                    kernel_names[std::get<1>(param.param)];
                         });

class MatvecEpilogue : public ::testing::TestWithParam<kernel_version> {};

// Per shape, with and without the ReLU: NaN and values on both sides of the
// mean reach every branch of the norm and the ReLU.
TEST_P(MatvecEpilogue, EqualsTheProductThenTheNormAndReluLayers) {
    const matvec_kernels* f = kernels_of(GetParam());
    if (f == nullptr) GTEST_SKIP() << "the processor lacks " << kernel_version_name(GetParam());
    for (const shape s : shapes(matrix_matrix)) {
        const auto a = random_values(s.m * s.k, s.m + 11u * s.k);
        auto b = random_values(s.k * s.n, 3u * s.k + s.n);
        b[0] = std::nanf("");
        const auto gamma = random_values(s.m, 1), beta = random_values(s.m, 2),
                   mean = random_values(s.m, 3);
        std::vector<float> variance = random_values(s.m, 4);
        for (float& v : variance) v = std::fabs(v) + 0.1f;
        batch_norm_layer norm(gamma.data(), beta.data(), mean.data(), variance.data(), s.m, 1, s.n);
        for (const bool with_relu : {false, true}) {
            std::vector<float> fused(s.m * s.n + 16, sentinel), separate = fused;
            const row_epilogue e = norm.epilogue(with_relu);
            f->matrix_matrix(a.data(), b.data(), s.m, s.k, s.n, fused.data(), &e);
            f->matrix_matrix(a.data(), b.data(), s.m, s.k, s.n, separate.data(), nullptr);
            norm.forward(separate.data(), separate.data());
            if (with_relu) relu(separate.data(), separate.data(), s.m * s.n);
            for (std::size_t i = 0; i < fused.size(); ++i)
                ASSERT_EQ(std::bit_cast<uint32_t>(fused[i]), std::bit_cast<uint32_t>(separate[i]))
                    << s.m << "x" << s.k << "x" << s.n << " relu " << with_relu << " element " << i;
        }
    }
}

INSTANTIATE_TEST_SUITE_P(, MatvecEpilogue, testing::all_kernel_versions(),
                         [](const ::testing::TestParamInfo<kernel_version>& param) {
                             return std::string(kernel_version_name(param.param));
                         });

// Both vector versions sum each convolution output in the same order.
TEST(MatvecTiles, VectorVersionsGiveIdenticalConvolutionProducts) {
    const matvec_kernels* avx2 = avx2_fma_matvec_kernels();
    const matvec_kernels* avx512 = avx512_matvec_kernels();
    if (avx2 == nullptr || avx512 == nullptr) GTEST_SKIP() << "the processor lacks AVX-512";
    for (const shape s : shapes(matrix_matrix)) {
        const auto a = random_values(s.m * s.k, s.m + 5u * s.k);
        const auto b = random_values(s.k * s.n, s.k + 9u * s.n);
        std::vector<float> c2(s.m * s.n), c5(s.m * s.n);
        avx2->matrix_matrix(a.data(), b.data(), s.m, s.k, s.n, c2.data(), nullptr);
        avx512->matrix_matrix(a.data(), b.data(), s.m, s.k, s.n, c5.data(), nullptr);
        ASSERT_EQ(c2, c5) << s.m << "x" << s.k << "x" << s.n;
    }
}

} // namespace
} // namespace quelora::denoise

namespace quelora::denoise {
namespace {

class ElementWiseKernels : public ::testing::TestWithParam<testing::kernel_version> {};

// Against double-precision references over -100 .. 100 (both saturations,
// the polynomial/exponential border of tanh at 0.625, tiny and signed zero
// inputs), in place, with every tail length; within 5 x 2^-24 of the result
// (Eigen's rational tanh, the portable one, stops 4.1 ulp short of 1 from
// |x| = 7.9 on), and an absolute floor where the result is nearly zero.
TEST_P(ElementWiseKernels, SigmoidAndTanhMatchDoubleReferences) {
    const matvec_kernels* f = testing::kernels_of(GetParam());
    if (f == nullptr)
        GTEST_SKIP() << "the processor lacks " << testing::kernel_version_name(GetParam());
    std::vector<float> x = {0.0f,   -0.0f,   1e-30f, -1e-8f, 0.6249999f,
                            0.625f, -0.625f, 88.0f,  -90.0f};
    for (float v = -100.0f; v <= 100.0f; v += 0.0173f) x.push_back(v);
    for (float v = -1.0f; v <= 1.0f; v += 0.000731f) x.push_back(v);
    for (const bool sigmoid : {true, false})
        for (std::size_t count : {x.size(), x.size() - 1, std::size_t{15}, std::size_t{1}}) {
            std::vector<float> y(x.begin(), x.begin() + count);
            y.push_back(sentinel);
            (sigmoid ? f->sigmoid : f->tanh)(y.data(), y.data(), count);
            for (std::size_t i = 0; i < count; ++i) {
                const double want =
                    sigmoid ? 1.0 / (1.0 + std::exp(-double{x[i]})) : std::tanh(double{x[i]});
                ASSERT_LE(std::fabs(y[i] - want), 5 * 0x1p-24 * std::fabs(want) + 1e-38)
                    << (sigmoid ? "sigmoid(" : "tanh(") << x[i] << ")";
            }
            ASSERT_EQ(y[count], sentinel) << "wrote past the end";
        }
}

// Every shape from 1 x 1 to 20 x 20 (whole 8 x 8 blocks, edges and both) and
// the model's own.
TEST_P(ElementWiseKernels, TransposeMovesEveryElement) {
    const matvec_kernels* f = testing::kernels_of(GetParam());
    if (f == nullptr)
        GTEST_SKIP() << "the processor lacks " << testing::kernel_version_name(GetParam());
    std::vector<std::pair<std::size_t, std::size_t>> shapes = {
        {64, 48}, {64, 8}, {10, 96}, {8, 64}};
    for (std::size_t r = 1; r <= 20; ++r)
        for (std::size_t c = 1; c <= 20; ++c) shapes.emplace_back(r, c);
    for (const auto& [rows, cols] : shapes) {
        std::vector<float> in(rows * cols), out(rows * cols + 1, sentinel);
        for (std::size_t i = 0; i < in.size(); ++i) in[i] = float(i);
        f->transpose(in.data(), out.data(), rows, cols);
        for (std::size_t r = 0; r < rows; ++r)
            for (std::size_t c = 0; c < cols; ++c)
                ASSERT_EQ(out[c * rows + r], in[r * cols + c]) << rows << " x " << cols;
        ASSERT_EQ(out[rows * cols], sentinel) << rows << " x " << cols << " wrote past the end";
    }
}

// The one-row depthwise kernels against the portable one, bit for bit (both
// keep the sums' order and round the norm step by step): every row length up
// to 40 (several 16-lane chunks, every border), one and three taps, strides 1
// and 2, with and without a norm and ReLU after, NaN included.
TEST_P(ElementWiseKernels, RowTapsEqualThePortableOnes) {
    const matvec_kernels* f = testing::kernels_of(GetParam());
    if (f == nullptr)
        GTEST_SKIP() << "the processor lacks " << testing::kernel_version_name(GetParam());
    constexpr uint32_t channels = 3;
    const auto w = random_values(3 * channels, 7), mean = random_values(channels, 8),
               factor = random_values(channels, 9), shift = random_values(channels, 10);
    for (uint32_t n = 1; n <= 40; ++n) {
        auto x = random_values(channels * n, n);
        x[n / 2] = std::nanf("");
        for (const uint32_t taps : {1u, 3u})
            for (const uint32_t stride : {1u, 2u})
                for (const int norm : {0, 1, 2}) { // none, norm, norm and ReLU
                    const row_epilogue e{mean.data(), factor.data(), shift.data(), norm == 2};
                    const uint32_t outs = (n - 1) / stride + 1;
                    std::vector<float> want(channels * outs + 1, sentinel), got = want;
                    portable_matvec_kernels().row_taps(x.data(), channels, n, w.data(), taps,
                                                       stride, want.data(),
                                                       norm > 0 ? &e : nullptr);
                    f->row_taps(x.data(), channels, n, w.data(), taps, stride, got.data(),
                                norm > 0 ? &e : nullptr);
                    for (std::size_t i = 0; i < got.size(); ++i)
                        ASSERT_EQ(std::bit_cast<uint32_t>(got[i]), std::bit_cast<uint32_t>(want[i]))
                            << n << " bins, " << taps << " taps, stride " << stride << ", norm "
                            << norm << ", element " << i;
                }
    }
}

// The packed matrix-vector products equal the row-major ones bit for bit, on the GRU shapes and on
// rows and columns off the 8 x 16 grid (padding in every direction).
TEST_P(ElementWiseKernels, PackedProductsEqualTheRowMajorOnes) {
    const matvec_kernels* f = testing::kernels_of(GetParam());
    if (f == nullptr)
        GTEST_SKIP() << "the processor lacks " << testing::kernel_version_name(GetParam());
    if (f->packed_matrix_vector == nullptr) GTEST_SKIP() << "this version reads row-major weights";
    for (const auto& [rows, cols] : std::vector<std::pair<uint32_t, uint32_t>>{
             {768, 256}, {48, 24}, {48, 16}, {1, 1}, {7, 5}, {9, 17}, {13, 33}, {16, 31}}) {
        const auto a = random_values(std::size_t{rows} * cols, rows * 31u + cols);
        const auto x0 = random_values(cols, 1), x1 = random_values(cols, 2);
        const float* packed = shared_packed_matrix(a.data(), rows, cols);
        std::vector<float> want0(rows + 1, sentinel), want1 = want0, got0 = want0, got1 = want0;
        f->matrix_vector_pair(a.data(), rows, cols, x0.data(), x1.data(), want0.data(),
                              want1.data());
        f->packed_matrix_vector_pair(packed, rows, cols, x0.data(), x1.data(), got0.data(),
                                     got1.data());
        EXPECT_EQ(got0, want0) << rows << " x " << cols << " pair, first";
        EXPECT_EQ(got1, want1) << rows << " x " << cols << " pair, second";
        f->packed_matrix_vector(packed, rows, cols, x1.data(), got0.data());
        EXPECT_EQ(got0, want1) << rows << " x " << cols;
    }
}

// One copy per matrix, shared; a matrix whose contents changed at the same
// address gets a new one.
TEST(PackedMatrix, CopiesAreSharedAndFollowTheContents) {
    std::vector<float> a = random_values(48 * 24, 3);
    const float* first = shared_packed_matrix(a.data(), 48, 24);
    EXPECT_EQ(shared_packed_matrix(a.data(), 48, 24), first);
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(first) % 64, 0u);
    a[100] += 1.0f;
    const float* second = shared_packed_matrix(a.data(), 48, 24);
    EXPECT_NE(second, first);
    std::vector<float> repacked(packed_matrix_floats(48, 24));
    pack_matrix(a.data(), 48, 24, repacked.data());
    EXPECT_TRUE(std::equal(repacked.begin(), repacked.end(), second));
}

INSTANTIATE_TEST_SUITE_P(, ElementWiseKernels, testing::all_kernel_versions(),
                         [](const ::testing::TestParamInfo<testing::kernel_version>& param) {
                             return std::string(testing::kernel_version_name(param.param));
                         });

} // namespace
} // namespace quelora::denoise
