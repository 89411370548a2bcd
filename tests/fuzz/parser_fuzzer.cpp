// libFuzzer targets for the documents the library parses, one build each: the room configuration
// document (QUELORA_FUZZ_ROOM_LAYOUT) and the websocket configuration file. Only the library's own
// refusals (and the JSON library's errors in a room document) are caught: a crash, a sanitizer
// report, any other exception or a broken invariant ends the run.
#include "api/quelora_exception.h"
#include "config/room_layout.h"
#include "events/websocket_configuration.h"

#include <quelora/qel_logger.h>

#include <algorithm>
#include <cstdlib>

#define REQUIRE(condition)                                                                         \
    if (!(condition)) std::abort()

// Log lines are formatted from fuzzed text, then dropped.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
    static struct : qel_logger_handler {
        void handle(qel_log_level, const char*) override {}
    } discard;
    qel_logger::get_logger().initialize(&discard);
    qel_logger::get_logger().set_log_level(QEL_LOG_VERBOSE);
    qel_logger::get_logger().set_enabled(true);
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string text(reinterpret_cast<const char*>(data), size);
#ifdef QUELORA_FUZZ_ROOM_LAYOUT
    try {
        const quelora::room_layout_set set(quelora::parse_json_text(text));
        const auto& all = set.layouts(); // the text handed out parses back to as many layouts
        REQUIRE(all.size() == quelora::parse_json_text(set.json_text()).at("room_list").size());
        for (const auto& layout : all) { // of those sharing an id, the first in key order is found
            auto same_id = [&](const auto& other) { return other->id == layout->id; };
            REQUIRE(set.find(layout->id) == std::find_if(all.begin(), all.end(), same_id)->get());
        }
    } catch (const quelora_exception&) {
    } catch (const nlohmann::json::exception&) {}
#else
    try { // an accepted file holds everything the transport needs
        const auto c = quelora::events::parse_websocket_configuration(text, "fuzz.json");
        REQUIRE(c.port >= 1 && c.port <= 65535 && !c.cert_file_name.empty() &&
                !c.key_file_name.empty() && !c.dh_params_file_name.empty() &&
                !c.authentification_key.empty() && !c.authentification_value.empty());
    } catch (const quelora_exception& e) {
        REQUIRE(e.error_code() == QEL_ERROR_INVALID_VALUE);
    }
#endif
    return 0;
}
