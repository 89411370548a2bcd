// The filter banks a library builds once at initialisation and every
// listener shares read-only: the spatial bank of the binaural renderer and
// the crosstalk bank of the loudspeaker stage. They outlive every room.
#pragma once

namespace quelora {

class spatial_filter_bank;
class crosstalk_filter_bank;

struct filter_banks {
    const spatial_filter_bank* spatial = nullptr; // null: 3D listeners are mixed plainly
    const crosstalk_filter_bank* crosstalk =
        nullptr; // null: loudspeaker listeners get the mix as is
};

} // namespace quelora
