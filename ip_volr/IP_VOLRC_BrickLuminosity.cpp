// Which leaves are luminous under the current tables.
#include "host/tasks.h"
#include "ip_volr/IP_VOLRC_BrickColorSource.h"
#include "ip_volr/IP_VOLRC_BrickMinMaxScratch.h"
#include "ip_volr/IP_VOLRC_BrickStorage.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>

namespace {

// How a leaf's values find their table entries.
struct TableRange {
    int offset;  // added to a value
    int last;    // last index of the tables
};

// Whether a value in [lo, hi] (table indices, either may lie outside the tables) has luminosity. The sum of a whole
// table fits 32 bits, but not always with a sign.
inline bool range_is_luminous(const int* prefix, int last_index, int lo, int hi) {
    const int first = std::max(lo, 0);
    const int last = std::min(hi, last_index);
    if (last < first) {
        return false;
    }
    const int sum_before = first > 0 ? prefix[first - 1] : 0;
    return prefix[last] != sum_before;
}

// The octant's luminous leaves for one tissue, bit i for leaf i.
template <typename Value>
std::uint64_t luminous_leaves(const sMinMax* leaves, const int* prefix, TableRange table) {
    std::uint64_t mask = 0;
    for (int node = 0; node < IP_VOLRC_OctreeData::kNumNodes; ++node) {
        unsigned int bits = 0;
        for (int k = 0; k < 8; ++k) {
            const sMinMax pair = leaves[8 * node + k];
            const int lo = static_cast<Value>(pair.minimum) + table.offset;
            const int hi = static_cast<Value>(pair.maximum) + table.offset;
            bits |= static_cast<unsigned int>(range_is_luminous(prefix, table.last, lo, hi)) << k;
        }
        mask |= static_cast<std::uint64_t>(bits) << (8 * node);
    }
    return mask;
}

// Sets the invisible cache to the voxels of luminous leaves, four words of a leaf at a time: the same as all ones
// followed by UpdateCIC for every octant, with every word written once.
void write_invisible_cache(IP_VOLRC_BrickData& brick) {
    unsigned int* const cache = *brick.GetCellInvisCache();
    for (int lz = 0; lz < 8; ++lz) {
        for (int ly = 0; ly < 8; ++ly) {
            const int octant = 2 * (ly / 4) + 4 * (lz / 4);
            const unsigned int cells = brick.GetOD(octant)->LuminousCells(ly % 4, lz % 4) |
                                       brick.GetOD(octant + 1)->LuminousCells(ly % 4, lz % 4) << 16;
            const unsigned int words[4] = {cells, cells, cells, cells};
            for (int dz = 0; dz < 4; ++dz) {
                std::memcpy(cache + (4 * lz + dz) * 32 + 4 * ly, words, sizeof(words));
            }
        }
    }
}

// Luminosity bits, counts and caches of one brick.
template <typename Value>
void evaluate_brick(IP_VOLRC_BrickData& brick, const int (*prefix)[65536], TableRange table) {
    brick.SetZeroLevelLuminosity(0);
    for (int o = 0; o < IP_VOLRC_BrickData::kNumOctants; ++o) {
        IP_VOLRC_OctreeData& octant = *brick.GetOD(o);
        std::uint64_t mask = 0;
        for (int tissue = 0; tissue < IP_VOLRC_BrickData::kNumTissues && mask != ~std::uint64_t{0}; ++tissue) {
            if (brick.GetTissueActive(tissue)) {
                mask |= luminous_leaves<Value>(octant.GetData(), prefix[tissue], table);
            }
        }
        unsigned char* const node_bytes = octant.GetLeavesLuminosityVector();
        for (int node = 0; node < IP_VOLRC_OctreeData::kNumNodes; ++node) {
            node_bytes[node] = static_cast<unsigned char>(mask >> (8 * node));
        }
        octant.SetNumOpaqueLeaves(std::popcount(mask));
        brick.UpdateZeroLevelLuminosity(o, node_bytes);
    }
    brick.CalcNumOpaqueLeaves();
    std::memset(*brick.GetCellVisCache(), 0, sizeof(*brick.GetCellVisCache()));
    write_invisible_cache(brick);
}

// Luminosity of each opacity byte.
void fill_luminosity_of_opacity(const unsigned int* shading, const double* params, VISIBILITY_MODE mode,
                                unsigned short (&luminosity)[256]) {
    if (mode != VISIBILITY_BY_CONTRIBUTION) {
        for (unsigned int a = 0; a < 256; ++a) {
            luminosity[a] = static_cast<unsigned short>(a);
        }
        return;
    }
    // A weight that is not a number counts as 0, one beyond what 16 bits of luminosity can hold as the greatest.
    const double weight = params[2] > 0.0 ? std::min(params[2], 255.0) : 0.0;
    const auto k = static_cast<unsigned int>(weight * 65535.0);
    for (unsigned int a = 0; a < 256; ++a) {
        const unsigned int transparency = std::min(shading[4 * a], 65535U);
        luminosity[a] = static_cast<unsigned short>(((65535U - transparency) * a >> 16) * k >> 16);
    }
}

// Copies one tissue's colours and works out their luminosity.
void load_tissue_table(const IP_VOLRC_ColorSource& source, int tissue, unsigned int* colours,
                       unsigned short* luminosity) {
    const std::size_t size = source.table_size;
    const std::size_t stale = source.num_stale;
    std::memcpy(colours, source.colours[tissue] - source.num_before, size * sizeof(*colours));
    std::memset(colours + size, 0, stale * sizeof(*colours));
    std::memset(luminosity + size, 0, stale * sizeof(*luminosity));

    // Take what the threshold asks for off every opacity's luminosity, measured by the greatest one in use.
    bool is_used[256] = {};
    for (std::size_t i = 0; i < size; ++i) {
        is_used[colours[i] >> 24] = true;
    }
    int greatest = 0;
    for (int a = 0; a < 256; ++a) {
        greatest = is_used[a] ? std::max<int>(greatest, source.luminosity[a]) : greatest;
    }
    const std::int64_t haze = (static_cast<std::int64_t>(greatest) * source.threshold) >> 8;
    unsigned short remaining[256];
    for (int a = 0; a < 256; ++a) {
        remaining[a] = static_cast<unsigned short>(std::clamp<std::int64_t>(source.luminosity[a] - haze, 0, 65535));
    }
    for (std::size_t i = 0; i < size; ++i) {
        luminosity[i] = remaining[colours[i] >> 24];
    }
}

}  // namespace

void IP_VOLRC_BrickStructure::SetColorTables(unsigned short (&luminosity)[16][65536],
                                             int (&luminosity_prefix)[16][65536], unsigned int (&colours)[16][65536],
                                             bool is_signed) {
    m_LuminosityTables = luminosity;
    m_LuminosityPrefixTables = luminosity_prefix;
    m_ColorTables = colours;
    m_IsSigned = is_signed;
}

void IP_VOLRC_BrickStructure::SetColorTables(unsigned int** const colours, unsigned int* shading, int bits,
                                             double* params, VISIBILITY_MODE mode) {
    if (colours == nullptr || std::find(colours, colours + kNumTissues, nullptr) != colours + kNumTissues ||
        (mode == VISIBILITY_BY_CONTRIBUTION && (shading == nullptr || params == nullptr))) {
        return;
    }
    const int bits_before = m_TableBits;
    m_TableBits = std::clamp(bits, 0, 16);

    IP_VOLRC_ColorSource source = {};
    source.colours = colours;
    source.table_size = 1 << m_TableBits;
    source.num_before = m_IsSigned ? source.table_size / 2 : 0;
    source.num_stale = std::max(0, (1 << bits_before) - source.table_size);
    source.threshold = m_LuminosityThreshold;
    fill_luminosity_of_opacity(shading, params, mode, source.luminosity);

    const ip_volr::ScopedPointer<const IP_VOLRC_ColorSource> lent(m_ColorSource, source);
    RunOnWorkers(&IP_VOLRC_BrickStructure::LoadTissueTables);
    EvaluateLuminosities();
}

// Subtask: every n-th tissue, for n subtasks.
void IP_VOLRC_BrickStructure::LoadTissueTables() {
    const TCO_RunnableSelf self;
    for (int tissue = self.GetSubtaskIndex(); tissue < kNumTissues; tissue += self.GetNumberOfSubtasks()) {
        load_tissue_table(*m_ColorSource, tissue, m_ColorTables[tissue], m_LuminosityTables[tissue]);
    }
}

void IP_VOLRC_BrickStructure::EvaluateLuminosities() {
    CalcLuminosityTables();
    const IP_VOLRC_ScopedBrickMapping mapping(m_Storage.get());
    if (mapping.IsMapped()) {
        RunOnWorkers(&IP_VOLRC_BrickStructure::CalculateLuminosityBlock);
    }
}

void IP_VOLRC_BrickStructure::CalcLuminosityTables() {
    RunOnWorkers(&IP_VOLRC_BrickStructure::BuildPrefixTables);
}

// Subtask: the running sums of every n-th tissue, for n subtasks.
void IP_VOLRC_BrickStructure::BuildPrefixTables() {
    const TCO_RunnableSelf self;
    const int size = 1 << m_TableBits;
    for (int tissue = self.GetSubtaskIndex(); tissue < kNumTissues; tissue += self.GetNumberOfSubtasks()) {
        const unsigned short* const luminosity = m_LuminosityTables[tissue];
        int* const prefix = m_LuminosityPrefixTables[tissue];
        unsigned int sum = 0;
        for (int i = 0; i < size; ++i) {
            sum += luminosity[i];
            prefix[i] = static_cast<int>(sum);
        }
    }
}

// Subtask: a contiguous run of layers.
void IP_VOLRC_BrickStructure::CalculateLuminosityBlock() {
    const TCO_RunnableSelf self;
    const auto [first, last] = LayerRun(self.GetSubtaskIndex(), self.GetNumberOfSubtasks());
    EvaluateLayers(first, last);
}

// All bricks of the layers [first, last).
void IP_VOLRC_BrickStructure::EvaluateLayers(int first, int last) {
    const int size = 1 << m_TableBits;
    const TableRange table = {m_IsSigned ? size / 2 : 0, size - 1};
    const int per_layer = m_NumBricksX * m_NumBricksY;
    for (int z = first; z < last; ++z) {
        for (int i = 0; i < per_layer; ++i) {
            IP_VOLRC_BrickData& brick = m_Layers[z][i];
            if (m_IsSigned) {
                evaluate_brick<short>(brick, m_LuminosityPrefixTables, table);
            } else {
                evaluate_brick<unsigned short>(brick, m_LuminosityPrefixTables, table);
            }
        }
    }
}
