// quelora_micro_bench, part 2: the input and output chains on their own (no
// locks, no lookup) and whole audio calls through the C interface (lookup,
// locks, chain, submission to every listener), so the difference is the cost of
// the call around the chain.
#include "micro_bench_common.h"

#include "audio/input_chain.h"
#include "audio/listener_engine.h"
#include "audio/output_chain.h"
#include "bench_signal.h"

#include <quelora/quelora.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

using namespace quelora;
using bench::block_frames;
using bench::set_block_counters;

// Mono input chain with default controls (no processing stage enabled):
// conversion plus, at 16000 Hz, the input resampler.
void BM_InputChain(benchmark::State& state) {
    const auto rate = static_cast<int32_t>(state.range(0));
    const int32_t input_frames = rate / 100;
    input_chain chain(rate, 1, input_frames, block_frames, true, input_stage_set{});
    const std::vector<float> block = bench::talker_block(0, rate, input_frames);
    const control_values controls;
    for (auto _ : state) {
        chain.process(block.data(), sample_type::float32, controls);
        benchmark::DoNotOptimize(chain.work_buffer());
        benchmark::ClobberMemory();
    }
    set_block_counters(state, input_frames);
}
BENCHMARK(BM_InputChain)->ArgName("in_rate")->Arg(48000)->Arg(16000);

// One listener's output side at 48000 Hz stereo interleaved float: the
// sources' submissions plus mix, limiter, master gain and conversion.
void BM_OutputChain(benchmark::State& state) {
    const auto sources = static_cast<int32_t>(state.range(0));
    bench::listener_with_talkers room(sources);
    output_chain chain(block_frames, 48000, block_frames, 2, true);
    const control_values controls;
    std::vector<float> host(2 * block_frames);
    for (auto _ : state) {
        room.submit_all();
        benchmark::DoNotOptimize(
            chain.process(room.engine, controls, sample_type::float32, host.data()));
        benchmark::ClobberMemory();
    }
    set_block_counters(state, 2 * block_frames);
}
BENCHMARK(BM_OutputChain)->ArgName("sources")->Arg(3)->Arg(15);

// A library with one room of regular mono talkers at `input_rate`, output
// 48000 Hz, 480 frames, stereo, interleaved.
class api_room {
public:
    api_room(int32_t participants, int32_t input_rate) : input_frames_(input_rate / 100) {
        qel_set_log_level(QEL_LOG_WARNING);
        const qel_library_configuration configuration{48000, block_frames, 2, true, 3};
        int error = QEL_ERROR_NONE;
        handle_ = qel_initialize_library_from_memory(nullptr, nullptr, configuration, &error);
        require(handle_ != nullptr ? QEL_ERROR_NONE : error, "qel_initialize_library_from_memory");
        require(qel_create_room(handle_, room), "qel_create_room");
        for (int32_t p = 0; p < participants; ++p) {
            const qel_participant_configuration talker{input_rate, 1, QEL_PARTICIPANT_REGULAR};
            require(qel_add_participant(handle_, room, id(p), "talker", talker),
                    "qel_add_participant");
            blocks_.push_back(bench::talker_block(p, input_rate, input_frames_));
        }
        output_.resize(2 * block_frames);
    }
    ~api_room() { qel_destroy_library(handle_); }
    api_room(const api_room&) = delete;
    api_room& operator=(const api_room&) = delete;

    int32_t participants() const { return static_cast<int32_t>(blocks_.size()); }
    int input(int32_t p) {
        return qel_input_audio_float(handle_, room, id(p), blocks_[p].data(), input_frames_);
    }
    int output(int32_t p) { return qel_output_audio_float(handle_, room, id(p), output_.data()); }

private:
    static constexpr uint32_t room = 1;
    static uint32_t id(int32_t p) { return static_cast<uint32_t>(p + 1); }
    static void require(int code, const char* what) {
        if (code == QEL_ERROR_NONE) return;
        std::fprintf(stderr, "quelora_micro_bench: %s failed: %s\n", what,
                     qel_error_code_to_string(code));
        std::exit(1);
    }

    int32_t input_frames_;
    qel_handle handle_ = nullptr;
    std::vector<std::vector<float>> blocks_;
    std::vector<float> output_;
};

using clock_type = std::chrono::steady_clock;

double seconds(clock_type::time_point a, clock_type::time_point b) {
    return std::chrono::duration<double>(b - a).count();
}

// One qel_output_audio_float after every other participant's input call.
// Every participant is a regular talker, so all queues stay one block deep:
// each iteration runs one period's input calls untimed, then every output
// call timed; the reported time is the mean of one output call.
void BM_ApiOutputCall(benchmark::State& state) {
    api_room conference(static_cast<int32_t>(state.range(0)), 48000);
    const int32_t n = conference.participants();
    int failures = 0;
    for (auto _ : state) {
        for (int32_t p = 0; p < n; ++p) failures += conference.input(p) != QEL_ERROR_NONE;
        const auto start = clock_type::now();
        for (int32_t p = 0; p < n; ++p) failures += conference.output(p) != QEL_ERROR_NONE;
        state.SetIterationTime(seconds(start, clock_type::now()) / n);
    }
    if (failures != 0) state.SkipWithError("an audio call failed");
    set_block_counters(state, 2 * block_frames);
}
BENCHMARK(BM_ApiOutputCall)->ArgName("participants")->Arg(4)->Arg(16)->UseManualTime();

// One qel_input_audio_float (conversion, resampler at 16000 Hz, submission
// to the other participants); the output calls that drain the queues run
// untimed. The reported time is the mean of one input call.
void BM_ApiInputCall(benchmark::State& state) {
    const auto rate = static_cast<int32_t>(state.range(1));
    api_room conference(static_cast<int32_t>(state.range(0)), rate);
    const int32_t n = conference.participants();
    int failures = 0;
    for (auto _ : state) {
        const auto start = clock_type::now();
        for (int32_t p = 0; p < n; ++p) failures += conference.input(p) != QEL_ERROR_NONE;
        state.SetIterationTime(seconds(start, clock_type::now()) / n);
        for (int32_t p = 0; p < n; ++p) failures += conference.output(p) != QEL_ERROR_NONE;
    }
    if (failures != 0) state.SkipWithError("an audio call failed");
    set_block_counters(state, rate / 100);
}
BENCHMARK(BM_ApiInputCall)
    ->ArgNames({"participants", "in_rate"})
    ->Args({4, 48000})
    ->Args({4, 16000})
    ->UseManualTime();

} // namespace
