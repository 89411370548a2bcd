// What the control tests share: their room layouts, a callback table that
// writes each callback into the log, and a library with room 1 created.
#pragma once

#include "support/library_fixture.h"
#include "support/log_expect.h"

#include <array>

namespace quelora::testing {

// 10 (the default): closed, seats at radius 100, no stacking. 20: radius 300, stacking, master
// gain 50. 30: open. 40: one seat, auto EQ on. 50: like 10 with four default states, keys in mixed
// case. 60: open, muted. 70: one seat, master gain 500 (out of range).
inline std::string control_layouts_json() {
    return R"({"default": "a", "room_list": {)" + layout_json("a", 10, false, false, 100) + ", " +
           layout_json("b", 20, false, true, 300, R"({"QEL_CONTROL_MASTER_GAIN": 50})") + ", " +
           layout_json("c", 30, true, true, 0) + ", " +
           layout_json("d", 40, false, true, 0, R"({"QEL_CONTROL_AUTO_EQ_ENABLE": 1})") + ", " +
           layout_json(
               "e", 50, false, false, 100,
               R"({"QEL_CONTROL_MUTE_ENABLE": 1, "qel_control_mixing_3d_attenuation": 12,)"
               R"( "Qel_Control_Mixing_3d_Enable": true, "QEL_CONTROL_HALF_SPAN_ANGLE": 30.7})") +
           ", " + layout_json("f", 60, true, true, 0, R"({"QEL_CONTROL_MUTE_ENABLE": 1})") + ", " +
           layout_json("g", 70, false, true, 0, R"({"QEL_CONTROL_MASTER_GAIN": 500})") + "}}";
}

// A callback table whose slots log "<Table> <slot> <arguments>" at VERBOSE: expected lines then
// show each callback, its arguments and its place among the operation's lines (none if it failed).
template <int Table> struct event_slots {
    template <typename... T> static void put(const T&... parts) {
        std::ostringstream text;
        text << Table;
        ((text << ' ' << parts), ...);
        qel_logger::get_logger().log(QEL_LOG_VERBOSE, "%s", text.str().c_str());
    }
    static qel_event_manager_t table() {
        return {[](int32_t r) { put("create_room", r); },
                [](int32_t r) { put("destroy_room", r); },
                [](int32_t r, int32_t p, const char* name, const qel_participant_configuration* c) {
                    put("add_participant", r, p, name, c->input_sampling_rate,
                        c->input_number_channels, c->participant_type);
                },
                [](int32_t r, int32_t p) { put("remove_participant", r, p); },
                [](int32_t r, int32_t p, const qel_seat* s) {
                    put("move_participant", r, p, "seat", s->seat_index, "at", s->x, s->y, s->z,
                        "facing", s->azimuth, s->elevation);
                },
                [](int32_t r, int32_t p, const qel_position* q, qel_heading h) {
                    put("set_participant_position", r, p, "at", q->x, q->y, q->z, "facing",
                        h.azimuth, h.elevation);
                },
                [](int32_t r, int32_t p, qel_audio_control c, int32_t v) {
                    put("set_participant_state", r, p, +c, v);
                },
                [](int32_t r, qel_audio_control c, int32_t v) {
                    put("set_all_participants_state", r, +c, v);
                },
                [](int32_t r, int32_t l) { put("set_room_layout", r, l); },
                [](int32_t r, int32_t p, const char* name) { put("set_name", r, p, name); }};
    }
};
inline log_line event(const std::string& text, int table = 1) {
    return {QEL_LOG_VERBOSE, std::to_string(table) + " " + text};
}

using place_record = std::array<int32_t, 6>; // seat index, x, y, z, azimuth, elevation
using heard_record = std::array<int32_t, 3>; // azimuth, elevation, distance

// A library on control_layouts_json(), table 1 registered, room 1 in `layout`; joins clear the log.
struct conference {
    log_capture log;
    qel_event_manager_t events = event_slots<1>::table();
    library_handle library;

    explicit conference(int32_t layout = 10, qel_library_configuration c = default_configuration())
        : library(write_temp_file("layouts.json", control_layouts_json()).c_str(), c) {
        EXPECT_EQ(qel_add_event_manager(library, &events) + qel_create_room(library, 1) +
                      qel_set_room_layout(library, 1, layout),
                  3 * QEL_ERROR_NONE);
        log.clear();
    }
    void join(uint32_t participant, qel_participant_configuration c = regular(),
              uint32_t room = 1) {
        EXPECT_EQ(qel_add_participant(library, room, participant, "someone", c), QEL_ERROR_NONE)
            << participant;
        log.clear();
    }
    place_record place(uint32_t participant, uint32_t room = 1) const {
        qel_seat s{-7, -7, -7, -7, -7, -7};
        EXPECT_EQ(qel_get_participant_seat(library, room, participant, &s), QEL_ERROR_NONE)
            << participant;
        return {s.seat_index, s.x, s.y, s.z, s.azimuth, s.elevation};
    }
    heard_record heard(uint32_t listener, uint32_t source, uint32_t room = 1) const {
        heard_record h{-7, -7, -7};
        EXPECT_EQ(
            qel_get_participant_spherical(library, room, listener, source, &h[0], &h[1], &h[2]),
            QEL_ERROR_NONE);
        return h;
    }
    int state(uint32_t participant, int control, uint32_t room = 1) const {
        int value = -7;
        EXPECT_EQ(qel_get_participant_state(library, room, participant, qel_audio_control(control),
                                            &value),
                  QEL_ERROR_NONE);
        return value;
    }
};

inline log_line joined(int participant, int room = 1) {
    return info("A new participant with id " + std::to_string(participant) +
                " has been added to room " + std::to_string(room));
}
inline log_line room_missing(int room) {
    return warning("Room " + std::to_string(room) + " does not exist.");
}
inline log_line not_in_room(int participant) {
    return warning("The participant id " + std::to_string(participant) + " is not in room 1");
}
inline log_line auto_eq_refused(int participant) {
    return warning("The Auto EQ effect is only available for 48 kHz inputs currently. It will not "
                   "be enabled for participant " +
                   std::to_string(participant));
}

} // namespace quelora::testing
