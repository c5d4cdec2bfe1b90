// Transfer functions: which colour and opacity a voxel value gets, and the tables that the ray caster reads.
#pragma once

#include <array>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace scene {

struct OpacityPoint {
    double value;
    double opacity_per_mm;  // 0 to 1: what a layer 1 mm thick hides
};

struct ColourPoint {
    double value;
    double red, green, blue;  // 0 to 1
};

// Weights of the shading terms: a surface that faces the light shows colour * (ambient + diffuse) plus a white
// highlight.
struct Lighting {
    double ambient = 0.3;
    double diffuse = 0.75;
    double specular = 0.25;
};

// Piecewise linear over values, constant beyond the ends. Points are in ascending order of value; two points of one
// value make a step.
struct TransferFunction {
    std::string name;
    std::string description;
    // Values are in the data's own unit (HU for CT); or, when relative, 0 is the data's background and 1 the top of its
    // window (MR has no unit).
    bool relative = false;
    std::vector<OpacityPoint> opacity;
    std::vector<ColourPoint> colour;
    Lighting lighting;
};

double OpacityAt(const TransferFunction& function, double value);                // per mm
std::array<double, 3> ColourAt(const TransferFunction& function, double value);  // red, green, blue

// The function with its values moved by `shift` (own unit) and its opacities multiplied by `opacity_factor`, at most 1.
TransferFunction Adjusted(TransferFunction function, double shift, double opacity_factor);

// A relative function over the values between `background` and `top`; others unchanged.
TransferFunction Resolved(TransferFunction function, double background, double top);

// One colour for all values at and above `from_value`, of one opacity; nothing below.
TransferFunction UniformColour(std::uint32_t rgb, double opacity_per_mm, double from_value);

// Our JSON form: name, opacity [[value, opacity per mm], ...], colour [[value, r, g, b], ...], lighting {ambient,
// diffuse, specular}; optional: description, values "own" or "relative". ToJson writes what FromJson reads.
std::string ToJson(const TransferFunction& function);
// `subject` names the text in errors. Throws Error of the input kind, which says what is wrong where.
TransferFunction TransferFromJson(std::string_view text, const std::string& subject);

// How stored 16-bit values map to rescaled ones.
struct StoredValues {
    bool is_signed = true;
    int bits = 16;  // 1 to 16; a table has 2^bits entries
    double slope = 1.0;
    double intercept = 0.0;
};

// The tables of one transfer function as the ray caster takes them.
//
//   index       0 ........ 2^(bits-1) ........ 2^bits - 1
//   signed      lowest     stored value 0      highest        Colours() points at the middle
//   unsigned    value 0                        highest        Colours() points at the start
//
// A colour entry is 0xAARRGGBB, AA the opacity of 1 mm times 255. Weights are the diffuse, specular and ambient weight,
// 16 bits each from the low end, 65535 for 1; the same for every value, so they can be read from either origin.
class TransferTables {
public:
    TransferTables(const TransferFunction& function, const StoredValues& values);

    const std::uint32_t* Colours() const { return m_Colours.data() + m_Origin; }
    const unsigned long long* Weights() const { return m_Weights.data() + m_Weights.size() / 2; }
    bool HasVisibleEntry() const { return m_HasVisibleEntry; }

private:
    std::vector<std::uint32_t> m_Colours;
    std::vector<unsigned long long> m_Weights;
    std::size_t m_Origin = 0;
    bool m_HasVisibleEntry = false;
};

}  // namespace scene
