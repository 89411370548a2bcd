#include "room_picture.h"

#include "svg_document.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <cmath>

namespace quelora::conference {

namespace {

constexpr double pi = 3.14159265358979323846;

// Drawing sizes in room units (1 m = 100 units; the picture is to scale).
constexpr double margin = 85.0; // around the room, for names and arrows
constexpr double title_height = 42.0;
constexpr double legend_width = 330.0;
constexpr double pixels_per_unit = 2.0;
constexpr double marker_radius = 11.0;
// Arrows reach 45 units from their listener, so that the arrows of two
// neighbours a metre apart, pointing at each other, do not overlap.
constexpr double arrow_start = 19.0; // from the listener's centre, clear of its marker
constexpr double arrow_length = 26.0;
constexpr double font = 11.0;

struct point {
    double x = 0.0;
    double z = 0.0;
};

// A direction as a unit step in x and z: azimuth 0 along +z, 90 along +x.
point direction(double azimuth_degrees) {
    const double a = azimuth_degrees * pi / 180.0;
    return {std::sin(a), std::cos(a)};
}

struct layout_geometry {
    std::string name;
    bool open_room = false;
    point centre;
    std::vector<point> seats;
};

layout_geometry read_layout(qel_handle handle, int layout_id, bool open_room) {
    layout_geometry out;
    out.open_room = open_room;
    const auto document =
        nlohmann::json::parse(qel_get_json_all_room_layouts(handle), nullptr, false);
    if (!document.is_object() || !document.contains("room_list")) return out;
    for (const auto& [key, layout] : document["room_list"].items()) {
        if (!layout.is_object() || layout.value("id", -1) != layout_id) continue;
        out.name = key;
        const auto coordinates = [](const nlohmann::json& p) {
            return point{p.value("x", 0.0), p.value("z", 0.0)};
        };
        if (layout.contains("centerPoint")) out.centre = coordinates(layout["centerPoint"]);
        if (!open_room && layout.contains("seats") && layout["seats"].is_array()) {
            for (const auto& seat : layout["seats"]) out.seats.push_back(coordinates(seat));
        }
    }
    return out;
}

struct placed_participant {
    const participant_entry* entry = nullptr;
    size_t index = 0;
    point at;
    double heading = 0.0;
    int seat_index = -1;
};

// Room coordinates to picture coordinates: x to the right, z up the page.
struct page_mapping {
    double min_x;
    double max_z;
    std::pair<double, double> operator()(point p) const {
        return {p.x - min_x + margin, title_height + max_z - p.z + margin};
    }
};

void arrow(svg_document& svg, std::pair<double, double> from, point step, double length,
           const std::string& colour) {
    // The page's y grows downwards, the room's z upwards.
    const double dx = step.x;
    const double dy = -step.z;
    const double x1 = from.first + arrow_start * dx;
    const double y1 = from.second + arrow_start * dy;
    const double x2 = from.first + (arrow_start + length) * dx;
    const double y2 = from.second + (arrow_start + length) * dy;
    const double head = 9.0;
    svg.line(x1, y1, x2 - head * 0.6 * dx, y2 - head * 0.6 * dy, {colour, 2.2});
    svg.polygon({{x2, y2},
                 {x2 - head * dx - 4.5 * dy, y2 - head * dy + 4.5 * dx},
                 {x2 - head * dx + 4.5 * dy, y2 - head * dy - 4.5 * dx}},
                {"none", 0.0, colour});
}

void participant_marker(svg_document& svg, std::pair<double, double> at, double heading,
                        bool listener_only, const std::string& colour) {
    const auto [x, y] = at;
    if (listener_only) {
        svg.rect(x - marker_radius * 0.9, y - marker_radius * 0.9, marker_radius * 1.8,
                 marker_radius * 1.8, {"#222", 1.0, colour});
    } else {
        svg.circle(x, y, marker_radius, {"#222", 1.0, colour});
    }
    // The heading: a black wedge on the marker's rim.
    const point d = direction(heading);
    const double dx = d.x;
    const double dy = -d.z;
    const double tip = marker_radius + 7.0;
    svg.polygon(
        {{x + tip * dx, y + tip * dy},
         {x + marker_radius * 0.7 * dx - 5.0 * dy, y + marker_radius * 0.7 * dy + 5.0 * dx},
         {x + marker_radius * 0.7 * dx + 5.0 * dy, y + marker_radius * 0.7 * dy - 5.0 * dx}},
        {"none", 0.0, "#111"});
}

void grid(svg_document& svg, const page_mapping& map, double min_x, double max_x, double min_z,
          double max_z) {
    // Half-metre lines, the whole metres darker, over the drawing area.
    const double x0 = std::floor((min_x - margin) / 50.0) * 50.0;
    const double z0 = std::floor((min_z - margin) / 50.0) * 50.0;
    for (double x = x0; x <= max_x + margin; x += 50.0) {
        if (x < min_x - margin) continue;
        const auto top = map({x, max_z + margin});
        const auto bottom = map({x, min_z - margin});
        const bool metre = std::fmod(std::fabs(x), 100.0) < 1e-6;
        svg.line(top.first, top.second, bottom.first, bottom.second,
                 {metre ? "#d8d8d8" : "#eeeeee", metre ? 0.8 : 0.6});
    }
    for (double z = z0; z <= max_z + margin; z += 50.0) {
        if (z < min_z - margin) continue;
        const auto left = map({min_x - margin, z});
        const auto right = map({max_x + margin, z});
        const bool metre = std::fmod(std::fabs(z), 100.0) < 1e-6;
        svg.line(left.first, left.second, right.first, right.second,
                 {metre ? "#d8d8d8" : "#eeeeee", metre ? 0.8 : 0.6});
    }
}

void name_label(svg_document& svg, const page_mapping& map, const placed_participant& p,
                point centre, const std::string& colour) {
    point out{p.at.x - centre.x, p.at.z - centre.z};
    const double length = std::hypot(out.x, out.z);
    out = length > 1.0 ? point{out.x / length, out.z / length} : point{0.0, -1.0};
    const auto [x, y] = map({p.at.x + 30.0 * out.x, p.at.z + 30.0 * out.z});
    const text_anchor anchor = out.x > 0.35    ? text_anchor::start
                               : out.x < -0.35 ? text_anchor::end
                                               : text_anchor::middle;
    // Below the participant the two lines hang down, above they stack up.
    const double first = out.z < -0.35 ? y + font * 0.4 : y - font * 0.6;
    svg.text(x, first, p.entry->name, font + 1.0, anchor, colour, true);
    const std::string detail =
        (p.entry->talker_index < 0 ? std::string("listener only") : std::string("talker")) +
        (p.seat_index >= 0 ? ", seat " + std::to_string(p.seat_index) : "");
    svg.text(x, first + font * 1.05, detail, font * 0.8, anchor, "#555");
}

void legend(svg_document& svg, double x, double y, bool any_listener_only, bool open_room) {
    svg.text(x, y, "Legend", font + 1.0, text_anchor::start, "#222", true);
    y += 24.0;
    participant_marker(svg, {x + 12.0, y}, 90.0, false, participant_colour(0));
    svg.text(x + 34.0, y - 2.0, "a talker at its place; the black", font * 0.85);
    svg.text(x + 34.0, y + 10.0, "wedge shows where it faces", font * 0.85);
    y += 32.0;
    if (any_listener_only) {
        participant_marker(svg, {x + 12.0, y}, 90.0, true, "#999999");
        svg.text(x + 34.0, y + 3.0, "a listener-only participant", font * 0.85);
        y += 32.0;
    }
    if (!open_room) {
        svg.circle(x + 12.0, y, 15.0, {"#888", 1.0, "none", 1.0, "3 2"});
        svg.text(x + 34.0, y + 3.0, "a seat of the layout", font * 0.85);
        y += 32.0;
    }
    arrow(svg, {x - arrow_start + 2.0, y}, {1.0, 0.0}, 26.0, participant_colour(1));
    const char* const lines[] = {
        "where a listener hears a talker, in",       "the talker's colour: the azimuth from",
        "qel_get_participant_spherical, turned",     "by the listener's heading (clockwise,",
        "+90 = its right); it points at the talker", "when the library's directions are right"};
    for (const char* line : lines) {
        svg.text(x + 34.0, y + 3.0, line, font * 0.85);
        y += 12.0;
    }
    y += 14.0;
    svg.line(x + 4.0, y - 6.0, x + 20.0, y + 6.0, {"#444", 1.2});
    svg.line(x + 4.0, y + 6.0, x + 20.0, y - 6.0, {"#444", 1.2});
    svg.text(x + 34.0, y + 3.0, "the layout's centre point", font * 0.85);
    y += 30.0;
    // The scale bar: the picture is in room units, so 100 units long.
    svg.line(x, y, x + 100.0, y, {"#222", 2.0});
    svg.line(x, y - 5.0, x, y + 5.0, {"#222", 2.0});
    svg.line(x + 100.0, y - 5.0, x + 100.0, y + 5.0, {"#222", 2.0});
    svg.text(x + 50.0, y - 8.0, "1 m = 100 units", font * 0.85, text_anchor::middle);
    svg.text(x, y + 20.0, "grid: 0.5 m", font * 0.85, text_anchor::start, "#777");
}

} // namespace

bool write_room_picture(const std::string& path, const library_session& session,
                        std::string& message) {
    const qel_handle handle = session.handle();
    const uint32_t room = library_session::room_id;
    const layout_geometry layout = read_layout(handle, session.layout_id(), session.open_room());

    std::vector<placed_participant> placed;
    const auto& participants = session.participants();
    for (size_t i = 0; i < participants.size(); ++i) {
        placed_participant p;
        p.entry = &participants[i];
        p.index = i;
        qel_position position{};
        qel_heading heading{};
        if (qel_get_participant_position(handle, room, p.entry->id, &position, &heading) !=
            QEL_ERROR_NONE) {
            continue;
        }
        p.at = {static_cast<double>(position.x), static_cast<double>(position.z)};
        p.heading = heading.azimuth;
        qel_seat seat{};
        if (!session.open_room() &&
            qel_get_participant_seat(handle, room, p.entry->id, &seat) == QEL_ERROR_NONE) {
            p.seat_index = seat.seat_index;
        }
        placed.push_back(p);
    }

    double min_x = layout.centre.x, max_x = layout.centre.x;
    double min_z = layout.centre.z, max_z = layout.centre.z;
    const auto extend = [&](point p) {
        min_x = std::min(min_x, p.x);
        max_x = std::max(max_x, p.x);
        min_z = std::min(min_z, p.z);
        max_z = std::max(max_z, p.z);
    };
    for (const auto& seat : layout.seats) extend(seat);
    for (const auto& p : placed) extend(p.at);
    const page_mapping map{min_x, max_z};
    const double room_width = max_x - min_x + 2.0 * margin;
    const double room_height = max_z - min_z + 2.0 * margin;
    const double height = title_height + std::max(room_height, 360.0) + 10.0;
    svg_document svg(room_width + legend_width, height, pixels_per_unit);

    svg.text(10.0, 18.0,
             "Room from above: " + (layout.name.empty() ? std::string("layout") : layout.name) +
                 " (layout " + std::to_string(session.layout_id()) + ")" +
                 (layout.open_room ? ", an open room: the host placed everyone" : ""),
             font + 2.0, text_anchor::start, "#222", true);
    svg.text(10.0, 34.0, "x across, z up the page (y, up, is not drawn); to scale", font * 0.9,
             text_anchor::start, "#555");
    grid(svg, map, min_x, max_x, min_z, max_z);

    const auto [cx, cy] = map(layout.centre);
    svg.line(cx - 6.0, cy - 6.0, cx + 6.0, cy + 6.0, {"#444", 1.2});
    svg.line(cx - 6.0, cy + 6.0, cx + 6.0, cy - 6.0, {"#444", 1.2});
    for (const auto& seat : layout.seats) {
        const auto [x, y] = map(seat);
        svg.circle(x, y, 15.0, {"#888", 1.0, "none", 1.0, "3 2"});
    }

    for (const auto& listener : placed) {
        for (const auto& talker : placed) {
            if (talker.entry->id == listener.entry->id || talker.entry->talker_index < 0) continue;
            int32_t azimuth = 0, elevation = 0, distance = 0;
            if (qel_get_participant_spherical(handle, room, listener.entry->id, talker.entry->id,
                                              &azimuth, &elevation, &distance) != QEL_ERROR_NONE) {
                continue;
            }
            // Seen from above, a raised or lowered talker is that much nearer.
            const double length = arrow_length * std::cos(elevation * pi / 180.0);
            arrow(svg, map(listener.at), direction(listener.heading + azimuth), length,
                  participant_colour(talker.index));
        }
    }
    bool any_listener_only = false;
    for (const auto& p : placed) {
        const bool listener_only = p.entry->talker_index < 0;
        any_listener_only = any_listener_only || listener_only;
        const std::string colour = listener_only ? "#999999" : participant_colour(p.index);
        participant_marker(svg, map(p.at), p.heading, listener_only, colour);
        name_label(svg, map, p, layout.centre, listener_only ? "#555555" : colour);
    }
    legend(svg, room_width + 10.0, title_height + 20.0, any_listener_only, layout.open_room);
    return svg.write(path, message);
}

} // namespace quelora::conference
