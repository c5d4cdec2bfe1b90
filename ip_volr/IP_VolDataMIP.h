// Prepared data for maximum-intensity projection: signed 16-bit slices, full size or reduced by 2 in x and y.
#pragma once

#include "host/masks.h"
#include "ip_volr/IP_VolDataProj.h"

// Signed 16-bit slices centred in their padded size; margins and the voxels of an optional tissue hold a background
// value.
//
// The voxels keep the bits of the source, which the projection compares as signed 16-bit numbers. So unsigned data of
// at most 15 bits stored, and signed data of any, project as expected; unsigned data with values of 32768 and more
// compares those as negative. A host converts such data before it hands it over.
//
// Background: the larger of the minimum value and the lowest value of the source slice's range, -2^(bits stored - 1)
// for signed slices and 0 for unsigned ones. The low 16 bits of it; in copies with tissue it is limited to 16 bits
// signed.
class IP_VOLR_EXPORT IP_VolDataMIP : public IP_VolDataProj {
public:
    IP_VolDataMIP() = default;
    explicit IP_VolDataMIP(IP_Box* box);
    IP_VolDataMIP(const IP_VolDataMIP& o);
    IP_VolDataMIP(const IP_VolDataMIP& o, bool transposed);  // a view, see IP_VolDataProj
    IP_VolDataMIP& operator=(const IP_VolDataMIP& o);
    ~IP_VolDataMIP() override = default;

    // See IP_VolDataProj. tissue: voxels to overwrite with the background, in voxels of the full-size source; not
    // owned, null for none.
    bool Create(const IP_VolData& source, SliceHashMap& map, const IP_ListVol* tissue, bool new_tissue, int factor,
                bool transposed, int pd_counter, int tissue_counter, int render_quality, int minimum_value);
    bool LeanCreate(const IP_VolData& source, SliceHashMap& map, const IP_ListVol* tissue, bool new_tissue, int factor,
                    bool transposed, int pd_counter, int tissue_counter, int render_quality, int minimum_value);

    // False at once with a null tissue; an empty list volume removes a mask. See IP_VolDataProj.
    bool CopyFastFromSlow(IP_VolData* source, IP_ListVol* tissue, bool transposed, int pd_counter, int tissue_counter,
                          int minimum_value);
    bool CopyWithTissue(IP_VolData* source, IP_ListVol* tissue, bool transposed, int pd_counter, int tissue_counter,
                        int minimum_value, bool run);

    const IP_ListVol* GetTissue() const { return m_Tissue; }
    void SetSlowTissue(const IP_ListVol* tissue) { m_Tissue = tissue; }

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
    bool applies_tissue() const override { return m_Tissue != nullptr; }

private:
    short background(const IP_Slice* source, const IP_ListVol* tissue) const;
    bool copy_full(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source, int source_x,
                   int source_y, const IP_ListVol* tissue, int slice_index);
    bool copy_reduced(IP_Slice* destination, int x, int y, IP_Slice* source, const IP_ListVol* tissue,
                      IP_Slice* temp_slice, int slice_index);

    const IP_ListVol* m_Tissue = nullptr;
    int m_MinimumValue = 0;
};
