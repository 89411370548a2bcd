// The recurrent suppressor's frame geometry and its 22 bands: 480-sample hops
// analysed with a 960-point window, 481 bins of 50 Hz, and band edges every
// 200 Hz at the bottom widening to 2.4 kHz at the top, the last edge at
// 20 kHz. Energies and gains move between bins and bands with triangular
// weights, so that each band's value peaks at its lower edge and fades to
// the next (docs/rnn_suppressor.md).
#pragma once

#include "denoise/rnn_model.h"

#include <array>
#include <complex>

namespace quelora::denoise {

inline constexpr int rnn_frame_size = 480;
inline constexpr int rnn_window_size = 960;
inline constexpr int rnn_bin_count = rnn_window_size / 2 + 1;
// Band edges in units of 4 bins (200 Hz).
inline constexpr std::array<int, rnn_band_count> rnn_band_edges = {
    0, 1, 2, 3, 4, 5, 6, 7, 8, 10, 12, 14, 16, 20, 24, 28, 34, 40, 48, 60, 78, 100};
// Bins from here up (20 kHz) belong to no band and are cleared by every gain.
inline constexpr int rnn_band_top_bin = 4 * rnn_band_edges.back();

using rnn_spectrum = std::array<std::complex<float>, rnn_bin_count>;
using rnn_bands = std::array<float, rnn_band_count>;

// The 960-point window, sin(pi/2 sin^2(pi (i + 0.5) / 960)): its square and
// the square of its shifted copy sum to 1, so windowing both at analysis and
// at synthesis overlap-adds to the input.
const std::array<float, rnn_window_size>& rnn_window();

// Triangular-weighted band energies of x (the two end bands doubled, as they
// have only one side).
void rnn_band_energy(const rnn_spectrum& x, rnn_bands& energy);
// The same weighting of Re(x_k conj(p_k)).
void rnn_band_correlation(const rnn_spectrum& x, const rnn_spectrum& p, rnn_bands& correlation);
// Per-band values to per-bin ones with the same triangles; 0 from
// rnn_band_top_bin up.
void rnn_interpolate_bands(const rnn_bands& bands, std::array<float, rnn_bin_count>& bins);
// Orthonormal DCT-II over 22 values; out must not alias in.
void rnn_dct(const float* in, float* out);

} // namespace quelora::denoise
