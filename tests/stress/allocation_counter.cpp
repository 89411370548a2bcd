#include "allocation_counter.h"

#include <cerrno>
#include <cstddef>

// Constant-initialised thread-locals: no guard, safe inside an allocator.
static thread_local bool t_counting = false;
static thread_local long t_allocations = 0;
static void* counted(void* block) {
    t_allocations += t_counting;
    return block;
}

void quelora::testing::start_counting_allocations() {
    t_allocations = 0;
    t_counting = true;
}
long quelora::testing::stop_counting_allocations() {
    t_counting = false;
    return t_allocations;
}

// glibc's own entry points serve what the interposed functions count.
extern "C" {
void* __libc_malloc(std::size_t n);
void* __libc_calloc(std::size_t count, std::size_t n);
void* __libc_realloc(void* pointer, std::size_t n);
void* __libc_memalign(std::size_t align, std::size_t n);
void* malloc(std::size_t n) noexcept { return counted(__libc_malloc(n)); }
void* calloc(std::size_t count, std::size_t n) noexcept { return counted(__libc_calloc(count, n)); }
void* realloc(void* pointer, std::size_t n) noexcept { return counted(__libc_realloc(pointer, n)); }
void* aligned_alloc(std::size_t align, std::size_t n) noexcept {
    return counted(__libc_memalign(align, n));
}
int posix_memalign(void** result, std::size_t align, std::size_t n) noexcept {
    if (align < sizeof(void*) || (align & (align - 1)) != 0) return EINVAL;
    *result = aligned_alloc(align, n);
    return *result == nullptr ? ENOMEM : 0;
}
} // extern "C"
