// Parameters and the base of the projectors: what hosts rely on to the letter.
#include "host/matrix_math.h"
#include "host/reference/settings.h"
#include "ip_volr/IP_SliceChunk.h"
#include "tests/host/log_recorder.h"
#include "tests/mip/model.h"

#include <gtest/gtest.h>

#include <cmath>
#include <memory>

using namespace mip_model;

namespace {

// Opens the parts that only projectors use.
class OpenProjector : public IP_ShearWarpProjector {
public:
    explicit OpenProjector(float margin = 23.0F) : IP_ShearWarpProjector(margin) {}
    using IP_ShearWarpProjector::calc_transp_z;
    using IP_ShearWarpProjector::m_Dir;
    using IP_ShearWarpProjector::m_Params;
    using IP_ShearWarpProjector::m_Requested;
    using IP_ShearWarpProjector::m_ZScale;

protected:
    void TransposeSharedSlice(IP_VolDataProj*, IP_VolDataProj*, int, int, int) override {}
};

void view_matrix(float m[4][4], double azimuth, double elevation = 0.0) {
    View{azimuth, elevation, 0.0}.to_matrix(m);
}

std::string marked(const OpenProjector& p, int n) {
    std::string flags;
    for (int i = 0; i < n; i++) {
        flags += p.m_Requested[i] != 0 ? '1' : '0';
    }
    return flags;
}

void add_chunk(IP_VolRParams& p, unsigned slices, int x, int y) {
    unsigned granted = 0;
    p.m_SliceChunks.push_back(new IP_SliceChunk(slices, x, y, 2.0F, false, &granted));
}

}  // namespace

TEST(MipParameters, PoolKeepsOnlyBlocksThatAreLargeEnough) {
    IP_VolRParams p;
    EXPECT_EQ(p.GetNumberSlicesInChunks(), 0U);
    EXPECT_EQ(p.m_ViewMatrix[2][2], 1.0F);
    add_chunk(p, 3, 100, 100);  // 20128 bytes: exactly what 100 x 100 takes
    add_chunk(p, 4, 99, 100);
    add_chunk(p, 5, 200, 100);
    EXPECT_EQ(p.GetNumberSlicesInChunks(), 12U);
    EXPECT_EQ(p.RemoveSmallSlicesChunks(100, 100, 2.0F), 8U);
    EXPECT_EQ(p.m_SliceChunks.size(), 2U);
    EXPECT_EQ(p.RemoveSmallSlicesChunks(500, 500, 2.0F), 0U);
    EXPECT_TRUE(p.m_SliceChunks.empty());
    add_chunk(p, 1, 4096, 2048);
    EXPECT_EQ(p.RemoveSmallSlicesChunks(4096, 2048, 2.0F), 1U) << "16 MiB and more";
}

TEST(MipParameters, LightingPointsAreFreedOnceAndAssignmentDropsArrays) {
    const LogRecorder log(6);
    const auto before = reference_host::GetPagerStatistics().blocks;
    {
        IP_VolRBoxParamsVolR a;
        a.Allocate_LightingPoint3DArr(100);
        a.Allocate_LightingPoint3DArr(200);
        a.m_HostArrayA = new unsigned char[4];
        a.m_HostCountA = 4;
        EXPECT_EQ(reference_host::GetPagerStatistics().blocks, before + 1);
        IP_VolRBoxParamsVolR copy(a);
        EXPECT_EQ(copy.m_HostArrayA, a.m_HostArrayA);
        IP_VolRBoxParamsVolR assigned;
        assigned.m_HostArrayB = new unsigned char[2];
        assigned = a;
        EXPECT_EQ(assigned.m_HostArrayA, nullptr);
        EXPECT_EQ(assigned.m_HostArrayB, nullptr);
        EXPECT_EQ(assigned.m_HostCountA, 0);
        delete[] a.m_HostArrayA;
        IP_VolRBoxParamsVolR filled_by_host;
        MEM_MemPager::GetHandleForMP()->Allocate(160, &filled_by_host.lightingPoint3DArr, 0);
        EXPECT_EQ(log.Count("size = 200\n"), 1);
        EXPECT_EQ(log.Texts().size(), 2U) << "one line an allocation";
    }
    EXPECT_EQ(log.Count("destroy of lightingPoint3DArr: "), 2);
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, before);
}

TEST(ShearWarp, ChoosesAxesAsTheViewerSeesThem) {
    OpenProjector p;
    IP_Box box(10, 20, 30);
    IP_Box out;
    float m[4][4];
    view_matrix(m, 0.0);
    EXPECT_EQ(p.calc_dir(&box, m, &out), 2);
    EXPECT_EQ(p.calc_min_dir(&box, m), 0);
    EXPECT_TRUE(out == box);
    EXPECT_NEAR(p.calc_angle(&box, m), 90.0F, 1e-3F);
    view_matrix(m, 45.0);
    EXPECT_EQ(p.calc_dir(&box, m, &out), 0) << "the lower axis wins a tie";
    EXPECT_NEAR(p.calc_angle(&box, m), 45.0F, 1e-3F);
    view_matrix(m, 0.0, 90.0);
    EXPECT_EQ(p.calc_dir(&box, m, &out), 1);

    EXPECT_EQ(p.calc_transp_z(44.0F, 100), 52);
    EXPECT_EQ(p.calc_transp_z(44.9F, 9), 9);
    EXPECT_EQ(p.calc_transp_z(45.0F, 9), 0);
    EXPECT_EQ(p.calc_transp_z(68.0F, 100), 0);
    EXPECT_EQ(p.calc_transp_z(21.9F, 100), 100);
    EXPECT_EQ(p.calc_transp_z(NAN, 100), 0);

    // x is a hundredth of a voxel wide: a step along z is 150 columns, beyond the limit in either direction.
    IP_Box narrow(10, 20, 30, 0.01F, 1.0F, 1.0F);
    float zvec[3];
    for (const double azimuth : {56.4, -56.4}) {
        view_matrix(m, azimuth);
        EXPECT_EQ(p.calc_zvec(zvec, &narrow, m, 2), 0);
        EXPECT_EQ(zvec[0], 100.0F);
        EXPECT_NEAR(zvec[1], 0.0F, 1e-4F);
    }
    view_matrix(m, 90.0);
    EXPECT_EQ(p.calc_zvec(zvec, &box, m, 2), -1) << "slices seen edge on";
    IP_Box tiny(10, 20, 30, 0.0005F, 0.0005F, 0.0005F);
    view_matrix(m, 45.0);
    EXPECT_EQ(p.calc_zvec(zvec, &tiny, m, 2), 0);
    EXPECT_NEAR(std::fabs(zvec[0]), 1.0F, 1e-3F);
}

TEST(ShearWarp, ScreenBoxSurvivesZoomAndPanThatAreNoNumbers) {
    IP_VolRParams p;
    p.m_Width = 200;
    p.m_Height = 100;
    p.m_VolData = std::make_shared<IP_MultiVolData>();
    OpenProjector projector;
    projector.Reset(&p, 1);  // nothing there: nothing changes
    EXPECT_EQ(p.m_ViewBox.GetWidth(), 1.0F);
    IP_Box box(30, 40, 9, 1.0F, 1.0F, 4.0F);
    p.m_VolData->AddVolData(std::make_shared<IP_VolData>(&box, 9));
    p.m_VolData->Reset();
    projector.Reset(&p, 1);
    const float side = box.GetLength() * 10.0F / 9.0F;
    EXPECT_NEAR(p.m_ViewBox.GetHeight(), side, 1e-3F);
    EXPECT_NEAR(p.m_ViewBox.GetWidth(), 2.0F * side, 1e-3F);
    for (const float zoom : {0.0F, NAN, INFINITY, 1.0F}) {
        p.m_Zoom = zoom;
        p.m_PanX = zoom == 1.0F ? 0.25F : NAN;
        IP_ShearWarpProjector::calc_screen_box(&p);
        float start[3];
        p.m_ScreenBox.GetStart(start);
        EXPECT_NEAR(p.m_ScreenBox.GetWidth(), 2.0F * side, 1e-3F) << zoom;
        EXPECT_NEAR(start[0], -side + (zoom == 1.0F ? 0.5F * side : 0.0F), 1e-3F) << zoom;
    }
    p.m_Zoom = 2.0F;
    p.m_ViewMode = 2;
    projector.Reset(&p, 1);
    IP_ShearWarpProjector::calc_screen_box(&p);
    EXPECT_NEAR(p.m_ScreenBox.GetHeight(), 0.5F * side * std::hypot(30.0F, 36.0F) / box.GetLength(), 1e-3F);
}

TEST(ShearWarp, QuotaAndRequestsFollowTheirRules) {
    IP_VolRParams params;
    OpenProjector p;
    p.m_Params = &params;
    add_chunk(params, 42, 4, 4);
    EXPECT_EQ(p.calc_slice_quota(50, 40), 40U);
    EXPECT_EQ(p.calc_slice_quota(42, 10), 42U);
    EXPECT_EQ(p.calc_slice_quota(50, 45), 40U);
    EXPECT_EQ(p.calc_slice_quota(20, 45), 20U);

    // A refused chunk leaves a table without blocks that are gone.
    IP_Box box(64, 64, 5);
    params.m_VolumeBox = box;
    reference_host::PagerFaults faults;
    faults.refuse_allocation = 3;
    reference_host::SetPagerFaults(faults);
    p.allocate_quota_slice_chunk(&params, 200, 2.0F);
    reference_host::SetPagerFaults({});
    EXPECT_EQ(params.GetNumberSlicesInChunks(), 5U) << "two, then the rest";
    EXPECT_EQ(params.m_QuotaSlices[4],
              params.m_SliceChunks.back()->GetMemInfo(params.m_SliceChunks.back()->GetNumbSlices() - 1));
    EXPECT_EQ(p.map_chunks_slices(&params), 0);
    EXPECT_EQ(p.unmap_chunks_slices(&params), 0);
    faults = {};
    faults.refuse_map = 2;
    reference_host::SetPagerFaults(faults);
    EXPECT_EQ(p.map_chunks_slices(&params), -1) << "the first chunk stays mapped";
    faults.refuse_map = 1;
    reference_host::SetPagerFaults(faults);
    EXPECT_EQ(p.map_chunks_slices(&params), -1) << "and loses all its mappings when it fails itself";
    EXPECT_EQ(reference_host::GetPagerStatistics().mapped_blocks, 0);

    // Growth that is refused leaves the table as it was.
    params.m_VolumeBox = IP_Box(64, 64, 9);
    faults = {};
    faults.refuse_allocation = 1;
    reference_host::SetPagerFaults(faults);
    p.allocate_quota_slice_chunk(&params, 200, 2.0F);
    reference_host::SetPagerFaults({});
    EXPECT_EQ(params.GetNumberSlicesInChunks(), 5U);
    EXPECT_EQ(params.m_QuotaSlices[0], params.m_SliceChunks[0]->GetMemInfo(0));

    ASSERT_TRUE(p.reset_RequestedSlice(8));
    p.m_Dir = 1;
    p.fast_requested_slices(8, 0, 0, 3, 4, true, false);
    EXPECT_EQ(marked(p, 8), "00111000");
    EXPECT_EQ(p.map_fast_requested_slices(0, 0, 8, nullptr, 5, 4, 0, 0, true, false), -1) << "nothing to map";
    p.reset_RequestedSlice(8);
    p.m_Dir = 2;
    p.fast_requested_slices(8, 1, 2, 0, 0, false, false);
    EXPECT_EQ(marked(p, 8), "00000110") << "mirrored";
    p.reset_RequestedSlice(8);
    p.m_ZScale = 0.5F;
    p.fast_requested_slices(16, 6, 9, 0, 0, true, true);
    EXPECT_EQ(marked(p, 8), "00011000") << "scaled";
    EXPECT_TRUE(p.reset_RequestedSlice(0));
}

TEST(ShearWarp, ClipPointsKeepsWhatLiesInside) {
    IP_VolRParams params;
    IP_VolRClipManager clip;
    params.m_ClipManager = &clip;
    float points[2][3] = {{0, 0, 0}, {10, 0, 0}};
    const float planes[3][4] = {{-1, 0, 0, 2}, {1, 0, 0, -5}, {0, 0, 0, 1}};
    clip.SetClipPlane(0, planes[0]);
    clip.SetClipPlane(1, planes[1]);
    EXPECT_TRUE(IP_ShearWarpProjector::clip_points(&params, points));
    EXPECT_FLOAT_EQ(points[0][0], 2.0F);
    EXPECT_FLOAT_EQ(points[1][0], 5.0F);
    clip.SetClipPlane(2, planes[2]);
    EXPECT_FALSE(IP_ShearWarpProjector::clip_points(&params, points));
}
