#include "api/library.h"

#include "audio/measured_hrtf.h"
#include "dsp/processor_dispatch.h"

qel_library::qel_library(const char* room_layout_file, const char* websocket_configuration_file,
                         const qel_library_configuration& configuration,
                         quelora::layout_loading mode) {
    // The configuration checks first, in their fixed order: nothing is built
    // for a configuration that fails.
    quelora::validate_library_configuration(configuration);
    // The layouts, then the room registry that points into them.
    layouts_ = quelora::load_room_layouts(room_layout_file, mode);
    configuration_ = configuration;
    conference_ = std::make_unique<quelora::conference>(*layouts_, configuration_, banks_);

    // The websocket server, if any (the flavour decides: api/websocket_flavour.h).
    websocket_server_ = quelora::construct_websocket_server(websocket_configuration_file, mode,
                                                            *conference_);

    // Processor feature detection for the kernels, once per process.
    quelora::dsp::initialize_processor_dispatch();
    sizes_ = quelora::derive_processing_sizes(configuration_);
    // The filter banks, derived from the measured responses compiled into
    // the library, cut and transformed for this quality and block size (or
    // those of a living library that has the same).
    const quelora::measured_hrtf_set& measured = quelora::measured_hrtf_set::compiled_in();
    spatial_bank_ = quelora::shared_spatial_bank(measured, sizes_.spatial_filter_length,
                                                 sizes_.processing_block, sizes_.transform_size);
    crosstalk_bank_ = quelora::shared_crosstalk_bank(measured);
    banks_ = {spatial_bank_.get(), crosstalk_bank_.get()};
}

// Teardown order: the rooms with all they own (and with them the list of
// registered tables), the layouts they point into, then the websocket
// server, whose I/O thread is stopped and joined. No notification can run
// any more: the host calls qel_destroy_library when no other thread uses the
// handle.
qel_library::~qel_library() {
    conference_.reset();
    layouts_.reset();
    websocket_server_.reset();
}
