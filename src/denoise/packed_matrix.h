// A weight matrix in the order the AVX-512 matrix-vector kernels stream it:
// blocks of eight rows, each block as its 16-column chunks of 8 x 16 floats
// one after the other, zero-padded to whole blocks and chunks. Read that way
// the weights are one forward stream instead of eight, which L3 delivers
// about a sixth faster on the machines measured (docs/design.md, noise
// canceller speed).
#pragma once

#include <cstddef>
#include <cstdint>

namespace quelora::denoise {

inline constexpr uint32_t packed_block_rows = 8;
inline constexpr uint32_t packed_chunk_columns = 16;

std::size_t packed_matrix_floats(uint32_t rows, uint32_t cols);

// a: row-major rows x cols; packed: packed_matrix_floats(rows, cols) floats.
void pack_matrix(const float* a, uint32_t rows, uint32_t cols, float* packed);

// The packed copy of a, made on the first request and shared by every later
// request for the same matrix (the same address, shape and contents) for the
// life of the process: each participant's canceller reads the one compiled-in
// table, so its GRUs share one copy. The copy is aligned to 64 bytes.
// Thread-safe; allocates, so it belongs in constructors, never on the audio
// path.
const float* shared_packed_matrix(const float* a, uint32_t rows, uint32_t cols);

} // namespace quelora::denoise
