// Views: the right face looks at the viewer, the right way round, and the whole volume fits.
#include "scene/views.h"

#include <gtest/gtest.h>

#include "scene/annotation.h"
#include "scene/random_stream.h"

namespace {

using scene::Camera;
using scene::MakeCamera;
using scene::StandardView;
using scene::Subject;
using scene::Vec3;
using scene::View;

View Facing(StandardView face) {
    View view;
    view.face = face;
    return view;
}

void ExpectSame(const Vec3& a, const Vec3& b) {
    EXPECT_LT(Length(a - b), 1e-12) << a.x << " " << a.y << " " << a.z;
}

// Letters at the picture's left and top edge and on the side of the viewer.
struct Expectation {
    StandardView face;
    const char* left;
    const char* top;
    const char* viewer;
};

TEST(Views, StandardViewsFollowTheRadiologicalConvention) {
    const Expectation expectations[] = {
        {StandardView::kAnterior, "R", "S", "A"}, {StandardView::kPosterior, "L", "S", "P"},
        {StandardView::kLeft, "A", "S", "L"},     {StandardView::kRight, "P", "S", "R"},
        {StandardView::kSuperior, "L", "A", "S"}, {StandardView::kInferior, "R", "A", "I"},
    };
    for (const Expectation& e : expectations) {
        const Camera camera = MakeCamera(Facing(e.face), Subject{});
        EXPECT_EQ(scene::DirectionLetters(-camera.right), e.left);
        EXPECT_EQ(scene::DirectionLetters(-camera.down), e.top);
        EXPECT_EQ(scene::DirectionLetters(-camera.into), e.viewer);
        ExpectSame(Cross(camera.right, camera.down), camera.into);
    }
}

TEST(Views, AnglesWalkClimbAndTurnTheWayTheySay) {
    View view = Facing(StandardView::kAnterior);
    view.azimuth_deg = 90.0;
    ExpectSame(MakeCamera(view, Subject{}).into, MakeCamera(Facing(StandardView::kLeft), Subject{}).into);
    ExpectSame(MakeCamera(view, Subject{}).right, MakeCamera(Facing(StandardView::kLeft), Subject{}).right);

    view = Facing(StandardView::kAnterior);
    view.elevation_deg = 90.0;
    ExpectSame(MakeCamera(view, Subject{}).into, {0.0, 0.0, -1.0});
    view.elevation_deg = 30.0;
    EXPECT_EQ(scene::DirectionLetters(-MakeCamera(view, Subject{}).into), "AS");

    // Clockwise: the head moves from the top to the right edge.
    view = Facing(StandardView::kAnterior);
    view.roll_deg = 90.0;
    EXPECT_EQ(scene::DirectionLetters(MakeCamera(view, Subject{}).right), "S");
}

TEST(Views, PictureGeometryAndProjectionAgree) {
    scene::RandomStream random(7);
    for (int i = 0; i < 50; ++i) {
        View view = Facing(static_cast<StandardView>(i % 6));
        view.azimuth_deg = random.Uniform(-360, 360);
        view.elevation_deg = random.Uniform(-90, 90);
        view.roll_deg = random.Uniform(-360, 360);
        view.zoom = random.Uniform(0.2, 5.0);
        view.pan_x = random.Uniform(-1.0, 1.0);
        view.pan_y = random.Uniform(-1.0, 1.0);
        view.width = 100 + 13 * i;
        const Subject subject{{12.0, -150.0, 600.0}, 431.0};
        const Camera camera = MakeCamera(view, subject);
        const scene::PictureGeometry picture = GeometryOf(camera);
        const Vec3 shown = picture.origin_mm + picture.right_mm * 17.25 + picture.down_mm * 300.5;
        const Camera::Pixel pixel = camera.Project(shown + picture.toward_viewer * 33.0);
        EXPECT_NEAR(pixel.x, 17.25, 1e-9);
        EXPECT_NEAR(pixel.y, 300.5, 1e-9);
        EXPECT_NEAR(pixel.depth_mm, -33.0, 1e-9);
        EXPECT_NEAR(Dot(picture.right_mm, picture.down_mm), 0.0, 1e-12);
    }
}

TEST(Views, TheWholeBallFitsAtZoomOneInAnyPicture) {
    for (const auto& [w, h] : {std::pair{512, 512}, std::pair{300, 800}, std::pair{801, 77}}) {
        View view;
        view.width = w;
        view.height = h;
        const Camera camera = MakeCamera(view, Subject{{1.0, 2.0, 3.0}, 100.0});
        const Camera::Pixel far_right = camera.Project({51.0, 2.0, 3.0});
        const Camera::Pixel far_down = camera.Project({1.0, 2.0, -47.0});
        EXPECT_LE(far_right.x, w - 0.5 + 1e-9);
        EXPECT_LE(far_down.y, h - 0.5 + 1e-9);
        EXPECT_NEAR(std::max(far_right.x - (w - 0.5), far_down.y - (h - 0.5)), 0.0,
                    1e-9);  // and is not smaller than need be
    }
}

TEST(Annotation, ScaleBarsAreRoundNumbersOfMillimetres) {
    Camera camera = MakeCamera(View{}, Subject{{}, 512.0});
    EXPECT_DOUBLE_EQ(scene::ScaleBarMm(camera), 100.0);
    camera.pixels_per_mm = 100.0;
    EXPECT_DOUBLE_EQ(scene::ScaleBarMm(camera), 1.0);
    camera.pixels_per_mm = 30.0;
    EXPECT_DOUBLE_EQ(scene::ScaleBarMm(camera), 2.0);
}

}  // namespace
