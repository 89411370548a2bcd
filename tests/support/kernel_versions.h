// The network's vector kernel versions, for tests that run a layer, the
// model or the whole canceller on each one the processor has (a version it
// lacks is skipped with its name).
#pragma once

#include "denoise/matvec_kernels.h"

#include <gtest/gtest.h>

namespace quelora::testing {

enum class kernel_version { portable, avx2_fma, avx512 };

inline const char* kernel_version_name(kernel_version v) {
    switch (v) {
    case kernel_version::portable:
        return "Portable";
    case kernel_version::avx2_fma:
        return "Avx2Fma";
    case kernel_version::avx512:
        return "Avx512";
    }
    return "?";
}

// Null when the processor lacks the version.
inline const denoise::matvec_kernels* kernels_of(kernel_version v) {
    switch (v) {
    case kernel_version::portable:
        return &denoise::portable_matvec_kernels();
    case kernel_version::avx2_fma:
        return denoise::avx2_fma_matvec_kernels();
    case kernel_version::avx512:
        return denoise::avx512_matvec_kernels();
    }
    return nullptr;
}

inline auto all_kernel_versions() {
    return ::testing::Values(kernel_version::portable, kernel_version::avx2_fma,
                             kernel_version::avx512);
}

} // namespace quelora::testing
