// Points and directions in patient space (LPS, millimetres) in double precision.
#pragma once

#include <array>
#include <cmath>

namespace scene {

struct Vec3 {
    double x = 0.0;
    double y = 0.0;
    double z = 0.0;
};

constexpr Vec3 operator+(const Vec3& a, const Vec3& b) {
    return {a.x + b.x, a.y + b.y, a.z + b.z};
}
constexpr Vec3 operator-(const Vec3& a, const Vec3& b) {
    return {a.x - b.x, a.y - b.y, a.z - b.z};
}
constexpr Vec3 operator-(const Vec3& a) {
    return {-a.x, -a.y, -a.z};
}
constexpr Vec3 operator*(const Vec3& a, double f) {
    return {a.x * f, a.y * f, a.z * f};
}
constexpr Vec3 operator*(double f, const Vec3& a) {
    return a * f;
}

constexpr double Dot(const Vec3& a, const Vec3& b) {
    return a.x * b.x + a.y * b.y + a.z * b.z;
}
constexpr Vec3 Cross(const Vec3& a, const Vec3& b) {
    return {a.y * b.z - a.z * b.y, a.z * b.x - a.x * b.z, a.x * b.y - a.y * b.x};
}
inline double Length(const Vec3& a) {
    return std::sqrt(Dot(a, a));
}

// A vector of length 1; a zero vector stays zero.
inline Vec3 Normalised(const Vec3& a) {
    const double length = Length(a);
    return length > 0.0 ? a * (1.0 / length) : a;
}

constexpr Vec3 Mix(const Vec3& a, const Vec3& b, double t) {
    return a + (b - a) * t;
}

// `v` turned about a unit axis, right-handed.
inline Vec3 Rotated(const Vec3& v, const Vec3& axis, double angle_rad) {
    const double c = std::cos(angle_rad);
    const double s = std::sin(angle_rad);
    return v * c + Cross(axis, v) * s + axis * (Dot(axis, v) * (1.0 - c));
}

inline std::array<double, 3> ToArray(const Vec3& a) {
    return {a.x, a.y, a.z};
}
inline Vec3 FromArray(const std::array<double, 3>& a) {
    return {a[0], a[1], a[2]};
}

}  // namespace scene
