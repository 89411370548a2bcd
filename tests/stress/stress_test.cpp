// Several programs of random C-API calls (fuzz/api_program.h) on one handle at once, each on a
// thread of its own: in the shared rooms each talks, listens, moves and sets the controls of its
// own participants while the others switch the layout, set everyone's states and come and go; in
// their own rooms they create, fill and destroy rooms. `make tsan` runs this under ThreadSanitizer.
#include "fuzz/api_program.h"
#include "support/library_fixture.h"

#include <gtest/gtest.h>

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

} // namespace
