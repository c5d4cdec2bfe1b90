#include "ip_volr/IP_MultiVolDataInc.h"

#include "ip_volr/IP_VOLR_Trace.h"

#include <cstring>
#include <utility>

namespace {

constexpr char kSource[] = "ip_volr/IP_MultiVolDataInc";

// Whether a prepared volume was made from this box and begins with the same slice.
bool same_slices(IP_VolDataProj& prepared, const IP_VolData& source) {
    const IP_Slice* prepared_slice = prepared.GetSlice(0);
    const IP_Slice* source_slice = source.GetSlice(0);
    return prepared.GetSourceBox() == *source.GetBox() && prepared_slice != nullptr && source_slice != nullptr &&
           std::strcmp(prepared_slice->GetID(), source_slice->GetID()) == 0;
}

}  // namespace

IP_MultiVolDataInc::IP_MultiVolDataInc() = default;

IP_MultiVolDataInc::IP_MultiVolDataInc(const IP_MultiVolDataInc& o)
    : IP_MultiVolData(o), m_CurrentDir(o.m_CurrentDir) {}

IP_MultiVolDataInc& IP_MultiVolDataInc::operator=(const IP_MultiVolDataInc& o) {
    if (this != &o) {
        RemoveViews(m_NTransVolRData);
        RemoveViews(m_TransVolRData);
        IP_MultiVolData::operator=(o);
        m_CurrentDir = o.m_CurrentDir;
    }
    return *this;
}

// The prepared volumes go before the chunks that hold their slices.
IP_MultiVolDataInc::~IP_MultiVolDataInc() {
    RemoveViews(m_NTransVolRData);
    RemoveViews(m_TransVolRData);
    ResetNvoldatas();
}

IP_VolDataProj* IP_MultiVolDataInc::GetNTransVolRData(int i) const {
    return i >= 0 && static_cast<std::size_t>(i) < m_NTransVolRData.size()
               ? m_NTransVolRData[static_cast<std::size_t>(i)].get()
               : nullptr;
}

IP_VolDataProj* IP_MultiVolDataInc::GetTransVolRData(int i) const {
    return i >= 0 && static_cast<std::size_t>(i) < m_TransVolRData.size()
               ? m_TransVolRData[static_cast<std::size_t>(i)].get()
               : nullptr;
}

void IP_MultiVolDataInc::SetNTransVolRData(IP_VolDataProj* data, int i) {
    SetView(m_NTransVolRData, data, i);
}

void IP_MultiVolDataInc::SetTransVolRData(IP_VolDataProj* data, int i) {
    SetView(m_TransVolRData, data, i);
}

void IP_MultiVolDataInc::SetView(Views& views, IP_VolDataProj* data, int i) {
    std::unique_ptr<IP_VolDataProj> owned(data);
    if (i < 0) {
        return;
    }
    const std::size_t position = static_cast<std::size_t>(i);
    if (position >= views.size()) {
        views.resize(position + 1);
    }
    if (views[position] != owned) {
        views[position] = std::move(owned);
    } else {
        static_cast<void>(owned.release());  // set again: it stays
    }
}

void IP_MultiVolDataInc::RemoveViews(Views& views) {
    for (std::unique_ptr<IP_VolDataProj>& view : views) {
        if (view != nullptr) {
            view->DisconnectSlices();
            view->DisconnectBounds();
        }
    }
    views.clear();
}

void IP_MultiVolDataInc::AddChunks(const std::vector<IP_SliceChunk*>& chunks) {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_MultiVolDataInc::AddChunks",
                  "add %d chunks to m_Chunks vector\n", static_cast<int>(chunks.size()));
    m_Chunks.reserve(m_Chunks.size() + chunks.size());
    for (std::size_t i = 1; i < chunks.size(); i++) {
        m_Chunks.emplace_back(chunks[i]);
    }
}

bool IP_MultiVolDataInc::compareNSlices(IP_MultiVolData* source) {
    if (source == nullptr || source->GetNVolData() != GetNVolData()) {
        return false;
    }
    for (int i = 0; i < GetNVolData(); i++) {
        IP_VolDataProj* mine = prepared(i);
        const IP_VolData* theirs = source->GetVolData(i);
        if (mine == nullptr || theirs == nullptr || !same_slices(*mine, *theirs)) {
            return false;
        }
    }
    return true;
}

void IP_MultiVolDataInc::remove_slices() {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_MultiVolDataInc::remove_slices",
                  "remove VolRData structures\n");
    RemoveViews(m_NTransVolRData);
    RemoveViews(m_TransVolRData);
    ResetNvoldatas();
}

void IP_MultiVolDataInc::reset_pointers2origData(IP_MultiVolData* source) {
    for (int i = 0; i < source->GetNVolData(); i++) {
        for (IP_VolDataProj* data : {prepared(i), GetNTransVolRData(i), GetTransVolRData(i)}) {
            if (data != nullptr) {
                data->SetOrigVolData(source->GetVolData(i));
            }
        }
    }
}

IP_VolDataProj* IP_MultiVolDataInc::prepared(int i) const {
    return dynamic_cast<IP_VolDataProj*>(GetVolData(i));
}
