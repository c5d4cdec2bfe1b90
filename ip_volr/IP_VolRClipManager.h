// Clipping planes of a shear-warp projection, with a counter that tells when they changed.
#pragma once

#include "host/clipping.h"
#include "ip_volr/IP_VOLR_Export.h"

class IP_VolData;

// A clip manager whose counter changes with its planes, so that projectors know when per-line bounds are out of date.
//
// Everything done through this class raises the counter: creating a plane, freeing planes, setting an equation or the
// activity by id. A host that edits a plane through its pointer (IP_ClippingPlane::SetPlaneEq, SetActive, Transform)
// calls PlanesChanged() afterwards; without it the next frame may still show the old planes. Counters are unique in the
// process: two managers have the same one only when one is an unchanged copy of the other, so a host may exchange
// managers between frames.
//
// One thread at a time: the one that drives the projection.
class IP_VOLR_EXPORT IP_VolRClipManager : public IP_ClipManager {
public:
    IP_VolRClipManager();
    IP_VolRClipManager(const IP_VolRClipManager& o) = default;
    IP_VolRClipManager& operator=(const IP_VolRClipManager& o) = default;
    ~IP_VolRClipManager() override;

    IP_ClippingPlane* NewClipPlane(int id) override;
    void FreeAllClipPlane(int type) override;

    // Creates the plane when there is none with the id. a x + b y + c z + d in mm; inside is where it is not positive.
    void SetClipPlane(int id, const float eq[4]);
    void SetClipPlaneActive(int id, bool active);  // an id without plane is ignored
    void PlanesChanged();                          // signals edits made through a plane's pointer

    int GetChangeCounter() const { return m_ChangeCounter; }  // positive

    // Computes the bounds of the prepared volume's lines (32 bits) and of the source's lines at full size (16 bits), XY
    // and YX, for the active planes, and hands them to the prepared volume (an IP_VolDataProj; see there for the
    // layout). False, with nothing changed, when a volume is missing or the second one is not prepared data.
    // Cancellation leaves as TCO_CANCEL_EXCEPTION, and want of memory as std::bad_alloc, with the bounds as they were.
    bool GetClippingBounds(IP_VolData* source, IP_VolData* prepared);

private:
    int m_ChangeCounter;
};
