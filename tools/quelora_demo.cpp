// Quelora demo host: drives the control plane through the public C header
// the way a conferencing server would, and prints what every listener hears.
//
//   quelora_demo [--fallback | LAYOUT_FILE] [--layout ID] [--participants N]
//
// Until the audio path lands (docs/status.md) it stops at directions: it
// seats N talkers, moves one of them, and prints for each listener the
// azimuth, elevation and distance of every source.
#include <quelora/quelora.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct options {
    const char* layout_file = QUELORA_DEFAULT_LAYOUTS;
    int layout_id = -1; // -1: keep the layout a new room gets
    int participants = 4;
};

bool parse(int argc, char** argv, options& out) {
    for (int i = 1; i < argc; ++i) {
        const std::string arg = argv[i];
        if (arg == "--fallback") {
            out.layout_file = nullptr;
        } else if (arg == "--layout" && i + 1 < argc) {
            out.layout_id = std::atoi(argv[++i]);
        } else if (arg == "--participants" && i + 1 < argc) {
            out.participants = std::atoi(argv[++i]);
        } else if (arg == "-h" || arg == "--help") {
            return false;
        } else if (!arg.empty() && arg[0] != '-') {
            out.layout_file = argv[i];
        } else {
            return false;
        }
    }
    return out.participants >= 2 && out.participants <= 64;
}

bool check(int code, const char* what) {
    if (code == QEL_ERROR_NONE) return true;
    std::fprintf(stderr, "quelora_demo: %s failed: %s (%d)\n", what, qel_error_code_to_string(code), code);
    return false;
}

void print_places(qel_handle library, uint32_t room, const std::vector<uint32_t>& ids) {
    std::printf("\n%-12s %5s %7s %7s %7s %8s %9s\n", "participant", "seat", "x", "y", "z", "azimuth",
                "elevation");
    for (uint32_t id : ids) {
        qel_seat seat{};
        qel_get_participant_seat(library, room, id, &seat);
        char name[64] = {};
        qel_get_participant_name(library, room, id, name, sizeof name - 1);
        std::printf("%-12s %5d %7d %7d %7d %8d %9d\n", name, seat.seat_index, seat.x, seat.y, seat.z,
                    seat.azimuth, seat.elevation);
    }
}

void print_directions(qel_handle library, uint32_t room, const std::vector<uint32_t>& ids) {
    std::printf("\n%-12s %-12s %8s %9s %9s\n", "listener", "source", "azimuth", "elevation", "distance");
    for (uint32_t listener : ids) {
        char listener_name[64] = {};
        qel_get_participant_name(library, room, listener, listener_name, sizeof listener_name - 1);
        for (uint32_t source : ids) {
            if (source == listener) continue;
            char source_name[64] = {};
            qel_get_participant_name(library, room, source, source_name, sizeof source_name - 1);
            int32_t azimuth = 0, elevation = 0, distance = 0;
            if (!check(qel_get_participant_spherical(library, room, listener, source, &azimuth, &elevation,
                                                     &distance),
                       "qel_get_participant_spherical")) {
                continue;
            }
            std::printf("%-12s %-12s %8d %9d %9d\n", listener_name, source_name, azimuth, elevation, distance);
        }
    }
}

} // namespace

int main(int argc, char** argv) {
    options opts;
    if (!parse(argc, argv, opts)) {
        std::fprintf(stderr,
                     "usage: quelora_demo [--fallback | LAYOUT_FILE] [--layout ID] [--participants N (2-64)]\n");
        return 2;
    }
    const char* names[] = {"Ada", "Brahms", "Clara", "Dmitri", "Edda", "Farid", "Grete", "Hiro"};
    qel_enable_logging(true);
    qel_set_log_level(QEL_LOG_WARNING);

    int error = 0;
    const qel_library_configuration configuration{48000, 480, 2, false, 3};
    qel_handle library = qel_initialize_library(opts.layout_file, nullptr, configuration, &error);
    if (library == nullptr) {
        check(error, "qel_initialize_library");
        return 1;
    }
    std::printf("Quelora %s, room layouts from %s\n", qel_get_version(),
                opts.layout_file != nullptr ? opts.layout_file : "the built-in fallback");

    const uint32_t room = 1;
    bool ok = check(qel_create_room(library, room), "qel_create_room");
    if (ok && opts.layout_id >= 0) ok = check(qel_set_room_layout(library, room, opts.layout_id), "qel_set_room_layout");
    int layout_id = 0;
    if (ok) ok = check(qel_get_room_layout(library, room, &layout_id), "qel_get_room_layout");

    std::vector<uint32_t> ids;
    for (int i = 0; ok && i < opts.participants; ++i) {
        const uint32_t id = 100 + static_cast<uint32_t>(i);
        std::string name = names[i % 8];
        if (i >= 8) name += std::to_string(i / 8);
        ok = check(qel_add_participant(library, room, id, name.c_str(), {48000, 1, QEL_PARTICIPANT_REGULAR}),
                   "qel_add_participant");
        if (ok) ids.push_back(id);
    }
    if (ok) {
        std::printf("Room %u uses layout %d with %zu participants.\n", room, layout_id, ids.size());
        print_places(library, room, ids);
        print_directions(library, room, ids);

        // Move the first participant: to a free position in an open room,
        // else to the seat opposite its own.
        qel_seat seat{};
        qel_get_participant_seat(library, room, ids[0], &seat);
        if (seat.seat_index < 0) {
            ok = check(qel_set_participant_position(library, room, ids[0], {150, 0, 200}, {-30, 0}),
                       "qel_set_participant_position");
            std::printf("\nMoved %s to {150, 0, 200} facing azimuth -30.\n", names[0]);
        } else {
            const int target = static_cast<int>(ids.size()) + 1;
            ok = check(qel_set_participant_seat(library, room, ids[0], target), "qel_set_participant_seat");
            std::printf("\nMoved %s to seat %d.\n", names[0], target);
        }
        if (ok) {
            print_places(library, room, ids);
            print_directions(library, room, ids);
        }
    }
    check(qel_destroy_library(library), "qel_destroy_library");
    return ok ? 0 : 1;
}
