// Identity of prepared slices: which source slice a pager block holds, in which version and orientation.
#pragma once

#include "host/memory_pager.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <cstddef>
#include <cstdint>
#include <unordered_map>

class IP_SliceIDInfo;

// Identity text of a source slice with its hash, computed once.
//
// A key of a record owns a copy of its text; a key for a look-up refers to the caller's text, which must outlive it.
// The text of a key that stands in a map must not change.
class IP_VOLR_EXPORT SliceIDKey {
public:
    SliceIDKey() = default;
    SliceIDKey(const SliceIDKey& o);
    SliceIDKey& operator=(const SliceIDKey& o);
    ~SliceIDKey();

    // A null text makes the key empty. With `copy` the key takes a copy of the text, else it refers to it.
    void SetText(const char* text, bool copy);

    const char* GetText() const { return m_Text; }        // zero-terminated; null for an empty key
    std::uint32_t GetLength() const { return m_Length; }  // without the terminator
    std::uint32_t GetHash() const { return m_Hash; }
    bool OwnsText() const { return m_OwnsText; }

private:
    const char* m_Text = nullptr;
    std::uint32_t m_Length = 0;
    std::uint32_t m_Hash = 0;
    bool m_OwnsText = false;
};

// Hash and equality of keys in the slice hash map. An empty key (null text) equals nothing, not even itself.
class IP_VOLR_EXPORT SliceIDHash {
public:
    std::size_t operator()(const SliceIDKey* key) const { return key->GetHash(); }
    bool operator()(const SliceIDKey* a, const SliceIDKey* b) const;

    // Hash of `length` bytes: starts at the length, then h = (h rotated left by 5) xor w for each little-endian 32-bit
    // word w of the text, the last one filled up with zero bytes.
    static std::uint32_t HashText(const char* text, std::uint32_t length);
};

// Records of prepared slices by identity text. Keys point into the records.
using SliceHashMap = std::unordered_map<SliceIDKey*, IP_SliceIDInfo*, SliceIDHash, SliceIDHash>;

// Shape of a prepared slice. A block serves only slices of the same shape, whatever their identity text says.
struct PreparedSliceShape {
    int data_x = 0;   // voxels of the source slice after reduction, along its rows
    int data_y = 0;   // the same along its columns
    int chunk_x = 0;  // padded size in voxels, not-transposed orientation
    int chunk_y = 0;
    int factor = 0;  // reduction in x and y: 1 or 2
    float bytes_per_pixel = 0.0F;

    bool operator==(const PreparedSliceShape& o) const {
        return data_x == o.data_x && data_y == o.data_y && chunk_x == o.chunk_x && chunk_y == o.chunk_y &&
               factor == o.factor && bytes_per_pixel == o.bytes_per_pixel;
    }
};

// What one pager block of a slice chunk holds.
//
// Records live only in the array of their chunk. One that was registered in a map takes itself out of it when it dies
// or gets another text, so that a map never holds a record of a chunk that is gone; the map must outlive its records.
// A record is not locked: only one thread at a time works on a slice.
class IP_VOLR_EXPORT IP_SliceIDInfo {
public:
    IP_SliceIDInfo() = default;
    // QUIRK(slice-record-copy): a reader expects the fields to be copied; the new record is like a default one, since
    // records stay in their chunk's array and two of one text would be found for each other; kept: callers rely on it.
    IP_SliceIDInfo(const IP_SliceIDInfo& o);
    // Copies everything but the registration in a map; the text is copied.
    IP_SliceIDInfo& operator=(IP_SliceIDInfo& o);
    virtual ~IP_SliceIDInfo();

    SliceIDKey* GetID() { return &m_ID; }
    void SetID(const char* text);  // copies the text; a registered record leaves its map first

    MEM_PagerInfo* GetData() const { return m_Data; }  // the block; points into a chunk's array, not owned
    void SetData(MEM_PagerInfo* data) { m_Data = data; }

    // Versions of pixel data and tissues with which the block was filled. 0 when it was not filled: hosts count from 1.
    int GetPDCounter() const { return m_PDCounter; }
    void SetPDCounter(int counter) { m_PDCounter = counter; }
    int GetTissueCounter() const { return m_TissueCounter; }
    void SetTissueCounter(int counter) { m_TissueCounter = counter; }

    // Whether the block holds the slice with its rows and columns exchanged.
    bool GetTransposed() const { return m_Transposed; }
    void SetTransposed(bool transposed) { m_Transposed = transposed; }
    void ReverseTranspose() { m_Transposed = !m_Transposed; }

    bool GetIsBlankSlice() const { return m_IsBlankSlice; }  // the slice carries nothing to project
    void SetIsBlankSlice(bool blank) { m_IsBlankSlice = blank; }

    const PreparedSliceShape& GetShape() const { return m_Shape; }
    void SetShape(const PreparedSliceShape& shape) { m_Shape = shape; }

    // 1 when both records describe the same block: equal texts, counters and orientation, and their blocks map to one
    // address. 0 otherwise, also when a block cannot be mapped.
    int operator==(IP_SliceIDInfo& o);

    // Registers the record under its text and takes the place of a record registered before. A record without text
    // stays unregistered.
    void Register(SliceHashMap& map);
    void Unregister();

private:
    SliceIDKey m_ID;
    MEM_PagerInfo* m_Data = nullptr;
    std::int32_t m_PDCounter = 0;
    std::int32_t m_TissueCounter = 0;
    bool m_Transposed = false;
    bool m_IsBlankSlice = false;
    PreparedSliceShape m_Shape;
    SliceHashMap* m_Map = nullptr;
};
