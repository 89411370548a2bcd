// Zeroed arrays on 64-byte boundaries for the spectral kernels: a vector
// load that straddles a cache line costs the AVX2 multiply-accumulate about
// a third of its speed, and the allocator's own alignment is 16 bytes.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <type_traits>

namespace quelora::dsp {

struct aligned_free {
    void operator()(void* p) const { std::free(p); }
};

template <typename T> using aligned_array = std::unique_ptr<T[], aligned_free>;

// count values of a trivially copyable T, all bits zero (0.0 for floats).
template <typename T> aligned_array<T> make_aligned_zeros(std::size_t count) {
    static_assert(std::is_trivially_copyable_v<T>);
    constexpr std::size_t alignment = 64;
    const std::size_t bytes = (count * sizeof(T) + alignment - 1) / alignment * alignment;
    void* p = std::aligned_alloc(alignment, bytes == 0 ? alignment : bytes);
    if (p == nullptr) throw std::bad_alloc();
    std::memset(p, 0, bytes);
    return aligned_array<T>(static_cast<T*>(p));
}

} // namespace quelora::dsp
