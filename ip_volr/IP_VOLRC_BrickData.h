// One brick of the volume: 32 voxels per edge.
#pragma once

#include "ip_volr/IP_VOLRC_BrickGeometry.h"
#include "ip_volr/IP_VOLRC_OctreeData.h"
#include "ip_volr/IP_VOLR_Export.h"

struct _listRay;

// What the ray caster needs to know about a brick: where it lies, what can be skipped, which rays are in it.
//
// Records are constructed in place in pageable memory and stay valid when their bytes come back at another address:
// their pointers lead to rays of the projector's ray pool, which they do not own. A record is written by one thread at
// a time (the worker that owns its layer or brick in the current stage).
class IP_VOLR_EXPORT IP_VOLRC_BrickData {
public:
    static constexpr int kEdgeLog2 = 5;
    static constexpr int kEdge = 1 << kEdgeLog2;  // voxels
    static constexpr int kNumOctants = 8;
    static constexpr int kNumTissues = 16;
    static constexpr int kNumRayLists = 8;
    static constexpr int kNumNeighbours = 27;  // 3 by 3 by 3 offsets, 13 is the brick itself

    // Empty: nothing luminous, only tissue 15 (no tissue) active, no rays, invisible cache all ones, visible all zeros.
    IP_VOLRC_BrickData();

    // Sets the pair of leaf 0 of every octant from the volume's mapped slices.
    void InitOctree(IP_VolData* volume);
    // Number of opaque leaves from the octants' counts; number of opaque cells = 64 times that.
    void CalcNumOpaqueLeaves();
    // Field `octant` of the zero-level luminosity from the octant's 8 node bytes.
    void UpdateZeroLevelLuminosity(int octant, unsigned char* node_bytes);

    // Octant 0 to 7; bit 0 of the index selects the upper half in x, bit 1 in y, bit 2 in z.
    IP_VOLRC_OctreeData* GetOD(int octant) { return &m_Octants[octant]; }

    // Voxel coordinates of the brick's corner.
    void SetOrigin(int x, int y, int z) {
        m_Origin[0] = x;
        m_Origin[1] = y;
        m_Origin[2] = z;
    }
    void GetOrigin(int& x, int& y, int& z) const {
        x = m_Origin[0];
        y = m_Origin[1];
        z = m_Origin[2];
    }

    // Two bits per octant (bits 2o and 2o + 1): 0 no luminous leaf, 1 some, 3 all 64.
    unsigned short GetZeroLevelLuminosity() const { return m_ZeroLevelLuminosity; }
    void SetZeroLevelLuminosity(unsigned short value) { m_ZeroLevelLuminosity = value; }
    // One byte per projection queue (0 to 7).
    unsigned char GetZeroLevelOcclusion(int q) const { return m_ZeroLevelOcclusion[q]; }
    void SetZeroLevelOcclusion(int q, unsigned char value) { m_ZeroLevelOcclusion[q] = value; }

    // Rays: 8 lists waiting in the brick, 8 lists of rays that have left it, and one list per neighbour (27, with their
    // last nodes and lengths) of rays that go on there.
    _listRay* GetRayListHeader(int list) const { return m_RayListHeaders[list]; }
    void SetRayListHeader(int list, _listRay* ray) { m_RayListHeaders[list] = ray; }
    _listRay* GetFinishedRayLists(int list) const { return m_FinishedRayLists[list]; }
    void SetFinishedRayLists(int list, _listRay* ray) { m_FinishedRayLists[list] = ray; }
    _listRay** GetTempRayLists() { return m_TempRayLists; }
    _listRay** GetTempRayListEnds() { return m_TempRayListEnds; }
    int* GetTempRayNumbers() { return m_TempRayNumbers; }
    int GetNumRays() const { return m_NumRays; }
    void IncrementNumRays(int n) { m_NumRays += n; }
    void DecrementNumRays(int n) { m_NumRays -= n; }

    int GetNumOpaqueLeaves() const { return m_NumOpaqueLeaves; }  // luminous leaves of the 8 octants
    int GetNumOpaqueCells() const { return m_NumOpaqueCells; }    // their voxels
    // QUIRK(set-num-opaque-cells): a reader expects the number of cells to be written; the number of leaves is;
    // kept: callers rely on it.
    void SetNumOpaqueCells(int n) { m_NumOpaqueLeaves = n; }

    // Tissues 0 to 15 that occur in the brick; 15 is "no tissue".
    int GetNumTissues() const { return m_NumTissues; }
    void SetNumTissues(int n) { m_NumTissues = n; }
    bool GetTissueActive(int tissue) const { return m_ActiveTissues[tissue]; }
    void SetActiveTissues(int tissue, bool active) { m_ActiveTissues[tissue] = active; }
    bool* GetActiveTissueVector() { return m_ActiveTissues; }  // 16 flags

    // One bit per voxel of the brick: word z * 32 + y, bit x. In the invisible cache a set bit marks a voxel of a
    // luminous leaf: one that has not been found invisible.
    unsigned int (*GetCellInvisCache())[1024] { return &m_CellInvisibleCache; }
    unsigned int (*GetCellVisCache())[1024] { return &m_CellVisibleCache; }

private:
    unsigned short m_ZeroLevelLuminosity;
    unsigned char m_ZeroLevelOcclusion[8];
    _listRay* m_RayListHeaders[kNumRayLists];
    _listRay* m_FinishedRayLists[kNumRayLists];
    _listRay* m_TempRayLists[kNumNeighbours];
    _listRay* m_TempRayListEnds[kNumNeighbours];
    int m_NumOpaqueLeaves;
    int m_NumOpaqueCells;
    int m_TempRayNumbers[kNumNeighbours];
    int m_NumRays;
    unsigned int m_CellInvisibleCache[1024];
    unsigned int m_CellVisibleCache[1024];
    IP_VOLRC_OctreeData m_Octants[kNumOctants];
    int m_Origin[3];
    int m_NumTissues;
    bool m_ActiveTissues[kNumTissues];
};
