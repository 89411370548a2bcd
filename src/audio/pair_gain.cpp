#include "audio/pair_gain.h"

namespace quelora {

float pair_gain(const pair_rooms& source, const pair_rooms& listener, bool listener_is_source_only) {
    if (listener_is_source_only) return 0.0f;
    if (source.whisper_room != 0) return listener.whisper_room == source.whisper_room ? 1.0f : 0.0f;
    if (source.sidebar_room != 0) return listener.sidebar_room == source.sidebar_room ? 1.0f : 0.0f;
    // The source is in the main room.
    if (listener.sidebar_room != 0) return 0.0f;
    if (listener.whisper_room != 0) return whisper_listener_main_room_gain;
    return 1.0f;
}

} // namespace quelora
