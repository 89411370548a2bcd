// quelora_micro_bench (make bench): binaural rendering. One listener engine with
// mono talkers spread over 0..400 units (so that the distant talkers use the
// reverberant layers, which fill every filter partition), at each spatial
// quality; the spectral multiply-accumulate kernel alone, per filter
// partition; the talker's spectral analysis; and what initialisation costs
// now that it builds the filter banks.
#include "micro_bench_common.h"

#include "audio/grid_interpolation.h"
#include "audio/listener_engine.h"
#include "audio/measured_hrtf.h"
#include "audio/source_spectra.h"
#include "audio/spatial_filter_bank.h"
#include "bench_signal.h"
#include "config/library_configuration.h"
#include "dsp/real_fft.h"
#include "dsp/spectral_mac.h"

#include <quelora/quelora.h>

#include <algorithm>
#include <array>
#include <complex>
#include <cstdlib>
#include <memory>
#include <new>
#include <vector>

namespace {

using namespace quelora;
using bench::block_frames;
using bench::set_block_counters;

constexpr int32_t stereo = 2;
// Real multiply-adds of one complex multiply-accumulate, and the kernel's
// complex multiply-accumulates per bin (two frames times two ears).
constexpr int64_t real_per_complex = 4;
constexpr int64_t products_per_bin = 4;

processing_sizes sizes_for(int32_t quality) {
    const qel_library_configuration configuration{48000, block_frames, stereo, true, quality};
    return derive_processing_sizes(configuration);
}

// One bank per quality, built on first use and kept for the whole run, as a
// library keeps its own (the quality-5 bank takes a while and 88 MB).
const spatial_filter_bank& bank_for(int32_t quality) {
    static std::array<std::unique_ptr<spatial_filter_bank>, 6> banks;
    std::unique_ptr<spatial_filter_bank>& bank = banks.at(static_cast<size_t>(quality));
    if (!bank) {
        const processing_sizes sizes = sizes_for(quality);
        bank = std::make_unique<spatial_filter_bank>(measured_hrtf_set::compiled_in(),
                                                     sizes.spatial_filter_length,
                                                     sizes.processing_block, sizes.transform_size);
    }
    return *bank;
}

// Talker s of count: distances evenly over 0..400 units (the middle of each
// of `count` equal steps), azimuths all around and off the 15-degree grid,
// all at ear height, as in a room of seated people.
int32_t talker_distance(int32_t s, int32_t count) { return 400 * (2 * s + 1) / (2 * count); }
int32_t talker_azimuth(int32_t s, int32_t count) { return -173 + 360 * s / count; }

// The partitions the renderer convolves for one talker: those of the grid
// points its filter is interpolated from, as the renderer picks them.
int32_t used_partitions(const spatial_filter_bank& bank, int32_t azimuth, int32_t distance) {
    int32_t used = 0;
    for (const grid_corner& corner :
         grid_corners(azimuth, 0, std::min(distance, near_distance_limit))) {
        if (corner_is_used(corner)) used = std::max(used, bank.used_partitions(corner.index));
    }
    return used;
}

// A listener with 3D and reverb on and `count` talkers. A room analyses each
// talker's block once, on the talker's input call, for all of its listeners
// (BM_SourceSpectraAnalyse times that); so that the time here is one
// listener's share, every talker's loop of blocks is analysed before timing
// and its records are held, and each period submits the next block of the
// loop with its record and a running sequence number, as the room would.
struct spatial_listener {
    static constexpr int32_t loop_blocks = 8; // bench_signal.h: the talker signal repeats

    spatial_listener(const spatial_filter_bank& bank, int32_t count)
        : engine(block_frames, static_cast<size_t>(count), &bank),
          mix(static_cast<size_t>(stereo * block_frames)) {
        const int32_t transform = 2 * (bank.bins() - 1);
        for (int32_t s = 0; s < count; ++s) {
            const int32_t azimuth = talker_azimuth(s, count);
            const int32_t distance = talker_distance(s, count);
            engine.add_source(s + 1, 1);
            engine.store_direction(s + 1, azimuth, 0, distance);
            partitions += used_partitions(bank, azimuth, distance);

            talker& t = talkers.emplace_back();
            t.samples.resize(static_cast<size_t>(loop_blocks * block_frames));
            bench::talker_signal(s, 48000, 0, t.samples.data(), loop_blocks * block_frames);
            t.analysis = std::make_unique<source_spectra>(block_frames, transform);
            // The last block first, so that the first block's straddling
            // frame starts with the loop's end.
            t.analysis->skip(t.block(loop_blocks - 1));
            for (int32_t b = 0; b < loop_blocks; ++b) {
                spectrum_record* record = t.analysis->analyse(t.block(b));
                record->acquire(); // held for the whole run
                t.records.push_back(record);
            }
        }
        controls.set(QEL_CONTROL_MIXING_3D_ENABLE, 1);
        controls.set(QEL_CONTROL_MIXING_3D_REVERB_ENABLE, 1);
    }

    // One block period: every talker's next block, then this listener's mix.
    int32_t period() {
        const auto b = static_cast<int32_t>(sequence % loop_blocks);
        ++sequence;
        for (size_t s = 0; s < talkers.size(); ++s) {
            talker& t = talkers[s];
            engine.submit(static_cast<int32_t>(s) + 1, t.block(b), 1.0f,
                          t.records[static_cast<size_t>(b)], sequence);
        }
        return engine.mix(mix.data(), controls);
    }

    struct talker {
        const float* block(int32_t b) const {
            return samples.data() + static_cast<size_t>(b) * block_frames;
        }
        std::vector<float> samples; // loop_blocks x N
        std::unique_ptr<source_spectra> analysis;
        std::vector<spectrum_record*> records; // one per block of the loop
    };

    // Declared before the engine, which releases its references into them.
    std::vector<talker> talkers;
    listener_engine engine;
    control_values controls;
    std::vector<float> mix;
    uint64_t sequence = 0;
    int64_t partitions = 0; // summed over the talkers
};

// Time per mix (the reported time); per_source: that time over the talkers,
// the listener's four inverse transforms included, so it falls towards the
// cost of one pair as talkers are added; the kernel's work as multiply-adds
// per second (MAC/s: real single-precision multiply-adds of the partitions
// convolved, no transforms), the mean partitions per talker and the
// real-time factor.
void BM_SpatialListenerMix(benchmark::State& state) {
    const auto quality = static_cast<int32_t>(state.range(0));
    const auto sources = static_cast<int32_t>(state.range(1));
    const spatial_filter_bank& bank = bank_for(quality);
    spatial_listener listener(bank, sources);
    listener.period(); // the filters are interpolated on the first mix
    int32_t silent = 0;
    for (auto _ : state) {
        silent += listener.period() == 0;
        benchmark::DoNotOptimize(listener.mix.data());
        benchmark::ClobberMemory();
    }
    if (silent != 0) state.SkipWithError("a mix had no block");
    set_block_counters(state, static_cast<int64_t>(sources) * block_frames);
    using counter = benchmark::Counter;
    state.counters["per_source"] =
        counter(sources, counter::kIsIterationInvariantRate | counter::kInvert);
    state.counters["partitions"] =
        static_cast<double>(listener.partitions) / static_cast<double>(sources);
    state.counters["MAC/s"] =
        counter(static_cast<double>(listener.partitions * bank.bins() * products_per_bin *
                                    real_per_complex),
                counter::kIsIterationInvariantRate);
}
BENCHMARK(BM_SpatialListenerMix)
    ->ArgNames({"quality", "sources"})
    ->ArgsProduct({{1, 2, 3, 4, 5}, {1, 8, 32}});

// A talker's analysis of one block: the spectra of its two frames, made once
// per block for all of its binaural listeners (not included above).
void BM_SourceSpectraAnalyse(benchmark::State& state) {
    source_spectra spectra(block_frames, sizes_for(3).transform_size);
    const std::vector<float> block = bench::talker_block(0, 48000, block_frames);
    for (auto _ : state) {
        benchmark::DoNotOptimize(spectra.analyse(block.data()));
        benchmark::ClobberMemory();
    }
    set_block_counters(state, block_frames);
}
BENCHMARK(BM_SourceSpectraAnalyse);

// The transform of the renderer's size (1024 points at 480 frames): a talker
// makes two forward ones per block, a binaural listener four inverse ones
// (two frames times two ears), whatever the number of its talkers.
void BM_RealTransform(benchmark::State& state) {
    const bool inverse = state.range(0) != 0;
    const int32_t size = sizes_for(3).transform_size;
    dsp::real_fft fft(size);
    std::vector<float> samples(static_cast<size_t>(size), 0.0f);
    bench::talker_signal(0, 48000, 0, samples.data(), block_frames);
    std::vector<std::complex<float>> spectrum(static_cast<size_t>(size / 2 + 1));
    fft.forward(samples.data(), spectrum.data());
    for (auto _ : state) {
        if (inverse) {
            fft.inverse(spectrum.data(), samples.data());
        } else {
            fft.forward(samples.data(), spectrum.data());
        }
        benchmark::ClobberMemory();
    }
    state.SetItemsProcessed(state.iterations() * size);
}
BENCHMARK(BM_RealTransform)->ArgName("inverse")->Arg(0)->Arg(1);

// Complex values at `offset` bytes past a 64-byte boundary. The filter bank
// aligns its storage, but the arrays the kernel reads and writes come from
// operator new[] (a pair's interpolated filters, the rings, the spectrum
// records), which glibc aligns to 16 bytes only: about half of them start 16
// bytes off a 32-byte boundary, and nearly every call of the kernel has some.
class placed_values {
public:
    placed_values(int32_t count, int32_t offset, int32_t seed)
        : storage_(static_cast<char*>(std::aligned_alloc(
                       64, (static_cast<size_t>(count) * sizeof(std::complex<float>) + offset +
                            63) / 64 * 64)),
                   &std::free) {
        if (!storage_) throw std::bad_alloc();
        values_ = reinterpret_cast<std::complex<float>*>(storage_.get() + offset);
        for (int32_t i = 0; i < count; ++i) {
            // Within +-0.5, so that the accumulators never overflow.
            values_[i] = {0.5f * bench::noise_sample(seed, 2 * i),
                          0.5f * bench::noise_sample(seed, 2 * i + 1)};
        }
    }
    std::complex<float>* data() const { return values_; }

private:
    std::unique_ptr<char, decltype(&std::free)> storage_;
    std::complex<float>* values_ = nullptr;
};

// The kernel on one filter partition (513 bins at 48 kHz and 480 frames):
// two frames times two ears. `filters` distinct partitions are cycled through,
// as a listener's mix walks every talker's filters: one stays in the
// nearest cache; 4096 (34 MB) come from memory on most machines. The
// accumulators cycle through `rings` partitions: one (16 KB, quality 1's
// rings) stays in L1; 16 (256 KB, quality 5's) are read and written from L2.
// `offset`: every buffer's distance from a 64-byte boundary (16: all of them
// off a 32-byte boundary, the worst case; 0: all aligned).
void BM_SpectralPairMac(benchmark::State& state) {
    const bool vector = state.range(0) != 0;
    const auto filters = static_cast<int32_t>(state.range(1));
    const auto rings = static_cast<int32_t>(state.range(2));
    const auto offset = static_cast<int32_t>(state.range(3));
    const dsp::spectral_pair_mac_function mac =
        vector ? dsp::avx2_spectral_pair_mac() : dsp::spectral_pair_mac_portable;
    if (mac == nullptr) {
        state.SkipWithError("this processor has no AVX2+FMA");
        return;
    }
    const int32_t bins = sizes_for(3).transform_size / 2 + 1;
    const placed_values a(bins, offset, 1), b(bins, offset, 2);
    const placed_values left(filters * bins, offset, 3), right(filters * bins, offset, 4);
    std::vector<placed_values> out;
    for (int32_t o = 0; o < 4; ++o) out.emplace_back(rings * bins, offset, 0);
    for (auto& o : out) std::fill_n(o.data(), rings * bins, std::complex<float>{});
    int32_t filter = 0;
    int32_t ring = 0;
    for (auto _ : state) {
        const size_t f = static_cast<size_t>(filter) * bins;
        const size_t r = static_cast<size_t>(ring) * bins;
        mac({a.data(), 0.9f, b.data(), 1.1f, left.data() + f, right.data() + f},
            {out[0].data() + r, out[1].data() + r, out[2].data() + r, out[3].data() + r}, bins);
        benchmark::ClobberMemory();
        filter = filter + 1 == filters ? 0 : filter + 1;
        ring = ring + 1 == rings ? 0 : ring + 1;
    }
    for (auto& o : out) benchmark::DoNotOptimize(o.data());
    using counter = benchmark::Counter;
    state.counters["MAC/s"] =
        counter(static_cast<double>(bins * products_per_bin * real_per_complex),
                counter::kIsIterationInvariantRate);
    // Filter bytes read per second (both ears), the term that grows with the room.
    state.SetBytesProcessed(state.iterations() * 2 * bins *
                            static_cast<int64_t>(sizeof(std::complex<float>)));
}
BENCHMARK(BM_SpectralPairMac)
    ->ArgNames({"avx2", "filters", "rings", "offset"})
    ->Args({0, 1, 1, 16})
    ->Args({1, 1, 1, 16})
    ->Args({1, 1, 1, 0})
    ->Args({1, 1, 16, 16})
    ->Args({1, 4096, 1, 16})
    ->Args({1, 4096, 16, 16})
    ->Args({1, 4096, 16, 0});

// The spatial filter bank alone, as initialisation builds it: every grid
// point's responses (the modelled room included), cut and transformed.
void BM_SpatialFilterBankBuild(benchmark::State& state) {
    const processing_sizes sizes = sizes_for(static_cast<int32_t>(state.range(0)));
    for (auto _ : state) {
        spatial_filter_bank bank(measured_hrtf_set::compiled_in(), sizes.spatial_filter_length,
                                 sizes.processing_block, sizes.transform_size);
        benchmark::DoNotOptimize(bank.left(0));
    }
}
BENCHMARK(BM_SpatialFilterBankBuild)
    ->ArgName("quality")
    ->Arg(1)
    ->Arg(5)
    ->Unit(benchmark::kMillisecond);

// qel_initialize_library and qel_destroy_library with the built-in layout:
// what a host waits for at start-up, filter banks included.
void BM_LibraryInitialise(benchmark::State& state) {
    qel_set_log_level(QEL_LOG_WARNING);
    const qel_library_configuration configuration{48000, block_frames, stereo, true,
                                                  static_cast<int32_t>(state.range(0))};
    for (auto _ : state) {
        int error = QEL_ERROR_NONE;
        qel_handle handle = qel_initialize_library(nullptr, nullptr, configuration, &error);
        if (handle == nullptr) {
            state.SkipWithError(qel_error_code_to_string(error));
            return;
        }
        qel_destroy_library(handle);
    }
}
BENCHMARK(BM_LibraryInitialise)
    ->ArgName("quality")
    ->Arg(1)
    ->Arg(5)
    ->Unit(benchmark::kMillisecond);

} // namespace
