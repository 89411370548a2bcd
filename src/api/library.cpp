#include "api/library.h"

#include "dsp/processor_dispatch.h"

qel_library::qel_library(const char* room_layout_file, const char* websocket_configuration_file,
                         const qel_library_configuration& configuration,
                         quelora::layout_loading mode) {
    // Step 2: the checks, in their fixed order.
    quelora::validate_library_configuration(configuration);
    // Steps 3-4: the layouts, then the room registry that points into them.
    layouts_ = quelora::load_room_layouts(room_layout_file, mode);
    configuration_ = configuration;
    conference_ = std::make_unique<quelora::conference>(*layouts_, configuration_);

    // Step 5 (the flavour decides: api/websocket_flavour.h).
    websocket_server_ = quelora::construct_websocket_server(websocket_configuration_file, mode,
                                                            *conference_);

    // Step 6.
    quelora::dsp::initialize_processor_dispatch();
    // Step 7.
    sizes_ = quelora::derive_processing_sizes(configuration_);
    // Steps 8-9 build the spatial and speaker filter banks from the filter
    // data that the spatial-rendering issue supplies (docs/status.md).
}

// Part 1.1 teardown order: the rooms with all they own (and with them the
// list of registered tables), the layouts, then the websocket server, whose
// I/O thread is stopped and joined. No notification can run any more: the
// host calls qel_destroy_library when no other thread uses the handle.
qel_library::~qel_library() {
    conference_.reset();
    layouts_.reset();
    websocket_server_.reset();
}
