// The same picture on every machine; refused memory, cancellation and odd requests.
#include "host/reference/settings.h"
#include "ip_volr/kernels/instruction_set.h"
#include "tests/host/log_recorder.h"
#include "tests/mip/model.h"
#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

using namespace mip_model;

namespace {

const std::vector<View> kViews = {{0, 0, 0}, {30, 20, 0}, {60, 10, 5}, {90, 0, 0}, {10, 75, 0}, {45, -30, 0}};

Planes some_planes() {
    return {{0.3F, -0.8F, 0.52F, 12.1F}, {0.0F, 0.2F, -1.0F, -1.4F}};
}

std::vector<std::vector<short>> all_pictures(const Volume& v) {
    std::vector<std::vector<short>> pictures;
    Request r(v);
    for (const View& view : kViews) {
        for (int variant = 0; variant < 8; variant++) {
            r.set_view(view);
            r.p.m_DepthCueing = (variant & 2) != 0 ? 1 : 0;
            r.p.m_DepthCueFloor = 0.4F;
            r.clip((variant & 4) != 0 ? some_planes() : Planes{});
            r.draw((variant & 1) != 0);
            EXPECT_TRUE(r.projector.IsComplete());
            pictures.push_back(r.output);
        }
    }
    return pictures;
}

void expect_nothing_mapped(const std::string& when) {
    EXPECT_EQ(reference_host::GetPagerStatistics().mapped_blocks, 0) << when;
}

}  // namespace

TEST(MipRobustness, SamePictureForAnyNumberOfServersAndInstructionSet) {
    const Volume v = phantom({38, 33, 27}, {0.9, 0.8, 1.0});
    reference_host::SetNumberOfServers(2);
    const auto expected = all_pictures(v);
    for (const int servers : {1, 3, 8, 16}) {
        reference_host::SetNumberOfServers(servers);
        EXPECT_TRUE(all_pictures(v) == expected) << servers << " servers";
    }
    reference_host::SetNumberOfServers(2);
    using ip_volr::kernels::InstructionSet;
    for (const InstructionSet set : {InstructionSet::Scalar, InstructionSet::Sse41}) {
        const ip_volr::kernels::ScopedInstructionSet scope(set);
        EXPECT_TRUE(all_pictures(v) == expected) << ip_volr::kernels::instruction_set_name(set);
    }
    reference_host::SetNumberOfServers(0);
}

// Each frame finds the prepared slices as another view left them, so that some must be transposed.
TEST(MipRobustness, FaultsAreToldLeaveNothingMappedAndTheNextFrameIsRight) {
    const Volume v = phantom({24, 22, 12}, {1.0, 1.0, 1.0});
    FaultSweep sweep;
    for (const bool linear : {false, true}) {
        for (const View& view : kViews) {
            Request reference(v);
            reference.set_view(view);
            reference.draw(linear);
            sweep.run([&](FaultPoint& point) {
                Request r(v);
                r.set_view({view.azimuth + 35.0, 0.0, 0.0});
                r.draw(false);
                r.set_view(view);
                const LogRecorder log(6);
                point.run([&] { r.draw(linear); });
                EXPECT_TRUE(r.output == reference.output || !r.projector.IsComplete()) << "a wrong picture must say so";
                EXPECT_TRUE(r.projector.IsComplete() || point.came());
                if (point.is(Fault::Cancellation) && point.came()) {
                    EXPECT_FALSE(r.projector.IsComplete());
                    EXPECT_TRUE(!linear || log.Count("LinProjectXYSlices: Cancelled\n") == 1 ||
                                log.Count("LinProjectXZSlices: Cancelled\n") == 1);
                    EXPECT_GE(log.Count(": Cancelled\n"), 1);
                }
                r.draw(linear);
                EXPECT_TRUE(r.projector.IsComplete());
                EXPECT_EQ(r.output, reference.output);
            });
        }
    }
}

TEST(MipRobustness, FailuresOfTheLinearPathAreLogged) {
    const Volume v = phantom({20, 18, 12}, {1.0, 1.0, 1.0});
    std::string log;
    reference_host::SetNumberOfServers(2);
    reference_host::SetLogLevel(7);
    reference_host::LogToCallback([&](const reference_host::LogLine& line) { log += line.text; });
    for (const double azimuth : {0.0, 90.0}) {
        Request r(v);
        r.set_view({azimuth, 0.0, 0.0});
        EXPECT_TRUE((r.draw(true), r.projector.IsComplete()));
        EXPECT_NE(log.find("tpict_alloc new "), std::string::npos);
        log.clear();
        reference_host::PagerFaults faults;
        faults.refuse_mapped_above = 3000000;  // a picture takes two megabytes
        reference_host::SetPagerFaults(faults);
        r.draw(true);
        reference_host::SetPagerFaults({});
        EXPECT_TRUE(r.projector.IsComplete()) << "one picture and a few slices at once";
        EXPECT_EQ(log.find("tpict_alloc"), std::string::npos) << "pictures stay";
        faults = {};
        faults.refuse_map =
            azimuth == 0.0 ? 2 : 2 + 4;  // the picture, two blocks of the pool for each server, the slices
        reference_host::SetPagerFaults(faults);
        r.draw(true);
        reference_host::SetPagerFaults({});
        EXPECT_FALSE(r.projector.IsComplete());
        EXPECT_NE(log.find(azimuth == 0.0 ? "LinProjectXYSlices: Memory mapping failure!\n"
                                          : "LinProjectXZSlices: Memory mapping failure!\n"),
                  std::string::npos);
    }
    reference_host::SetNumberOfServers(0);
    reference_host::LogToCallback({});
    reference_host::SetLogLevel(0);
}

TEST(MipRobustness, OddRequestsHaveDefinedResults) {
    const Volume v = phantom({21, 18, 12}, {1.0, 1.0, 1.0});
    Request r(v);

    // No such volume: nothing is done.
    const std::vector<short> untouched = r.output;
    for (const int k : {-1, 1, 1000}) {
        r.projector.Project(&r.p, &r.a, &r.b, k == 1 ? 1 : 0, k, 0);
        EXPECT_EQ(r.a.m_Picture.Block(), -1);
    }
    r.projector.Project(nullptr, &r.a, &r.b, 0, 0, 0);
    r.projector.Project(&r.p, nullptr, nullptr, 0, 0, 0);
    EXPECT_EQ(r.output, untouched);

    // A box without a picture overwrites with the floor and adds nothing by maximum.
    r.projector.Shear(&r.p, &r.b, 5);
    EXPECT_EQ(r.output, untouched);
    r.projector.Shear(&r.p, &r.a, 5);
    EXPECT_EQ(r.output, std::vector<short>(r.output.size(), 5));

    // Views and zooms that are no numbers, or show nothing.
    for (const bool linear : {false, true}) {
        for (const float zoom : {0.0F, NAN, INFINITY, 1e-30F, 1e30F}) {
            r.p.m_Zoom = zoom;
            r.draw(linear, 7);
            EXPECT_GE(*std::min_element(r.output.begin(), r.output.end()), 7) << zoom;
        }
        r.p.m_Zoom = 1.0F;
        for (const float entry : {NAN, 0.0F, INFINITY, 1e-20F}) {
            r.set_view({});
            r.p.m_ViewMatrix[2][2] = entry;
            r.p.m_ViewMatrix[0][0] = entry;
            r.draw(linear, 7);
            EXPECT_GE(*std::min_element(r.output.begin(), r.output.end()), 7) << entry;
        }
        r.set_view({});

        // No output, or one without pixels.
        for (const std::array<int, 2> size : {std::array<int, 2>{0, 80}, {96, 0}, {-3, 5}, {0, 0}}) {
            r.p.m_Width = size[0];
            r.p.m_Height = size[1];
            r.projector.Reset(&r.p, 1);
            r.draw(linear);
        }
        r.p.m_Width = 96;
        r.p.m_Height = 80;
        r.p.m_OutputImage = nullptr;
        r.projector.Reset(&r.p, 1);
        r.draw(linear);
        r.p.m_OutputImage = r.output.data();
    }

    // Slices without memory are left out; prepared copies keep what they have.
    std::vector<short> whole[2];
    for (const bool linear : {false, true}) {
        r.draw(linear, -2000);
        whole[linear ? 1 : 0] = r.output;
    }
    delete r.volume->GetSlice(4);
    r.volume->SetSlice(new IP_ShortSlice(new MEM_PagerInfo, {5, 900, 12, true}, 0), 4);  // of another size
    r.volume->GetSlice(4)->SetOwnsData(true);
    r.volume->GetSlice(11)->SetData(nullptr, true);
    for (const bool linear : {false, true}) {
        r.draw(linear, -2000);
        EXPECT_TRUE(r.projector.IsComplete());
        EXPECT_EQ(r.output == whole[linear ? 1 : 0], !linear);
    }

    // Prepared data without volumes, and none at all.
    r.p.m_AltVolData = std::make_shared<IP_MultiVolDataIncMIP>();
    r.draw(false, 3);
    EXPECT_EQ(r.output, std::vector<short>(r.output.size(), 3));
    r.p.m_AltVolData = nullptr;
    r.draw(false, 4);
    EXPECT_EQ(r.output, std::vector<short>(r.output.size(), 4));
    r.p.m_VolData = std::make_shared<IP_MultiVolData>();
    r.draw(true, 4);
    EXPECT_EQ(r.output, std::vector<short>(r.output.size(), 4));
    expect_nothing_mapped("the end");
}

TEST(MipRobustness, PicturesAreSizedAsHostsExpect) {
    const Volume v = phantom({256, 64, 8}, {1.0, 1.0, 1.0});
    Request r(v);
    r.set_view({});
    r.draw(true, 100);
    EXPECT_EQ(r.a.m_PictureWidth, 272);
    EXPECT_EQ(r.a.m_PictureHeight, 69);
    EXPECT_EQ(r.a.m_OriginX, 13.5F);
    EXPECT_EQ(r.a.m_OriginY, 2.5F);
    EXPECT_EQ(r.a.m_PictureCapacity, 272 * 69);
    EXPECT_EQ(r.p.m_PicturesSize, 272 * 69);
    EXPECT_EQ(r.p.m_Pictures[0].Block(), r.a.m_Picture.Block());
    EXPECT_NE(r.p.m_Pictures[7].Block(), -1);
    EXPECT_EQ(r.sheared(r.a)[0], 90) << "background: ten below the threshold";
    r.draw(true, -32768);
    EXPECT_EQ(r.sheared(r.a)[0], -32768);
    EXPECT_EQ(r.a.m_IsSigned, 1);
    EXPECT_EQ(r.a.m_BitsStored, 13);
}

TEST(MipRobustness, SeveralVolumesShareOnePicture) {
    // Two halves of one volume, each with boxes of its own, look like the whole.
    const Volume whole = phantom({24, 20, 16}, {1.0, 1.0, 1.0});
    Volume half = whole;
    half.dims[2] = 8;
    half.voxels.resize(half.voxels.size() / 2);
    Volume rest = half;
    std::copy(whole.voxels.begin() + static_cast<std::ptrdiff_t>(half.voxels.size()), whole.voxels.end(),
              rest.voxels.begin());
    rest.start_mm[2] += 8.0;
    Request expected(whole);
    Request r(half);
    r.p.m_VolData->AddVolData(rest.to_host());
    r.p.m_VolData->Reset();
    r.p.m_ViewBox = expected.p.m_ViewBox;
    IP_VolRBoxParamsMIP second;
    second.m_MaxIntoOutput = 1;
    for (const View& view : {kViews[0], kViews[3], kViews[4]}) {
        expected.set_view(view);
        expected.draw(true, -900);
        r.set_view(view);
        r.draw(true, -900);
        r.projector.Project(&r.p, &second, &r.b, 1, 1, -900);
        r.projector.Shear(&r.p, &second, -900);
        // Interpolated maxima are not below the maximum of interpolated parts but for the grids of the halves, which
        // stand differently on oblique views.
        int darker = 0;
        for (std::size_t i = 0; i < r.output.size(); i++) {
            EXPECT_LE(r.output[i], expected.output[i] + 20);
            darker += r.output[i] < expected.output[i] - 1 ? 1 : 0;
        }
        EXPECT_LE(darker, static_cast<int>(r.output.size() / 25)) << view.azimuth;
    }
    IP_MIPProjector::FreePictures(nullptr, &second, nullptr);
}
