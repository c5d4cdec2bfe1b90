#include "scene/views.h"

#include <algorithm>
#include <array>
#include <numbers>

namespace scene {

namespace {

struct NamedView {
    std::string_view name;
    StandardView view;
    Vec3 down;
    Vec3 into;
};

// LPS: +x is the patient's left, +y his back, +z his head.
constexpr std::array<NamedView, 6> kViews = {{
    {"anterior", StandardView::kAnterior, {0, 0, -1}, {0, 1, 0}},
    {"posterior", StandardView::kPosterior, {0, 0, -1}, {0, -1, 0}},
    {"left", StandardView::kLeft, {0, 0, -1}, {-1, 0, 0}},
    {"right", StandardView::kRight, {0, 0, -1}, {1, 0, 0}},
    {"superior", StandardView::kSuperior, {0, 1, 0}, {0, 0, -1}},
    {"inferior", StandardView::kInferior, {0, 1, 0}, {0, 0, 1}},
}};

// Turns by whole right angles stay exact, so that axis-aligned pictures are.
double Radians(double degrees) {
    return degrees * (std::numbers::pi / 180.0);
}

Vec3 TurnedDeg(const Vec3& v, const Vec3& axis, double degrees) {
    const double quarter = degrees / 90.0;
    if (quarter != std::floor(quarter)) {
        return Rotated(v, axis, Radians(degrees));
    }
    Vec3 turned = v;
    const int times = static_cast<int>(std::fmod(std::fmod(quarter, 4.0) + 4.0, 4.0));
    for (int i = 0; i < times; ++i) {
        turned = Cross(axis, turned) + axis * Dot(axis, turned);
    }
    return turned;
}

// Of three perpendicular directions of length 1.
Camera CameraOfAxes(const Vec3& right, const Vec3& down, const Vec3& into, const View& view, const Subject& subject) {
    Camera camera;
    camera.right = right;
    camera.down = down;
    camera.into = into;
    camera.middle_mm = subject.middle_mm;
    camera.width = view.width;
    camera.height = view.height;
    camera.pixels_per_mm = view.zoom * std::min(view.width, view.height) / subject.diameter_mm;
    camera.centre_x = 0.5 * (view.width - 1) + view.pan_x * view.width;
    camera.centre_y = 0.5 * (view.height - 1) + view.pan_y * view.height;
    return camera;
}

}  // namespace

std::optional<StandardView> ViewByName(std::string_view name) {
    const auto found = std::find_if(kViews.begin(), kViews.end(), [&](const NamedView& v) { return v.name == name; });
    return found != kViews.end() ? std::optional(found->view) : std::nullopt;
}

Camera::Pixel Camera::Project(const Vec3& position_mm) const {
    const Vec3 p = position_mm - middle_mm;
    return {centre_x + Dot(p, right) * pixels_per_mm, centre_y + Dot(p, down) * pixels_per_mm, Dot(p, into)};
}

Vec3 Camera::PositionOnPlane(double x, double y) const {
    return middle_mm + right * ((x - centre_x) / pixels_per_mm) + down * ((y - centre_y) / pixels_per_mm);
}

Camera MakeCamera(const View& view, const Subject& subject) {
    const auto base =
        std::find_if(kViews.begin(), kViews.end(), [&](const NamedView& v) { return v.view == view.face; });
    Vec3 down = base->down;
    Vec3 into = base->into;

    // The viewer walks around the patient's upright axis, then climbs, then tilts his head.
    into = TurnedDeg(into, -down, view.azimuth_deg);
    Vec3 right = Cross(down, into);
    down = TurnedDeg(down, right, -view.elevation_deg);
    into = Cross(right, down);
    right = TurnedDeg(right, into, -view.roll_deg);
    down = Cross(into, right);

    return CameraOfAxes(Normalised(right), Normalised(down), Normalised(into), view, subject);
}

std::optional<Camera> MakeCamera(const Vec3& right, const Vec3& down, const View& view, const Subject& subject) {
    constexpr double kShortest = 1e-3;
    const Vec3 along = Normalised(right);
    const Vec3 across = down - along * Dot(down, along);
    const bool usable = Length(right) >= kShortest && Length(across) >= kShortest;
    if (!usable) {
        return std::nullopt;
    }
    const Vec3 upright = Normalised(across);
    return CameraOfAxes(along, upright, Cross(along, upright), view, subject);
}

PictureGeometry GeometryOf(const Camera& camera) {
    const double mm_per_pixel = 1.0 / camera.pixels_per_mm;
    return {camera.width,
            camera.height,
            camera.PositionOnPlane(0.0, 0.0),
            camera.right * mm_per_pixel,
            camera.down * mm_per_pixel,
            -camera.into};
}

}  // namespace scene
