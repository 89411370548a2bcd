// out/room.svg: the room from above, drawn from what the library reports.
// The layout's seats, every participant at its place with its heading, and
// from every listener one short arrow per talker, pointing where that
// listener hears the talker (qel_get_participant_spherical: azimuth relative
// to the listener's heading, clockwise). When the library's directions are
// right, each arrow points at the talker of its colour.
#pragma once

#include "library_session.h"

#include <string>

namespace quelora::conference {

bool write_room_picture(const std::string& path, const library_session& session,
                        std::string& message);

} // namespace quelora::conference
