// A volume as the engines take it: slices in pager blocks, placed in patient space.
#pragma once

#include "host/geometry.h"
#include "host/multi_volume.h"
#include "scene/import/imported_volume.h"
#include "scene/transfer_function.h"
#include "scene/views.h"

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace scene {

// How often each value occurs. Values are rescaled ones (the file's own unit).
class ValueHistogram {
public:
    ValueHistogram() = default;
    // Counts of the stored values first_stored, first_stored + 1, ...; those outside do not exist.
    ValueHistogram(std::vector<std::uint64_t> counts, int first_stored, double slope, double intercept);

    // The smallest value that at least a share (0 to 1) of the voxels does not exceed.
    double Percentile(double share) const;

private:
    std::vector<std::uint64_t> m_Counts;
    std::uint64_t m_Total = 0;
    int m_FirstStored = 0;
    double m_Slope = 1.0;
    double m_Intercept = 0.0;
};

// Owns the slices. Engines keep pointers into it: it must outlive them.
//
// Some sources are drawn while their slices still arrive (see GrowingSource). Drawing objects take in by themselves,
// before a frame, what has come since the last one.
class VolumeSource {
public:
    // Moves the voxels into pager blocks; the imported memory is given back to the system slice by slice, so that the
    // volume is never held twice. The imported volume's voxels (and those of its copies) are lost.
    // Throws Error when the pager refuses memory, and the host's cancellation.
    explicit VolumeSource(ImportedVolume&& imported);
    VolumeSource(const VolumeSource&) = delete;
    VolumeSource& operator=(const VolumeSource&) = delete;
    virtual ~VolumeSource() = default;

    // Everything but the voxels, of the values as they are stored here: unsigned values of 16 bits become signed ones.
    const ImportedVolume& Info() const { return m_Info; }
    StoredValues Stored() const;

    // One volume, its box in patient mm.
    IP_MultiVolData* Volumes() { return &m_Volumes; }
    IP_VolData* Volume() { return m_Volumes.GetVolData(0); }

    Subject GetSubject() const;
    Vec3 PatientPosition(const Vec3& index) const;  // of a voxel index; whole numbers are voxel centres
    Vec3 VoxelIndex(const Vec3& position_mm) const;
    // A stored value rescaled to the file's own unit.
    double Rescaled(int stored) const { return stored * m_Info.rescale_slope + m_Info.rescale_intercept; }
    int StoredAt(const std::array<int, 3>& index) const;  // the index must lie inside

    // The slices that came after the source was made, in the order in which they came. None for a whole volume.
    const std::vector<int>& Arrived() const { return m_Arrived; }
    bool HasSlice(int iz) const { return m_IsMissing.empty() || m_IsMissing[static_cast<std::size_t>(iz)] == 0; }

    // Of all slices that are there, without padding; counted at the first call and when slices have come.
    const ValueHistogram& Histogram();
    // The values between which a relative transfer function is spread: background and top of the window.
    std::array<double, 2> RelativeWindow();

protected:
    // A source that has no slices yet.
    struct WithoutSlices {};
    VolumeSource(ImportedVolume&& imported, WithoutSlices mark);

    PixelDataAttributes SliceAttributes() const;
    std::size_t SliceVoxels() const;
    // Moves a slice out of the imported voxels into a block.
    void StoreSlice(const VoxelBuffer& voxels, int iz, const std::string& id);

    ImportedVolume m_Info;
    int m_StoredOffset = 0;         // added to the imported values
    std::vector<char> m_IsMissing;  // of each slice; empty when none is
    std::vector<int> m_Arrived;
    bool m_HistogramKnown = false;

private:
    void StoreSlices(const VoxelBuffer& voxels);

    IP_MultiVolData m_Volumes;
    ValueHistogram m_Histogram;
};

// A box of dims voxels whose index-to-patient transform (3 x 4, row by row) is given.
IP_Box PatientBox(const std::array<int, 3>& dims, const std::array<double, 12>& index_to_patient);

}  // namespace scene
