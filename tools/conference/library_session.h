// The library side of a run: one library handle, one room, its participants
// and their controls, set up through the public C interface only.
#pragma once

#include "options.h"
#include "talkers.h"

#include <quelora/quelora.h>

#include <cstdint>
#include <string>
#include <vector>

namespace quelora::conference {

struct participant_entry {
    uint32_t id = 0;
    std::string name;
    int input_channels = 1;
    int talker_index = -1; // index into the talkers; -1 for a listener-only participant
};

// What went wrong and the exit status it calls for: 2 when the library
// refused a value the user gave (--layout, --set), else 1.
struct session_error {
    int exit_status = 1;
    std::string message;
};

class library_session {
public:
    static constexpr uint32_t room_id = 1;

    library_session() = default;
    ~library_session();
    library_session(const library_session&) = delete;
    library_session& operator=(const library_session&) = delete;

    // Initialises the library, creates the room, switches its layout, adds
    // one regular participant per talker (ids 1..N) and the listener-only
    // ones after them, places everyone in an open room, sets 3D mixing and
    // reverb for everyone (both on unless --no-3d, --no-reverb), then
    // applies --set and --set-for in order.
    bool open(const options& opts, const std::vector<talker>& talkers, session_error& error);

    qel_handle handle() const { return handle_; }
    const qel_library_configuration& configuration() const { return configuration_; }
    const std::vector<participant_entry>& participants() const { return participants_; }
    int layout_id() const { return layout_id_; }
    bool open_room() const { return open_room_; }

private:
    bool place_in_circle(session_error& error);
    bool apply_spatial_defaults(const options& opts, session_error& error);
    bool apply_settings(const std::vector<control_setting>& settings, session_error& error);

    qel_handle handle_ = nullptr;
    qel_library_configuration configuration_{};
    std::vector<participant_entry> participants_;
    int layout_id_ = -1;
    bool open_room_ = false;
};

// "qel_x failed: QEL_ERROR_NAME (-9990); ...", or an empty string for success.
std::string describe_failure(const char* call, int code);

} // namespace quelora::conference
