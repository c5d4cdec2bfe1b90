// Orientation of prepared slices: transposition in place with rotating blocks, and into work slices.
#include "ip_volr/IP_SliceMapping.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolDataProjWorker.h"

#include <algorithm>
#include <new>

namespace {

constexpr char kSource[] = "ip_volr/IP_VolDataProj";

constexpr double kBatchMiB = 5000.0;
constexpr double kMiBPerByte = 9.5367431640625e-7;  // 1 / 1048576

}  // namespace

// Slices that fit into a batch, at least one.
int IP_VolDataProj::batch_size() const {
    int bits_stored = 16;
    for (int i = 0; i < m_NumbSlices; i++) {
        if (const IP_Slice* slice = GetSlice(i)) {
            bits_stored = slice->GetAttributes().bits_stored;
            break;
        }
    }
    const int bytes_per_pixel = std::max(1, (bits_stored + 7) / 8);
    const double slice_bytes = static_cast<double>(m_ChunkX) * static_cast<double>(m_ChunkY) * bytes_per_pixel;
    const double slices = kBatchMiB / std::max(slice_bytes * kMiBPerByte, kMiBPerByte);
    return static_cast<int>(std::clamp(slices, 1.0, 1e9));
}

int IP_VolDataProj::count_oriented(int first, int last, bool transposed) const {
    int count = 0;
    for (int i = first; i < last; i++) {
        const IP_SliceIDInfo* record = slice_record(i);
        count += record != nullptr && record->GetTransposed() == transposed ? 1 : 0;
    }
    return count;
}

bool IP_VolDataProj::IsSliceTransposed(int slice) const {
    const IP_SliceIDInfo* record = slice_record(slice);
    return record != nullptr && record->GetTransposed();
}

bool IP_VolDataProj::AreSlicesTransposed(int first, int last, bool wanted) const {
    return count_oriented(first, last, !wanted) == 0;
}

bool IP_VolDataProj::CheckTransposed(bool wanted) {
    follow_records();
    const int first = start_index();
    const int num_differing = count_oriented(first, m_NumbSlices, !wanted);
    if (num_differing == 0) {
        m_Transposed = wanted;
    } else if (count_oriented(first, m_NumbSlices, wanted) == 0) {
        Transpose(0, m_NumbSlices);
    } else {
        CheckAndTransposed(0, m_NumbSlices, wanted);
    }
    return true;
}

// Another volume of the map that holds the same slices may have moved them to other blocks.
void IP_VolDataProj::follow_record(int index) {
    IP_Slice* const slice = GetSlice(index);
    const IP_SliceIDInfo* const record = slice_record(index);
    if (slice != nullptr && record != nullptr && slice->GetData() != record->GetData()) {
        slice->SetData(record->GetData(), false);
    }
}

void IP_VolDataProj::follow_records() {
    for (int i = 0; i < m_NumbSlices; i++) {
        follow_record(i);
    }
}

void IP_VolDataProj::Transpose(int first, int last) {
    follow_records();
    transpose_in_batches(first, last, false);

    // The volume as a whole is held as its slices are, once they agree.
    if (count_oriented(0, m_NumbSlices, !m_Transposed) > 0 && count_oriented(0, m_NumbSlices, m_Transposed) == 0) {
        m_Transposed = !m_Transposed;
    }
}

void IP_VolDataProj::CheckAndTransposed(int first, int last, bool wanted) {
    m_Transposed = wanted;
    follow_records();

    // Slices that lie as wanted at either end need not be mapped, and so not come back from the pager's file.
    first = std::clamp(first, start_index(), m_NumbSlices);
    last = std::clamp(last, first, m_NumbSlices);
    while (first < last && count_oriented(first, first + 1, !wanted) == 0) {
        first++;
    }
    while (first < last && count_oriented(last - 1, last, !wanted) == 0) {
        last--;
    }
    if (first < last) {
        transpose_in_batches(first, last, true);
    }
}

// Transposes the slices [first, last) in batches; with `check` those that do not lie as m_Transposed says.
void IP_VolDataProj::transpose_in_batches(int first, int last, bool check) {
    const char* function = check ? "IP_VolDataProj::CheckAndTransposed" : "IP_VolDataProj::Transpose";
    if (!is_built() || m_Chunks.empty() || m_Chunks.front() == nullptr) {
        return;
    }
    first = std::clamp(first, start_index(), m_NumbSlices);
    last = std::clamp(last, first, m_NumbSlices);
    const ip_volr::ScopedSliceRunMapping work(m_Slices.data() + m_NumbSlices, static_cast<int>(m_NumbWorkSlices));
    if (!work.ok()) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, function, "Transpose: Map excess failed!\n");
        return;
    }

    const int batch = batch_size();
    for (int start = first; start < last; start += batch) {
        m_BatchFirst = start;
        m_BatchLast = start + std::min(batch, last - start);
        const ip_volr::ScopedSliceRunMapping quota(m_Slices.data() + m_BatchFirst, m_BatchLast - m_BatchFirst);
        if (!quota.ok()) {
            IP_VOLR_TRACE(ip_volr::kTraceError, kSource, function, "Transpose: Map quota failed!\n");
            return;
        }
        try {
            run_subtasks(check ? &IP_VolDataProj::subtask_check_transpose : &IP_VolDataProj::subtask_transpose);
        } catch (const TCO_CANCEL_EXCEPTION&) {
            IP_VOLR_TRACE(ip_volr::kTraceWarning, kSource, function, "Transpose: Cancelled\n");
            throw;
        } catch (const std::bad_alloc&) {
            IP_VOLR_TRACE(ip_volr::kTraceError, kSource, function, "Out of memory\n");
            return;
        }
    }
}

void IP_VolDataProj::subtask_transpose() {
    TCO_RunnableSelf self;
    const int first = self.StartRange(m_BatchLast - 1, m_BatchFirst);
    const int last = self.EndRange(m_BatchLast - 1, m_BatchFirst);
    WorkBlockKeeper keeper(*this, worker(self.GetSubtaskIndex()));
    for (int i = first; i <= last; i++) {
        self.Service();
        if (slice_record(i) == nullptr) {
            continue;
        }
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataProj::subtask_transpose",
                      "subtask_transpose: %d slice transpose\n", i);
        keeper.turn_by_hook(i);
    }
}

void IP_VolDataProj::subtask_check_transpose() {
    TCO_RunnableSelf self;
    const int first = self.StartRange(m_BatchLast - 1, m_BatchFirst);
    const int last = self.EndRange(m_BatchLast - 1, m_BatchFirst);
    WorkBlockKeeper keeper(*this, worker(self.GetSubtaskIndex()));
    for (int i = first; i <= last; i++) {
        self.Service();
        if (slice_record(i) == nullptr || IsSliceTransposed(i) == m_Transposed) {
            continue;
        }
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataProj::subtask_check_transpose",
                      "subtask_check_transpose: %d slice transpose\n", i);
        keeper.turn(i);
    }
}

IP_SliceIDInfo* IP_VolDataProj::fast_slice_transpose_with_hash_update(IP_Slice* /*slice*/, IP_Slice* work_slice,
                                                                      IP_SliceIDInfo* work_record, int /*x*/, int /*y*/,
                                                                      int index) {
    return slice_transpose_with_hash_update(index, work_slice, work_record);
}

// Transposes a slice into the work slice's block and exchanges the two blocks, with their records in step.
IP_SliceIDInfo* IP_VolDataProj::slice_transpose_with_hash_update(int index, IP_Slice* work_slice,
                                                                 IP_SliceIDInfo* work_record) {
    IP_Slice* slice = GetSlice(index);
    IP_SliceIDInfo* record = slice_record(index);
    const int x = static_cast<int>(m_ChunkX);
    const int y = static_cast<int>(m_ChunkY);
    const bool transposed = record->GetTransposed();
    const MEM_PagerInfo* block = slice->GetData();
    transpose_slice_swap_data(slice, work_slice, transposed ? y : x, transposed ? x : y);
    if (slice->GetData() == block) {
        return work_record;  // a kind of data that is never transposed
    }
    work_record->SetData(work_slice->GetData());
    record->SetData(slice->GetData());
    record->ReverseTranspose();
    return work_record;
}

void IP_VolDataProj::reestablish_working_mem_with_hash_update(int index, IP_Slice* work_slice,
                                                              IP_SliceIDInfo* work_record) {
    constexpr char kFunction[] = "IP_VolDataProj::reestablish_working_mem_with_hash_update";
    IP_Slice* slice = GetSlice(index);
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, kFunction, "reestablish_working_mem_with_hash_update\n");
    reestablish_working_mem(slice, work_slice);
    if (IP_SliceIDInfo* record = slice_record(index)) {
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, kFunction,
                      "reestablish_working_mem_with_hash_update sliceID = %s\n", slice->GetID());
        work_record->SetData(work_slice->GetData());
        record->SetData(slice->GetData());
    }
}

bool IP_VolDataProj::Transpose2WorkSlice(int slice, int work) {
    const IP_SliceIDInfo* record = slice_record(slice);
    if (!is_built() || record == nullptr || work < 0 || work >= static_cast<int>(m_NumbWorkSlices)) {
        return false;
    }
    follow_record(slice);  // alone: other tasks are at other slices meanwhile
    const int x = static_cast<int>(m_ChunkX);
    const int y = static_cast<int>(m_ChunkY);
    const bool transposed = record->GetTransposed();
    return transpose_slice(GetSlice(slice), GetSlice(m_NumbSlices + work), transposed ? y : x, transposed ? x : y);
}
