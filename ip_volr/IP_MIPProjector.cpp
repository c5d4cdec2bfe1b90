// The frame of a maximum-intensity projection: choice of the path, pictures, and the warp onto the output.
#include "ip_volr/IP_MIPProjector.h"

#include "host/matrix_math.h"
#include "host/zoom.h"
#include "ip_volr/IP_MIPProjectorFrame.h"
#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolDataProj.h"
#include "ip_volr/IP_VolRClipManager.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <new>

namespace {

constexpr const char* kSource = "ip_volr/IP_MIPProjector";
constexpr float kTranspMarginDegrees = 23.0F;
constexpr int kBackgroundBelowThreshold = 10;
constexpr int kLeastPicturePixels = 1048576;
constexpr float kPictureHeadroom = 1.1F;
constexpr unsigned kPictureAlignment = 64;
constexpr int kLowestShort = -32768;

bool has_memory(const IP_Slice* slice) {
    return slice != nullptr && slice->GetData() != nullptr && slice->GetData()->GetMemInfoPtr() != nullptr;
}

void leave_without_picture(IP_VolRBoxParamsMIP& box) {
    box.m_Box = IP_Box(0, 0, 0);
    box.m_PictureWidth = 0;
    box.m_PictureHeight = 0;
}

bool has_picture(const IP_VolRBoxParamsMIP& box) {
    int dims[3];
    box.m_Box.GetDims(dims);
    return dims[0] > 0 && dims[1] > 0 && dims[2] > 0;
}

void free_block(MEM_PagerInfo& info) {
    MEM_MemPager::GetHandleForMP()->Free(info);
}

// Allocates an unmapped block; false leaves the handle without one.
bool allocate_block(unsigned bytes, MEM_PagerInfo& info) {
    MEM_MemPager::GetHandleForMP()->Allocate(bytes, &info, 0);
    if (info.Block() == -1) {
        return false;
    }
    info.Unmap();
    return true;
}

unsigned picture_bytes(int pixels) {
    const unsigned capacity =
        pixels < kLeastPicturePixels
            ? static_cast<unsigned>(kLeastPicturePixels)
            : static_cast<unsigned>(static_cast<double>(pixels) * static_cast<double>(kPictureHeadroom));
    return capacity * 2 + kPictureAlignment;
}

}  // namespace

short* ip_volr::picture_pixels(MEM_PagerInfo& mapped) {
    // Blocks start at even addresses, so the boundary never lies before the block.
    const auto address = reinterpret_cast<std::uintptr_t>(mapped.Ptr());
    return reinterpret_cast<short*>((address + kPictureAlignment - 2) & ~std::uintptr_t{kPictureAlignment - 1});
}

IP_MIPProjector::IP_MIPProjector() : IP_ShearWarpProjector(kTranspMarginDegrees) {}

IP_MIPProjector::IP_MIPProjector(const IP_MIPProjector& o)
    : IP_ShearWarpProjector(o),
      TCO_CompoundRunnable<IP_MIPProjector>(),
      m_Threshold(o.m_Threshold),
      m_Background(o.m_Background),
      m_DepthCue(o.m_DepthCue),
      m_DepthCueFloor(o.m_DepthCueFloor),
      m_IsComplete(o.m_IsComplete) {}

IP_MIPProjector& IP_MIPProjector::operator=(const IP_MIPProjector& o) {
    if (this != &o) {
        IP_ShearWarpProjector::operator=(o);
        m_Threshold = o.m_Threshold;
        m_Background = o.m_Background;
        m_DepthCue = o.m_DepthCue;
        m_DepthCueFloor = o.m_DepthCueFloor;
        m_IsComplete = o.m_IsComplete;
    }
    return *this;
}

IP_MIPProjector::~IP_MIPProjector() = default;

void IP_MIPProjector::Project(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b, int linear, int k,
                              int threshold) {
    // Take the settings of the frame.
    m_Threshold = threshold;
    const bool has_room_below = threshold >= kLowestShort + kBackgroundBelowThreshold;
    m_Background = has_room_below ? static_cast<unsigned short>(threshold - kBackgroundBelowThreshold) : 32768;
    m_IsComplete = true;
    if (p == nullptr || a == nullptr) {
        return;
    }
    m_DepthCue = p->m_DepthCueing;
    m_DepthCueFloor = p->m_DepthCueFloor;

    IP_VolData* const volume = p->m_VolData != nullptr ? p->m_VolData->GetVolData(k) : nullptr;
    if (volume == nullptr) {
        return;
    }
    int dims[3];
    volume->GetBox()->GetDims(dims);
    for (int i = 0; i < dims[2]; i++) {
        m_DepthCue = has_memory(volume->GetSlice(i)) ? m_DepthCue : 0;
    }
    const IP_Slice* const first_slice = volume->GetSlice(0);
    for (IP_VolRBoxParamsMIP* box : {a, b}) {
        if (box != nullptr) {
            leave_without_picture(*box);
            box->m_IsSigned = first_slice != nullptr && first_slice->GetAttributes().is_signed ? 1 : 0;
            box->m_BitsStored = first_slice != nullptr ? first_slice->GetAttributes().bits_stored : 0;
        }
    }

    // Draw. Cancellation, and memory that is refused, end the frame here, with what was composited.
    m_Params = p;
    m_Volume = k;
    m_FirstWithData = 0;
    prepare2project(p, a, b, k, linear);
    try {
        m_Frame = std::make_unique<ip_volr::MipFrame>();
        m_Frame->kernels = &ip_volr::kernels::mip_kernels();
        update_clip_bounds(p, a, b, k, linear != 0);
        if (linear != 0) {
            LinProjectBox(p, a, k);
        } else {
            ProjectBoxes(p, a, b, k);
        }
    } catch (const TCO_CANCEL_EXCEPTION&) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_MIPProjector::Project", "Project: Cancelled\n");
        m_IsComplete = false;
    } catch (const std::bad_alloc&) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, "IP_MIPProjector::Project", "Out of memory\n");
        m_IsComplete = false;
    }
    m_Frame.reset();
    m_Params = nullptr;
}

void IP_MIPProjector::update_clip_bounds(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b, int k,
                                         bool linear) {
    IP_VolRClipManager* const clip = p->m_ClipManager;
    m_ActiveClipPlanes = clip != nullptr ? clip->ActiveClippingPlanes() : 0;
    if (clip == nullptr) {
        return;
    }
    IP_VolData* const prepared = p->m_AltVolData != nullptr ? p->m_AltVolData->GetVolData(k) : nullptr;
    const auto* const data = dynamic_cast<IP_VolDataProj*>(prepared);

    // A volume that was prepared anew has lost its bounds.
    const int counter = clip->GetChangeCounter();
    const bool is_lost = data != nullptr && m_ActiveClipPlanes != 0 &&
                         (linear ? data->GetXYCBoundsLin() == nullptr : data->GetXYCBounds() == nullptr);
    if (a->m_ClipStamp != counter || is_lost) {
        clip->GetClippingBounds(p->m_VolData->GetVolData(k), prepared);
    }
    a->m_ClipStamp = counter;
    if (b != nullptr) {
        b->m_ClipStamp = counter;
    }
}

void IP_MIPProjector::TransposeSharedSlice(IP_VolDataProj* src, IP_VolDataProj* dst, int i, int j, int k) {
    int dims[3];
    src->GetBox()->GetDims(dims);
    const int n = dims[2];
    if (i >= 0 && i < n) {
        dst->SetSlice(src->GetSlice(i), i);
    }
    if (j >= 0 && j < n && src->Transpose2WorkSlice(j, k)) {
        dst->SetSlice(src->GetSlice(n + k), j);
    }
}

bool IP_MIPProjector::tpict_alloc(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, int pixels) {
    void* const pager = MEM_MemPager::GetHandleForMP();
    const unsigned bytes = picture_bytes(pixels);
    if (box->m_PictureCapacity < pixels) {
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_MIPProjector::tpict_alloc", "tpict_alloc delete %p\n", pager);
        free_block(box->m_Picture);
        box->m_PictureCapacity = allocate_block(bytes, box->m_Picture) ? pixels : 0;
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_MIPProjector::tpict_alloc", "tpict_alloc new %p\n", pager);
    }
    if (p->m_PicturesSize < pixels) {
        bool all = true;
        for (int i = 1; i < IP_VolRParamsMIP::kNumPictures; i++) {
            free_block(p->m_Pictures[i]);
            all = allocate_block(bytes, p->m_Pictures[i]) && all;
        }
        // Nothing is drawn into these: without them the frame goes on, and the next one asks again.
        p->m_PicturesSize = all ? pixels : 0;
    }
    p->m_Pictures[0] = box->m_Picture;
    return box->m_PictureCapacity >= pixels;
}

void IP_MIPProjector::FreePictures(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* a, IP_VolRBoxParamsMIP* b) {
    for (IP_VolRBoxParamsMIP* box : {a, b}) {
        if (box != nullptr) {
            free_block(box->m_Picture);
            box->m_PictureCapacity = 0;
            leave_without_picture(*box);
        }
    }
    if (p != nullptr) {
        p->m_Pictures[0] = MEM_PagerInfo();
        for (int i = 1; i < IP_VolRParamsMIP::kNumPictures; i++) {
            free_block(p->m_Pictures[i]);
        }
        p->m_PicturesSize = 0;
    }
}

void IP_MIPProjector::Shear(IP_VolRParamsMIP* p, IP_VolRBoxParamsMIP* box, int threshold) {
    if (p == nullptr || box == nullptr || p->m_OutputImage == nullptr || p->m_Width <= 0 || p->m_Height <= 0) {
        return;
    }

    // Signed data of b bits holds nothing below -2^(b - 1), unsigned data nothing below 0.
    const IP_VolData* const volume = p->m_VolData != nullptr ? p->m_VolData->GetVolData(0) : nullptr;
    const IP_Slice* const first_slice = volume != nullptr ? volume->GetSlice(0) : nullptr;
    int lowest = 0;
    if (first_slice != nullptr && first_slice->GetAttributes().is_signed) {
        const int bits = std::clamp(first_slice->GetAttributes().bits_stored, 1, 32);
        lowest = static_cast<int>(~0U << (bits - 1));
    }
    const int floor = std::max(threshold, lowest);

    auto* const output = static_cast<short*>(p->m_OutputImage);
    const bool overwrite = box->m_MaxIntoOutput == 0;
    if (p->m_VolData != nullptr && has_picture(*box)) {
        float m[4][4];
        PhysicalToVirtual(p->m_VolData->GetBoundingBox(), p->m_ViewMatrix, m);
        const ip_volr::MappedBlock picture(box->m_Picture);
        if (picture.is_mapped()) {
            shear(ip_volr::picture_pixels(box->m_Picture), output, box->m_PictureWidth, box->m_PictureHeight,
                  &box->m_Box, &p->m_ScreenBox, m, box->m_OriginX, box->m_OriginY, overwrite ? 1 : 0, floor);
            return;
        }
        m_IsComplete = false;
    }
    if (overwrite) {
        const std::size_t pixels = static_cast<std::size_t>(p->m_Width) * static_cast<std::size_t>(p->m_Height);
        std::fill_n(output, pixels, static_cast<short>(std::clamp(floor, kLowestShort, 32767)));
    }
}

// The box's mapped picture, for the slices of the working box.
void IP_MIPProjector::clear_picture(IP_VolRBoxParamsMIP& box, const IP_Box& working_box) {
    ip_volr::MipFrame& f = *m_Frame;
    f.pixels = ip_volr::picture_pixels(box.m_Picture);
    f.kernels->fill(f.pixels, static_cast<std::size_t>(f.width) * static_cast<std::size_t>(f.height),
                    static_cast<std::int16_t>(m_Background));
    box.m_Box = working_box;
    box.m_PictureWidth = f.width;
    box.m_PictureHeight = f.height;
}

void IP_MIPProjector::shear(short* picture, short* output, int w, int h, IP_Box* box, IP_Box* screen, float m[][4],
                            float ox, float oy, int overwrite, int threshold) {
    // From voxels of the first slice to output pixels.
    float to_physical[4][4];
    box->GetIndexToPhysicalTrans(to_physical);
    float to_screen[4][4];
    screen->GetPhysicalToIndexTrans(to_screen);
    float x[4][4];
    IP_Mmul(to_physical, m, x);
    IP_Mmul(x, to_screen, x);

    // Keep the part inside the plane.
    x[0][2] = x[1][2] = x[2][0] = x[2][1] = x[3][2] = 0.0F;
    x[2][2] = 1.0F;

    // Back to voxels, then to picture pixels, counted from their corners like the origin and the source of the zoom.
    float warp[4][4];
    const bool is_regular = IP_Minv(x, warp);
    IP_Mtranslate(warp, ox, oy, 0.0F);
    bool is_usable = is_regular;
    for (int row : {0, 1, 3}) {
        is_usable = is_usable && std::isfinite(warp[row][0]) && std::isfinite(warp[row][1]);
    }

    // A slice seen edge on covers no pixel: an empty picture leaves the floor.
    const IP_Box picture_box(is_usable ? w : 0, is_usable ? h : 0, 1);
    if (overwrite != 0) {
        LinShearZoomShortOver(warp, &picture_box, screen, picture, output, threshold, nullptr, nullptr);
    } else if (is_usable) {
        LinShearZoomShortMax(warp, &picture_box, screen, picture, output, threshold);
    }
}
