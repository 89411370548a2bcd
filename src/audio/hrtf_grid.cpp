#include "audio/hrtf_grid.h"

#include "dsp/real_fft.h"

#include <algorithm>
#include <cmath>
#include <complex>
#include <numbers>
#include <stdexcept>
#include <string>

namespace quelora {

namespace {

// The mean energy per ear and direction after normalisation, at 1 m.
constexpr double mean_direct_energy = 0.5;

// One pulse stream for every grid point (the room splits it per ear). The
// late field of a room does not depend on where the talker stands, and the
// renderer blends up to eight points: with a tail of its own per point the
// blend would cancel part of the reverberation (3 dB between two azimuths,
// 6 dB between two layers as well), so the reverb would swell and dip as a
// talker moves. Different talkers' tails stay apart because their voices do.
uint64_t tail_seed(int32_t /*point*/) {
    return 0x51A7'1A1B'0000'0000ull;
}

// The diffuse-field response of each ear: the magnitude of the mean power
// spectrum over all measured directions, as a linear-phase kernel (128 taps,
// Hann-windowed, which also smooths the spectrum), then split into the room's
// two decay bands. A tail of white noise would carry none of the ear's
// colour (the measured set lies some 17 dB lower at 500 Hz than at its
// 2.5 kHz ear-canal peak) and would boom against the direct sound.
std::array<tail_kernel, 2> diffuse_field_kernels(const std::vector<float>& responses, int32_t count,
                                                 int32_t taps) {
    // A response folded onto `size` taps has exactly the spectrum of the
    // whole one at the size's bins, which is all a 128-tap kernel resolves.
    constexpr int32_t size = 256;
    constexpr int32_t bins = size / 2 + 1;
    constexpr int32_t core = 128;
    constexpr int32_t length = meeting_room::tail_kernel_taps;
    dsp::real_fft fft(size);
    std::vector<float> frame(size);
    std::vector<std::complex<float>> spectrum(bins);
    std::vector<double> power(2 * bins, 0.0);
    for (int32_t direction = 0; direction < count; ++direction) {
        for (int32_t ear = 0; ear < 2; ++ear) {
            const float* r = responses.data() + (static_cast<size_t>(direction) * 2 + ear) * taps;
            std::fill(frame.begin(), frame.end(), 0.0f);
            for (int32_t n = 0; n < taps; ++n) frame[n % size] += r[n];
            fft.forward(frame.data(), spectrum.data());
            for (int32_t k = 0; k < bins; ++k) power[ear * bins + k] += std::norm(spectrum[k]);
        }
    }
    const double a = meeting_room::crossover_pole();
    std::array<tail_kernel, 2> kernels;
    for (int32_t ear = 0; ear < 2; ++ear) {
        for (int32_t k = 0; k < bins; ++k) {
            spectrum[k] = static_cast<float>(std::sqrt(power[ear * bins + k] / count));
        }
        fft.inverse(spectrum.data(), frame.data()); // zero phase: centred on tap 0
        tail_kernel& kernel = kernels[ear];
        kernel.low.assign(length, 0.0f);
        kernel.high.assign(length, 0.0f);
        double low = 0.0;
        for (int32_t n = 0; n < length; ++n) {
            const double hann = 0.5 - 0.5 * std::cos(2.0 * std::numbers::pi * (n + 0.5) / core);
            const double x = n < core ? frame[(n - core / 2 + size) % size] * hann : 0.0;
            low = (1.0 - a) * x + a * low;
            kernel.low[n] = static_cast<float>(low / size);
            kernel.high[n] = static_cast<float>((x - low) / size);
        }
    }
    return kernels;
}

} // namespace

grid_response_builder::grid_response_builder(const measured_hrtf_set& measured)
    : measured_(measured), measured_taps_(measured.taps()),
      reflections_(meeting_room::max_reflections) {
    if (measured.count() <= 0 || measured.taps() <= 0) {
        throw std::invalid_argument("grid_response_builder: the measured set is empty");
    }
    const size_t count = static_cast<size_t>(measured.count()) * 2;
    responses_.resize(count * static_cast<size_t>(measured_taps_));
    double total = 0.0;
    for (int32_t direction = 0; direction < measured.count(); ++direction) {
        for (int32_t ear = 0; ear < 2; ++ear) {
            float* r =
                responses_.data() + (static_cast<size_t>(direction) * 2 + ear) * measured_taps_;
            measured.decode(direction, ear, r);
            for (int32_t n = 0; n < measured_taps_; ++n) total += double{r[n]} * r[n];
        }
    }
    if (!(total > 0.0))
        throw std::invalid_argument("grid_response_builder: the measured set is silent");
    const double scale = std::sqrt(mean_direct_energy * static_cast<double>(count) / total);
    for (float& x : responses_) x = static_cast<float>(x * scale);
    tail_kernels_ = diffuse_field_kernels(responses_, measured.count(), measured_taps_);
}

void grid_response_builder::add(int32_t direction, int32_t delay, double gain, int32_t taps,
                                float* left, float* right) const {
    const int32_t length = std::min(measured_taps_, taps - delay);
    const float g = static_cast<float>(gain);
    float* const out[2] = {left + delay, right + delay};
    for (int32_t ear = 0; ear < 2; ++ear) {
        const float* r = response(direction, ear);
        for (int32_t n = 0; n < length; ++n) out[ear][n] += g * r[n];
    }
}

void grid_response_builder::build(int32_t point, int32_t taps, float* left, float* right) {
    if (point < 0 || point >= grid_point_count || taps < 1 || taps > max_taps) {
        throw std::invalid_argument("grid_response_builder: point " + std::to_string(point) +
                                    " or taps " + std::to_string(taps) + " out of range");
    }
    std::fill(left, left + taps, 0.0f);
    std::fill(right, right + taps, 0.0f);
    const grid_position p = grid_position_of(point);
    const double distance = std::max(1, p.layer); // metres; layer 0 is layer 1
    add(measured_.nearest(p.azimuth(), p.elevation()), 0, 1.0 / distance, taps, left, right);
    if (p.layer < 2) return;

    const int32_t count =
        room_.reflections(p.azimuth(), p.elevation(), distance, reflections_.data());
    double early = 0.0; // energy per ear
    double first = meeting_room::tail_end();
    double last = 0.0;
    for (int32_t i = 0; i < count; ++i) {
        const room_reflection& r = reflections_[i];
        // Rounded to the sample: 10 us at most, and no low-pass from interpolation.
        const auto delay = static_cast<int32_t>(std::lround(r.delay));
        const double gain = r.gain / distance;
        if (delay < taps) {
            add(measured_.nearest(r.azimuth, r.elevation), delay, gain, taps, left, right);
        }
        // Counted at the mean energy of a direction, not its own: the sum
        // over images from all around is the same within a few per cent,
        // and short builds need not look up the directions they cut off.
        early += gain * gain * mean_direct_energy;
        first = std::min(first, r.delay);
        last = std::max(last, r.delay);
    }
    // Diffuse-field theory: reverberant / direct energy at r is (r / r_c)^2,
    // so the reverberant energy at an ear, early reflections and tail
    // together, is the mean direct energy at 1 m over r_c^2 at any distance.
    const double rc = room_.critical_distance();
    const double tail = mean_direct_energy / (rc * rc) - early;
    room_.add_tail(tail_seed(point), first, last, tail, tail_kernels_, taps, left, right);
}

} // namespace quelora
