// Parameters of one rendering request: what the host asks for, and the working state that projectors keep with it.
#pragma once

#include "host/images.h"
#include "host/memory_pager.h"
#include "host/multi_volume.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <cstdint>
#include <memory>
#include <vector>

class IP_MultiVolDataInc;
class IP_SliceChunk;
class IP_VolRClipManager;

// View-wide parameters of a shear-warp projection. Plain data: hosts and projectors read and write the fields directly.
//
// Copies are shallow: volumes are shared by reference count, but the slice chunks and the quota table are shared as
// bare pointers while each copy's destructor deletes them. So a copy may live beside its source only when one of the
// two has dropped its chunks first (m_SliceChunks.clear(), m_QuotaSlices = nullptr).
//
// One thread at a time: the one that drives the projection.
class IP_VOLR_EXPORT IP_VolRParams {
public:
    IP_VolRParams();
    IP_VolRParams(const IP_VolRParams& o);
    IP_VolRParams& operator=(const IP_VolRParams& o);
    virtual ~IP_VolRParams();

    // Slices that the pool of transposed-slice memory holds, over all chunks.
    unsigned int GetNumberSlicesInChunks() const;

    // Deletes the chunks whose blocks are too small for a slice of w x h voxels of `factor` bytes each, and returns the
    // number of slices in the chunks that stay.
    unsigned int RemoveSmallSlicesChunks(int w, int h, float factor);

    float m_ViewMatrix[4][4];                     // physical (about the volume's middle) to virtual space, mm
    IP_VolRClipManager* m_ClipManager = nullptr;  // clipping planes; not owned, may be null
    void* m_OutputImage = nullptr;                // m_Width x m_Height pixels without gaps, 16-bit for MIP; not owned
    int m_Width = 1;                              // of the output picture, pixels
    int m_Height = 1;
    std::shared_ptr<IP_MultiVolData> m_VolData;        // the source volumes
    std::shared_ptr<IP_MultiVolDataInc> m_AltVolData;  // prepared copies of the same volumes, same indices
    float m_Zoom = 1.0F;
    float m_PanX = 0.0F;  // fraction of the screen box's width
    float m_PanY = 0.0F;  // fraction of the screen box's height
    IP_Box m_ViewBox;     // the picture plane at zoom 1, set by IP_ShearWarpProjector::Reset
    IP_Box m_ScreenBox;   // the picture plane of the frame, set by IP_ShearWarpProjector::calc_screen_box
    IP_Box m_VolumeBox;   // bounding box of the volumes, set by Reset
    int m_ViewMode = 0;   // 2 fits the picture plane to the volume's cross-section instead of its diagonal
    std::vector<IP_SliceChunk*> m_SliceChunks;  // pool of transposed-slice memory, owned
    MEM_PagerInfo** m_QuotaSlices = nullptr;    // the pool's blocks in order, owned array of pointers into the chunks
    unsigned int m_QuotaCapacity = 0;           // entries of that array
};

// Parameters of a maximum-intensity projection.
class IP_VOLR_EXPORT IP_VolRParamsMIP : public IP_VolRParams {
public:
    static constexpr int kNumPictures = 8;

    IP_VolRParamsMIP() = default;
    IP_VolRParamsMIP(const IP_VolRParamsMIP&) = default;
    IP_VolRParamsMIP& operator=(const IP_VolRParamsMIP&) = default;
    ~IP_VolRParamsMIP() override;  // frees no picture: see IP_MIPProjector::FreePictures

    // Sheared pictures: entry 0 is the current box's own picture, entries 1 to 7 are as large and belong to this
    // object.
    MEM_PagerInfo m_Pictures[kNumPictures];
    int m_PicturesSize = 0;        // pixels for which entries 1 to 7 were last allocated
    int m_DepthCueing = 0;         // 1: voxels are weighted by their depth before the maximum is taken
    float m_DepthCueFloor = 1.0F;  // weight at the far end; at the near end it is 1023 / 1024
};

// Parameters of a volume rendering with opacity. All but m_UseDepthPicking is carried for the host and not read here.
class IP_VOLR_EXPORT IP_VolRParamsVolR : public IP_VolRParams {
public:
    IP_VolRParamsVolR() {}  // leaves m_HostBlock and m_HostReserved as they are
    IP_VolRParamsVolR(const IP_VolRParamsVolR&) = default;
    IP_VolRParamsVolR& operator=(const IP_VolRParamsVolR&) = default;
    ~IP_VolRParamsVolR() override;

    float m_HostFactor = 1.0F;
    int m_HostLevel = 5;
    int m_UseDepthPicking = 0;  // non-zero: picking may read the box's depth buffer
    int m_HostFlag = 0;
    std::uint64_t m_HostBlock[10];
    std::uint32_t m_HostWord = 0;
    std::uint32_t m_HostReserved;
    std::uint64_t m_HostValues[3] = {0, 0, 0};
};

// Six values that hosts exchange about a slice; only carried. A new record leaves them unset.
class IP_VOLR_EXPORT SliceInfo {
public:
    SliceInfo() {}
    SliceInfo(const SliceInfo&) = default;
    SliceInfo& operator=(const SliceInfo&) = default;
    virtual ~SliceInfo();

    std::int32_t m_Values[6];
};

// Three values that hosts exchange about the stretch of a picture; only carried. A new record leaves them unset.
class IP_VOLR_EXPORT StretchInfo {
public:
    StretchInfo() {}

    std::int32_t m_Values[3];
};
