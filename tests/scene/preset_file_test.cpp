// Preset files of other programs: the same points, whatever the form; refused with a reason when broken.
#include "scene/preset_file.h"

#include <gtest/gtest.h>

#include "scene/error.h"

namespace {

using scene::TransferFromFile;
using scene::TransferFunction;

void ExpectBone(const TransferFunction& f) {
    EXPECT_DOUBLE_EQ(OpacityAt(f, 0.0), 0.0);
    EXPECT_DOUBLE_EQ(OpacityAt(f, 300.0), 0.25);
    EXPECT_DOUBLE_EQ(OpacityAt(f, 9000.0), 0.5);
    EXPECT_DOUBLE_EQ(ColourAt(f, 200.0)[0], 1.0);
    EXPECT_DOUBLE_EQ(ColourAt(f, 400.0)[2], 0.75);
    EXPECT_DOUBLE_EQ(ColourAt(f, 300.0)[1], 0.75);
}

TEST(PresetFiles, EveryFormGivesTheSamePoints) {
    const TransferFunction xml = TransferFromFile(
        "<?xml version=\"1.0\"?>\n<Presets><Other/><VolumeProperty name=\"bone\" scalarOpacity=\"6 -3024 0 200 0 400 "
        "0.5\" "
        "gradientOpacity=\"4 0 1 255 1\" colorTransfer=\"8 200 1 0.5 0.25 400 1 1 0.75\" ambient=\"0.2\" diffuse=\"1\" "
        "specular=\"0.1\" "
        "shade=\"1\"/></Presets>",
        "bone.xml");
    ExpectBone(xml);
    EXPECT_EQ(xml.name, "bone");
    EXPECT_DOUBLE_EQ(xml.lighting.ambient, 0.2);
    const TransferFunction vp = TransferFromFile(
        "1\n0\n0.9\n0.2\n0.3\n10\n6 -3024 0 200 0 400 0.5\n4 0 1 255 1\n8 200 1 0.5 0.25 400 1 1 0.75\n", "bone.vp");
    ExpectBone(vp);
    EXPECT_DOUBLE_EQ(vp.lighting.ambient, 1.0);  // not shaded
    EXPECT_DOUBLE_EQ(vp.lighting.diffuse, 0.0);
    ExpectBone(TransferFromFile(
        "[{\"Name\": \"b\", \"RGBPoints\": [200,1,0.5,0.25, 400,1,1,0.75], \"Points\": [200,0,0.5,0, 400,0.5,0.5,0]}]",
        "bone.json"));
    const TransferFunction without = TransferFromFile("{\"RGBPoints\": [0,1,1,1, 100,1,1,1]}", "map.json");
    EXPECT_DOUBLE_EQ(OpacityAt(without, 50.0), 0.5);
    ExpectBone(TransferFromFile("{\"opacity\": [[200,0],[400,0.5]], \"colour\": [[200,1,0.5,0.25],[400,1,1,0.75]]}",
                                "ours.json"));
}

TEST(PresetFiles, BrokenOnesAreRefusedWithAReason) {
    const std::pair<const char*, const char*> bad[] = {
        {"", "nine lines"},
        {"1\n2\n3\n", "nine lines"},
        {"1\n1\n1\n1\n1\n1\n4 0 1 2\n4 0 1 255 1\n4 0 1 1 1\n", "opacity"},
        {"1\n1\n1\n1\n1\n1\n2 0 x\n\n4 0 1 1 1\n", "\"x\""},
        {"1\n1\n1\n1\n1\n1\n2 0 nan\n\n4 0 1 1 1\n", "\"nan\""},
        {"<a><b></a>", "XML"},
        {"<a b=\"1\"/>", "no element"},
        {"<a scalarOpacity=\"2 0 1\" colorTransfer=\"5 0 1 1 1 1\"/>", "colour"},
        {"[]", "JSON"},
        {"[{\"RGBPoints\": [1,2,3]}]", "groups of 4"},
        {"{\"RGBPoints\": [1,2,3,\"a\"]}", "not a number"},
    };
    for (const auto& [content, reason] : bad) {
        try {
            TransferFromFile(content, "theirs");
            ADD_FAILURE() << content;
        } catch (const scene::Error& e) {
            EXPECT_EQ(e.Kind(), scene::ErrorKind::kInput);
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
        }
    }
}

}  // namespace
