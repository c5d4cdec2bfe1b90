// What a subtask of prepared data works with. For the sources of IP_VolDataProj only.
#pragma once

#include "ip_volr/IP_VolDataProj.h"

// The slices and the record of one worker.
struct IP_VolDataProj::Worker {
    IP_Slice* work_slice;
    IP_Slice* temp_slice;
    IP_SliceIDInfo* work_record;
};

// Rotates blocks through the slices that a worker transposes, and puts the work slice back on its own block at the end
// of the scope, whatever ends it: else a prepared slice would rest in a work block, which dies with its volume.
class IP_VolDataProj::WorkBlockKeeper {
public:
    WorkBlockKeeper(IP_VolDataProj& data, const Worker& worker)
        : m_Data(data), m_WorkSlice(worker.work_slice), m_WorkRecord(worker.work_record) {}
    // The first slice turned holds the work block: its content moves to the block that the work slice has now.
    ~WorkBlockKeeper() {
        if (m_FirstTurned >= 0) {
            m_Data.reestablish_working_mem_with_hash_update(m_FirstTurned, m_WorkSlice, m_WorkRecord);
        }
    }
    WorkBlockKeeper(const WorkBlockKeeper&) = delete;
    WorkBlockKeeper& operator=(const WorkBlockKeeper&) = delete;

    // Transposes a slice; it and the work slice are mapped, and the first one turned stays so until the end.
    void turn(int index) {
        m_WorkRecord = m_Data.slice_transpose_with_hash_update(index, m_WorkSlice, m_WorkRecord);
        note(index);
    }
    // The same through the hook of the subclass.
    void turn_by_hook(int index) {
        m_WorkRecord = m_Data.fast_slice_transpose_with_hash_update(m_Data.GetSlice(index), m_WorkSlice, m_WorkRecord,
                                                                    m_Data.GetChunkX(), m_Data.GetChunkY(), index);
        note(index);
    }

private:
    void note(int index) {
        if (m_FirstTurned < 0) {
            m_FirstTurned = index;
        }
    }

    IP_VolDataProj& m_Data;
    IP_Slice* const m_WorkSlice;
    IP_SliceIDInfo* m_WorkRecord;
    int m_FirstTurned = -1;
};
