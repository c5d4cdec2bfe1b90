// Prepared data for picking on volume renderings of a growing set of volumes.
#pragma once

#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_VolDataVolR.h"

class IP_MultiVolRTisIndInc;

// One prepared IP_VolDataVolR, of the source's biggest volume. Ownership and threads: see IP_MultiVolDataInc.
class IP_VOLR_EXPORT IP_MultiVolDataIncVolR : public IP_MultiVolDataInc {
public:
    IP_MultiVolDataIncVolR() = default;
    IP_MultiVolDataIncVolR(const IP_MultiVolDataIncVolR& o) = default;
    IP_MultiVolDataIncVolR& operator=(const IP_MultiVolDataIncVolR& o) = default;
    ~IP_MultiVolDataIncVolR() override = default;

    // Brings the prepared volume, volume 0, in line with the source's biggest volume. Nothing but pointers changes when
    // compareNSlices finds the same slices: tables and tissues are then changed with CopyFastFromSlow and
    // CopyWithTissue. colours: see IP_VolDataVolR; tissue index: its volume 0 is used, null for no tissues; factor,
    // counters, render quality: see IP_VolDataProj. With lean the slices get no memory. With render quality 0 the
    // volume gets its two views. A source without volumes leaves the object empty. False when the volume could not be
    // prepared, or there was no memory: the object is then empty, and so does cancellation leave it.
    bool Rebuild(IP_MultiVolData* source, const unsigned int** colours, IP_MultiVolRTisIndInc* tissue_index, int factor,
                 int pd_counter, int tissue_counter, int render_quality, bool lean);

    // Refill the prepared volume after a change of tables or tissues; see IP_VolDataVolR. False without a prepared
    // volume, source or tables.
    bool CopyFastFromSlow(IP_MultiVolData* source, const unsigned int** colours, IP_MultiVolRTisIndInc* tissue_index,
                          bool transposed, int pd_counter, int tissue_counter);
    bool CopyWithTissue(IP_MultiVolData* source, const unsigned int** colours, IP_MultiVolRTisIndInc* tissue_index,
                        bool transposed, int pd_counter, int tissue_counter, bool run);

    // Tissues and tables of slow (lean) data; the index is not owned, null for no tissues. Throws std::bad_alloc with
    // nothing changed.
    void SetSlowMultiTisInd(IP_MultiVolRTisIndInc* tissue_index, const unsigned int** colours);

    // Drops clipping bounds, so that the next frame works them out anew.
    void ResetCManager();

private:
    // How the volume is prepared; see Rebuild.
    struct Preparation {
        const unsigned int** colours;
        IP_VolData* tissues;
        int factor;
        int pd_counter;
        int tissue_counter;
        int render_quality;
        bool lean;
    };
    bool prepare_volume(const IP_VolData& source, const Preparation& p);
    IP_VolDataVolR* prepared_volr() const { return dynamic_cast<IP_VolDataVolR*>(GetVolData(0)); }
};
