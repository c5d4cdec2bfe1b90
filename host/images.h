// Image types: slices of pixels that live in pager blocks, and volumes made of slices.
#pragma once

#include "host/geometry.h"
#include "host/host_export.h"
#include "host/memory_pager.h"

#include <string>
#include <vector>

// What the pixels of a slice mean.
struct PixelDataAttributes {
    int width = 0;
    int height = 0;
    int bits_stored = 16;
    bool is_signed = true;
};

// Base of all slices: identity, attributes and the pager block that holds the pixels (rows of `width` pixels, top row
// first, no gap between rows).
//
// A slice refers to a block through the MEM_PagerInfo of whoever allocated it. A slice that owns its data (see
// SetOwnsData) frees the block and deletes the MEM_PagerInfo, which must then come from `new`.
class IP_HOST_API IP_Slice {
public:
    IP_Slice(MEM_PagerInfo* data, const PixelDataAttributes& attributes, int reserved);
    virtual ~IP_Slice();
    IP_Slice(const IP_Slice&) = delete;
    IP_Slice& operator=(const IP_Slice&) = delete;

    // 0 on success; non-zero when the slice has no block or the pager refuses. Counted, like the block's mappings.
    int MapMemory();
    void UnmapMemory();

    MEM_PagerInfo* GetData() const { return m_Data; }
    MEM_PagerInfo* GetMappedData() const;          // the same while mapped, else null
    void SetData(MEM_PagerInfo* data, bool owns);  // an owned earlier block is freed first

    bool OwnsData() const { return m_OwnsData; }
    void SetOwnsData(bool owns) { m_OwnsData = owns; }

    const PixelDataAttributes& GetAttributes() const { return m_Attributes; }

    // Identity text of the slice; never null, empty when none was set.
    const char* GetID() const { return m_ID.c_str(); }
    void SetID(const char* id);

    // Exchanges the blocks (and their ownership) of two slices. Identities and attributes stay.
    void SwapPixelDataWithSlice(IP_Slice& other);

protected:
    void* MappedPixels() const;  // null while unmapped

private:
    MEM_PagerInfo* m_Data = nullptr;
    PixelDataAttributes m_Attributes;
    bool m_OwnsData = false;
    std::string m_ID;
};

// 16-bit pixels; unsigned data is read through the same pointer, the attributes say so.
class IP_HOST_API IP_ShortSlice : public IP_Slice {
public:
    using IP_Slice::IP_Slice;
    short* GetMappedSlice() const { return static_cast<short*>(MappedPixels()); }
};

// 32-bit colour pixels.
class IP_HOST_API IP_RGBASlice : public IP_Slice {
public:
    using IP_Slice::IP_Slice;
    unsigned* GetMappedSlice() const { return static_cast<unsigned*>(MappedPixels()); }
};

// Tissue indices, two voxels a byte, low nibble first, voxels in row-major order across the slice.
class IP_HOST_API IP_TisIndSlice : public IP_Slice {
public:
    using IP_Slice::IP_Slice;
    unsigned char* GetMappedSlice() const { return static_cast<unsigned char*>(MappedPixels()); }
};

// Mapping of runs of slices in one pager call. Null slices and slices without a block are skipped: whoever reads them
// sees a null GetMappedSlice(). All or nothing: on failure no mapping of the call remains.
class IP_HOST_API IP_SliceVector {
public:
    static bool MapIPSliceVec(IP_Slice** slices, int count, MEM_PagerInfo** infos, bool reserved_a, bool reserved_b);
    static void UnMapIPSliceVec(IP_Slice** slices, int count, MEM_PagerInfo** infos, bool reserved);
};

// One volume: a lattice, its slices (one per z), and the rescale from stored to rescaled values.
//
// A volume deletes the slices that it holds. One that is copied or assigned from another refers to the same slice
// objects and owns none (unless they were its own), also none that is set later.
class IP_HOST_API IP_VolData {
public:
    IP_VolData();
    IP_VolData(IP_Box* box, int num_slices);
    IP_VolData(const IP_VolData& o);
    IP_VolData& operator=(const IP_VolData& o);
    virtual ~IP_VolData();

    IP_Box* GetBox() { return &m_Box; }
    const IP_Box* GetBox() const { return &m_Box; }

    IP_Slice* GetSlice(int i) const;  // null out of range
    IP_Slice** GetSlices() { return m_Slices.empty() ? nullptr : m_Slices.data(); }
    int GetNumberOfSlicePointers() const { return static_cast<int>(m_Slices.size()); }
    void SetSlice(IP_Slice* slice, int i);  // an earlier slice is not deleted; nothing out of range
    void DisconnectSlices();                // forgets the slices without freeing them

    int GetFirstSliceInd() const { return m_FirstSliceInd; }
    void SetFirstSliceInd(int i) { m_FirstSliceInd = i; }

    void GetRescaleTrans(double& slope, double& intercept) const;
    void SetRescaleTrans(double slope, double intercept);

    // A number that no other volume of the process has; a copy has its own.
    int GetIdentity() const { return m_Identity; }

protected:
    void ResizeSlices(int n);  // new entries are null

    IP_Box m_Box;
    std::vector<IP_Slice*> m_Slices;
    bool m_OwnsSlices = true;

private:
    void DeleteOwnedSlices();

    int m_FirstSliceInd = 0;
    double m_Slope = 1.0;
    double m_Intercept = 0.0;
    int m_Identity = 0;
};
