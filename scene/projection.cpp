#include "scene/projection.h"

#include "host/tasks.h"
#include "scene/error.h"

#include <algorithm>
#include <cmath>

namespace scene {

namespace {

// The frame of the projection: voxel axes along x, y and z in mm. The first slice lies at z = slice distance over pixel
// width, from which the projector takes how often to draw thick slices.
IP_Box ProjectionBox(const ImportedVolume& info) {
    const auto sx = static_cast<float>(info.spacing_mm[0]);
    const auto sy = static_cast<float>(info.spacing_mm[1]);
    const auto sz = static_cast<float>(info.spacing_mm[2]);
    IP_Box box(info.dims[0], info.dims[1], info.dims[2], sx, sy, sz);
    const float start[3] = {0.0F, 0.0F, sz / sx - 0.5F * sz};
    box.SetStart(start);
    return box;
}

Vec3 AxisOf(const ImportedVolume& info, std::size_t axis) {
    const std::array<double, 12>& m = info.index_to_patient;
    return Normalised({m[axis], m[4 + axis], m[8 + axis]});
}

[[noreturn]] void NoMemory() {
    throw Error(ErrorKind::kFailed, "mip", "no memory for the projection", "free memory or use a smaller picture");
}

std::uint32_t Level(double value, const DisplayWindow& window, double white) {
    const double share = (value - window.centre) / window.width + 0.5;
    return static_cast<std::uint32_t>(std::lround(std::clamp(share, 0.0, 1.0) * white));
}

}  // namespace

std::vector<ClipPlane> PlanesOf(const Slab& slab, const Camera& camera) {
    const Vec3 middle = camera.middle_mm + camera.into * slab.offset_mm;
    std::vector<ClipPlane> planes;
    for (const double side : {1.0, -1.0}) {
        const Vec3 n = camera.into * side;
        planes.push_back({n.x, n.y, n.z, 0.5 * slab.thickness_mm - Dot(n, middle)});
    }
    return planes;
}

Projection::Projection(VolumeSource& source, bool linear)
    : m_Source(source), m_Linear(linear), m_Volume(std::make_shared<IP_VolData>(*source.Volume())) {
    *m_Volume->GetBox() = ProjectionBox(source.Info());
    m_Params.m_VolData = std::make_shared<IP_MultiVolData>();
    m_Params.m_VolData->AddVolData(m_Volume);
    m_NumSeen = source.Arrived().size();
    m_BoxB.m_MaxIntoOutput = 1;
}

Projection::~Projection() {
    IP_MIPProjector::FreePictures(&m_Params, &m_BoxA, &m_BoxB);
}

void Projection::Prepare() {
    TakeArrivals();
    if (m_Linear || m_Params.m_AltVolData != nullptr) {
        return;
    }
    const auto prepared = m_Prepared != nullptr ? m_Prepared : std::make_shared<IP_MultiVolDataIncMIP>();
    constexpr int kReduction = 2;
    IP_MultiRealListVol masks;
    masks.AddRealListVol(m_Mask.get());
    if (!prepared->Rebuild(m_Params.m_VolData.get(), m_Mask != nullptr ? &masks : nullptr, m_Mask != nullptr,
                           kReduction, 1, m_MaskVersion, 0, false, m_Source.Info().min_value)) {
        TCO_RunnableSelf().Service();
        NoMemory();
    }
    m_Prepared = prepared;
    m_Params.m_AltVolData = prepared;
}

// The linear path reads the source's slices themselves. Prepared slices are found again by their identities, so that
// only those that have come are prepared.
void Projection::TakeArrivals() {
    const std::size_t num_arrived = m_Source.Arrived().size();
    if (m_NumSeen == num_arrived) {
        return;
    }
    if (m_Linear && m_Mask != nullptr) {
        SetMask(m_Mask);
    } else if (m_Prepared != nullptr) {
        m_Params.m_AltVolData = nullptr;
        m_Prepared->remove_slices();
    }
    m_NumSeen = num_arrived;
}

void Projection::SetClipping(const std::vector<ClipPlane>& planes) {
    std::vector<ClipPlane> copies = planes;
    m_Clip = MakeClip(copies, m_Slab, m_Camera);
    m_Params.m_ClipManager = m_Clip.get();
    m_Planes.swap(copies);
}

void Projection::SetMask(std::shared_ptr<IP_RealListVol> mask) {
    if (m_Linear) {
        auto masked =
            mask != nullptr ? std::make_unique<MaskedVolume>(m_Source, *mask, m_Source.Info().min_value) : nullptr;
        const auto volume = std::make_shared<IP_VolData>(masked != nullptr ? *masked->Volume() : *m_Source.Volume());
        *volume->GetBox() = ProjectionBox(m_Source.Info());
        const auto volumes = std::make_shared<IP_MultiVolData>();
        volumes->AddVolData(volume);
        m_Params.m_VolData = volumes;
        m_Volume = volume;
        m_Masked = std::move(masked);
    }
    std::swap(m_Mask, mask);
    ++m_MaskVersion;
    if (m_Params.m_AltVolData == nullptr) {
        return;
    }
    try {
        PassMask();
    } catch (...) {
        // Half of the slices may have the new mask: the next frame prepares them anew.
        m_Params.m_AltVolData = nullptr;
        m_Prepared = nullptr;
        m_Mask = std::move(mask);
        throw;
    }
}

// Refills the prepared slices, which go on pointing at the mask.
void Projection::PassMask() {
    if (m_Mask == nullptr) {
        // An empty one brings back what an earlier one left out.
        m_Mask = std::make_shared<IP_RealListVol>(ProjectionBox(m_Source.Info()));
    }
    IP_MultiRealListVol masks;
    masks.AddRealListVol(m_Mask.get());
    if (!m_Prepared->CopyFastFromSlow(m_Params.m_VolData.get(), &masks, false, 1, m_MaskVersion,
                                      m_Source.Info().min_value)) {
        TCO_RunnableSelf().Service();
        NoMemory();
    }
}

void Projection::SetSlab(const std::optional<Slab>& slab) {
    m_Clip = MakeClip(m_Planes, slab, m_Camera);
    m_Params.m_ClipManager = m_Clip.get();
    m_Slab = slab;
}

void Projection::SetDepthCue(const std::optional<double>& floor) {
    m_Params.m_DepthCueing = floor ? 1 : 0;
    m_Params.m_DepthCueFloor = static_cast<float>(floor.value_or(1.0));
}

void Projection::SetView(const Camera& camera, const View& view) {
    m_Clip = MakeClip(m_Planes, m_Slab, camera);
    m_Params.m_ClipManager = m_Clip.get();
    m_Camera = camera;
    const std::array<Vec3, 3> screen = {camera.right, camera.down, camera.into};
    for (std::size_t i = 0; i < 4; ++i) {
        for (std::size_t j = 0; j < 4; ++j) {
            m_Params.m_ViewMatrix[i][j] = i < 3 && j < 3
                                              ? static_cast<float>(Dot(AxisOf(m_Source.Info(), i), screen[j]))
                                              : (i == j ? 1.0F : 0.0F);
        }
    }
    m_Params.m_Zoom = static_cast<float>(view.zoom);
    // The picture's frame moves against its content.
    m_Params.m_PanX = static_cast<float>(-view.pan_x);
    m_Params.m_PanY = static_cast<float>(-view.pan_y);
    m_Params.m_Width = view.width;
    m_Params.m_Height = view.height;
    m_Projector.Reset(&m_Params, 1);
}

// Planes and slab as the engine takes them; null when there are none.
std::unique_ptr<IP_VolRClipManager> Projection::MakeClip(std::vector<ClipPlane> planes, const std::optional<Slab>& slab,
                                                         const Camera& camera) {
    if (slab) {
        const std::vector<ClipPlane> faces = PlanesOf(*slab, camera);
        planes.insert(planes.end(), faces.begin(), faces.end());
    }
    if (planes.empty()) {
        return nullptr;
    }
    // Patient planes in the projection's frame: normals by components along the voxel axes, distances from voxel (0, 0,
    // 0).
    auto clip = std::make_unique<IP_VolRClipManager>();
    const ImportedVolume& info = m_Source.Info();
    const Vec3 first_voxel = m_Source.PatientPosition({0.0, 0.0, 0.0});
    float to_physical[4][4];
    m_Volume->GetBox()->GetIndexToPhysicalTrans(to_physical);
    int id = 0;
    for (const ClipPlane& p : planes) {
        const Vec3 normal = {p.a, p.b, p.c};
        double equation[4] = {0.0, 0.0, 0.0, Dot(normal, first_voxel) + p.d};
        for (std::size_t axis = 0; axis < 3; ++axis) {
            equation[axis] = Dot(normal, AxisOf(info, axis));
            equation[3] -= equation[axis] * to_physical[3][axis];
        }
        // The engine keeps what is not positive.
        const float negated[4] = {static_cast<float>(-equation[0]), static_cast<float>(-equation[1]),
                                  static_cast<float>(-equation[2]), static_cast<float>(-equation[3])};
        clip->SetClipPlane(id++, negated);
    }
    return clip;
}

ProjectedPicture Projection::Draw() {
    Prepare();
    ProjectedPicture picture{m_Params.m_Width, m_Params.m_Height, {}};
    const int floor = m_Source.Info().min_value;
    picture.stored.assign(static_cast<std::size_t>(picture.width) * static_cast<std::size_t>(picture.height),
                          static_cast<std::int16_t>(floor));
    m_Params.m_OutputImage = picture.stored.data();
    m_Projector.Project(&m_Params, &m_BoxA, &m_BoxB, m_Linear ? 1 : 0, 0, floor);
    if (m_Projector.IsComplete()) {
        m_Projector.Shear(&m_Params, &m_BoxA, floor);
        m_Projector.Shear(&m_Params, &m_BoxB, floor);
    }
    m_Params.m_OutputImage = nullptr;
    if (!m_Projector.IsComplete()) {
        TCO_RunnableSelf().Service();
        NoMemory();
    }
    return picture;
}

std::optional<IP_MIPPick> Projection::Pick(double pixel_x, double pixel_y) {
    IP_MIPPick pick;
    const bool found = m_Projector.Screen2Physical(&m_Params, 0, pixel_x, pixel_y, m_Linear ? 1 : 0, &pick);
    if (!m_Projector.IsComplete()) {
        throw Error(ErrorKind::kFailed, "pick", "a slice cannot be brought back to memory",
                    "free memory and try again");
    }
    return found ? std::optional(pick) : std::nullopt;
}

std::optional<IP_MIPRay> Projection::Ray(double pixel_x, double pixel_y) {
    IP_MIPRay ray;
    return IP_MIPProjector::ScreenRay(&m_Params, 0, pixel_x, pixel_y, &ray) ? std::optional(ray) : std::nullopt;
}

DisplayWindow DefaultWindow(VolumeSource& source, const ProjectedPicture& picture) {
    const ImportedVolume& info = source.Info();
    if (info.window_centre && info.window_width && *info.window_width > 0.0) {
        const double half = 0.5 * *info.window_width;
        std::size_t lit = 0;
        std::size_t white = 0;
        for (const std::int16_t stored : picture.stored) {
            const double from_centre = source.Rescaled(stored) - *info.window_centre;
            lit += stored > info.min_value && from_centre > -half ? 1 : 0;
            white += from_centre >= half ? 1 : 0;
        }
        if (2 * white <= lit) {
            return {*info.window_centre, *info.window_width};
        }
    }
    const double low = source.Histogram().Percentile(0.001);
    const double high = source.Histogram().Percentile(0.999);
    return {0.5 * (low + high), std::max(high - low, std::abs(info.rescale_slope))};
}

Picture Windowed(const ProjectedPicture& picture, const VolumeSource& source, const DisplayWindow& window) {
    Picture result(picture.width, picture.height);
    std::transform(picture.stored.begin(), picture.stored.end(), result.pixels.begin(), [&](std::int16_t stored) {
        return 0xFF000000U | Level(source.Rescaled(stored), window, 255.0) * 0x010101U;
    });
    return result;
}

GreyPicture Windowed16(const ProjectedPicture& picture, const VolumeSource& source, const DisplayWindow& window) {
    GreyPicture result{picture.width, picture.height, std::vector<std::uint16_t>(picture.stored.size())};
    std::transform(picture.stored.begin(), picture.stored.end(), result.pixels.begin(), [&](std::int16_t stored) {
        return static_cast<std::uint16_t>(Level(source.Rescaled(stored), window, 65535.0));
    });
    return result;
}

}  // namespace scene
