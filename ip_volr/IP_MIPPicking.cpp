// Picking on a maximum-intensity projection: the viewing ray of a pixel and the brightest voxel on it.
#include "ip_volr/IP_MIPProjector.h"

#include "host/clipping.h"
#include "host/matrix_math.h"
#include "ip_volr/IP_MIPProjectorFrame.h"
#include "ip_volr/IP_VolRClipManager.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <limits>
#include <new>
#include <vector>

namespace {

using Vec3 = std::array<double, 3>;

double dot(const Vec3& a, const Vec3& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Vec3 at(const Vec3& start, const Vec3& step, double t) {
    return {start[0] + t * step[0], start[1] + t * step[1], start[2] + t * step[2]};
}

// A lattice in space: rows are the steps of one voxel in mm, then the position of voxel (0, 0, 0).
struct Lattice {
    std::array<Vec3, 4> rows;

    explicit Lattice(const IP_Box& box) : rows{} {
        float m[4][4];
        box.GetIndexToPhysicalTrans(m);
        for (std::size_t row = 0; row < 4; row++) {
            rows[row] = {m[row][0], m[row][1], m[row][2]};
        }
    }

    Vec3 direction_to_physical(const Vec3& v) const {
        Vec3 r{};
        for (std::size_t i = 0; i < 3; i++) {
            r[i] = v[0] * rows[0][i] + v[1] * rows[1][i] + v[2] * rows[2][i];
        }
        return r;
    }
    Vec3 to_physical(const Vec3& v) const { return at(direction_to_physical(v), rows[3], 1.0); }
};

// Solves x * rows = v for a 3 x 3 matrix of rows; false when it is singular.
bool solve(const std::array<Vec3, 4>& rows, const Vec3& v, Vec3& x) {
    const auto cross = [](const Vec3& a, const Vec3& b) {
        return Vec3{a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
    };
    const double det = dot(rows[0], cross(rows[1], rows[2]));
    if (!(std::fabs(det) > 0.0)) {
        return false;
    }
    x = {dot(v, cross(rows[1], rows[2])) / det, dot(v, cross(rows[2], rows[0])) / det,
         dot(v, cross(rows[0], rows[1])) / det};
    return true;
}

// Narrows [first, last], a range of the parameter t, to value + t * step <= 0.
void narrow(double value, double step, double& first, double& last) {
    if (step > 0.0) {
        last = std::min(last, -value / step);
    } else if (step < 0.0) {
        first = std::max(first, -value / step);
    } else if (value > 0.0) {
        last = -std::numeric_limits<double>::infinity();
    }
}

// Calls `use` with the equation of each plane that clips.
template <class Use>
void for_each_active_plane(IP_VolRClipManager* clip, const Use& use) {
    if (clip == nullptr) {
        return;
    }
    clip->ResetIterator();
    for (IP_ClippingPlane* plane = clip->GetNextPlane(); plane != nullptr; plane = clip->GetNextPlane()) {
        if (plane->IsActive() && !plane->IsReference()) {
            std::array<double, 4> eq{};
            plane->GetPlaneEq(eq.data());
            use(eq);
        }
    }
}

IP_VolData* volume_of(const IP_VolRParamsMIP* p, int k) {
    return p != nullptr && p->m_VolData != nullptr ? p->m_VolData->GetVolData(k) : nullptr;
}

// Reads voxels of a volume; keeps the last two slices mapped, one of even and one of odd index.
class VoxelReader {
public:
    explicit VoxelReader(IP_VolData& volume) : m_Volume(volume) {
        volume.GetBox()->GetDims(m_Dims.data());
        m_Planes.reserve(8);
    }
    ~VoxelReader() {
        for (IP_ShortSlice* slice : m_Mapped) {
            if (slice != nullptr) {
                slice->UnmapMemory();
            }
        }
    }
    VoxelReader(const VoxelReader&) = delete;
    VoxelReader& operator=(const VoxelReader&) = delete;

    void clip(IP_VolRClipManager* planes, const Lattice& lattice) {
        for_each_active_plane(planes, [&](const std::array<double, 4>& eq) {
            const Vec3 normal{eq[0], eq[1], eq[2]};
            m_Planes.push_back({dot(normal, lattice.rows[0]), dot(normal, lattice.rows[1]),
                                dot(normal, lattice.rows[2]), dot(normal, lattice.rows[3]) + eq[3]});
        });
    }
    const std::array<int, 3>& dims() const { return m_Dims; }
    bool has_failed() const { return m_HasFailed; }  // a slice that has memory could not be mapped

    // False outside the volume, outside the clipping planes, and where a slice has no memory or another size.
    bool read(const std::array<int, 3>& voxel, int& value) {
        for (std::size_t i = 0; i < 3; i++) {
            if (voxel[i] < 0 || voxel[i] >= m_Dims[i]) {
                return false;
            }
        }
        for (const std::array<double, 4>& eq : m_Planes) {
            if (eq[0] * voxel[0] + eq[1] * voxel[1] + eq[2] * voxel[2] + eq[3] > 0.0) {
                return false;
            }
        }
        const short* const pixels = mapped_slice(voxel[2]);
        if (pixels == nullptr) {
            return false;
        }
        value = pixels[static_cast<std::size_t>(voxel[1]) * static_cast<std::size_t>(m_Dims[0]) +
                       static_cast<std::size_t>(voxel[0])];
        return true;
    }

private:
    const short* mapped_slice(int z) {
        const std::size_t slot = static_cast<std::size_t>(z & 1);
        if (m_Index[slot] != z) {
            if (m_Mapped[slot] != nullptr) {
                m_Mapped[slot]->UnmapMemory();
            }
            auto* const slice = dynamic_cast<IP_ShortSlice*>(m_Volume.GetSlice(z));
            const bool fits = slice != nullptr && slice->GetAttributes().width == m_Dims[0] &&
                              slice->GetAttributes().height == m_Dims[1];
            const bool has_memory = fits && slice->GetData() != nullptr;
            m_Mapped[slot] = has_memory && slice->MapMemory() == 0 ? slice : nullptr;
            m_HasFailed = m_HasFailed || (has_memory && m_Mapped[slot] == nullptr);
            m_Index[slot] = z;
        }
        return m_Mapped[slot] != nullptr ? m_Mapped[slot]->GetMappedSlice() : nullptr;
    }

    IP_VolData& m_Volume;
    std::array<int, 3> m_Dims{};
    std::vector<std::array<double, 4>> m_Planes;
    std::array<int, 2> m_Index{-1, -1};
    std::array<IP_ShortSlice*, 2> m_Mapped{nullptr, nullptr};
    bool m_HasFailed = false;
};

// The voxel at a position; far outside, or for what is not a number, one that no volume has.
int nearest_voxel(double position) {
    constexpr double kOutside = -4.0;
    constexpr double kFarthest = 1e9;
    const double voxel = std::floor(position + 0.5);
    return static_cast<int>(voxel > kOutside ? std::min(voxel, kFarthest) : kOutside);
}

// One sample of a sheet and the voxel that stands for it.
struct Sample {
    double value;
    Vec3 place;
};

// The linear path's sample: bilinear inside the sheet across `axis`; missing neighbours give way to the nearest voxel.
bool sample_linear(VoxelReader& reader, const Vec3& position, int axis, Sample& sample) {
    const std::size_t u = axis == 0 ? 1 : 0;
    const std::size_t v = axis == 2 ? 1 : 2;
    std::array<int, 3> near{nearest_voxel(position[0]), nearest_voxel(position[1]), nearest_voxel(position[2])};
    int own = 0;
    if (!reader.read(near, own)) {
        return false;
    }
    const double fu = position[u] - near[u];
    const double fv = position[v] - near[v];
    const auto neighbour = [&](int du, int dv, int otherwise) {
        std::array<int, 3> voxel = near;
        voxel[u] += du;
        voxel[v] += dv;
        int value = 0;
        return reader.read(voxel, value) ? value : otherwise;
    };
    const int su = fu < 0.0 ? -1 : 1;
    const int sv = fv < 0.0 ? -1 : 1;
    const int beside = neighbour(su, 0, own);
    const int below = neighbour(0, sv, own);
    const int across = neighbour(su, sv, beside);
    const double wu = std::fabs(fu);
    const double wv = std::fabs(fv);
    sample.value = (1.0 - wv) * ((1.0 - wu) * own + wu * beside) + wv * ((1.0 - wu) * below + wu * across);
    sample.place = position;
    return true;
}

// The fast path's sample: the brightest of the four voxels that one reduced voxel stands for.
bool sample_fast(VoxelReader& reader, const Vec3& position, Sample& sample) {
    const int x = nearest_voxel(position[0]) & ~1;
    const int y = nearest_voxel(position[1]) & ~1;
    const int z = nearest_voxel(position[2]);
    bool found = false;
    for (int corner = 0; corner < 4; corner++) {
        const std::array<int, 3> voxel{x + (corner & 1), y + (corner >> 1), z};
        int value = 0;
        if (reader.read(voxel, value) && (!found || value > sample.value)) {
            sample.value = value;
            sample.place = {static_cast<double>(voxel[0]), static_cast<double>(voxel[1]),
                            static_cast<double>(voxel[2])};
            found = true;
        }
    }
    return found;
}

}  // namespace

bool IP_MIPProjector::ScreenRay(IP_VolRParamsMIP* p, int k, double pixel_x, double pixel_y, IP_MIPRay* ray) {
    IP_VolData* const volume = volume_of(p, k);
    if (volume == nullptr || ray == nullptr || p->m_Width <= 0 || p->m_Height <= 0) {
        return false;
    }

    // The pixel's point on the picture plane, and the plane's normal, in index coordinates of the volume.
    calc_screen_box(p);
    const Lattice screen(p->m_ScreenBox);
    const Vec3 on_plane = screen.to_physical({pixel_x, pixel_y, 0.0});
    const Lattice lattice(*volume->GetBox());
    float m[4][4];
    PhysicalToVirtual(p->m_VolData->GetBoundingBox(), p->m_ViewMatrix, m);
    std::array<Vec3, 4> to_virtual{};
    for (std::size_t row = 0; row < 4; row++) {
        for (std::size_t i = 0; i < 3; i++) {
            const Vec3 column{m[0][i], m[1][i], m[2][i]};
            to_virtual[row][i] = dot(lattice.rows[row], column) + (row == 3 ? static_cast<double>(m[3][i]) : 0.0);
        }
    }
    Vec3 point{};
    Vec3 along{};
    if (!solve(to_virtual, at(on_plane, to_virtual[3], -1.0), point) || !solve(to_virtual, {0.0, 0.0, 1.0}, along)) {
        return false;
    }
    const double voxels_per_mm = std::sqrt(dot(along, along));
    if (!std::isfinite(voxels_per_mm) || !(voxels_per_mm > 0.0)) {
        return false;
    }
    const Vec3 direction = at({}, along, 1.0 / voxels_per_mm);

    // Cut the ray at the volume's faces and at the clipping planes.
    double first = -std::numeric_limits<double>::infinity();
    double last = std::numeric_limits<double>::infinity();
    int dims[3];
    volume->GetBox()->GetDims(dims);
    for (std::size_t i = 0; i < 3; i++) {
        narrow(point[i] - (dims[i] - 0.5), direction[i], first, last);
        narrow(-0.5 - point[i], -direction[i], first, last);
    }
    const Vec3 point_mm = lattice.to_physical(point);
    const Vec3 step_mm = lattice.direction_to_physical(direction);
    for_each_active_plane(p->m_ClipManager, [&](const std::array<double, 4>& eq) {
        const Vec3 normal{eq[0], eq[1], eq[2]};
        narrow(dot(normal, point_mm) + eq[3], dot(normal, step_mm), first, last);
    });
    if (!(first < last) || !std::isfinite(first) || !std::isfinite(last)) {
        return false;
    }

    ray->length = last - first;
    ray->voxel_size = std::sqrt(dot(step_mm, step_mm));
    const Vec3 start = at(point, direction, first);
    const Vec3 start_mm = at(point_mm, step_mm, first);
    for (std::size_t i = 0; i < 3; i++) {
        ray->start[i] = start[i];
        ray->direction[i] = direction[i];
        ray->start_mm[i] = start_mm[i];
        ray->direction_mm[i] = step_mm[i] / ray->voxel_size;
    }
    return true;
}

bool IP_MIPProjector::Screen2Physical(IP_VolRParamsMIP* p, int k, double pixel_x, double pixel_y, int linear,
                                      IP_MIPPick* pick) try {
    IP_VolData* const volume = volume_of(p, k);
    m_IsComplete = true;
    if (pick == nullptr || !ScreenRay(p, k, pixel_x, pixel_y, &pick->ray)) {
        return false;
    }
    IP_MIPRay unclipped = pick->ray;
    IP_VolRClipManager* const clip = p->m_ClipManager;
    p->m_ClipManager = nullptr;
    ScreenRay(p, k, pixel_x, pixel_y, &unclipped);
    p->m_ClipManager = clip;

    // The sheets across the axis closest to the ray. Voxels count by their centres, so the planes are asked for each
    // voxel and not for the ray.
    float m[4][4];
    PhysicalToVirtual(p->m_VolData->GetBoundingBox(), p->m_ViewMatrix, m);
    IP_Box box;
    const int axis = calc_dir(volume->GetBox(), m, &box);
    const std::size_t across = static_cast<std::size_t>(axis);
    const Vec3 start{unclipped.start[0], unclipped.start[1], unclipped.start[2]};
    const Vec3 direction{unclipped.direction[0], unclipped.direction[1], unclipped.direction[2]};
    if (direction[across] == 0.0) {
        return false;
    }
    const Lattice lattice(*volume->GetBox());
    VoxelReader reader(*volume);
    reader.clip(clip, lattice);

    // A thick slice is drawn several times along its thickness: sample it as often.
    const int num_slices = reader.dims()[across];
    const int num_sheets =
        axis == 2 ? ip_volr::thick_slice_count(num_slices, volume->GetBox()->GetSliceZf()) : num_slices;
    bool found = false;
    double best = 0.0;
    Sample brightest{};
    const double weight_floor =
        p->m_DepthCueing == 1 ? std::clamp(static_cast<double>(p->m_DepthCueFloor), 0.0, 1.0) : 1.0;
    for (int sheet = 0; sheet < num_sheets; sheet++) {
        const double depth_vox = (sheet + 0.5) * num_slices / num_sheets - 0.5;
        const Vec3 position = at(start, direction, (depth_vox - start[across]) / direction[across]);
        Sample sample{};
        if (!(linear != 0 ? sample_linear(reader, position, axis, sample) : sample_fast(reader, position, sample))) {
            continue;
        }
        const Vec3 from_start = at(sample.place, start, -1.0);
        const double depth = std::clamp(dot(from_start, direction) / unclipped.length, 0.0, 1.0);
        const double weighted = p->m_DepthCueing == 1
                                    ? sample.value * (1023.0 / 1024.0 + (weight_floor - 1023.0 / 1024.0) * depth)
                                    : sample.value;
        if (!found || weighted > best) {
            best = weighted;
            brightest = sample;
            found = true;
        }
    }
    // A slice that cannot be read may be the one with the brightest voxel.
    m_IsComplete = !reader.has_failed();
    if (!found || !m_IsComplete) {
        return false;
    }

    double slope = 1.0;
    double intercept = 0.0;
    volume->GetRescaleTrans(slope, intercept);
    pick->value = static_cast<int>(std::floor(brightest.value + 0.5));
    pick->rescaled = slope * pick->value + intercept;
    const Vec3 physical = lattice.to_physical(brightest.place);
    for (std::size_t i = 0; i < 3; i++) {
        pick->voxel[i] = brightest.place[i];
        pick->physical[i] = physical[i];
    }
    return true;
} catch (const std::bad_alloc&) {
    m_IsComplete = false;
    return false;
}
