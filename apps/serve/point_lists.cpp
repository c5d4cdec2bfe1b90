#include "apps/serve/point_lists.h"

#include "scene/markups.h"

#include <algorithm>
#include <cstdio>
#include <iterator>

namespace serve {

namespace {

std::string Quoted(const std::string& text) {
    const bool formula = !text.empty() && std::string("=+-@").find(text[0]) != std::string::npos;
    std::string quoted = formula ? "\"'" : "\"";
    for (const char c : text) {
        quoted += c == '"' ? "\"\"" : std::string(1, c);
    }
    return quoted + "\"";
}

}  // namespace

std::string PointsMarkups(const std::vector<ExportedPoint>& points) {
    std::vector<scene::MarkedPoint> marked;
    std::transform(points.begin(), points.end(), std::back_inserter(marked), [](const ExportedPoint& p) {
        return scene::MarkedPoint{p.position_mm, p.label, p.description};
    });
    return scene::MarkupsJson(marked);
}

std::string PointsCsv(const std::vector<ExportedPoint>& points) {
    std::string csv = "label,x_lps_mm,y_lps_mm,z_lps_mm,description\r\n";
    for (const ExportedPoint& p : points) {
        char numbers[96];
        std::snprintf(numbers, sizeof numbers, ",%.3f,%.3f,%.3f,", p.position_mm.x, p.position_mm.y, p.position_mm.z);
        csv += Quoted(p.label) + numbers + Quoted(p.description) + "\r\n";
    }
    return csv;
}

}  // namespace serve
