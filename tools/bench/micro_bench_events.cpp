// quelora_micro_bench (make bench): what one websocket event costs the host
// thread that made the change: building its JSON text. The rest (the queue
// append under a mutex, the sending) happens on the transport's I/O thread or
// is a few instructions.
#include "micro_bench_common.h"

#include "events/event_messages.h"

namespace {

void BM_EventMessageSetParticipantState(benchmark::State& state) {
    int32_t value = 0;
    for (auto _ : state) {
        std::string text = quelora::events::set_participant_state_message(
            7, 1001, QEL_CONTROL_MASTER_GAIN, value);
        benchmark::DoNotOptimize(text.data());
        value = (value + 1) % 101;
    }
}
BENCHMARK(BM_EventMessageSetParticipantState);

void BM_EventMessageAddParticipant(benchmark::State& state) {
    const qel_participant_configuration configuration{48000, 1, QEL_PARTICIPANT_REGULAR};
    quelora::participant_snapshot snapshot;
    snapshot.seat = {3, 100, 0, -50, 90, 0};
    for (size_t i = 0; i < snapshot.controls.size(); ++i) snapshot.controls[i] = static_cast<int32_t>(i);
    for (auto _ : state) {
        std::string text = quelora::events::add_participant_message(7, 1001, "Ada Lovelace",
                                                                    configuration, snapshot);
        benchmark::DoNotOptimize(text.data());
    }
}
BENCHMARK(BM_EventMessageAddParticipant);

} // namespace
