// Where a library's room layouts come from: its file or the built-in fallback.
#pragma once

#include "config/room_layout.h"

#include <memory>

namespace quelora {

enum class layout_loading {
    strict,       // qel_initialize_library: a missing or bad file fails the initialisation
    fall_back,    // qel_initialize_library_from_memory: any fault falls back to the built-in layout
};

// A null path gives the fallback document (silently when strict). Strict
// failures throw quelora_exception (-9980, -9988) or, for type errors inside
// a layout, the JSON library's exception (docs/errors.md).
std::unique_ptr<room_layout_set> load_room_layouts(const char* path, layout_loading mode);

} // namespace quelora
