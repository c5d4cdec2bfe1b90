// Tables, luminous leaves, cell caches and tissues against a slow reference.
#include "tests/bricks/brick_test_support.h"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace {

using namespace brick_tests;

class BrickLuminosity : public BrickTest {
protected:
    // Holds bits, counts, summaries and caches of all bricks to the luminosity tables.
    void expect_luminosity(const IP_VOLRC_BrickStructure& structure, int bits, bool is_signed) const {
        const int offset = is_signed ? 1 << (bits - 1) : 0;
        std::vector<unsigned> words(1024);
        for_each_brick(structure, [&](IP_VOLRC_BrickData& brick, int, int, int) {
            std::fill(words.begin(), words.end(), 0U);
            unsigned zero_level = 0;
            int num_luminous = 0;
            for (int o = 0; o < 8; ++o) {
                int in_octant = 0;
                for (int leaf = 0; leaf < 64; ++leaf) {
                    const sMinMax pair = brick.GetOD(o)->GetData()[leaf];
                    const int lo = (is_signed ? static_cast<short>(pair.minimum) : pair.minimum) + offset;
                    const int hi = (is_signed ? static_cast<short>(pair.maximum) : pair.maximum) + offset;
                    bool expected = false;
                    for (int tissue = 0; tissue < 16; ++tissue) {
                        for (int v = std::max(lo, 0); v <= std::min(hi, (1 << bits) - 1); ++v) {
                            expected |= brick.GetTissueActive(tissue) && m_Tables->luminosity[tissue][v] > 0;
                        }
                    }
                    const bool found = (brick.GetOD(o)->GetLeavesLuminosityVector()[leaf / 8] >> (leaf % 8) & 1) != 0;
                    ASSERT_EQ(found, expected) << "leaf " << leaf << " range " << lo << ".." << hi;
                    in_octant += expected;
                    const int x = 16 * (o & 1) + 4 * (leaf & 1) + 8 * (leaf >> 3 & 1);
                    const int y = 16 * (o >> 1 & 1) + 4 * (leaf >> 1 & 1) + 8 * (leaf >> 4 & 1);
                    const int z = 16 * (o >> 2) + 4 * (leaf >> 2 & 1) + 8 * (leaf >> 5);
                    for (int row = 0; expected && row < 16; ++row) {
                        words[(z + row / 4) * 32 + y + row % 4] |= 0xFU << x;
                    }
                }
                ASSERT_EQ(brick.GetOD(o)->GetNumOpaqueLeaves(), in_octant);
                zero_level |= (in_octant == 0 ? 0U : in_octant == 64 ? 3U : 1U) << (2 * o);
                num_luminous += in_octant;
            }
            ASSERT_EQ(brick.GetZeroLevelLuminosity(), zero_level);
            ASSERT_EQ(brick.GetNumOpaqueLeaves(), num_luminous);
            ASSERT_EQ(brick.GetNumOpaqueCells(), 64 * num_luminous);
            ASSERT_EQ(std::memcmp(*brick.GetCellInvisCache(), words.data(), 4096), 0);
            ASSERT_EQ(std::count(*brick.GetCellVisCache(), *brick.GetCellVisCache() + 1024, 0U), 1024);
        });
    }

    // Caller's tables: the same colours for every tissue, `before` entries in front of value 0.
    std::vector<unsigned*> pointers(std::vector<unsigned>& colours, int before) const {
        return std::vector<unsigned*>(16, colours.data() + before);
    }
};

TEST_F(BrickLuminosity, OneLuminousValueMarksExactlyTheLeavesThatHoldIt) {
    for (const bool is_signed : {false, true}) {
        const VoxelFunction ramp = [=](int x, int y, int z) { return 10 * x + 4 * y + z - (is_signed ? 500 : 0); };
        const auto volume = make_volume(70, 65, 34, 12, is_signed, ramp);
        for (const int servers : {1, 2, 3, 8}) {
            reference_host::SetNumberOfServers(servers);
            IP_VOLRC_BrickStructure structure = make_structure(is_signed);
            structure.SetMaxLayerLoaded(1);
            ASSERT_TRUE(structure.Init(volume.get()));
            std::vector<unsigned> colours(4096, 0x00FFFFFFU);
            colours[is_signed ? -300 + 2048 : 200] = 0x01FFFFFFU;
            structure.SetColorTables(pointers(colours, is_signed ? 2048 : 0).data(), nullptr, 12, nullptr,
                                     VISIBILITY_BY_OPACITY);
            EXPECT_EQ(m_Tables->prefix[15][4095], 1);
            expect_luminosity(structure, 12, is_signed);
            EXPECT_GT(structure.GetBrick(0, 0, 0)->GetNumOpaqueLeaves(), 0);
        }
    }
}

TEST_F(BrickLuminosity, TablesTakeOpacityOrContributionLessTheThreshold) {
    IP_VOLRC_BrickStructure structure = make_structure(true);
    std::vector<unsigned> colours(65536);
    for (unsigned i = 0; i < 65536; ++i) {
        colours[i] = noise(static_cast<int>(i), 1, 2);
    }
    std::vector<unsigned> shading(4 * 256);
    const double params[3] = {0.9, 0.6, 1.5};
    for (unsigned a = 0; a < 256; ++a) {
        shading[4 * a] = static_cast<unsigned>(65535 * std::sqrt(1.0 - a / 255.0));
    }
    double weights[3] = {params[0], params[1], params[2]};
    const auto k = static_cast<unsigned>(1.5 * 65535);
    for (const int bits : {16, 12}) {
        for (const int threshold : {0, 16, 256, -16}) {
            for (const VISIBILITY_MODE mode : {VISIBILITY_BY_CONTRIBUTION, VISIBILITY_BY_OPACITY}) {
                structure.SetLuminosityThreshold(threshold);
                structure.SetColorTables(pointers(colours, 32768).data(), shading.data(), bits, weights, mode);
                const int n = 1 << bits;
                const unsigned* const first = colours.data() + 32768 - n / 2;
                std::vector<int> expected(65536);
                for (int v = 0; v < n; ++v) {
                    const unsigned a = first[v] >> 24;
                    expected[v] = static_cast<int>(
                        mode == VISIBILITY_BY_OPACITY ? a : ((65535 - shading[4 * a]) * a >> 16) * k >> 16);
                }
                const int haze = *std::max_element(expected.begin(), expected.end()) * threshold >> 8;
                int sum = 0;
                for (int v = 0; v < 65536; ++v) {
                    const int tissue = v % 16;
                    const int luminosity = v < n ? std::max(0, expected[v] - haze) : 0;
                    ASSERT_EQ(m_Tables->luminosity[tissue][v], luminosity) << v;
                    ASSERT_EQ(m_Tables->colours[tissue][v], v < n ? first[v] : 0U) << v;
                    sum += luminosity;
                    ASSERT_TRUE(v >= n || m_Tables->prefix[tissue][v] == sum);
                }
            }
        }
    }
}

TEST_F(BrickLuminosity, MisuseOfTablesIsRefusedOrBounded) {
    IP_VOLRC_BrickStructure structure = make_structure(false);
    std::vector<unsigned> colours(65536, 0xFF000000U);
    std::vector<unsigned> shading(4 * 256, 0U);
    double params[3] = {0, 0, NAN};
    auto tables = pointers(colours, 0);
    structure.SetColorTables(nullptr, shading.data(), 12, params, VISIBILITY_BY_OPACITY);
    structure.SetColorTables(tables.data(), nullptr, 12, params, VISIBILITY_BY_CONTRIBUTION);
    EXPECT_EQ(m_Tables->colours[0][0], 0U);
    structure.SetColorTables(tables.data(), shading.data(), 99, params, VISIBILITY_BY_CONTRIBUTION);
    EXPECT_EQ(m_Tables->colours[15][65535], 0xFF000000U);
    EXPECT_EQ(m_Tables->luminosity[15][65535], 0);
    structure.SetColorTables(tables.data(), shading.data(), -3, params, VISIBILITY_BY_OPACITY);
    EXPECT_EQ(m_Tables->luminosity[15][0], 255);
    EXPECT_EQ(m_Tables->luminosity[15][1], 0);
}

// Stored values may lie outside the tables' range: they are transparent and must not be looked up.
TEST_F(BrickLuminosity, ValuesBeyondTheTablesAreDark) {
    const auto volume = make_volume(64, 32, 32, 16, true, [](int x, int, int) { return x < 30 ? -30000 : 30000; });
    IP_VOLRC_BrickStructure structure = make_structure(true);
    structure.SetMaxLayerLoaded(1);
    ASSERT_TRUE(structure.Init(volume.get()));
    std::vector<unsigned> colours(4096, 0xFF808080U);
    structure.SetColorTables(pointers(colours, 2048).data(), nullptr, 12, nullptr, VISIBILITY_BY_OPACITY);
    expect_luminosity(structure, 12, true);
    EXPECT_EQ(structure.GetBrick(0, 0, 0)->GetNumOpaqueLeaves(), 64) << "the leaves across the step";
}

TEST_F(BrickLuminosity, SumsOfFullTablesFillTheirWord) {
    const auto volume = make_volume(32, 32, 32, 16, false, [](int x, int, int) { return x % 2 == 0 ? 0 : 65535; });
    IP_VOLRC_BrickStructure structure = make_structure(false);
    structure.SetMaxLayerLoaded(1);
    ASSERT_TRUE(structure.Init(volume.get()));
    std::memset(m_Tables->luminosity, 0xFF, sizeof(m_Tables->luminosity));
    structure.EvaluateLuminosities();
    EXPECT_EQ(structure.GetBrick(0, 0, 0)->GetZeroLevelLuminosity(), 0xFFFF);
}

TEST_F(BrickLuminosity, TissuesOfEveryBrickAreFoundAndDecideLuminosity) {
    const int dims[3] = {67, 41, 70};
    const auto volume = make_volume(dims[0], dims[1], dims[2], 8, false,
                                    [](int x, int y, int z) { return static_cast<int>(noise(x, y, z) % 200); });
    for (const int width : {67, 68, 33}) {
        const VoxelFunction tissue = [](int x, int y, int z) {
            const unsigned n = noise(x / 9, y / 7, z / 5) % 40;
            return n < 15 && n != 4 ? static_cast<int>(n) : 15;
        };
        // One narrower volume: bricks beyond it hold no tissue at all.
        const auto tissues = make_tissue_volume(width, dims[1], dims[2], tissue);
        delete tissues->GetSlice(69);
        tissues->SetSlice(nullptr, 69);
        for (const int servers : {1, 3}) {
            reference_host::SetNumberOfServers(servers);
            IP_VOLRC_BrickStructure structure = make_structure(false);
            structure.SetMaxLayerLoaded(1);
            ASSERT_TRUE(structure.Init(volume.get()));
            ASSERT_TRUE(structure.UpdateTissue(tissues.get()));
            for_each_brick(structure, [&](IP_VOLRC_BrickData& brick, int bx, int by, int bz) {
                std::vector<bool> expected(16, false);
                for (int z = 32 * bz; z < std::min(32 * bz + 32, dims[2]); ++z) {
                    for (int y = 32 * by; y < std::min(32 * by + 32, dims[1]); ++y) {
                        for (int x = 32 * bx; x < std::min(32 * bx + 32, width); ++x) {
                            expected[z == 69 ? 15 : tissue(x, y, z)] = true;
                        }
                    }
                }
                const std::vector<bool> found(brick.GetActiveTissueVector(), brick.GetActiveTissueVector() + 16);
                ASSERT_EQ(found, expected) << bx << "," << by << "," << bz << " width " << width;
                ASSERT_EQ(brick.GetNumTissues(), std::count(found.begin(), found.end(), true));
            });

            // Every tissue shows another band of values.
            for (int t = 0; t < 16; ++t) {
                for (int v = 0; v < 256; ++v) {
                    m_Tables->luminosity[t][v] = v / 12 == t;
                }
            }
            structure.EvaluateLuminosities();
            expect_luminosity(structure, 8, false);
            ASSERT_TRUE(structure.UpdateTissue(nullptr));
            EXPECT_EQ(structure.GetBrick(1, 1, 1)->GetNumTissues(), 1);
            EXPECT_TRUE(structure.GetBrick(1, 1, 1)->GetTissueActive(15));
            EXPECT_FALSE(structure.GetBrick(1, 1, 1)->GetTissueActive(0));
        }
    }
}

TEST_F(BrickLuminosity, UnmappedStructureIsMappedForTheEvaluation) {
    const auto volume = make_volume(32, 32, 32, 12, false, [](int x, int, int) { return x; });
    IP_VOLRC_BrickStructure structure = make_structure(false);
    structure.SetMaxLayerLoaded(1);
    ASSERT_TRUE(structure.Init(volume.get()));
    structure.Unmap();
    m_Tables->luminosity[15][3] = 1;
    structure.EvaluateLuminosities();
    EXPECT_EQ(structure.GetBrick(0, 0, 0), nullptr);
    ASSERT_TRUE(structure.Map());
    expect_luminosity(structure, 16, false);
}

TEST_F(BrickLuminosity, ProtocolFileLoadsTissue15And0) {
#ifdef _WIN32
    GTEST_SKIP() << "the protocol files lie on a drive of their own";
#endif
    const auto folder = std::filesystem::temp_directory_path() / "volr_protocol_test";
    std::filesystem::create_directories(folder / "d:/images/protocols");
    const auto before = std::filesystem::current_path();
    std::filesystem::current_path(folder);
    {
        std::ofstream file("d:/images/protocols/protocol.angio1", std::ios::binary);
        for (unsigned v = 0; v < 65536; ++v) {
            const unsigned char colour[4] = {static_cast<unsigned char>(v), 0x10, static_cast<unsigned char>(v >> 8),
                                             2};
            file.write(reinterpret_cast<const char*>(colour), 4);
        }
    }
    const auto volume = make_volume(40, 8, 8, 16, false, [](int x, int y, int) { return 1000 * x + y; });
    IP_VOLRC_BrickStructure structure = make_structure(false);
    structure.SetMaxLayerLoaded(1);
    ASSERT_TRUE(structure.Init(volume.get()));
    structure.UpdateLuminosity(-5, false);
    for (unsigned v : {0U, 0x0180U, 0xFFFFU}) {
        const unsigned opacity = v & 0xFF;
        EXPECT_EQ(m_Tables->colours[0][v], 0x02001000U | opacity | (v >> 8) << 16);
        EXPECT_EQ(m_Tables->luminosity[15][v], std::max(0x10U, v >> 8) * opacity / 256);
        EXPECT_EQ(m_Tables->colours[1][v], 0x00FF00FFU);
        EXPECT_EQ(m_Tables->luminosity[1][v], 254);
    }
    expect_luminosity(structure, 16, false);

    // A protocol without a file, and one beyond the list, keep the colours.
    structure.UpdateLuminosity(15, false);
    structure.UpdateLuminosity(400, false);
    structure.UpdateLuminosity(-1, false);
    EXPECT_EQ(m_Tables->colours[15][0x0180], 0x02011080U);

    char directory[256] = "nowhere";
    IP_Box box(4, 4, 4);
    structure.ImportTissues(directory, &box);
    EXPECT_STREQ(directory, "nowhere\\tissue.char");
    std::filesystem::current_path(before);
    std::filesystem::remove_all(folder);
}

}  // namespace
