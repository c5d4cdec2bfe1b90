// The ray-casting projector: one picture of a bricked volume, seen from any direction.
#pragma once

#include "host/clipping.h"
#include "host/geometry.h"
#include "host/images.h"
#include "host/memory_pager.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <array>
#include <list>
#include <memory>
#include <vector>

class IP_VOLRC_BrickData;
class IP_VOLRC_BrickStructure;
struct _int_coord;
struct IP_VOLRC_RayCastScratch;
struct _listRay;

namespace ip_volr::kernels {
struct RayCastResult;
}

enum RC_RENDERING_MODE { RC_RENDERING_INTERACTIVE = 0, RC_RENDERING_FINAL = 1 };
enum RC_VOLR_QUALITY { RC_QUALITY_STANDARD = 0, RC_QUALITY_ENHANCED = 1 };
enum RC_INTERACTIVE_RENDERING_QUALITY {
    RC_INTERACTIVE_LEVEL_0 = 0,  // half the final resolution
    RC_INTERACTIVE_LEVEL_1 = 1,  // a third
    RC_INTERACTIVE_LEVEL_2 = 2   // a quarter
};
enum PROJECTION_SIDE { PROJECTION_SIDE_NEAR = 0, PROJECTION_SIDE_FAR = 1 };

// What one rendering mode asks of a frame.
struct IP_VOLRC_RenderParameters {
    double step_size = 0.3;  // voxels along the normalised view direction in index space
    int render_width = 0;    // rays per row
    int render_height = 0;   // rows of rays
    int minimum_width = 0;   // interactive set only: bounds of adaptive quality
    int minimum_height = 0;
    unsigned short transparency_threshold = 3276;      // of 65535; a ray below it ends
    bool fast_gradients = false;                       // forward instead of central differences
    bool opacity_luminosity = true;                    // table flag: a voxel is visible by its opacity alone
    unsigned short opacity_gradient_threshold = 8192;  // of 65535; a sample above it is shaded
    int gradient_level = 0;  // luminosity threshold of the brick structure, in 1/256 of a table's greatest
};

// Casts one ray per pixel of the render resolution through a volume that is cut into bricks of 32 voxels per edge,
// wave of bricks after wave of bricks, front to back.
//
// Spaces. All matrices are double, rows of four, points are row vectors multiplied from the left.
//   raster   x to the right, y downwards, z along the view in raster-depth units; the centre of output pixel (i, j),
//            counted from the top-left one, is the raster point (i, j, 0), and z = 0 is the plane through the volume's
//            middle as long as the matrix below has no depth translation
//   physical millimetres relative to the middle of the volume's box:
//                physical = (x, y, z, 1) * raster-to-physical matrix (SetR2PMatrix)
//            so the pixel's centre shows the line through (i, j, 0, 1) * R2P along the view vector; add the middle of
//            the volume's box (IP_BoxParams::GetMiddle) for absolute coordinates
//   index    voxels of the padded volume (two empty slices before and two behind the source), whose middle is the same
// A frame of reduced render size (rw, rh) casts the ray of render pixel (i, j) through the output raster point
// (i * (ow - 1) / (rw - 1), j * (oh - 1) / (rh - 1)): the corner pixels coincide. The final enhanced frame has
// rw = ow, rh = oh.
//
// Picture. One 32-bit pixel per ray, 0xAARRGGBB: premultiplied colour, and in the top byte the ray's remaining
// transparency, through which BlendOutput shows what the host's buffer held.
//
// Memory. The object holds its lookup tables inline (about 10 MB) and belongs into a block of the memory pager, aligned
// to 64 bytes; it owns its rasters, rays, per-task work blocks and padded volumes, which ClearProjectorResources
// releases (the destructor does not). Copies share them.
//
// Threads. One host thread drives a projector; a frame runs its stages as compound tasks and joins them. The picture is
// the same, bit for bit, for every number of servers.
class IP_VOLR_EXPORT IP_VOLRC_Projector {
public:
    static constexpr int kNumTissues = 16;
    static constexpr int kTableEntries = 65536;

    // Process-wide: the transparency (of 65535) below which rays end, five per cent, taken over by SetDefaultParams;
    // and whether depth images show the front of the volume rather than its back.
    static unsigned short s_DefaultTransparencyThreshold;
    static bool s_DepthFromFront;

    IP_VOLRC_Projector();                      // empty members only: to be assigned to
    explicit IP_VOLRC_Projector(int dims[2]);  // output width and height; anything below 1 draws nothing
    IP_VOLRC_Projector(const IP_VOLRC_Projector&);
    IP_VOLRC_Projector& operator=(const IP_VOLRC_Projector&);
    ~IP_VOLRC_Projector();

    // Frees everything that the projector owns. The projector must not be used afterwards.
    void ClearProjectorResources();

    // ---- Frame

    // Draws one frame into the render raster. False, without a picture, when buffers or volume are missing, the padded
    // volume has fewer than 5 voxels along an axis, or memory cannot be had or mapped. Throws TCO_CANCEL_EXCEPTION
    // when the host cancels; the next frame is right after either.
    bool Project();
    // Composites the picture over `out` (output width times output height pixels, rows from the top):
    // out = picture + out * transparency, per channel, saturating.
    void BlendOutput(unsigned int* out);

    // Whether a point (physical mm, absolute) lies in front of where the last frame's ray through it stopped, or at
    // most `tolerance` raster-depth units (mm) behind. False outside the picture.
    bool IsVisible(IP_3Coord point, float tolerance);
    // Whether the last frame is good and nothing has been changed since.
    bool IsValid() const;
    void InvalidateOcclusions();  // IsValid is false until the next frame

    // ---- Volume, tissues, tables

    // The volume to draw (not owned; null removes it). `flag` says that its 16-bit values are signed. A volume with the
    // identity of the current one changes nothing. Without memory the next frame tries again.
    void SetVolData(IP_VolData* volume, bool flag);
    // Tissue indices, 4 bits a voxel, over the same lattice (not owned; null removes them). Without memory the next
    // frame tries again.
    void SetVolumeTissues(IP_VolData* tissues);
    // The source volume's slice pointers have changed in place.
    void BoxUpdated();
    // Highest loaded layer of the streamed volume; 0 means that nothing is loaded and draws nothing. Taken over when
    // the brick structure is made for a new volume.
    void SetMaxLayerLoaded(int layer) { m_MaxLayerLoaded = layer; }
    // Source slices that changed since the last frame. The list must live until the next Project, which forgets it.
    void SetUpdatedSliceIndexList(std::list<int>* slices);

    // 16 colour tables (0xAARRGGBB per value; the top byte is the opacity per millimetre, 255 = opaque) and 16 opacity
    // tables (per value three 16-bit shading weights: diffuse, specular, ambient, low to high; a null table takes the
    // projector's weights). `count` is the number of bits of a table, 1 to 16: each has 2^count entries. For signed
    // volumes a pointer designates the entry of value 0, with 2^(count - 1) entries before it. The colours are copied
    // by the next frame, the opacity tables are read by every frame. The flag is ignored.
    void SetColorTable(const unsigned int** colour, const unsigned long long** opacity, int count, bool reserved);
    // Debugging path: loads a colour protocol into the brick structure.
    void UpdateLuminosity(int protocol);
    // Shading on or off, and the weights (diffuse, specular, ambient; 0 to 1) of tissues without an opacity table.
    void UpdateShadingWeights(bool on, double weights[3]);

    // ---- View

    void SetLightVector(const double v[3]);  // physical direction in which the light travels
    void SetViewVector(const double v[3]);   // physical direction of increasing raster depth
    void SetR2PMatrix(const double m[4][4]);
    void GetR2PMatrix(double m[4][4]) const;
    void GetViewVector(double v[3]) const;
    void SetPan(const int pan[2]);    // stored only: no frame reads it
    void SetDims(const int dims[2]);  // output width and height
    // Planes of the user: inside is where the equation is not positive. Identifiers start at 6.
    IP_ClipManager* GetUserClipManager() { return m_UserClipManager; }

    // ---- Quality

    void SetRenderMode(RC_RENDERING_MODE mode);
    RC_RENDERING_MODE GetRenderMode() const { return m_RenderMode; }
    void SetVolrQuality(RC_VOLR_QUALITY quality);
    // Ignored with standard quality.
    void SetInteractiveQuality(RC_INTERACTIVE_RENDERING_QUALITY level);
    // Trades step size and resolution of interactive frames against time. `ratio` is the last interactive frame's time
    // divided by the time allowed; anything but a number is ignored.
    void AdjustRenderingTime(double ratio);
    const IP_VOLRC_RenderParameters& GetParameters(RC_RENDERING_MODE mode) const;
    void SetDefaultParams();
    void SetStepSize(double step);  // voxels along the normalised view direction in index space
    double GetStepSize() const { return m_StepSize; }
    double GetStepLength() const { return m_StepLength; }  // the same step in mm; 0 before it is known
    // Entry k: transparency (of 65535) of one step through opacity byte k; four equal lanes an entry.
    const unsigned int (*GetStepTransparencies() const)[4] { return m_StepTransparencies; }
    // Values of the current frame; the next Project replaces the first two and the fast gradients by those of its mode.
    void SetTranspThresh(unsigned int threshold) { m_TransparencyThreshold = static_cast<unsigned short>(threshold); }
    void SetOpacGradThresh(unsigned short threshold) { m_OpacityGradientThreshold = threshold; }
    // Draw a depth image instead of a rendering: opaque greys over twice the greatest depth of the box, 0 where no ray
    // passes; brighter is nearer when the front is shown.
    void SetProjectZBuf(bool on) { m_ProjectZBuffer = on; }
    void SetFastGrads(bool on) { m_FastGradients = on; }  // forward instead of central differences
    void SetParallelize(bool on) { m_Parallelize = on; }  // off: one task for each stage
    // "Last fast rate: ..." with frame rates and resolutions; the caller provides room (256 bytes are enough).
    void GetInformationString(char* text) const;

    // ---- Results

    // The picture, output width times output height pixels; the projector's, and after a final frame's BlendOutput
    // unmapped. Null without memory or size.
    int* GetRaster() const { return m_RenderRaster; }
    void SetRaster(int* raster) { m_RenderRaster = raster; }  // not owned; until rasters are mapped or allocated anew
    double GetRenderingtime() const { return m_LastRenderTime; }  // last ray-casting pass, ms
    double GetSlowTime() const { return m_LastFinalTime; }        // last final frame, ms
    double GetFastTime() const { return m_LastInteractiveTime; }  // last interactive frame, ms

    // ---- Brick structure

    IP_VOLRC_BrickStructure* GetBrickStructure() const { return m_BrickStructure; }
    // A new structure bound to this projector's tables, for the host to keep; null when memory cannot be had.
    IP_VOLRC_BrickStructure* AllocateBrickStructure();
    // Adopts a structure of the host, which must outlive its use here; null returns to one of the projector's own. Its
    // tables are bound to this projector; what it knows of another volume is dropped without reading that volume.
    void SetBrickStructure(IP_VOLRC_BrickStructure* structure);
    static void DeleteBrickStructure(IP_VOLRC_BrickStructure* structure);

private:
    // Which results of the last frame still hold.
    enum ValidityFlag {
        kOcclusionsValid = 0,
        kVolumeValid,      // padded volume and brick records belong together
        kMinMaxValid,      // leaves know the slices' values
        kLuminosityValid,  // leaves know the tables
        kTablesValid,      // tables and shading weights are those of the frame
        kViewValid,        // matrices, vectors and sizes are those of the frame
        kRaysValid,        // ray pool holds the frame's rays
        kPictureValid,     // render raster holds the frame
        kNumValidityFlags
    };
    enum PendingChange { kColorTablesChanged = 0, kVolumeChanged, kTissuesChanged, kParametersChanged, kNumPending };

    struct BrickListEntry {
        float weight;
        int brick;  // index in the wave
        int list;   // ray list, 0 to 7
    };
    struct RenderingResource {
        unsigned char* block = nullptr;
        MEM_PagerInfo info;
        int held_brick = -1;  // of the current wave: what the block was last used for
    };
    struct PixelBrick {
        unsigned short x, y, z;  // 65535 for none
        unsigned short unused;

        bool operator==(const PixelBrick& o) const { return x == o.x && y == o.y && z == o.z; }
    };
    // Depth of a plane over the raster: depth(x, y) = at_origin - y * per_row - x * per_column.
    struct PlaneDepth {
        double at_origin;
        double per_column;
        double per_row;
    };
    using RunMethod = void (IP_VOLRC_Projector::*)();

    // What there was no memory for; see TakeRefusedVolumes.
    struct RefusedVolume {
        IP_VolData* volume = nullptr;
        bool is_signed = false;
    };

    // Parameters and tables
    void SetInteractiveQualityParams();
    void UpdateNonEnhancedParams();
    bool VolumePixelsPerVoxel(double scale[2]) const;
    void AdjustInteractiveSize(double ratio);
    void RecalculateTransparencies();

    // Volume and bricks
    void DestroyPaddedVolume();
    void DestroyPaddedTissues();
    void TakeRefusedVolumes();
    bool TissuesFitVolume() const;
    bool InitBrickStructure();
    bool EnsureBrickStructure();
    bool InitClipManager();
    bool SetBrickColorTables();

    // Memory
    void AllocateRasters();
    void FreeRasters();
    void InitRayPool();
    void FreeRayPool();
    bool AllocateRenderingResources();
    void ClearRenderingResources();
    bool MapBrickStructure();
    bool UnmapBrickStructure();
    bool MapRasters();
    bool UnmapRasters();
    bool MapBricks(int first_layer, int last_layer);
    void UnmapBricks();
    void CollectSlicePointers();
    _listRay* RayRow(int y) const;

    // Frame
    bool ProjectFrame();
    bool DrawFrame(const IP_VOLRC_RenderParameters& parameters, long long start_ticks);
    void ApplyParameterSet(const IP_VOLRC_RenderParameters& parameters);
    void ScaleR2PToRenderSize();
    bool RebuildForVolume();
    bool ApplyPendingChanges(bool just_rebuilt);
    bool ApplyNewSlices();
    bool PrepareDepthRasters();
    void DrawDepthImage();
    bool CastFrame();
    void EnlargePicture();
    void FinishFrame(long long start_ticks);
    void AbandonFrame();
    bool IsFinal() const { return m_RenderMode == RC_RENDERING_FINAL; }
    void RunOnAllServers(RunMethod method);
    int RowsPerStrip() const;

    // Clipping
    void CalcZVisBuffer(PROJECTION_SIDE side);
    void ClipRasters();
    void GroupPlanes(IP_ClipManager& planes, const double middle_mm[3]);
    void ClipPartialRaster();  // subtask
    void ClipRow(int y);
    void RowSpan(int y, int& first, int& last) const;

    // Rays and bricks
    void ResetListHeaders();
    void ResetListHeadersOfLayers();  // subtask
    void AttachRays();
    void GetBrickCoords();  // subtask: resets and places the rays of a strip
    bool PlaceRay(int x, int y, const double raster_to_index[4][4], int near_depth, int far_depth, _listRay& ray) const;
    bool BuildBrickList(int first_layer, int last_layer);
    bool IsListBalanced() const;
    void RedistributeRaysToTasks();
    void SplitRayList(std::size_t entry);
    void DoRayCasting();
    void PrepareRayCasting();
    void PrepareMovement();
    void PrepareTransferFunction();
    void MakeEntries();
    void PrepareShading();
    void CastLayers(int first_layer, int last_layer);
    void CastWave();
    void ProcessBrickList();  // subtask
    void ProcessBrick(std::size_t item, int server);
    void DeliverRays(const _int_coord& from, const ip_volr::kernels::RayCastResult& result, std::size_t item);
    void HandOverRays();
    const _int_coord* CurrentWave(int& num_bricks) const;

    // Output
    void ConvertRaysToRaster();
    void ConvertRaysToPartialRaster();  // subtask
    void ResizeImage();                 // subtask
    void BlendOuptutInParallel();       // subtask

    // Image and rays
    int m_RenderWidth = 0;
    int m_RenderHeight = 0;
    int m_OutputWidth = 0;
    int m_OutputHeight = 0;
    MEM_PagerInfo m_RenderRasterInfo;
    int* m_RenderRaster = nullptr;
    MEM_PagerInfo m_ClipRasterInfo;
    int* m_ClipRaster = nullptr;
    unsigned int* m_Output = nullptr;
    _listRay** m_RayPages = nullptr;
    MEM_PagerInfo* m_RayPageInfos = nullptr;
    int m_NumRayPages = 0;
    int m_RowsPerPage = 0;
    double m_R2P[4][4] = {};
    IP_VOLRC_BrickStructure* m_BrickStructure = nullptr;
    bool m_OwnsBrickStructure = false;
    IP_ClipManager* m_BoxClipManager = nullptr;
    IP_ClipManager* m_UserClipManager = nullptr;

    // Volume
    IP_VolData* m_PaddedVolume = nullptr;
    IP_Slice* m_EmptySlice = nullptr;
    IP_VolData* m_SourceVolume = nullptr;
    IP_VolData* m_PaddedTissues = nullptr;
    IP_Slice* m_EmptyTissueSlice = nullptr;
    int m_VolumeIdentity = -1;
    RefusedVolume m_RefusedVolume;
    IP_VolData* m_RefusedTissues = nullptr;
    std::vector<const unsigned short*> m_DataSlices;  // per padded slice, null while unmapped
    std::vector<const unsigned char*> m_TissueSlices;
    std::vector<MEM_PagerInfo*> m_SliceInfos;  // scratch of slice mapping
    int m_MappedFirst = 0;                     // padded slices [first, last) are mapped
    int m_MappedLast = 0;
    IP_Box m_Box;                // of the padded volume, its middle at the origin
    double m_Middle_mm[3] = {};  // of the padded volume

    // Directions
    double m_ViewVector[3] = {};
    double m_ViewIndex[3] = {};
    double m_LightVector[3] = {};
    double m_LightIndex[3] = {};
    double m_PhysicalToIndex[4][4] = {};
    double m_IndexToPhysical[4][4] = {};
    double m_StepSize = 0.3;
    double m_StepLength = 0.0;

    // Frame parameters
    unsigned short m_TransparencyThreshold = 0;
    unsigned short m_OpacityGradientThreshold = 0;
    bool m_ProjectZBuffer = false;
    bool m_FastGradients = false;
    bool m_Parallelize = true;
    int m_TableBits = 16;
    bool m_VolumeSigned = false;
    int m_TaskCount = 1;
    int m_MaxLayerLoaded = 0;
    std::list<int>* m_UpdatedSlices = nullptr;
    std::list<int> m_PendingSlices;  // updates that no frame has digested yet
    double m_ShadingWeights[3] = {};
    bool m_ShadingOn = true;
    int m_Pan[2] = {};
    RC_RENDERING_MODE m_RenderMode = RC_RENDERING_FINAL;
    RC_INTERACTIVE_RENDERING_QUALITY m_InteractiveQuality = RC_INTERACTIVE_LEVEL_0;
    RC_VOLR_QUALITY m_VolrQuality = RC_QUALITY_ENHANCED;
    double m_LastRenderTime = 0.0;
    double m_LastFinalTime = 0.0;
    double m_LastInteractiveTime = 0.0;
    IP_VOLRC_RenderParameters m_Interactive;
    IP_VOLRC_RenderParameters m_Final;

    // State
    std::array<bool, kNumValidityFlags> m_Valid = {};
    std::array<bool, kNumPending> m_Pending = {};
    bool m_RebuildRequested = false;
    bool m_ResourcesAllocated = false;
    bool m_BricksInitialised = false;
    bool m_RastersAllocated = false;
    bool m_RastersMapped = false;
    bool m_BricksMapped = false;
    bool m_ListsDirty = true;  // some brick may hold rays of an abandoned frame
    int m_ChunkLayers = 9;
    MEM_PagerInfo m_PixelBrickInfo;
    PixelBrick* m_PixelBricks = nullptr;

    // Values of one frame
    int m_DepthLimit = 0;          // largest raster depth of the box, 16.16
    double m_FrameR2P[4][4] = {};  // raster of the render size to physical
    double m_IndexPerDepth = 0.0;  // index-space length of one raster-depth unit
    bool m_FrameIsEmpty = false;   // no ray can be cast: degenerate matrices
    std::vector<PlaneDepth> m_NearPlanes;
    std::vector<PlaneDepth> m_FarPlanes;
    std::vector<PlaneDepth> m_ParallelPlanes;  // value(x, y) = at_origin - y * per_row - x * per_column
    int m_StepFixed = 0;                       // step in voxels, 16.16
    int m_Increments[3] = {};                  // per axis, 16.16
    std::shared_ptr<IP_VOLRC_RayCastScratch> m_Cast;
    std::vector<BrickListEntry> m_BrickList;
    std::vector<RenderingResource> m_Resources;
    int m_Octant = 0;
    int m_WaveIndex = 0;
    const unsigned int* m_ColorPointers[kNumTissues] = {};
    const unsigned long long* m_OpacityPointers[kNumTissues] = {};

    // Lookup tables: per tissue and value. A sample takes its premultiplied colour from the colour table and the
    // transparency of its step from the table of 256, so that a new step length costs 256 entries, not a million.
    alignas(64) unsigned int m_StepTransparencies[256][4];
    alignas(64) unsigned int m_ColorTables[kNumTissues][kTableEntries];
    alignas(64) unsigned short m_LuminosityTables[kNumTissues][kTableEntries];
    alignas(64) int m_LuminosityPrefix[kNumTissues][kTableEntries];
};
