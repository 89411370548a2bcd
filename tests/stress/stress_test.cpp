// Several programs of random C-API calls (fuzz/api_program.h) on one handle at once, each on a
// thread of its own: in the shared rooms each talks, listens, moves and sets the controls of its
// own participants while the others switch the layout, set everyone's states and come and go; in
// their own rooms they create, fill and destroy rooms. `make tsan` runs this under ThreadSanitizer.
#include "fuzz/api_program.h"
#include "support/library_fixture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <random>
#include <thread>
#include <vector>

namespace {

namespace qt = quelora::testing;
using enum qt::api_op;

void run_programs(int n, size_t steps, std::span<const qt::api_op> ops) {
    const qel_library_configuration configuration{48000, 480, 2, true, 3};
    qt::library_handle lib(QUELORA_TEST_SOURCE_DIR "/fuzz/corpus/room_layout/conference.json",
                           configuration);
    qt::api_world world{lib, configuration, 10, n};
    qt::register_api_events(world);
    for (const uint32_t r : qt::api_shared_rooms)
        ASSERT_EQ(qel_create_room(lib, r), QEL_ERROR_NONE);
    std::vector<qt::api_program> programs;
    std::vector<std::thread> threads;
    for (int i = 0; i < n; ++i) programs.push_back({world, i});
    for (qt::api_program& program : programs) {
        threads.emplace_back([&program, ops, steps] {
            std::mt19937 random(static_cast<unsigned>(program.index));
            std::vector<uint8_t> bytes(steps * 8);
            for (uint8_t& b : bytes) b = static_cast<uint8_t>(random());
            program.run(bytes, ops);
        });
    }
    for (std::thread& thread : threads) thread.join();
    int rooms = 2, members = 0; // the rooms and members add up across the programs
    for (const qt::api_program& program : programs) {
        for (const auto& [r, room] : program.rooms) {
            rooms += !room.shared;
            members += room.shared ? static_cast<int>(room.members.size()) : 0;
        }
    }
    EXPECT_EQ(qt::room_count(lib), rooms);
    const auto [first, second] = qt::api_shared_rooms;
    EXPECT_EQ(qt::participant_count(lib, first) + qt::participant_count(lib, second), members);
    EXPECT_GT(world.heard.load(), 0); // the programs did reach rooms where talkers are heard
}

TEST(ConferenceStress, ProgramsOfEveryCallOnOneHandleKeepTheHostsInvariants) {
    run_programs(8, 20000, {});
}

// Mostly audio, with enough churn that talkers come and go and layouts switch under them.
constexpr qt::api_op mostly_audio[] = {
    input_audio,  input_audio,    input_audio, input_audio, output_audio, output_audio,
    output_audio, output_audio,   create_room, add,         add,          remove,
    set_state,    set_all_states, set_layout,  flush,       set_seat,     set_position};
TEST(AudioStress, TalkersAndListenersBesideMembershipLayoutAndControlChurn) {
    run_programs(6, 12000, mostly_audio);
}

// Talkers with every input stage on, each fed and heard on its own thread, while another thread
// switches the canceller path (ANC high on and off, which restarts the DFN canceller), AGC, auto
// EQ and the mix under them: the stages' state is only touched under each talker's input mutex.
TEST(AudioStress, TalkersWithEveryInputStageWhileTheirControlsChange) {
    qt::library_handle lib(nullptr, qt::default_configuration());
    ASSERT_EQ(qel_create_room(lib, 1), QEL_ERROR_NONE);
    constexpr uint32_t talkers = 4;
    for (uint32_t id = 0; id < talkers; ++id) {
        ASSERT_EQ(qel_add_participant(lib, 1, id, "t", qt::regular(48000, 1 + id % 2)),
                  QEL_ERROR_NONE);
        for (const auto control :
             {QEL_CONTROL_ANC_ENABLE, QEL_CONTROL_AGC_ENABLE, QEL_CONTROL_AUTO_EQ_ENABLE})
            ASSERT_EQ(qel_set_participant_state(lib, 1, id, control, 1), QEL_ERROR_NONE);
        ASSERT_EQ(qel_set_participant_state(lib, 1, id, QEL_CONTROL_ANC_HIGH, id % 2),
                  QEL_ERROR_NONE);
    }
    std::atomic<int> failures = 0;
    std::vector<std::thread> threads;
    for (uint32_t id = 0; id < talkers; ++id) {
        threads.emplace_back([&, id] {
            std::vector<float> in(960), out(960);
            for (int block = 0; block < 300; ++block) {
                for (size_t i = 0; i < in.size(); ++i)
                    in[i] = 0.2f * std::sin(0.05f * float(block * 480 + int(i) + int(id) * 7));
                failures += qel_input_audio_float(lib, 1, id, in.data(), 480) != QEL_ERROR_NONE;
                const int heard = qel_output_audio_float(lib, 1, id, out.data());
                failures += heard != QEL_ERROR_NONE && heard != QEL_ERROR_NO_INPUT_AUDIO;
            }
        });
    }
    threads.emplace_back([&] {
        std::mt19937 random(3);
        const qel_audio_control controls[] = {QEL_CONTROL_ANC_HIGH, QEL_CONTROL_ANC_ENABLE,
                                              QEL_CONTROL_AGC_ENABLE, QEL_CONTROL_AUTO_EQ_ENABLE};
        for (int change = 0; change < 400; ++change) {
            const auto id = static_cast<uint32_t>(random() % talkers);
            const qel_audio_control control = controls[random() % std::size(controls)];
            failures +=
                qel_set_participant_state(lib, 1, id, control,
                                          static_cast<int32_t>(random() % 2)) != QEL_ERROR_NONE;
            failures += qel_set_all_participants_state(lib, 1, QEL_CONTROL_ANC_MIX,
                                                       static_cast<int32_t>(random() % 101)) !=
                        QEL_ERROR_NONE;
        }
    });
    for (std::thread& thread : threads) thread.join();
    EXPECT_EQ(failures.load(), 0);
}

} // namespace
