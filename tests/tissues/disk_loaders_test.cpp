// Raw files and masks into volumes.
#include "host/images.h"
#include "host/masks.h"
#include "host/reference/settings.h"
#include "ip_volr/IP_DiskLoaders.h"
#include "tests/support/fault_sweep.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <fstream>
#include <memory>
#include <vector>

namespace {

namespace fs = std::filesystem;

class DiskLoaders : public testing::Test {
protected:
    void SetUp() override {
        m_BlocksBefore = reference_host::GetPagerStatistics().blocks;
        fs::create_directories(m_Folder / "in");
    }
    void TearDown() override {
        reference_host::SetPagerFaults({});
        fs::remove_all(m_Folder);
        EXPECT_EQ(reference_host::GetPagerStatistics().blocks, m_BlocksBefore);
        EXPECT_EQ(reference_host::GetPagerStatistics().mappings, 0);
    }

    template <typename Value>
    void write(const std::string& name, const std::vector<Value>& values) const {
        std::ofstream file(m_Folder / "in" / name, std::ios::binary);
        file.write(reinterpret_cast<const char*>(values.data()),
                   static_cast<std::streamsize>(values.size() * sizeof(Value)));
    }

    // Copies the pixels of a slice out of its block.
    template <class Slice>
    auto pixels_of(const IP_VolData& volume, int z, std::size_t count) const {
        auto* const slice = dynamic_cast<Slice*>(volume.GetSlice(z));
        EXPECT_NE(slice, nullptr);
        EXPECT_EQ(slice->MapMemory(), 0);
        std::vector<std::remove_reference_t<decltype(*slice->GetMappedSlice())>> pixels(
            slice->GetMappedSlice(), slice->GetMappedSlice() + count);
        slice->UnmapMemory();
        return pixels;
    }

    std::vector<unsigned char> tissue_bytes(const IP_VolData& volume, int z, std::size_t count) const {
        return pixels_of<IP_TisIndSlice>(volume, z, count);
    }

    const fs::path m_Folder = fs::temp_directory_path() / "volr_disk_loaders_test";
    std::int64_t m_BlocksBefore = 0;
};

TEST_F(DiskLoaders, SeriesThatEndsEarlyCutsTheVolume) {
    for (int k = 5; k < 8; ++k) {
        const short first = static_cast<short>(k);
        write<short>("image000" + std::to_string(k), {-100, first, 3, -100, 5, -100});
    }
    IP_Box box(3, 2, 10, 1.0F, 1.0F, 2.5F);
    IP_VolData volume(&box, 10);
    IP_VolData* handle = &volume;
    // A trailing part in either style of separator.
    const std::wstring folder = m_Folder.wstring() + L"\\in";
    testing::internal::CaptureStdout();
    ReadDataFromDisk(&handle, folder.c_str(), 5);
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "slices loaded: 0000\b\b\b\b0001\b\b\b\b0002\b\b\b\b0003\n\n");
    int dims[3];
    volume.GetBox()->GetDims(dims);
    EXPECT_EQ(dims[2], 3);
    EXPECT_FLOAT_EQ(volume.GetBox()->GetDepth(), 7.5F);
    EXPECT_FLOAT_EQ(volume.GetBox()->GetZMmPerPixel(), 2.5F);
    for (int z = 0; z < 3; ++z) {
        const std::vector<short> expected = {0, static_cast<short>(5 + z), 3, -100, 5, -100};
        EXPECT_EQ(pixels_of<IP_ShortSlice>(volume, z, 6), expected) << "only the first half is clamped";
        EXPECT_TRUE(volume.GetSlice(z)->GetAttributes().is_signed);
    }
    EXPECT_EQ(volume.GetSlice(3), nullptr);
}

TEST_F(DiskLoaders, EmptySeriesAndMisuse) {
    IP_VolData volume;
    IP_VolData* handle = &volume;
    IP_VolData* none = nullptr;
    testing::internal::CaptureStdout();
    ReadDataFromDisk(&handle, L"nowhere", 1);
    ReadDataFromDisk(&none, L"nowhere", 1);
    ReadDataFromDisk(nullptr, nullptr, 1);
    EXPECT_FALSE(ReadTissueFromDisk(&handle, "nowhere/labels"));
    EXPECT_FALSE(ReadTissueFromDisk(&none, "nowhere/labels"));
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "slices loaded: 0000\nFailed opening file nowhere/labels\n");
    EXPECT_FALSE(ConvertRBVToTissue(nullptr, nullptr));
    EXPECT_FALSE(ConvertRBVToTissue(&none, nullptr));
}

TEST_F(DiskLoaders, TissueFilePacksTwoLabelsAByte) {
    // Two slices of 3 x 3 and a third that the file lacks; labels above 15 lose their upper bits.
    write<unsigned char>("labels", {1, 2, 3, 4, 5, 6, 7, 8, 9, 0x1F, 0, 0, 0, 0, 0, 0, 0, 15});
    IP_Box box(3, 3, 3);
    IP_VolData volume(&box, 3);
    IP_VolData* handle = &volume;
    ASSERT_TRUE(ReadTissueFromDisk(&handle, (m_Folder.string() + "\\in\\labels").c_str()));
    EXPECT_EQ(tissue_bytes(volume, 0, 5), (std::vector<unsigned char>{0x21, 0x43, 0x65, 0x87, 0x09}));
    EXPECT_EQ(tissue_bytes(volume, 1, 5), (std::vector<unsigned char>{0x0F, 0, 0, 0, 0x0F}));
    EXPECT_EQ(tissue_bytes(volume, 2, 5), (std::vector<unsigned char>{0, 0, 0, 0, 0}));
}

TEST_F(DiskLoaders, MaskBecomesTissueOne) {
    IP_RealBitVol mask(IP_Box(40, 2, 2, 1.0F, 2.0F, 3.0F));
    mask.SetPixel(0, 0, 0, true);
    mask.SetPixel(3, 0, 0, true);
    mask.SetPixel(32, 1, 1, true);
    mask.SetPixel(33, 1, 1, true);
    IP_VolData* result = nullptr;
    ASSERT_TRUE(ConvertRBVToTissue(&result, &mask));
    const std::unique_ptr<IP_VolData> tissues(result);
    EXPECT_TRUE(*tissues->GetBox() == *mask.GetBox());
    std::vector<unsigned char> expected(40, 0);
    expected[0] = 0x01;
    expected[1] = 0x10;
    EXPECT_EQ(tissue_bytes(*tissues, 0, 40), expected);
    expected.assign(40, 0);
    expected[(40 + 32) / 2] = 0x11;
    EXPECT_EQ(tissue_bytes(*tissues, 1, 40), expected);
}

TEST_F(DiskLoaders, RefusedMemoryEndsTheLoadingAndTheNextOneSucceeds) {
    for (int z = 1; z < 5; ++z) {
        write<short>("image000" + std::to_string(z), {1, 2, 3, static_cast<short>(z)});
    }
    write<unsigned char>("labels", std::vector<unsigned char>(16, 1));
    IP_Box box(2, 2, 4);
    IP_RealBitVol mask(box);
    mask.SetPixel(0, 0, 3, true);
    FaultSweep sweep;
    const std::wstring folder = (m_Folder / "in").wstring();
    testing::internal::CaptureStdout();
    sweep.run([&](FaultPoint& point) {
        const auto read = [&](IP_VolData& volume) {
            IP_VolData* handle = &volume;
            ReadDataFromDisk(&handle, folder.c_str(), 1);
            int dims[3];
            volume.GetBox()->GetDims(dims);
            return dims[2];
        };
        IP_VolData volume(&box, 4);
        int num_read = 0;
        point.run([&] { num_read = read(volume); });
        point.expect_ended_by_fault(num_read == 4);
        EXPECT_EQ(volume.GetSlice(num_read), nullptr);
        IP_VolData again(&box, 4);
        EXPECT_EQ(read(again), 4);
        EXPECT_EQ(pixels_of<IP_ShortSlice>(again, 3, 4), (std::vector<short>{1, 2, 3, 4}));
    });
    testing::internal::GetCapturedStdout();
    sweep.run([&](FaultPoint& point) {
        IP_VolData volume(&box, 4);
        IP_VolData* handle = &volume;
        const std::string path = (m_Folder / "in" / "labels").string();
        bool done = false;
        point.run([&] { done = ReadTissueFromDisk(&handle, path.c_str()); });
        point.expect_ended_by_fault(done);
        for (int z = 0; z < 4; ++z) {
            delete volume.GetSlice(z);
            volume.SetSlice(nullptr, z);
        }
        ASSERT_TRUE(ReadTissueFromDisk(&handle, path.c_str()));
        EXPECT_EQ(tissue_bytes(volume, 3, 2), (std::vector<unsigned char>{0x11, 0x11}));
    });
    sweep.run([&](FaultPoint& point) {
        IP_VolData* volume = nullptr;
        point.run([&] { ConvertRBVToTissue(&volume, &mask); });
        point.expect_ended_by_fault(volume != nullptr);
        delete volume;
        ASSERT_TRUE(ConvertRBVToTissue(&volume, &mask));
        EXPECT_EQ(tissue_bytes(*volume, 3, 2), (std::vector<unsigned char>{0x01, 0}));
        delete volume;
    });
}

}  // namespace
