// Boxes, lattices, matrices, planes and the volumes of a view, degenerate ones included.
#include "host/geometry.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "host/clipping.h"
#include "host/matrix_math.h"
#include "host/multi_volume.h"

namespace {

constexpr float kNaN = std::numeric_limits<float>::quiet_NaN();

// An oblique lattice: turned about two axes, anisotropic, away from the origin.
IP_Box make_oblique_box() {
    IP_Box box(64, 48, 20);
    const float vecs[3][3] = {{51.2F * 0.8F, 51.2F * 0.6F, 0.0F}, {-24.0F * 0.6F, 24.0F * 0.8F, 0.0F}, {0, 0, 60.0F}};
    const float start[3] = {-120.0F, 30.5F, 1000.0F};
    box.SetParams(vecs);
    box.SetStart(start);
    return box;
}

void expect_point(const float m[4][4], IP_3Coord from, IP_3Coord to, float tolerance = 1e-3F) {
    const float in[3] = {from.x, from.y, from.z};
    float out[3];
    IP_vectrans(in, m, out);
    EXPECT_NEAR(out[0], to.x, tolerance);
    EXPECT_NEAR(out[1], to.y, tolerance);
    EXPECT_NEAR(out[2], to.z, tolerance);
}

TEST(BoxTest, IndexAndPhysicalSpaceAreInverseAndHalfAVoxelApartAtTheCorner) {
    const IP_Box box = make_oblique_box();
    EXPECT_NEAR(box.GetXMmPerPixel(), 0.8F, 1e-6F);
    EXPECT_NEAR(box.GetYMmPerPixel(), 0.5F, 1e-6F);
    EXPECT_NEAR(box.GetZMmPerPixel(), 3.0F, 1e-6F);
    EXPECT_FLOAT_EQ(box.GetSliceZf(), 1001.5F);

    float to_physical[4][4];
    float to_index[4][4];
    float from_corner[4][4];
    float to_corner[4][4];
    box.GetIndexToPhysicalTrans(to_physical);
    box.GetPhysicalToIndexTrans(to_index);
    box.GetIndexToPhysicalFromCorner(from_corner);
    box.GetPhysicalToIndexFromCorner(to_corner);
    float far_vertex[3];
    box.GetVertex(7, far_vertex);
    expect_point(from_corner, {64, 48, 20}, IP_3Coord(far_vertex));
    expect_point(to_physical, {63.5F, 47.5F, 19.5F}, IP_3Coord(far_vertex));
    for (const IP_3Coord& index : {IP_3Coord(0, 0, 0), IP_3Coord(10, 20, 7), IP_3Coord(-3, 100, 0.25F)}) {
        const float in[3] = {index.x, index.y, index.z};
        float mm[3];
        IP_vectrans(in, to_physical, mm);
        expect_point(to_index, IP_3Coord(mm), index);
        expect_point(to_corner, IP_3Coord(mm), {index.x + 0.5F, index.y + 0.5F, index.z + 0.5F});
    }
}

TEST(BoxTest, EmbeddingKeepsTheDataInPlace) {
    IP_Box box = make_oblique_box();
    float before[4][4];
    box.GetIndexToPhysicalTrans(before);
    IP_Dims larger(80, 53, 20);
    box.Embed(&larger);
    int dims[3];
    box.GetDims(dims);
    EXPECT_EQ(dims[0] * 10000 + dims[1] * 100 + dims[2], 80 * 10000 + 53 * 100 + 20);
    EXPECT_NEAR(box.GetYMmPerPixel(), 0.5F, 1e-6F);

    // The first voxel of the data is now voxel (8, 2, 0).
    float after[4][4];
    box.GetIndexToPhysicalTrans(after);
    const float origin[3] = {0, 0, 0};
    float mm[3];
    IP_vectrans(origin, before, mm);
    expect_point(after, {8, 2, 0}, IP_3Coord(mm));
    const IP_Box same = box;
    box.Embed(&larger);
    EXPECT_TRUE(box == same);
    box.Embed(nullptr);
    EXPECT_TRUE(box == same);
}

TEST(BoxTest, ReducedBoxesKeepTheirMiddleAndTheLeastExtent) {
    IP_Box box = make_oblique_box();
    float middle[3];
    box.GetMiddle(middle);
    float margins[3] = {2.0F, 100.0F, 7.5F};
    float least[3] = {0.8F, 0.5F, 3.0F};
    box.ReduceBox(margins, least);
    EXPECT_NEAR(box.GetWidth(), 47.2F, 1e-4F);
    EXPECT_NEAR(box.GetHeight(), 0.5F, 1e-4F);
    EXPECT_NEAR(box.GetDepth(), 45.0F, 1e-4F);
    float middle_after[3];
    box.GetMiddle(middle_after);
    for (int i = 0; i < 3; ++i) {
        EXPECT_NEAR(middle_after[i], middle[i], 1e-3F);
    }
    float normal[3];
    box.GetOrthoVec(normal, IP_AXIS_Y);
    EXPECT_NEAR(normal[0], -0.6F, 1e-5F);
    EXPECT_NEAR(normal[1], 0.8F, 1e-5F);
    box.Centralize();
    box.GetMiddle(middle_after);
    EXPECT_NEAR(std::fabs(middle_after[0]) + std::fabs(middle_after[1]) + std::fabs(middle_after[2]), 0.0F, 1e-4F);
}

TEST(BoxTest, DegenerateBoxesHaveFiniteInverseTransforms) {
    std::vector<IP_Box> boxes{IP_Box(), IP_Box(0, 0, 0), IP_Box(4, -3, 2), IP_Box(4, 4, 1, 0.0F, 0.0F, 0.0F),
                              IP_Box(4, 4, 4, kNaN, 1.0F, INFINITY)};
    IP_Box parallel(4, 4, 4);
    const float vecs[3][3] = {{1, 2, 3}, {2, 4, 6}, {0, 0, 0}};
    parallel.SetParams(vecs);
    boxes.push_back(parallel);
    IP_Box coplanar(4, 4, 4);
    const float flat[3][3] = {{1, 0, 0}, {0, 1, 0}, {1, 1, 0}};
    coplanar.SetParams(flat);
    boxes.push_back(coplanar);
    for (IP_Box& box : boxes) {
        float forward[4][4];
        float back[4][4];
        float product[4][4];
        box.GetIndexToPhysicalTrans(forward);
        box.GetPhysicalToIndexTrans(back);
        IP_Mmul(forward, back, product);
        for (int i = 0; i < 16; ++i) {
            EXPECT_NEAR(product[i / 4][i % 4], i % 5 == 0 ? 1.0F : 0.0F, 1e-5F);
        }
        for (int axis = -1; axis < 4; ++axis) {
            float normal[3];
            box.GetOrthoVec(normal, axis);
            EXPECT_NEAR(IP_dot(normal, normal), 1.0F, 1e-5F);
        }
        float margins[3] = {1, kNaN, 1};
        float least[3] = {kNaN, 1, 0};
        box.ReduceBox(margins, least);
        IP_Dims larger(8, 8, 8);
        box.Embed(&larger);
    }
    EXPECT_EQ(IP_Box(0, 1, 1).GetXMmPerPixel(), 0.0F);
}

TEST(MatrixTest, InversesAndPlanesFollowTheirPoints) {
    std::minstd_rand random(3);
    const auto uniform = [&random] { return static_cast<float>(random() % 2001) / 1000.0F - 1.0F; };
    for (int round = 0; round < 50; ++round) {
        float m[4][4];
        for (int i = 0; i < 16; ++i) {
            m[i / 4][i % 4] = i % 4 == 3 ? (i == 15 ? 1.0F : 0.0F) : uniform() * (i >= 12 ? 500.0F : 1.0F);
        }
        float inverse[4][4];
        if (std::fabs(IP_Mdet(m)) < 0.05F) {
            continue;
        }
        ASSERT_TRUE(IP_Minv(m, inverse));
        EXPECT_NEAR(IP_Mdet(m) * IP_Mdet(inverse), 1.0F, 1e-3F);

        // A point on a plane stays on it, whichever way the plane is moved.
        const float eq[4] = {0.6F, 0.0F, 0.8F, -5.0F};
        const float on_plane[3] = {3.0F, uniform(), 4.0F};
        float moved_point[3];
        IP_vectrans(on_plane, m, moved_point);
        float moved[3][4];
        IP_eqtrans(eq, inverse, moved[0]);
        IP_myeqtrans(eq, m, moved[1]);
        IP_ClippingPlane plane;
        plane.SetPlaneEq(eq);
        plane.Transform(m);
        plane.GetPlaneEq(moved[2]);
        for (const auto& plane_eq : moved) {
            EXPECT_NEAR(IP_dot(plane_eq, moved_point) + plane_eq[3], 0.0F, 0.02F);
        }
    }
}

TEST(MatrixTest, SingularAndBrokenMatricesGiveTheIdentity) {
    float singular[4][4] = {{1, 2, 3, 0}, {2, 4, 6, 0}, {0, 1, 1, 0}, {5, 5, 5, 1}};
    float broken[4][4] = {{kNaN, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {0, 0, 0, 1}};
    float tiny[4][4] = {{1e-6F, 0, 0, 0}, {0, 1e-6F, 0, 0}, {0, 0, 1e-6F, 0}, {1e4F, 0, 0, 1}};
    EXPECT_FALSE(IP_Minv(singular, singular));
    EXPECT_EQ(singular[1][0], 0.0F);
    EXPECT_EQ(singular[3][0], 0.0F);
    EXPECT_FALSE(IP_Minv(broken, broken));
    EXPECT_EQ(broken[0][0], 1.0F);
    EXPECT_TRUE(IP_Minv(tiny, tiny));
    EXPECT_NEAR(tiny[0][0], 1e6F, 1.0F);
    float zero[3] = {0, 0, 0};
    IP_normalize(zero);
    EXPECT_EQ(zero[0], 0.0F);
}

TEST(ClippingTest, ManagersOwnCopiesAndFreeByKind) {
    IP_ClipManager manager;
    IP_ClippingPlane* const first = manager.NewClipPlane(7);
    EXPECT_EQ(manager.NewClipPlane(7), first);
    manager.NewClipPlane(3)->SetReference(true);
    manager.NewClipPlane(9)->SetActive(false);
    EXPECT_EQ(manager.GetNPlanes(), 3);
    EXPECT_EQ(manager.GetNReferencePlanes(), 1);
    EXPECT_EQ(manager.ActiveClippingPlanes(), 1);

    IP_ClipManager copy(manager);
    copy.ResetIterator();
    EXPECT_EQ(copy.GetNextPlane()->GetID(), 7);
    EXPECT_NE(copy.GetClipPlane(7), first);
    manager.FreeAllClipPlane(CLIP_REFERENCE);
    EXPECT_EQ(manager.GetClipPlane(3), nullptr);
    manager.FreeAllClipPlane(CLIP_ALL);
    EXPECT_EQ(manager.GetNextPlane(), nullptr);
    EXPECT_EQ(copy.GetNPlanes(), 3);
}

TEST(ClippingTest, BoundsOfALineAreThoseOfEveryVoxel) {
    std::minstd_rand random(9);
    const auto expect_bounds = [](double value0, double step, int first, int last) {
        int low = first;
        int high = last;
        IP_update_clip_bounds(value0, step, low, high);
        for (int i = first; i <= last; ++i) {
            EXPECT_EQ(i >= low && i <= high, !(value0 + i * step > 0.0)) << value0 << " + " << i << " * " << step;
        }
        EXPECT_GE(low, first);
        EXPECT_LE(high, last);
    };
    for (int round = 0; round < 2000; ++round) {
        const double step = (static_cast<int>(random() % 41) - 20) / 8.0;
        expect_bounds((static_cast<int>(random() % 401) - 200) / 8.0, step, static_cast<int>(random() % 5), 20);
    }
    expect_bounds(-1e-300, 1e-320, 0, 9);
    expect_bounds(1e300, -1e-5, 0, 9);
    expect_bounds(kNaN, 1.0, 0, 9);
    expect_bounds(-1.0, INFINITY, 1, 9);
    expect_bounds(-1.0, -INFINITY, 1, 9);
}

TEST(VolumeTest, SlicesAreDeletedOnceByTheirOwner) {
    IP_Box box(4, 4, 2);
    IP_VolData volume(&box, 2);
    const auto set_slices = [](IP_VolData& v) {
        for (int i = 0; i < 2; ++i) {
            auto* const info = new MEM_PagerInfo;
            MEM_MemPager::GetHandleForMP()->Allocate(32, info, 0);
            auto* const slice = new IP_ShortSlice(info, {4, 4, 12, true}, 0);
            slice->SetOwnsData(true);
            slice->SetID("slice");
            v.SetSlice(slice, i);
        }
    };
    set_slices(volume);
    {
        IP_VolData copy(volume);
        EXPECT_EQ(copy.GetSlice(1), volume.GetSlice(1));
        EXPECT_NE(copy.GetIdentity(), volume.GetIdentity());
        volume = copy;
        IP_VolData other(&box, 2);
        set_slices(other);
        other = volume;
        EXPECT_EQ(other.GetSlice(0), volume.GetSlice(0));
    }
    EXPECT_STREQ(volume.GetSlice(0)->GetID(), "slice");
    EXPECT_EQ(volume.GetSlice(2), nullptr);
    EXPECT_EQ(volume.GetSlice(-1), nullptr);
    EXPECT_EQ(IP_VolData(nullptr, -4).GetNumberOfSlicePointers(), 0);

    // Mapping skips what has no block, and swapping takes the block along.
    auto* const first = static_cast<IP_ShortSlice*>(volume.GetSlice(0));
    first->UnmapMemory();
    EXPECT_EQ(first->GetMappedSlice(), nullptr);
    IP_ShortSlice empty(nullptr, {4, 4, 12, true}, 0);
    EXPECT_NE(empty.MapMemory(), 0);
    IP_Slice* slices[3] = {first, nullptr, &empty};
    EXPECT_TRUE(IP_SliceVector::MapIPSliceVec(slices, 3, nullptr, false, false));
    EXPECT_NE(first->GetMappedSlice(), nullptr);
    first->SwapPixelDataWithSlice(empty);
    EXPECT_NE(empty.GetMappedSlice(), nullptr);
    EXPECT_EQ(first->GetMappedData(), nullptr);
    IP_SliceVector::UnMapIPSliceVec(slices, 3, nullptr, false);
    EXPECT_EQ(empty.GetMappedSlice(), nullptr);
}

TEST(VolumeTest, TheBoundingBoxHoldsAllVolumes) {
    IP_MultiVolData set;
    int index = 5;
    EXPECT_EQ(set.GetBiggestVolData(index), nullptr);
    EXPECT_EQ(index, -1);
    ASSERT_NE(set.GetBoundingBox(), nullptr);
    IP_Box oblique = make_oblique_box();
    IP_Box broken(4, 4, 4, kNaN, 1.0F, 1.0F);
    set.AddVolData(nullptr);
    set.AddVolData(std::make_shared<IP_VolData>(&oblique, 0));
    EXPECT_TRUE(*set.GetBoundingBox() == oblique);
    IP_Box straight(100, 10, 10, 1.0F, 1.0F, 1.0F);
    set.AddVolData(std::make_shared<IP_VolData>(&straight, 0));
    set.AddVolData(std::make_shared<IP_VolData>(&broken, 0));
    EXPECT_EQ(set.GetBiggestVolData(index), set.GetVolData(0));
    float to_unit[4][4];
    set.GetBoundingBox()->GetNormTrans(to_unit);
    ASSERT_TRUE(IP_Minv(to_unit, to_unit));
    for (const IP_Box* const box : {&oblique, &straight}) {
        for (int i = 0; i < 8; ++i) {
            float corner[3];
            box->GetVertex(i, corner);
            IP_vectrans(corner, to_unit, corner);
            for (const float coordinate : corner) {
                EXPECT_GE(coordinate, -1e-4F);
                EXPECT_LE(coordinate, 1.0001F);
            }
        }
    }
    set.ResetNvoldatas();
    EXPECT_EQ(set.GetNVolData(), 0);
}

}  // namespace
