#include "api/library.h"

#include "dsp/processor_dispatch.h"

#include <quelora/qel_logger.h>

namespace {

const char* const websocket_unavailable_line =
    "The library will work properly except qel_enable_websockets and "
    "qel_send_custom_websocket_event";

} // namespace

qel_library::qel_library(const char* room_layout_file, const char* websocket_configuration_file,
                         const qel_library_configuration& configuration,
                         quelora::layout_loading mode) {
    // Step 2: the checks, in their fixed order.
    quelora::validate_library_configuration(configuration);
    // Steps 3-4: the layouts, then the room registry that points into them.
    layouts_ = quelora::load_room_layouts(room_layout_file, mode);
    configuration_ = configuration;
    conference_ = std::make_unique<quelora::conference>(*layouts_, configuration_);

    // Step 5. The websocket server (Part 6.1) is not part of this build yet
    // (docs/status.md): no server is kept, and the host is told so exactly
    // as when no configuration is given.
    qel_logger& logger = qel_logger::get_logger();
    if (mode == quelora::layout_loading::strict) {
        (void)websocket_configuration_file;
        logger.log(QEL_LOG_ERROR, "%s.", websocket_unavailable_line);
    } else {
        logger.log(QEL_LOG_WARNING, "%s", websocket_unavailable_line);
    }

    // Step 6.
    quelora::dsp::initialize_processor_dispatch();
    // Step 7.
    sizes_ = quelora::derive_processing_sizes(configuration_);
    // Steps 8-9 build the spatial and speaker filter banks from the filter
    // data that the spatial-rendering issue supplies (docs/status.md).
}

qel_library::~qel_library() = default;
