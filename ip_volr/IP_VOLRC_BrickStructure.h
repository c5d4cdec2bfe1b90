// The acceleration structure of the ray-casting projector: the volume cut into bricks of 32 voxels per edge.
#pragma once

#include "ip_volr/IP_VOLRC_BrickData.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <list>
#include <memory>
#include <utility>
#include <vector>

class IP_Box;
class IP_VolData;
struct IP_VOLRC_BrickStorage;
struct IP_VOLRC_ColorSource;
struct IP_VOLRC_MinMaxScratch;

// Names a brick by its indices along the three axes.
struct _int_coord {
    int x;
    int y;
    int z;
};

// How the luminosity of a table entry is worked out.
enum VISIBILITY_MODE {
    VISIBILITY_BY_CONTRIBUTION = 0,  // opacity of one step times opacity and ambient weight: faint entries vanish
    VISIBILITY_BY_OPACITY = 1        // the opacity byte itself: every entry that is not fully transparent counts
};

// Bricks of a volume of X by Y by Z voxels: nx = (X - 1) / 32 + 1 along x, ny and nz likewise. A layer is the set of
// bricks of one z index; layer L covers slices 32 L to 32 L + 31. The brick records live in pageable blocks of ten
// layers:
//
//     block 0: [ layer 0: (0,0) (1,0) ... (nx-1,0) (0,1) ... (nx-1,ny-1) ][ layer 1 ] ... [ layer 9 ]
//     block 1: [ layer 10 ] ...
//     flags:   [ clip visibility: workers + 1 planes of nx ny nz bytes ][ occlusion: 8 planes of nx ny nz bytes ]
//
// Life: constructed; Init (the blocks are then mapped); Unmap and Map around frames; Clean. Records, flags and pointers
// obtained from here may be used only while the structure is mapped; a block may come back at another address.
//
// Copies share the records and flags of their source (also its mappings); the memory goes with the last of them.
//
// Used by one thread at a time. Init, RecalculateMinMaxForNewSlices, EvaluateLuminosities, SetColorTables and
// UpdateTissue run on all servers of the task manager and return when the work is done; the results do not depend on
// the number of servers. The volume and the tables are not owned and must outlive the structure's use of them.
class IP_VOLR_EXPORT IP_VOLRC_BrickStructure {
public:
    static constexpr int kNumTissues = 16;
    static constexpr int kTableSize = 65536;
    static constexpr int kNumQueues = 8;

    using LuminosityTables = unsigned short[kNumTissues][kTableSize];
    using PrefixTables = int[kNumTissues][kTableSize];
    using ColorTables = unsigned int[kNumTissues][kTableSize];
    using ProjectionQueues = std::vector<std::vector<std::vector<_int_coord>>>;

    // The tables, per tissue and table index (value, plus half the table size for signed volumes): luminosity, its
    // running sums, and colours with the opacity in the fourth (highest) byte.
    IP_VOLRC_BrickStructure(unsigned short (&luminosity)[16][65536], int (&luminosity_prefix)[16][65536],
                            unsigned int (&colours)[16][65536], bool is_signed);
    IP_VOLRC_BrickStructure(const IP_VOLRC_BrickStructure&);
    IP_VOLRC_BrickStructure& operator=(const IP_VOLRC_BrickStructure&);
    ~IP_VOLRC_BrickStructure();

    // Builds everything for a volume of 16-bit slices, taking its box for the dimensions. Slices without pixel data
    // count as the lowest stored value of the volume's kind. The minimum and maximum tables stay empty when the maximum
    // loaded layer is 0. An earlier volume is cleaned first.
    //
    // False, with nothing left allocated, for a null or empty volume and when the pager refuses memory; false with the
    // records partly filled (Clean frees them) when it refuses to map slices. A cancellation of the host passes through
    // after what was mapped for the work has been unmapped.
    bool Init(IP_VolData* volume);
    // Frees everything that belongs to the volume; tables and queues stay. Nothing happens without a volume.
    void Clean();

    // Map and unmap all records and flags; counted. Init leaves them mapped once. A failed Map leaves nothing more
    // mapped than before; an Unmap too many does nothing.
    bool Map();
    bool Unmap();

    // Null for indices outside the brick counts and while unmapped.
    IP_VOLRC_BrickData* GetBrick(int x, int y, int z) const {
        if (x < 0 || y < 0 || z < 0 || x >= m_NumBricksX || y >= m_NumBricksY || z >= m_NumBricksZ) {
            return nullptr;
        }
        IP_VOLRC_BrickData* const layer = m_Layers[z];
        return layer == nullptr ? nullptr : layer + (static_cast<long long>(y) * m_NumBricksX + x);
    }
    void GetDims(int* const dims) const;  // brick counts nx, ny, nz
    IP_VolData* GetCurrentVolData() const { return m_VolData; }

    // The 8 orders in which the bricks can be projected. Queue q starts at the corner of the brick grid that has the
    // highest x index if bit 0 of q is set, the highest y for bit 1 and z for bit 2, and walks it in diagonal
    // wavefronts, whose bricks do not lie behind one another.
    void BuildProjectionQueues();
    ProjectionQueues* GetProjectionQueues() { return &m_ProjectionQueues; }
    int GetLargestLayerSize() const { return m_LargestLayerSize; }  // bricks in the greatest wavefront
    // Number of workers for which clip-visibility planes exist (one more plane than this).
    int GetMaxRasterProjections() const;

    // Planes of nx ny nz flags, brick (x, y, z) at (z ny + y) nx + x; null while unmapped.
    bool* GetBrickClipVisibility() const;
    bool* GetBrickOcclusionIndex(int q) const;  // plane of queue q, 0 to 7

    // Binds other tables and the volume's signedness. Nothing is evaluated.
    void SetColorTables(unsigned short (&luminosity)[16][65536], int (&luminosity_prefix)[16][65536],
                        unsigned int (&colours)[16][65536], bool is_signed);
    // Loads new colours into the tables and evaluates luminosity. `colours`: 16 tables of 2^bits entries; for signed
    // volumes each pointer designates value 0, with 2^(bits-1) entries before it. `shading`: 256 entries of four
    // components, the first of which is the transparency (0 to 65535) that one step leaves behind an opacity byte.
    // `params`: three shading weights, of which the last (ambient) counts, 0 to 255. `bits` is 0 to 16; entries beyond
    // 2^bits become transparent. Null arguments are refused without effect (`shading` and `params` matter only by
    // contribution).
    void SetColorTables(unsigned int** const colours, unsigned int* shading, int bits, double* params,
                        VISIBILITY_MODE mode);

    // Rescaled value = slope * stored value + intercept; Init takes both from its volume.
    void SetRescaleParams(double slope, double intercept);
    // Whether stored values are signed 16-bit numbers. Minima, maxima and tables made before keep their kind.
    void SetSigned(bool is_signed) { m_IsSigned = is_signed; }
    // In 1/256 of the greatest luminosity of a table: what every entry loses when tables are loaded.
    void SetLuminosityThreshold(int threshold) { m_LuminosityThreshold = threshold; }
    int GetLuminosityThreshold() const { return m_LuminosityThreshold; }
    // 0 means that no slice data is available yet.
    void SetMaxLayerLoaded(int layer) { m_MaxLayerLoaded = layer; }

    // Streaming: which layers the arrived slices (indices of the unpadded volume, which starts at slice 2 here; others
    // are ignored) touch, none for null; then their minimum and maximum values. False without a volume, while unmapped
    // and when slices cannot be mapped; the list of layers stays, so that the call can be repeated.
    void PrepareUpdatedBricksVector(std::list<int>* new_slices);
    bool RecalculateMinMaxForNewSlices();

    // Recomputes prefix tables, and from them luminosity bits, cell caches and counts of every brick.
    void EvaluateLuminosities();

    // Recomputes the tissues active in every brick from a volume of tissue-index slices (two voxels a byte, room for
    // (X Y + 1) / 2 bytes each); a slice without data holds no tissue (15). Null: no tissues, only 15 active
    // everywhere. False when slices or records cannot be mapped; the bricks before them have their new flags.
    bool UpdateTissue(IP_VolData* tissues);

    // Debugging: loads colours of tissue 15 (and 0) from a fixed file chosen by index -1 to 15, gives tissue 1 one
    // constant colour and evaluates luminosity on the calling thread. A missing file leaves table 15 as it is.
    void UpdateLuminosity(int protocol, bool reserved);
    // Debugging: appends "\tissue.char" to the directory in its own buffer, reads that file of box width x height x
    // depth bytes and discards it.
    void ImportTissues(char* directory, IP_Box* box);

    void InitLeavesMinMaxFromBrickVector();  // subtask over the updated layers

private:
    // Subtask bodies.
    void InitBrickLayers();
    void InitLeavesMinMax();
    void CalculateLuminosityBlock();
    void UpdateTissuesInParrallel();

    bool BuildRecords(const IP_VolData& volume);
    void Release();
    void RunOnWorkers(void (IP_VOLRC_BrickStructure::*method)());
    std::pair<int, int> LayerRun(int subtask, int num_subtasks) const;
    bool ComputeAllMinMax();
    bool ComputeUpdatedMinMax();
    void InitSingleBrickLayerMinMax(int layer, int worker_index);
    void LoadTissueTables();
    void BuildPrefixTables();
    void CalcLuminosityTables();
    void EvaluateLayers(int first, int last);
    bool FindTissues(const IP_VolData& tissues);
    void ClearTissues();

    int m_NumBricksX = 0;
    int m_NumBricksY = 0;
    int m_NumBricksZ = 0;
    // Start of each layer's records (null while unmapped), in the storage.
    IP_VOLRC_BrickData* const* m_Layers = nullptr;
    std::shared_ptr<IP_VOLRC_BrickStorage> m_Storage;
    ProjectionQueues m_ProjectionQueues;
    double m_RescaleSlope = 1.0;
    double m_RescaleIntercept = 0.0;
    int m_CurrentProtocol = -1;
    int m_TableBits = 16;
    bool m_IsSigned;
    IP_VolData* m_VolData = nullptr;
    IP_VolData* m_TissueVolData = nullptr;
    int m_LuminosityThreshold = 0;
    unsigned short (*m_LuminosityTables)[kTableSize];
    int (*m_LuminosityPrefixTables)[kTableSize];
    unsigned int (*m_ColorTables)[kTableSize];
    int m_NumWorkers = 1;
    int m_CurrentGroup = 0;
    int m_MaxLayerLoaded = 0;
    std::vector<int> m_UpdatedLayers;
    int m_LargestLayerSize = 0;
    // Alive while the work that they belong to runs.
    IP_VOLRC_MinMaxScratch* m_MinMaxScratch = nullptr;
    const IP_VOLRC_ColorSource* m_ColorSource = nullptr;
};
