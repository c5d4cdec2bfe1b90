#include "ip_volr/IP_MultiVolDataIncVolR.h"

#include "ip_volr/IP_MultiVolRTisIndInc.h"
#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_VOLR_Trace.h"

namespace {

constexpr char kSource[] = "ip_volr/IP_MultiVolDataIncVolR";
constexpr char kRebuild[] = "IP_MultiVolDataIncVolR::Rebuild";

IP_VolData* index_volume(const IP_MultiVolRTisIndInc* tissue_index) {
    return tissue_index == nullptr ? nullptr : tissue_index->GetVolData(0);
}

IP_VolData* biggest(IP_MultiVolData* source, int& index) {
    return source == nullptr ? nullptr : source->GetBiggestVolData(index);
}

}  // namespace

bool IP_MultiVolDataIncVolR::Rebuild(IP_MultiVolData* source, const unsigned int** colours,
                                     IP_MultiVolRTisIndInc* tissue_index, int factor, int pd_counter,
                                     int tissue_counter, int render_quality, bool lean) {
    if (source != nullptr && compareNSlices(source)) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kRebuild,
                      "number of slices was not changed, no rebuild action\n");
        reset_pointers2origData(source);
        return true;
    }
    const IP_VolDataProj* const first = prepared(0);
    m_CurrentDir = first != nullptr && first->GetCurrentDir();
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kRebuild, "remove_slices\n");
    remove_slices();
    int input_index = -1;
    const IP_VolData* const volume = biggest(source, input_index);
    if (volume == nullptr) {
        Reset();
        return true;
    }

    if (lean) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kRebuild, "LeanCreate input_index = %d, output_index = %d\n",
                      input_index, 0);
    } else {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kRebuild, "Create input_index = %d, output_index = %d\n",
                      input_index, 0);
    }
    const Preparation preparation{
        colours, index_volume(tissue_index), factor, pd_counter, tissue_counter, render_quality, lean};
    const bool done =
        ip_volr::succeeds_with_memory(kSource, kRebuild, [&] { return prepare_volume(*volume, preparation); });
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kRebuild, "retValue = %d\n", done ? 1 : 0);
    if (!done) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kRebuild, "Failed in IP_VolRData creation\n");
        remove_slices();
    }
    Reset();
    return done;
}

bool IP_MultiVolDataIncVolR::prepare_volume(const IP_VolData& source, const Preparation& p) {
    // The chunks outlive the preparation however it ends: a cancelled one is continued by the next.
    const auto data = std::make_shared<IP_VolDataVolR>();
    const auto take_over_chunks = [&] {
        AddChunks(data->GetChunks());
        data->ClearChunks();
    };
    const auto create = p.lean ? &IP_VolDataVolR::LeanCreate : &IP_VolDataVolR::Create;
    bool done = false;
    try {
        done = (data.get()->*create)(source, hash_map(), p.colours, p.tissues, p.factor, m_CurrentDir, p.pd_counter,
                                     p.tissue_counter, p.render_quality);
    } catch (...) {
        take_over_chunks();
        throw;
    }
    take_over_chunks();
    if (!done) {
        return false;
    }

    AddVolData(data);
    if (p.render_quality == 0) {
        SetNTransVolRData(new IP_VolDataVolR(*data, false), 0);
        SetTransVolRData(new IP_VolDataVolR(*data, true), 0);
    }
    return true;
}

bool IP_MultiVolDataIncVolR::CopyFastFromSlow(IP_MultiVolData* source, const unsigned int** colours,
                                              IP_MultiVolRTisIndInc* tissue_index, bool transposed, int pd_counter,
                                              int tissue_counter) {
    int index = -1;
    IP_VolDataVolR* const data = prepared_volr();
    return data != nullptr && data->CopyFastFromSlow(biggest(source, index), colours, index_volume(tissue_index),
                                                     transposed, pd_counter, tissue_counter);
}

bool IP_MultiVolDataIncVolR::CopyWithTissue(IP_MultiVolData* source, const unsigned int** colours,
                                            IP_MultiVolRTisIndInc* tissue_index, bool transposed, int pd_counter,
                                            int tissue_counter, bool run) {
    int index = -1;
    IP_VolDataVolR* const data = prepared_volr();
    return data != nullptr && data->CopyWithTissue(biggest(source, index), colours, index_volume(tissue_index),
                                                   transposed, pd_counter, tissue_counter, run);
}

void IP_MultiVolDataIncVolR::SetSlowMultiTisInd(IP_MultiVolRTisIndInc* tissue_index, const unsigned int** colours) {
    if (IP_VolDataVolR* const data = prepared_volr()) {
        data->SetSlowTissues(index_volume(tissue_index), colours);
    }
}

void IP_MultiVolDataIncVolR::ResetCManager() {
    for (IP_VolDataProj* const data : {prepared(0), GetNTransVolRData(0), GetTransVolRData(0)}) {
        if (data != nullptr) {
            data->DisconnectBounds();
        }
    }
}
