#include "ip_volr/IP_MultiVolRTisIndInc.h"

#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolRTissueList.h"
#include "ip_volr/IP_VolTisInd.h"

namespace {

constexpr char kSource[] = "ip_volr/IP_MultiVolRTisIndInc";
constexpr char kRebuild[] = "IP_MultiVolRTisIndInc::Rebuild";

// How many volumes the first tissue has.
int num_tissue_volumes(const IP_VolRTissueList& tissues) {
    if (const IP_MultiRealListVol* lists = tissues.GetTissue(0)) {
        return lists->GetNRealListVol();
    }
    const IP_MultiRealBitVol* bits = tissues.GetRbvList(0);
    return bits == nullptr ? 0 : bits->GetNRealBitVol();
}

}  // namespace

bool IP_MultiVolRTisIndInc::Rebuild(IP_MultiVolData* source, int pd_counter, int tissue_counter, int render_quality,
                                    bool new_tissue, IP_VolRTissueList& tissues) {
    m_CurrentDir = false;
    remove_slices();
    int index = -1;
    const IP_VolData* biggest = source == nullptr ? nullptr : source->GetBiggestVolData(index);
    if (biggest == nullptr) {
        Reset();
        return true;
    }

    const unsigned volume_index = num_tissue_volumes(tissues) == 1 ? 0U : static_cast<unsigned>(index);
    const bool done = ip_volr::succeeds_with_memory(kSource, kRebuild, [&] {
        const auto data = std::make_shared<IP_VolTisInd>();
        if (!data->Create(*biggest, hash_map(), false, pd_counter, tissue_counter, render_quality, new_tissue, tissues,
                          volume_index)) {
            return false;
        }
        AddChunks(data->GetChunks());
        data->ClearChunks();
        AddVolData(data);
        return true;
    });
    if (!done) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kRebuild, "Failed in IP_VolTisInd creation\n");
        return false;
    }
    Reset();
    return true;
}
