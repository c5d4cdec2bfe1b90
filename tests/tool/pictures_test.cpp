// The tool end to end on a phantom: pictures show what the phantom holds, where the statistics say.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cmath>
#include <fstream>

#include "scene/movie/movie_writer.h"
#include "scene/picture.h"
#include "scene/vector3.h"
#include "tests/tool/program.h"

namespace {

using scene::Vec3;
using tool_test::Folder;
using tool_test::Outcome;
using tool_test::ReadJson;
using tool_test::ToVec;
using tool_test::Volr;

// A phantom shared by the tests of the suite.
class Tool : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_Folder = new Folder;
        const Outcome made = Volr({"phantom", "head", "--size", "128,128,100", "-o", In("head.nrrd"), "--labels",
                                   In("labels.nii.gz"), "--centrelines", In("truth.json")});
        ASSERT_EQ(made.status, 0) << made.err;
    }
    static void TearDownTestSuite() { delete s_Folder; }
    static std::string In(const std::string& name) { return s_Folder->Path(name); }

    // Runs a verb that writes picture.png and statistics.
    nlohmann::json Draw(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin() + 1, In("head.nrrd"));
        arguments.insert(arguments.end(), {"-o", In("picture.png"), "--stats", In("stats.json")});
        const Outcome outcome = Volr(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        return ReadJson(In("stats.json"));
    }

    static Folder* s_Folder;
};

Folder* Tool::s_Folder = nullptr;

// The pixel that shows a position, by the statistics alone.
std::array<int, 2> PixelOf(const nlohmann::json& picture, const Vec3& position_mm) {
    const Vec3 d = position_mm - ToVec(picture["origin_mm"]);
    const Vec3 right = ToVec(picture["right_mm"]);
    const Vec3 down = ToVec(picture["down_mm"]);
    return {static_cast<int>(std::lround(Dot(d, right) / Dot(right, right))),
            static_cast<int>(std::lround(Dot(d, down) / Dot(down, down)))};
}

// Middle of the right carotid in the neck, clear of bone from the front.
Vec3 CarotidPoint(const nlohmann::json& truth) {
    for (const auto& vessel : truth["vessels"]) {
        if (vessel["name"] == "right_common_carotid") {
            return ToVec(vessel["points"][vessel["points"].size() * 3 / 4]);
        }
    }
    return {};
}

TEST_F(Tool, AMipShowsAVesselOnThePixelThatTheStatisticsSay) {
    const Vec3 carotid = CarotidPoint(ReadJson(In("truth.json")));
    for (const char* path : {"--linear", "--fast"}) {
        const nlohmann::json stats = Draw({"mip", "--window", "300,200", path, "--view", "anterior", "--azimuth", "15",
                                           "--size", "400x300", "--raw16", In("raw")});
        EXPECT_EQ(stats["picture"]["width"], 400);
        EXPECT_EQ(stats["input"]["dims"], (std::array<int, 3>{128, 128, 100}));
        const auto [x, y] = PixelOf(stats["picture"], carotid);
        const scene::Picture picture = scene::ReadPng(In("picture.png"));
        EXPECT_GT(picture.At(x, y) & 255, 60U) << path;
        EXPECT_EQ(picture.At(2, 2) & 255, 0U);

        // The raw picture holds the same value.
        std::ifstream raw(In("raw"), std::ios::binary);
        std::vector<std::int16_t> stored(400 * 300);
        raw.read(reinterpret_cast<char*>(stored.data()), static_cast<std::streamsize>(stored.size() * 2));
        ASSERT_EQ(raw.gcount(), static_cast<std::streamsize>(stored.size() * 2));
        const double slope = stats["input"]["rescale"]["slope"];
        const double intercept = stats["input"]["rescale"]["intercept"];
        const double value = stored[static_cast<std::size_t>(y * 400 + x)] * slope + intercept;
        EXPECT_NEAR(picture.At(x, y) & 255, std::clamp((value - 200.0) / 200.0, 0.0, 1.0) * 255.0, 1.0);
    }
}

TEST_F(Tool, ViewsAreTheRightWayRound) {
    // The marker on the right cheek is the brightest thing beside the teeth; from the front it lies left of the middle.
    const Vec3 cheek = {-50.0, -220.0, 594.0};
    for (const auto& [view, left_of_middle] : {std::pair{"anterior", true}, std::pair{"posterior", false}}) {
        const nlohmann::json stats = Draw({"mip", "--view", view, "--window", "1300,400"});
        const auto [x, y] = PixelOf(stats["picture"], cheek);
        EXPECT_EQ(x < 256, left_of_middle);
        EXPECT_GT(scene::ReadPng(In("picture.png")).At(x, y) & 255, 200U) << view;
    }
    // Feet down: shoulders are wider than the top of the head.
    Draw({"render", "--preset", "ct-skin"});
    const scene::Picture picture = scene::ReadPng(In("picture.png"));
    const auto covered = [&](int y) {
        return std::count_if(&picture.pixels[static_cast<std::size_t>(y) * 512],
                             &picture.pixels[static_cast<std::size_t>(y) * 512 + 512],
                             [](std::uint32_t p) { return (p & 0xFFFFFF) != 0; });
    };
    EXPECT_GT(covered(385), 1.5 * covered(150));
    EXPECT_GT(covered(150), 20);
}

TEST_F(Tool, RenderingsAreBrightAndTheirBackgroundIsAsAsked) {
    Draw({"render", "--preset", "ct-bone", "--background", "#102030"});
    scene::Picture picture = scene::ReadPng(In("picture.png"));
    EXPECT_EQ(picture.At(0, 0), 0xFF102030U);
    const std::uint32_t brightest =
        *std::max_element(picture.pixels.begin(), picture.pixels.end(),
                          [](std::uint32_t a, std::uint32_t b) { return (a >> 8 & 255) < (b >> 8 & 255); });
    EXPECT_GT(brightest >> 8 & 255, 220U);

    Draw({"render", "--preset", "ct-bone", "--background", "transparent"});
    picture = scene::ReadPng(In("picture.png"));
    EXPECT_EQ(picture.At(0, 0) >> 24, 0U);
    EXPECT_EQ(picture.At(256, 200) >> 24, 255U);  // bone hides what is behind
}

TEST_F(Tool, PicturesDoNotDependOnThreadsOrMemory) {
    for (const char* verb : {"mip", "render"}) {
        Draw({verb, "--azimuth", "33", "--elevation", "21", "--threads", "1"});
        const scene::Picture alone = scene::ReadPng(In("picture.png"));
        const nlohmann::json stats = Draw(
            {verb, "--azimuth", "33", "--elevation", "21", "--threads", "3", "--memory-budget", "1M", "--repeat", "2"});
        EXPECT_EQ(scene::ReadPng(In("picture.png")).pixels, alone.pixels) << verb;
        EXPECT_EQ(stats["seconds"]["frames"].size(), 2U);
        EXPECT_EQ(stats["threads"], 3);
        EXPECT_GT(stats["memory"]["spilled_bytes"], 0) << verb;
    }
}

TEST_F(Tool, ASlabShowsOnlyItsLayer) {
    const Vec3 carotid = CarotidPoint(ReadJson(In("truth.json")));
    const nlohmann::json whole = Draw({"mip", "--window", "300,200"});
    // Depth of the vessel beyond the volume's middle, in mm.
    const double depth = -Dot(carotid - ToVec(whole["picture"]["origin_mm"]), ToVec(whole["picture"]["toward_viewer"]));
    const auto [x, y] = PixelOf(whole["picture"], carotid);
    Draw({"mip", "--window", "300,200", "--slab", "10," + std::to_string(depth)});
    EXPECT_GT(scene::ReadPng(In("picture.png")).At(x, y) & 255, 60U);
    Draw({"mip", "--window", "300,200", "--slab", "10," + std::to_string(depth - 40.0)});
    EXPECT_EQ(scene::ReadPng(In("picture.png")).At(x, y) & 255, 0U);
}

TEST_F(Tool, PicksAndVesselsLieWhereThePhantomSays) {
    const Vec3 carotid = CarotidPoint(ReadJson(In("truth.json")));
    const nlohmann::json stats = Draw({"mip"});
    const auto [x, y] = PixelOf(stats["picture"], carotid);
    const std::string pixel = std::to_string(x) + "," + std::to_string(y);
    for (const char* on : {"mip", "render"}) {
        const Outcome pick = Volr({"pick", In("head.nrrd"), "--pixel", pixel, "--on", on, "--json"});
        ASSERT_EQ(pick.status, 0) << pick.err;
        const nlohmann::json picked = nlohmann::json::parse(pick.out);
        ASSERT_TRUE(picked["patient_mm"].is_array()) << on;
        EXPECT_LT(Length(ToVec(picked["patient_mm"]) - carotid), 12.0) << on;  // within the vessel
        const Outcome vessel = Volr({"vessel", In("head.nrrd"), "--pixel", pixel, "--on", on, "--json", "--markups",
                                     In("m.mrk.json"), "-o", In("v.png")});
        ASSERT_EQ(vessel.status, 0) << vessel.err;
        const nlohmann::json found = nlohmann::json::parse(vessel.out)[0];
        EXPECT_NE(found["class"], "none") << found["reason"];
        EXPECT_LT(Length(ToVec(found["centre_mm"]) - carotid), 3.0) << on;
        EXPECT_GT(found["length_mm"], 4.0);
        EXPECT_EQ(ReadJson(In("m.mrk.json"))["markups"][0]["controlPoints"][0]["position"], found["centre_mm"]);
    }
    const Outcome missed = Volr({"pick", In("head.nrrd"), "--pixel", "0,0", "--on", "render", "--json"});
    EXPECT_EQ(missed.status, 0);
    EXPECT_TRUE(nlohmann::json::parse(missed.out)["patient_mm"].is_null());
}

TEST_F(Tool, ATurnIsANumberedSeriesThatComesRound) {
    const Outcome turn = Volr({"rotate", In("head.nrrd"), "-o", In("turn"), "--frames", "4", "--mode", "mip", "--size",
                               "64x64", "--window", "400,1000"});
    ASSERT_EQ(turn.status, 0) << turn.err;
    const scene::Picture side = scene::ReadPng(In("turn/frame_0001.png"));
    Draw({"mip", "--view", "left", "--size", "64x64", "--window", "400,1000"});
    EXPECT_EQ(side.pixels, scene::ReadPng(In("picture.png")).pixels);
    EXPECT_TRUE(std::filesystem::exists(In("turn/frame_0003.png")));

    // A movie of the same.
    const std::vector<std::string> movie = {"rotate", In("head.nrrd"), "-o",  In("turn.MP4"), "--frames",
                                            "5",      "--mode",        "mip", "--size",       "63x64"};
    EXPECT_EQ(Volr(movie).status, scene::CanWriteMovies() ? 0 : 1);
    EXPECT_EQ(std::filesystem::exists(In("turn.MP4")), scene::CanWriteMovies());
    std::filesystem::remove(In("turn.MP4"));
    std::vector<std::string> clear = movie;
    clear.insert(clear.end(), {"--background", "transparent"});
    EXPECT_EQ(Volr(clear).status, scene::CanWriteMovies() ? 2 : 1);
    EXPECT_FALSE(std::filesystem::exists(In("turn.MP4")));
}

TEST_F(Tool, PresetsRoundTripThroughFiles) {
    const Outcome dump = Volr({"presets", "--dump", "ct-bone"});
    std::ofstream(In("mine.json")) << dump.out;
    Draw({"render", "--preset", "ct-bone"});
    const scene::Picture by_name = scene::ReadPng(In("picture.png"));
    Draw({"render", "--transfer", In("mine.json")});
    EXPECT_EQ(scene::ReadPng(In("picture.png")).pixels, by_name.pixels);
    Draw({"render", "--transfer", In("mine.json"), "--shift", "5000"});
    const scene::Picture nothing = scene::ReadPng(In("picture.png"));
    EXPECT_TRUE(
        std::all_of(nothing.pixels.begin(), nothing.pixels.end(), [](std::uint32_t p) { return p == 0xFF000000U; }));
}

}  // namespace
