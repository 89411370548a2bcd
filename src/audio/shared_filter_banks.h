// The filter banks of the libraries of one process: a library asks here for
// the spatial bank of its sizes and for the crosstalk bank, and shares them
// with every other living library that asked for the same. Banks are read
// only and depend on nothing but the measured set and the sizes, so sharing
// changes no output; it saves a second copy (88 MB at quality 5) and its
// build time when a host runs several libraries, or starts one while another
// with the same format lives. A bank is freed with the last library holding
// it.
//
// Threads: any number of libraries may be initialised at once; the lookup
// and any build run under one process-wide mutex, so two libraries asking
// for the same bank build it once.
#pragma once

#include "audio/crosstalk_filter_bank.h"
#include "audio/measured_hrtf.h"
#include "audio/spatial_filter_bank.h"

#include <cstdint>
#include <memory>

namespace quelora {

std::shared_ptr<const spatial_filter_bank> shared_spatial_bank(const measured_hrtf_set& measured,
                                                               int32_t filter_length,
                                                               int32_t block,
                                                               int32_t transform_size);

std::shared_ptr<const crosstalk_filter_bank> shared_crosstalk_bank(
    const measured_hrtf_set& measured);

} // namespace quelora
