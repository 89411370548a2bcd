// The library object behind a qel_handle: a thin owner of the configuration,
// the room layouts and the conference model. Every operation turns a
// quelora_exception into its code.
#pragma once

#include "api/quelora_exception.h"
#include "api/websocket_flavour.h"
#include "audio/filter_banks.h"
#include "audio/shared_filter_banks.h"
#include "conference/conference.h"
#include "config/library_configuration.h"
#include "config/room_layout.h"
#include "config/room_layout_loading.h"

#include <quelora/quelora.h>

#include <memory>

struct qel_library {
public:
    // Checks the configuration, loads the layouts, builds the conference and
    // the websocket server; throws quelora_exception (or the JSON library's
    // exception for a type error in a strict layout file).
    qel_library(const char* room_layout_file, const char* websocket_configuration_file,
                const qel_library_configuration& configuration, quelora::layout_loading mode);
    ~qel_library();
    qel_library(const qel_library&) = delete;
    qel_library& operator=(const qel_library&) = delete;

    const qel_library_configuration& configuration() const { return configuration_; }
    const quelora::processing_sizes& sizes() const { return sizes_; }
    const quelora::room_layout_set& layouts() const { return *layouts_; }
    quelora::conference& conference() { return *conference_; }
    // Null when none was built (no or a bad configuration, the client
    // flavour).
    quelora::events::qel_websocket_server* websocket_server() { return websocket_server_.get(); }

private:
    qel_library_configuration configuration_{};
    quelora::processing_sizes sizes_;
    // Declared before the conference: every room's listeners read them.
    // Shared with the process's other libraries of the same sizes.
    std::shared_ptr<const quelora::spatial_filter_bank> spatial_bank_;
    std::shared_ptr<const quelora::crosstalk_filter_bank> crosstalk_bank_;
    quelora::filter_banks banks_;
    std::unique_ptr<quelora::room_layout_set> layouts_;
    std::unique_ptr<quelora::conference> conference_;
    quelora::websocket_server_ptr websocket_server_;
};

namespace quelora {

// Runs an operation of the library object: a quelora_exception becomes its
// code (already logged); success is QEL_ERROR_NONE.
template <typename Operation>
int run_operation(Operation&& operation) {
    try {
        operation();
        return QEL_ERROR_NONE;
    } catch (const quelora_exception& e) {
        return e.error_code();
    }
}

} // namespace quelora
