// Picks from the command line: what is printed where, what the picture and the point list hold.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "scene/picture.h"
#include "tests/tool/program.h"

namespace {

using tool_test::Folder;
using tool_test::Outcome;
using tool_test::ReadJson;
using tool_test::Volr;

class VesselVerb : public testing::Test {
protected:
    void SetUp() override {
        ASSERT_EQ(Volr({"phantom", "bricks", "--size", "160,96,128", "-o", In("in.mha"), "--quiet"}).status, 0);
    }
    std::string In(const std::string& name) const { return m_Folder.Path(name); }
    Outcome Run(std::vector<std::string> arguments) const {
        arguments.insert(arguments.begin() + 1, In("in.mha"));
        return Volr(arguments);
    }

    Folder m_Folder;
};

TEST_F(VesselVerb, AnswersEachPixelInItsOrderWithAReasonWhereNothingIs) {
    // The tube of radius 5, from the front; a corner that misses; bone.
    for (const char* on : {"mip", "render"}) {
        const Outcome outcome = Run({"vessel", "--on", on, "--clip-box", "0,1,0,0.25,0,1", "--pixel", "256,182.5",
                                     "--pixel", "1,1", "--pixel", "256,300", "--json", "--markups", In("m.mrk.json")});
        ASSERT_EQ(outcome.status, 0) << outcome.err;
        const nlohmann::json all = nlohmann::json::parse(outcome.out);
        ASSERT_EQ(all.size(), 3U);
        EXPECT_EQ(all[0]["pixel"], (std::vector<double>{256.0, 182.5}));
        EXPECT_EQ(all[0]["class"], "medium") << all[0];
        EXPECT_NEAR(all[0]["centre_voxel"][1], 11.5, 0.8) << all[0];
        EXPECT_NEAR(all[0]["length_mm"], 8.0, 2.5);
        EXPECT_TRUE(all[0]["reason"].is_null());
        EXPECT_EQ(all[1]["class"], "none");
        EXPECT_EQ(all[1]["reason"], "the line of sight misses the volume");
        EXPECT_TRUE(all[1]["picked_mm"].is_null());
        EXPECT_EQ(all[2]["class"], "none") << all[2];
        EXPECT_TRUE(all[2]["centre_mm"].is_null());
        EXPECT_FALSE(all[2]["reason"].get<std::string>().empty());

        // The list holds the vessel that was found, as other viewers expect it.
        const nlohmann::json file = ReadJson(In("m.mrk.json"));
        EXPECT_NE(file["@schema"].get<std::string>().find("markups-schema-v1.0."), std::string::npos);
        const nlohmann::json& list = file["markups"][0];
        EXPECT_EQ(list["type"], "Fiducial");
        EXPECT_EQ(list["coordinateSystem"], "LPS");
        ASSERT_EQ(list["controlPoints"].size(), 1U);
        EXPECT_EQ(list["controlPoints"][0]["position"], all[0]["centre_mm"]);
        EXPECT_EQ(list["controlPoints"][0]["id"], "1");
    }
}

TEST_F(VesselVerb, TheTraceIsTheSearchLogAndNeverSpoilsJson) {
    const Outcome text = Run({"vessel", "--on", "render", "--pixel", "256,182.5", "--trace"});
    ASSERT_EQ(text.status, 0);
    EXPECT_EQ(text.out.rfind("\nSearching for internal vessel point\n", 0), 0U) << text.out;
    EXPECT_NE(text.out.find("find_vessel_center_volr() success: vessel length = "), std::string::npos) << text.out;
    EXPECT_NE(text.out.find("256,182.5  medium  centre "), std::string::npos) << text.out;
    const Outcome json = Run({"vessel", "--pixel", "256,182.5", "--trace", "--json"});
    EXPECT_EQ(nlohmann::json::parse(json.out).size(), 1U);
    EXPECT_NE(json.err.find("Searching for internal vessel point, direction = 1\n"), std::string::npos) << json.err;
}

TEST_F(VesselVerb, ThePictureIsTheOneThatTheSameOptionsDrawWithTheMark) {
    const std::vector<std::string> view = {"--azimuth", "20",      "--elevation", "12",
                                           "--size",    "300x260", "--clip-box",  "0,0.8,0,1,0,1"};
    for (const std::string verb : {"mip", "render"}) {
        std::vector<std::string> plain = {verb, "-o", In("plain.png")};
        std::vector<std::string> marked = {"vessel", "--on", verb, "--pixel", "140,100", "-o", In("marked.png")};
        plain.insert(plain.end(), view.begin(), view.end());
        marked.insert(marked.end(), view.begin(), view.end());
        ASSERT_EQ(Run(plain).status, 0);
        ASSERT_EQ(Run(marked).status, 0);
        const scene::Picture a = scene::ReadPng(In("plain.png"));
        const scene::Picture b = scene::ReadPng(In("marked.png"));
        int num_changed = 0;
        for (int y = 0; y < a.height; ++y) {
            for (int x = 0; x < a.width; ++x) {
                const bool near = std::abs(x - 140) < 16 && std::abs(y - 100) < 16;
                num_changed += a.At(x, y) != b.At(x, y) ? 1 : 0;
                ASSERT_TRUE(near || a.At(x, y) == b.At(x, y)) << verb << " " << x << "," << y;
            }
        }
        EXPECT_GT(num_changed, 20);
    }
}

}  // namespace
