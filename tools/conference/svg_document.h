// A small SVG writer for the simulator's pictures: shapes and text in user
// units, written as plain SVG 1.1 text that any browser or rsvg-convert shows.
#pragma once

#include <cstddef>
#include <string>
#include <utility>
#include <vector>

namespace quelora::conference {

struct svg_style {
    svg_style(std::string stroke_colour = "none", double width = 1.0,
              std::string fill_colour = "none", double fill_opacity = 1.0,
              std::string dash_array = "")
        : stroke(std::move(stroke_colour)), stroke_width(width), fill(std::move(fill_colour)),
          opacity(fill_opacity), dash(std::move(dash_array)) {}

    std::string stroke;
    double stroke_width;
    std::string fill;
    double opacity;
    std::string dash; // stroke-dasharray, empty for a solid line
};

enum class text_anchor { start, middle, end };

class svg_document {
public:
    // width x height user units, shown at pixels_per_unit pixels each.
    svg_document(double width, double height, double pixels_per_unit);

    void line(double x1, double y1, double x2, double y2, const svg_style& style);
    void polyline(const std::vector<std::pair<double, double>>& points, const svg_style& style);
    void polygon(const std::vector<std::pair<double, double>>& points, const svg_style& style);
    void circle(double cx, double cy, double r, const svg_style& style);
    void rect(double x, double y, double width, double height, const svg_style& style);
    void text(double x, double y, const std::string& content, double size,
              text_anchor anchor = text_anchor::start, const std::string& colour = "#222",
              bool bold = false);
    // Text turned 90 degrees anticlockwise about (x, y), for a vertical axis.
    void vertical_text(double x, double y, const std::string& content, double size);

    bool write(const std::string& path, std::string& message) const;

private:
    std::string body_;
    double width_;
    double height_;
    double pixels_per_unit_;
};

// The colour of participant `index` (in join order) in every picture.
const char* participant_colour(size_t index);

// Shortest decimal text of a coordinate (two decimals at most).
std::string svg_number(double value);

} // namespace quelora::conference
