// What both flavours say when a library has no websocket server.
#include "api/websocket_flavour.h"

#include <quelora/qel_logger.h>

namespace quelora {

void log_no_websocket_server(layout_loading mode) {
    const char* const line = "The library will work properly except qel_enable_websockets and "
                             "qel_send_custom_websocket_event";
    if (mode == layout_loading::strict) {
        qel_logger::get_logger().log(QEL_LOG_ERROR, "%s.", line);
    } else {
        qel_logger::get_logger().log(QEL_LOG_WARNING, "%s", line);
    }
}

} // namespace quelora
