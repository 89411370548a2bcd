// The spectra of a talker's blocks that every listener's binaural renderer
// needs, computed once per block by the talker's input call instead of once
// per listener: a renderer convolves the block as two frames, A (the
// previous block) and B (the second half of the previous block followed by
// the first half of this one), and both spectra depend on the talker alone.
// A listener scales them by its own pair gain and distance attenuation,
// which are scalars.
//
// Records live in a pool owned by the talker. Each queued block that
// refers to a record holds one reference; the talker reuses a record only
// when no block refers to it any more, and grows the pool (an allocation on
// its input call, as for a queue node) only while a listener lags further
// behind than ever before.
//
// Threads: analyse() and skip() run on the talker's input call (under its
// input mutex). References are taken under the listener engine's mutex and
// released from listeners' output calls; the count is atomic, with release
// on drop and acquire on reuse, so a reused record's old readers are done.
// The pool must outlive every queued block that refers to it: a room removes
// a leaving talker's slots from every listener before destroying it.
#pragma once

#include "dsp/aligned_array.h"
#include "dsp/real_fft.h"

#include <atomic>
#include <complex>
#include <cstdint>
#include <memory>
#include <vector>

namespace quelora {

struct spectrum_record {
    std::atomic<int32_t> references{0};
    uint64_t sequence = 0;
    // transform_size / 2 + 1 bins each, of the talker's first channel:
    // the block, zero-padded, and the previous block's second half followed
    // by this block's first.
    dsp::aligned_array<std::complex<float>> block;
    dsp::aligned_array<std::complex<float>> overlap;

    void acquire() { references.fetch_add(1, std::memory_order_relaxed); }
    void release() { references.fetch_sub(1, std::memory_order_release); }
};

class source_spectra {
public:
    // frames: N; transform_size: the renderer's transform, at least 2 N.
    source_spectra(int32_t frames, int32_t transform_size);

    // The next submitted block (its first channel, N samples): returns the
    // record holding its spectra, with no reference taken yet.
    spectrum_record* analyse(const float* block);
    // The next submitted block, when no listener renders it: keeps the
    // sequence and the half-block that the next analyse needs.
    void skip(const float* block);
    // The sequence number of the last analysed or skipped block.
    uint64_t sequence() const { return sequence_; }
    int32_t bins() const { return fft_.size() / 2 + 1; }

private:
    spectrum_record& free_record();
    spectrum_record& add_record();

    int32_t frames_;
    dsp::real_fft fft_;
    std::vector<std::unique_ptr<spectrum_record>> pool_;
    std::unique_ptr<float[]> frame_;         // transform_size, zero beyond N
    std::unique_ptr<float[]> previous_half_; // N / 2: the previous block's second half
    uint64_t sequence_ = 0;
};

} // namespace quelora
