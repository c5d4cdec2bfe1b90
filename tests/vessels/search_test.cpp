// Both searches along rays whose profiles are known: what they find, every kind of failure, and the log to the letter.
#include "ip_volr/IP_Relate.h"
#include "ip_volr/IP_VolDataAccess.h"
#include "tests/support/fault_sweep.h"
#include "vessel_scene.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

using vessel_tests::LogCatcher;
using vessel_tests::make_data;
using vessel_tests::make_volume;

// Values of the voxels along x; the same in every row and slice.
using Profile = std::function<int(int)>;

struct Found {
    int status = -1;
    double centre[3] = {-1.0, -1.0, -1.0};
    VesselSearchRecord record;
    std::string trace;
    std::size_t num_statements = 0;
};

constexpr int kLength = 60;

std::unique_ptr<IP_VolData> volume_of(const Profile& profile) {
    return make_data(kLength, 7, 7, [&](int x, int, int) { return profile(x); });
}

// Opacity byte by stored value. The usual one is opaque from 50 upward, the way a vessel preset is.
using Opacity = std::function<unsigned(int)>;

unsigned vessel_preset(int value) {
    return value >= 50 ? 200U : 0U;
}

Found search_rendering(const Profile& profile, const Opacity& opacity = vessel_preset) {
    const auto volume = volume_of(profile);
    std::vector<unsigned> table(65536);
    for (int i = 0; i < 65536; ++i) {
        table[static_cast<std::size_t>(i)] = opacity(i - 32768);
    }
    const unsigned* tables[16];
    std::fill(tables, tables + 16, table.data() + 32768);

    Found found;
    LogCatcher log;
    const double start[3] = {0.0, 3.0, 3.0};
    const double direction[3] = {1.0, 0.0, 0.0};
    double opacity_state[2] = {0.0, 0.0};
    found.status = find_vessel_center_volr(volume.get(), nullptr, tables, start, direction, 1.0, kLength, found.centre,
                                           opacity_state, &found.record);
    found.trace = log.Text();
    found.num_statements = log.NumStatements();
    EXPECT_FALSE(log.HasHeadline());
    return found;
}

Found search_mip(const Profile& profile, const IP_ListVol* mask = nullptr) {
    const auto volume = volume_of(profile);
    Found found;
    LogCatcher log;
    const double start[3] = {0.0, 3.0, 3.0};
    const double direction[3] = {1.0, 0.0, 0.0};
    int running_maximum = std::numeric_limits<int>::min();
    found.status = find_vessel_center_mip(volume.get(), mask, start, direction, 1.0, kLength, found.centre,
                                          running_maximum, &found.record);
    found.trace = log.Text();
    return found;
}

// A vessel's cross-section: flat in the middle, falling to nothing at its radius.
int bump(int x, double middle, double radius, double peak) {
    const double d = (x - middle) / radius;
    return d * d < 1.0 ? static_cast<int>(peak * (1.0 - d * d * d * d)) : 0;
}

std::string repeated(const std::string& text, int times) {
    std::string result;
    for (int i = 0; i < times; ++i) {
        result += text;
    }
    return result;
}

TEST(VesselOnRendering, FindsTheMiddleOfAMediumVessel) {
    const Found found = search_rendering([](int x) { return bump(x, 25, 6, 300); });
    EXPECT_EQ(found.status, 1);
    EXPECT_EQ(found.record.outcome, kVesselSearchFound);
    EXPECT_EQ(found.record.vessel_class, kVesselMedium);
    EXPECT_EQ(found.record.picked_index, 39);
    EXPECT_DOUBLE_EQ(found.centre[0], 25.0);
    EXPECT_DOUBLE_EQ(found.centre[1], 3.0);
    EXPECT_DOUBLE_EQ(found.record.length_mm, 5.0);
    EXPECT_EQ(found.num_statements, 11U);
    EXPECT_EQ(found.trace,
              "\nSearching for internal vessel point\n"
              "oo+++++++++Medium intensity vessel (m=298.714286 std=1.253566)\n"
              "Medium intensity vessel found\n"
              "Searching for vessel bounds\n"
              "Updating vessel values: mean=298.100000 std=1.449138\n"
              "Calcification length = 3.000000 mm\n"
              "find_vessel_center_volr() success: vessel length = 5.000000 mm\n"
              "\n");
}

TEST(VesselOnRendering, LooksThroughCalcificationsForTheVesselBehind) {
    // Bone-bright, then a vessel: the search steps through.
    const Found bright = search_rendering([](int x) { return x >= 20 && x < 24 ? 1000 : bump(x, 27, 6, 300); });
    EXPECT_EQ(bright.record.outcome, kVesselSearchFound);
    EXPECT_DOUBLE_EQ(bright.centre[0], 27.0);
    EXPECT_EQ(bright.trace,
              "\nSearching for internal vessel point\n"
              "oo+C-C-C-C-C-C-C-+M-+++Medium intensity vessel (m=298.714286 std=1.253566)\n"
              "Calcification detected in first stage\n"
              "Medium intensity vessel found\n"
              "Searching for vessel bounds\n"
              "Updating vessel values: mean=298.100000 std=1.449138\n"
              "Calcification length = 5.000000 mm\n"
              "find_vessel_center_volr() success: vessel length = 5.000000 mm\n"
              "\n");

    // As bright as a high-intensity vessel, then a medium one: what was taken for the vessel was a calcification.
    const auto soft = [](int x) { return x >= 20 && x < 23 ? 700 : x >= 23 && x < 33 ? 250 + x % 2 : 0; };
    const Found medium = search_rendering(soft);
    EXPECT_EQ(medium.record.vessel_class, kVesselMedium);
    EXPECT_GE(medium.centre[0], 24.0);
    EXPECT_NE(medium.trace.find("Searching for calcifications\n."), std::string::npos) << medium.trace;
    EXPECT_NE(medium.trace.find("\nCalcification detected\nMedium intensity vessel found\n"), std::string::npos)
        << medium.trace;
}

TEST(VesselOnRendering, EveryFailureFallsBackToTheVisibleVoxel) {
    struct Case {
        VesselSearchOutcome outcome;
        double centre_x;
        const char* last_line;
        Profile profile;
        Opacity opacity = vessel_preset;
    };
    const auto growing = [](int x) {
        return std::max(0, static_cast<int>(400 - 20 * (std::pow(1.09, std::abs(x - 30)) - 1)));
    };
    const Case cases[] = {
        {kVesselSearchStartsInside, 0.0, "\n", [](int) { return 300; }},
        {kVesselSearchNoVessel, 19.5, "find_vessel_center_volr(): Vessel not found!\n",
         [](int x) { return x >= 20 && x < 40 ? 1200 : 0; }},
        {kVesselSearchNoBounds, 49.5, "find_vessel_center_volr() failed: unable to detect vessel bounds!\n",
         [](int x) { return x >= 50 ? 300 + x % 3 : 0; }},
        {kVesselSearchUnstable, 29.5, "find_vessel_center_volr() failed: Max iterations exceeded!\n", growing,
         [](int value) { return value >= 399 ? 255U : 2U; }},
        {kVesselSearchThinTooThick, 20.0,
         "find_vessel_center_volr() failed: Thin vessel not very thin: steps = 12...\n",
         [](int x) { return x == 20             ? 98
                            : x > 20 && x <= 25 ? 80
                                                : 0; }},
        {kVesselSearchEntryTooFar, 30.0,
         "find_vessel_center_volr() failed: Inconsistent entry point! Distance to dominant voxel = -10.500000 mm\n",
         [](int x) { return x == 30             ? 300
                            : x >= 20 && x < 40 ? 285 + x % 2
                                                : 0; },
         [](int value) { return value >= 300 ? 255U
                                : value > 60 ? 2U
                                             : 0U; }},
        {kVesselSearchCalcificationTooLong, 9.5,
         "find_vessel_center_volr() failed: Calcification longer than bound! Length = 17.000000 mm\n",
         [](int x) { return x >= 10 && x < 26 ? 1000
                            : x >= 26         ? bump(x, 30, 7, 300)
                                              : 0; }},
    };
    for (const Case& c : cases) {
        const Found found = search_rendering(c.profile, c.opacity);
        EXPECT_EQ(found.status, 1) << c.last_line;
        EXPECT_EQ(found.record.outcome, c.outcome) << found.trace;
        EXPECT_DOUBLE_EQ(found.centre[0], c.centre_x) << found.trace;
        const std::string last_line = c.last_line;
        ASSERT_GE(found.trace.size(), last_line.size());
        EXPECT_EQ(found.trace.substr(found.trace.size() - last_line.size()), last_line) << found.trace;
    }
    // Seventeen passes are the most.
    const Found unstable = search_rendering(growing, [](int value) { return value >= 399 ? 255U : 2U; });
    std::size_t num_updates = 0;
    for (std::size_t at = 0; (at = unstable.trace.find("Updating", at)) != std::string::npos; ++at) {
        ++num_updates;
    }
    EXPECT_EQ(num_updates, 17U);
}

TEST(VesselOnRendering, LeavesTheCentreAloneWhenNothingIsVisible) {
    const Found empty = search_rendering([](int) { return 0; });
    EXPECT_EQ(empty.status, 2);
    EXPECT_EQ(empty.centre[0], -1.0);
    EXPECT_EQ(empty.trace, "\nfind_vessel_center_volr(): Non-transparent voxel not found!\n");
}

TEST(VesselOnMip, SearchesBothSidesOfTheBrightestVoxel) {
    const Found found = search_mip([](int x) { return bump(x, 25, 6, 300); });
    EXPECT_EQ(found.status, 1);
    EXPECT_DOUBLE_EQ(found.centre[0], 25.0);
    const auto side = [](const std::string& d) {
        return "Searching for internal vessel point, direction = " + d +
               "\nMedium intensity vessel (m=299.714286 std=0.487950)\n"
               "Medium intensity vessel found\n"
               "Searching for vessel bounds\n"
               "Updating vessel values: mean=299.333333 std=0.516398\n"
               "find_vessel_center_mip() direction=" +
               d + " SUCCESS: vessel length = 3.000000 mm\n";
    };
    // The same vessel from both sides has one mean: equal means take +1.
    EXPECT_EQ(found.trace, "\n" + side("1") + side("-1") +
                               "find_vessel_center_mip(): Vessel found in both directions! Taking direction +1.\n\n");
}

TEST(VesselOnMip, TakesTheBrighterOfTwoVesselsAroundACalcification) {
    // The brightest voxel below the limit is the edge of a calcification between two vessels.
    const auto between = [](int left, int right) {
        return [=](int x) {
            return x >= 28 && x <= 32 ? 745 + (x == 30 ? 200 : 0) : bump(x, 22, 6, left) + bump(x, 38, 6, right);
        };
    };
    const Found right = search_mip(between(300, 420));
    EXPECT_NEAR(right.centre[0], 38.0, 0.5) << right.trace;
    EXPECT_NE(right.trace.find("Vessel found in both directions! Taking direction +1.\n"), std::string::npos);
    const Found left = search_mip(between(420, 300));
    EXPECT_NEAR(left.centre[0], 22.0, 0.5) << left.trace;
    EXPECT_NE(left.trace.find("Vessel found in both directions! Taking direction -1.\n"), std::string::npos);
    const Found only_left = search_mip(between(300, 0));
    EXPECT_NEAR(only_left.centre[0], 22.0, 0.5) << only_left.trace;
    EXPECT_NE(only_left.trace.find("direction=1 failed Vessel not found!\n"), std::string::npos);
    EXPECT_NE(only_left.trace.find("Vessel found in direction -1!\n"), std::string::npos);
}

TEST(VesselOnMip, HonoursTheMaskAndTheCalcificationLimit) {
    const Found calcified = search_mip([](int) { return 751; });
    EXPECT_EQ(calcified.status, 2);
    EXPECT_EQ(calcified.centre[0], -1.0);
    EXPECT_EQ(calcified.trace, "find_vessel_center_mip(): No voxels found!\n");

    // The mask ends just behind the vessel's flank: the walk towards the end of the ray meets its border.
    IP_ListVol mask(IP_Dims(kLength, 7, 7));
    mask.AddRun(3, 3, 0, 23);
    const Found masked = search_mip([](int x) { return x < 18 ? 0 : std::min(300, (x - 17) * 30); }, &mask);
    EXPECT_DOUBLE_EQ(masked.record.picked_point[0], 22.0) << "voxel 22 is the last of the mask";
    EXPECT_EQ(masked.trace,
              "\nSearching for internal vessel point, direction = 1\n"
              "+Tfind_vessel_center_mip(): direction=1 failed Vessel not found!\n"
              "Searching for internal vessel point, direction = -1\n" +
                  repeated("+", 10) + repeated("c-", 33) + repeated("-", 2) +
                  "find_vessel_center_mip(): direction=-1 failed Vessel not found!\n"
                  "find_vessel_center_mip(): Vessel not found!\n\n");
}

TEST(VesselSearch, BadRaysAndRefusedMappingsLeaveNothingMapped) {
    const auto volume = volume_of([](int x) { return bump(x, 25, 6, 300); });
    const auto mapped_before = reference_host::GetPagerStatistics().mapped_blocks;
    const double nan = std::numeric_limits<double>::quiet_NaN();
    const double infinity = std::numeric_limits<double>::infinity();
    struct Ray {
        double start, direction, length;
    };
    double centre[3] = {-1.0, -1.0, -1.0};
    for (const Ray& ray : {Ray{nan, 1.0, 60.0}, Ray{0.0, infinity, 60.0}, Ray{0.0, 1.0, nan}, Ray{0.0, 0.0, 1e18},
                           Ray{0.0, 1.0, -5.0}, Ray{500.0, 1.0, 60.0}, Ray{-500.0, -1.0, 1e300}}) {
        const double start[3] = {ray.start, 3.0, 3.0};
        const double direction[3] = {ray.direction, 0.0, 0.0};
        int running_maximum = -32768;
        EXPECT_EQ(
            find_vessel_center_mip(volume.get(), nullptr, start, direction, 1.0, ray.length, centre, running_maximum),
            2);
        EXPECT_EQ(centre[0], -1.0);
    }

    // The volume is read from far outside as well, and without a volume nothing is.
    const double start[3] = {-1000.0, 3.0, 3.0};
    const double direction[3] = {1.0, 0.0, 0.0};
    int running_maximum = -32768;
    EXPECT_EQ(find_vessel_center_mip(volume.get(), nullptr, start, direction, 1.0, 1e300, centre, running_maximum), 1);
    EXPECT_DOUBLE_EQ(centre[0], 25.0);
    double opacity_state[2] = {0.0, 0.0};
    EXPECT_EQ(find_vessel_center_volr(nullptr, nullptr, nullptr, start, direction, 1.0, 1e6, centre, opacity_state), 2);

    reference_host::PagerFaults faults;
    faults.refuse_map = 1;
    reference_host::SetPagerFaults(faults);
    running_maximum = -32768;
    EXPECT_THROW(find_vessel_center_mip(volume.get(), nullptr, start, direction, 1.0, 2000.0, centre, running_maximum),
                 map_failure_exception);
    reference_host::SetPagerFaults({});
    EXPECT_EQ(reference_host::GetPagerStatistics().mapped_blocks, mapped_before);
}

// A search whose range of slices has to move on: what it cannot map ends it with the access exception.
TEST(VesselSearch, RefusedMappingsEndItAndTheNextOneFindsTheSame) {
    const auto volume = make_data(5, 5, 160, [](int, int, int z) { return bump(z, 130, 6, 300); });
    const auto tissues = make_volume<IP_TisIndSlice, unsigned char>(
        5, 5, 160, 13, [](std::size_t, int) -> unsigned char { return 0xFF; });
    std::vector<unsigned> table(65536);
    std::fill(table.begin() + 32768 + 50, table.end(), 200U);
    const unsigned* tables[16];
    std::fill(tables, tables + 16, table.data() + 32768);
    const double start[3] = {2.0, 2.0, 0.0};
    const double direction[3] = {0.0, 0.0, 1.0};
    FaultSweep sweep(BadAlloc::Allowed);
    for (const bool on_rendering : {true, false}) {
        const auto search = [&] {
            Found found;
            double opacity_state[2] = {0.0, 0.0};
            int running_maximum = std::numeric_limits<int>::min();
            found.status = on_rendering
                               ? find_vessel_center_volr(volume.get(), tissues.get(), tables, start, direction, 1.0,
                                                         160.0, found.centre, opacity_state, &found.record)
                               : find_vessel_center_mip(volume.get(), nullptr, start, direction, 1.0, 160.0,
                                                        found.centre, running_maximum, &found.record);
            return found;
        };
        sweep.run([&](FaultPoint& point) {
            bool done = false;
            point.run([&] {
                try {
                    search();
                    done = true;
                } catch (const map_failure_exception&) {
                }
            });
            point.expect_ended_by_fault(done);
            const Found found = search();
            EXPECT_EQ(found.record.outcome, kVesselSearchFound);
            EXPECT_DOUBLE_EQ(found.centre[2], 130.0);
        });
    }
}

}  // namespace
