// Room layouts and the room configuration document.
#pragma once

#include <nlohmann/json.hpp>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

namespace quelora {

struct seat_position {
    int32_t x = 0, y = 0, z = 0;
};

// One parsed layout.
struct quelora_room_layout {
    int32_t id = 0;
    std::string key;
    std::string description;
    bool allow_participant_stacking = false;
    int32_t stack_delta = 0;
    bool open_room = false;
    seat_position center_point;
    std::vector<seat_position> seats;
    // Control number to value. Ordered by control so that the defaults are
    // applied, and refused, in a fixed order (a hash map would have none).
    std::map<int32_t, int32_t> default_states;
    nlohmann::json object; // the layout's JSON object as read
};

// Deepest nesting the parser accepts; deeper documents are treated as invalid
// JSON so that no later recursive walk (serialisation) can exhaust the stack.
inline constexpr int max_json_depth = 256;

// Parses JSON text with the depth limit; throws nlohmann::json::exception on
// any parse failure (including too deep nesting).
nlohmann::json parse_json_text(const std::string& text);

// The built-in fallback document: one open layout, stacking allowed, with
// one seat at the origin.
nlohmann::json fallback_room_document();

// All layouts of one document, in "room_list" key order, with the default
// layout and the compact JSON text. Immutable once built; rooms point into
// it.
class room_layout_set {
public:
    // Parses the document into layouts. Throws quelora_exception (-9988) for
    // structural faults and lets the JSON library's exceptions through for
    // type errors and missing members.
    explicit room_layout_set(nlohmann::json document);

    const std::vector<std::unique_ptr<quelora_room_layout>>& layouts() const { return layouts_; }
    // Null when "default" names no key of "room_list".
    const quelora_room_layout* default_layout() const { return default_layout_; }
    // First layout with this id in key order, or null.
    const quelora_room_layout* find(int32_t layout_id) const;
    // Compact serialisation of the whole document (keys in ascending order).
    const std::string& json_text() const { return json_text_; }

private:
    nlohmann::json document_;
    std::vector<std::unique_ptr<quelora_room_layout>> layouts_;
    const quelora_room_layout* default_layout_ = nullptr;
    std::string json_text_;
};

// Parses one layout object: presence checks are logged at level 4, then
// members are read; missing or mistyped members raise the JSON library's
// exceptions.
std::unique_ptr<quelora_room_layout> parse_room_layout(const std::string& key,
                                                       const nlohmann::json& object);

} // namespace quelora
