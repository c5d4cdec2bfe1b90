// Picks: rays of pixels in turned, anisotropic volumes, what a pixel shows, and vessels along the ray.
#include "scene/picking.h"

#include <gtest/gtest.h>

#include <cmath>

#include "host/reference/settings.h"
#include "scene/error.h"
#include "scene/vessel_search.h"
#include "scene/volume_rendering.h"

namespace {

using scene::ClipPlane;
using scene::ImportedVolume;
using scene::PickOutcome;
using scene::Vec3;
using scene::ViewingRay;
using scene::VolumeSource;

struct Grid {
    std::array<int, 3> dims = {60, 50, 24};
    std::array<double, 3> spacing_mm = {0.8, 0.9, 2.3};
    double turned_deg = 35.0;
    bool is_signed = true;
    double slope = 1.0;
    double intercept = 0.0;
};

// Rescaled values as a function of the position in mm from the volume's middle, along its own axes.
using Field = std::function<double(const Vec3&)>;

ImportedVolume Sampled(const Grid& grid, const Field& field) {
    ImportedVolume v;
    v.dims = grid.dims;
    v.spacing_mm = grid.spacing_mm;
    const Vec3 axis = Normalised(Vec3{0.4, -0.3, 0.8});
    const Vec3 axes[3] = {{1, 0, 0}, {0, 1, 0}, {0, 0, 1}};
    for (std::size_t i = 0; i < 3; ++i) {
        const Vec3 step = Rotated(axes[i], axis, grid.turned_deg * 3.14159265358979 / 180.0) * grid.spacing_mm[i];
        v.index_to_patient[i] = step.x;
        v.index_to_patient[4 + i] = step.y;
        v.index_to_patient[8 + i] = step.z;
    }
    v.index_to_patient[3] = -31.0;
    v.index_to_patient[7] = 120.0;
    v.index_to_patient[11] = 640.0;
    const auto [nx, ny, nz] = grid.dims;
    v.voxels =
        scene::VoxelBuffer(static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny) * static_cast<std::size_t>(nz));
    std::size_t i = 0;
    for (int z = 0; z < nz; ++z) {
        for (int y = 0; y < ny; ++y) {
            for (int x = 0; x < nx; ++x) {
                const Vec3 p = {(x - 0.5 * (nx - 1)) * grid.spacing_mm[0], (y - 0.5 * (ny - 1)) * grid.spacing_mm[1],
                                (z - 0.5 * (nz - 1)) * grid.spacing_mm[2]};
                v.voxels[i++] = static_cast<std::int16_t>(std::lround((field(p) - grid.intercept) / grid.slope));
            }
        }
    }
    v.is_signed = grid.is_signed;
    v.bits_stored = 13;
    const auto [low, high] = std::minmax_element(v.voxels.data(), v.voxels.data() + v.voxels.size());
    v.min_value = *low;
    v.max_value = *high;
    v.rescale_slope = grid.slope;
    v.rescale_intercept = grid.intercept;
    return v;
}

double SoftStep(double inside_mm) {
    return std::clamp(0.5 + inside_mm / 1.6, 0.0, 1.0);
}

// A ball of 1000 in air.
double Ball(const Vec3& p) {
    return -1000.0 + 2000.0 * SoftStep(9.0 - Length(p - Vec3{4.0, -3.0, 2.0}));
}

// A vessel's profile by the distance from its middle: never quite flat, else its range of values has no width.
double Bump(double distance, double radius) {
    const double d = distance / radius;
    return 40.0 + (d < 1.0 && d > -1.0 ? 270.0 * (1.0 - d * d * d * d) : 0.0);
}

// A vessel of radius 6 mm in tissue, oblique to all axes.
const Vec3 kVesselAxis = Normalised(Vec3{1.0, 1.0, 0.3});
double Tube(const Vec3& p) {
    return Bump(Length(p - kVesselAxis * Dot(p, kVesselAxis)), 6.0);
}

Vec3 MiddleMm(const VolumeSource& source) {
    return source.GetSubject().middle_mm;
}

// A direction along the volume's own axes in the patient.
Vec3 ToPatient(const VolumeSource& source, const Vec3& v) {
    const std::array<double, 3>& s = source.Info().spacing_mm;
    return source.PatientPosition({v.x / s[0], v.y / s[1], v.z / s[2]}) - source.PatientPosition({});
}

scene::View SomeView(int i) {
    scene::View view;
    view.face = static_cast<scene::StandardView>(i % 6);
    view.azimuth_deg = 17.0 * i;
    view.elevation_deg = 9.0 * i;
    view.roll_deg = 5.0 * i;
    view.zoom = 1.3;
    view.pan_x = 0.04;
    view.width = 200;
    view.height = 160;
    return view;
}

TEST(Picking, RaysRunThroughTheirPixelsFromFaceToFace) {
    VolumeSource source(Sampled({}, Ball));
    scene::Projection projection(source, true);
    for (int i = 0; i < 8; ++i) {
        const scene::View view = SomeView(i);
        const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
        projection.SetView(camera, view);
        const double x = 90.0 + 3 * i;
        const double y = 85.0 - 4 * i;
        for (const bool mip : {true, false}) {
            const std::optional<ViewingRay> ray =
                mip ? scene::RayOfProjection(projection, x, y) : scene::RayOfRendering(source, camera, {}, x, y);
            ASSERT_TRUE(ray);
            EXPECT_NEAR(Length(ray->direction), 1.0, 1e-6);
            const Vec3 from = source.PatientPosition(ray->start);
            const Vec3 one_on = source.PatientPosition(ray->At(1.0));
            EXPECT_NEAR(Length(one_on - from), ray->voxel_mm, 1e-4);
            EXPECT_GT(Dot(one_on - from, camera.into), 0.0);
            for (const double t : {0.0, ray->length}) {
                const scene::Camera::Pixel at = camera.Project(source.PatientPosition(ray->At(t)));
                EXPECT_NEAR(at.x, x, 0.01);
                EXPECT_NEAR(at.y, y, 0.01);
                // On a face: of the volume, or of what the ray caster draws of it.
                double nearest_face = 1e9;
                const std::array<double, 3> index = ToArray(ray->At(t));
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    const double edge = mip ? -0.5 : axis == 2 ? 0.0 : 2.0;
                    const double inside =
                        std::min(index[axis] - edge, source.Info().dims[axis] - 1 - edge - index[axis]);
                    nearest_face = std::min(nearest_face, inside);
                }
                EXPECT_NEAR(nearest_face, 0.0, 1e-3);
            }
        }
    }
    const scene::View view = SomeView(0);
    projection.SetView(scene::MakeCamera(view, source.GetSubject()), view);
    EXPECT_FALSE(scene::RayOfProjection(projection, 0.0, 0.0));
    EXPECT_FALSE(scene::RayOfRendering(source, scene::MakeCamera(view, source.GetSubject()), {}, 0.0, 0.0));
    EXPECT_EQ(scene::PickOnProjection(projection, source, 0.0, 0.0).outcome, PickOutcome::kMissesVolume);
}

TEST(Picking, PlanesAndSlabsCutTheRay) {
    VolumeSource source(Sampled({}, Ball));
    const scene::View view = SomeView(1);
    const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
    scene::Projection projection(source, true);
    projection.SetView(camera, view);

    // Away with what is nearer than 5 mm beyond the middle.
    const Vec3 n = camera.into;
    const ClipPlane plane = {n.x, n.y, n.z, -Dot(n, camera.middle_mm) - 5.0};
    projection.SetClipping({plane});
    const double x = camera.centre_x;
    const double y = camera.centre_y;
    for (const std::optional<ViewingRay>& ray :
         {scene::RayOfProjection(projection, x, y), scene::RayOfRendering(source, camera, {plane}, x, y)}) {
        ASSERT_TRUE(ray);
        EXPECT_NEAR(camera.Project(source.PatientPosition(ray->start)).depth_mm, 5.0, 0.01);
    }
    projection.SetClipping({});
    projection.SetSlab(scene::Slab{6.0, -2.0});
    const std::optional<ViewingRay> in_slab = scene::RayOfProjection(projection, x, y);
    ASSERT_TRUE(in_slab);
    EXPECT_NEAR(camera.Project(source.PatientPosition(in_slab->start)).depth_mm, -5.0, 0.01);
    EXPECT_NEAR(in_slab->length * in_slab->voxel_mm, 6.0, 0.01);
    // A plane that leaves nothing.
    EXPECT_FALSE(scene::RayOfRendering(source, camera, {{n.x, n.y, n.z, -Dot(n, camera.middle_mm) - 500.0}}, x, y));
}

TEST(Picking, ShowsTheSurfaceThatTheRayCasterDraws) {
    VolumeSource source(Sampled({}, Ball));
    scene::VolumeRendering rendering(source);
    rendering.SetTransfer(scene::UniformColour(0xFFFFFF, 1.0, 0.0), false);
    const scene::OpacityTables opacities(rendering.ColourTables(), source.Stored());
    const Vec3 centre = MiddleMm(source) + ToPatient(source, {4.0, -3.0, 2.0});
    for (const bool clipped : {false, true}) {
        const scene::View view = SomeView(2);
        const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
        const Vec3 n = camera.into;
        const std::vector<ClipPlane> planes =
            clipped ? std::vector<ClipPlane>{{n.x, n.y, n.z, -Dot(n, centre) + 3.0}} : std::vector<ClipPlane>{};
        rendering.SetClipping(planes);
        rendering.SetView(camera, {});
        const scene::Picture picture = rendering.Draw({});
        int num_shown = 0;
        for (int y = 0; y < picture.height; y += 5) {
            for (int x = 0; x < picture.width; x += 5) {
                const scene::PickedPoint pick = scene::PickOnRendering(
                    source, nullptr, opacities, scene::RayOfRendering(source, camera, planes, x, y));
                const std::uint32_t grey = picture.At(x, y) & 255;
                if (pick.outcome != PickOutcome::kShown) {
                    EXPECT_LT(grey, 128U) << x << "," << y;
                    continue;
                }
                const Vec3 from_axis = pick.position_mm - centre;
                const double depth = Dot(from_axis, n);
                const double off_axis_mm = Length(from_axis - n * depth);
                if (off_axis_mm > 7.0) {
                    continue;  // the rim, where a pixel shows a sliver
                }
                ++num_shown;
                EXPECT_GT(grey, 200U);
                EXPECT_TRUE(rendering.IsVisible(pick.position_mm, 1.0));
                EXPECT_FALSE(rendering.IsVisible(pick.position_mm + n * 5.0, 0.0));
                const double surface = std::sqrt(81.0 - off_axis_mm * off_axis_mm);
                EXPECT_NEAR(depth, clipped ? std::max(-3.0, -surface) : -surface, 1.2) << x << "," << y;
                EXPECT_GE(pick.value, 0.0);
                EXPECT_EQ(pick.voxel_value, source.StoredAt(pick.voxel));
            }
        }
        EXPECT_GT(num_shown, 20);
    }
}

// A tissue-index volume: tissue 2 in the front half of the rows, no tissue behind.
std::unique_ptr<IP_VolData> FrontTissue(const std::array<int, 3>& dims) {
    IP_Box box(dims[0], dims[1], dims[2]);
    auto volume = std::make_unique<IP_VolData>(&box, dims[2]);
    for (int z = 0; z < dims[2]; ++z) {
        auto* const info = new MEM_PagerInfo(MEM_MemPager::GetHandleForMP());
        const auto bytes = static_cast<unsigned>(dims[0] / 2 * dims[1]);
        MEM_MemPager::GetHandleForMP()->Allocate(bytes, info, 0);
        auto* const indices = static_cast<unsigned char*>(info->Ptr());
        for (unsigned i = 0; i < bytes; ++i) {
            indices[i] = i < bytes / 2 ? 0x22 : 0xFF;
        }
        info->Unmap();
        auto* const slice = new IP_TisIndSlice(info, PixelDataAttributes{dims[0], dims[1], 8, false}, 0);
        slice->SetOwnsData(true);
        volume->SetSlice(slice, z);
    }
    return volume;
}

TEST(Picking, HiddenTissuesDoNotCount) {
    Grid grid;
    grid.turned_deg = 0.0;
    VolumeSource source(Sampled(grid, [](const Vec3& p) { return std::abs(p.y) < 12.0 ? 300.0 : 0.0; }));
    const scene::TransferTables seen(scene::UniformColour(0xFFFFFF, 1.0, 200.0), source.Stored());
    const scene::TransferTables hidden(scene::UniformColour(0xFFFFFF, 0.0, 200.0), source.Stored());
    std::array<const std::uint32_t*, 16> colours;
    colours.fill(seen.Colours());
    colours[2] = hidden.Colours();
    const scene::OpacityTables opacities(colours, source.Stored());
    const std::unique_ptr<IP_VolData> tissues = FrontTissue(grid.dims);
    const scene::Camera camera = scene::MakeCamera({}, source.GetSubject());
    const auto ray = scene::RayOfRendering(source, camera, {}, 256.0, 256.0);
    const auto without = scene::PickOnRendering(source, nullptr, opacities, ray);
    const auto with = scene::PickOnRendering(source, tissues.get(), opacities, ray);
    EXPECT_NEAR(source.VoxelIndex(without.position_mm).y, 11.5, 1.5);
    EXPECT_NEAR(source.VoxelIndex(with.position_mm).y, 24.75, 0.6);  // the tissue ends between rows 24 and 25
    // The vessel search starts from the same point.
    EXPECT_LT(Length(*scene::FindVesselOnRendering(source, tissues.get(), opacities, ray).picked_mm - with.position_mm),
              1.0);
}

TEST(VesselPick, FindsTheAxisFromAnyViewInTurnedAnisotropicAndUnsignedData) {
    Grid unsigned_grid;
    unsigned_grid.is_signed = false;
    unsigned_grid.slope = 0.5;
    unsigned_grid.intercept = -1024.0;
    unsigned_grid.spacing_mm = {0.9, 0.6, 1.4};
    for (const Grid& grid : {Grid{}, unsigned_grid}) {
        VolumeSource source(Sampled(grid, Tube));
        scene::VolumeRendering rendering(source);
        rendering.SetTransfer(scene::UniformColour(0xFFFFFF, 0.6, 150.0), false);
        const scene::OpacityTables opacities(rendering.ColourTables(), source.Stored());
        scene::Projection projection(source, true);
        const Vec3 axis = ToPatient(source, kVesselAxis);
        for (int i = 0; i < 6; ++i) {
            const scene::View view = SomeView(i);
            const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
            const double across = Length(Cross(axis, camera.into));
            if (across < 0.5) {
                continue;  // along the vessel there are no walls
            }
            projection.SetView(camera, view);
            const scene::VesselPick picks[2] = {
                scene::FindVesselOnProjection(source, nullptr,
                                              scene::RayOfProjection(projection, camera.centre_x, camera.centre_y)),
                scene::FindVesselOnRendering(
                    source, nullptr, opacities,
                    scene::RayOfRendering(source, camera, {}, camera.centre_x, camera.centre_y))};
            for (const scene::VesselPick& pick : picks) {
                ASSERT_TRUE(pick.found) << pick.reason << " view " << i;
                EXPECT_EQ(pick.vessel_class, kVesselMedium);
                EXPECT_LT(Length(pick.centre_mm - MiddleMm(source)), 0.8) << i;
                EXPECT_GT(pick.length_mm, 3.0 / across) << i;
                EXPECT_LT(pick.length_mm, 12.0 / across) << i;
                EXPECT_TRUE(pick.reason.empty());
            }
        }
    }
}

TEST(VesselPick, MapsNoMoreThanTheSlidingRangeAndReleasesIt) {
    Grid deep;
    deep.dims = {24, 24, 320};
    deep.spacing_mm = {1.0, 1.0, 1.0};
    deep.turned_deg = 0.0;
    VolumeSource source(Sampled(deep, [](const Vec3& p) { return Bump(p.z - 105.0, 6.0); }));
    const scene::TransferTables tables(scene::UniformColour(0xFFFFFF, 1.0, 150.0), source.Stored());
    std::array<const std::uint32_t*, 16> colours;
    colours.fill(tables.Colours());
    const scene::OpacityTables opacities(colours, source.Stored());
    const std::int64_t slice_bytes = 24 * 24 * 2;
    const auto mapped_before = reference_host::GetPagerStatistics().mapped_blocks;
    for (const char* face : {"superior", "inferior"}) {
        scene::View view;
        view.face = *scene::ViewByName(face);
        const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
        scene::Projection projection(source, true);
        projection.SetView(camera, view);
        const auto mip_ray = scene::RayOfProjection(projection, 256.0, 256.0);
        const auto ray = scene::RayOfRendering(source, camera, {}, 256.0, 256.0);

        // More than the range is refused: nobody asks for more.
        reference_host::PagerFaults faults;
        faults.refuse_mapped_above = 101 * slice_bytes;
        reference_host::SetPagerFaults(faults);
        EXPECT_NEAR(scene::FindVesselOnProjection(source, nullptr, mip_ray).centre_voxel.z, 264.5, 0.8);
        EXPECT_NEAR(scene::FindVesselOnRendering(source, nullptr, opacities, ray).centre_voxel.z, 264.5, 0.8);
        EXPECT_EQ(scene::PickOnRendering(source, nullptr, opacities, ray).outcome, PickOutcome::kShown);

        // Less than the range is told, and nothing stays mapped.
        faults.refuse_mapped_above = 40 * slice_bytes;
        reference_host::SetPagerFaults(faults);
        EXPECT_THROW(scene::FindVesselOnProjection(source, nullptr, mip_ray), scene::Error);
        EXPECT_THROW(scene::FindVesselOnRendering(source, nullptr, opacities, ray), scene::Error);
        EXPECT_THROW(scene::PickOnRendering(source, nullptr, opacities, ray), scene::Error);
        reference_host::SetPagerFaults({});
        EXPECT_EQ(reference_host::GetPagerStatistics().mapped_blocks, mapped_before);
    }
}

}  // namespace
