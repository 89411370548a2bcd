// Room configuration document and room layouts.
#include "config/room_layout.h"

#include "api/controls.h"
#include "api/error_codes.h"
#include "api/quelora_exception.h"

#include <quelora/qel_logger.h>

#include <cmath>
#include <limits>
#include <string>

namespace quelora {

namespace {

using json = nlohmann::json;

// Presence checks are log lines at level 4, not failures: the reads that
// follow fail on whatever is really missing.
void log_error(const char* message) {
    qel_logger::get_logger().log(QEL_LOG_ERROR, "%s", message);
}

// The same words nlohmann uses for its own get<T>() type errors, so callers
// see one style of message whichever check fired.
[[noreturn]] void throw_type_error(const json& value, const char* expected) {
    throw json::type_error::create(
        302, std::string("type must be ") + expected + ", but is " + value.type_name(), &value);
}

// Reads a JSON number as a signed 32-bit integer ("id", "stackDelta",
// coordinates and default values). The value is truncated toward zero and
// then SATURATED to [INT32_MIN, INT32_MAX], so a hostile document can never
// reach an undefined float-to-int conversion; NaN (only reachable from a
// document built in code, never from text) reads as 0. Booleans are accepted
// only for default states (true 1, false 0); any other type raises
// type_error 302.
int32_t read_int32(const json& value, bool accept_boolean = false) {
    constexpr int32_t lowest = std::numeric_limits<int32_t>::min();
    constexpr int32_t highest = std::numeric_limits<int32_t>::max();
    if (value.is_number_unsigned()) {
        const auto number = value.get<uint64_t>();
        return number > static_cast<uint64_t>(highest) ? highest : static_cast<int32_t>(number);
    }
    if (value.is_number_integer()) {
        const auto number = value.get<int64_t>();
        if (number > highest) return highest;
        if (number < lowest) return lowest;
        return static_cast<int32_t>(number);
    }
    if (value.is_number_float()) {
        const double number = value.get<double>();
        if (std::isnan(number)) return 0;
        if (number >= static_cast<double>(highest)) return highest;
        if (number <= static_cast<double>(lowest)) return lowest;
        return static_cast<int32_t>(number); // in range: truncates toward zero
    }
    if (accept_boolean && value.is_boolean()) {
        return value.get<bool>() ? 1 : 0;
    }
    throw_type_error(value, "number");
}

bool has_xyz(const json& value) {
    return value.is_object() && value.contains("x") && value.contains("y") && value.contains("z");
}

seat_position read_xyz(const json& value) {
    seat_position position;
    position.x = read_int32(value.at("x"));
    position.y = read_int32(value.at("y"));
    position.z = read_int32(value.at("z"));
    return position;
}

// Presence checks, in a fixed order, each only logged; the reads that follow
// raise the JSON library's error for anything that is still missing.
void log_missing_members(const json& object) {
    if (!object.contains("id")) {
        log_error("A Room in the Room Configuration file is missing its 'id' property");
    }
    if (!object.contains("desc")) {
        log_error("A Room in the Room Configuration file is missing its 'desc' property");
    }
    if (!object.contains("allowParticipantStacking")) {
        log_error("A Room in the Room Configuration file is missing its "
                  "'allowParticipantStacking' property");
    }
    if (!object.contains("openRoom")) {
        log_error("A Room in the Room Configuration file is missing its 'openRoom' property");
    }
    if (!object.contains("centerPoint")) {
        log_error("A Room in the Room Configuration file is missing its 'centerPoint' property");
    } else if (!has_xyz(object.at("centerPoint"))) {
        log_error("A Room in the Room Configuration file is missing its 'x','y','z' for the "
                  "'centerPoint' property");
    }
    if (!object.contains("seats")) {
        log_error("A Room in the Room Configuration file is missing its 'seats' property");
    }
}

// Default states: names go through the control-name converter (upper-casing;
// it logs its own warning for unknown names); values are stored without the
// range check, which runs when a participant receives them (a refused value
// then fails that operation).
void read_default_states(const json& states, quelora_room_layout& layout) {
    if (!states.is_object()) {
        throw_type_error(states, "object");
    }
    for (const auto& [name, value] : states.items()) {
        const int32_t control = control_from_name(name.c_str());
        const int32_t number = read_int32(value, true);
        if (control == control_not_a_control) {
            qel_logger::get_logger().log(
                QEL_LOG_ERROR,
                "A Room in the Room Configuration file has an invalid default state of %s",
                name.c_str());
            continue;
        }
        layout.default_states[control] = number;
    }
}

// Depth pre-pass over the text: counts open containers and rejects nesting
// deeper than max_json_depth. A SAX pass rather than a json::parse callback:
// nlohmann's callback DOM parser rescans the parent container after every
// nested object (quadratic: 11 s for 100000 seats), while this stays linear.
class depth_limit final : public nlohmann::json_sax<json> {
public:
    bool null() override { return true; }
    bool boolean(bool) override { return true; }
    bool number_integer(number_integer_t) override { return true; }
    bool number_unsigned(number_unsigned_t) override { return true; }
    bool number_float(number_float_t, const string_t&) override { return true; }
    bool string(string_t&) override { return true; }
    bool binary(binary_t&) override { return true; }
    bool key(string_t&) override { return true; }
    bool start_object(std::size_t) override { return enter(); }
    bool start_array(std::size_t) override { return enter(); }
    bool end_object() override { return leave(); }
    bool end_array() override { return leave(); }
    // Syntax errors are left to the real parse, which raises them with their
    // own exception type.
    bool parse_error(std::size_t, const std::string&, const nlohmann::detail::exception&) override {
        return false;
    }

private:
    bool enter() {
        if (++depth_ > max_json_depth) {
            throw json::parse_error::create(
                101, 0, "JSON nesting deeper than " + std::to_string(max_json_depth) + " levels",
                nullptr);
        }
        return true;
    }
    bool leave() {
        --depth_;
        return true;
    }

    int depth_ = 0;
};

} // namespace

json parse_json_text(const std::string& text) {
    depth_limit limit;
    json::sax_parse(text, &limit);
    return json::parse(text);
}

json fallback_room_document() {
    return json{
        {"default", "fallback_layout"},
        {"room_list",
         {{"fallback_layout",
           {{"id", 1},
            {"desc", "This is the fallback room layout when your custom room layout file is "
                     "missing or corrupted"},
            {"allowParticipantStacking", true},
            {"openRoom", true},
            {"centerPoint", {{"x", 0}, {"y", 0}, {"z", 0}}},
            {"seats", json::array({{{"x", 0}, {"y", 0}, {"z", 0}}})}}}}},
    };
}

std::unique_ptr<quelora_room_layout> parse_room_layout(const std::string& key,
                                                       const json& object) {
    auto layout = std::make_unique<quelora_room_layout>();
    layout->key = key;
    layout->object = object;

    log_missing_members(object);

    if (object.contains("defaultStates")) {
        read_default_states(object.at("defaultStates"), *layout);
    }

    // The reads, in a fixed order: it decides which error a layout with
    // several faults raises.
    layout->id = read_int32(object.at("id"));
    layout->description = object.at("desc").get<std::string>();
    layout->center_point = read_xyz(object.at("centerPoint"));
    layout->allow_participant_stacking = object.at("allowParticipantStacking").get<bool>();

    // Deliberately read only when stacking is off, the only case in which seat
    // lookup uses it.
    if (!layout->allow_participant_stacking) {
        if (!object.contains("stackDelta")) {
            log_error("A Room in the Room Configuration file is missing its 'stackDelta' property");
        }
        layout->stack_delta = read_int32(object.at("stackDelta"));
    }

    layout->open_room = object.at("openRoom").get<bool>();

    const json& seats = object.at("seats");
    if (!seats.is_array()) {
        throw_type_error(seats, "array");
    }
    layout->seats.reserve(seats.size());
    for (const json& seat : seats) {
        if (!has_xyz(seat)) {
            log_error("A Seat in the Room Configuration file does not have all the 'x', 'y', and "
                      "/ or 'z' properties");
        }
        layout->seats.push_back(read_xyz(seat));
    }
    return layout;
}

room_layout_set::room_layout_set(json document) : document_(std::move(document)) {
    // A document that is not an object has no "room_list" either.
    if (!document_.is_object() || !document_.contains("room_list")) {
        throw quelora_exception(QEL_LOG_ERROR, error_invalid_room_configuration, "%s",
                                "The Room Configuration file is missing the 'room_list' property");
    }
    if (!document_.contains("default")) {
        throw quelora_exception(QEL_LOG_ERROR, error_invalid_room_configuration, "%s",
                                "The Room Configuration file is missing its 'default' property");
    }
    const auto default_key = document_.at("default").get<std::string>();

    const json& room_list = document_.at("room_list");
    if (!room_list.is_object()) {
        throw_type_error(room_list, "object");
    }
    // nlohmann keeps object members in ascending key order, so the layouts
    // are in ascending key order too (find() relies on it).
    for (const auto& [key, object] : room_list.items()) {
        auto layout = parse_room_layout(key, object);
        if (key == default_key) {
            default_layout_ = layout.get();
        }
        layouts_.push_back(std::move(layout));
    }

    json_text_ = document_.dump();
}

const quelora_room_layout* room_layout_set::find(int32_t layout_id) const {
    // Linear scan: with duplicate ids the key that sorts first wins.
    for (const auto& layout : layouts_) {
        if (layout->id == layout_id) {
            return layout.get();
        }
    }
    return nullptr;
}

} // namespace quelora
