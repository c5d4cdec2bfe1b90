#include "scene/markups.h"

#include <nlohmann/json.hpp>

namespace scene {

namespace {

// Viewers read a file only when this line names a version that they know.
constexpr char kSchema[] =
    "https://raw.githubusercontent.com/slicer/slicer/master/Modules/Loadable/Markups/Resources/Schema/"
    "markups-schema-v1.0.3.json#";

}  // namespace

std::string MarkupsJson(const std::vector<MarkedPoint>& points) {
    nlohmann::ordered_json list;
    list["type"] = "Fiducial";
    list["coordinateSystem"] = "LPS";
    list["coordinateUnits"] = "mm";
    list["controlPoints"] = nlohmann::ordered_json::array();
    for (std::size_t i = 0; i < points.size(); ++i) {
        list["controlPoints"].push_back({{"id", std::to_string(i + 1)},
                                         {"label", points[i].label},
                                         {"description", points[i].description},
                                         {"position", ToArray(points[i].position_mm)},
                                         {"positionStatus", "defined"}});
    }
    nlohmann::ordered_json file;
    file["@schema"] = kSchema;
    file["markups"] = nlohmann::ordered_json::array({std::move(list)});
    return file.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace) + "\n";
}

}  // namespace scene
