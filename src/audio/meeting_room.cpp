#include "audio/meeting_room.h"

#include <algorithm>
#include <cmath>
#include <numbers>

namespace quelora {

namespace {

// The room, all in one place. A treated meeting room for six to eight people:
// plaster walls, carpet, a suspended absorptive ceiling. Coordinates: x runs
// from the back wall to the front wall (the one with the screen) and is the
// way the listener faces, y from the listener's right-hand wall to the left,
// z up from the floor. Absorption coefficients are mid-frequency values.
constexpr double room_size[3] = {6.0, 4.5, 2.8};
constexpr double wall_absorption = 0.06;    // painted plaster, all four walls
constexpr double floor_absorption = 0.30;   // carpet on underlay
constexpr double ceiling_absorption = 0.70; // suspended mineral-fibre tiles
// Seated at the table, ears 1.2 m up; off the room's centre lines, so that no
// two walls send their reflections at the same time.
constexpr double listener[3] = {2.5, 2.15, 1.2};
// A talker's mouth keeps this far from every surface.
constexpr double talker_clearance = 0.25;
constexpr double speed_of_sound = 343.0;
constexpr double sample_rate = 48000.0;
// The tail: above the crossover it decays this much faster (walls, carpet
// and air take more of the highs). Its pulses come one per pulse_spacing taps
// (3000 a second: sparse noise this dense sounds as smooth as dense noise once
// through its kernel); they fade out over fade_out_taps, and the last
// kernel ends at tail_end_tap, inside the bank's 8192 taps.
constexpr double crossover_hz = 4000.0;
constexpr double high_band_rt60_ratio = 0.7;
constexpr int32_t pulse_spacing = 16;
constexpr int32_t tail_end_tap = 8192 - 32;
constexpr int32_t fade_out_taps = 1024;
constexpr int32_t pulse_end_tap = tail_end_tap - meeting_room::tail_kernel_taps;

// The walls of each axis: at 0 (back, right, floor) and at the far end.
constexpr double near_absorption[3] = {wall_absorption, wall_absorption, floor_absorption};
constexpr double far_absorption[3] = {wall_absorption, wall_absorption, ceiling_absorption};

constexpr double degrees = std::numbers::pi / 180.0;
constexpr int32_t max_order = 3;

double eyring_rt60() {
    const double area[3] = {room_size[1] * room_size[2], room_size[0] * room_size[2],
                            room_size[0] * room_size[1]};
    double surface = 0.0;
    double absorption = 0.0;
    for (int32_t axis = 0; axis < 3; ++axis) {
        surface += 2.0 * area[axis];
        absorption += area[axis] * (near_absorption[axis] + far_absorption[axis]);
    }
    const double volume = room_size[0] * room_size[1] * room_size[2];
    return 0.161 * volume / (-surface * std::log(1.0 - absorption / surface));
}

// Image i of a coordinate s along an axis of length size: i = 0 is the
// source, odd i mirror it, and |i| counts the reflections.
double image_coordinate(int32_t i, double s, double size) {
    return i % 2 == 0 ? i * size + s : (i + 1) * size - s;
}

// The amplitude left after |i| reflections off the two walls of an axis,
// sqrt(1 - alpha) per reflection; a positive i meets the far wall first.
double reflection_factor(int32_t i, int32_t axis) {
    const int32_t first = (std::abs(i) + 1) / 2;
    const int32_t second = std::abs(i) / 2;
    const double near = std::sqrt(1.0 - near_absorption[axis]);
    const double far = std::sqrt(1.0 - far_absorption[axis]);
    return i > 0 ? std::pow(far, first) * std::pow(near, second)
                 : std::pow(near, first) * std::pow(far, second);
}

// Fades are smoothsteps, 3t^2 - 2t^3: as smooth at their ends as a raised
// cosine, and a few multiplications per tap instead of a cosine.
double smoothstep(double t) { return t * t * (3.0 - 2.0 * t); }

double fade_in(double n, double begin, double end) {
    if (n < begin) return 0.0;
    if (n >= end) return 1.0;
    return smoothstep((n - begin) / (end - begin));
}

double fade_out(int32_t n) {
    const int32_t begin = pulse_end_tap - fade_out_taps;
    if (n < begin) return 1.0;
    if (n >= pulse_end_tap) return 0.0;
    return 1.0 - smoothstep(static_cast<double>(n - begin) / fade_out_taps);
}

// splitmix64: a fixed, portable stream, so the same build gives the same tail everywhere.
uint64_t next_random(uint64_t& state) {
    uint64_t z = (state += 0x9E3779B97F4A7C15ull);
    z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
    z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
    return z ^ (z >> 31);
}

} // namespace

meeting_room::meeting_room()
    : volume_(room_size[0] * room_size[1] * room_size[2]), rt60_(eyring_rt60()),
      critical_distance_(0.057 * std::sqrt(volume_ / rt60_)), low_decay_(tail_end_tap),
      high_decay_(tail_end_tap) {
    // Amplitude down 60 dB after the reverberation time.
    const double low = std::pow(10.0, -3.0 / (rt60_ * sample_rate));
    const double high = std::pow(10.0, -3.0 / (high_band_rt60_ratio * rt60_ * sample_rate));
    double l = 1.0;
    double h = 1.0;
    for (int32_t n = 0; n < tail_end_tap; ++n, l *= low, h *= high) {
        low_decay_[n] = l;
        high_decay_[n] = h;
    }
}

double meeting_room::crossover_pole() {
    return std::exp(-2.0 * std::numbers::pi * crossover_hz / sample_rate);
}

int32_t meeting_room::tail_end() { return tail_end_tap; }

int32_t meeting_room::reflections(float azimuth, float elevation, double distance,
                                  room_reflection* out) const {
    const double a = azimuth * degrees;
    const double e = elevation * degrees;
    const double direction[3] = {std::cos(e) * std::cos(a), -std::cos(e) * std::sin(a),
                                 std::sin(e)};
    double reach = distance;
    for (int32_t axis = 0; axis < 3; ++axis) {
        const double d = direction[axis];
        if (d > 1e-9)
            reach = std::min(reach, (room_size[axis] - talker_clearance - listener[axis]) / d);
        if (d < -1e-9) reach = std::min(reach, (talker_clearance - listener[axis]) / d);
    }
    double talker[3];
    for (int32_t axis = 0; axis < 3; ++axis)
        talker[axis] = listener[axis] + reach * direction[axis];

    int32_t count = 0;
    for (int32_t i = -max_order; i <= max_order; ++i) {
        for (int32_t j = -max_order; j <= max_order; ++j) {
            for (int32_t k = -max_order; k <= max_order; ++k) {
                const int32_t order = std::abs(i) + std::abs(j) + std::abs(k);
                if (order == 0 || order > max_order) continue;
                const int32_t index[3] = {i, j, k};
                double v[3];
                double walls = 1.0;
                for (int32_t axis = 0; axis < 3; ++axis) {
                    v[axis] = image_coordinate(index[axis], talker[axis], room_size[axis]) -
                              listener[axis];
                    walls *= reflection_factor(index[axis], axis);
                }
                const double path = std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
                double image_azimuth = std::atan2(-v[1], v[0]) / degrees;
                if (image_azimuth < 0.0) image_azimuth += 360.0;
                if (image_azimuth >= 360.0) image_azimuth -= 360.0;
                out[count++] = {
                    static_cast<float>(image_azimuth),
                    static_cast<float>(std::atan2(v[2], std::hypot(v[0], v[1])) / degrees),
                    (path - reach) / speed_of_sound * sample_rate, reach / path * walls};
            }
        }
    }
    return count;
}

void meeting_room::add_tail(uint64_t seed, double fade_in_begin, double fade_in_end, double energy,
                            const std::array<tail_kernel, 2>& kernels, int32_t taps, float* left,
                            float* right) const {
    if (!(energy > 0.0)) return;
    struct pulse {
        int32_t at;
        double low;
        double high;
    };
    std::array<pulse, pulse_end_tap / pulse_spacing + 1> pulses;
    float* const out[2] = {left, right};
    const int32_t first = std::max(0, static_cast<int32_t>(std::ceil(fade_in_begin)));
    for (int32_t ear = 0; ear < 2; ++ear) {
        const tail_kernel& kernel = kernels[ear];
        double low_energy = 0.0, high_energy = 0.0, cross_energy = 0.0;
        for (int32_t k = 0; k < tail_kernel_taps; ++k) {
            low_energy += double{kernel.low[k]} * kernel.low[k];
            high_energy += double{kernel.high[k]} * kernel.high[k];
            cross_energy += double{kernel.low[k]} * kernel.high[k];
        }
        // One pulse at a random place in each stretch of pulse_spacing taps,
        // with a random sign. Overlapping pulses' cross terms average out,
        // so the tail's energy is the sum of the pulses' own.
        uint64_t state = seed * 2 + static_cast<uint64_t>(ear);
        int32_t count = 0;
        double sum = 0.0;
        for (int32_t stretch = first; stretch < pulse_end_tap; stretch += pulse_spacing) {
            const uint64_t r = next_random(state);
            const int32_t at = stretch + static_cast<int32_t>((r >> 32) % pulse_spacing);
            const double w = fade_in(at, fade_in_begin, fade_in_end) * fade_out(at);
            if (w == 0.0) continue;
            const double sign = (r & 1) != 0 ? -1.0 : 1.0;
            const pulse p{at, sign * w * low_decay_[at], sign * w * high_decay_[at]};
            sum += p.low * p.low * low_energy + p.high * p.high * high_energy +
                   2.0 * p.low * p.high * cross_energy;
            pulses[count++] = p;
        }
        if (!(sum > 0.0)) continue;
        const double gain = std::sqrt(energy / sum);
        for (int32_t i = 0; i < count && pulses[i].at < taps; ++i) {
            const auto low = static_cast<float>(gain * pulses[i].low);
            const auto high = static_cast<float>(gain * pulses[i].high);
            float* o = out[ear] + pulses[i].at;
            const int32_t length = std::min(tail_kernel_taps, taps - pulses[i].at);
            for (int32_t k = 0; k < length; ++k)
                o[k] += low * kernel.low[k] + high * kernel.high[k];
        }
    }
}

} // namespace quelora
