// Sampling and classification against hand-made neighbourhoods.
#include "ip_volr/IP_VesselClassification.h"
#include "vessel_scene.h"

#include <gtest/gtest.h>

#include <array>
#include <vector>

namespace {

using vessel_tests::LogCatcher;
using vessel_tests::make_data;

// Class, trace and statistics of seven samples, centre first, then x + 1, x - 1, y + 1, y - 1, z + 1, z - 1.
struct Classified {
    VesselClass vessel_class;
    std::string trace;
    VesselStatistics statistics;
};

Classified classify(const std::array<int, 7>& samples) {
    const auto volume = make_data(5, 5, 5, [&](int x, int y, int z) {
        const int dx = x - 2;
        const int dy = y - 2;
        const int dz = z - 2;
        if (dx * dx + dy * dy + dz * dz > 1) {
            return 2000;  // reading a diagonal neighbour would show
        }
        const int axis = dx != 0 ? 0 : dy != 0 ? 1 : 2;
        const int sign = dx + dy + dz;
        return samples[static_cast<std::size_t>(sign == 0 ? 0 : 1 + 2 * axis + (sign < 0 ? 1 : 0))] / 2 + 512;
    });
    voldata_manager data;
    data.attach(volume.get());
    LogCatcher log;
    Classified result{};
    const double point[3] = {2.0, 2.0, 2.0};
    result.vessel_class = is_vessel_internal_voxel(data, point, 2.0, -1024.0, result.statistics);
    result.trace = log.Text();
    return result;
}

TEST(VesselClassification, DecidesInTheDescribedOrder) {
    struct Case {
        std::array<int, 7> samples;
        VesselClass expected;
        const char* trace;
    };
    const Case cases[] = {
        {{40, 200, 200, 200, 200, 200, 200}, kVesselNone, "c"},
        {{800, 200, 200, 200, 200, 200, 200}, kVesselNone, "C"},
        {{300, 760, 200, 200, 200, 200, 200}, kVesselNone, "M"},
        {{200, 210, 190, 204, 196, 220, 180}, kVesselMedium, "Medium intensity vessel (m=200.000000 std=13.114877)\n"},
        {{400, 410, 420, 430, 440, 450, 460},
         kVesselMedium,
         "Medium intensity vessel (m=430.000000 std=21.602469)\n"},  // also high: medium wins
        {{500, 520, 540, 560, 580, 600, 700}, kVesselHigh, "High intensity vessel (m=571.428571 std=66.188763)\n"},
        {{200, 90, 80, 70, 60, 360, 210}, kVesselNone, ""},
        {{200, 90, 80, 70, 60, 300, 210}, kVesselThin, "Thin vessel (m=144.285714  std=92.530561)\n"},
        {{60, 20, 20, 50, 20, 20, 20}, kVesselNone, "."},
    };
    for (const Case& c : cases) {
        const Classified result = classify(c.samples);
        EXPECT_EQ(result.vessel_class, c.expected) << c.trace;
        EXPECT_EQ(result.trace, c.trace);
    }
}

TEST(VesselClassification, RejectsPointsWithoutNeighbourhoodUnread) {
    const auto volume = make_data(6, 6, 6, [](int, int, int) { return 200; });
    voldata_manager data;  // goes before what it maps
    data.attach(volume.get());
    VesselStatistics statistics;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    for (const std::array<double, 3>& p :
         {std::array<double, 3>{0.5, 3.0, 3.0}, {4.5, 3.0, 3.0}, {3.0, 4.1, 3.0}, {3.0, 3.0, 0.9}, {3.0, nan, 3.0}}) {
        EXPECT_EQ(is_vessel_internal_voxel(data, p.data(), 1.0, 0.0, statistics), kVesselNone);
    }
    EXPECT_EQ(data.last_mapped(), -1);
    const double corner[3] = {1.0, 4.0, 4.0};
    EXPECT_EQ(is_vessel_internal_voxel(data, corner, 1.0, 0.0, statistics), kVesselMedium);
}

TEST(VesselSampling, InterpolatesTruncatesAndStaysInside) {
    const auto volume = make_data(4, 5, 6, [](int x, int y, int z) { return 10 * x + 100 * y - 1000 * z; });
    voldata_manager data;
    data.attach(volume.get());
    const double inside[3] = {1.25, 2.5, 0.125};  // 12.5 + 250 - 125
    EXPECT_EQ(vessel_trilinear_sample(data, inside), 137);
    EXPECT_EQ(vessel_rescaled_sample(data, inside, -0.5, 0.25), -68);
    const double last[3] = {3.0, 4.0, 5.0};
    EXPECT_EQ(vessel_trilinear_sample(data, last), 30 + 400 - 5000);
    const double beyond[3] = {-3.0, 9.0, 1e300};
    EXPECT_EQ(vessel_trilinear_sample(data, beyond), 400 - 5000);
}

TEST(VesselSampling, TakesOpacityFromTheTableOfTheNearestTissue) {
    // Odd width: the nibble goes by the parity of x alone.
    const auto volume = make_data(5, 4, 3, [](int, int, int) { return -7; });
    const auto tissues = vessel_tests::make_volume<IP_TisIndSlice, unsigned char>(
        5, 4, 3, 10, [](std::size_t i, int) { return static_cast<unsigned char>(i == 3 ? 0x2F : 0xFF); });
    std::vector<unsigned> table_2(64, 0);
    std::vector<unsigned> table_15(64, 0xFFFFFF00U | 51U);
    table_2[32 - 7] = 0xFFFFFF00U | 255U;
    const unsigned* tables[16] = {};
    tables[2] = table_2.data() + 32;
    tables[15] = table_15.data() + 32;
    voldata_manager data;
    voldata_manager tissue_data;
    data.attach(volume.get());
    tissue_data.attach(tissues.get());
    const double odd_x[3] = {2.6, 1.0, 0.0};   // voxel (3, 1): byte 5 / 2 + 1 = 3, high nibble
    const double even_x[3] = {2.4, 1.0, 0.0};  // voxel (2, 1): the low nibble of the same byte
    EXPECT_DOUBLE_EQ(vessel_opacity_sample(data, tissue_data, tables, odd_x, 0.5), 0.5);
    EXPECT_DOUBLE_EQ(vessel_opacity_sample(data, tissue_data, tables, even_x, 0.5), 0.1);
    EXPECT_DOUBLE_EQ(vessel_opacity_sample(data, tables, odd_x, 1.0), 0.2);
}

TEST(VesselMembership, BoundsAreExclusiveAndNeverWiderThanTheClass) {
    struct Case {
        VesselClass vessel_class;
        VesselStatistics statistics;
        int first_inside, last_inside;
    };
    for (const Case& c : {Case{kVesselThin, {100.0, 80.0}, 51, 179}, Case{kVesselThin, {340.0, 80.0}, 261, 349},
                          Case{kVesselMedium, {200.0, 10.9}, 168, 231}, Case{kVesselHigh, {500.0, 100.0}, 301, 749},
                          Case{kVesselNone, {0.0, 0.0}, 51, 749}}) {
        EXPECT_FALSE(vessel_value_is_member(c.first_inside - 1, c.vessel_class, c.statistics)) << c.first_inside;
        EXPECT_TRUE(vessel_value_is_member(c.first_inside, c.vessel_class, c.statistics)) << c.first_inside;
        EXPECT_TRUE(vessel_value_is_member(c.last_inside, c.vessel_class, c.statistics)) << c.last_inside;
        EXPECT_FALSE(vessel_value_is_member(c.last_inside + 1, c.vessel_class, c.statistics)) << c.last_inside;
    }
    const short values[] = {-3, 5, 7};
    const RunningStatistics sums = vessel_running_statistics(values, values + 3, {1.0, 10.0, 100.0});
    EXPECT_EQ(sums.count, 4.0);
    EXPECT_EQ(sums.sum, 19.0);
    EXPECT_EQ(sums.sum_of_squares, 183.0);
    EXPECT_EQ((RunningStatistics{1.0, 5.0, 25.0}).Statistics().std, 0.0);
}

}  // namespace
