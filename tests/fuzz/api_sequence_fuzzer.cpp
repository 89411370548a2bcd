// libFuzzer target for the C interface (spec Parts 1.1, 3.1-3.5, and the audio
// calls of 4.1-4.2): the input is a program of qel_* calls against one library
// handle. Besides the sanitizers, a shadow model of rooms, participants and
// callback counts catches calls that succeed or fail when they must not; a
// broken expectation is a __builtin_trap(), so the report names the line.
// Input: byte 0 picks the layout document, entry point and logging, bytes 1-2
// the output configuration; then each step is an opcode byte and arguments
// (tests/fuzz/make_api_sequence_seeds.py writes seeds in this format).
#include <quelora/qel_logger.h>
#include <quelora/quelora.h>

#include <unistd.h>

#include <algorithm>
#include <array>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <map>
#include <optional>
#include <string>
#include <vector>

// A macro, not a function, so that the trap's frame is the failing line.
#define REQUIRE(condition) do { if (!(condition)) __builtin_trap(); } while (0)

namespace {

template <typename T, size_t N> T at(const T (&table)[N], size_t index) { return table[index % N]; }

class byte_reader {
public:
    byte_reader(const uint8_t* data, size_t size) : data_(data), size_(size) {}
    bool empty() const { return position_ >= size_; }
    // Zero once the input is used up, so that any prefix is a whole program.
    uint8_t byte() { return empty() ? 0 : data_[position_++]; }
    int32_t i32() {
        uint32_t v = 0;
        for (int i = 0; i < 4; ++i) v = v << 8 | byte();
        return static_cast<int32_t>(v);
    }
    template <typename T, size_t N> T pick(const T (&table)[N]) { return at(table, byte()); }
    std::string text(size_t max_length) {
        std::string s;
        for (size_t n = byte() % (max_length + 1); n > 0 && !empty(); --n) {
            if (const char c = static_cast<char>(byte()); c != '\0') s.push_back(c);
        }
        return s;
    }

private:
    const uint8_t* data_;
    size_t size_;
    size_t position_ = 0;
};

// Closed rooms of 4, 1 and 0 seats, an open one, extreme coordinates, an
// out-of-range, an auto EQ and an unknown default state, and a duplicate id
// ("twin" loses to "four", whose key sorts first). Default layout id 10.
constexpr const char* closed_document = R"({"default": "four", "room_list": {
"four": {"id": 10, "desc": "", "allowParticipantStacking": false, "stackDelta": 50, "openRoom": false,
 "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 100, "y": 0, "z": 0}, {"x": 0, "y": 0, "z": 100},
 {"x": -100, "y": 0, "z": 0}, {"x": 0, "y": 20, "z": -100}],
 "defaultStates": {"QEL_CONTROL_ANC_ENABLE": true, "qel_control_master_gain": 80}},
"one": {"id": 20, "desc": "", "allowParticipantStacking": true, "openRoom": false, "centerPoint":
 {"x": 5, "y": 5, "z": 5}, "seats": [{"x": 5, "y": 5, "z": 5}],
 "defaultStates": {"QEL_CONTROL_AUTO_EQ_ENABLE": 1}},
"none": {"id": 30, "desc": "", "allowParticipantStacking": false, "stackDelta": 2000000000,
 "openRoom": false, "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": []},
"open": {"id": 40, "desc": "", "allowParticipantStacking": true, "openRoom": true, "centerPoint": {"x": 0,
 "y": 0, "z": 0}, "seats": [{"x": 1.5, "y": 1e300, "z": -1e300}],
 "defaultStates": {"QEL_CONTROL_DEVICE": 2, "NOT_A_CONTROL": 1}},
"range": {"id": 50, "desc": "", "allowParticipantStacking": false, "stackDelta": 2147483647,
 "openRoom": false, "centerPoint": {"x": -2147483648, "y": 2147483647, "z": 0},
 "seats": [{"x": 2147483647, "y": 0, "z": -2147483648}, {"x": -2147483648, "y": 2147483647, "z": 0},
 {"x": 0, "y": 0, "z": 0}]},
"refused": {"id": 60, "desc": "", "allowParticipantStacking": true, "openRoom": false, "centerPoint":
 {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 1}],
 "defaultStates": {"QEL_CONTROL_ANC_MIX": 150, "QEL_CONTROL_HALF_SPAN_ANGLE": false}},
"twin": {"id": 10, "desc": "", "allowParticipantStacking": true, "openRoom": true,
 "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": []}}})";

// "default" names no layout, so rooms start without one (docs/design.md).
constexpr const char* headless_document = R"({"default": "absent", "room_list": {
"stack4": {"id": 1, "desc": "", "allowParticipantStacking": true, "openRoom": false, "centerPoint":
 {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 10, "y": 0, "z": 0}, {"x": 0, "y": 0, "z": 10},
 {"x": -10, "y": 0, "z": 0}, {"x": 0, "y": 0, "z": -10}],
 "defaultStates": {"QEL_CONTROL_MUTE_ENABLE": false, "QEL_CONTROL_MIXING_3D_MAX_DISTANCE": 1000000}},
"single": {"id": 2, "desc": "", "allowParticipantStacking": false, "stackDelta": -30, "openRoom": false,
 "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": [{"x": 0, "y": 0, "z": 0}]},
"open": {"id": 3, "desc": "", "allowParticipantStacking": true, "openRoom": true,
 "centerPoint": {"x": 0, "y": 0, "z": 0}, "seats": []}}})";

std::string closed_path, headless_path;

std::string write_document(const char* text) {
    char path[] = "/tmp/quelora_api_sequence_XXXXXX";
    const int fd = mkstemp(path);
    REQUIRE(fd >= 0 && write(fd, text, std::strlen(text)) == static_cast<ssize_t>(std::strlen(text)));
    close(fd);
    return path;
}

class discard_handler final : public qel_logger_handler {
public:
    void handle(qel_log_level, const char*) override {}
};

// Calls per callback slot (qel_event_manager_t order), the calls that the
// successful operations so far should have made, and how many registered
// tables set each slot.
std::array<uint64_t, 10> calls, expected_calls, slot_weight;

qel_event_manager_t full_table{
    [](int32_t) { ++calls[0]; }, [](int32_t) { ++calls[1]; },
    [](int32_t, int32_t, const char* name, const qel_participant_configuration* c) {
        REQUIRE(name != nullptr && c != nullptr);
        ++calls[2];
    },
    [](int32_t, int32_t) { ++calls[3]; },
    [](int32_t, int32_t, const qel_seat* seat) { REQUIRE(seat != nullptr); ++calls[4]; },
    [](int32_t, int32_t, const qel_position* p, qel_heading) { REQUIRE(p != nullptr); ++calls[5]; },
    [](int32_t, int32_t, qel_audio_control, int32_t) { ++calls[6]; },
    [](int32_t, qel_audio_control, int32_t) { ++calls[7]; },
    [](int32_t, int32_t) { ++calls[8]; },
    [](int32_t, int32_t, const char* name) { REQUIRE(name != nullptr); ++calls[9]; }};
qel_event_manager_t rooms_only_table{.create_room = full_table.create_room,
                                     .destroy_room = full_table.destroy_room};
qel_event_manager_t empty_table{};
struct registration { qel_event_manager_t* table; std::array<uint64_t, 10> slots; };
const registration registrations[] = {{&full_table, {1, 1, 1, 1, 1, 1, 1, 1, 1, 1}},
                                      {&rooms_only_table, {1, 1}}, {&empty_table, {}}, {nullptr, {}}};

const uint32_t extreme_ids[] = {0xFFFFFFFFu, 0x80000000u, 0x7FFFFFFFu, 6, 255, 0x10000};
const int32_t extreme_values[] = {INT32_MIN, INT32_MAX, -1, 1000000, 89, 90, 40, 41, 2, 3};
const int32_t layout_ids[] = {1, 2, 3, 10, 20, 30, 40, 50, 60, 0, -1, 7, INT32_MIN, INT32_MAX};
const int32_t input_rates[] = {48000, 48000, 16000, 8000, 24000, 32000, 44100, 96000, 0, -48000};
const std::string long_text(300, 'x');
const char* const texts[] = {nullptr, "", "Alice", "Bob", "%s%n%x%s", long_text.c_str(),
                             "\xC3\xA9l\xC3\xA8ve", "qel_control_mute_enable", "QEL_DEVICE_SPEAKER",
                             "  42abc", "99999999999", "true"};
// {rate, frames}; channels, interleaving and quality come from another byte.
const int32_t valid_outputs[][2] = {{8000, 80}, {8000, 160}, {16000, 160}, {16000, 320}, {24000, 240},
                                    {24000, 480}, {24000, 256}, {32000, 320}, {32000, 640}, {48000, 480},
                                    {48000, 960}, {48000, 512}, {48000, 1024}};
const qel_library_configuration invalid_configurations[] = {
    {44100, 441, 2, false, 3}, {48000, 441, 2, false, 3}, {16000, 170, 1, false, 1},
    {48000, 480, 0, false, 3}, {48000, 480, 3, false, 3}, {48000, 480, 2, false, 0},
    {48000, 480, 2, true, 6},  {0, 0, 0, false, 0}};

// Mostly a small set of ids (so that calls meet), sometimes an extreme one.
uint32_t draw_id(byte_reader& in) {
    const uint8_t b = in.byte();
    return b < 240 ? b % 6 : at(extreme_ids, b);
}
int32_t draw_value(byte_reader& in) {
    const uint8_t b = in.byte();
    return b < 200 ? b % 104 - 2 : b < 250 ? at(extreme_values, b) : in.i32();
}
int32_t draw_seat(byte_reader& in) {
    const uint8_t b = in.byte();
    return b < 224 ? b % 12 - 2 : at(extreme_values, b);
}
qel_audio_control draw_control(byte_reader& in) {
    const uint8_t b = in.byte();
    return static_cast<qel_audio_control>(b < 224 ? b % 18 : in.i32());
}
int32_t draw_coordinate(byte_reader& in) {
    const uint8_t b = in.byte();
    return b < 224 ? static_cast<int8_t>(b) * 10 : at(extreme_values, b);
}
qel_heading draw_heading(byte_reader& in) {
    if (in.byte() >= 240) return {in.i32(), in.i32()};
    const int high = in.byte(), low = in.byte(); // two statements fix the order
    return {(high << 8 | low) % 363 - 181, in.byte() % 183 - 91};
}
std::string fuzzed_text;
const char* draw_text(byte_reader& in) {
    if (const uint8_t b = in.byte(); b < 224) return at(texts, b);
    fuzzed_text = in.text(24);
    return fuzzed_text.c_str();
}
bool is_control(qel_audio_control c) { return c >= 1 && c <= 16; }

// Part 1.2 codes only (-9988 and -9980 belong to initialisation). Only a null
// pointer may give QEL_ERROR_DATA_NULL: the exports also map untranslated
// standard exceptions to it (docs/errors.md), which would hide them.
bool succeeded(int code, bool null_pointer = false) {
    REQUIRE(code >= QEL_ERROR_NONE && code <= QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED && code != -9988);
    REQUIRE(code != QEL_ERROR_DATA_NULL || null_pointer);
    return code == QEL_ERROR_NONE;
}
// For calls whose outcome the shadow model knows; returns that outcome.
bool expect(int code, bool success, bool null_pointer = false) {
    REQUIRE(succeeded(code, null_pointer) == success);
    return success;
}

struct shadow_participant { std::string name; qel_participant_configuration configuration; };
struct shadow_room { std::map<uint32_t, shadow_participant> participants; std::optional<int32_t> layout; };

struct model {
    qel_handle h;
    qel_library_configuration configuration;
    std::optional<int32_t> default_layout;
    std::map<uint32_t, shadow_room> rooms;
    int registered = 0;

    shadow_room* room(uint32_t id) {
        const auto it = rooms.find(id);
        return it == rooms.end() ? nullptr : &it->second;
    }
    shadow_participant* participant(uint32_t room_id, uint32_t id) {
        shadow_room* r = room(room_id);
        if (r == nullptr) return nullptr;
        const auto it = r->participants.find(id);
        return it == r->participants.end() ? nullptr : &it->second;
    }
    void notified(size_t slot) { expected_calls[slot] += slot_weight[slot]; }
    void require_state(uint32_t r, uint32_t p, qel_audio_control control, int32_t value) {
        // A stored value passed its range check, so even the master gain
        // (kept as a float, read back truncated) comes back exactly.
        int back = INT_MIN;
        REQUIRE(succeeded(qel_get_participant_state(h, r, p, control, &back)) && back == value);
    }
    void step(byte_reader& in);
};

enum op : uint8_t {
    create_room, destroy_room, room_count, set_layout, get_layout, add, remove, participant_count,
    get_configuration, set_name, get_name, set_seat, get_place, set_position, spherical, set_state,
    get_state, set_all_states, flush, add_event_manager, converters, info, input_audio,
    output_audio, op_count
};

// Part 4.1's required input frames, computed as the library does (float
// ratio, exact product, truncated).
int required_frames(const qel_library_configuration& c, int32_t input_rate) {
    const float ratio = static_cast<float>(input_rate) / static_cast<float>(c.output_sampling_rate);
    return static_cast<int>(static_cast<double>(c.output_number_frames) * static_cast<double>(ratio));
}

// Samples from the input: mostly speech-range values, sometimes NaN,
// infinities, denormals or full scale, so that the limiter and the
// conversions see them all.
float draw_sample(byte_reader& in) {
    const uint8_t b = in.byte();
    switch (b >> 5) {
    case 0: return std::numeric_limits<float>::quiet_NaN();
    case 1: return (b & 1) ? std::numeric_limits<float>::infinity() : -std::numeric_limits<float>::infinity();
    case 2: return std::numeric_limits<float>::denorm_min() * static_cast<float>(b);
    case 3: return (b & 1) ? 1.0f : -1.0f;
    default: return static_cast<float>(static_cast<int8_t>(b)) / 128.0f;
    }
}

void model::step(byte_reader& in) {
    const op opcode = static_cast<op>(in.byte() % op_count);
    const uint32_t r = draw_id(in), p = draw_id(in); // not every call uses both
    // Bits 0-2 put a null in a getter's first to third output (one step in 16).
    const int nulls = in.byte() < 16 ? 1 + in.byte() % 7 : 0;
    const bool known_room = room(r) != nullptr, known = participant(r, p) != nullptr;
    switch (opcode) {
    case create_room:
        if (expect(qel_create_room(h, r), !known_room)) {
            rooms[r].layout = default_layout;
            notified(0);
        }
        break;
    case destroy_room:
        if (expect(qel_destroy_room(h, r), known_room)) {
            rooms.erase(r);
            notified(1);
        }
        break;
    case room_count: {
        int n = -1;
        expect(qel_get_room_count(h, nulls ? nullptr : &n), !nulls, nulls);
        REQUIRE(nulls || n == static_cast<int>(rooms.size()));
        break;
    }
    case set_layout: {
        const int32_t layout = in.byte() < 240 ? in.pick(layout_ids) : in.i32();
        if (!succeeded(qel_set_room_layout(h, r, layout))) break;
        REQUIRE(known_room);
        room(r)->layout = layout;
        notified(8);
        break;
    }
    case get_layout: { // a room of the headless document has no layout until one is set
        int layout = INT_MIN;
        const bool has_layout = known_room && room(r)->layout;
        if (expect(qel_get_room_layout(h, r, nulls ? nullptr : &layout), !nulls && has_layout, nulls))
            REQUIRE(layout == *room(r)->layout);
        break;
    }
    case add: {
        const char* name = draw_text(in);
        const uint8_t channels = in.byte(), type = in.byte();
        const int32_t rate = in.byte() < 240 ? in.pick(input_rates) : in.i32();
        const qel_participant_configuration c{rate, channels < 200 ? 1 + channels % 2 : channels % 4,
                                              type < 200 ? 1 + type % 3 : type % 5};
        if (!succeeded(qel_add_participant(h, r, p, name, c))) break;
        REQUIRE(known_room && !known);
        room(r)->participants[p] = {name ? name : "", c};
        notified(2);
        break;
    }
    case remove:
        if (expect(qel_remove_participant(h, r, p), known)) {
            room(r)->participants.erase(p);
            notified(3);
        }
        break;
    case participant_count: {
        int n = -1;
        expect(qel_get_participant_count(h, r, nulls ? nullptr : &n), !nulls && known_room, nulls);
        REQUIRE(nulls || n == (known_room ? static_cast<int>(room(r)->participants.size()) : 0));
        break;
    }
    case get_configuration: {
        qel_participant_configuration c{};
        if (!expect(qel_get_participant_configuration(h, r, p, nulls ? nullptr : &c), !nulls && known, nulls))
            break;
        const qel_participant_configuration& s = participant(r, p)->configuration;
        REQUIRE(c.input_sampling_rate == s.input_sampling_rate && c.participant_type == s.participant_type &&
                c.input_number_channels == s.input_number_channels);
        break;
    }
    case set_name: {
        const char* name = draw_text(in);
        if (expect(qel_set_participant_name(h, r, p, name), known)) {
            participant(r, p)->name = name ? name : "";
            notified(9);
        }
        break;
    }
    case get_name: {
        const std::string* name = known ? &participant(r, p)->name : nullptr;
        const int exact = name ? static_cast<int>(name->size()) : 5;
        const int lengths[] = {exact, exact, exact + 10, exact - 1, 0, -1, INT_MIN, 3};
        const int length = in.pick(lengths);
        // One byte more than length: the library writes the terminator past
        // a buffer of exactly the name's length (Part 3.2).
        std::vector<char> buffer(static_cast<size_t>(length < 0 ? 0 : length) + 1, '\x7f');
        const bool fits = name && length >= 0 && name->size() <= static_cast<size_t>(length);
        if (expect(qel_get_participant_name(h, r, p, nulls ? nullptr : buffer.data(), length),
                   !nulls && fits, nulls))
            REQUIRE(buffer.data() == *name);
        break;
    }
    case set_seat:
        if (!succeeded(qel_set_participant_seat(h, r, p, draw_seat(in)))) break;
        REQUIRE(known);
        notified(4);
        break;
    case get_place: {
        qel_seat seat{};
        qel_position position{};
        qel_heading heading{};
        expect(qel_get_participant_seat(h, r, p, nulls & 1 ? nullptr : &seat), !(nulls & 1) && known,
               nulls & 1);
        if (expect(qel_get_participant_position(h, r, p, nulls & 2 ? nullptr : &position,
                                                nulls & 4 ? nullptr : &heading),
                   !(nulls & 6) && known, nulls & 6) && !(nulls & 1)) {
            REQUIRE(seat.x == position.x && seat.y == position.y && seat.z == position.z);
            REQUIRE(seat.azimuth == heading.azimuth && seat.elevation == heading.elevation);
        }
        break;
    }
    case set_position: {
        const qel_position position{draw_coordinate(in), draw_coordinate(in), draw_coordinate(in)};
        const qel_heading heading = draw_heading(in);
        if (!succeeded(qel_set_participant_position(h, r, p, position, heading))) break;
        REQUIRE(known);
        notified(5);
        qel_seat seat{};
        REQUIRE(succeeded(qel_get_participant_seat(h, r, p, &seat)));
        REQUIRE(seat.seat_index == -1);
        REQUIRE(seat.x == position.x && seat.y == position.y && seat.z == position.z);
        REQUIRE(seat.azimuth == heading.azimuth && seat.elevation == heading.elevation);
        break;
    }
    case spherical: {
        const uint32_t source = draw_id(in);
        int32_t azimuth = 0, elevation = 0, distance = 0;
        const bool ok = succeeded(qel_get_participant_spherical(
            h, r, p, source, nulls & 1 ? nullptr : &azimuth, nulls & 2 ? nullptr : &elevation,
            nulls & 4 ? nullptr : &distance), nulls);
        if (!ok) break;
        REQUIRE(p != source && known && participant(r, source) != nullptr);
        REQUIRE(azimuth >= -180 && azimuth <= 180 && elevation >= -90 && elevation <= 90 && distance >= 0);
        break;
    }
    case set_state: {
        const qel_audio_control control = draw_control(in);
        const int32_t value = draw_value(in);
        if (!succeeded(qel_set_participant_state(h, r, p, control, value))) break;
        REQUIRE(known);
        notified(6);
        require_state(r, p, control, value);
        break;
    }
    case get_state: {
        const qel_audio_control control = draw_control(in);
        int value = INT_MIN;
        if (!expect(qel_get_participant_state(h, r, p, control, nulls ? nullptr : &value),
                    !nulls && known && is_control(control), nulls))
            REQUIRE(nulls || value == 0); // what the host reads after a failure (Part 3.4)
        break;
    }
    case set_all_states: {
        const qel_audio_control control = draw_control(in);
        const int32_t value = draw_value(in);
        if (!succeeded(qel_set_all_participants_state(h, r, control, value))) break;
        REQUIRE(known_room);
        notified(7);
        for (const auto& [id, s] : room(r)->participants) require_state(r, id, control, value);
        break;
    }
    case flush:
        expect(qel_flush_data(h, r, p), known);
        break;
    case add_event_manager: {
        const registration& chosen = in.pick(registrations);
        if (chosen.table != nullptr && registered >= 4) break; // a few tables are enough
        expect(qel_add_event_manager(h, chosen.table), chosen.table != nullptr, chosen.table == nullptr);
        registered += chosen.table != nullptr;
        for (size_t i = 0; i < slot_weight.size(); ++i) slot_weight[i] += chosen.slots[i];
        break;
    }
    case converters: {
        const qel_audio_control control = draw_control(in);
        const char* name = qel_audio_control_to_string(control);
        REQUIRE(name != nullptr && (*name != '\0') == is_control(control));
        REQUIRE(!is_control(control) || qel_string_to_audio_control(name) == control);
        const qel_audio_control parsed = qel_string_to_audio_control(draw_text(in));
        REQUIRE(parsed >= 1 && parsed <= 17);
        (void)qel_string_to_participant_value(draw_text(in));
        const int code = in.byte() < 200 ? -10005 + in.byte() % 30 : in.i32();
        REQUIRE(qel_error_code_to_string(code) != nullptr && *qel_error_code_to_string(code) != '\0');
        break;
    }
    case info: {
        const qel_library_configuration c = qel_get_library_configuration(h);
        REQUIRE(c.output_sampling_rate == configuration.output_sampling_rate &&
                c.output_number_frames == configuration.output_number_frames &&
                c.output_number_channels == configuration.output_number_channels &&
                c.interleaved == configuration.interleaved &&
                c.spatial_quality == configuration.spatial_quality);
        const char* json = qel_get_json_all_room_layouts(h);
        // Without a websocket configuration: "not configured" in the server
        // flavour, "not available" in the client flavour (Part 6.1).
        REQUIRE(json != nullptr && json[0] == '{' &&
                qel_enable_websockets(h) ==
                    (QUELORA_WEBSOCKETS ? QEL_ERROR_INVALID_VALUE : QEL_ERROR_INVALID_CONTROL));
        REQUIRE(qel_create_room(nullptr, r) == QEL_ERROR_HANDLE_NULL);
        REQUIRE(qel_destroy_library(nullptr) == QEL_ERROR_LIBRARY_NOT_YET_INITIALIZED);
        break;
    }
    case input_audio: {
        // The block is filled from a few input bytes, repeated; its length is
        // the required one most of the time.
        const shadow_participant* sp = participant(r, p);
        const int channels = sp ? sp->configuration.input_number_channels : 1 + in.byte() % 2;
        const int required = sp ? required_frames(configuration, sp->configuration.input_sampling_rate) : 480;
        const int frames = in.byte() < 230 ? required : in.byte() * 8;
        std::vector<float> block(static_cast<size_t>(std::max(frames, 0) * channels) + 1);
        const size_t pattern = 1 + in.byte() % 16;
        for (size_t i = 0; i < pattern && i < block.size(); ++i) block[i] = draw_sample(in);
        for (size_t i = pattern; i < block.size(); ++i) block[i] = block[i % pattern];
        std::vector<int16_t> shorts(block.size());
        std::vector<double> doubles(block.size());
        for (size_t i = 0; i < block.size(); ++i) {
            const float v = std::isfinite(block[i]) ? std::clamp(block[i], -1.0f, 1.0f) : 1.0f;
            shorts[i] = static_cast<int16_t>(v * 32767.0f);
            doubles[i] = block[i];
        }
        const bool null_block = nulls != 0;
        const uint8_t type = in.byte() % 3;
        const int code = type == 0 ? qel_input_audio_short(h, r, p, null_block ? nullptr : shorts.data(), frames)
                       : type == 1 ? qel_input_audio_float(h, r, p, null_block ? nullptr : block.data(), frames)
                                   : qel_input_audio_double(h, r, p, null_block ? nullptr : doubles.data(), frames);
        // Muted participants accept anything of the right length, so success
        // is only required to imply a well-formed call of a talker.
        if (succeeded(code, null_block)) {
            REQUIRE(known && frames == required &&
                    sp->configuration.participant_type != QEL_PARTICIPANT_LISTENER_ONLY);
        } else {
            REQUIRE(!known || frames != required || null_block ||
                    sp->configuration.participant_type == QEL_PARTICIPANT_LISTENER_ONLY);
        }
        break;
    }
    case output_audio: {
        const shadow_participant* sp = participant(r, p);
        const size_t samples = static_cast<size_t>(configuration.output_number_frames) *
                               static_cast<size_t>(configuration.output_number_channels);
        const bool null_block = nulls != 0;
        const uint8_t type = in.byte() % 3;
        std::vector<double> storage(samples + 1, -3.0); // large enough for every type
        void* out = null_block ? nullptr : storage.data();
        const int code = type == 0 ? qel_output_audio_short(h, r, p, static_cast<int16_t*>(out))
                       : type == 1 ? qel_output_audio_float(h, r, p, static_cast<float*>(out))
                                   : qel_output_audio_double(h, r, p, static_cast<double*>(out));
        const bool listener = known && sp->configuration.participant_type != QEL_PARTICIPANT_SOURCE_ONLY;
        if (code == QEL_ERROR_NO_INPUT_AUDIO) {
            REQUIRE(listener && !null_block);
            if (type == 2) for (size_t i = 0; i < samples; ++i) REQUIRE(storage[i] == 0.0);
        } else {
            expect(code, listener && !null_block, null_block);
        }
        break;
    }
    case op_count:
        break;
    }
    REQUIRE(calls == expected_calls);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static discard_handler handler;
    qel_logger::get_logger().initialize(&handler);
    closed_path = write_document(closed_document);
    headless_path = write_document(headless_document);
    std::atexit([] {
        std::remove(closed_path.c_str());
        std::remove(headless_path.c_str());
    });
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    byte_reader in(data, size);
    const uint8_t setup = in.byte(), output = in.byte(), shape = in.byte();
    // With logging on every call formats a line; one input in eight pays for
    // that so that the message paths still see fuzzed arguments.
    const bool logging = (setup & 0xE0) == 0xE0;
    qel_enable_logging(logging);
    if (logging) REQUIRE(qel_set_log_level(QEL_LOG_VERBOSE) == QEL_ERROR_NONE);

    const char* const paths[] = {nullptr, closed_path.c_str(), headless_path.c_str()};
    const std::optional<int32_t> default_layouts[] = {1, 10, std::nullopt}; // the fallback's id is 1
    const int document = setup % 3;
    const bool valid = output < 248;
    qel_library_configuration configuration = invalid_configurations[output % 8];
    if (valid) {
        const int32_t* rate_frames = valid_outputs[output % std::size(valid_outputs)];
        configuration = {rate_frames[0], rate_frames[1], 1 + (shape & 1), (shape & 2) != 0,
                         1 + (shape >> 2) % 5};
    }
    int error = 0;
    const auto initialize = setup & 0x10 ? qel_initialize_library_from_memory : qel_initialize_library;
    const qel_handle h = initialize(paths[document], nullptr, configuration, &error);
    if (!valid) { // only the Part 2.1 configuration checks can refuse it
        REQUIRE(h == nullptr);
        REQUIRE(error == QEL_ERROR_DATA_LENGTH || error == QEL_ERROR_NUM_CHANNELS ||
                error == QEL_ERROR_SAMPLE_RATE || error == QEL_ERROR_SPATIAL_QUALITY);
        return 0;
    }
    REQUIRE(h != nullptr && error == QEL_ERROR_NONE);

    calls.fill(0);
    expected_calls.fill(0);
    slot_weight.fill(0);
    model m{h, configuration, default_layouts[document], {}, 0};
    for (int steps = 0; !in.empty() && steps < 2000; ++steps) m.step(in);
    REQUIRE(qel_destroy_library(h) == QEL_ERROR_NONE);
    return 0;
}
