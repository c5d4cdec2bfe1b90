#include "apps/serve/checked_fields.h"

#include "apps/serve/protocol.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdio>

namespace serve {

namespace {

using Json = nlohmann::json;

std::string Shown(double number) {
    char text[32];
    std::snprintf(text, sizeof text, "%.9g", number);
    return text;
}

// A number within bounds; what is wrong with it otherwise.
std::string Trouble(const Json& value, double low, double high) {
    if (!value.is_number()) {
        return "is not a number";
    }
    const double number = value.get<double>();
    const bool inside = std::isfinite(number) && number >= low && number <= high;
    return inside ? "" : "is out of range (" + Shown(low) + " to " + Shown(high) + ")";
}

// Field names come from outside: what of them can stand in an error line.
std::string Printable(std::string_view name) {
    std::string text(name.substr(0, 40));
    std::replace_if(
        text.begin(), text.end(), [](unsigned char c) { return c < 32 || c > 126; }, '?');
    return text;
}

}  // namespace

std::string Fields::Path(std::string_view name) const {
    return m_Name.empty() ? Printable(name) : m_Name + "." + Printable(name);
}

void Fields::Refuse(std::string_view name, const std::string& why) const {
    throw ProtocolError(Path(name) + ": " + why);
}

void Fields::Allow(std::initializer_list<std::string_view> names) const {
    for (const auto& [name, value] : m_Object.items()) {
        if (std::find(names.begin(), names.end(), name) == names.end()) {
            Refuse(name, "there is no such field");
        }
    }
}

bool Fields::Has(const char* name) const {
    const auto found = m_Object.find(name);
    return found != m_Object.end() && !found->is_null();
}

const Json& Fields::Value(const char* name) const {
    const auto found = m_Object.find(name);
    if (found == m_Object.end()) {
        Refuse(name, "is missing");
    }
    return *found;
}

double Fields::Number(const char* name, double low, double high, std::optional<double> otherwise) const {
    if (otherwise && !Has(name)) {
        return *otherwise;
    }
    const Json& value = Value(name);
    if (const std::string trouble = Trouble(value, low, high); !trouble.empty()) {
        Refuse(name, trouble);
    }
    return value.get<double>();
}

int Fields::Whole(const char* name, int low, int high) const {
    const double number = Number(name, low, high);
    if (number != std::floor(number)) {
        Refuse(name, "is not a whole number");
    }
    return static_cast<int>(number);
}

std::int64_t Fields::Id(const char* name) const {
    constexpr double kGreatest = 9007199254740992.0;
    const double number = Number(name, 0.0, kGreatest);
    if (number != std::floor(number)) {
        Refuse(name, "is not a whole number");
    }
    return static_cast<std::int64_t>(number);
}

std::optional<std::int64_t> Fields::RequestIfAny() const {
    try {
        return Id("request");
    } catch (const ProtocolError&) {
        return std::nullopt;
    }
}

bool Fields::Flag(const char* name, bool otherwise) const {
    if (!Has(name)) {
        return otherwise;
    }
    const Json& value = Value(name);
    if (!value.is_boolean()) {
        Refuse(name, "is not true or false");
    }
    return value.get<bool>();
}

std::string Fields::Text(const char* name, std::size_t longest) const {
    const Json& value = Value(name);
    if (!value.is_string()) {
        Refuse(name, "is not a text");
    }
    const auto& text = value.get_ref<const std::string&>();
    if (text.size() > longest) {
        Refuse(name, "is too long (at most " + std::to_string(longest) + " bytes)");
    }
    if (std::any_of(text.begin(), text.end(), [](unsigned char c) { return c < 32 || c == 127; })) {
        Refuse(name, "holds control characters");
    }
    return text;
}

std::uint32_t Fields::Colour(const char* name, std::uint32_t otherwise) const {
    if (!Has(name)) {
        return otherwise;
    }
    const std::string text = Text(name, 7);
    std::uint32_t rgb = 0;
    const char* const end = text.data() + text.size();
    if (text.size() != 7 || text[0] != '#' || std::from_chars(text.data() + 1, end, rgb, 16).ptr != end) {
        Refuse(name, "is not a colour (write it as #RRGGBB)");
    }
    return rgb;
}

std::vector<double> Fields::Numbers(const char* name, std::size_t count, double low, double high) const {
    const Json& value = Value(name);
    if (!value.is_array() || value.size() != count) {
        Refuse(name, "is not a list of " + std::to_string(count) + " numbers");
    }
    std::vector<double> numbers;
    for (const Json& entry : value) {
        if (const std::string trouble = Trouble(entry, low, high); !trouble.empty()) {
            Refuse(name, trouble);
        }
        numbers.push_back(entry.get<double>());
    }
    return numbers;
}

const Json* Fields::List(const char* name, std::size_t most) const {
    if (!Has(name)) {
        return nullptr;
    }
    const Json& value = Value(name);
    if (!value.is_array() || value.size() > most) {
        Refuse(name, "is not a list of at most " + std::to_string(most));
    }
    return &value;
}

std::vector<Fields> Fields::Objects(const char* name, std::size_t most) const {
    std::vector<Fields> objects;
    if (const Json* const list = List(name, most)) {
        for (const Json& entry : *list) {
            if (!entry.is_object()) {
                Refuse(name, "holds something else than objects");
            }
            objects.emplace_back(entry, Path(name));
        }
    }
    return objects;
}

std::vector<std::vector<double>> Fields::NumberLists(const char* name, std::size_t most, std::size_t count, double low,
                                                     double high) const {
    std::vector<std::vector<double>> lists;
    if (const Json* const list = List(name, most)) {
        for (const Json& entry : *list) {
            const Json holder = {{name, entry}};
            lists.push_back(Fields(holder, m_Name).Numbers(name, count, low, high));
        }
    }
    return lists;
}

Fields Fields::Object(const char* name) const {
    const Json& value = Value(name);
    if (!value.is_object()) {
        Refuse(name, "is not an object");
    }
    return {value, Path(name)};
}

}  // namespace serve
