// Tissue index volume of a growing set of volumes.
#pragma once

#include "ip_volr/IP_MultiVolDataInc.h"

class IP_VolRTissueList;

// One IP_VolTisInd, of the source's biggest volume. Ownership and threads: see IP_MultiVolDataInc.
class IP_VOLR_EXPORT IP_MultiVolRTisIndInc : public IP_MultiVolDataInc {
public:
    IP_MultiVolRTisIndInc() = default;
    IP_MultiVolRTisIndInc(const IP_MultiVolRTisIndInc& o) = default;
    IP_MultiVolRTisIndInc& operator=(const IP_MultiVolRTisIndInc& o) = default;
    ~IP_MultiVolRTisIndInc() override = default;

    // Always writes anew the index volume (IP_VolTisInd) of the source's biggest volume, which becomes volume 0; blocks
    // of slices that were there before serve again. The tissues' volume of the same index belongs to it, or the only
    // one when the first tissue has just one. A source without volumes leaves the object empty. False when memory or a
    // mapping is refused, and empty then; so does cancellation leave it.
    bool Rebuild(IP_MultiVolData* source, int pd_counter, int tissue_counter, int render_quality, bool new_tissue,
                 IP_VolRTissueList& tissues);
};
