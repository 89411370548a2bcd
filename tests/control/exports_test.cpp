// The library's C surface: every export's answer to a bad argument, the error codes, initialisation
// with each output format and room layout file, and the logger's default line.
#include "conference_fixture.h"

#include <functional>
#include <regex>

using namespace quelora::testing;

TEST(ErrorCodes, EveryCodeHasItsNameAndOthersNameNone) {
    // clang-format off
    const std::pair<int, const char*> names[] = {
        {-10000, "NONE"}, {0, "NONE"}, {-9999, "HANDLE_NULL"}, {-9998, "DATA_NULL"},
        {-9997, "DATA_LENGTH"}, {-9996, "NUM_CHANNELS"}, {-9995, "SAMPLE_RATE"},
        {-9994, "SPATIAL_QUALITY"}, {-9993, "INVALID_ROOM_ID"}, {-9992, "INVALID_PARTICIPANT_ID"},
        {-9991, "INVALID_CONTROL"}, {-9990, "INVALID_VALUE"}, {-9989, "INVALID_HEADING"},
        {-9988, "NONE"}, {-9987, "NO_INPUT_AUDIO"}, {-9986, "PARTICIPANT_TYPE"},
        {-9985, "LIBRARY_NOT_YET_INITIALIZED"}, {-9984, "NONE"}, {-9980, "NONE"}, {-10001, "NONE"}};
    // clang-format on
    for (const auto& [code, name] : names)
        EXPECT_EQ(qel_error_code_to_string(code), "QEL_ERROR_" + std::string(name));
}

namespace {

// What one row's call gets: the handle, room and participant to name, whether its pointer is null.
struct arguments {
    qel_handle h;
    uint32_t r, p;
    bool null = false;
};
template <typename T> T* ptr(const arguments& x, T* p) { return x.null ? nullptr : p; }
enum names : unsigned { handle_only = 0, room = 1, participant = 3 };
struct export_row {
    std::string call_text;
    unsigned names; // what the call names besides the handle
    std::function<int(const arguments&)> call;
    std::vector<log_line> null_lines = {}; // when set: the null-pointer case
};
log_line null_output(const std::string& pointer, const std::string& call_text) {
    const std::string function = call_text.substr(0, call_text.find('('));
    return error("Your " + pointer + " pointer is null. Please initialize " + pointer +
                 " before passing to " + function + ".");
}
// clang-format off
#define ROW(names, call, ...) {#call, names, [&](const arguments& x) { return call; }, __VA_ARGS__}
// clang-format on
#define OUT(names, call, pointer) ROW(names, call, {null_output(pointer, #call)})
const log_line null_handle =
    error("Your qel_handle is null. Please use qel_initialize_library to get a valid handle.");

} // namespace

// Each export with a null handle, a room that does not exist, a participant not in the room and a
// null pointer, as far as it takes them: its code and exact line, no callback (table 1 would log
// it), no change.
TEST(ExportArguments, BadArgumentsGiveTheirCodeAndLineAndChangeNothing) {
    conference f(30);
    f.join(1);
    f.join(2);
    int i = 0;
    int32_t a = 0, e = 0, d = 0;
    char name[16] = {};
    qel_participant_configuration c{};
    qel_position position{};
    qel_heading heading{};
    qel_seat seat{};
    int16_t s16[960] = {};
    float f32[960] = {};
    double f64[960] = {};
    const log_line no_input = warning("input buffer not initialized");
    const log_line no_output = warning("your output buffer is not initialized");
    const export_row rows[] =
    { ROW(room, qel_destroy_room(x.h, x.r)),
      OUT(handle_only, qel_get_room_count(x.h, ptr(x, &i)), "room_count"),
      ROW(room, qel_set_room_layout(x.h, x.r, 30)),
      OUT(room, qel_get_room_layout(x.h, x.r, ptr(x, &i)), "layout_id"),
      ROW(room, qel_add_participant(x.h, x.r, 3, "n", regular())),
      ROW(participant, qel_remove_participant(x.h, x.r, x.p)),
      ROW(room, qel_get_participant_count(x.h, x.r, ptr(x, &i)),
          {error("Your participant_count variable was NULL")}),
      ROW(participant, qel_get_participant_configuration(x.h, x.r, x.p, ptr(x, &c)),
          {error("Your config variable was NULL")}),
      ROW(participant, qel_set_participant_name(x.h, x.r, x.p, "n")),
      ROW(participant, qel_get_participant_name(x.h, x.r, x.p, ptr(x, name), 15),
          {error("Your value point is null. Please initialize the char array before passing to "
                 "qel_get_participant_name.")}),
      ROW(participant, qel_set_participant_position(x.h, x.r, x.p, position, heading)),
      OUT(participant, qel_get_participant_position(x.h, x.r, x.p, ptr(x, &position), &heading),
          "position"),
      OUT(participant, qel_get_participant_position(x.h, x.r, x.p, &position, ptr(x, &heading)),
          "heading"),
      ROW(participant, qel_set_participant_seat(x.h, x.r, x.p, 2)),
      OUT(participant, qel_get_participant_seat(x.h, x.r, x.p, ptr(x, &seat)), "seat"),
      OUT(participant, qel_get_participant_spherical(x.h, x.r, x.p, 2, ptr(x, &a), &e, &d),
          "azimuth"),
      OUT(participant, qel_get_participant_spherical(x.h, x.r, 2, x.p, &a, ptr(x, &e), &d),
          "elevation"),
      OUT(handle_only, qel_get_participant_spherical(x.h, 1, 1, 2, &a, &e, ptr(x, &d)), "distance"),
      ROW(participant, qel_set_participant_state(x.h, x.r, x.p, QEL_CONTROL_MUTE_ENABLE, 1)),
      OUT(participant,
          qel_get_participant_state(x.h, x.r, x.p, QEL_CONTROL_MUTE_ENABLE, ptr(x, &i)), "value"),
      ROW(room, qel_set_all_participants_state(x.h, x.r, QEL_CONTROL_MUTE_ENABLE, 1)),
      ROW(participant, qel_flush_data(x.h, x.r, x.p)),
      ROW(participant, qel_input_audio_short(x.h, x.r, x.p, ptr(x, s16), 480), {no_input}),
      ROW(participant, qel_input_audio_float(x.h, x.r, x.p, ptr(x, f32), 480), {no_input}),
      ROW(participant, qel_input_audio_double(x.h, x.r, x.p, ptr(x, f64), 480), {no_input}),
      ROW(participant, qel_output_audio_short(x.h, x.r, x.p, ptr(x, s16)), {no_output}),
      ROW(participant, qel_output_audio_float(x.h, x.r, x.p, ptr(x, f32)), {no_output}),
      ROW(participant, qel_output_audio_double(x.h, x.r, x.p, ptr(x, f64)), {no_output}),
      ROW(handle_only, qel_add_event_manager(x.h, ptr(x, &f.events)),
          {error("The event manager provided was NULL")}),
      ROW(handle_only, qel_enable_websockets(x.h)),
#if QUELORA_WEBSOCKETS
      OUT(handle_only, qel_send_custom_websocket_event(x.h, x.null ? nullptr : "{}"), "json_text"),
#else
      ROW(handle_only, qel_send_custom_websocket_event(x.h, "{}")),
#endif
      ROW(handle_only, qel_create_room(x.h, 2)) };
    for (const export_row& row : rows) {
        SCOPED_TRACE(row.call_text);
        expect_call(f.log, QEL_ERROR_HANDLE_NULL, {null_handle}, [&] {
            return row.call({nullptr, 1, 1});
        });
        if (row.names & room) {
            expect_call(f.log, QEL_ERROR_INVALID_ROOM_ID, {room_missing(7)}, [&] {
                return row.call({f.library, 7, 1});
            });
        }
        if ((row.names & participant) == participant) {
            expect_call(f.log, QEL_ERROR_INVALID_PARTICIPANT_ID, {not_in_room(9)}, [&] {
                return row.call({f.library, 1, 9});
            });
        }
        if (!row.null_lines.empty()) {
            expect_call(f.log, QEL_ERROR_DATA_NULL, row.null_lines, [&] {
                return row.call({f.library, 1, 1, true});
            });
        }
    }
    // Destroying alone answers a null handle with -9985, "not yet initialised", as hosts expect.
    // Log levels are checked as unsigned: 5 and -1 are refused.
    expect_call(f.log, QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED, {null_handle},
                [] { return qel_destroy_library(nullptr); });
    for (const int level : {5, -1}) {
        expect_call(f.log, QEL_ERROR_INVALID_VALUE,
                    {warning("Valid log levels are between 0 and 4")},
                    [&] { return qel_set_log_level(static_cast<qel_log_level>(level)); });
    }
    EXPECT_EQ((std::array{room_count(f.library), participant_count(f.library, 1),
                          f.state(1, QEL_CONTROL_MUTE_ENABLE)}),
              (std::array{1, 2, 0}));
    EXPECT_EQ(f.place(1), (place_record{-1, 0, 0, 0, 0, 0}));
    // Exports without a code answer a null handle with values of their own.
    f.log.clear();
    EXPECT_STREQ(qel_get_json_all_room_layouts(nullptr),
                 "{\"error_code\": \"QEL_ERROR_HANDLE_NULL\"}");
    const qel_library_configuration l = qel_get_library_configuration(nullptr);
    qel_participant_configuration p{48000, 1, 1}; // becomes type 4, which does not exist
    int count = 42;                               // failed queries write 0
    EXPECT_EQ((std::array{qel_get_participant_configuration(nullptr, 1, 1, &p),
                          p.input_sampling_rate, p.input_number_channels, p.participant_type,
                          l.output_sampling_rate, l.output_number_frames, l.output_number_channels,
                          l.spatial_quality, int32_t{l.interleaved},
                          qel_get_participant_count(f.library, 7, &count), count}),
              (std::array{-9999, -1, -1, 4, -1, -1, -1, -1, 0, -9993, 0}));
    check_lines(f.log.lines(), {null_handle, null_handle, null_handle, room_missing(7)});
    for (const auto& [r, id, control] : {std::array{7, 1, 14}, {1, 9, 14}, {1, 1, 17}}) {
        EXPECT_NE(
            qel_get_participant_state(f.library, r, id, qel_audio_control(control), &(i = 42)),
            -10000);
        EXPECT_EQ(i, 0) << r << " " << id << " " << control;
    }
}

// The line that refuses configuration `c` with `code`.
static std::string refusal(const qel_library_configuration& c, int code) {
    const auto provided = [](int value) {
        return "You provided " + std::to_string(value) + " but you must choose ";
    };
    const int rate = c.output_sampling_rate;
    switch (code) {
    case QEL_ERROR_SAMPLE_RATE:
        return provided(rate) + "a sampling rate of either 8000, 16000, 24000, 32000, or 48000";
    case QEL_ERROR_NUM_CHANNELS:
        return provided(c.output_number_channels) + "either 1 or 2 for output number of channels";
    case QEL_ERROR_SPATIAL_QUALITY:
        return provided(c.spatial_quality) + "a spatial quality between 1 and 5";
    }
    return "You configured number of output frames to " + std::to_string(c.output_number_frames) +
           " but you must choose an output number of frames corresponding to 10 or 20 "
           "milliseconds in length. Based on your chosen sampling rate of " +
           std::to_string(rate) + " this would be either " + std::to_string(rate / 100) +
           " frames or " + std::to_string(rate / 50) + " frames.";
}

TEST(LibraryConfiguration, OutputFormatIsCheckedFieldByFieldWithItsMessage) {
    constexpr int rate = QEL_ERROR_SAMPLE_RATE, length = QEL_ERROR_DATA_LENGTH,
                  channels = QEL_ERROR_NUM_CHANNELS, quality = QEL_ERROR_SPATIAL_QUALITY;
    // clang-format off
    const std::pair<qel_library_configuration, int> rows[] = {
        {{44100, 441, 2, false, 3}, rate},     {{44100, 441, 3, false, 9}, rate},
        {{INT32_MIN, 480, 2, false, 3}, rate}, {{48000, 441, 2, false, 3}, length},
        {{16000, 170, 2, false, 3}, length}, // 510 frames at 48 kHz
        {{48000, 0, 2, false, 3}, length},     {{8000, INT32_MAX, 2, false, 3}, length},
        {{8000, INT32_MIN, 2, false, 3}, length},
        {{48000, 480, 0, false, 3}, channels}, {{48000, 480, 3, false, 3}, channels},
        {{48000, 480, 2, false, 0}, quality},  {{48000, 480, 2, false, 6}, quality},
        // 512 and 1024 frames at 48 kHz (256 at 24 kHz) are accepted beside 10 and 20 ms.
        {{48000, 512, 2, false, 3}, QEL_ERROR_NONE}, {{48000, 1024, 1, true, 5}, QEL_ERROR_NONE},
        {{24000, 256, 2, false, 3}, QEL_ERROR_NONE}, {{8000, 160, 1, false, 1}, QEL_ERROR_NONE}};
    // clang-format on
    for (const auto& [c, code] : rows) {
        SCOPED_TRACE(::testing::Message()
                     << c.output_sampling_rate << " Hz, " << c.output_number_frames << " frames");
        log_capture log;
        library_handle library(nullptr, c);
        EXPECT_EQ((std::pair{library.init_error(), library.get() == nullptr}),
                  (std::pair{code, code != QEL_ERROR_NONE}));
        if (code != QEL_ERROR_NONE) check_lines(log.lines(), {error(refusal(c, code))});
    }
}

// Strict initialisation fails on a missing or bad layout file; from memory logs it and falls back.
TEST(LibraryConfiguration, RoomLayoutFileOfBothEntryPoints) {
    const std::string no_websockets = "The library will work properly except qel_enable_websockets "
                                      "and qel_send_custom_websocket_event";
    // The client flavour has no server to disable, so it says only what does not work.
    std::vector<log_line> fallback = {
        warning("The library will still function but it will use the fallback room layout"),
        warning(
            "You disabled the websocket server by using NULL for the websocket config file path."),
        warning(no_websockets)};
    if (!QUELORA_WEBSOCKETS) fallback.erase(fallback.begin() + 1);
    const std::string missing = "/nonexistent/quelora/layouts.json",
                      bad = write_temp_file("bad.json", "{ not json");
    const std::string typed = write_temp_file(
        "typed.json", R"({"default": "a", "room_list": {"a": {"id": "one", "desc": "",)"
                      R"( "allowParticipantStacking": true, "openRoom": true,)"
                      R"( "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": []}}})");
    const struct {
        const char* path;
        int strict_code;
        // The latter before the fallback lines; none: the same.
        std::vector<log_line> strict_lines, memory_lines;
    } rows[] = {
        // clang-format off
        {nullptr, QEL_ERROR_NONE, {error(no_websockets + ".")},
         {warning("You disabled custom room layouts by using NULL for the room layout file "
                  "path.")}},
        {missing.c_str(), -9980,
         {error(missing + " does not exist. Please check if the path to your room configuration "
                          "file is correct.")},
         {warning(missing + " does not exist. Please check the path to your room configuration "
                            "file is correct")}},
        {bad.c_str(), -9988, {error(bad + " contains invalid JSON data.")}, {}},
        {typed.c_str(), -9988,
         {error("[json.exception.type_error.302] type must be number, but is string")}, {}}};
    // clang-format on
    for (const auto& row : rows) {
        for (const bool from_memory : {false, true}) {
            SCOPED_TRACE(::testing::Message() << (row.path ? row.path : "(null)")
                                              << (from_memory ? ", from memory" : ""));
            log_capture log;
            int code = 0;
            const auto initialize =
                from_memory ? qel_initialize_library_from_memory : qel_initialize_library;
            const qel_handle handle = initialize(row.path, nullptr, default_configuration(), &code);
            std::vector<log_line> lines =
                from_memory && !row.memory_lines.empty() ? row.memory_lines : row.strict_lines;
            if (from_memory) lines.insert(lines.end(), fallback.begin(), fallback.end());
            check_lines(log.lines(), lines);
            ASSERT_EQ((std::pair{code, handle == nullptr}),
                      (std::pair{from_memory ? int{QEL_ERROR_NONE} : row.strict_code,
                                 !from_memory && row.strict_code != QEL_ERROR_NONE}));
            if (handle == nullptr) continue;
            EXPECT_STREQ(
                qel_get_json_all_room_layouts(handle),
                R"({"default":"fallback_layout","room_list":{"fallback_layout":)"
                R"({"allowParticipantStacking":true,"centerPoint":{"x":0,"y":0,"z":0},"desc":)"
                R"("This is the fallback room layout when your custom room layout file is )"
                R"(missing or corrupted","id":1,"openRoom":true,"seats":[{"x":0,"y":0,"z":0}]}}})");
            EXPECT_EQ(qel_destroy_library(handle), QEL_ERROR_NONE);
        }
    }
}

// The default handler prints "[Quelora] [day, date time] [LEVEL]: text".
TEST(Logger, DefaultHandlerLineFormatAndLevelNames) {
    qel_enable_logging(true);
    ::testing::internal::CaptureStdout();
    qel_logger::get_logger().log(QEL_LOG_WARNING, "Room %d.", 3);
    qel_enable_logging(false);
    EXPECT_TRUE(std::regex_match(
        ::testing::internal::GetCapturedStdout(),
        std::regex(R"(\[Quelora\] \[(Mon|Tue|Wed|Thu|Fri|Sat|Sun), \d\d\.\d\d\.\d{4} )"
                   R"(\d\d:\d\d:\d\d\] \[WARNING\]: Room 3\.\n)")));
    std::string names;
    for (const int level : {0, 1, 2, 3, 4, 7, -1})
        names += qel_logger::to_string(static_cast<qel_log_level>(level)) + " ";
    EXPECT_EQ(names, "VERBOSE DEBUG INFO WARNING ERROR ERROR ERROR ");
}
