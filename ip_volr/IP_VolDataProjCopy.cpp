// Filling of prepared slices from the source: the copy of a creation, and refills with tissue.
#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_SliceMapping.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolDataProjWorker.h"

#include <algorithm>

namespace {

constexpr char kSource[] = "ip_volr/IP_VolDataProj";

}  // namespace

IP_VolDataProj::Worker IP_VolDataProj::worker(int subtask) const {
    const std::size_t w = static_cast<std::size_t>(subtask);
    const std::size_t work = static_cast<std::size_t>(m_NumbSlices) + w;
    return {m_Slices[work], m_Slices[work + m_NumbWorkSlices], m_Chunks.front()->GetInfoMem() + w};
}

void IP_VolDataProj::subtask_copy_slices() {
    constexpr char kFunction[] = "IP_VolDataProj::subtask_copy_slices";
    TCO_RunnableSelf self;
    const int end_of_range = static_cast<int>(m_IndexArray.size()) - 1;
    const int first = self.StartRange(end_of_range, 0);
    const int last = self.EndRange(end_of_range, 0);
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, kFunction,
                  "subtask_copy_slices ser_numb = %d, start = %d, end = %d\n", self.GetSubtaskIndex(), first, last);

    const Worker w = worker(self.GetSubtaskIndex());
    if (m_RenderQuality == 0) {
        copy_fast_slices(w, first, last);
    } else if (m_RenderQuality == 1) {
        copy_slow_slices(w, first, last);
    } else {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "subtask_copy_slices wrong m_RenderQuality = %d\n",
                      m_RenderQuality);
    }
}

void IP_VolDataProj::copy_fast_slices(const Worker& w, int first, int last) {
    const TCO_RunnableSelf self;
    for (int j = first; j <= last; j++) {
        fill_fast(w, static_cast<int>(m_IndexArray[static_cast<std::size_t>(j)]));
        self.Service();
    }
}

void IP_VolDataProj::copy_slow_slices(const Worker& w, int first, int last) {
    constexpr char kFunction[] = "IP_VolDataProj::copy_slow_slices";
    const TCO_RunnableSelf self;
    int j = first;
    try {
        for (; j <= last; j++) {
            fill_slow(w, static_cast<int>(m_IndexArray[static_cast<std::size_t>(j)]));
            self.Service();
        }
    } catch (const TCO_CANCEL_EXCEPTION&) {
        IP_VOLR_TRACE(ip_volr::kTraceWarning, kSource, kFunction, "subtask_copy_slices TCO_CANCEL_EXCEPTION\n");
        if (m_Transposed) {
            orient_slices(w, j, j);
        }
        throw;
    }

    if (m_Transposed && first <= last) {
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, kFunction, "firstNewSliceInd = %d\n",
                      static_cast<int>(m_IndexArray[static_cast<std::size_t>(last)]));
    }
    orient_slices(w, first, last);
}

// Leaves the slices at positions first to last of the index array in the orientation that this creation asks for.
void IP_VolDataProj::orient_slices(const Worker& w, int first, int last) {
    const auto differs = [&](int j) {
        const IP_SliceIDInfo* record = slice_record(static_cast<int>(m_IndexArray[static_cast<std::size_t>(j)]));
        return record != nullptr && record->GetTransposed() != m_Transposed;
    };
    while (first <= last && !differs(first)) {
        first++;
    }
    if (first > last) {
        return;
    }

    // The first slice stays mapped to the end: it holds the work block until the keeper puts it back.
    const ip_volr::ScopedSliceMapping work_mapping(w.work_slice);
    const ip_volr::ScopedSliceMapping first_mapping(
        GetSlice(static_cast<int>(m_IndexArray[static_cast<std::size_t>(first)])));
    WorkBlockKeeper keeper(*this, w);
    for (int j = first; j <= last; j++) {
        if (!differs(j)) {
            continue;
        }
        const int index = static_cast<int>(m_IndexArray[static_cast<std::size_t>(j)]);
        const ip_volr::ScopedSliceMapping mapping(j == first ? nullptr : GetSlice(index));
        if (!work_mapping.ok() || !first_mapping.ok() || (j != first && !mapping.ok())) {
            m_NumbNotCopied++;
            return;
        }
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataProj::orient_slices",
                      "subtask_copy_slices: %d slice transpose\n", index);
        keeper.turn(index);
    }
}

// Copies, and brings the record in step with its block. A slice that could not be filled, also for want of memory,
// keeps no version, so that the next preparation fills it.
template <class Copy>
void IP_VolDataProj::note_fill(int index, const Copy& copy) {
    const bool copied = ip_volr::succeeds_with_memory(kSource, "IP_VolDataProj::note_fill", copy);
    IP_SliceIDInfo* record = slice_record(index);
    record->SetTransposed(false);
    record->SetPDCounter(copied ? m_PDCounter : 0);
    record->SetTissueCounter(copied ? m_TissueCounter : 0);
    if (!copied) {
        m_NumbNotCopied++;
    }
}

// A slice whose counters are current is left untouched.
void IP_VolDataProj::fill_fast(const Worker& w, int index) {
    const IP_SliceIDInfo* record = slice_record(index);
    if (record == nullptr) {
        return;
    }
    if (m_NewTissue || record->GetTissueCounter() != m_TissueCounter) {
        fill_with_tissue(w, index);
    } else if (record->GetPDCounter() != m_PDCounter) {
        if (applies_tissue()) {
            fill_with_tissue(w, index);
        } else {
            note_fill(index, [&] {
                return copy_fast_slice(GetSlice(index), m_OrigVolData->GetSlice(index), static_cast<int>(m_ChunkX),
                                       static_cast<int>(m_ChunkY));
            });
        }
    }
}

void IP_VolDataProj::fill_slow(const Worker& w, int index) {
    const IP_SliceIDInfo* record = slice_record(index);
    if (record == nullptr) {
        return;
    }
    const bool new_pixels = record->GetPDCounter() != m_PDCounter;
    if (!m_NewTissue && new_pixels && !applies_tissue()) {
        note_fill(index, [&] {
            return copy_slice(GetSlice(index), static_cast<int>(m_ChunkX), static_cast<int>(m_ChunkY),
                              m_OrigVolData->GetSlice(index), m_ReducedX, m_ReducedY);
        });
    } else if (m_NewTissue || new_pixels || record->GetTissueCounter() != m_TissueCounter) {
        fill_with_tissue(w, index);
    }
}

// Reduced data is masked in the worker's temp slice. A missing source slice is background, masked or not.
void IP_VolDataProj::fill_with_tissue(const Worker& w, int index) {
    IP_Slice* slice = GetSlice(index);
    IP_Slice* source = m_OrigVolData->GetSlice(index);
    const int x = static_cast<int>(m_ChunkX);
    const int y = static_cast<int>(m_ChunkY);
    note_fill(index, [&] {
        if (source == nullptr) {
            return copy_slice(slice, x, y, source, m_ReducedX, m_ReducedY);
        }
        return m_Factor == 1 ? copy_slice_with_tissue(slice, x, y, source, m_ReducedX, m_ReducedY, index)
                             : copy_slice_with_tissue_fast(source, slice, w.temp_slice, index, x, y);
    });
}

// Takes over the new versions and lists every slice. False when there is nothing to fill from, or no memory.
bool IP_VolDataProj::begin_refill(IP_VolData* source, bool transposed, int pd_counter, int tissue_counter) {
    if (source == nullptr || !is_built() || m_Chunks.empty() || m_Chunks.front() == nullptr || m_TempChunk == nullptr) {
        return false;
    }
    int dims[3];
    int prepared_dims[3];
    source->GetBox()->GetDims(dims);
    m_SourceBox.GetDims(prepared_dims);
    if (!std::equal(dims, dims + 3, prepared_dims)) {
        return false;
    }

    follow_records();
    m_NewTissue = true;
    m_Transposed = transposed;
    m_OrigVolData = source;
    m_PDCounter = pd_counter;
    m_TissueCounter = tissue_counter;
    m_NumbNotCopied = 0;
    return ip_volr::succeeds_with_memory(kSource, "IP_VolDataProj::begin_refill", [&] {
        build_ind_array(false);
        return true;
    });
}

bool IP_VolDataProj::CopyFastFromSlow(IP_VolData* source, bool transposed, int pd_counter, int tissue_counter,
                                      int /*reserved*/) {
    constexpr char kFunction[] = "IP_VolDataProj::CopyFastFromSlow";
    if (!begin_refill(source, transposed, pd_counter, tissue_counter)) {
        return false;
    }
    const ip_volr::ScopedSliceRunMapping workers(m_Slices.data() + m_NumbSlices,
                                                 2 * static_cast<int>(m_NumbWorkSlices));
    if (!workers.ok()) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "CopyFastFromSlow: Map excess failed!\n");
        return false;
    }

    const int batch = batch_size();
    for (int start = start_index(); start < m_NumbSlices; start += batch) {
        m_BatchFirst = start;
        m_BatchLast = start + std::min(batch, m_NumbSlices - start);
        const ip_volr::ScopedSliceRunMapping quota(m_Slices.data() + m_BatchFirst, m_BatchLast - m_BatchFirst);
        if (!quota.ok()) {
            IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "CopyFastFromSlow: Map quota failed!\n");
            return false;
        }
        try {
            run_subtasks(&IP_VolDataProj::subtask_copy_slices_with_tissue_fast);
        } catch (const TCO_CANCEL_EXCEPTION&) {
            // QUIRK(refill-cancel-text): a reader expects this operation's name in the line; it carries the one of
            // Transpose, and so do the lines of CheckAndTransposed; kept: callers rely on it.
            IP_VOLR_TRACE(ip_volr::kTraceWarning, kSource, kFunction, "Transpose: Cancelled\n");
            throw;
        }
    }
    return m_NumbNotCopied == 0;
}

void IP_VolDataProj::subtask_copy_slices_with_tissue_fast() {
    TCO_RunnableSelf self;
    const int first = self.StartRange(m_BatchLast - 1, m_BatchFirst);
    const int last = self.EndRange(m_BatchLast - 1, m_BatchFirst);
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataProj::subtask_copy_slices_with_tissue_fast",
                  "subtask_copy_slices ser_numb = %d, start = %d, end = %d\n", self.GetSubtaskIndex(), first, last);
    const Worker w = worker(self.GetSubtaskIndex());
    for (int i = first; i <= last; i++) {
        if (slice_record(i) != nullptr) {
            fill_with_tissue(w, i);
        }
        self.Service();
    }
}

bool IP_VolDataProj::CopyWithTissue(IP_VolData* source, bool transposed, int pd_counter, int tissue_counter, bool run) {
    if (!begin_refill(source, transposed, pd_counter, tissue_counter)) {
        return false;
    }
    if (!run) {
        return true;
    }
    try {
        run_subtasks(&IP_VolDataProj::subtask_copy_slices_with_tissue_slow);
    } catch (const TCO_CANCEL_EXCEPTION&) {
        return false;
    }
    return m_NumbNotCopied == 0;
}

void IP_VolDataProj::subtask_copy_slices_with_tissue_slow() {
    TCO_RunnableSelf self;
    const int end_of_range = static_cast<int>(m_IndexArray.size()) - 1;
    const int first = self.StartRange(end_of_range, 0);
    const int last = self.EndRange(end_of_range, 0);
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataProj::subtask_copy_slices_with_tissue_slow",
                  "subtask_copy_slices_with_tissue_slow ser_numb = %d, start = %d, end = %d\n", self.GetSubtaskIndex(),
                  first, last);
    const Worker w = worker(self.GetSubtaskIndex());
    for (int j = first; j <= last; j++) {
        const int index = static_cast<int>(m_IndexArray[static_cast<std::size_t>(j)]);
        if (slice_record(index) != nullptr) {
            fill_with_tissue(w, index);
        }
        self.Service();
    }
    orient_slices(w, first, last);
}
