#include "scene/volume_source.h"

#include "scene/error.h"
#include "scene/parallel.h"
#include "scene/slice_blocks.h"

#include <algorithm>
#include <atomic>

namespace scene {

namespace {

// A column of the 3 x 4 transform.
Vec3 Column(const std::array<double, 12>& m, std::size_t i) {
    return {m[i], m[4 + i], m[8 + i]};
}

}  // namespace

ValueHistogram::ValueHistogram(std::vector<std::uint64_t> counts, int first_stored, double slope, double intercept)
    : m_Counts(std::move(counts)), m_FirstStored(first_stored), m_Slope(slope), m_Intercept(intercept) {
    for (const std::uint64_t n : m_Counts) {
        m_Total += n;
    }
}

double ValueHistogram::Percentile(double share) const {
    const double wanted = share * static_cast<double>(m_Total);
    std::uint64_t seen = 0;
    for (std::size_t i = 0; i < m_Counts.size(); ++i) {
        seen += m_Counts[i];
        if (m_Counts[i] > 0 && static_cast<double>(seen) >= wanted) {
            return (m_FirstStored + static_cast<double>(i)) * m_Slope + m_Intercept;
        }
    }
    return m_Intercept;
}

IP_Box PatientBox(const std::array<int, 3>& dims, const std::array<double, 12>& index_to_patient) {
    IP_Box box(dims[0], dims[1], dims[2]);
    float vecs[3][3];
    Vec3 corner = Column(index_to_patient, 3);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const Vec3 step = Column(index_to_patient, axis);
        const Vec3 side = step * dims[axis];
        corner = corner - step * 0.5;
        vecs[axis][0] = static_cast<float>(side.x);
        vecs[axis][1] = static_cast<float>(side.y);
        vecs[axis][2] = static_cast<float>(side.z);
    }
    const float start[3] = {static_cast<float>(corner.x), static_cast<float>(corner.y), static_cast<float>(corner.z)};
    box.SetParams(vecs);
    box.SetStart(start);
    return box;
}

VolumeSource::VolumeSource(ImportedVolume&& imported) : VolumeSource(std::move(imported), WithoutSlices()) {
    StoreSlices(m_Info.voxels);
    m_Info.voxels = VoxelBuffer();
}

VolumeSource::VolumeSource(ImportedVolume&& imported, WithoutSlices /*mark*/) : m_Info(std::move(imported)) {
    m_StoredOffset = AsSigned(m_Info);
    IP_Box box = PatientBox(m_Info.dims, m_Info.index_to_patient);
    const auto volume = std::make_shared<IP_VolData>(&box, m_Info.dims[2]);
    volume->SetRescaleTrans(m_Info.rescale_slope, m_Info.rescale_intercept);
    m_Volumes.AddVolData(volume);
}

PixelDataAttributes VolumeSource::SliceAttributes() const {
    return {m_Info.dims[0], m_Info.dims[1], Stored().bits, m_Info.is_signed};
}

std::size_t VolumeSource::SliceVoxels() const {
    return static_cast<std::size_t>(m_Info.dims[0]) * static_cast<std::size_t>(m_Info.dims[1]);
}

void VolumeSource::StoreSlices(const VoxelBuffer& voxels) {
    const std::string series = UniqueSeriesName();
    ForEachIndex(m_Info.dims[2], [&](int iz) { StoreSlice(voxels, iz, series + std::to_string(iz)); });
}

void VolumeSource::StoreSlice(const VoxelBuffer& voxels, int iz, const std::string& id) {
    std::int16_t* const from = voxels.data() + SliceVoxels() * static_cast<std::size_t>(iz);
    Volume()->SetSlice(SliceOf(BlockOf(from, SliceVoxels(), m_StoredOffset), SliceAttributes(), id).release(), iz);
    GiveBack(from, SliceVoxels() * 2);
}

StoredValues VolumeSource::Stored() const {
    return {m_Info.is_signed, std::clamp(m_Info.bits_stored, 8, 16), m_Info.rescale_slope, m_Info.rescale_intercept};
}

Vec3 VolumeSource::PatientPosition(const Vec3& index) const {
    const std::array<double, 12>& m = m_Info.index_to_patient;
    return Column(m, 0) * index.x + Column(m, 1) * index.y + Column(m, 2) * index.z + Column(m, 3);
}

Vec3 VolumeSource::VoxelIndex(const Vec3& position_mm) const {
    // Columns are orthogonal, so the inverse is a projection on each.
    const std::array<double, 12>& m = m_Info.index_to_patient;
    const Vec3 p = position_mm - Column(m, 3);
    const auto along = [&](std::size_t axis) {
        return Dot(p, Column(m, axis)) / Dot(Column(m, axis), Column(m, axis));
    };
    return {along(0), along(1), along(2)};
}

Subject VolumeSource::GetSubject() const {
    const Vec3 middle = {0.5 * (m_Info.dims[0] - 1), 0.5 * (m_Info.dims[1] - 1), 0.5 * (m_Info.dims[2] - 1)};
    double squared = 0.0;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const double extent = m_Info.dims[axis] * m_Info.spacing_mm[axis];
        squared += extent * extent;
    }
    // One slice more, as the projection of slices allows for.
    return {PatientPosition(middle), std::sqrt(squared) * (m_Info.dims[2] + 1.0) / m_Info.dims[2]};
}

int VolumeSource::StoredAt(const std::array<int, 3>& index) const {
    auto* const slice = static_cast<IP_ShortSlice*>(m_Volumes.GetVolData(0)->GetSlice(index[2]));
    if (slice == nullptr || slice->MapMemory() != 0) {
        throw Error(ErrorKind::kFailed, "volume", "a slice cannot be brought back to memory",
                    "free memory and try again");
    }
    const std::size_t i = static_cast<std::size_t>(index[1]) * static_cast<std::size_t>(m_Info.dims[0]) +
                          static_cast<std::size_t>(index[0]);
    const short stored = slice->GetMappedSlice()[i];
    slice->UnmapMemory();
    return m_Info.is_signed ? stored : static_cast<unsigned short>(stored);
}

const ValueHistogram& VolumeSource::Histogram() {
    if (m_HistogramKnown) {
        return m_Histogram;
    }
    std::vector<std::atomic<std::uint64_t>> totals(65536);
    const std::size_t slice_voxels = SliceVoxels();
    ForEachIndex(m_Info.dims[2], [&](int iz) {
        if (!HasSlice(iz)) {
            return;
        }
        std::vector<std::uint32_t> counts(65536);  // before the mapping, which nothing would end
        auto* const slice = static_cast<IP_ShortSlice*>(Volume()->GetSlice(iz));
        if (slice->MapMemory() != 0) {
            throw Error(ErrorKind::kFailed, "volume", "a slice cannot be brought back to memory",
                        "free memory and try again");
        }
        const short* const pixels = slice->GetMappedSlice();
        for (std::size_t i = 0; i < slice_voxels; ++i) {
            ++counts[static_cast<std::uint16_t>(pixels[i])];
        }
        slice->UnmapMemory();
        for (std::size_t v = 0; v < counts.size(); ++v) {
            if (counts[v] != 0) {
                totals[v].fetch_add(counts[v], std::memory_order_relaxed);
            }
        }
    });
    // Ascending values: two's complement starts at the middle.
    std::vector<std::uint64_t> ascending(65536);
    const std::size_t origin = m_Info.is_signed ? 32768 : 0;
    for (std::size_t v = 0; v < ascending.size(); ++v) {
        ascending[(v + origin) & 65535] = totals[v].load();
    }
    if (m_Info.padding_value) {
        ascending[static_cast<std::size_t>(*m_Info.padding_value + static_cast<int>(origin)) & 65535] = 0;
    }
    m_Histogram =
        ValueHistogram(std::move(ascending), -static_cast<int>(origin), m_Info.rescale_slope, m_Info.rescale_intercept);
    m_HistogramKnown = true;
    return m_Histogram;
}

std::array<double, 2> VolumeSource::RelativeWindow() {
    const double background = Histogram().Percentile(0.01);
    const double top = Histogram().Percentile(0.995);
    return {background, std::max(top, background + std::abs(m_Info.rescale_slope))};
}

}  // namespace scene
