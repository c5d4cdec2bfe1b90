// Real volumes, where they are at hand: the folder that the environment variable IP_VOLR_TEST_DATA names, else
// ../shared/data beside the checkout. Archives must be unpacked there, or in the folder IP_VOLR_TEST_DATA_UNPACKED
// names.
#include <cstdlib>

#include "tests/scene/import_known_voxels.h"
#include "tests/scene/import_test_files.h"

namespace {

using namespace import_test;
using scene::ImportedVolume;

std::string DataFolder() {
    if (const char* const named = std::getenv("IP_VOLR_TEST_DATA")) {
        return named;
    }
    for (std::filesystem::path folder = std::filesystem::current_path(); folder != folder.parent_path();
         folder = folder.parent_path()) {
        if (std::filesystem::exists(folder / "shared/data/README.md")) {
            return (folder / "shared/data").string();
        }
    }
    return {};
}

// The path of a sample; empty when it is not at hand.
std::string Sample(const std::string& name) {
    const char* const unpacked = std::getenv("IP_VOLR_TEST_DATA_UNPACKED");
    for (const std::string& folder : {DataFolder(), std::string(unpacked ? unpacked : "")}) {
        if (!folder.empty() && std::filesystem::exists(folder + "/" + name)) {
            return folder + "/" + name;
        }
    }
    return {};
}

// Index of a patient position on a grid with orthogonal axes.
Point IndexOf(const ImportedVolume& volume, const std::array<double, 4>& voxel) {
    const auto& m = volume.index_to_patient;
    Point index{};
    for (int axis = 0; axis < 3; ++axis) {
        const double step = volume.spacing_mm[axis];
        for (int row = 0; row < 3; ++row) {
            index[axis] += m[row * 4 + axis] * (voxel[row] - m[row * 4 + 3]) / (step * step);
        }
    }
    return index;
}

TEST(ImportRealData, KnownVoxelsLieWhereTheyBelongWithTheirValues) {
    int num_checked = 0;
    for (const KnownVolume& known : kKnownVolumes) {
        const std::string path = Sample(known.path);
        if (path.empty()) {
            continue;
        }
        SCOPED_TRACE(known.path);
        ++num_checked;
        const ImportedVolume volume = scene::ImportVolume(path);
        // Resampled or re-coded volumes may round.
        const bool is_resampled = known.path.find("tilt") != std::string::npos;
        const double tolerance = is_resampled ? 1.0 : volume.max_value == 65535 ? 0.51 * volume.rescale_slope : 1e-4;
        for (const auto& voxel : known.voxels) {
            const Point index = IndexOf(volume, voxel);
            const int i = static_cast<int>(std::lround(index[0])), j = static_cast<int>(std::lround(index[1])),
                      k = static_cast<int>(std::lround(index[2]));
            const Point position = PositionOf(volume, i, j, k);
            ASSERT_TRUE(i >= 0 && j >= 0 && k >= 0 && i < volume.dims[0] && j < volume.dims[1] && k < volume.dims[2]);
            EXPECT_NEAR(std::hypot(position[0] - voxel[0], position[1] - voxel[1], position[2] - voxel[2]), 0.0, 0.01);
            EXPECT_NEAR(RescaledAt(volume, i, j, k), voxel[3], tolerance);
        }
    }
    if (num_checked == 0) {
        GTEST_SKIP() << "no sample volumes at hand";
    }
}

TEST(ImportRealData, LosslessTransferSyntaxesGiveTheSameVolume) {
    if (Sample("odd/ct-explicit-le.dcm").empty()) {
        GTEST_SKIP() << "no sample volumes at hand";
    }
    const ImportedVolume reference = scene::ImportVolume(Sample("odd/ct-explicit-le.dcm"));
    EXPECT_EQ(reference.min_value - 1024, -3024);
    EXPECT_EQ(reference.max_value - 1024, 1378);
    for (const char* name : {"explicit-big-endian", "deflated", "rle", "jpeg-lossless-sv1", "jpegls-lossless",
                             "jpeg2000-lossless", "jpeg-baseline-8bit-slope32"}) {
        SCOPED_TRACE(name);
        const ImportedVolume volume = scene::ImportVolume(Sample(std::string("odd/ct-") + name + ".dcm"));
        const bool is_lossy = volume.bits_stored == 8;
        EXPECT_EQ(volume.index_to_patient, reference.index_to_patient);
        double difference = 0.0;
        int num_different = 0;
        for (int at = 0; at < 512 * 512; ++at) {
            const double change =
                RescaledAt(volume, at % 512, at / 512, 0) - RescaledAt(reference, at % 512, at / 512, 0);
            difference += std::abs(change) / (512.0 * 512.0);
            num_different += change != 0.0;
        }
        EXPECT_LT(difference, is_lossy ? 30.0 : 1e-9);
        EXPECT_EQ(num_different > 0, is_lossy);
    }
}

TEST(ImportRealData, WhatIsSpecialAboutASampleIsTold) {
    const std::pair<const char*, const char*> warnings[] = {
        {"lidc0314-thorax-plain-ct", "1 slice is missing between z = -550.8 mm and z = -548.8 mm"},
        {"ct-head-gantry-tilt", "a gantry tilt of 18.5 degrees"},
        {"ct-head-gantry-tilt", "unevenly spaced"},
        {"odd/four-dimensional.nii.gz", "the first of 2 time points"},
        {"odd/avf-float-gzip.nrrd", "rescaled to 16 bits"},
        {"odd/mr-perfusion-slope2.dcm", "mosaic"}};
    for (const auto& [name, words] : warnings) {
        if (const std::string path = Sample(name); !path.empty()) {
            EXPECT_TRUE(Warns(scene::ImportVolume(path), words)) << name;
        }
    }
    const std::pair<const char*, const char*> refusals[] = {
        {"odd/mr-truncated.dcm", "8130 of 8192 bytes"},
        {"odd/us-rgb-colour.dcm", "a colour picture (RGB)"},
        {"odd/ct-missing-slice", "between z = 28.1075 mm and z = 38.1075 mm"}};
    for (const auto& [name, words] : refusals) {
        if (const std::string path = Sample(name); !path.empty()) {
            EXPECT_NE(Refusal(path, {}).find(words), std::string::npos) << name;
        }
    }
}

}  // namespace
