#include "ip_volr/IP_VOLRC_BrickData.h"

#include <cstring>
#include <type_traits>

// Blocks of records move between mappings and are given back without visiting every record.
static_assert(std::is_trivially_copyable_v<IP_VOLRC_BrickData>);
static_assert(std::is_trivially_destructible_v<IP_VOLRC_BrickData>);
static_assert(sizeof(sMinMax) == 4);

IP_VOLRC_BrickData::IP_VOLRC_BrickData() {
    m_ZeroLevelLuminosity = 0;
    std::memset(m_ZeroLevelOcclusion, 0, sizeof(m_ZeroLevelOcclusion));
    for (int list = 0; list < kNumRayLists; ++list) {
        m_RayListHeaders[list] = nullptr;
        m_FinishedRayLists[list] = nullptr;
    }
    for (int neighbour = 0; neighbour < kNumNeighbours; ++neighbour) {
        m_TempRayLists[neighbour] = nullptr;
        m_TempRayListEnds[neighbour] = nullptr;
        m_TempRayNumbers[neighbour] = 0;
    }
    m_NumOpaqueLeaves = 0;
    m_NumOpaqueCells = 0;
    m_NumRays = 0;
    std::memset(m_CellInvisibleCache, 0xFF, sizeof(m_CellInvisibleCache));
    std::memset(m_CellVisibleCache, 0, sizeof(m_CellVisibleCache));
    SetOrigin(0, 0, 0);
    m_NumTissues = 1;
    std::memset(m_ActiveTissues, 0, sizeof(m_ActiveTissues));
    m_ActiveTissues[kNumTissues - 1] = true;
}

// QUIRK(init-octree): a reader expects all leaves to be computed; only leaf 0 of each octant is, since the brick
// structure fills the tables layer by layer; kept: callers rely on it.
void IP_VOLRC_BrickData::InitOctree(IP_VolData* volume) {
    for (int octant = 0; octant < kNumOctants; ++octant) {
        int origin_vox[3];
        for (int axis = 0; axis < 3; ++axis) {
            origin_vox[axis] = m_Origin[axis] + 16 * ((octant >> axis) & 1);
        }
        m_Octants[octant].CalcMinMaxVals(volume, 0, origin_vox);
    }
}

void IP_VOLRC_BrickData::CalcNumOpaqueLeaves() {
    m_NumOpaqueLeaves = 0;
    for (const IP_VOLRC_OctreeData& octant : m_Octants) {
        m_NumOpaqueLeaves += octant.GetNumOpaqueLeaves();
    }
    m_NumOpaqueCells = m_NumOpaqueLeaves * 64;
}

void IP_VOLRC_BrickData::UpdateZeroLevelLuminosity(int octant, unsigned char* node_bytes) {
    unsigned int any = 0x00;
    unsigned int all = 0xFF;
    for (int node = 0; node < IP_VOLRC_OctreeData::kNumNodes; ++node) {
        any |= node_bytes[node];
        all &= node_bytes[node];
    }
    const unsigned int field = any == 0 ? 0U : all == 0xFF ? 3U : 1U;
    const unsigned int others = m_ZeroLevelLuminosity & ~(3U << (2 * octant));
    m_ZeroLevelLuminosity = static_cast<unsigned short>(others | field << (2 * octant));
}
