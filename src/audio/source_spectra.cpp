#include "audio/source_spectra.h"

#include "dsp/vector_ops.h"

#include <stdexcept>

namespace quelora {

namespace {

// A listener that keeps up holds two records per talker (the block it
// rendered last, which is its next frame A, and the one it renders now);
// the talker fills a third. One more absorbs a listener a block behind.
constexpr int32_t initial_records = 4;

} // namespace

source_spectra::source_spectra(int32_t frames, int32_t transform_size)
    : frames_(frames), fft_(transform_size),
      frame_(std::make_unique<float[]>(static_cast<size_t>(transform_size))),
      previous_half_(std::make_unique<float[]>(static_cast<size_t>(frames / 2))) {
    if (frames <= 0 || frames % 2 != 0 || transform_size < 2 * frames) {
        throw std::invalid_argument("source_spectra: the transform must hold two blocks");
    }
    pool_.reserve(initial_records);
    for (int32_t i = 0; i < initial_records; ++i) add_record();
}

spectrum_record& source_spectra::add_record() {
    auto record = std::make_unique<spectrum_record>();
    record->block = dsp::make_aligned_zeros<std::complex<float>>(static_cast<size_t>(bins()));
    record->overlap = dsp::make_aligned_zeros<std::complex<float>>(static_cast<size_t>(bins()));
    pool_.push_back(std::move(record));
    return *pool_.back();
}

spectrum_record& source_spectra::free_record() {
    for (auto& record : pool_) {
        if (record->references.load(std::memory_order_acquire) == 0) return *record;
    }
    return add_record();
}

spectrum_record* source_spectra::analyse(const float* block) {
    spectrum_record& record = free_record();
    const int32_t half = frames_ / 2;
    float* frame = frame_.get(); // zero beyond N, always
    dsp::copy(block, frame, frames_);
    fft_.forward(frame, record.block.get());
    dsp::copy(previous_half_.get(), frame, half);
    dsp::copy(block, frame + half, half);
    fft_.forward(frame, record.overlap.get());
    dsp::copy(block + half, previous_half_.get(), half);
    record.sequence = ++sequence_;
    return &record;
}

void source_spectra::skip(const float* block) {
    dsp::copy(block + frames_ / 2, previous_half_.get(), frames_ / 2);
    ++sequence_;
}

} // namespace quelora
