// Transfer functions: what the engine's tables hold, and files that users write.
#include "scene/transfer_function.h"

#include <gtest/gtest.h>

#include "scene/error.h"
#include "scene/presets.h"

namespace {

using scene::StoredValues;
using scene::TransferFunction;
using scene::TransferTables;

TransferFunction Ramp() {
    TransferFunction f;
    f.name = "ramp";
    f.opacity = {{0.0, 0.0}, {100.0, 0.5}, {100.0, 1.0}};
    f.colour = {{0.0, 1.0, 0.0, 0.0}, {100.0, 0.0, 1.0, 0.5}};
    f.lighting = {0.2, 0.7, 1.0};
    return f;
}

TEST(TransferTables, SignedTablesAreReadFromTheMiddleUnsignedFromTheStart) {
    const TransferTables of_signed(Ramp(), StoredValues{true, 12, 1.0, 0.0});
    EXPECT_EQ(of_signed.Colours()[-2048], 0x00FF0000U);
    EXPECT_EQ(of_signed.Colours()[0], 0x00FF0000U);
    EXPECT_EQ(of_signed.Colours()[50], 0x40808040U);   // a quarter opaque at 1 mm, colours half way
    EXPECT_EQ(of_signed.Colours()[100], 0xFF00FF80U);  // a step counts with its second point
    EXPECT_EQ(of_signed.Colours()[2047], 0xFF00FF80U);

    const TransferTables of_unsigned(Ramp(), StoredValues{false, 12, 0.5, -1000.0});
    EXPECT_EQ(of_unsigned.Colours()[0], 0x00FF0000U);
    EXPECT_EQ(of_unsigned.Colours()[2100], 0x40808040U);
    EXPECT_EQ(of_unsigned.Colours()[4095], 0xFF00FF80U);
    EXPECT_TRUE(of_unsigned.HasVisibleEntry());
}

TEST(TransferTables, WeightsAreDiffuseSpecularAmbientFromTheLowEndWhateverTheOrigin) {
    const TransferTables tables(Ramp(), StoredValues{});
    const unsigned long long expected = 45875ULL | 65535ULL << 16 | 13107ULL << 32;
    for (const int i : {-65536, -1, 0, 65535}) {
        EXPECT_EQ(tables.Weights()[i], expected);
    }
}

TEST(TransferFunctions, ShiftMovesOpacityScalesAndRelativeOnesSpread) {
    const TransferFunction moved = Adjusted(Ramp(), 10.0, 3.0);
    EXPECT_DOUBLE_EQ(OpacityAt(moved, 60.0), 0.5);
    EXPECT_DOUBLE_EQ(OpacityAt(moved, 109.999999), scene::OpacityAt(moved, 109.999999));
    EXPECT_DOUBLE_EQ(OpacityAt(moved, 110.0), 1.0);
    TransferFunction relative = Ramp();
    relative.relative = true;
    relative.opacity = {{0.0, 0.0}, {1.0, 1.0}};
    const TransferFunction resolved = Resolved(relative, 200.0, 600.0);
    EXPECT_DOUBLE_EQ(OpacityAt(resolved, 300.0), 0.25);
    EXPECT_FALSE(resolved.relative);
}

TEST(TransferFunctions, EveryPresetSurvivesItsFileAndIsUsable) {
    for (const char* name : {"ct-bone", "ct-angio", "ct-soft-tissue", "ct-lung", "ct-skin", "mr-brain", "mr-angio"}) {
        EXPECT_NE(scene::FindPreset(name), nullptr) << name;
    }
    for (const TransferFunction& preset : scene::Presets()) {
        const TransferFunction read = scene::TransferFromJson(ToJson(preset), "file");
        EXPECT_EQ(ToJson(read), ToJson(preset));
        EXPECT_EQ(read.relative, preset.relative);
        const TransferTables tables(Resolved(read, 0.0, 1000.0), StoredValues{});
        EXPECT_TRUE(tables.HasVisibleEntry()) << preset.name;
        EXPECT_EQ(tables.Colours()[-3000] >> 24, 0U) << preset.name << " draws air";
    }
}

TEST(TransferFunctions, BadFilesAreRefusedWithAReason) {
    const std::pair<const char*, const char*> bad[] = {
        {"[]", "not a JSON object"},
        {"{\"opacity\": [[0, 1]]", "not a JSON object"},
        {"{\"opacity\": [[0, 1]]}", "\"colour\""},
        {"{\"opacity\": [[0]], \"colour\": [[0,1,1,1]]}", "entry 1"},
        {"{\"opacity\": [[0,0],[5,\"x\"]], \"colour\": [[0,1,1,1]]}", "entry 2"},
        {"{\"opacity\": [[0,0],[5,1.5]], \"colour\": [[0,1,1,1]]}", "outside 0 to 1"},
        {"{\"opacity\": [[5,0],[0,1]], \"colour\": [[0,1,1,1]]}", "ascend"},
        {"{\"opacity\": [[0,1]], \"colour\": [[0,1,1,1]], \"lighting\": {\"diffuse\": 7}}", "diffuse"},
        {"{\"opacity\": [[0,1]], \"colour\": [[0,1,1,1]], \"values\": \"percent\"}", "values"},
    };
    for (const auto& [text, reason] : bad) {
        try {
            scene::TransferFromJson(text, "mine.json");
            ADD_FAILURE() << text;
        } catch (const scene::Error& e) {
            EXPECT_EQ(e.Kind(), scene::ErrorKind::kInput);
            EXPECT_NE(std::string(e.what()).find(reason), std::string::npos) << e.what();
        }
    }
}

}  // namespace
