// Clipping: bounds of every line, and pictures of what the planes leave.
#include "host/reference/settings.h"
#include "ip_volr/IP_ClipCalculator.h"
#include "tests/mip/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace mip_model;

namespace {

// Planes through voxel centres are avoided: which side a rounded centre falls on is nobody's promise.
const std::vector<Planes> kPlaneSets = {
    {},
    {{0.0F, 0.0F, 1.0F, -9.37F}},
    {{0.3F, -0.8F, 0.52F, 14.1F}},
    {{1.0F, 0.0F, 0.0F, -13.3F},
     {-1.0F, 0.0F, 0.0F, -2.2F},
     {0.0F, 1.0F, 0.0F, -33.9F},
     {0.0F, -1.0F, 0.0F, 14.6F},
     {0.1F, 0.0F, 1.0F, -12.6F},
     {0.0F, 0.1F, -1.0F, 1.1F}},
    {{0.5F, 0.5F, 0.7F, -21.0F}, {-0.5F, -0.5F, -0.7F, 16.0F}},
    {{1.0F, 0.0F, 0.0F, -5.2F}, {-1.0F, 0.0F, 0.0F, 8.9F}},
};

bool is_inside(const Planes& planes, const IP_Box& box, const int voxel[3]) {
    float m[4][4];
    box.GetIndexToPhysicalTrans(m);
    for (const auto& eq : planes) {
        double value = eq[3];
        for (int i = 0; i < 3; i++) {
            value += eq[static_cast<std::size_t>(i)] *
                     (static_cast<double>(voxel[0]) * m[0][i] + static_cast<double>(voxel[1]) * m[1][i] +
                      static_cast<double>(voxel[2]) * m[2][i] + m[3][i]);
        }
        if (value > 0.0) {
            return false;
        }
    }
    return true;
}

// Holds one array of bounds to the voxels that the planes leave.
template <class Entry>
void expect_bounds(const Planes& planes, const IP_Box& box, bool along_y, const Entry* bounds) {
    ASSERT_NE(bounds, nullptr);
    int dims[3];
    box.GetDims(dims);
    const int lines = dims[along_y ? 0 : 1];
    for (int z = 0; z < dims[2]; z++) {
        for (int line = 0; line < lines; line++) {
            int first = 0;
            int last = -1;
            for (int i = 0; i < dims[along_y ? 1 : 0]; i++) {
                const int voxel[3] = {along_y ? line : i, along_y ? i : line, z};
                if (is_inside(planes, box, voxel)) {
                    first = last < 0 ? i : first;
                    last = i;
                }
            }
            const Entry* const pair = bounds + 2 * (z * lines + line);
            ASSERT_EQ(pair[0], first) << z << ' ' << line << (along_y ? " YX" : " XY");
            ASSERT_EQ(pair[1], last) << z << ' ' << line << (along_y ? " YX" : " XY");
        }
    }
}

}  // namespace

TEST(MipClipping, BoundsOfEveryLineForAnySetOfPlanes) {
    const Volume v = phantom({34, 40, 19}, {0.8, 0.7, 1.1});
    for (const int servers : {1, 3}) {
        reference_host::SetNumberOfServers(servers);
        Request r(v);
        auto* const data = static_cast<IP_VolDataProj*>(r.p.m_AltVolData->GetVolData(0));
        for (const Planes& planes : kPlaneSets) {
            r.clip(planes);
            ASSERT_TRUE(r.clip_manager.GetClippingBounds(r.volume.get(), data));
            expect_bounds(planes, *data->GetBox(), false, data->GetXYCBounds());
            expect_bounds(planes, *data->GetBox(), true, data->GetYXCBounds());
            expect_bounds(planes, *r.volume->GetBox(), false, data->GetXYCBoundsLin());
            expect_bounds(planes, *r.volume->GetBox(), true, data->GetYXCBoundsLin());
        }
        EXPECT_FALSE(r.clip_manager.GetClippingBounds(r.volume.get(), nullptr));
        EXPECT_FALSE(r.clip_manager.GetClippingBounds(r.volume.get(), r.volume.get())) << "not prepared data";
    }
    reference_host::SetNumberOfServers(0);
}

TEST(MipClipping, PicturesShowOnlyVoxelsWhoseCentresAreInside) {
    const Volume v = phantom({34, 40, 19}, {0.8, 0.7, 1.1});
    const Volume reduced = v.reduced();
    Request r(v);
    const std::vector<View> views = {{0, 0, 0}, {90, 0, 0}, {0, 90, 0}, {200, 25, 10}, {75, 20, 0}, {20, 70, 0}};
    for (const Planes& planes : kPlaneSets) {
        r.clip(planes);
        for (const View& view : views) {
            const int axis = principal_axis(view);
            r.set_view(view);
            const bool is_axis_aligned = &view < &views[3];
            for (const bool linear : {true, false}) {
                if (!linear && !is_axis_aligned) {
                    continue;
                }
                r.draw(linear);
                IP_VolRBoxParamsMIP& box = !linear && axis == 0 ? r.b : r.a;
                const std::vector<short> picture = r.sheared(box);
                int wrong = 0;
                for (int row = 0; row < box.m_PictureHeight; row++) {
                    for (int column = 0; column < box.m_PictureWidth; column++) {
                        const double expected =
                            sheared_pixel(linear ? v : reduced, box, view, axis, column, row,
                                          linear ? Sampling::Linear : Sampling::Nearest, planes, -32768);
                        const short got = picture[static_cast<std::size_t>(row * box.m_PictureWidth + column)];
                        const bool is_margin = !linear && expected == -32768 && got == -4096;
                        wrong += std::fabs(got - expected) > 1.0 && !is_margin ? 1 : 0;
                    }
                }
                // Where a ray passes half way between two voxels of which one is clipped, either may count.
                const int tolerated = is_axis_aligned ? 0 : box.m_PictureWidth * box.m_PictureHeight / 100;
                EXPECT_LE(wrong, tolerated) << planes.size() << " planes, azimuth " << view.azimuth << " elevation "
                                            << view.elevation << (linear ? " linear" : " fast");
            }
        }
    }
}

TEST(MipClipping, ChangesReachTheNextFrame) {
    const Volume v = phantom({32, 32, 24}, {1.0, 1.0, 1.0});
    const Planes planes = {{0.0F, 0.0F, 1.0F, -12.3F}};
    Request r(v);
    r.set_view({20, 10, 0});
    for (const bool linear : {true, false}) {
        const auto picture = [&] {
            r.draw(linear);
            return r.output;
        };
        r.p.m_ClipManager = nullptr;
        const std::vector<short> whole = picture();
        r.clip(planes);
        const std::vector<short> part = picture();
        EXPECT_NE(part, whole);

        // Moved through its pointer, switched off, freed; and bounds lost to a volume that was prepared anew.
        const float moved[4] = {0.0F, 0.0F, 1.0F, -6.3F};
        r.clip_manager.GetClipPlane(0)->SetPlaneEq(moved);
        r.clip_manager.PlanesChanged();
        EXPECT_NE(picture(), part);
        r.clip_manager.SetClipPlaneActive(0, false);
        EXPECT_EQ(picture(), whole);
        r.clip(planes);
        EXPECT_EQ(picture(), part);
        static_cast<IP_VolDataProj*>(r.p.m_AltVolData->GetVolData(0))->DisconnectBounds();
        EXPECT_EQ(picture(), part);
        r.clip_manager.FreeAllClipPlane(CLIP_ALL);
        EXPECT_EQ(picture(), whole);
    }

    // The linear path also clips without prepared data that could keep bounds.
    r.clip(planes);
    r.draw(true);
    const std::vector<short> part = r.output;
    r.p.m_AltVolData = nullptr;
    r.draw(true);
    EXPECT_EQ(r.output, part);
}

TEST(MipClipping, SlicesOutsideAreNotEvenMapped) {
    const Volume v = phantom({32, 32, 40}, {1.0, 1.0, 1.0});
    Request r(v);
    r.set_view({});
    r.draw(true);
    const auto maps_of_frame = [&r] {
        const auto before = reference_host::GetPagerStatistics().total_maps;
        r.draw(true);
        return reference_host::GetPagerStatistics().total_maps - before;
    };
    const auto whole = maps_of_frame();
    r.clip({{0.0F, 0.0F, 1.0F, -10.2F}, {0.0F, 0.0F, -1.0F, 6.2F}});
    EXPECT_EQ(whole - maps_of_frame(), 36);
}
