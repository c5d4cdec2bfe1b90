// Maximum-intensity projection by the shear-warp method.
#pragma once

#include "host/tasks.h"
#include "ip_volr/IP_MIPPicking.h"
#include "ip_volr/IP_ShearWarpProjector.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <memory>

namespace ip_volr {
struct MipFrame;
}  // namespace ip_volr

// Draws volume k of a request as a maximum-intensity projection.
//
// A frame composites the slices that face the viewer, each shifted to its place on the viewing rays (sheared), by
// signed 16-bit maximum into a picture, and then warps that picture onto the output image. There are two paths:
//
//   fast    the prepared copies of m_AltVolData at nearest voxels: a draws the slices of the not-transposed view,
//           b those of the transposed one. Near 45 degrees both have slices.
//   linear  the source volumes of m_VolData at full size, slices resampled bilinearly: everything is in a. Transposed
//           slices, where they are needed, are made in the quota pool of the parameters.
//
// How a host draws a frame:
//
//     IP_VolRParamsMIP p;                      // kept across frames
//     IP_VolRBoxParamsMIP a, b;                // kept across frames, one pair for each volume k
//     IP_MIPProjector projector;
//
//     // Once for a volume. Slices carry unique identity texts. Voxels compare as signed 16-bit numbers, so
//     // unsigned data must have at most 15 bits. For exact spacing of thick slices the first slice lies at
//     // z = slice distance divided by pixel width (mm): GetSliceZf of the slices' box, at least 1.2, divided
//     // by 1.2 and limited to 16, says how often a slice is drawn along its thickness.
//     p.m_VolData = source;
//     auto prepared = std::make_shared<IP_MultiVolDataIncMIP>();
//     prepared->Rebuild(source.get(), nullptr, false, 2, pd_counter, tissue_counter, 0, false, minimum);  // fast only
//     p.m_AltVolData = prepared;
//     b.m_MaxIntoOutput = 1;                   // a overwrites the output, b combines with it by maximum
//     // With several volumes the first a overwrites and all further boxes have m_MaxIntoOutput = 1.
//
//     // When volume, picture shape or view mode change. Selector 1 for both paths: the picture must not move
//     // between them.
//     p.m_Width = width;
//     p.m_Height = height;
//     p.m_OutputImage = image;
//     projector.Reset(&p, 1);
//
//     // Each frame. Rows of m_ViewMatrix take physical axes to virtual ones: x right, y down, z away from the
//     // viewer; a rotation without scale. m_Zoom, m_PanX and m_PanY act on the picture plane, m_ClipManager
//     // (may be null) clips.
//     projector.Project(&p, &a, &b, linear, k, threshold);
//     projector.Shear(&p, &a, threshold);
//     projector.Shear(&p, &b, threshold);      // does nothing when b has no part in the picture, as on the linear path
//
//     // At the end, before the parameters go:
//     IP_MIPProjector::FreePictures(&p, &a, &b);
//
// A host that streams data in holds the data-protection section of m_AltVolData from Project to the last Shear. A mask
// applies on the linear path only when m_VolData itself holds masked slices (prepared data at full size serves).
//
// Pixels below `threshold` become `threshold`; -32768 keeps all values. The result depends neither on the number of
// servers nor on the instruction set.
//
// Pictures. The box's picture is p.m_Pictures[0] as well; pictures 1 to 7 are allocated with it. The subtasks of a
// frame own disjoint rows of the box's picture, which gives the same pixels as one picture for each worker and a merge;
// pictures 1 to 7 stay unused and therefore cost address space only.
//
// Failure. Project ends early when the pager refuses a mapping, when there is no memory, or when the host cancels the
// run (the exception goes no further): the picture then holds what was composited so far, and IsComplete() is false.
// Refused picture memory leaves the box without a picture. Nothing stays mapped in any case.
//
// One driving thread for each object, and for each pair of parameters.
class IP_VOLR_EXPORT IP_MIPProjector : public IP_ShearWarpProjector, public TCO_CompoundRunnable<IP_MIPProjector> {
public:
    IP_MIPProjector();
    IP_MIPProjector(const IP_MIPProjector& o);  // takes over the settings of the last frame, no working state
    IP_MIPProjector& operator=(const IP_MIPProjector& o);
    ~IP_MIPProjector() override;

    // Projects volume k into the pictures of a and b (linear zero) or of a alone (non-zero). `threshold` is the floor
    // of every maximum. Without such a volume nothing is done.
    void Project(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b, int linear, int k, int threshold);

    // Warps one box's picture onto the output image of p.m_Width x p.m_Height signed 16-bit pixels, overwriting it or,
    // with m_MaxIntoOutput, combining by maximum. A box without a picture overwrites with the floor, or changes
    // nothing.
    void Shear(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, int threshold);

    // Whether the last Project and the calls of Shear after it drew everything, or the last Screen2Physical could read
    // everything: false after cancellation or refused memory.
    bool IsComplete() const { return m_IsComplete; }

    // Frees the pictures of the parameters and of the boxes (null pointers are skipped). Copies of these objects that
    // refer to the same pictures must not be used afterwards.
    static void FreePictures(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b);

    // The viewing ray of an output pixel through volume k, from where it enters the volume's box to where it leaves it,
    // cut by the clipping planes. Pixels are counted from the centre of the top left one. False when it misses.
    static bool ScreenRay(IP_VolRParamsMIP* p, int k, double pixel_x, double pixel_y, IP_MIPRay* ray);

    // The brightest voxel on that ray, as the picture shows it, which a host draws with the same parameters. Reads the
    // source volume. False when the ray misses the volume or meets no slice that has memory, and when a slice cannot be
    // mapped or there is no memory: IsComplete() is then false.
    bool Screen2Physical(IP_VolRParamsMIP* p, int k, double pixel_x, double pixel_y, int linear, IP_MIPPick* pick);

private:
    void ProjectBoxes(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b, int k);
    void ProjectBox(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, IP_VolDataProj* data, float (&m)[4][4],
                    bool transposed);
    void LinProjectBox(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, int k);
    void LinProjectXYSlices();
    void LinProjectXZSlices(IP_VolRParamsMIP* p, bool transposed);
    void TransposeSharedSlice(IP_VolDataProj* src, IP_VolDataProj* dst, int i, int j, int k) override;

    bool tpict_alloc(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, int pixels);
    void shear(short* picture, short* output, int w, int h, IP_Box* box, IP_Box* screen, float m[][4], float ox,
               float oy, int overwrite, int threshold);

    void update_clip_bounds(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b, int k, bool linear);
    void scale_thick_slices(IP_Box& working_box);
    bool place_slices(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, IP_Box& working_box, float (&m)[4][4]);
    void place_between_pixels(const IP_VolRBoxParamsMIP& box, IP_Box& working_box, float (&m)[4][4]);
    void clear_picture(IP_VolRBoxParamsMIP& box, const IP_Box& working_box);
    void set_depth_weights(IP_VolRParamsMIP* p, const IP_Box& working_box, const float (&m)[4][4]);
    void take_linear_bounds(IP_VolRParamsMIP* p, int k, bool transposed);
    void take_transposed_blocks(IP_VolRParamsMIP* p);
    int slices_per_batch() const;
    void request_slices(int margin);
    void take_mapped_slices(int margin);
    void run_pass(int pass, void (IP_MIPProjector::*method)(), int subtasks);
    bool run_batch(void (IP_MIPProjector::*method)(), int first, int last, int margin);
    void subtask_project_slices();
    void subtask_lin_project_slices_xy();
    void subtask_lin_project_slices_xz();
    void transpose_and_project(const TCO_RunnableSelf& self);
    void project_strip(const TCO_RunnableSelf& self, int first_sheet, int last_sheet);

    int m_Threshold = 0;
    unsigned short m_Background = 0;  // of pictures
    int m_DepthCue = 0;
    float m_DepthCueFloor = 1.0F;
    IP_Slice** m_Slices = nullptr;  // of the data projected
    int m_FirstSlice = 0;           // index of the data's first slice in that array
    int m_FirstWithData = 0;        // slices before it are not there yet
    int m_Volume = 0;               // index of the volume
    int m_NumBatches = 0;
    int m_Batch = 0;
    int m_SliceCount = 0;  // of the data projected, as its slices are stored
    int m_SliceW = 0;
    int m_SliceH = 0;
    int m_ActiveClipPlanes = 0;
    const int* m_ClipBounds = nullptr;
    bool m_IsComplete = true;
    std::unique_ptr<ip_volr::MipFrame> m_Frame;  // working state of the frame in progress
};
