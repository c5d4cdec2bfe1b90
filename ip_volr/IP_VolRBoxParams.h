// Parameters of one box, that is, of one volume (or of the part of it drawn from one prepared copy) in a request.
#pragma once

#include "host/geometry.h"
#include "host/memory_pager.h"
#include "ip_volr/IP_VOLR_Export.h"

// What a projection leaves about its sheared picture. Plain data; one thread at a time.
class IP_VOLR_EXPORT IP_VolRBoxParams {
public:
    IP_VolRBoxParams() {}  // leaves the picture's size and origin and m_PhysToVirtual unset
    IP_VolRBoxParams(const IP_VolRBoxParams&) = default;
    IP_VolRBoxParams& operator=(const IP_VolRBoxParams&) = default;
    virtual ~IP_VolRBoxParams();

    int m_PictureCapacity = 0;  // pixels for which the picture was allocated
    int m_PictureWidth;         // pixels
    int m_PictureHeight;
    // Where the centre of the first slice's first voxel lies in the picture, in pixels; integers are at the corners of
    // pixels.
    float m_OriginX;
    float m_OriginY;
    int m_ClipStamp = -1;  // the clip manager's change counter at the last bounds; -1 forces the first computation
    float m_PhysToVirtual[4][4];  // physical mm to virtual mm
    IP_Box m_Box;                 // lattice of the projected slices: x and y in the picture, z through the slices
};

// The box of a maximum-intensity projection.
class IP_VOLR_EXPORT IP_VolRBoxParamsMIP : public IP_VolRBoxParams {
public:
    IP_VolRBoxParamsMIP() = default;
    IP_VolRBoxParamsMIP(const IP_VolRBoxParamsMIP&) = default;
    IP_VolRBoxParamsMIP& operator=(const IP_VolRBoxParamsMIP&) = default;
    ~IP_VolRBoxParamsMIP() override;  // frees no picture: see IP_MIPProjector::FreePictures

    MEM_PagerInfo m_Picture;  // sheared picture, m_PictureWidth x m_PictureHeight signed 16-bit pixels without gaps
    int m_MaxIntoOutput = 0;  // non-zero: the warp combines with the output by maximum; zero: it overwrites
    int m_IsSigned = 0;       // of the volume's first slice
    int m_BitsStored = 0;
};

// The box of a volume rendering. It frees the lighting points that are in it when it dies, except those that it has
// from another box by copying or assignment: these stay with that box, which must live as long.
class IP_VOLR_EXPORT IP_VolRBoxParamsVolR : public IP_VolRBoxParams {
public:
    IP_VolRBoxParamsVolR() {}                             // leaves the two matrices unset
    IP_VolRBoxParamsVolR(const IP_VolRBoxParamsVolR& o);  // shares the two arrays
    // Drops the target's two arrays and its lighting points, and copies neither arrays nor matrices.
    IP_VolRBoxParamsVolR& operator=(IP_VolRBoxParamsVolR& o);
    ~IP_VolRBoxParamsVolR() override;  // leaves the two arrays to whoever allocated them

    // Allocates n lighting points of 16 bytes from the memory pager, unmapped; an earlier array is freed first. A
    // refusal leaves the handle without a block.
    void Allocate_LightingPoint3DArr(int n);
    void Destroy_LightingPoint3DArr();  // frees and logs; without points it does nothing

    unsigned char* m_HostArrayA = nullptr;  // from array-new
    unsigned char* m_HostArrayB = nullptr;
    int m_HostCountA = 0;
    int m_HostCountB = 0;
    MEM_PagerInfo m_HostBuffer;
    MEM_PagerInfo m_DepthBuffer;       // for picking
    MEM_PagerInfo lightingPoint3DArr;  // 16 bytes a point
    float m_ScreenToPhysical[4][4];
    float m_HostMatrix[4][4];
    bool m_DepthBufferValid = false;

private:
    bool free_lighting_points();

    bool m_SharesLightingPoints = false;  // another box frees them
};
