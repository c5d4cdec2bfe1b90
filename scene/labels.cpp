#include "scene/labels.h"

#include "scene/error.h"
#include "scene/parallel.h"
#include "scene/vector3.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <memory>

namespace scene {

namespace {

constexpr std::size_t kNumLabels = 65536;
constexpr double kSamePlace_vox = 0.1;

using Affine = std::array<double, 12>;  // 3 x 4, row by row
using LabelNumbers = std::array<std::uint16_t, kNumLabels>;

Vec3 Column(const Affine& m, std::size_t i) {
    return {m[i], m[4 + i], m[8 + i]};
}

// From indices of one grid to indices of another. The other's columns are orthogonal.
Affine IndexToIndex(const Affine& from, const Affine& to) {
    Affine m{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const Vec3 step = Column(to, axis) * (1.0 / Dot(Column(to, axis), Column(to, axis)));
        for (std::size_t i = 0; i < 3; ++i) {
            m[4 * axis + i] = Dot(Column(from, i), step);
        }
        m[4 * axis + 3] = Dot(Column(from, 3) - Column(to, 3), step);
    }
    return m;
}

double At(const Affine& m, std::size_t axis, const std::array<double, 3>& index) {
    return m[4 * axis] * index[0] + m[4 * axis + 1] * index[1] + m[4 * axis + 2] * index[2] + m[4 * axis + 3];
}

// The transform in whole numbers.
using WholeAffine = std::array<std::int64_t, 12>;

WholeAffine Rounded(const Affine& m) {
    WholeAffine whole{};
    std::transform(m.begin(), m.end(), whole.begin(), [](double v) { return std::llround(v); });
    return whole;
}

// Whether the whole-number transform goes along the axes in steps of one voxel and leads to the same places all over
// the volume. (Rows that are each a unit step belong to different axes, else some place is far off.)
bool IsSamePlace(const Affine& m, const WholeAffine& whole, const std::array<int, 3>& dims) {
    for (std::size_t axis = 0; axis < 3; ++axis) {
        int steps = 0;
        for (std::size_t i = 0; i < 3; ++i) {
            steps += static_cast<int>(std::abs(whole[4 * axis + i]));
        }
        if (steps != 1) {
            return false;
        }
        // The difference is linear: the corners tell.
        for (unsigned corner = 0; corner < 8; ++corner) {
            double difference = m[4 * axis + 3] - static_cast<double>(whole[4 * axis + 3]);
            for (std::size_t i = 0; i < 3; ++i) {
                const double last = (corner >> i & 1U) != 0 ? dims[i] - 1.0 : 0.0;
                difference += (m[4 * axis + i] - static_cast<double>(whole[4 * axis + i])) * last;
            }
            if (!(std::abs(difference) <= kSamePlace_vox)) {
                return false;
            }
        }
    }
    return true;
}

// Cuts [first, last) to the i with 0 <= at + i * step < size, for a step of -1, 0 or 1.
void KeepInside(std::int64_t at, std::int64_t step, std::int64_t size, std::int64_t& first, std::int64_t& last) {
    if (step > 0) {
        first = std::max(first, -at);
        last = std::min(last, size - at);
    } else if (step < 0) {
        first = std::max(first, at - size + 1);
        last = std::min(last, at + 1);
    } else if (at < 0 || at >= size) {
        last = first;
    }
}

// A label map and how its numbers become those of the volume.
struct Overlay {
    const std::uint16_t* labels;
    const std::array<int, 3>& dims;
    const LabelNumbers& numbers;

    // Linear index of a voxel.
    std::int64_t Offset(std::int64_t x, std::int64_t y, std::int64_t z) const {
        return (z * dims[1] + y) * dims[0] + x;
    }
    void Lay(std::int64_t offset, std::uint16_t& onto) const {
        const std::uint16_t number = numbers[labels[offset]];
        onto = number != 0 ? number : onto;
    }
};

// A row of the volume whose voxels coincide with voxels of the map. Returns how many do.
std::int64_t LayRow(const Overlay& overlay, const WholeAffine& m, int iy, int iz, int width, std::uint16_t* row) {
    std::int64_t at[3];
    std::int64_t first = 0;
    std::int64_t last = width;
    for (std::size_t axis = 0; axis < 3; ++axis) {
        at[axis] = m[4 * axis + 1] * iy + m[4 * axis + 2] * iz + m[4 * axis + 3];
        KeepInside(at[axis], m[4 * axis], overlay.dims[axis], first, last);
    }
    if (first >= last) {
        return 0;
    }
    const std::int64_t step = overlay.Offset(m[0], m[4], m[8]);
    std::int64_t offset = overlay.Offset(at[0], at[1], at[2]) + first * step;
    for (std::int64_t ix = first; ix < last; ++ix, offset += step) {
        overlay.Lay(offset, row[ix]);
    }
    return last - first;
}

// A row of the volume, each voxel by the nearest voxel of the map. Returns how many lie inside the map.
std::int64_t LayNearestRow(const Overlay& overlay, const Affine& m, int iy, int iz, int width, std::uint16_t* row) {
    std::int64_t count = 0;
    const std::array<double, 3> start = {0.0, static_cast<double>(iy), static_cast<double>(iz)};
    const double at[3] = {At(m, 0, start), At(m, 1, start), At(m, 2, start)};
    for (int ix = 0; ix < width; ++ix) {
        std::int64_t nearest[3];
        bool inside = true;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            const double position = std::floor(at[axis] + m[4 * axis] * ix + 0.5);
            inside = inside && position >= 0.0 && position < overlay.dims[axis];
            nearest[axis] = inside ? static_cast<std::int64_t>(position) : 0;
        }
        if (inside) {
            overlay.Lay(overlay.Offset(nearest[0], nearest[1], nearest[2]), row[ix]);
            ++count;
        }
    }
    return count;
}

// Which labels occur in a buffer, as flags.
std::vector<std::uint8_t> Occurring(const std::uint16_t* labels, std::size_t slice_voxels, int num_slices) {
    const auto flags = std::make_unique<std::array<std::atomic<std::uint8_t>, kNumLabels>>();
    ForEachIndex(num_slices, [&](int iz) {
        const std::uint16_t* const slice = labels + slice_voxels * static_cast<std::size_t>(iz);
        std::uint16_t last_seen = 0;
        for (std::size_t i = 0; i < slice_voxels; ++i) {
            if (slice[i] != last_seen) {
                last_seen = slice[i];
                (*flags)[last_seen].store(1, std::memory_order_relaxed);
            }
        }
    });
    std::vector<std::uint8_t> occurring(flags->begin(), flags->end());
    occurring[0] = 0;
    return occurring;
}

std::size_t SliceVoxels(const std::array<int, 3>& dims) {
    return static_cast<std::size_t>(dims[0]) * static_cast<std::size_t>(dims[1]);
}

// Two grids in words.
std::string Grid(const std::array<int, 3>& dims, const Affine& index_to_patient) {
    char text[160];
    std::snprintf(text, sizeof text, "%dx%dx%d voxels of %.4gx%.4gx%.4g mm", dims[0], dims[1], dims[2],
                  Length(Column(index_to_patient, 0)), Length(Column(index_to_patient, 1)),
                  Length(Column(index_to_patient, 2)));
    return text;
}

}  // namespace

LabelVolume::LabelVolume(const ImportedVolume& grid) : m_Dims(grid.dims), m_IndexToPatient(grid.index_to_patient) {}

const std::uint16_t* LabelVolume::Slice(int iz) const {
    return reinterpret_cast<const std::uint16_t*>(m_Labels.data()) + SliceVoxels(m_Dims) * static_cast<std::size_t>(iz);
}

void LabelVolume::Add(const ImportedVolume& map, bool resample, const std::string& subject) {
    // Where the volume's voxels lie in the map.
    const Affine to_map = IndexToIndex(m_IndexToPatient, map.index_to_patient);
    const WholeAffine whole = Rounded(to_map);
    const bool same_place = IsSamePlace(to_map, whole, m_Dims);
    if (!same_place && !resample) {
        throw Error(ErrorKind::kInput, subject,
                    "its grid (" + Grid(map.dims, map.index_to_patient) + ") is not that of the volume (" +
                        Grid(m_Dims, m_IndexToPatient) + ")",
                    "bring it to the volume's grid with --resample-labels");
    }

    // Numbers of its labels.
    const auto* const labels = reinterpret_cast<const std::uint16_t*>(map.voxels.data());
    const std::vector<std::uint8_t> occurring = Occurring(labels, SliceVoxels(map.dims), map.dims[2]);
    const auto numbers = std::make_unique<LabelNumbers>();
    std::size_t next = m_HasMap ? (m_Present.empty() ? 0 : static_cast<std::size_t>(m_Present.back())) + 1 : 0;
    for (std::size_t label = 1; label < kNumLabels; ++label) {
        if (occurring[label] != 0) {
            const std::size_t number = m_HasMap ? next++ : label;
            if (number >= kNumLabels) {
                throw Error(ErrorKind::kInput, subject, "together the maps have more than 65535 labels", "");
            }
            (*numbers)[label] = static_cast<std::uint16_t>(number);
        }
    }

    m_Present.reserve(m_Present.size() + static_cast<std::size_t>(std::count(occurring.begin(), occurring.end(), 1)));

    // Lay it over the volume; a first map that covers the volume voxel by voxel is taken as it is, and copied before
    // the next one is laid over it.
    constexpr WholeAffine kIdentity = {1, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0};
    const bool taken = !m_HasMap && same_place && whole == kIdentity && map.dims == m_Dims;
    if (taken) {
        m_Labels = map.voxels;
    } else if (!m_HasMap || m_IsShared) {
        const VoxelBuffer own(SliceVoxels(m_Dims) * static_cast<std::size_t>(m_Dims[2]));
        std::copy_n(m_Labels.data(), m_HasMap ? own.size() : 0, own.data());
        m_Labels = own;
    }
    m_IsShared = taken;
    const Overlay overlay{labels, map.dims, *numbers};
    std::atomic<std::int64_t> num_inside{taken ? 1 : 0};
    ForEachIndex(taken ? 0 : m_Dims[2], [&](int iz) {
        std::int64_t count = 0;
        auto* row = const_cast<std::uint16_t*>(Slice(iz));
        for (int iy = 0; iy < m_Dims[1]; ++iy, row += m_Dims[0]) {
            count += same_place ? LayRow(overlay, whole, iy, iz, m_Dims[0], row)
                                : LayNearestRow(overlay, to_map, iy, iz, m_Dims[0], row);
        }
        num_inside.fetch_add(count, std::memory_order_relaxed);
    });
    if (num_inside.load() == 0) {
        throw Error(ErrorKind::kInput, subject, "no voxel of it lies in the volume",
                    "give a label map of this volume; both need their place in the patient");
    }

    // A label that the volume does not show is still one of the map's.
    for (std::size_t label = 1; label < kNumLabels; ++label) {
        if (occurring[label] != 0) {
            m_Present.push_back((*numbers)[label]);
        }
    }
    m_HasMap = true;
}

}  // namespace scene
