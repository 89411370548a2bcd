// Helpers for tests that drive the library through its C interface.
#pragma once

#include <quelora/quelora.h>

#include <string>

namespace quelora::testing {

inline qel_library_configuration default_configuration() {
    return qel_library_configuration{48000, 480, 2, false, 3};
}

inline qel_participant_configuration regular(int32_t rate = 48000, int32_t channels = 1) {
    return qel_participant_configuration{rate, channels, QEL_PARTICIPANT_REGULAR};
}

// Writes text to a fresh file under the test temp directory; returns its path.
std::string write_temp_file(const std::string& name, const std::string& text);

// Owns a library handle for one test.
class library_handle {
public:
    // Null layout_file: the built-in fallback layout (an open room).
    explicit library_handle(const char* layout_file = nullptr,
                            qel_library_configuration configuration = default_configuration());
    // Builds a library from layout JSON text written to a temp file.
    static library_handle from_layout_text(const std::string& json_text,
                                           qel_library_configuration configuration = default_configuration());
    ~library_handle();
    library_handle(library_handle&& other) noexcept;
    library_handle(const library_handle&) = delete;
    library_handle& operator=(const library_handle&) = delete;
    library_handle& operator=(library_handle&&) = delete;

    qel_handle get() const { return handle_; }
    operator qel_handle() const { return handle_; }
    int init_error() const { return error_; }

private:
    qel_handle handle_ = nullptr;
    int error_ = 0;
};

// Queries that must succeed (a failure is reported as a test failure); the
// returned value is a sentinel then.
int room_count(qel_handle handle);
int participant_count(qel_handle handle, uint32_t room);
int state_of(qel_handle handle, uint32_t room, uint32_t participant, qel_audio_control control);
qel_seat seat_of(qel_handle handle, uint32_t room, uint32_t participant);

// A closed layout with four seats on a circle of radius 100 around the
// origin, ids 10 (no stacking, stackDelta 50) and 20 (stacking allowed),
// plus an open layout with id 30; default "closed".
std::string four_seat_layouts_json();

} // namespace quelora::testing
