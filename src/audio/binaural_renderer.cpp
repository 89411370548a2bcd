#include "audio/binaural_renderer.h"

#include "audio/listener_engine.h"
#include "dsp/vector_ops.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <numbers>
#include <stdexcept>

namespace quelora {

namespace {

// A stereo source is rendered from its first channel, lifted by sqrt(2) so
// that it keeps the power of both channels.
constexpr float stereo_source_gain = 1.4142135f;

// Without reverb every source is rendered from the one-metre layer: the
// direct sound alone, whatever its distance (attenuation still uses it).
constexpr int32_t dry_distance = 100;

template <typename T> std::unique_ptr<T[]> zeros(int32_t count) {
    return std::make_unique<T[]>(static_cast<size_t>(count));
}

dsp::aligned_array<std::complex<float>> spectra(int32_t count) {
    return dsp::make_aligned_zeros<std::complex<float>>(static_cast<size_t>(count));
}

void zero_spectrum(std::complex<float>* spectrum, int32_t count) {
    std::memset(static_cast<void*>(spectrum), 0,
                sizeof(std::complex<float>) * static_cast<size_t>(count));
}

} // namespace

float binaural_synthesis_window(int32_t n, int32_t frames) {
    const int32_t hop = frames / 2;
    const int32_t fade = frames / 8;
    const int32_t m = n < hop ? n : n - hop;
    double rise = 0.0;
    if (m >= hop - fade) {
        const double s = std::sin(std::numbers::pi / 2.0 * (m - (hop - fade)) / fade);
        rise = s * s;
    }
    return static_cast<float>(n < hop ? rise : 1.0 - rise);
}

binaural_renderer::binaural_renderer(const spatial_filter_bank& bank, int32_t frames)
    : bank_(bank), frames_(frames), hop_(frames / 2), partitions_(bank.partitions()),
      bins_(bank.bins()), stride_((bank.bins() + 7) / 8 * 8), fft_(2 * (bank.bins() - 1)),
      mac_(dsp::selected_spectral_pair_mac()) {
    const int32_t transform = fft_.size();
    if (frames <= 0 || frames % 2 != 0 || 2 * frames > transform || bank.block() < frames) {
        throw std::invalid_argument("binaural_renderer: the block does not fit the filter bank");
    }
    for (auto& ring : rings_) ring = spectra(partitions_ * stride_);
    for (auto& time : time_) time = zeros<float>(transform);
    overlap_ = zeros<float>(2 * hop_);
    frame_ = zeros<float>(transform);
    scratch_a_ = spectra(bins_);
    scratch_b_ = spectra(bins_);
    silence_ = spectra(bins_);
    // The window carries the 1 / transform size the unnormalised inverse leaves.
    window_ = zeros<float>(frames);
    for (int32_t n = 0; n < frames; ++n) {
        window_[n] = binaural_synthesis_window(n, frames) / static_cast<float>(transform);
    }
}

std::unique_ptr<binaural_source_state> binaural_renderer::make_source_state() const {
    auto state = std::make_unique<binaural_source_state>();
    state->left = spectra(partitions_ * stride_);
    state->right = spectra(partitions_ * stride_);
    return state;
}

void binaural_renderer::reset() {
    for (auto& ring : rings_) zero_spectrum(ring.get(), partitions_ * stride_);
    dsp::zero(overlap_.get(), 2 * hop_);
    ring_position_ = 0;
}

void binaural_renderer::update_filters(binaural_source& source, bool reverb,
                                       int32_t half_span_angle) {
    binaural_source_state& state = *source.state;
    const source_direction& direction = *source.direction;
    if (state.applied_version == direction.version && state.reverb == reverb) return;
    state.applied_version = direction.version;
    state.reverb = reverb;

    // A stereo source's channels sit the half-span angle to either side of
    // its direction, left channel to the left. Only the first channel is
    // rendered, so the interpolation keeps the first channel's corners.
    const int32_t azimuth_offset = source.channels == 2 ? -half_span_angle : 0;
    const int32_t distance = reverb ? direction.near_distance : dry_distance;
    state.corners = grid_corners(direction.azimuth + azimuth_offset, direction.elevation, distance);

    int32_t used = 0;
    for (const grid_corner& corner : state.corners) {
        if (corner_is_used(corner)) used = std::max(used, bank_.used_partitions(corner.index));
    }
    const int32_t stale = std::max(used, state.used_partitions) * stride_;
    zero_spectrum(state.left.get(), stale);
    zero_spectrum(state.right.get(), stale);
    state.used_partitions = used;
    const auto add = [&](const std::complex<float>* from, float weight, std::complex<float>* to) {
        dsp::multiply_add(reinterpret_cast<const float*>(from), weight,
                          reinterpret_cast<float*>(to), 2 * bins_);
    };
    for (const grid_corner& corner : state.corners) {
        if (!corner_is_used(corner)) continue;
        for (int32_t p = 0; p < bank_.used_partitions(corner.index); ++p) {
            add(bank_.left(corner.index) + p * bins_, corner.weight,
                state.left.get() + p * stride_);
            add(bank_.right(corner.index) + p * bins_, corner.weight,
                state.right.get() + p * stride_);
        }
    }
}

void binaural_renderer::transform_frame(const float* first, float first_gain, const float* second,
                                        float second_gain, std::complex<float>* spectrum) {
    float* frame = frame_.get(); // zero beyond N, always
    for (int32_t i = 0; i < hop_; ++i) frame[i] = first == nullptr ? 0.0f : first[i] * first_gain;
    for (int32_t i = 0; i < hop_; ++i) frame[hop_ + i] = second[i] * second_gain;
    fft_.forward(frame, spectrum);
}

void binaural_renderer::accumulate(const binaural_source& source, int32_t max_distance,
                                   int32_t attenuation) {
    binaural_source_state& state = *source.state;
    const source_direction& direction = *source.direction;
    // A decibels per 100 units, counted up to the maximum distance.
    float local = 1.0f;
    if (attenuation != 0 && direction.near_distance != 0) {
        const int32_t d = std::min(direction.near_distance + direction.far_distance, max_distance);
        const float decibels = static_cast<float>(d) * static_cast<float>(attenuation) / 100.0f;
        local = std::pow(10.0f, -decibels / 20.0f);
    }
    if (source.channels == 2) local *= stereo_source_gain;
    const rendered_block& current = source.current;
    const rendered_block& previous = source.previous;
    const float scalar = local * current.pair_gain;
    const bool has_previous = previous.samples != nullptr;

    dsp::spectral_pair_inputs in{};
    // Frame A: the previous block as this listener heard it.
    if (!has_previous) {
        in.a = silence_.get();
        in.a_gain = 0.0f;
    } else if (previous.spectra != nullptr) {
        in.a = previous.spectra->block.get();
        in.a_gain = state.previous_scalar;
    } else {
        transform_frame(previous.samples, state.previous_local, previous.samples + hop_,
                        state.previous_local, scratch_a_.get());
        in.a = scratch_a_.get();
        in.a_gain = 1.0f;
    }
    // Frame B straddles the two blocks: the shared spectrum holds only when
    // they were consecutive at the source and scaled alike.
    if (has_previous && current.spectra != nullptr && current.sequence == previous.sequence + 1 &&
        scalar == state.previous_scalar) {
        in.b = current.spectra->overlap.get();
        in.b_gain = scalar;
    } else {
        transform_frame(has_previous ? previous.samples + hop_ : nullptr, state.previous_local,
                        current.samples, local, scratch_b_.get());
        in.b = scratch_b_.get();
        in.b_gain = 1.0f;
    }
    state.previous_scalar = scalar;
    state.previous_local = local;

    for (int32_t p = 0; p < state.used_partitions; ++p) {
        const int32_t offset = ((ring_position_ + p) % partitions_) * stride_;
        in.left = state.left.get() + p * stride_;
        in.right = state.right.get() + p * stride_;
        const dsp::spectral_pair_outputs out{rings_[0].get() + offset, rings_[1].get() + offset,
                                             rings_[2].get() + offset, rings_[3].get() + offset};
        mac_(in, out, bins_);
    }
}

void binaural_renderer::synthesise(float* mix) {
    const int32_t offset = ring_position_ * stride_;
    for (int32_t r = 0; r < 4; ++r) {
        fft_.inverse(rings_[r].get() + offset, time_[r].get());
        zero_spectrum(rings_[r].get() + offset, bins_);
    }
    const float* w = window_.get();
    for (int32_t ear = 0; ear < 2; ++ear) {
        const float* a = time_[ear].get();
        const float* b = time_[2 + ear].get();
        float* out = mix + ear * frames_;
        float* overlap = overlap_.get() + ear * hop_;
        for (int32_t i = 0; i < hop_; ++i) out[i] += w[i] * a[i] + overlap[i];
        for (int32_t i = hop_; i < frames_; ++i) out[i] += w[i] * a[i] + w[i - hop_] * b[i - hop_];
        for (int32_t i = 0; i < hop_; ++i) overlap[i] = w[hop_ + i] * b[hop_ + i];
    }
    ring_position_ = (ring_position_ + 1) % partitions_;
}

void binaural_renderer::render(binaural_source* sources, int32_t count,
                               const control_values& listener, float* mix) {
    const int32_t max_distance = listener.get(QEL_CONTROL_MIXING_3D_MAX_DISTANCE);
    const int32_t attenuation = listener.get(QEL_CONTROL_MIXING_3D_ATTENUATION);
    const bool reverb = listener.get(QEL_CONTROL_MIXING_3D_REVERB_ENABLE) != 0;
    const int32_t half_span_angle = listener.get(QEL_CONTROL_HALF_SPAN_ANGLE);
    for (int32_t s = 0; s < count; ++s) {
        binaural_source& source = sources[s];
        if (s + 2 < count) __builtin_prefetch(sources[s + 2].state);
        if (s + 1 < count && sources[s + 1].received) prefetch(sources[s + 1]);
        update_filters(source, reverb, half_span_angle);
        if (source.received) accumulate(source, max_distance, attenuation);
    }
    synthesise(mix);
}

// Each source's filters lie in allocations of their own, about a page per
// ear and partition, and the hardware prefetcher starts afresh on every page:
// left alone, the kernel waits on memory for most of a pair. So while one
// source is convolved, the first partition of the next one's filters (and
// its frame spectra) is fetched; the prefetcher carries the rest.
void binaural_renderer::prefetch(const binaural_source& next) const {
    const auto fetch = [](const void* from, size_t bytes) {
        for (size_t offset = 0; offset < bytes; offset += 64) {
            __builtin_prefetch(static_cast<const char*>(from) + offset);
        }
    };
    const size_t partition = sizeof(std::complex<float>) * static_cast<size_t>(bins_);
    fetch(next.state->left.get(), partition);
    fetch(next.state->right.get(), partition);
    if (next.current.spectra != nullptr) fetch(next.current.spectra->overlap.get(), partition);
    if (next.previous.spectra != nullptr) fetch(next.previous.spectra->block.get(), partition);
}

} // namespace quelora
