// Sources and renderings: voxels keep their place in the patient, and the picture shows them where it says.
#include "scene/volume_source.h"

#include <gtest/gtest.h>

#include <cmath>

#include "scene/clipping.h"
#include "scene/presets.h"
#include "scene/projection.h"
#include "scene/random_stream.h"
#include "scene/volume_rendering.h"
#include "tests/scene/turned_grid.h"

namespace {

using scene::ImportedVolume;
using scene::StandardView;
using scene::Vec3;
using scene::VolumeSource;

// A volume of one value with anisotropic voxels on a turned grid.
ImportedVolume Turned(const std::array<int, 3>& dims, const std::array<double, 3>& spacing_mm, double degrees,
                      std::int16_t fill) {
    ImportedVolume v = scene_test::TurnedVolume(dims, spacing_mm, degrees);
    std::fill(v.voxels.data(), v.voxels.data() + v.voxels.size(), fill);
    v.is_signed = true;
    v.bits_stored = 12;
    v.min_value = -1000;
    v.max_value = 1500;
    return v;
}

TEST(VolumeSource, EveryVoxelKeepsItsValueAndPlace) {
    ImportedVolume imported = Turned({37, 29, 23}, {0.7, 0.7, 2.5}, 33.0, 0);
    for (std::size_t i = 0; i < imported.voxels.size(); ++i) {
        imported.voxels[i] = static_cast<std::int16_t>(static_cast<int>(i % 2501) - 1000);
    }
    VolumeSource source(std::move(imported));
    EXPECT_EQ(source.StoredAt({0, 0, 0}), -1000);
    EXPECT_EQ(source.StoredAt({36, 28, 22}), (37 * 29 * 23 - 1) % 2501 - 1000);
    EXPECT_STRNE(source.Volume()->GetSlice(0)->GetID(), source.Volume()->GetSlice(1)->GetID());

    // The box's own transform says the same as the file's.
    float to_physical[4][4];
    source.Volume()->GetBox()->GetIndexToPhysicalTrans(to_physical);
    const Vec3 index = {30.0, 4.0, 17.0};
    const Vec3 place = source.PatientPosition(index);
    const std::array<double, 3> expected = ToArray(place);
    for (std::size_t j = 0; j < 3; ++j) {
        const double by_box =
            index.x * to_physical[0][j] + index.y * to_physical[1][j] + index.z * to_physical[2][j] + to_physical[3][j];
        EXPECT_NEAR(by_box, expected[j], 1e-3);
    }
    EXPECT_LT(Length(source.VoxelIndex(place) - index), 1e-9);
}

TEST(VolumeSource, PercentilesAreOfRescaledValuesWithoutPadding) {
    ImportedVolume imported = Turned({10, 10, 10}, {1, 1, 1}, 0.0, -2000);
    for (std::size_t i = 0; i < 500; ++i) {
        imported.voxels[i] = static_cast<std::int16_t>(i);
    }
    imported.padding_value = -2000;
    imported.rescale_slope = 2.0;
    imported.rescale_intercept = -100.0;
    VolumeSource source(std::move(imported));
    EXPECT_DOUBLE_EQ(source.Histogram().Percentile(0.0), -100.0);
    EXPECT_DOUBLE_EQ(source.Histogram().Percentile(0.5), 2.0 * 249 - 100.0);
    EXPECT_DOUBLE_EQ(source.Histogram().Percentile(1.0), 2.0 * 499 - 100.0);
}

TEST(VolumeSource, TheFilesWindowIsTakenForPicturesThatItDoesNotMakeWhite) {
    ImportedVolume imported = Turned({10, 10, 10}, {1, 1, 1}, 0.0, 1000);
    std::fill_n(imported.voxels.data(), 500, std::int16_t{-1000});
    imported.min_value = -1024;
    imported.window_centre = 40.0;
    imported.window_width = 80.0;
    VolumeSource source(std::move(imported));
    const auto window_of = [&source](int air, int brain, int bone) {
        scene::ProjectedPicture picture{air + brain + bone, 1,
                                        std::vector<std::int16_t>(static_cast<std::size_t>(air), -1000)};
        picture.stored.insert(picture.stored.end(), static_cast<std::size_t>(brain), 35);
        picture.stored.insert(picture.stored.end(), static_cast<std::size_t>(bone), 1000);
        return DefaultWindow(source, picture);
    };
    const scene::DisplayWindow brain = window_of(70, 20, 10);
    EXPECT_EQ(brain.centre, 40.0);
    EXPECT_EQ(brain.width, 80.0);
    // All that is seen is bone, however much air is around it.
    const scene::DisplayWindow bone = window_of(70, 10, 20);
    EXPECT_EQ(bone.centre, 0.0);
    EXPECT_EQ(bone.width, 2000.0);
}

// Centre of brightness of a picture.
Vec3 BrightMiddle(const scene::Picture& picture) {
    double sum = 0.0, x_sum = 0.0, y_sum = 0.0;
    for (int y = 0; y < picture.height; ++y) {
        for (int x = 0; x < picture.width; ++x) {
            const double grey = picture.At(x, y) & 255;
            sum += grey;
            x_sum += grey * x;
            y_sum += grey * y;
        }
    }
    return sum > 0.0 ? Vec3{x_sum / sum, y_sum / sum, sum} : Vec3{};
}

scene::TransferFunction WhiteAbove(double value) {
    return scene::UniformColour(0xFFFFFF, 1.0, value);
}

// A ball of 1000 in a volume of -1000, middle and radius in patient mm.
VolumeSource BallSource(const Vec3& middle_index, double radius_mm, double degrees) {
    ImportedVolume v = Turned({70, 60, 28}, {0.8, 0.9, 2.4}, degrees, -1000);
    for (int z = 0; z < v.dims[2]; ++z) {
        for (int y = 0; y < v.dims[1]; ++y) {
            for (int x = 0; x < v.dims[0]; ++x) {
                const double distance =
                    scene::Length({(x - middle_index.x) * v.spacing_mm[0], (y - middle_index.y) * v.spacing_mm[1],
                                   (z - middle_index.z) * v.spacing_mm[2]});
                const double inside = std::clamp(0.5 - (distance - radius_mm) / 2.0, 0.0, 1.0);
                v.voxels[(static_cast<std::size_t>(z) * v.dims[1] + y) * v.dims[0] + x] =
                    static_cast<std::int16_t>(-1000 + 2000 * inside);
            }
        }
    }
    return VolumeSource(std::move(v));
}

TEST(VolumeRendering, AVoxelLandsOnThePixelThatThePictureRecordSays) {
    const Vec3 ball_index = {50.0, 18.0, 20.0};
    for (const double degrees : {0.0, 40.0}) {
        VolumeSource source = BallSource(ball_index, 6.0, degrees);
        scene::VolumeRendering rendering(source);
        rendering.SetTransfer(WhiteAbove(0.0), false);
        for (int face = 0; face < 6; ++face) {
            scene::View view;
            view.face = static_cast<StandardView>(face);
            view.azimuth_deg = 11.0 * face;
            view.elevation_deg = 7.0 * face;
            view.pan_x = 0.03;
            view.zoom = 1.2;
            view.width = 300;
            view.height = 240;
            const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
            rendering.SetView(camera, {});
            const Vec3 middle = BrightMiddle(rendering.Draw({}));
            const scene::Camera::Pixel expected = camera.Project(source.PatientPosition(ball_index));
            ASSERT_GT(middle.z, 0.0) << "face " << face;
            EXPECT_NEAR(middle.x, expected.x, 0.35) << "face " << face << " turned " << degrees;
            EXPECT_NEAR(middle.y, expected.y, 0.35) << "face " << face << " turned " << degrees;
        }
    }
}

TEST(VolumeRendering, ClippingKeepsThePositiveSideAndTheNearSideHidesTheFar) {
    const Vec3 ball_index = {50.0, 18.0, 14.0};
    VolumeSource source = BallSource(ball_index, 6.0, 40.0);
    scene::VolumeRendering rendering(source);
    rendering.SetTransfer(WhiteAbove(0.0), false);
    const scene::Camera camera = scene::MakeCamera({}, source.GetSubject());
    rendering.SetView(camera, {});
    const double whole = BrightMiddle(rendering.Draw({})).z;

    // A plane through the ball across the picture: what lies to the left of it stays.
    const Vec3 middle = source.PatientPosition(ball_index);
    const Vec3 keep = -camera.right;
    rendering.SetClipping({{keep.x, keep.y, keep.z, -Dot(keep, middle)}});
    const Vec3 half = BrightMiddle(rendering.Draw({}));
    EXPECT_NEAR(half.z / whole, 0.5, 0.06);
    EXPECT_LT(half.x, camera.Project(middle).x - 1.0);

    scene::ClipBox box;
    box.fractions = {0.0, 0.5, 0.0, 1.0, 0.0, 1.0};  // the ball lies in the other half
    rendering.SetClipping(scene::PlanesOf(box, source));
    EXPECT_EQ(BrightMiddle(rendering.Draw({})).z, 0.0);
    rendering.SetClipping({});
    EXPECT_EQ(BrightMiddle(rendering.Draw({})).z, whole);
}

}  // namespace
