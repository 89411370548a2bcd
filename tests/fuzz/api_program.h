// Programs of C-API calls decoded from bytes and run on one library handle, checked after every
// call (api_program.cpp). The API fuzzer feeds one libFuzzer's bytes; stress runs many at once.
#pragma once
#include <quelora/quelora.h>

#include <array>
#include <atomic>
#include <map>
#include <optional>
#include <span>
#include <string>

namespace quelora::testing {

// clang-format off
enum class api_op : uint8_t {
    create_room, destroy_room, set_layout, query_room,
    add, remove, set_name, set_seat, set_position, set_state, set_all_states, flush,
    input_audio, output_audio, count
};
// clang-format on

// With several programs, room slots 0-3 name these rooms (created first, never destroyed), where
// each program owns the participant ids equal to its index modulo the number of programs; slots 4-7
// name its own rooms.
inline constexpr uint32_t api_shared_rooms[] = {100, 101};

struct api_world {
    qel_handle handle;
    qel_library_configuration configuration;
    std::optional<int32_t> default_layout; // a new room's
    int programs = 1;
    int tables = 0;                         // callback tables registered
    std::atomic<bool> shared_bypass{false}; // stereo bypass may be on in a shared room
    std::atomic<long> heard{0};             // outputs with sound
};

void register_api_events(api_world& world); // a checking table; before other threads use the handle

struct api_program {
    struct participant {
        std::string name;
        qel_participant_configuration configuration;
    };
    struct room {
        std::map<uint32_t, participant> members;
        std::optional<int32_t> layout;
        bool shared, bypass;
    };
    // Steps of 8 bytes, the last zero-padded: opcode (indexes `ops`, or every kind), room,
    // participant, arguments.
    void run(std::span<const uint8_t> bytes, std::span<const api_op> ops = {});
    bool check(int code, std::initializer_list<int> documented, std::optional<bool> succeeds);
    bool event(bool ok, size_t slot, std::array<int64_t, 4> values, const std::string& name = "");
    void step(const uint8_t* s, api_op op);

    api_world& world;
    int index;
    std::map<uint32_t, room> rooms{}; // the shared rooms and the program's own; members: its own
};

} // namespace quelora::testing
