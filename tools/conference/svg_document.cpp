#include "svg_document.h"

#include <cstdio>
#include <fstream>

namespace quelora::conference {

namespace {

std::string escaped(const std::string& text) {
    std::string out;
    for (char c : text) {
        switch (c) {
        case '&': out += "&amp;"; break;
        case '<': out += "&lt;"; break;
        case '>': out += "&gt;"; break;
        case '"': out += "&quot;"; break;
        default: out += c;
        }
    }
    return out;
}

std::string attributes(const svg_style& style) {
    std::string out = " stroke=\"" + style.stroke + "\" stroke-width=\"" +
                      svg_number(style.stroke_width) + "\" fill=\"" + style.fill + "\"";
    if (style.opacity < 1.0) out += " opacity=\"" + svg_number(style.opacity) + "\"";
    if (!style.dash.empty()) out += " stroke-dasharray=\"" + style.dash + "\"";
    return out;
}

std::string point_list(const std::vector<std::pair<double, double>>& points) {
    std::string out;
    for (const auto& [x, y] : points) {
        if (!out.empty()) out += ' ';
        out += svg_number(x) + "," + svg_number(y);
    }
    return out;
}

} // namespace

const char* participant_colour(size_t index) {
    // Eight colours told apart with most kinds of colour blindness too.
    static const char* const colours[] = {"#0072b2", "#d55e00", "#009e73", "#cc79a7",
                                          "#e69f00", "#56b4e9", "#7f7f00", "#000000"};
    return colours[index % 8];
}

std::string svg_number(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f", value);
    std::string out = text;
    while (out.back() == '0') out.pop_back();
    if (out.back() == '.') out.pop_back();
    return out == "-0" ? "0" : out;
}

svg_document::svg_document(double width, double height, double pixels_per_unit)
    : width_(width), height_(height), pixels_per_unit_(pixels_per_unit) {}

void svg_document::line(double x1, double y1, double x2, double y2, const svg_style& style) {
    body_ += "<line x1=\"" + svg_number(x1) + "\" y1=\"" + svg_number(y1) + "\" x2=\"" +
             svg_number(x2) + "\" y2=\"" + svg_number(y2) + "\"" + attributes(style) +
             " stroke-linecap=\"round\"/>\n";
}

void svg_document::polyline(const std::vector<std::pair<double, double>>& points,
                            const svg_style& style) {
    body_ += "<polyline points=\"" + point_list(points) + "\"" + attributes(style) +
             " stroke-linejoin=\"round\"/>\n";
}

void svg_document::polygon(const std::vector<std::pair<double, double>>& points,
                           const svg_style& style) {
    body_ += "<polygon points=\"" + point_list(points) + "\"" + attributes(style) + "/>\n";
}

void svg_document::circle(double cx, double cy, double r, const svg_style& style) {
    body_ += "<circle cx=\"" + svg_number(cx) + "\" cy=\"" + svg_number(cy) + "\" r=\"" +
             svg_number(r) + "\"" + attributes(style) + "/>\n";
}

void svg_document::rect(double x, double y, double width, double height, const svg_style& style) {
    body_ += "<rect x=\"" + svg_number(x) + "\" y=\"" + svg_number(y) + "\" width=\"" +
             svg_number(width) + "\" height=\"" + svg_number(height) + "\"" + attributes(style) +
             "/>\n";
}

void svg_document::text(double x, double y, const std::string& content, double size,
                        text_anchor anchor, const std::string& colour, bool bold) {
    static const char* const anchors[] = {"start", "middle", "end"};
    body_ += "<text x=\"" + svg_number(x) + "\" y=\"" + svg_number(y) + "\" font-size=\"" +
             svg_number(size) + "\" text-anchor=\"" + anchors[static_cast<int>(anchor)] +
             "\" fill=\"" + colour + "\"" + (bold ? " font-weight=\"bold\"" : "") + ">" +
             escaped(content) + "</text>\n";
}

void svg_document::vertical_text(double x, double y, const std::string& content, double size) {
    body_ += "<text x=\"0\" y=\"0\" font-size=\"" + svg_number(size) +
             "\" text-anchor=\"middle\" fill=\"#222\" transform=\"translate(" + svg_number(x) +
             " " + svg_number(y) + ") rotate(-90)\">" + escaped(content) + "</text>\n";
}

bool svg_document::write(const std::string& path, std::string& message) const {
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << "<?xml version=\"1.0\" encoding=\"UTF-8\"?>\n"
         << "<svg xmlns=\"http://www.w3.org/2000/svg\" version=\"1.1\" width=\""
         << svg_number(width_ * pixels_per_unit_) << "\" height=\""
         << svg_number(height_ * pixels_per_unit_) << "\" viewBox=\"0 0 " << svg_number(width_)
         << " " << svg_number(height_)
         << "\" font-family=\"DejaVu Sans, Helvetica, Arial, sans-serif\">\n"
         << "<rect x=\"0\" y=\"0\" width=\"" << svg_number(width_) << "\" height=\""
         << svg_number(height_) << "\" fill=\"white\"/>\n"
         << body_ << "</svg>\n";
    file.close();
    if (!file) {
        message = path + ": could not be written";
        return false;
    }
    return true;
}

} // namespace quelora::conference
