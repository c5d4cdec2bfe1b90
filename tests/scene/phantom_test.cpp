// Phantoms: the same everywhere, and the truth they tell is what their voxels hold.
#include "scene/phantom.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <set>

#include "host/reference/settings.h"
#include "scene/error.h"

namespace {

using scene::MakePhantom;
using scene::Phantom;
using scene::PhantomKind;
using scene::PhantomRequest;
using scene::Vec3;

std::size_t VoxelAt(const Phantom& p, const Vec3& position_mm) {
    const Vec3 d = position_mm - p.origin_mm;
    const int x = static_cast<int>(std::lround(d.x / p.spacing_mm.x));
    const int y = static_cast<int>(std::lround(d.y / p.spacing_mm.y));
    const int z = static_cast<int>(std::lround(d.z / p.spacing_mm.z));
    const bool inside = x >= 0 && y >= 0 && z >= 0 && x < p.size[0] && y < p.size[1] && z < p.size[2];
    return inside ? (static_cast<std::size_t>(z) * p.size[1] + y) * p.size[0] + x : p.voxels.size();
}

TEST(Phantoms, AreTheSameForAnyNumberOfThreadsAndDifferBySeed) {
    PhantomRequest request;
    request.size = {61, 50, 43};
    reference_host::SetNumberOfServers(1);
    const Phantom alone = MakePhantom(request);
    reference_host::SetNumberOfServers(3);
    const Phantom shared = MakePhantom(request);
    request.seed = 2;
    const Phantom other = MakePhantom(request);
    reference_host::SetNumberOfServers(0);
    EXPECT_EQ(alone.voxels, shared.voxels);
    EXPECT_EQ(alone.labels, shared.labels);
    EXPECT_EQ(CentreLinesJson(alone), CentreLinesJson(shared));
    EXPECT_NE(alone.voxels, other.voxels);
    EXPECT_NE(CentreLinesJson(alone), CentreLinesJson(other));
}

TEST(Phantoms, VesselsLieWhereTheirCentreLinesSay) {
    for (const PhantomKind kind : {PhantomKind::kHead, PhantomKind::kBricks}) {
        const Phantom p = MakePhantom({kind, {256, 256, 200}, 1});
        int inside = 0, in_vessel = 0, of_its_value = 0;
        double thinnest = 1e9, thickest = 0.0;
        for (const scene::Vessel& v : p.vessels) {
            for (const scene::VesselPoint& point : v.points) {
                thinnest = std::min(thinnest, point.radius_mm / p.spacing_mm.x);
                thickest = std::max(thickest, point.radius_mm / p.spacing_mm.x);
                const std::size_t i = VoxelAt(p, point.position_mm);
                if (i == p.voxels.size()) {
                    continue;
                }
                ++inside;
                const bool vessel = p.labels[i] == scene::kLabelVessel;
                in_vessel += vessel || p.labels[i] == scene::kLabelCalcification ? 1 : 0;
                of_its_value += vessel && std::abs(p.voxels[i] - v.value_hu) < 60 ? 1 : 0;
            }
        }
        EXPECT_GT(inside, 500);
        EXPECT_GE(in_vessel, inside * 98 / 100);
        EXPECT_GE(of_its_value, inside * 80 / 100);  // the rest crosses a vessel of another value
        EXPECT_NEAR(thinnest, 1.0, 0.01);
        EXPECT_NEAR(thickest, 6.0, 0.01);
    }
}

TEST(Phantoms, HoldEveryTissueInItsRangeOfValues) {
    const Phantom p = MakePhantom({PhantomKind::kHead, {128, 128, 100}, 1});
    std::array<double, 7> sums{};
    std::array<int, 7> counts{};
    for (std::size_t i = 0; i < p.voxels.size(); ++i) {
        sums[p.labels[i]] += p.voxels[i];
        ++counts[p.labels[i]];
    }
    const auto mean = [&](std::size_t label) { return sums[label] / std::max(1, counts[label]); };
    EXPECT_EQ(std::count(counts.begin(), counts.end(), 0), 0);
    EXPECT_NEAR(mean(scene::kLabelOutside), -1000, 15);
    EXPECT_GT(mean(scene::kLabelBone), 600);
    EXPECT_NEAR(mean(scene::kLabelBrain), 40, 20);  // rims are part bone
    EXPECT_GT(mean(scene::kLabelCalcification), 750);
    EXPECT_LT(mean(scene::kLabelAirway), -700);
}

TEST(Phantoms, ComeInAnySize) {
    for (const std::array<int, 3>& size :
         {std::array<int, 3>{1, 1, 1}, std::array<int, 3>{5, 200, 1}, std::array<int, 3>{3, 2, 90}}) {
        EXPECT_EQ(MakePhantom({PhantomKind::kHead, size, 9}).voxels.size(),
                  static_cast<std::size_t>(size[0]) * size[1] * size[2]);
        EXPECT_NO_THROW(MakePhantom({PhantomKind::kBricks, size, 9}));
    }
    EXPECT_THROW(MakePhantom({PhantomKind::kHead, {0, 10, 10}, 1}), scene::Error);
    EXPECT_THROW(MakePhantom({PhantomKind::kHead, {10, 10, 5000}, 1}), scene::Error);
}

}  // namespace
