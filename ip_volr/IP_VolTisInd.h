// Tissue index volume: which tissue covers each voxel of a volume.
#pragma once

#include "ip_volr/IP_VolDataProj.h"

#include <cstdint>
#include <vector>

class IP_ListVol;
class IP_BitVol;
class IP_VolRTissueList;

// For every voxel of a source volume the colour-table index of the tissue that covers it, or 15 where none does; where
// tissues overlap, the one that stands earliest in the list counts.
//
//   slice   chunk Y rows of chunk X / 2 bytes
//   byte k of a row: voxel 2k in the low 4 bits, voxel 2k + 1 in the high 4 bits
//
// Voxel (x, y) of the source is voxel (x, y) of the slice: the padding lies at the ends of rows and columns and holds
// 15, and the box says so. Index slices are never transposed.
class IP_VOLR_EXPORT IP_VolTisInd : public IP_VolDataProj {
public:
    static constexpr int kNoTissue = 15;

    IP_VolTisInd() = default;
    explicit IP_VolTisInd(IP_Box* box);
    IP_VolTisInd(const IP_VolTisInd& o);  // a view; it has no tissue list
    IP_VolTisInd& operator=(const IP_VolTisInd& o);
    ~IP_VolTisInd() override = default;

    // Reuses and allocates as IP_VolDataProj::Create does, then writes every slice in batches of about 350 million
    // bytes. Settles in the list which tissues have the volume's size and where the others lie (whole voxels, by the
    // place of their first voxel). The list is not owned and must live as long as anything is created from it; the
    // masks of the host are only read. A tissue with a negative index or one beyond 15 is never written; one to be
    // negated covers the voxels outside its mask, wherever the mask lies. volume_index: which volume of the tissues'
    // sets belongs here. False when memory or a mapping is refused.
    bool Create(const IP_VolData& source, SliceHashMap& map, bool transposed, int pd_counter, int tissue_counter,
                int render_quality, bool new_tissue, IP_VolRTissueList& tissues, unsigned volume_index);

    void subtask_copy_slices() override;

protected:
    IP_Slice* create_new_slice(MEM_PagerInfo* block, PixelDataAttributes& attributes) override;
    // Writes the index slice; the source is not read. False without tissue list or destination; true without work when
    // the destination is not mapped.
    bool copy_slice_with_tissue(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source,
                                int source_x, int source_y, int slice_index) override;

    // Without meaning for indices.
    bool copy_slice(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source, int source_x,
                    int source_y) override;
    void transpose_slice_swap_data(IP_Slice* slice, IP_Slice* work_slice, int x, int y) override;
    void reestablish_working_mem(IP_Slice* slice, IP_Slice* work_slice) override;
    bool copy_fast_slice(IP_Slice* destination, IP_Slice* source, int x, int y) override;
    bool copy_slice_with_tissue_fast(IP_Slice* source, IP_Slice* destination, IP_Slice* temp_slice, int slice_index,
                                     int x, int y) override;
    bool transpose_slice(IP_Slice* slice, IP_Slice* work_slice, int x, int y) override;

private:
    // Where a tissue is stored, and how it lies in the volume: exactly one of the pointers is set, or none.
    struct Mask {
        const IP_ListVol* list = nullptr;
        const IP_BitVol* bits = nullptr;
        const IP_Box* box = nullptr;
        int dims[3] = {0, 0, 0};
        int offset[3] = {0, 0, 0};
        int color_index = -1;
        bool negate = false;
    };

    Mask find_mask(unsigned tissue) const;
    void set_tissue_box_size_status();
    void place_box();
    bool write_slices();
    void set_tissue_line(const Mask& mask, int slice, int row, std::uint8_t* line, int line_length,
                         std::vector<std::uint8_t>& scratch) const;

    IP_VolRTissueList* m_Tissues = nullptr;
    unsigned m_VolumeIndex = 0;
    int m_BatchFirstSlice = 0;  // of the batch in progress, inclusive
    int m_BatchLastSlice = -1;
    std::vector<Mask> m_Masks;  // of the tissues that can be seen, in the order of the list
};
