#include "scene/preset_file.h"

#include "scene/error.h"

#include <expat.h>
#include <nlohmann/json.hpp>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
#include <map>
#include <memory>
#include <optional>
#include <vector>

namespace scene {

namespace {

using Attributes = std::map<std::string, std::string>;

[[noreturn]] void Refuse(const std::string& subject, const std::string& why) {
    throw Error(ErrorKind::kInput, subject, why, "name a preset file: JSON, volume-property XML or .vp");
}

std::optional<double> ToNumber(std::string_view text) {
    double number = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size() && std::isfinite(number);
    return whole ? std::optional(number) : std::nullopt;
}

// Numbers between blanks.
std::vector<double> Numbers(std::string_view text, const std::string& subject) {
    constexpr std::string_view kBlanks = " \t\r\n";
    std::vector<double> numbers;
    for (std::size_t from = text.find_first_not_of(kBlanks); from != std::string_view::npos;) {
        const std::size_t to = std::min(text.find_first_of(kBlanks, from), text.size());
        const std::optional<double> number = ToNumber(text.substr(from, to - from));
        if (!number) {
            Refuse(subject, "holds \"" + std::string(text.substr(from, std::min<std::size_t>(to - from, 20))) +
                                "\" where a number should be");
        }
        numbers.push_back(*number);
        from = text.find_first_not_of(kBlanks, to);
    }
    return numbers;
}

// "COUNT numbers..." in groups; the count comes first.
std::vector<double> CountedNumbers(std::string_view text, std::size_t group, const char* what,
                                   const std::string& subject) {
    std::vector<double> numbers = Numbers(text, subject);
    const bool consistent = numbers.size() > group && numbers[0] == static_cast<double>(numbers.size() - 1) &&
                            (numbers.size() - 1) % group == 0;
    if (!consistent) {
        Refuse(subject, std::string(what) + " is not a count and as many numbers");
    }
    numbers.erase(numbers.begin());
    return numbers;
}

double Share(double v) {
    return std::clamp(v, 0.0, 1.0);
}

// Points from groups of numbers, of which the first is the value and the second the opacity.
std::vector<OpacityPoint> OpacityPoints(const std::vector<double>& numbers, std::size_t group) {
    std::vector<OpacityPoint> points;
    for (std::size_t i = 0; i + group <= numbers.size(); i += group) {
        points.push_back({numbers[i], Share(numbers[i + 1])});
    }
    std::stable_sort(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.value < b.value; });
    return points;
}

std::vector<ColourPoint> ColourPoints(const std::vector<double>& numbers) {
    std::vector<ColourPoint> points;
    for (std::size_t i = 0; i + 4 <= numbers.size(); i += 4) {
        points.push_back({numbers[i], Share(numbers[i + 1]), Share(numbers[i + 2]), Share(numbers[i + 3])});
    }
    std::stable_sort(points.begin(), points.end(), [](const auto& a, const auto& b) { return a.value < b.value; });
    return points;
}

// The weights of a volume property; without shading colours stand as they are.
Lighting PropertyLighting(const Attributes& attributes, const std::string& subject) {
    Lighting lighting;
    const auto weight = [&](const char* name, double fallback) {
        const auto found = attributes.find(name);
        if (found == attributes.end()) {
            return fallback;
        }
        const std::vector<double> numbers = Numbers(found->second, subject);
        return numbers.empty() ? fallback : Share(numbers[0]);
    };
    lighting = {weight("ambient", lighting.ambient), weight("diffuse", lighting.diffuse),
                weight("specular", lighting.specular)};
    return weight("shade", 1.0) == 0.0 ? Lighting{1.0, 0.0, 0.0} : lighting;
}

TransferFunction FromProperty(const Attributes& attributes, const std::string& subject) {
    TransferFunction function;
    const auto name = attributes.find("name");
    function.name = name != attributes.end() ? name->second : "";
    function.opacity = OpacityPoints(CountedNumbers(attributes.at("scalarOpacity"), 2, "the opacity", subject), 2);
    function.colour = ColourPoints(CountedNumbers(attributes.at("colorTransfer"), 4, "the colour", subject));
    function.lighting = PropertyLighting(attributes, subject);
    return function;
}

// Keeps the attributes of the first element that has what a volume property has.
void OnElement(void* result, const XML_Char*, const XML_Char** pairs) {
    Attributes attributes;
    for (; pairs[0] != nullptr; pairs += 2) {
        attributes[pairs[0]] = pairs[1];
    }
    auto& kept = *static_cast<Attributes*>(result);
    if (kept.empty() && attributes.contains("scalarOpacity") && attributes.contains("colorTransfer")) {
        kept = std::move(attributes);
    }
}

TransferFunction FromXml(std::string_view content, const std::string& subject) {
    const std::unique_ptr<XML_ParserStruct, decltype(&XML_ParserFree)> parser(XML_ParserCreate(nullptr),
                                                                              &XML_ParserFree);
    if (parser == nullptr) {
        throw std::bad_alloc();
    }
    Attributes attributes;
    XML_SetUserData(parser.get(), &attributes);
    XML_SetStartElementHandler(parser.get(), OnElement);
    if (XML_Parse(parser.get(), content.data(), static_cast<int>(content.size()), 1) != XML_STATUS_OK) {
        Refuse(subject, "is not valid XML at line " + std::to_string(XML_GetCurrentLineNumber(parser.get())));
    }
    if (attributes.empty()) {
        Refuse(subject, "holds no element with scalarOpacity and colorTransfer");
    }
    return FromProperty(attributes, subject);
}

TransferFunction FromPropertyText(std::string_view content, const std::string& subject) {
    constexpr std::array<const char*, 9> kLines = {"interpolation", "shade",           "diffuse",
                                                   "ambient",       "specular",        "power",
                                                   "scalarOpacity", "gradientOpacity", "colorTransfer"};
    Attributes attributes;
    std::size_t from = 0;
    for (const char* name : kLines) {
        if (from >= content.size()) {
            Refuse(subject, "ends before its nine lines");
        }
        const std::size_t to = std::min(content.find('\n', from), content.size());
        attributes[name] = std::string(content.substr(from, to - from));
        from = to + 1;
    }
    return FromProperty(attributes, subject);
}

std::vector<double> JsonNumbers(const nlohmann::json& map, const char* key, std::size_t group,
                                const std::string& subject) {
    std::vector<double> numbers;
    for (const nlohmann::json& n : map[key]) {
        if (!n.is_number() || !std::isfinite(n.get<double>())) {
            Refuse(subject, std::string("\"") + key + "\" holds something that is not a number");
        }
        numbers.push_back(n.get<double>());
    }
    if (numbers.empty() || numbers.size() % group != 0) {
        Refuse(subject, std::string("\"") + key + "\" does not hold groups of " + std::to_string(group) + " numbers");
    }
    return numbers;
}

TransferFunction FromColourMap(const nlohmann::json& map, const std::string& subject) {
    TransferFunction function;
    function.name = map.contains("Name") && map["Name"].is_string() ? map["Name"].get<std::string>() : "";
    function.colour = ColourPoints(JsonNumbers(map, "RGBPoints", 4, subject));
    if (map.contains("Points")) {
        function.opacity = OpacityPoints(JsonNumbers(map, "Points", 4, subject), 4);
    } else {
        function.opacity = {{function.colour.front().value, 0.0}, {function.colour.back().value, 1.0}};
    }
    return function;
}

}  // namespace

TransferFunction TransferFromFile(std::string_view content, const std::string& subject) {
    const std::size_t first = content.find_first_not_of(" \t\r\n");
    const char kind = first == std::string_view::npos ? '\0' : content[first];
    if (kind == '<') {
        return FromXml(content, subject);
    }
    if (kind != '{' && kind != '[') {
        return FromPropertyText(content, subject);
    }
    nlohmann::json json = nlohmann::json::parse(content, nullptr, false);
    if (json.is_array() && !json.empty()) {
        json = nlohmann::json(json.front());
    }
    if (json.is_object() && json.contains("RGBPoints")) {
        return FromColourMap(json, subject);
    }
    return TransferFromJson(content, subject);
}

}  // namespace scene
