// A listener's binaural renderer: places every source at its direction and
// distance with a pair of ear filters interpolated from the spatial filter
// bank, attenuates it for its distance, and convolves it in the frequency
// domain into the listener's stereo mix.
//
// Each source block is convolved as two frames: A, the previous block, and
// B, the second half of the previous block followed by the first half of the
// new one; their products with every filter partition accumulate in four
// spectrum rings (A and B, per ear), one partition of which is turned back
// into time per block, windowed and overlap-added with a hop of half a block.
// The rings and the overlap give the renderer a latency of one block.
//
// Work shared by all listeners of a source: the frames' spectra come from the
// source's spectrum records (audio/source_spectra.h) and are scaled here by
// the pair's gains, which are scalars. Only when the scalars changed between
// two blocks, a block was skipped, or no record exists does the renderer
// transform the frames itself, and the two ways agree to float rounding.
//
// Threads: one renderer belongs to one listener and runs on its output call
// only. Its per-source states are made when the listener engine adds a
// slot (under the room's exclusive lock), never on the audio thread.
#pragma once

#include "api/controls.h"
#include "audio/grid_interpolation.h"
#include "audio/source_spectra.h"
#include "audio/spatial_filter_bank.h"
#include "dsp/aligned_array.h"
#include "dsp/real_fft.h"
#include "dsp/spectral_mac.h"

#include <array>
#include <complex>
#include <cstdint>
#include <memory>

namespace quelora {

struct source_direction;

// The synthesis window, sample n of a block of `frames`. Each frame's
// convolution is cut after one block, so a frame has seen more of the
// response the later a sample lies in it; the window gives each output
// sample to the frame in which it lies in the second half (frame A's second
// half, then the next block's frame B's), cross-fading over an eighth of a
// block before each half-block boundary. Shifted by half a block, the window
// sums to one: a source that stands still is reproduced at unit gain, and a
// filter change is faded in rather than switched.
float binaural_synthesis_window(int32_t n, int32_t frames);

// The interpolated filters of one source for one listener, and what the
// renderer carries from one of its blocks to the next.
struct binaural_source_state {
    // partitions x the renderer's partition stride, zero past the bins.
    dsp::aligned_array<std::complex<float>> left;
    dsp::aligned_array<std::complex<float>> right;
    int32_t used_partitions = 0;                  // the rest is zero
    std::array<grid_corner, 8> corners{};         // of the first channel
    uint64_t applied_version = ~uint64_t{0};      // direction version the filters were built for
    bool reverb = false;                          // reverb control the filters were built for
    float previous_scalar = 0.0f; // pair gain x attenuation x channel factor of frame A
    float previous_local = 0.0f;  // the same without the pair gain (already in the samples)
};

// One block of a source as queued for this listener.
struct rendered_block {
    const float* samples = nullptr; // first channel, N samples, pair gain applied; null: none
    const spectrum_record* spectra = nullptr; // of the unscaled block; null: none
    uint64_t sequence = 0;
    float pair_gain = 1.0f;
};

struct binaural_source {
    int32_t channels;
    const source_direction* direction;
    rendered_block current;  // the block popped by this mix
    rendered_block previous; // the block before it: frame A (samples null: silence)
    bool received;           // whether a block was popped for this source in this mix
    binaural_source_state* state;
};

class binaural_renderer {
public:
    // frames: N, the processing block (480, 512, 960 or 1024); the bank's
    // partition length is N rounded up to a power of two.
    binaural_renderer(const spatial_filter_bank& bank, int32_t frames);

    std::unique_ptr<binaural_source_state> make_source_state() const;

    // Adds every source into `mix` (planar stereo, 2 x N). The listener's
    // 3D controls (maximum distance, attenuation, reverb, half-span angle)
    // are read from `listener`.
    void render(binaural_source* sources, int32_t count, const control_values& listener,
                float* mix);

    // Forgets the carried convolution (rings and overlaps): qel_flush_data.
    void reset();

    int32_t frames() const { return frames_; }

private:
    void prefetch(const binaural_source& next) const;
    void update_filters(binaural_source& source, bool reverb, int32_t half_span_angle);
    void accumulate(const binaural_source& source, int32_t max_distance, int32_t attenuation);
    void transform_frame(const float* first, float first_gain, const float* second,
                         float second_gain, std::complex<float>* spectrum);
    void synthesise(float* mix);

    const spatial_filter_bank& bank_;
    int32_t frames_;
    int32_t hop_;
    int32_t partitions_;
    int32_t bins_;
    // Bins rounded up to whole cache lines, so that every partition of the
    // rings and of the sources' filters starts on one (see aligned_array.h).
    int32_t stride_;
    int32_t ring_position_ = 0; // in partitions
    dsp::real_fft fft_;
    dsp::spectral_pair_mac_function mac_;
    // A-left, A-right, B-left, B-right, each partitions x stride.
    std::array<dsp::aligned_array<std::complex<float>>, 4> rings_;
    std::array<std::unique_ptr<float[]>, 4> time_; // transform size each
    std::unique_ptr<float[]> window_;              // N, with the 1 / transform size of the inverse
    std::unique_ptr<float[]> overlap_;             // 2 x N / 2: left, then right
    std::unique_ptr<float[]> frame_;               // transform size, zero beyond N
    dsp::aligned_array<std::complex<float>> scratch_a_;
    dsp::aligned_array<std::complex<float>> scratch_b_;
    dsp::aligned_array<std::complex<float>> silence_; // the spectrum of a silent frame
};

} // namespace quelora
