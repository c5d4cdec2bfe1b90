// The JSON form of transfer functions.
#include "scene/error.h"
#include "scene/transfer_function.h"

#include <nlohmann/json.hpp>

#include <cmath>

namespace scene {

namespace {

using Json = nlohmann::ordered_json;

[[noreturn]] void Refuse(const std::string& subject, const std::string& why) {
    throw Error(ErrorKind::kInput, subject, why, "volr presets --dump NAME writes an example");
}

// A list of rows of `columns` finite numbers, ascending in the first.
std::vector<std::vector<double>> Rows(const Json& json, const char* key, std::size_t columns,
                                      const std::string& subject) {
    if (!json.contains(key) || !json[key].is_array() || json[key].empty()) {
        Refuse(subject, std::string("has no list \"") + key + "\"");
    }
    std::vector<std::vector<double>> rows;
    for (const Json& row : json[key]) {
        const std::string where = std::string("\"") + key + "\" entry " + std::to_string(rows.size() + 1);
        if (!row.is_array() || row.size() != columns) {
            Refuse(subject, where + " is not a list of " + std::to_string(columns) + " numbers");
        }
        std::vector<double> numbers;
        for (const Json& n : row) {
            if (!n.is_number() || !std::isfinite(n.get<double>())) {
                Refuse(subject, where + " holds something that is not a number");
            }
            numbers.push_back(n.get<double>());
            if (numbers.size() > 1 && (numbers.back() < 0.0 || numbers.back() > 1.0)) {
                Refuse(subject, where + " holds a number outside 0 to 1");
            }
        }
        if (!rows.empty() && numbers[0] < rows.back()[0]) {
            Refuse(subject, where + " is out of order: values must ascend");
        }
        rows.push_back(std::move(numbers));
    }
    return rows;
}

double LightingWeight(const Json& lighting, const char* key, double fallback, const std::string& subject) {
    if (!lighting.contains(key)) {
        return fallback;
    }
    if (!lighting[key].is_number() || lighting[key].get<double>() < 0.0 || lighting[key].get<double>() > 1.0) {
        Refuse(subject, std::string("\"lighting\": \"") + key + "\" is not a number from 0 to 1");
    }
    return lighting[key].get<double>();
}

std::string Text(const Json& json, const char* key) {
    return json.contains(key) && json[key].is_string() ? json[key].get<std::string>() : std::string();
}

}  // namespace

std::string ToJson(const TransferFunction& function) {
    Json json;
    json["name"] = function.name;
    if (!function.description.empty()) {
        json["description"] = function.description;
    }
    if (function.relative) {
        json["values"] = "relative";
    }
    json["opacity"] = Json::array();
    for (const OpacityPoint& p : function.opacity) {
        json["opacity"].push_back({p.value, p.opacity_per_mm});
    }
    json["colour"] = Json::array();
    for (const ColourPoint& p : function.colour) {
        json["colour"].push_back({p.value, p.red, p.green, p.blue});
    }
    json["lighting"] = {{"ambient", function.lighting.ambient},
                        {"diffuse", function.lighting.diffuse},
                        {"specular", function.lighting.specular}};
    return json.dump(2) + "\n";
}

TransferFunction TransferFromJson(std::string_view text, const std::string& subject) {
    const Json json = Json::parse(text, nullptr, false);
    if (json.is_discarded() || !json.is_object()) {
        Refuse(subject, "is not a JSON object");
    }
    TransferFunction function;
    function.name = Text(json, "name");
    function.description = Text(json, "description");
    const std::string values = Text(json, "values");
    if (!values.empty() && values != "own" && values != "relative") {
        Refuse(subject, "\"values\" is neither \"own\" nor \"relative\"");
    }
    function.relative = values == "relative";
    for (const std::vector<double>& row : Rows(json, "opacity", 2, subject)) {
        function.opacity.push_back({row[0], row[1]});
    }
    for (const std::vector<double>& row : Rows(json, "colour", 4, subject)) {
        function.colour.push_back({row[0], row[1], row[2], row[3]});
    }
    if (json.contains("lighting")) {
        const Json& lighting = json["lighting"];
        if (!lighting.is_object()) {
            Refuse(subject, "\"lighting\" is not an object");
        }
        function.lighting = {LightingWeight(lighting, "ambient", function.lighting.ambient, subject),
                             LightingWeight(lighting, "diffuse", function.lighting.diffuse, subject),
                             LightingWeight(lighting, "specular", function.lighting.specular, subject)};
    }
    return function;
}

}  // namespace scene
