// The packed copies live in a process-wide list under a mutex. A matrix is
// known by its address, shape and a hash of its contents, so that a table
// freed and another allocated at the same address never reuses a stale copy.
#include "denoise/packed_matrix.h"

#include <algorithm>
#include <cstring>
#include <list>
#include <mutex>
#include <vector>

namespace quelora::denoise {

namespace {

// One cache line of packed weights: every 16-float load of the kernels then
// reads one line instead of straddling two.
struct alignas(64) packed_line {
    float values[packed_chunk_columns];
};

struct packed_entry {
    const float* source;
    uint32_t rows, cols;
    uint64_t hash;
    std::vector<packed_line> packed;
};

// FNV-1a over the matrix's floats taken two at a time as 64-bit words (a
// participant's canceller hashes its 4.7 MB of GRU weights when it is made:
// about half a millisecond this way, several byte by byte).
uint64_t content_hash(const float* a, std::size_t count) {
    uint64_t h = 0xcbf29ce484222325ull;
    std::size_t i = 0;
    for (; i + 2 <= count; i += 2) {
        uint64_t word;
        std::memcpy(&word, a + i, sizeof word);
        h = (h ^ word) * 0x100000001b3ull;
    }
    if (i < count) {
        uint32_t last;
        std::memcpy(&last, a + i, sizeof last);
        h = (h ^ last) * 0x100000001b3ull;
    }
    return h;
}

std::mutex store_mutex;
std::list<packed_entry> store; // nodes never move: handed-out pointers stay valid

} // namespace

std::size_t packed_matrix_floats(uint32_t rows, uint32_t cols) {
    const std::size_t blocks = (rows + packed_block_rows - 1) / packed_block_rows;
    const std::size_t chunks = (cols + packed_chunk_columns - 1) / packed_chunk_columns;
    return blocks * chunks * packed_block_rows * packed_chunk_columns;
}

void pack_matrix(const float* a, uint32_t rows, uint32_t cols, float* packed) {
    const uint32_t chunks = (cols + packed_chunk_columns - 1) / packed_chunk_columns;
    std::fill_n(packed, packed_matrix_floats(rows, cols), 0.0f);
    for (uint32_t r = 0; r < rows; ++r) {
        const uint32_t block = r / packed_block_rows, within = r % packed_block_rows;
        for (uint32_t q = 0; q < chunks; ++q) {
            const uint32_t first = q * packed_chunk_columns;
            const uint32_t count = std::min(packed_chunk_columns, cols - first);
            float* to = packed + ((std::size_t{block} * chunks + q) * packed_block_rows + within) *
                                     packed_chunk_columns;
            std::memcpy(to, a + std::size_t{r} * cols + first, count * sizeof(float));
        }
    }
}

const float* shared_packed_matrix(const float* a, uint32_t rows, uint32_t cols) {
    const uint64_t hash = content_hash(a, std::size_t{rows} * cols);
    std::lock_guard lock(store_mutex);
    for (const packed_entry& e : store)
        if (e.source == a && e.rows == rows && e.cols == cols && e.hash == hash)
            return e.packed.front().values;
    packed_entry& e = store.emplace_back(packed_entry{
        a, rows, cols, hash,
        std::vector<packed_line>(packed_matrix_floats(rows, cols) / packed_chunk_columns)});
    float* packed = e.packed.front().values;
    pack_matrix(a, rows, cols, packed);
    return packed;
}

} // namespace quelora::denoise
