// One octant of a brick: 16 voxels per edge, 64 leaves of 4 voxels per edge.
#pragma once

#include "ip_volr/IP_VOLR_Export.h"

class IP_VolData;

// Smallest and greatest 16-bit value of a leaf, stored together as one 32-bit word (minimum in the low half). Volumes
// of signed values keep the bit patterns of signed 16-bit numbers. An empty leaf has its minimum above its maximum.
struct alignas(4) sMinMax {
    unsigned short minimum;
    unsigned short maximum;
};

// The empty pairs, as 32-bit words: what InitMinMaxTable takes.
constexpr unsigned int kEmptyMinMaxSigned = 0x80007FFFU;
constexpr unsigned int kEmptyMinMaxUnsigned = 0x0000FFFFU;

// Minimum and maximum of the octant's leaves and which of them are luminous (not fully transparent under the current
// tables in at least one active tissue).
//
// The 64 leaves are numbered in interleaved order: leaf i has its origin at the octant's origin plus
//
//     x: 4 (i bit 0) + 8 (i bit 3)    y: 4 (i bit 1) + 8 (i bit 4)    z: 4 (i bit 2) + 8 (i bit 5)
//
// so that the 8 leaves of each node (8 voxels per edge) are contiguous: node n holds leaves 8n to 8n + 7.
//
// Lives inside a brick record in pageable memory: no pointers to itself, may be moved by copying its bytes. Written by
// one thread at a time.
class IP_VOLR_EXPORT IP_VOLRC_OctreeData {
public:
    static constexpr int kNumLeaves = 64;
    static constexpr int kNumNodes = 8;
    static constexpr int kNumTissues = 16;

    IP_VOLRC_OctreeData();

    // 64 pairs, one per leaf, of its voxels including one voxel of overlap on the far side of each axis.
    sMinMax* GetData() { return m_MinMax; }
    // 8 bytes, one per node; bit k tells whether leaf k of the node is luminous.
    unsigned char* GetLeavesLuminosityVector() { return m_LeavesLuminosity; }
    // Occlusion mask of projection queue q (0 to 7); bit i concerns leaf i.
    unsigned long long GetLeavesOcclusionVector(int q) const { return m_LeavesOcclusion[q]; }
    int GetNumOpaqueLeaves() const { return m_NumOpaqueLeaves; }  // number of luminous leaves
    void SetNumOpaqueLeaves(int leaves) { m_NumOpaqueLeaves = leaves; }
    // 16 flags: the tissues that the last tissue update found active in the octant's brick; none before it.
    bool* GetTissueFlages() { return m_TissueFlags; }

    // Sets all pairs to the 32-bit word `value`.
    void InitMinMaxTable(unsigned int value);

    // Widens `pair` by the voxels of one leaf (origin in voxels, negative coordinates count as 0; 5 voxels per axis,
    // cut at the volume's last voxel), as unsigned values unless the slices say that theirs are signed. The caller has
    // mapped the slices; one without mapped pixels or of another size contributes nothing. A leaf beyond the volume
    // gets (0, 0).
    void InitLeaf(IP_VolData* volume, int* const origin, sMinMax* pair);
    // The same for leaf 0 to 63 of the octant with the given origin, into the octant's own table.
    void CalcMinMaxVals(IP_VolData* volume, int leaf, int* const octant_origin);

    // Mode 1: 1 when the node has a luminous leaf, else 0. Mode 2: 2 when the bit of the node's own index is set, else
    // 0. Any other mode: 2.
    int FindNodeLuminosity(int mode, int node) const;

    // The luminous voxels of one row of leaves (leaf rows ly and slices lz, 0 to 3) of the octant, bit x for voxel x.
    unsigned int LuminousCells(int ly, int lz) const;

    // Clears the voxel bits of the octant's leaves that are not luminous in a cell cache of its brick: word z * 32 + y,
    // bit x. `octant` is 0 to 7.
    void UpdateCIC(unsigned int (*cache)[1024], int octant) const;

private:
    unsigned long long m_LeavesOcclusion[8];
    sMinMax m_MinMax[kNumLeaves];
    unsigned char m_LeavesLuminosity[kNumNodes];
    int m_NumOpaqueLeaves;
    bool m_TissueFlags[kNumTissues];
};
