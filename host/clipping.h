// Clipping planes and their manager.
#pragma once

#include "host/geometry.h"
#include "host/host_export.h"

#include <memory>
#include <vector>

// Kinds of planes a manager can hold.
enum ClipTypeEn { CLIP_REFERENCE = 0, CLIP_USER = 1, CLIP_ALL = 2 };

// A plane a x + b y + c z + d in physical mm. Inside is where the value is not positive.
class IP_HOST_API IP_ClippingPlane {
public:
    IP_ClippingPlane() = default;

    // a, b, c and d; the four zeros of a new plane leave everything inside.
    void GetPlaneEq(float eq[4]) const;
    void GetPlaneEq(double eq[4]) const;
    void SetPlaneEq(const float* eq);

    // Moves the plane with the points: a point on it, mapped by m, lies on the moved plane.
    void Transform(const float m[4][4]);

    int GetID() const { return m_ID; }
    void SetID(int id) { m_ID = id; }
    bool IsActive() const { return m_Active; }
    void SetActive(bool active) { m_Active = active; }
    bool IsReference() const { return m_Reference; }
    void SetReference(bool reference) { m_Reference = reference; }

private:
    double m_Eq[4] = {0.0, 0.0, 0.0, 0.0};
    int m_ID = -1;
    bool m_Active = true;
    bool m_Reference = false;
};

// Owns planes by integer id, in order of creation.
class IP_HOST_API IP_ClipManager {
public:
    IP_ClipManager() = default;
    IP_ClipManager(const IP_ClipManager& o);
    IP_ClipManager& operator=(const IP_ClipManager& o);
    virtual ~IP_ClipManager() = default;

    virtual IP_ClippingPlane* NewClipPlane(int id);  // the existing plane when the id is taken
    IP_ClippingPlane* GetClipPlane(int id);          // null when there is none
    virtual void FreeAllClipPlane(int type);         // of the enumeration ClipTypeEn

    int GetNPlanes() const { return static_cast<int>(m_Planes.size()); }
    int GetNReferencePlanes() const;
    int ActiveClippingPlanes() const;  // number of active planes that are not reference planes

    void ResetIterator() { m_Next = 0; }
    IP_ClippingPlane* GetNextPlane();  // null at the end

private:
    std::vector<std::unique_ptr<IP_ClippingPlane>> m_Planes;
    std::size_t m_Next = 0;
};

// Narrows the inclusive bounds [first, last] of a line of voxels to the inside of a plane, where the plane's value at
// voxel i is value0 + i * step. Bounds that leave nothing have first > last. Never widens.
IP_HOST_API void IP_update_clip_bounds(double value0, double step, int& first, int& last);
