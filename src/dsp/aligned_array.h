// Zeroed arrays on 64-byte boundaries for the spectral kernels: a vector
// load that straddles a cache line costs the AVX2 multiply-accumulate about
// a third of its speed, and the allocator's own alignment is 16 bytes.
//
// The storage comes from calloc, which hands large blocks out as fresh zero
// pages that stay unbacked until written: the spatial filter bank leaves
// its all-zero partitions unwritten and so costs resident memory only for
// what it holds. The block's own address is kept just below the aligned one,
// for the deleter.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <memory>
#include <new>
#include <type_traits>

namespace quelora::dsp {

struct aligned_free {
    void operator()(void* aligned) const {
        if (aligned != nullptr) std::free(static_cast<void**>(aligned)[-1]);
    }
};

template <typename T>
using aligned_array = std::unique_ptr<T[], aligned_free>;

// count values of a trivially copyable T, all bits zero (0.0 for floats).
template <typename T>
aligned_array<T> make_aligned_zeros(std::size_t count) {
    static_assert(std::is_trivially_copyable_v<T>);
    constexpr std::size_t alignment = 64;
    void* block = std::calloc(count * sizeof(T) + alignment + sizeof(void*), 1);
    if (block == nullptr) throw std::bad_alloc();
    const auto start = reinterpret_cast<std::uintptr_t>(block) + sizeof(void*);
    void** aligned = reinterpret_cast<void**>((start + alignment - 1) / alignment * alignment);
    aligned[-1] = block;
    return aligned_array<T>(reinterpret_cast<T*>(aligned));
}

} // namespace quelora::dsp
