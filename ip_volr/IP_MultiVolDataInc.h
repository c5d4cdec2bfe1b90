// Prepared data of a growing set of volumes, kept across rebuilds.
#pragma once

#include "host/multi_volume.h"
#include "ip_volr/IP_CriticalSection.h"
#include "ip_volr/IP_VolDataProj.h"

#include <memory>
#include <vector>

// A multi-volume of prepared volumes that a host rebuilds again and again while slices of its series arrive.
//
// It owns one slice hash map for all its preparations and every slice chunk that any of them allocated, so that a slice
// prepared once is found by its identity text ever after; both only grow. Per volume it may hold two views of the
// prepared volume, the not-transposed and the transposed part, which it owns.
//
// Prepared volumes are shared, but their blocks belong to this object: do not use one after the object is gone. Copies
// copy the set of volumes (shared) and the direction, and have a hash map, chunks and views of their own, empty at
// first.
//
// Threads. Rebuilds and projections must not overlap: callers keep them apart with the data-protection section.
class IP_VOLR_EXPORT IP_MultiVolDataInc : public IP_MultiVolData {
public:
    IP_MultiVolDataInc();
    IP_MultiVolDataInc(const IP_MultiVolDataInc& o);
    IP_MultiVolDataInc& operator=(const IP_MultiVolDataInc& o);
    ~IP_MultiVolDataInc() override;

    // The parts of volume i; null when there are none.
    IP_VolDataProj* GetNTransVolRData(int i) const;
    IP_VolDataProj* GetTransVolRData(int i) const;
    // Takes ownership (of objects made with new) and destroys the one before. A negative index is ignored, and the
    // object destroyed; so it is when there is no memory, which leaves as std::bad_alloc.
    void SetNTransVolRData(IP_VolDataProj* data, int i);
    void SetTransVolRData(IP_VolDataProj* data, int i);

    // Takes over all chunks but the first (the preparation's work chunk). Throws std::bad_alloc with none taken over.
    void AddChunks(const std::vector<IP_SliceChunk*>& chunks);

    // Whether this object already holds the source: as many volumes, each prepared from the same box (so as many
    // slices) and with the same identity text of the first slice. False when a first slice is missing: rebuild.
    bool compareNSlices(IP_MultiVolData* source);

    void remove_slices();  // drops the prepared volumes and their views; chunks and records stay
    void reset_pointers2origData(IP_MultiVolData* source);  // points the prepared volumes at the source's volumes

    void EnterDataProtectCriticalSection() { m_DataProtection.Enter(); }
    bool TryEnterDataProtectCriticalSection() { return m_DataProtection.TryEnter(); }  // true when it was entered
    void LeaveDataProtectCriticalSection() { m_DataProtection.Leave(); }

protected:
    IP_VolDataProj* prepared(int i) const;  // prepared volume i; null out of range
    SliceHashMap& hash_map() { return m_Map; }

    bool m_CurrentDir = false;  // handed to the next preparation as its transposed flag

private:
    using Views = std::vector<std::unique_ptr<IP_VolDataProj>>;
    static void SetView(Views& views, IP_VolDataProj* data, int i);
    static void RemoveViews(Views& views);

    SliceHashMap m_Map;
    std::vector<std::unique_ptr<IP_SliceChunk>> m_Chunks;  // after the map: their records leave it when they die
    Views m_NTransVolRData;
    Views m_TransVolRData;
    IP_CriticalSection m_DataProtection;
};
