#include "ip_volr/IP_MultiVolDataIncMIP.h"

#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <algorithm>
#include <utility>
#include <vector>

namespace {

constexpr char kSource[] = "ip_volr/IP_MultiVolDataIncMIP";
constexpr char kRebuild[] = "IP_MultiVolDataIncMIP::Rebuild";

IP_RealListVol* list_volume(const IP_MultiRealListVol* tissues, int i) {
    return tissues == nullptr ? nullptr : tissues->GetRealListVol(i);
}

}  // namespace

bool IP_MultiVolDataIncMIP::Rebuild(IP_MultiVolData* source, IP_MultiRealListVol* tissues, bool new_tissue, int factor,
                                    int pd_counter, int tissue_counter, int render_quality, bool lean,
                                    int minimum_value) {
    if (source != nullptr && compareNSlices(source)) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kRebuild,
                      "number of slices was not changed, no rebuild action\n");
        reset_pointers2origData(source);
        return true;
    }

    const IP_VolDataProj* first = prepared(0);
    m_CurrentDir = first != nullptr && first->GetCurrentDir();
    const Preparation preparation{nullptr,        new_tissue,     factor, pd_counter,
                                  tissue_counter, render_quality, lean,   minimum_value};
    bool done = false;
    try {
        done = ip_volr::succeeds_with_memory(kSource, kRebuild,
                                             [&] { return prepare_volumes(source, tissues, preparation); });
    } catch (...) {
        // Cancelled: what was copied stays in the chunks, so that the next rebuild goes on from there.
        remove_slices();
        throw;
    }
    if (!done) {
        // Half a set must not be projected, nor pass for the source at the next rebuild.
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kRebuild, "Failed in IP_VolRData creation\n");
        remove_slices();
    }
    Reset();
    return done;
}

bool IP_MultiVolDataIncMIP::prepare_volumes(IP_MultiVolData* source, IP_MultiRealListVol* tissues, Preparation p) {
    const int num_volumes = source == nullptr ? 0 : source->GetNVolData();

    // Drop the prepared volumes; their blocks and records stay to be found again, and the workers' blocks of those that
    // nobody else holds go to their successors.
    std::vector<IP_VolDataProj::WorkerChunks> worker_chunks(static_cast<std::size_t>(num_volumes));
    for (int i = 0; i < std::min(num_volumes, GetNVolData()); i++) {
        if (prepared(i) != nullptr && GetSharedVolData(i).use_count() == 2) {
            worker_chunks[static_cast<std::size_t>(i)] = prepared(i)->ReleaseWorkerChunks();
        }
    }
    remove_slices();

    bool done = true;
    for (int i = 0; i < num_volumes && done; i++) {
        IP_VolData* volume = source->GetVolData(i);
        p.tissue = list_volume(tissues, i);
        done = volume != nullptr &&
               add_prepared_volume(*volume, i, p, std::move(worker_chunks[static_cast<std::size_t>(i)]));
    }
    return done;
}

bool IP_MultiVolDataIncMIP::add_prepared_volume(const IP_VolData& source, int i, const Preparation& p,
                                                IP_VolDataProj::WorkerChunks worker_chunks) {
    const auto data = std::make_shared<IP_VolDataMIP>();
    data->OfferWorkerChunks(std::move(worker_chunks));
    const auto take_over_chunks = [&] {
        AddChunks(data->GetChunks());
        data->ClearChunks();
    };

    bool done = false;
    try {
        const auto create = p.lean ? &IP_VolDataMIP::LeanCreate : &IP_VolDataMIP::Create;
        done = (data.get()->*create)(source, hash_map(), p.tissue, p.new_tissue, p.factor, m_CurrentDir, p.pd_counter,
                                     p.tissue_counter, p.render_quality, p.minimum_value);
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
        SetNTransVolRData(new IP_VolDataMIP(*data, false), i);
        SetTransVolRData(new IP_VolDataMIP(*data, true), i);
    }
    return true;
}

bool IP_MultiVolDataIncMIP::CopyFastFromSlow(IP_MultiVolData* source, IP_MultiRealListVol* tissues, bool transposed,
                                             int pd_counter, int tissue_counter, int minimum_value) {
    bool done = source != nullptr && tissues != nullptr;
    for (int i = 0; i < GetNVolData() && done; i++) {
        IP_VolDataMIP* data = prepared_mip(i);
        done = data != nullptr && data->CopyFastFromSlow(source->GetVolData(i), list_volume(tissues, i), transposed,
                                                         pd_counter, tissue_counter, minimum_value);
    }
    return done;
}

bool IP_MultiVolDataIncMIP::CopyWithTissue(IP_MultiVolData* source, IP_MultiRealListVol* tissues, bool transposed,
                                           int pd_counter, int tissue_counter, int minimum_value, bool run) {
    bool done = source != nullptr && tissues != nullptr;
    for (int i = 0; i < GetNVolData() && done; i++) {
        IP_VolDataMIP* data = prepared_mip(i);
        done = data != nullptr && data->CopyWithTissue(source->GetVolData(i), list_volume(tissues, i), transposed,
                                                       pd_counter, tissue_counter, minimum_value, run);
    }
    return done;
}

void IP_MultiVolDataIncMIP::SetSlowTissueList(IP_MultiRealListVol* tissues) {
    for (int i = 0; i < GetNVolData(); i++) {
        if (IP_VolDataMIP* data = prepared_mip(i)) {
            data->SetSlowTissue(list_volume(tissues, i));
        }
    }
}
