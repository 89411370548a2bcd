#include "config/room_layout_loading.h"

#include "api/error_codes.h"
#include "api/quelora_exception.h"

#include <quelora/qel_logger.h>

#include <fstream>
#include <sstream>

namespace quelora {
namespace {

std::unique_ptr<room_layout_set> load_file(const char* path, layout_loading mode) {
    std::ifstream file(path, std::ios::binary);
    if (!file.is_open()) {
        if (mode == layout_loading::strict) {
            throw quelora_exception(QEL_LOG_ERROR, error_room_layout_file_missing,
                                    "%s does not exist. Please check if the path to your room "
                                    "configuration file is correct.",
                                    path);
        }
        throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE,
                                "%s does not exist. Please check the path to your room "
                                "configuration file is correct",
                                path);
    }
    std::ostringstream text;
    text << file.rdbuf();
    nlohmann::json document;
    try {
        document = parse_json_text(text.str());
    } catch (const nlohmann::json::exception&) {
        throw quelora_exception(QEL_LOG_ERROR, error_invalid_room_configuration,
                                "%s contains invalid JSON data.", path);
    }
    return std::make_unique<room_layout_set>(std::move(document));
}

} // namespace

std::unique_ptr<room_layout_set> load_room_layouts(const char* path, layout_loading mode) {
    if (mode == layout_loading::strict) {
        if (path == nullptr) return std::make_unique<room_layout_set>(fallback_room_document());
        return load_file(path, mode);
    }
    try {
        if (path == nullptr) {
            throw quelora_exception(QEL_LOG_WARNING, QEL_ERROR_INVALID_VALUE, "%s",
                                    "You disabled custom room layouts by using NULL for the room "
                                    "layout file path.");
        }
        return load_file(path, mode);
    } catch (const quelora_exception&) {
        // Already logged by its constructor.
    } catch (const nlohmann::json::exception& e) {
        // The JSON library's own message is the only account of the fault.
        qel_logger::get_logger().log(QEL_LOG_ERROR, "%s", e.what());
    }
    auto fallback = std::make_unique<room_layout_set>(fallback_room_document());
    qel_logger::get_logger().log(QEL_LOG_WARNING, "%s",
                                 "The library will still function but it will use the fallback "
                                 "room layout");
    return fallback;
}

} // namespace quelora
