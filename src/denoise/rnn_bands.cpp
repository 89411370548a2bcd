#include "denoise/rnn_bands.h"

#include <cmath>
#include <numbers>

namespace quelora::denoise {

namespace {

// Accumulates v(k) over every band's bins into the two bands it lies between.
template <class Value> void accumulate_bands(rnn_bands& out, Value v) {
    out.fill(0.0f);
    for (int b = 0; b + 1 < rnn_band_count; ++b) {
        const int size = 4 * (rnn_band_edges[b + 1] - rnn_band_edges[b]);
        const int start = 4 * rnn_band_edges[b];
        for (int j = 0; j < size; ++j) {
            const float frac = static_cast<float>(j) / static_cast<float>(size);
            const float value = v(start + j);
            out[b] += (1.0f - frac) * value;
            out[b + 1] += frac * value;
        }
    }
    out[0] *= 2.0f;
    out[rnn_band_count - 1] *= 2.0f;
}

struct dct_table {
    std::array<float, rnn_band_count * rnn_band_count> c;
    dct_table() {
        const double n = rnn_band_count;
        for (int i = 0; i < rnn_band_count; ++i) {
            const double scale = std::sqrt(2.0 / n) * (i == 0 ? std::sqrt(0.5) : 1.0);
            for (int j = 0; j < rnn_band_count; ++j) {
                c[i * rnn_band_count + j] =
                    static_cast<float>(scale * std::cos((j + 0.5) * i * std::numbers::pi / n));
            }
        }
    }
};

std::array<float, rnn_window_size> make_window() {
    std::array<float, rnn_window_size> w{};
    const double half = rnn_frame_size;
    for (int i = 0; i < rnn_frame_size; ++i) {
        const double s = std::sin(0.5 * std::numbers::pi * (i + 0.5) / half);
        w[i] = static_cast<float>(std::sin(0.5 * std::numbers::pi * s * s));
        w[rnn_window_size - 1 - i] = w[i];
    }
    return w;
}

// Built when the library loads, so that no frame pays for (or waits on)
// a first-use initialisation.
const std::array<float, rnn_window_size> window = make_window();
const dct_table dct;

} // namespace

const std::array<float, rnn_window_size>& rnn_window() { return window; }

void rnn_band_energy(const rnn_spectrum& x, rnn_bands& energy) {
    accumulate_bands(energy, [&](int k) { return std::norm(x[k]); });
}

void rnn_band_correlation(const rnn_spectrum& x, const rnn_spectrum& p, rnn_bands& correlation) {
    accumulate_bands(correlation,
                     [&](int k) { return x[k].real() * p[k].real() + x[k].imag() * p[k].imag(); });
}

void rnn_interpolate_bands(const rnn_bands& bands, std::array<float, rnn_bin_count>& bins) {
    bins.fill(0.0f);
    for (int b = 0; b + 1 < rnn_band_count; ++b) {
        const int size = 4 * (rnn_band_edges[b + 1] - rnn_band_edges[b]);
        const int start = 4 * rnn_band_edges[b];
        for (int j = 0; j < size; ++j) {
            const float frac = static_cast<float>(j) / static_cast<float>(size);
            bins[start + j] = (1.0f - frac) * bands[b] + frac * bands[b + 1];
        }
    }
}

void rnn_dct(const float* in, float* out) {
    for (int i = 0; i < rnn_band_count; ++i) {
        float sum = 0.0f;
        for (int j = 0; j < rnn_band_count; ++j) sum += in[j] * dct.c[i * rnn_band_count + j];
        out[i] = sum;
    }
}

} // namespace quelora::denoise
