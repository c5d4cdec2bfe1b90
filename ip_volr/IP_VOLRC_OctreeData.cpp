#include "ip_volr/IP_VOLRC_OctreeData.h"

#include "host/images.h"
#include "ip_volr/IP_VOLRC_BrickSlices.h"

#include <algorithm>
#include <cstring>

namespace {

// Widens a pair by one row of values of the given kind.
template <typename Value>
void widen_by_row(const short* row, int first, int last, sMinMax& pair) {
    Value minimum = static_cast<Value>(pair.minimum);
    Value maximum = static_cast<Value>(pair.maximum);
    for (int x = first; x <= last; ++x) {
        minimum = std::min(minimum, static_cast<Value>(row[x]));
        maximum = std::max(maximum, static_cast<Value>(row[x]));
    }
    pair.minimum = static_cast<unsigned short>(minimum);
    pair.maximum = static_cast<unsigned short>(maximum);
}

}  // namespace

IP_VOLRC_OctreeData::IP_VOLRC_OctreeData() {
    std::memset(m_LeavesOcclusion, 0, sizeof(m_LeavesOcclusion));
    std::memset(m_LeavesLuminosity, 0, sizeof(m_LeavesLuminosity));
    std::memset(m_TissueFlags, 0, sizeof(m_TissueFlags));
    m_NumOpaqueLeaves = 0;
    InitMinMaxTable(kEmptyMinMaxUnsigned);
}

void IP_VOLRC_OctreeData::InitMinMaxTable(unsigned int value) {
    const sMinMax pair = {static_cast<unsigned short>(value & 0xFFFFU), static_cast<unsigned short>(value >> 16)};
    std::fill(std::begin(m_MinMax), std::end(m_MinMax), pair);
}

void IP_VOLRC_OctreeData::InitLeaf(IP_VolData* volume, int* const origin, sMinMax* pair) {
    int dims[3];
    volume->GetBox()->GetDims(dims);

    // Cut the leaf and its overlap at the volume's last voxels.
    int first[3];
    int last[3];
    for (int axis = 0; axis < 3; ++axis) {
        first[axis] = std::max(origin[axis], 0);
        last[axis] = std::min(dims[axis] - 1, first[axis] + 4);
        if (first[axis] > last[axis]) {
            *pair = {0, 0};
            return;
        }
    }

    for (int z = first[2]; z <= last[2]; ++z) {
        const IP_Slice* const slice = volume->GetSlice(z);
        const short* const pixels = ip_volr::mapped_pixels<IP_ShortSlice>(slice, dims[0], dims[1]);
        if (pixels == nullptr) {
            continue;
        }
        for (int y = first[1]; y <= last[1]; ++y) {
            const short* const row = pixels + static_cast<long long>(y) * dims[0];
            if (slice->GetAttributes().is_signed) {
                widen_by_row<short>(row, first[0], last[0], *pair);
            } else {
                widen_by_row<unsigned short>(row, first[0], last[0], *pair);
            }
        }
    }
}

void IP_VOLRC_OctreeData::CalcMinMaxVals(IP_VolData* volume, int leaf, int* const octant_origin) {
    int origin_vox[3];
    for (int axis = 0; axis < 3; ++axis) {
        origin_vox[axis] = octant_origin[axis] + 4 * ((leaf >> axis) & 1) + 8 * ((leaf >> (axis + 3)) & 1);
    }
    InitLeaf(volume, origin_vox, &m_MinMax[leaf]);
}

// QUIRK(node-luminosity-bit): a reader expects mode 2 to test one given leaf of the node; the bit tested is the one of
// the node's own index; kept: callers rely on it.
int IP_VOLRC_OctreeData::FindNodeLuminosity(int mode, int node) const {
    const unsigned luminosity = m_LeavesLuminosity[node];
    if (mode == 1) {
        return luminosity != 0 ? 1 : 0;
    }
    if (mode == 2) {
        return ((luminosity >> node) & 1U) != 0 ? 2 : 0;
    }
    return 2;
}

unsigned int IP_VOLRC_OctreeData::LuminousCells(int ly, int lz) const {
    // Every leaf covers 4 voxels of the row.
    static constexpr unsigned int kCellsOfLeafPair[4] = {0x00, 0x0F, 0xF0, 0xFF};

    // The row's leaves are two neighbours in each of two nodes that follow each other along x.
    const int node = (ly >> 1) * 2 + (lz >> 1) * 4;
    const int leaf = (ly & 1) * 2 + (lz & 1) * 4;
    const unsigned int low = kCellsOfLeafPair[(m_LeavesLuminosity[node] >> leaf) & 3];
    const unsigned int high = kCellsOfLeafPair[(m_LeavesLuminosity[node + 1] >> leaf) & 3];
    return low | high << 8;
}

void IP_VOLRC_OctreeData::UpdateCIC(unsigned int (*cache)[1024], int octant) const {
    const int shift = 16 * (octant & 1);
    const int y0 = 16 * ((octant >> 1) & 1);
    const int z0 = 16 * ((octant >> 2) & 1);
    for (int lz = 0; lz < 4; ++lz) {
        for (int ly = 0; ly < 4; ++ly) {
            const unsigned int keep = ~((0xFFFFU & ~LuminousCells(ly, lz)) << shift);
            for (int dz = 0; dz < 4; ++dz) {
                unsigned int* const words = *cache + (z0 + 4 * lz + dz) * 32 + y0 + 4 * ly;
                for (int dy = 0; dy < 4; ++dy) {
                    words[dy] &= keep;
                }
            }
        }
    }
}
