// Helpers for tests that drive the library through its C interface.
#pragma once

#include <quelora/quelora.h>

#include <sstream>
#include <string>

namespace quelora::testing {

inline qel_library_configuration default_configuration() { return {48000, 480, 2, false, 3}; }

inline qel_participant_configuration regular(int32_t rate = 48000, int32_t channels = 1) {
    return {rate, channels, QEL_PARTICIPANT_REGULAR};
}

// Writes text to a fresh file under the test temp directory; returns its path.
std::string write_temp_file(const std::string& name, const std::string& text);

// Owns a library handle for one test.
class library_handle {
public:
    // Null layout_file: the built-in fallback layout (an open room).
    explicit library_handle(const char* layout_file = nullptr,
                            qel_library_configuration configuration = default_configuration());
    ~library_handle();
    library_handle(const library_handle&) = delete;
    library_handle& operator=(const library_handle&) = delete;

    qel_handle get() const { return handle_; }
    operator qel_handle() const { return handle_; }
    int init_error() const { return error_; }

private:
    qel_handle handle_ = nullptr;
    int error_ = 0;
};

// Queries that must succeed (a failure is a test failure, and the value a sentinel then).
int room_count(qel_handle handle);
int participant_count(qel_handle handle, uint32_t room);

// One "room_list" member: four seats on a circle of `radius` around the
// origin, or one seat at the origin when radius is 0; stackDelta 50.
inline std::string layout_json(const char* key, int id, bool open, bool stacking, int radius,
                               const char* default_states = "{}") {
    std::ostringstream out;
    out << std::boolalpha << '"' << key << R"(": {"id": )" << id << R"(, "desc": "", "openRoom": )"
        << open << R"(, "allowParticipantStacking": )" << stacking
        << R"(, "stackDelta": 50, "centerPoint": {"x": 0, "y": 0, "z": 0})"
        << R"(, "defaultStates": )" << default_states << R"(, "seats": [)";
    for (const auto& [x, z] : {std::pair{0, 1}, {1, 0}, {0, -1}, {-1, 0}}) {
        out << (x + z == 1 && x == 0 ? "" : ", ") << R"({"x": )" << x * radius
            << R"(, "y": 0, "z": )" << z * radius << "}";
        if (radius == 0) break;
    }
    out << "]}";
    return out.str();
}

// Layouts 10 (default; closed, radius 100, no stacking), 20 (the same with stacking) and 30 (open).
inline std::string four_seat_layouts_json() {
    return R"({"default": "closed", "room_list": {)" +
           layout_json("closed", 10, false, false, 100) + ", " +
           layout_json("stacking", 20, false, true, 100) + ", " +
           layout_json("open", 30, true, true, 0) + "}}";
}

} // namespace quelora::testing
