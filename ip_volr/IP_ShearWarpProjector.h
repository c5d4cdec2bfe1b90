// Common base of the shear-warp projectors: geometry, the pool of transposed slices, and the mapping of slices.
#pragma once

#include "host/images.h"
#include "ip_volr/IP_VOLR_Export.h"
#include "ip_volr/IP_VolRBoxParams.h"
#include "ip_volr/IP_VolRParams.h"

class IP_VolDataProj;

// What every shear-warp frame needs before a voxel is touched.
//
// Spaces. Index: voxels, integers at voxel centres. Physical: mm. Virtual: mm about the middle of the volumes, turned
// by the view matrix; x runs to the right of the picture, y down, and the viewer looks along +z, so near means small z.
// Matrices take row vectors, translation in the last row.
//
// Direction codes of a frame, for the slices as they are stored: 2 composites the stored slices themselves; 1
// composites planes across them (the rows y of all slices); 0, which a projector turns into 1 by taking transposed
// slices, would composite their columns x. The "working box" has the picture's axes first: its x and y span a
// composited slice, its z runs through the slices.
//
// One driving thread; subtasks only set bytes of m_Requested.
class IP_VOLR_EXPORT IP_ShearWarpProjector {
public:
    explicit IP_ShearWarpProjector(float transp_margin_degrees);
    IP_ShearWarpProjector(const IP_ShearWarpProjector& o);  // copies the settings; no requests are taken over
    IP_ShearWarpProjector& operator=(const IP_ShearWarpProjector& o);
    virtual ~IP_ShearWarpProjector();

    // ---- Geometry without state

    // Translation by minus the middle of `bp`, then m.
    static void PhysicalToVirtual(IP_BoxParams* bp, const float m[4][4], float out[4][4]);
    // PhysicalToVirtual, then the physical-to-index transform of the screen.
    static void PhysicalToScreen(IP_BoxParams* bp, const float m[4][4], IP_Box* screen, float out[4][4]);
    // m_ScreenBox: the view box at m_Width x m_Height pixels, scaled by 1 / m_Zoom, moved by the pan. A zoom of zero
    // and values that are not finite count as zoom 1 and no pan.
    static void calc_screen_box(IP_VolRParams* params);
    // Cuts the segment between two physical points to the part inside all active planes of m_ClipManager. False, with
    // the points unchanged, when nothing of it survives.
    static bool clip_points(IP_VolRParams* params, float points[][3]);

    // Sets m_VolumeBox and m_ViewBox from m_VolData (selector non-zero) or m_AltVolData (zero): a square of the length
    // of the volumes' diagonal and a slice more, widened to the picture's shape. Without volumes nothing changes.
    void Reset(IP_VolRParams* params, int selector);
    // Sets the view box's dimensions, the screen box, and m_PhysToVirtual of both boxes (b may be null), about the
    // middle of m_VolData (selector non-zero) or m_AltVolData (zero).
    void prepare2project(IP_VolRParams* params, IP_VolRBoxParams* a, IP_VolRBoxParams* b, int k, int selector);

    // Box axis closest to the viewing direction (the lowest of equals); copies `box` to `out`.
    int calc_dir(IP_Box* box, const float m[4][4], IP_Box* out);
    // Box axis furthest from it.
    int calc_min_dir(IP_Box* box, const float m[4][4]);
    // Angle in degrees, 0 to 90, between box axis 0 and the viewing direction.
    float calc_angle(IP_Box* box, const float m[4][4]);
    // Shift per slice in the first slice's plane, in voxels, that keeps points on one viewing ray together; each
    // component limited to 100. 0, or -1 when the plane is seen edge on and the shift is 0.
    int calc_zvec(float zvec[3], IP_Box* box, const float m[4][4], int dir);
    // Direction codes of the transposed and of the not-transposed slices, from what calc_dir and calc_min_dir found.
    int set_trans_dir(int dir, int min_dir);
    int set_not_trans_dir(int dir, int min_dir);
    static void switch_dirs_x(IP_Box* box, int a, int b);  // exchanges two axes of a box

    // Direction of one prepared copy; `out` becomes its working box.
    int CalcDirSetDBox4Fast(IP_VolDataProj* data, float (&m)[4][4], bool transposed, IP_Box* out);
    // Direction of full-size data, whose current direction is flipped when its columns face the viewer. `flag` also
    // transposes the slices.
    int CalcDirSetDBox4Slow(IP_VolDataProj* data, float (&m)[4][4], IP_Box* out, bool flag);

    // ---- Pool of transposed slices

    // How many slices of the pool may be used when `wanted` are asked for and `max` exist: two are kept back for the
    // neighbours of a batch unless the pool has room for them anyway. Without a pool 0.
    unsigned int calc_slice_quota(int wanted, int max);
    // Makes the pool hold min(n + 2, slices of m_VolumeBox) blocks of m_VolumeBox's slice size at `factor` bytes a
    // voxel. When the pager refuses it holds fewer, and the quota table stays as it was, or empty when blocks in it are
    // gone. Throws std::bad_alloc with what it holds until then.
    void allocate_quota_slice_chunk(IP_VolRParams* params, unsigned int n, float factor);
    int map_chunks_slices(IP_VolRParams* params);  // 0, or -1 at the first chunk that fails
    int unmap_chunks_slices(IP_VolRParams* params);

    // ---- Slices of a pass

    // Clears the requests and makes room for n slices; 0 frees the room. False when there is no memory.
    bool reset_RequestedSlice(int n);
    // Requests slices: [d_first - 1, d_last] unless m_Dir is 2; then the range between `first` and `last`, mirrored in
    // n slices unless `forward`, scaled by m_ZScale when `scaled`. Indices outside the room are ignored.
    void fast_requested_slices(int n, int first, int last, int d_first, int d_last, bool forward, bool scaled);
    // Maps the requested ones of an array of slices in one call of the pager: 0, or -1 with none of them mapped. The
    // second unmaps what the first mapped.
    int map_fast_pre_requested_slices(IP_Slice** slices);
    void unmap_fast_pre_requested_slices();
    // Maps a range of `slices`, which must lie inside that array, in one call: [first, last], as stored in n slices
    // when m_Dir is 2 (see fast_requested_slices). 0, or -1 when nothing is mapped. The second unmaps that range when
    // m_Dir is 2, else [d_first - 1, d_last].
    int map_fast_requested_slices(int reserved_a, int reserved_b, int n, IP_Slice** slices, int first, int last,
                                  int d_first, int d_last, bool forward, bool scaled);
    void unmap_fast_requested_slices(int reserved_a, int reserved_b, int n, IP_Slice** slices, int first, int last,
                                     int d_first, int d_last, bool forward, bool scaled);

    // Shares the slices of a prepared volume out to its two views, near 45 degrees between axis 0 and the viewing
    // direction gradually: the first calc_transp_z slices go to the transposed view, the others to the not-transposed
    // one. Only slices whose orientation changes are transposed. Where both views have slices, they share the first
    // slice of the not-transposed one, so that no gap opens between their pictures. False when something is missing,
    // also memory.
    bool RebuildVolRDatas(IP_VolDataProj* volume, IP_VolDataProj* not_transposed, IP_VolDataProj* transposed,
                          float angle_degrees);

protected:
    // `dst` shows slice i of `src`, and as slice j a transposed copy of slice j of `src` in its work slice k. Indices
    // out of range do nothing.
    virtual void TransposeSharedSlice(IP_VolDataProj* src, IP_VolDataProj* dst, int i, int j, int k) = 0;

    int calc_transp_z(float angle_degrees, int n);  // slices to take from the transposed copy

    IP_VolRParams* m_Params = nullptr;       // of the frame in progress, not owned
    int m_Dir = 0;                           // direction code of the frame
    float m_ZScale = 1.0F;                   // from a slice index of the working box to one of the stored slices
    int m_Pass = 1;                          // 1: slices are requested; 2: they are projected
    unsigned char* m_Requested = nullptr;    // one flag per slice, owned
    IP_Slice** m_RequestedSlices = nullptr;  // gathered for one mapping call, owned
    IP_Slice** m_RequestedVec = nullptr;     // slice array they were gathered from
    int m_RequestedCapacity = 0;
    int m_RequestedCount = 0;
    float m_TranspMargin;  // half-width in degrees of the band around 45 degrees

private:
    // The stored slices between two indices of the working box, ordered, cut at [0, limit).
    void stored_range(int n, int first, int last, bool forward, bool scaled, int& low, int& high) const;
    void free_requests();
};
