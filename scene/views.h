// Where the viewer stands: views, cameras and what each pixel of a picture shows.
#pragma once

#include "scene/vector3.h"

#include <optional>
#include <string_view>

namespace scene {

// The face of the patient that looks at the viewer. Feet are down in the first four; in superior and inferior the
// patient's front is up.
enum class StandardView { kAnterior, kPosterior, kLeft, kRight, kSuperior, kInferior };

// By name ("anterior", ...); empty for any other.
std::optional<StandardView> ViewByName(std::string_view name);

// A viewer's choice. The default shows the whole volume from the front.
struct View {
    StandardView face = StandardView::kAnterior;
    double azimuth_deg = 0.0;    // the viewer walks to his right around the patient: anterior + 90 is left
    double elevation_deg = 0.0;  // then climbs: anterior + 90 looks down on the head
    double roll_deg = 0.0;       // then the picture turns clockwise
    double zoom = 1.0;           // 1 shows the whole volume from every direction
    double pan_x = 0.0;          // moves the picture's content right, in picture widths
    double pan_y = 0.0;          // moves the picture's content down, in picture heights
    int width = 512;             // pixels
    int height = 512;
};

// What is being looked at.
struct Subject {
    Vec3 middle_mm;            // middle of the volume, patient LPS
    double diameter_mm = 1.0;  // of a ball that holds the volume
};

// An orthographic camera: unit vectors in patient LPS. right x down = into.
struct Camera {
    Vec3 right;
    Vec3 down;
    Vec3 into;       // away from the viewer
    Vec3 middle_mm;  // middle of the volume; it lies on the picture's plane
    double pixels_per_mm = 1.0;
    double centre_x = 0.0;  // pixel that shows the middle; whole numbers are pixel centres
    double centre_y = 0.0;
    int width = 0;
    int height = 0;

    struct Pixel {
        double x;
        double y;
        double depth_mm;  // beyond the plane through the middle
    };
    Pixel Project(const Vec3& position_mm) const;
    // The position on the plane through the middle that a pixel shows.
    Vec3 PositionOnPlane(double x, double y) const;
};

// The camera of a view of a subject. Zoom must be positive.
Camera MakeCamera(const View& view, const Subject& subject);

// The camera that sees the patient directions `right` and `down` so; zoom, pan and size are the view's, its face and
// angles do not count. The directions are made perpendicular and of length 1, `right` keeps where it points. Empty when
// they are too short or too parallel to say where the viewer stands.
std::optional<Camera> MakeCamera(const Vec3& right, const Vec3& down, const View& view, const Subject& subject);

// What each pixel shows: origin_mm + x * right_mm + y * down_mm lies on the plane through the volume's middle.
struct PictureGeometry {
    int width = 0;
    int height = 0;
    Vec3 origin_mm;      // centre of the top-left pixel
    Vec3 right_mm;       // one pixel to the right
    Vec3 down_mm;        // one pixel down
    Vec3 toward_viewer;  // unit vector
};
PictureGeometry GeometryOf(const Camera& camera);

}  // namespace scene
