#include "scene/annotation.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <vector>

namespace scene {

namespace {

struct Point {
    double x, y;
};

// A glyph as strokes on a grid 4 wide and 6 high, y down: polylines separated by '/', each point two digits.
struct Glyph {
    char symbol;
    const char* strokes;
};

constexpr std::array<Glyph, 22> kGlyphs = {{
    {'A', "0620 2046 1434"},
    {'P', "0600 0030 3041 4142 4233 3303"},
    {'R', "0600 0030 3041 4142 4233 3303 2346"},
    {'L', "0006 0646"},
    {'S', "4130 3010 1001 0102 0213 1333 3344 4445 4536 3616 1605"},
    {'I', "2026 1030 1636"},
    {'0', "1030 3041 4145 4536 3616 1605 0501 0110"},
    {'1', "1120 2026 1636"},
    {'2', "0110 1030 3041 4142 4206 0646"},
    {'3', "0040 4023 2333 3344 4445 4536 3616 1605"},
    {'4', "3630 3004 0444"},
    {'5', "4000 0003 0333 3344 4445 4536 3606"},
    {'6', "3010 1001 0105 0516 1636 3645 4544 4433 3303"},
    {'7', "0040 4016"},
    {'8', "1030 3041 4142 4233 3313 1302 0201 0110 1304 0405 0516 1636 3645 4544 4433"},
    {'9', "4313 1302 0201 0110 1030 3041 4145 4536 3616"},
    {'m', "0602 0322 2226 2342 4246"},
    {'c', "4232 3212 1203 0305 0516 1636 3646"},
    {'.', "1616 1626"},
    {'-', "0343"},
    {'+', "0343 2145"},
    {'X', "0046 4006"},
}};

double DistanceToSegment(const Point& p, const Point& a, const Point& b) {
    const double dx = b.x - a.x;
    const double dy = b.y - a.y;
    const double length2 = dx * dx + dy * dy;
    const double t = length2 > 0.0 ? std::clamp(((p.x - a.x) * dx + (p.y - a.y) * dy) / length2, 0.0, 1.0) : 0.0;
    return std::hypot(p.x - a.x - t * dx, p.y - a.y - t * dy);
}

// Puts a colour over a pixel that may be transparent itself.
void Cover(std::uint32_t& pixel, std::uint32_t rgb, double share) {
    const double below = (pixel >> 24) / 255.0 * (1.0 - share);
    const double alpha = share + below;
    if (alpha <= 0.0) {
        return;
    }
    std::uint32_t covered = static_cast<std::uint32_t>(std::lround(alpha * 255.0)) << 24;
    for (int shift = 0; shift < 24; shift += 8) {
        const double mixed = ((rgb >> shift & 255) * share + (pixel >> shift & 255) * below) / alpha;
        covered |= static_cast<std::uint32_t>(std::lround(mixed)) << shift;
    }
    pixel = covered;
}

struct Segment {
    Point a, b;
};

// Draws strokes of one colour with smooth edges.
void Stroke(Picture& picture, const std::vector<Segment>& segments, double thickness, std::uint32_t rgb) {
    double x0 = 1e9, y0 = 1e9, x1 = -1e9, y1 = -1e9;
    for (const Segment& s : segments) {
        x0 = std::min({x0, s.a.x, s.b.x});
        x1 = std::max({x1, s.a.x, s.b.x});
        y0 = std::min({y0, s.a.y, s.b.y});
        y1 = std::max({y1, s.a.y, s.b.y});
    }
    const double reach = 0.5 * thickness + 1.0;
    const int left = static_cast<int>(std::max(0.0, std::floor(x0 - reach)));
    const int right = static_cast<int>(std::min(picture.width - 1.0, std::ceil(x1 + reach)));
    const int top = static_cast<int>(std::max(0.0, std::floor(y0 - reach)));
    const int bottom = static_cast<int>(std::min(picture.height - 1.0, std::ceil(y1 + reach)));
    for (int y = top; y <= bottom; ++y) {
        for (int x = left; x <= right; ++x) {
            double nearest = 1e9;
            for (const Segment& s : segments) {
                nearest =
                    std::min(nearest, DistanceToSegment({static_cast<double>(x), static_cast<double>(y)}, s.a, s.b));
            }
            const double share = std::clamp(0.5 * thickness + 0.5 - nearest, 0.0, 1.0);
            if (share > 0.0) {
                Cover(picture.At(x, y), rgb, share);
            }
        }
    }
}

// White strokes with a dark rim, readable on any picture.
void StrokeReadable(Picture& picture, const std::vector<Segment>& segments, double thickness,
                    std::uint32_t rgb = 0xF4F4F4) {
    Stroke(picture, segments, thickness + 2.4, 0x101010);
    Stroke(picture, segments, thickness, rgb);
}

void AppendGlyph(std::vector<Segment>& segments, char symbol, double left, double top, double unit) {
    const auto glyph = std::find_if(kGlyphs.begin(), kGlyphs.end(), [&](const Glyph& g) { return g.symbol == symbol; });
    if (glyph == kGlyphs.end()) {
        return;
    }
    for (const char* s = glyph->strokes; s[0] != '\0'; s += s[4] == ' ' ? 5 : 4) {
        const auto at = [&](int i) { return Point{left + (s[i] - '0') * unit, top + (s[i + 1] - '0') * unit}; };
        segments.push_back({at(0), at(2)});
    }
}

double TextHeight(const Picture& picture) {
    return std::clamp(std::min(picture.width, picture.height) / 32.0, 9.0, 28.0);
}

std::string BarLabel(double length_mm) {
    const bool in_cm = length_mm >= 10.0;
    const double number = in_cm ? length_mm / 10.0 : length_mm;
    std::string digits = std::to_string(number);
    digits.erase(digits.find_last_not_of('0') + 1);
    if (digits.back() == '.') {
        digits.pop_back();
    }
    return digits + (in_cm ? " cm" : " mm");
}

}  // namespace

std::string DirectionLetters(const Vec3& direction) {
    const Vec3 d = Normalised(direction);
    std::array<std::pair<double, char>, 3> parts = {
        {{d.x, d.x < 0 ? 'R' : 'L'}, {d.y, d.y < 0 ? 'A' : 'P'}, {d.z, d.z < 0 ? 'I' : 'S'}}};
    std::stable_sort(parts.begin(), parts.end(),
                     [](const auto& a, const auto& b) { return std::abs(a.first) > std::abs(b.first) + 1e-9; });
    std::string letters;
    for (const auto& [share, letter] : parts) {
        if (std::abs(share) > 0.3) {
            letters += letter;
        }
    }
    return letters;
}

double ScaleBarMm(const Camera& camera) {
    const double longest = 0.25 * camera.width / camera.pixels_per_mm;
    const double decade = std::pow(10.0, std::floor(std::log10(longest)));
    return longest >= 5.0 * decade ? 5.0 * decade : longest >= 2.0 * decade ? 2.0 * decade : decade;
}

void DrawText(Picture& picture, std::string_view text, double centre_x, double centre_y, double height) {
    const double unit = height / 6.0;
    const double advance = 6.0 * unit;
    const double width = advance * static_cast<double>(text.size()) - 2.0 * unit;
    std::vector<Segment> segments;
    for (std::size_t i = 0; i < text.size(); ++i) {
        AppendGlyph(segments, text[i], centre_x - 0.5 * width + advance * static_cast<double>(i),
                    centre_y - 0.5 * height, unit);
    }
    StrokeReadable(picture, segments, std::max(1.2, height / 8.0));
}

void Annotate(Picture& picture, const Camera& camera) {
    const double height = TextHeight(picture);
    const double margin = 1.2 * height;
    const double middle_x = 0.5 * (picture.width - 1);
    const double middle_y = 0.5 * (picture.height - 1);
    const std::string left = DirectionLetters(-camera.right);
    const std::string right = DirectionLetters(camera.right);
    DrawText(picture, left, margin + 0.5 * height * static_cast<double>(left.size() - 1), middle_y, height);
    DrawText(picture, right, picture.width - 1 - margin - 0.5 * height * static_cast<double>(right.size() - 1),
             middle_y, height);
    DrawText(picture, DirectionLetters(-camera.down), middle_x, margin, height);
    DrawText(picture, DirectionLetters(camera.down), middle_x, picture.height - 1 - margin, height);

    const double length_mm = ScaleBarMm(camera);
    const double length = length_mm * camera.pixels_per_mm;
    const Point end = {picture.width - 1 - margin, picture.height - 1 - margin};
    const double tick = 0.35 * height;
    StrokeReadable(picture,
                   {{{end.x - length, end.y}, end},
                    {{end.x - length, end.y - tick}, {end.x - length, end.y + tick}},
                    {{end.x, end.y - tick}, {end.x, end.y + tick}}},
                   std::max(1.2, height / 8.0));
    DrawText(picture, BarLabel(length_mm), end.x - 0.5 * length, end.y - 1.2 * height, 0.75 * height);
}

void DrawMark(Picture& picture, double x, double y, std::uint32_t rgb) {
    const double inner = 0.35 * TextHeight(picture);
    const double outer = 1.1 * TextHeight(picture);
    std::vector<Segment> segments;
    for (const Point& d : {Point{1, 0}, Point{-1, 0}, Point{0, 1}, Point{0, -1}}) {
        segments.push_back({{x + d.x * inner, y + d.y * inner}, {x + d.x * outer, y + d.y * outer}});
    }
    StrokeReadable(picture, segments, 1.6, rgb);
}

}  // namespace scene
