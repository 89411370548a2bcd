// The pair gain: how loud a source is in one listener's queue, from the whisper
// and sidebar rooms of both.
#pragma once

#include <cstdint>

namespace quelora {

struct pair_rooms {
    int32_t whisper_room = 0; // QEL_CONTROL_WHISPER_ROOM, 0: none
    int32_t sidebar_room = 0; // QEL_CONTROL_SIDEBAR_ROOM, 0: none
};

// Main-room speakers reach a whisper-room listener at a quarter of their
// amplitude, deliberately: the main room stays audible behind the whisper.
inline constexpr float whisper_listener_main_room_gain = 0.25f;

float pair_gain(const pair_rooms& source, const pair_rooms& listener, bool listener_is_source_only);

} // namespace quelora
