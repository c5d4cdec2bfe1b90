// Label maps in the tool: each label is drawn where its voxels are, in its colour, alone or not at all.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <fstream>

#include "scene/import/imported_volume.h"
#include "scene/output_file.h"
#include "scene/picture.h"
#include "scene/vector3.h"
#include "scene/volume_output.h"
#include "tests/tool/program.h"

namespace {

using scene::Vec3;
using tool_test::Folder;
using tool_test::Outcome;
using tool_test::ReadJson;
using tool_test::ToVec;
using tool_test::Volr;

constexpr int kBone = 2;
constexpr int kVessel = 4;

class ToolTissues : public testing::Test {
protected:
    static void SetUpTestSuite() {
        s_Folder = new Folder;
        const Outcome made = Volr({"phantom", "head", "--size", "128,120,91", "-o", In("head.nrrd"), "--labels",
                                   In("labels.nii.gz"), "--quiet"});
        ASSERT_EQ(made.status, 0) << made.err;
        scene::ImportOptions options;
        options.isolate = false;
        s_Labels = scene::ImportLabels(In("labels.nii.gz"), options);
    }
    static void TearDownTestSuite() {
        s_Labels = {};
        delete s_Folder;
    }
    static std::string In(const std::string& name) { return s_Folder->Path(name); }

    // Draws with the label map, seen from the left.
    scene::Picture Draw(std::vector<std::string> arguments) {
        arguments.insert(arguments.begin() + 1, {In("head.nrrd"), "--labels", In("labels.nii.gz")});
        arguments.insert(arguments.end(), {"--view", "left", "--azimuth", "12", "--size", "200x200", "-o",
                                           In("picture.png"), "--stats", In("stats.json")});
        const Outcome outcome = Volr(arguments);
        EXPECT_EQ(outcome.status, 0) << outcome.err;
        EXPECT_EQ(outcome.err, "");
        return scene::ReadPng(In("picture.png"));
    }

    // Pixels that voxels of a label cover, by the statistics alone.
    std::vector<bool> Silhouette(int label) const {
        const auto picture = ReadJson(In("stats.json"))["picture"];
        const Vec3 origin = ToVec(picture["origin_mm"]);
        const Vec3 right = ToVec(picture["right_mm"]);
        const Vec3 down = ToVec(picture["down_mm"]);
        std::vector<bool> covered(200 * 200);
        std::size_t i = 0;
        const auto& m = s_Labels.index_to_patient;
        for (int z = 0; z < s_Labels.dims[2]; ++z) {
            for (int y = 0; y < s_Labels.dims[1]; ++y) {
                for (int x = 0; x < s_Labels.dims[0]; ++x, ++i) {
                    if (s_Labels.voxels[i] != label) {
                        continue;
                    }
                    const Vec3 d = Vec3{m[0] * x + m[1] * y + m[2] * z + m[3], m[4] * x + m[5] * y + m[6] * z + m[7],
                                        m[8] * x + m[9] * y + m[10] * z + m[11]} -
                                   origin;
                    const auto px = static_cast<std::size_t>(std::lround(Dot(d, right) / Dot(right, right)));
                    const auto py = static_cast<std::size_t>(std::lround(Dot(d, down) / Dot(down, down)));
                    covered[py * 200 + px] = true;
                }
            }
        }
        return covered;
    }

    // Share of the pixels of one shape that lie more than a pixel away from the other.
    static double Apart(const std::vector<bool>& shape, const std::vector<bool>& other) {
        double total = 0.0;
        double apart = 0.0;
        for (int y = 1; y < 199; ++y) {
            for (int x = 1; x < 199; ++x) {
                if (!shape[static_cast<std::size_t>(y * 200 + x)]) {
                    continue;
                }
                bool near = false;
                for (int neighbour = 0; neighbour < 9; ++neighbour) {
                    near =
                        near || other[static_cast<std::size_t>((y + neighbour / 3 - 1) * 200 + x + neighbour % 3 - 1)];
                }
                total += 1.0;
                apart += near ? 0.0 : 1.0;
            }
        }
        return total > 0.0 ? apart / total : 1.0;
    }

    // The picture shows something where the label's voxels are and nowhere else.
    void ExpectShows(const scene::Picture& picture, int label, const std::string& what,
                     double tolerance = 0.002) const {
        std::vector<bool> shown(picture.pixels.size());
        std::transform(picture.pixels.begin(), picture.pixels.end(), shown.begin(),
                       [](std::uint32_t pixel) { return (pixel & 0xFFFFFF) != 0; });
        const std::vector<bool> silhouette = Silhouette(label);
        EXPECT_LT(Apart(shown, silhouette), tolerance) << what;
        EXPECT_LT(Apart(silhouette, shown), 0.002) << what;
    }

    static Folder* s_Folder;
    static scene::ImportedVolume s_Labels;
};

Folder* ToolTissues::s_Folder = nullptr;
scene::ImportedVolume ToolTissues::s_Labels;

TEST_F(ToolTissues, AColouredLabelAloneCoversItsVoxelsAndNothingElse) {
    const scene::Picture bone = Draw({"render", "--tissue", "2=only", "--tissue", "2=#10F010"});
    ExpectShows(bone, kBone, "bone");
    int num_not_green = 0;
    for (const std::uint32_t pixel : bone.pixels) {
        const bool is_black = (pixel & 0xFFFFFF) == 0;
        num_not_green += !is_black && (pixel >> 8 & 255) < 2 * (pixel >> 16 & 255) ? 1 : 0;
    }
    EXPECT_EQ(num_not_green, 0);
}

TEST_F(ToolTissues, AHiddenLabelIsNowhereAndOthersShowThrough) {
    // The vessels lie inside the skull.
    const auto count_red = [&](const std::string& bone) {
        const scene::Picture picture =
            Draw({"render", "--preset", "ct-bone", "--tissue", "4=#FF0000", "--tissue", "2=" + bone});
        int count = 0;
        for (const std::uint32_t pixel : picture.pixels) {
            count += (pixel >> 16 & 255) > 60 && (pixel >> 8 & 255) < 20 ? 1 : 0;
        }
        return count;
    };
    const int behind_bone = count_red("#FFFFFF");
    const int without_bone = count_red("hidden");
    EXPECT_GT(without_bone, behind_bone + 50);
}

TEST_F(ToolTissues, ProjectionsLeaveOutWhatIsHidden) {
    for (const char* path : {"--linear", "--fast"}) {
        const scene::Picture vessels = Draw({"mip", path, "--window", "500,3000", "--tissue", "4=only"});
        // Voxels of the fast path are two pixels wide, and smooth at their edges.
        ExpectShows(vessels, kVessel, path, std::string(path) == "--fast" ? 0.1 : 0.002);

        // What is left of the picture is not brighter anywhere, and darker where bone was.
        const scene::Picture all = Draw({"mip", path, "--window", "500,3000", "--tissue", "2=#FF0000"});
        const scene::Picture left = Draw({"mip", path, "--window", "500,3000", "--tissue", "2=hidden"});
        int num_brighter = 0;
        int num_darker = 0;
        for (std::size_t i = 0; i < all.pixels.size(); ++i) {
            num_brighter += (left.pixels[i] & 255) > (all.pixels[i] & 255) ? 1 : 0;
            num_darker += (left.pixels[i] & 255) + 20 < (all.pixels[i] & 255) ? 1 : 0;
        }
        EXPECT_EQ(num_brighter, 0) << path;
        EXPECT_GT(num_darker, 3000) << path;
    }
}

TEST_F(ToolTissues, TablesAndFurtherMapsGiveColours) {
    // Bone again as a map of its own, which becomes label 7, and a table for it.
    std::vector<std::uint8_t> bone(s_Labels.voxels.size());
    for (std::size_t i = 0; i < bone.size(); ++i) {
        bone[i] = s_Labels.voxels[i] == kBone ? 255 : 0;
    }
    const auto& m = s_Labels.index_to_patient;
    scene::WriteVolume(In("bone.mha"), {s_Labels.dims, {m[0], m[5], m[10]}, {m[3], m[7], m[11]}}, bone.data());
    std::ofstream(In("table.txt")) << "0 0 0 0 0 0 0 \"Clear Label\"\n7 0 0 255 1 1 1 \"bone\"\n";
    const scene::Picture blue =
        Draw({"render", "--labels", In("bone.mha"), "--labels", In("table.txt"), "--tissue", "7=only"});
    int num_blue = 0;
    for (const std::uint32_t pixel : blue.pixels) {
        num_blue += (pixel & 255) > 3 * (pixel >> 16 & 255) && (pixel & 255) > 60 ? 1 : 0;
    }
    EXPECT_GT(num_blue, 3000);
}

TEST_F(ToolTissues, WrongOptionsAndOtherGridsEndWithTwo) {
    const std::array<int, 3> half = {s_Labels.dims[0] / 2, s_Labels.dims[1] / 2, s_Labels.dims[2] / 2};
    const auto& m = s_Labels.index_to_patient;
    const std::vector<std::uint8_t> ones(static_cast<std::size_t>(half[0]) * half[1] * half[2], 1);
    scene::WriteVolume(In("coarse.mha"), {half, {2 * m[0], 2 * m[5], 2 * m[10]}, {m[3], m[7], m[11]}}, ones.data());
    std::ofstream(In("broken.txt")) << "1 2 3\n";
    const std::vector<std::vector<std::string>> wrong = {
        {"--tissue", "2=hidden"},
        {"--labels", In("broken.txt")},
        {"--labels", In("missing.nii")},
        {"--labels", In("coarse.mha")},
        {"--labels", In("labels.nii.gz"), "--labels", In("broken.txt")},
        {"--labels", In("labels.nii.gz"), "--tissue", "2"},
        {"--labels", In("labels.nii.gz"), "--tissue", "x=hidden"},
        {"--labels", In("labels.nii.gz"), "--tissue", "2=mauve"},
        {"--labels", In("labels.nii.gz"), "--tissue", "2=#12"},
        {"--labels", In("labels.nii.gz"), "--tissue", "2=#112233:1.5"},
        {"--labels", In("labels.nii.gz"), "--tissue", "77=hidden"},
    };
    for (std::vector<std::string> arguments : wrong) {
        arguments.insert(arguments.begin(), {"render", In("head.nrrd"), "-o", In("none.png")});
        const Outcome outcome = Volr(arguments);
        EXPECT_EQ(outcome.status, 2) << arguments.back() << ": " << outcome.err;
        EXPECT_EQ(std::count(outcome.err.begin(), outcome.err.end(), '\n'), 1) << outcome.err;
    }
    const Outcome resampled =
        Volr({"mip", In("head.nrrd"), "-o", In("none.png"), "--labels", In("coarse.mha"), "--resample-labels"});
    EXPECT_EQ(resampled.status, 0) << resampled.err;
}

}  // namespace
