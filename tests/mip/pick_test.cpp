// Picking: the ray of a pixel and the voxel that it shows.
#include "tests/mip/model.h"
#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>

#include <cmath>

using namespace mip_model;

namespace {

const std::vector<View> kViews = {{0, 0, 0}, {90, 0, 0}, {0, -90, 0}, {215, 30, 20}, {70, -15, 0}, {15, 60, 40}};

// A dark volume with one bright voxel.
Volume lone_voxel(const std::array<int, 3>& voxel, const Vec3& spacing_mm) {
    Volume v;
    v.dims = {40, 36, 20};
    v.spacing_mm = spacing_mm;
    v.start_mm = {-30.0, 4.0, 0.6};
    v.fill([&](int x, int y, int z) { return x == voxel[0] && y == voxel[1] && z == voxel[2] ? 900 : -500; });
    return v;
}

}  // namespace

TEST(MipPicking, FindsTheVoxelUnderItsPixel) {
    const std::array<int, 3> voxel{22, 15, 12};
    for (const double thickness : {1.0, 3.5}) {
        const Volume v = lone_voxel(voxel, {0.9, 1.0, thickness});
        Request r(v, 150, 130);
        r.volume->SetRescaleTrans(2.0, -7.0);
        r.p.m_Zoom = 1.2F;
        Vec3 centre_mm{};
        for (std::size_t i = 0; i < 3; i++) {
            centre_mm[i] = v.start_mm[i] + (voxel[i] + 0.5) * v.spacing_mm[i];
        }
        for (const View& view : kViews) {
            for (const bool linear : {true, false}) {
                r.set_view(view);
                r.draw(linear);
                const std::array<double, 2> pixel = to_pixel(r, view, centre_mm);
                IP_MIPPick pick{};
                ASSERT_TRUE(r.projector.Screen2Physical(&r.p, 0, pixel[0], pixel[1], linear ? 1 : 0, &pick));
                // A slab of a thick slice is sampled off its middle, and so between two columns.
                const bool is_between = thickness > 1.2 && &view >= &kViews[3];
                EXPECT_NEAR(pick.value, 900, is_between && linear ? 600 : 0)
                    << view.azimuth << (linear ? " linear" : " fast");
                EXPECT_NEAR(pick.rescaled, 2.0 * pick.value - 7.0, 1e-9);
                for (std::size_t i = 0; i < 3; i++) {
                    const double tolerance = is_between || (i == 2 && thickness > 1.2) ? 0.5 : 0.02;
                    EXPECT_NEAR(pick.voxel[i], voxel[i], tolerance) << view.azimuth << (linear ? " linear" : " fast");
                    EXPECT_NEAR(pick.physical[i], centre_mm[i], tolerance * v.spacing_mm[i]);
                }
            }
        }
    }
}

TEST(MipPicking, RayRunsFromFaceToFaceInVoxelsOfItsOwnLength) {
    const Volume v = lone_voxel({1, 1, 1}, {0.5, 1.0, 2.0});
    Request r(v, 120, 120);
    for (const View& view : kViews) {
        r.set_view(view);
        IP_MIPRay ray{};
        ASSERT_TRUE(IP_MIPProjector::ScreenRay(&r.p, 0, 59.5, 59.5, &ray));
        double length = 0.0;
        double length_mm = 0.0;
        bool starts_on_face = false;
        bool ends_on_face = false;
        for (std::size_t i = 0; i < 3; i++) {
            const double end = ray.start[i] + ray.length * ray.direction[i];
            const double step_mm = ray.direction[i] * v.spacing_mm[i];
            length += ray.direction[i] * ray.direction[i];
            length_mm += step_mm * step_mm;
            const auto on_face = [&](double x) {
                return std::fabs(x + 0.5) < 1e-4 || std::fabs(x - v.dims[i] + 0.5) < 1e-4;
            };
            starts_on_face = starts_on_face || on_face(ray.start[i]);
            ends_on_face = ends_on_face || on_face(end);
            EXPECT_NEAR(step_mm / ray.voxel_size, view.axis_in_space(2)[i], 1e-5);
            EXPECT_NEAR(ray.direction_mm[i], view.axis_in_space(2)[i], 1e-5);
            // The middle of the picture looks through the middle of the volume.
            const double middle_mm = (v.dims[i] * 0.5) * v.spacing_mm[i];
            const double start_mm = (ray.start[i] + 0.5) * v.spacing_mm[i];
            EXPECT_NEAR(start_mm + ray.length * 0.5 * step_mm, middle_mm, 1e-3);
            EXPECT_NEAR(ray.start_mm[i], v.start_mm[i] + start_mm, 1e-4);
        }
        EXPECT_NEAR(length, 1.0, 1e-9);
        EXPECT_NEAR(std::sqrt(length_mm), ray.voxel_size, 1e-9);
        EXPECT_TRUE(starts_on_face && ends_on_face);

        // Planes cut the ray.
        const Vec3 ahead = view.axis_in_space(2);
        const double start_depth = ahead[0] * ray.start_mm[0] + ahead[1] * ray.start_mm[1] + ahead[2] * ray.start_mm[2];
        r.clip({{static_cast<float>(-ahead[0]), static_cast<float>(-ahead[1]), static_cast<float>(-ahead[2]),
                 static_cast<float>(start_depth + 4.0)}});
        IP_MIPRay cut{};
        ASSERT_TRUE(IP_MIPProjector::ScreenRay(&r.p, 0, 59.5, 59.5, &cut));
        EXPECT_NEAR((ray.length - cut.length) * ray.voxel_size, 4.0, 1e-3);
        r.p.m_ClipManager = nullptr;
    }
}

// The slice that cannot be read may be the one with the voxel.
TEST(MipPicking, RefusedMappingsAreToldInsteadOfAnotherVoxel) {
    const Volume v = lone_voxel({22, 15, 12}, {1.0, 1.0, 1.0});
    Request r(v, 150, 130);
    r.set_view({20.0, 10.0, 0.0});
    FaultSweep sweep;
    for (const int linear : {0, 1}) {
        sweep.run([&](FaultPoint& point) {
            IP_MIPPick pick{};
            bool found = false;
            const auto search = [&] { found = r.projector.Screen2Physical(&r.p, 0, 75.0, 65.0, linear, &pick); };
            point.run(search);
            point.expect_ended_by_fault(found);
            EXPECT_EQ(r.projector.IsComplete(), found);
            search();
            EXPECT_TRUE(found && r.projector.IsComplete());
        });
    }
}

TEST(MipPicking, ClippedAndAbsentVoxelsAreNotFound) {
    const Volume v = lone_voxel({22, 15, 12}, {1.0, 1.0, 1.0});
    Request r(v, 150, 130);
    r.set_view({});
    r.draw(true);
    const Vec3 centre_mm{v.start_mm[0] + 22.5, v.start_mm[1] + 15.5, v.start_mm[2] + 12.5};
    const std::array<double, 2> pixel = to_pixel(r, {}, centre_mm);
    IP_MIPPick pick{};
    r.clip({{0.0F, 0.0F, 1.0F, static_cast<float>(-centre_mm[2] + 0.2)}});
    ASSERT_TRUE(r.projector.Screen2Physical(&r.p, 0, pixel[0], pixel[1], 1, &pick));
    EXPECT_EQ(pick.value, -500);
    EXPECT_LT(pick.physical[2], centre_mm[2] - 0.2);
    r.clip({{0.0F, 0.0F, 0.0F, 1.0F}});
    EXPECT_FALSE(r.projector.Screen2Physical(&r.p, 0, pixel[0], pixel[1], 1, &pick));
    r.p.m_ClipManager = nullptr;
    EXPECT_FALSE(r.projector.Screen2Physical(&r.p, 0, -400.0, 10.0, 1, &pick)) << "beside the volume";
    EXPECT_FALSE(r.projector.Screen2Physical(&r.p, 3, 75.0, 65.0, 1, &pick));
    EXPECT_FALSE(r.projector.Screen2Physical(&r.p, 0, NAN, 65.0, 1, &pick));
    for (int z = 0; z < 20; z++) {
        r.volume->GetSlice(z)->SetData(nullptr, true);
    }
    EXPECT_FALSE(r.projector.Screen2Physical(&r.p, 0, pixel[0], pixel[1], 0, &pick));
}
