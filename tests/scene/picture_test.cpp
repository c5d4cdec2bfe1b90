// Pictures: files hold what was drawn, appear whole or not at all, and are exposed for people.
#include "scene/picture.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "scene/error.h"
#include "scene/output_file.h"
#include "scene/volume_rendering.h"

namespace {

namespace fs = std::filesystem;
using scene::Picture;

class Pictures : public testing::Test {
protected:
    void SetUp() override { fs::create_directories(m_Folder); }
    void TearDown() override { fs::remove_all(m_Folder); }
    std::string Path(const char* name) const { return (m_Folder / name).string(); }
    std::size_t FilesLeft() const {
        return static_cast<std::size_t>(std::distance(fs::directory_iterator(m_Folder), {}));
    }

    fs::path m_Folder = fs::temp_directory_path() / ("volr_pictures_" + std::to_string(::getpid()));
};

TEST_F(Pictures, ColourAndAlphaSurviveThePng) {
    for (const std::uint32_t alpha : {0xFFU, 0x80U}) {
        Picture picture(5, 3);
        for (std::size_t i = 0; i < picture.pixels.size(); ++i) {
            picture.pixels[i] = alpha << 24 | static_cast<std::uint32_t>(i * 0x112233);
        }
        WritePng(Path("a.png"), picture);
        const Picture read = scene::ReadPng(Path("a.png"));
        EXPECT_EQ(read.width, 5);
        EXPECT_EQ(read.pixels, picture.pixels);
    }
}

TEST_F(Pictures, SixteenBitGreyKeepsBothBytesInOrder) {
    const std::string png = EncodePng(scene::GreyPicture{2, 1, {0x1234, 0xFFFE}});
    ASSERT_GT(png.size(), 26U);
    EXPECT_EQ(png[24], 16);  // bits
    EXPECT_EQ(png[25], 0);   // grey
    scene::WriteFile(Path("g.png"), png);
    const Picture read = scene::ReadPng(Path("g.png"));
    EXPECT_EQ(read.At(1, 0) & 0xFFFFFF, 0xFFFFFFU);
}

TEST_F(Pictures, AFileAppearsWholeOrNotAtAll) {
    scene::WriteFile(Path("keep.txt"), "old");
    {
        scene::OutputFile file(Path("keep.txt"));
        file.Write("half of the new");
    }
    EXPECT_EQ(scene::ReadFile(Path("keep.txt"), 100), "old");
    EXPECT_EQ(FilesLeft(), 1U);
    scene::WriteFile(Path("keep.txt"), "new");
    EXPECT_EQ(scene::ReadFile(Path("keep.txt"), 100), "new");
    EXPECT_EQ(FilesLeft(), 1U);
    EXPECT_THROW(scene::WriteFile(Path("no/such/folder.png"), "x"), scene::Error);
    EXPECT_THROW(scene::WriteFile(m_Folder.string(), "x"), scene::Error);
    EXPECT_THROW(scene::ReadFile(Path("keep.txt"), 2), scene::Error);
}

// One raw pixel of the engine, developed.
std::uint32_t Develop(std::uint32_t raw, scene::Background background, int stop = 3276) {
    return Developed({raw}, 1, 1, background, stop).At(0, 0);
}

TEST(Development, FullWhiteOfTheEngineIsFullWhiteOfThePicture) {
    EXPECT_EQ(Develop(0x007F7F7F, {}), 0xFFFFFFFFU);
    EXPECT_EQ(Develop(0x00404000, {}), 0xFF818100U);
    EXPECT_EQ(Develop(0xFF000000, {false, 0x336699}), 0xFF336699U);
    EXPECT_EQ(Develop(0xFF000000, {true, 0}), 0x00000000U);
}

TEST(Development, WhereRaysWereStoppedNothingShinesThroughAndNoEdgeShows) {
    for (const int stop : {3276, 6552, 13104}) {
        // What a stopped ray leaves at most, brightened as the engine does.
        const double t = stop / 65535.0;
        const auto left = static_cast<std::uint32_t>(255 * t * (1 + t + t * t));
        EXPECT_EQ(Develop(left << 24, {false, 0xFFFFFF}, stop), 0xFF000000U);
        std::uint32_t before = 0;
        for (std::uint32_t transparency = 0; transparency < 256; ++transparency) {
            const std::uint32_t grey = Develop(transparency << 24, {false, 0xFFFFFF}, stop) & 255;
            EXPECT_LE(grey - before, 2U);
            before = grey;
        }
        EXPECT_EQ(before, 255U);
    }
    EXPECT_EQ(Develop(0x80204020, {true, 0}), 0x7F81FF81U);  // straight colour, not premultiplied
}

}  // namespace
