// The modelled meeting room behind the distant layers of the spatial filter
// bank: a shoebox with a seated listener, its early reflections by the
// image-source method and its diffuse tail. Every number of the room (size,
// surfaces, seat, tail timing) is in one block at the top of meeting_room.cpp;
// docs/spatial_room.md explains the choices.
//
// Directions are the listener's (azimuth clockwise from straight ahead, +90 =
// right ear; elevation up); distances in metres; times in samples at 48000 Hz.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

namespace quelora {

struct room_reflection {
    float azimuth;   // where the image is heard from, degrees
    float elevation; // degrees
    double delay;    // samples after the direct sound
    double gain;     // amplitude relative to the direct sound
};

// What one pulse of an ear's tail sounds like: the ear's diffuse-field
// response (hrtf_grid.cpp designs it) split into the band that decays with the
// room's reverberation time and the faster high band. Both tail_kernel_taps long.
struct tail_kernel {
    std::vector<float> low;
    std::vector<float> high;
};

class meeting_room {
public:
    // Images to order 3 in a shoebox: |i| + |j| + |k| <= 3 without the source itself.
    static constexpr int32_t max_reflections = 62;
    static constexpr int32_t tail_kernel_taps = 160;
    // The one-pole low-pass (pole a) whose output is the low band; high = input - low.
    static double crossover_pole();

    meeting_room();

    double volume() const { return volume_; } // m^3
    double rt60() const { return rt60_; }     // seconds, Eyring, mid frequencies
    // Where direct and reverberant energy are equal: 0.057 sqrt(V / RT60), metres.
    double critical_distance() const { return critical_distance_; }

    // The early reflections (orders 1 to 3) of a talker heard from (azimuth,
    // elevation) at distance metres. A talker that would stand outside the
    // room is moved along its direction to just inside the walls; delays and
    // gains are relative to that talker's direct path. Writes up to
    // max_reflections entries and returns their count.
    int32_t reflections(float azimuth, float elevation, double distance,
                        room_reflection* out) const;

    // Adds the diffuse tail to both ears' [0, taps): per ear an independent
    // sparse train of random-sign pulses through that ear's kernel, decaying
    // with the room, faded in over [fade_in_begin, fade_in_end) and out before
    // tail_end(), scaled to `energy` per ear over the whole response. The
    // train comes from `seed` alone, so tap n never depends on taps.
    void add_tail(uint64_t seed, double fade_in_begin, double fade_in_end, double energy,
                  const std::array<tail_kernel, 2>& kernels, int32_t taps, float* left,
                  float* right) const;

    // The first tap from which every response of the room is zero.
    static int32_t tail_end();

private:
    double volume_;
    double rt60_;
    double critical_distance_;
    // Per tap, the amplitude left of each band's decay.
    std::vector<double> low_decay_;
    std::vector<double> high_decay_;
};

} // namespace quelora
