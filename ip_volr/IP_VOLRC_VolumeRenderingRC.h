// The class through which a host draws volumes by ray casting.
#pragma once

#include "host/clipping.h"
#include "host/geometry.h"
#include "host/memory_pager.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <list>

class IP_MultiVolData;
class IP_VOLRC_Projector;

// Forwards every setting to one ray-casting projector, which lives in a block of the memory pager from the first
// creating call (SetVolumeData, SetMaxLayerLoaded, SetUpdatedSliceIndexList) until the facade is destroyed. Until then
// every other operation does nothing and returns false or 0.
//
// Matrices are 4 by 4 floats, rows of four; a point is a row vector multiplied from the left. The product
// SetProjection * Set2DTransform takes physical mm, relative to the middle of the volume's box, to the raster: x to the
// right and y downwards in pixels, with integers at pixel centres and (0, 0) at the top-left pixel, z away from the
// viewer in mm. SetProjection turns and scales about the middle and has no translation (the view vector is the image of
// a point, translation included); centring, zoom and pan belong to Set2DTransform. The projector's header says exactly
// which physical point a pixel shows.
//
// Order of calls: SetVolumeData; SetMaxLayerLoaded with the number of layers (at least 1: with 0 nothing is loaded and
// nothing is drawn); tissues, colours, lighting, quality, planes; SetProjection, Set2DTransform, then SetLightDirection
// whenever the view changes (matrices set before the volume must be set again); SetRenderMode and Render for each
// frame; AdjustRenderingTime after interactive ones.
//
// One host thread drives a facade. Copies share the projector: destroy only one of them.
class IP_VOLR_EXPORT IP_VOLRC_VolumeRenderingRC {
public:
    enum RenderMode : int { RENDER_MODE_INTERACTIVE = 0, RENDER_MODE_FINAL = 1 };           // any other: final
    enum RenderQuality : int { RENDER_QUALITY_STANDARD = 0, RENDER_QUALITY_ENHANCED = 1 };  // any other: standard
    enum IntercativeQuality : int {  // interactive frames at a half, a third, a quarter of the final resolution
        INTERACTIVE_QUALITY_0 = 0,
        INTERACTIVE_QUALITY_1 = 1,
        INTERACTIVE_QUALITY_2 = 2
    };
    enum LightingMode : int { LIGHTING_OFF = 0, LIGHTING_ON = 1 };  // any other: off

    IP_VOLRC_VolumeRenderingRC(int reserved_a, int reserved_b);
    IP_VOLRC_VolumeRenderingRC(const IP_VOLRC_VolumeRenderingRC&) = default;
    IP_VOLRC_VolumeRenderingRC& operator=(const IP_VOLRC_VolumeRenderingRC&) = default;
    ~IP_VOLRC_VolumeRenderingRC();

    // The biggest volume of the set is drawn. `is_signed`: its 16-bit values are signed. Neither set nor volume is
    // owned; the volume must outlive its use.
    void SetVolumeData(IP_MultiVolData* volumes, bool is_signed);
    // Tissue indices (4 bits a voxel) in the biggest volume of the set; null removes the tissues.
    void SetVolumeTissues(IP_MultiVolData* tissues);

    // Streaming. QUIRK(dropped-first-call): a reader expects the value of the first call to count; the call that
    // creates the projector drops it. Kept: callers rely on it.
    // The highest layer of 32 slices that has arrived; 0: none. Counts when the next frame is the first of a volume.
    void SetMaxLayerLoaded(int layer);
    // Indices of the volume's slices whose voxels are new since the last frame. The list must live until the next
    // Render, which forgets it.
    void SetUpdatedSliceIndexList(std::list<int>* slices);

    void SetProjection(float m[4][4]);
    void Set2DTransform(float m[4][4]);
    void SetLightDirection(double d[3]);  // on the screen, mapped by the projection of this moment
    void SetLightingMode(LightingMode mode);
    // 16 colour and 16 opacity tables of 2^count entries; see IP_VOLRC_Projector::SetColorTable.
    void SetColorTables(const unsigned int** colour, const unsigned long long** opacity, int count, bool reserved);
    // Copies the planes (physical mm, absolute; inside is where the equation is not positive). Null removes them.
    // Throws std::bad_alloc, with the planes as they were, when there is no memory for the copies.
    void SetClippingPlanes(IP_ClipManager* planes);

    void SetRenderMode(RenderMode mode);
    void SetVolrQuality(RenderQuality quality);
    void SetInteractiveQuality(IntercativeQuality level);  // other values than 0, 1 and 2 are ignored
    // `ratio`: time of the last interactive frame over the time allowed. Only in interactive mode.
    void AdjustRenderingTime(double ratio);

    // Draws a frame over what the buffer holds: width times height pixels 0xAARRGGBB, rows from the top. False, with
    // the buffer as it was, when nothing could be drawn, also for want of memory: the next frame asks for all of it
    // again, but for a projector that was refused, which is asked for by the next creating call. Lets
    // TCO_CANCEL_EXCEPTION through when the host cancels.
    bool Render(unsigned int* buffer, int width, int height);

    // Whether a point (physical mm, absolute) lies in front of what the last frame shows, or at most `tolerance` mm
    // behind it.
    bool IsVisible(IP_3Coord point, float tolerance);
    bool IsCacheValid();  // the last frame is good and nothing has changed since
    void BoxUpdated();    // the volume's slice pointers have changed in place
    // Unit vector away from the viewer, in physical space, of the last SetProjection. Untouched without a projector.
    void GetViewVector(double v[3]);
    void GetInformationString(char* text);  // 256 bytes are enough
    int LastRenderTime();                   // ray casting alone, ms
    int LastFinalQualityTime();             // whole frame, ms
    int LastInteractiveQualityTime();

    // A brick structure that the host may keep beside its volume and hand from facade to facade; null without a
    // projector or memory. It must outlive the facade that it was handed to last, unless that is given null, which
    // means a structure of its own.
    void AllocateEngineSpecificData(void*& data);
    void SetEngineSpecificData(void* data);
    static void DeallocateEngineSpecificData(void* data);

    // No state of error is kept: what Render returns tells.
    bool HasError() const { return false; }
    const char* DebugErrorMessage() const { return "Success\n"; }

private:
    IP_VOLRC_Projector* Projector() const;  // null before it is created
    IP_VOLRC_Projector* CreateProjector(int pager_flags);
    void PassRasterToPhysical();

    MEM_PagerInfo m_ProjectorBlock;
    double m_Projection[4][4];
    double m_2DTransform[4][4];
};
