#include "scene/transfer_function.h"

#include <algorithm>
#include <cmath>

namespace scene {

namespace {

// The two points around a value and the share of the second; both the same beyond the ends.
struct Bracket {
    std::size_t below;
    std::size_t above;
    double share;
};

template <class Point>
Bracket Locate(const std::vector<Point>& points, double value) {
    const auto after =
        std::upper_bound(points.begin(), points.end(), value, [](double v, const Point& p) { return v < p.value; });
    const auto above = static_cast<std::size_t>(after - points.begin());
    if (above == 0 || above == points.size()) {
        const std::size_t end = above == 0 ? 0 : points.size() - 1;
        return {end, end, 0.0};
    }
    const double width = points[above].value - points[above - 1].value;
    return {above - 1, above, (value - points[above - 1].value) / width};
}

double Interpolated(double a, double b, double share) {
    return a + (b - a) * share;
}

std::uint32_t Byte(double v) {
    return static_cast<std::uint32_t>(std::lround(std::clamp(v, 0.0, 1.0) * 255.0));
}

unsigned long long Weight(double w) {
    return static_cast<unsigned long long>(std::lround(std::clamp(w, 0.0, 1.0) * 65535.0));
}

}  // namespace

double OpacityAt(const TransferFunction& function, double value) {
    if (function.opacity.empty()) {
        return 0.0;
    }
    const Bracket b = Locate(function.opacity, value);
    return Interpolated(function.opacity[b.below].opacity_per_mm, function.opacity[b.above].opacity_per_mm, b.share);
}

std::array<double, 3> ColourAt(const TransferFunction& function, double value) {
    if (function.colour.empty()) {
        return {1.0, 1.0, 1.0};
    }
    const Bracket b = Locate(function.colour, value);
    const ColourPoint& p = function.colour[b.below];
    const ColourPoint& q = function.colour[b.above];
    return {Interpolated(p.red, q.red, b.share), Interpolated(p.green, q.green, b.share),
            Interpolated(p.blue, q.blue, b.share)};
}

TransferFunction Adjusted(TransferFunction function, double shift, double opacity_factor) {
    for (OpacityPoint& p : function.opacity) {
        p.value += shift;
        p.opacity_per_mm = std::min(1.0, p.opacity_per_mm * opacity_factor);
    }
    for (ColourPoint& p : function.colour) {
        p.value += shift;
    }
    return function;
}

TransferFunction Resolved(TransferFunction function, double background, double top) {
    if (!function.relative) {
        return function;
    }
    for (OpacityPoint& p : function.opacity) {
        p.value = background + p.value * (top - background);
    }
    for (ColourPoint& p : function.colour) {
        p.value = background + p.value * (top - background);
    }
    function.relative = false;
    return function;
}

TransferFunction UniformColour(std::uint32_t rgb, double opacity_per_mm, double from_value) {
    TransferFunction function;
    function.name = "uniform";
    function.opacity = {{from_value, 0.0}, {from_value, opacity_per_mm}};
    function.colour = {{from_value, (rgb >> 16 & 255) / 255.0, (rgb >> 8 & 255) / 255.0, (rgb & 255) / 255.0}};
    return function;
}

TransferTables::TransferTables(const TransferFunction& function, const StoredValues& values) {
    const std::size_t count = std::size_t{1} << values.bits;
    m_Origin = values.is_signed ? count / 2 : 0;
    m_Colours.resize(count);
    for (std::size_t i = 0; i < count; ++i) {
        const double stored = static_cast<double>(i) - static_cast<double>(m_Origin);
        const double value = stored * values.slope + values.intercept;
        const std::array<double, 3> rgb = ColourAt(function, value);
        m_Colours[i] = Byte(OpacityAt(function, value)) << 24 | Byte(rgb[0]) << 16 | Byte(rgb[1]) << 8 | Byte(rgb[2]);
        m_HasVisibleEntry = m_HasVisibleEntry || m_Colours[i] >> 24 != 0;
    }
    const Lighting& l = function.lighting;
    m_Weights.assign(2 * 65536, Weight(l.diffuse) | Weight(l.specular) << 16 | Weight(l.ambient) << 32);
}

}  // namespace scene
