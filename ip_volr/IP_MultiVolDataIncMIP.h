// Prepared MIP data of a growing set of volumes.
#pragma once

#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_VolDataMIP.h"

// One prepared IP_VolDataMIP for each volume of the source. Ownership and threads: see IP_MultiVolDataInc.
class IP_VOLR_EXPORT IP_MultiVolDataIncMIP : public IP_MultiVolDataInc {
public:
    IP_MultiVolDataIncMIP() = default;
    IP_MultiVolDataIncMIP(const IP_MultiVolDataIncMIP& o) = default;
    IP_MultiVolDataIncMIP& operator=(const IP_MultiVolDataIncMIP& o) = default;
    ~IP_MultiVolDataIncMIP() override = default;

    // Brings the prepared volumes in line with the source. Nothing but pointers changes when compareNSlices finds the
    // same slices: counters do not count then, masks are switched with CopyFastFromSlow and CopyWithTissue. Otherwise
    // every volume is prepared anew, which copies only slices that the hash map does not hold in the current version.
    //
    // tissues: one mask per volume or null; factor, counters, render quality, minimum value: see IP_VolDataMIP. With
    // lean the slices get no memory. With render quality 0 each volume gets its two views. False when a volume could
    // not be prepared, or there was no memory: the object is then empty, and the next rebuild starts with what was
    // done. Cancellation leaves it so too.
    bool Rebuild(IP_MultiVolData* source, IP_MultiRealListVol* tissues, bool new_tissue, int factor, int pd_counter,
                 int tissue_counter, int render_quality, bool lean, int minimum_value);

    // Refill every volume with its mask of the list; see IP_VolDataMIP. False as soon as one volume fails or has no
    // mask, or when source or list are null.
    bool CopyFastFromSlow(IP_MultiVolData* source, IP_MultiRealListVol* tissues, bool transposed, int pd_counter,
                          int tissue_counter, int minimum_value);
    bool CopyWithTissue(IP_MultiVolData* source, IP_MultiRealListVol* tissues, bool transposed, int pd_counter,
                        int tissue_counter, int minimum_value, bool run);

    // Hands the masks of slow (full-size) data on to the volumes that are prepared now, without filling anything; a
    // rebuild brings its own. Not owned, null for none.
    void SetSlowTissueList(IP_MultiRealListVol* tissues);

private:
    // How a volume is prepared; see Rebuild.
    struct Preparation {
        const IP_ListVol* tissue;
        bool new_tissue;
        int factor;
        int pd_counter;
        int tissue_counter;
        int render_quality;
        bool lean;
        int minimum_value;
    };
    bool prepare_volumes(IP_MultiVolData* source, IP_MultiRealListVol* tissues, Preparation p);
    bool add_prepared_volume(const IP_VolData& source, int i, const Preparation& p,
                             IP_VolDataProj::WorkerChunks worker_chunks);
    IP_VolDataMIP* prepared_mip(int i) const { return dynamic_cast<IP_VolDataMIP*>(GetVolData(i)); }
};
