// Fields of a JSON object from outside, read with their bounds.
#pragma once

#include <nlohmann/json_fwd.hpp>

#include <cstdint>
#include <initializer_list>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace serve {

// Reads one object. A field that is null counts as missing. Everything throws ProtocolError, which names the field,
// when a field is missing (unless a default is given), of another type, not finite or out of its range. The object must
// outlive its reader.
class Fields {
public:
    // `name` is that of the field that holds the object, for errors; empty for a message itself.
    Fields(const nlohmann::json& object, std::string name) : m_Object(object), m_Name(std::move(name)) {}

    // Refuses all fields but these.
    void Allow(std::initializer_list<std::string_view> names) const;
    bool Has(const char* name) const;

    double Number(const char* name, double low, double high, std::optional<double> otherwise = std::nullopt) const;
    int Whole(const char* name, int low, int high) const;
    // A number that the page makes up: 0 to 2^53.
    std::int64_t Id(const char* name) const;
    std::optional<std::int64_t> RequestIfAny() const;  // "request" when it is one, for answers to a wrong message
    bool Flag(const char* name, bool otherwise) const;
    std::string Text(const char* name, std::size_t longest) const;          // without control characters
    std::uint32_t Colour(const char* name, std::uint32_t otherwise) const;  // #RRGGBB
    std::vector<double> Numbers(const char* name, std::size_t count, double low, double high) const;
    // Lists of objects and of numbers may be missing, which is the same as empty.
    std::vector<Fields> Objects(const char* name, std::size_t most) const;
    std::vector<std::vector<double>> NumberLists(const char* name, std::size_t most, std::size_t count, double low,
                                                 double high) const;
    Fields Object(const char* name) const;

private:
    const nlohmann::json& Value(const char* name) const;
    const nlohmann::json* List(const char* name, std::size_t most) const;
    std::string Path(std::string_view name) const;  // how errors name the field
    [[noreturn]] void Refuse(std::string_view name, const std::string& why) const;

    const nlohmann::json& m_Object;
    std::string m_Name;
};

}  // namespace serve
