// Prepared data for picking on volume renderings: one bit per voxel, full size or reduced by 2 in x and y.
#pragma once

#include "ip_volr/IP_VolDataProj.h"

#include <cstdint>
#include <memory>
#include <vector>

// Bits, eight voxels a byte, lowest bit first, rows without gaps (a row is a multiple of 16 voxels).
class IP_VOLR_EXPORT IP_OpacitySlice : public IP_Slice {
public:
    using IP_Slice::IP_Slice;
    unsigned char* GetMappedSlice() const { return static_cast<unsigned char*>(MappedPixels()); }
};

// For every voxel whether its colour table makes it opaque; a reduced voxel when one of its four voxels is. Slices are
// centred in their padded size, margins are not opaque.
//
// Opaque is a voxel whose table entry has an opacity (highest byte) of at least half the greatest of its table, or of
// at least 128, and never one of 0. The table is that of the voxel's tissue, 15 without tissues.
//
//   colours   16 tables, each pointing at the entry of stored value 0; tables reach from the lowest to the highest
//             value that the bits stored of the source's first slice allow. Only read while the call runs.
//   tissues   tissue-index slices (IP_TisIndSlice), voxel (x, y) of the source at (x, y) of the slice; null for none.
//             Not owned; must live as long as slices are filled or read from it.
//
// The tissue counter versions tissues and tables together.
class IP_VOLR_EXPORT IP_VolDataVolR : public IP_VolDataProj {
public:
    IP_VolDataVolR() = default;
    explicit IP_VolDataVolR(IP_Box* box);
    IP_VolDataVolR(const IP_VolDataVolR& o);
    IP_VolDataVolR(const IP_VolDataVolR& o, bool transposed);  // a view, see IP_VolDataProj
    IP_VolDataVolR& operator=(const IP_VolDataVolR& o);
    ~IP_VolDataVolR() override = default;

    // See IP_VolDataProj. False also without tables.
    bool Create(const IP_VolData& source, SliceHashMap& map, const unsigned int** colours, IP_VolData* tissues,
                int factor, bool transposed, int pd_counter, int tissue_counter, int render_quality);
    // Without blocks: voxels are looked up in the source when they are read.
    bool LeanCreate(const IP_VolData& source, SliceHashMap& map, const unsigned int** colours, IP_VolData* tissues,
                    int factor, bool transposed, int pd_counter, int tissue_counter, int render_quality);

    // Refill every slice after a change of tables or tissues. False also without tables.
    bool CopyFastFromSlow(IP_VolData* source, const unsigned int** colours, IP_VolData* tissues, bool transposed,
                          int pd_counter, int tissue_counter);
    bool CopyWithTissue(IP_VolData* source, const unsigned int** colours, IP_VolData* tissues, bool transposed,
                        int pd_counter, int tissue_counter, bool run);

    // Tissues and tables of lean data; nothing is filled. Null tables leave the tables as they are. Throws
    // std::bad_alloc, with nothing changed, when there is no memory for the tables.
    void SetSlowTissues(IP_VolData* tissues, const unsigned int** colours);

    // Reads voxels one by one and keeps one slice mapped. One thread each.
    class IP_VOLR_EXPORT Reader {
    public:
        explicit Reader(const IP_VolDataVolR& data) : m_Data(data) {}
        ~Reader() { Release(); }
        Reader(const Reader&) = delete;
        Reader& operator=(const Reader&) = delete;

        // Whether voxel (x, y, z) is opaque; x and y count voxels of the reduced data, without margins. False outside.
        bool IsOpaque(int x, int y, int z);
        // Whether some slice that was asked for could not be mapped; its voxels counted as not opaque.
        bool HasFailed() const { return m_HasFailed; }

    private:
        bool MapSlice(int z);
        void Release();
        bool IsOpaqueInBits(int x, int y) const;
        bool IsOpaqueInSource(int x, int y) const;

        const IP_VolDataVolR& m_Data;
        int m_MappedIndex = -1;
        IP_Slice* m_Bits = nullptr;    // mapped, or
        IP_Slice* m_Source = nullptr;  // mapped, with
        IP_Slice* m_Tissue = nullptr;  // mapped or none
        bool m_HasFailed = false;
    };

protected:
    IP_Slice* create_new_slice(MEM_PagerInfo* block, PixelDataAttributes& attributes) override;
    bool copy_slice(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source, int source_x,
                    int source_y) override;
    bool copy_slice_with_tissue(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source,
                                int source_x, int source_y, int slice_index) override;
    void transpose_slice_swap_data(IP_Slice* slice, IP_Slice* work_slice, int x, int y) override;
    void reestablish_working_mem(IP_Slice* slice, IP_Slice* work_slice) override;
    bool copy_fast_slice(IP_Slice* destination, IP_Slice* source, int x, int y) override;
    bool copy_slice_with_tissue_fast(IP_Slice* source, IP_Slice* destination, IP_Slice* temp_slice, int slice_index,
                                     int x, int y) override;
    bool transpose_slice(IP_Slice* slice, IP_Slice* work_slice, int x, int y) override;
    bool applies_tissue() const override { return true; }

private:
    // Which values are opaque, for each tissue.
    struct OpaqueValues {
        int bits = 16;
        int lowest = 0;
        std::vector<std::uint8_t> flags;  // 0 or 1; index tissue << bits | value - lowest

        OpaqueValues(const unsigned int** colours, const PixelDataAttributes& attributes);
        // Table position of a pixel; values that the bits do not allow count as the nearest that they do.
        std::size_t position(short pixel) const;
    };

    static std::shared_ptr<const OpaqueValues> make_tables(const IP_VolData& source, const unsigned int** colours);
    bool take_tables(const IP_VolData* source, const unsigned int** colours, IP_VolData* tissues);
    bool fill(IP_Slice* destination, int x, int y, IP_Slice* source, int slice_index);

    std::shared_ptr<const OpaqueValues> m_Opaque;
    IP_VolData* m_Tissues = nullptr;
};
