// How well vessel picks find the centre: picks on visible vessels of the head phantom, from many views, on both kinds
// of picture, compared with the phantom's own centre lines. Prints the tables of docs/vessels.md.
//
//     vessel_accuracy [X,Y,Z [SEED [VIEWS [PICKS]]]]      PICKS for each view, picture and range of radii
#include "scene/phantom.h"
#include "scene/picking.h"
#include "scene/presets.h"
#include "scene/random_stream.h"
#include "scene/vessel_search.h"
#include "scene/volume_rendering.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <map>
#include <numbers>
#include <optional>
#include <string>
#include <vector>

namespace {

using scene::Phantom;
using scene::Vec3;
using scene::Vessel;

// ---- Truth

// Where a position stands beside a vessel.
struct Beside {
    double distance_mm = 1e9;  // from the centre line
    double radius_mm = 0.0;    // of the vessel there
    double OutsideMm() const { return distance_mm - radius_mm; }
};

// The vessels with what makes looking them up quick.
class Truth {
public:
    explicit Truth(const Phantom& phantom) : m_Phantom(phantom) {
        for (const Vessel& v : phantom.vessels) {
            Bounds b{{1e9, 1e9, 1e9}, {-1e9, -1e9, -1e9}};
            for (const scene::VesselPoint& p : v.points) {
                const double r = p.radius_mm + 2.0 * VoxelMm();
                const Vec3& c = p.position_mm;
                b.low = {std::min(b.low.x, c.x - r), std::min(b.low.y, c.y - r), std::min(b.low.z, c.z - r)};
                b.high = {std::max(b.high.x, c.x + r), std::max(b.high.y, c.y + r), std::max(b.high.z, c.z + r)};
            }
            m_Bounds.push_back(b);
        }
    }

    double VoxelMm() const { return m_Phantom.spacing_mm.x; }
    std::size_t NumVessels() const { return m_Bounds.size(); }

    // Far outside of a vessel's bounds the answer is just "far".
    Beside At(std::size_t vessel, const Vec3& p) const {
        const Bounds& b = m_Bounds[vessel];
        Beside nearest;
        if (p.x < b.low.x || p.y < b.low.y || p.z < b.low.z || p.x > b.high.x || p.y > b.high.y || p.z > b.high.z) {
            return nearest;
        }
        const std::vector<scene::VesselPoint>& points = m_Phantom.vessels[vessel].points;
        for (std::size_t i = 0; i + 1 < points.size(); ++i) {
            const Vec3 axis = points[i + 1].position_mm - points[i].position_mm;
            const Vec3 from = p - points[i].position_mm;
            const double t = std::clamp(Dot(from, axis) / std::max(1e-12, Dot(axis, axis)), 0.0, 1.0);
            const double distance = Length(from - axis * t);
            const double radius = points[i].radius_mm + t * (points[i + 1].radius_mm - points[i].radius_mm);
            if (distance - radius < nearest.OutsideMm()) {
                nearest = {distance, radius};
            }
        }
        return nearest;
    }

    // The vessel painted last at a position, if any.
    std::optional<std::size_t> VesselAt(const Vec3& p) const {
        for (std::size_t v = NumVessels(); v-- > 0;) {
            if (At(v, p).OutsideMm() < 0.0) {
                return v;
            }
        }
        return std::nullopt;
    }

private:
    struct Bounds {
        Vec3 low;
        Vec3 high;
    };
    const Phantom& m_Phantom;
    std::vector<Bounds> m_Bounds;
};

// A line of sight in the patient; places on it are mm from its start.
struct Sight {
    Vec3 start_mm;
    Vec3 direction;
    Vec3 At(double place_mm) const { return start_mm + direction * place_mm; }
    double PlaceOf(const Vec3& p) const { return Dot(p - start_mm, direction); }
};

// The part of a line of sight inside one vessel.
struct Chord {
    std::size_t vessel = 0;
    double first_mm = 0.0;
    double last_mm = 0.0;
    double radius_mm = 0.0;  // of the vessel at its middle
    bool clear = true;       // no other vessel and no calcification within two voxels of it
    double MiddleMm() const { return 0.5 * (first_mm + last_mm); }
};

// The chord through the vessel that the picture shows at a place of the sight: there, or up to two voxels behind, since
// a soft edge becomes visible before the vessel's surface.
std::optional<Chord> ChordAt(const Truth& truth, const Phantom& phantom, const Sight& sight, double shown_mm) {
    const double step_mm = 0.02 * truth.VoxelMm();
    std::optional<std::size_t> vessel;
    double inside_mm = shown_mm;
    for (; !vessel && inside_mm <= shown_mm + 2.0 * truth.VoxelMm(); inside_mm += 5.0 * step_mm) {
        vessel = truth.VesselAt(sight.At(inside_mm));
    }
    if (!vessel) {
        return std::nullopt;
    }
    inside_mm -= 5.0 * step_mm;
    Chord chord{*vessel, inside_mm, inside_mm};
    const auto inside = [&](double place_mm) { return truth.At(*vessel, sight.At(place_mm)).OutsideMm() < 0.0; };
    while (inside(chord.first_mm - step_mm)) {
        chord.first_mm -= step_mm;
    }
    while (inside(chord.last_mm + step_mm)) {
        chord.last_mm += step_mm;
    }
    chord.radius_mm = truth.At(*vessel, sight.At(chord.MiddleMm())).radius_mm;

    // Look around it.
    const double margin_mm = 2.0 * truth.VoxelMm();
    for (double place_mm = chord.first_mm - margin_mm; place_mm <= chord.last_mm + margin_mm && chord.clear;
         place_mm += 0.25 * truth.VoxelMm()) {
        const Vec3 p = sight.At(place_mm);
        for (std::size_t other = 0; other < truth.NumVessels() && chord.clear; ++other) {
            chord.clear = other == *vessel || truth.At(other, p).OutsideMm() > truth.VoxelMm();
        }
        const Vec3 from = p - phantom.origin_mm;
        const std::array<int, 3> voxel = {static_cast<int>(std::lround(from.x / phantom.spacing_mm.x)),
                                          static_cast<int>(std::lround(from.y / phantom.spacing_mm.y)),
                                          static_cast<int>(std::lround(from.z / phantom.spacing_mm.z))};
        bool within = true;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            within = within && voxel[axis] >= 0 && voxel[axis] < phantom.size[axis];
        }
        if (within) {
            const auto [nx, ny, nz] = phantom.size;
            const std::size_t index = (static_cast<std::size_t>(voxel[2]) * static_cast<std::size_t>(ny) +
                                       static_cast<std::size_t>(voxel[1])) *
                                          static_cast<std::size_t>(nx) +
                                      static_cast<std::size_t>(voxel[0]);
            const std::uint8_t label = phantom.labels[index];
            chord.clear = chord.clear && label != scene::kLabelCalcification && label != scene::kLabelBone;
        }
    }
    return chord;
}

// ---- Picks

constexpr std::array<double, 6> kRadiusLimits_vox = {1.0, 1.5, 2.0, 3.0, 4.0, 6.5};
constexpr std::size_t kNumRanges = kRadiusLimits_vox.size() - 1;

constexpr int kHighestMediumHu = 450;

struct Result {
    double radius_vox = 0.0;
    bool dense = false;  // beyond what counts as medium intensity
    bool clear = false;
    scene::VesselPick pick;
    double along_error_vox = 0.0;  // of a vessel that was found, along the line of sight
    double lateral_vox = 0.0;      // of its centre from the centre line
    double length_ratio = 0.0;     // of the found length to the chord's
};

std::optional<std::size_t> RangeOf(double radius_vox) {
    for (std::size_t i = 0; i < kNumRanges; ++i) {
        if (radius_vox >= kRadiusLimits_vox[i] && radius_vox < kRadiusLimits_vox[i + 1]) {
            return i;
        }
    }
    return std::nullopt;
}

// Both pictures of a view, ready for picks.
struct Pictures {
    scene::VolumeSource& source;
    scene::Camera camera;
    scene::Projection& projection;
    const scene::OpacityTables& opacities;

    std::optional<scene::ViewingRay> Ray(bool mip, double x, double y) const {
        return mip ? scene::RayOfProjection(projection, x, y) : scene::RayOfRendering(source, camera, {}, x, y);
    }
    scene::PickedPoint Shown(bool mip, double x, double y) const {
        return mip ? scene::PickOnProjection(projection, source, x, y)
                   : scene::PickOnRendering(source, nullptr, opacities, Ray(mip, x, y));
    }
    scene::VesselPick Vessel(bool mip, double x, double y) const {
        return mip ? scene::FindVesselOnProjection(source, nullptr, Ray(mip, x, y))
                   : scene::FindVesselOnRendering(source, nullptr, opacities, Ray(mip, x, y));
    }
};

// A position inside a vessel: anywhere along it, anywhere across it.
Vec3 RandomPositionInside(const Vessel& vessel, scene::RandomStream& random) {
    const auto last = static_cast<double>(vessel.points.size() - 1);
    const scene::VesselPoint& p = vessel.points[static_cast<std::size_t>(random.Uniform(0.0, last + 0.999))];
    Vec3 offset;
    do {
        offset = {random.Uniform(-1.0, 1.0), random.Uniform(-1.0, 1.0), random.Uniform(-1.0, 1.0)};
    } while (Dot(offset, offset) > 1.0);
    return p.position_mm + offset * p.radius_mm;
}

// A pick on the pixel that shows the position, if the picture shows a vessel there.
std::optional<Result> PickNear(const Pictures& pictures, const Truth& truth, const Phantom& phantom, bool mip,
                               const Vec3& position_mm) {
    const scene::Camera::Pixel at = pictures.camera.Project(position_mm);
    const double x = std::round(at.x);
    const double y = std::round(at.y);
    if (x < 0.0 || y < 0.0 || x >= pictures.camera.width || y >= pictures.camera.height) {
        return std::nullopt;
    }
    const scene::PickedPoint shown = pictures.Shown(mip, x, y);
    if (shown.outcome != scene::PickOutcome::kShown) {
        return std::nullopt;
    }
    const Sight sight{pictures.camera.PositionOnPlane(x, y), pictures.camera.into};
    const std::optional<Chord> chord = ChordAt(truth, phantom, sight, sight.PlaceOf(shown.position_mm));
    if (!chord) {
        return std::nullopt;
    }
    Result result;
    const double voxel_mm = pictures.Ray(mip, x, y)->voxel_mm;
    result.radius_vox = chord->radius_mm / truth.VoxelMm();
    result.dense = phantom.vessels[chord->vessel].value_hu > kHighestMediumHu;
    result.clear = chord->clear;
    result.pick = pictures.Vessel(mip, x, y);
    if (result.pick.found) {
        result.along_error_vox = std::abs(sight.PlaceOf(result.pick.centre_mm) - chord->MiddleMm()) / voxel_mm;
        result.length_ratio = result.pick.length_mm / std::max(1e-6, chord->last_mm - chord->first_mm);
        result.lateral_vox = truth.At(chord->vessel, sight.At(chord->MiddleMm())).distance_mm / truth.VoxelMm();
    }
    return result;
}

// ---- Tables

double Quantile(std::vector<double> values, double share) {
    if (values.empty()) {
        return std::nan("");
    }
    const auto at = static_cast<std::ptrdiff_t>(share * static_cast<double>(values.size() - 1) + 0.5);
    std::nth_element(values.begin(), values.begin() + at, values.end());
    return values[static_cast<std::size_t>(at)];
}

void PrintRow(const std::string& name, const std::vector<const Result*>& results) {
    std::vector<double> along;
    std::vector<double> lateral;
    std::vector<double> ratio;
    for (const Result* r : results) {
        if (r->pick.found) {
            along.push_back(r->along_error_vox);
            lateral.push_back(r->lateral_vox);
            ratio.push_back(r->length_ratio);
        }
    }
    const auto within =
        static_cast<double>(std::count_if(along.begin(), along.end(), [](double e) { return e < 1.0; }));
    const double n = std::max<double>(1.0, static_cast<double>(results.size()));
    std::printf("| %s | %zu | %.0f %% | %.2f | %.2f | %.0f %% | %.2f | %.2f |\n", name.c_str(), results.size(),
                100.0 * static_cast<double>(along.size()) / n, Quantile(along, 0.5), Quantile(along, 0.9),
                100.0 * within / n, Quantile(lateral, 0.5), Quantile(ratio, 0.5));
}

void PrintTable(const std::string& title, const std::vector<Result>& all, bool clear_only) {
    std::printf("\n%s\n\n", title.c_str());
    std::printf(
        "| radius, voxels | picks | found | median error | 90 %% | found within 1 voxel | lateral offset | length |\n");
    std::printf("|---|---|---|---|---|---|---|---|\n");
    std::array<std::vector<const Result*>, kNumRanges> by_range;
    std::vector<const Result*> wide;
    std::vector<const Result*> wide_medium;
    std::vector<const Result*> wide_dense;
    for (const Result& r : all) {
        if (clear_only && !r.clear) {
            continue;
        }
        by_range[*RangeOf(r.radius_vox)].push_back(&r);
        if (r.radius_vox >= 2.0) {
            wide.push_back(&r);
            (r.dense ? wide_dense : wide_medium).push_back(&r);
        }
    }
    for (std::size_t i = 0; i < kNumRanges; ++i) {
        char name[32];
        std::snprintf(name, sizeof name, "%.1f to %.1f", kRadiusLimits_vox[i], kRadiusLimits_vox[i + 1]);
        PrintRow(name, by_range[i]);
    }
    PrintRow("2.0 and more", wide);
    PrintRow("2.0 and more, up to 450 HU", wide_medium);
    PrintRow("2.0 and more, 500 HU and more", wide_dense);
}

void PrintReasons(const std::vector<Result>& all) {
    std::map<std::string, std::array<int, kNumRanges>> counts;
    for (const Result& r : all) {
        if (!r.pick.found) {
            ++counts.try_emplace(std::string(r.pick.reason)).first->second[*RangeOf(r.radius_vox)];
        }
    }
    std::printf("\nWhy none was found, picks by range of radii:\n\n");
    for (const auto& [reason, by_range] : counts) {
        std::printf("| %s |", reason.c_str());
        for (const int n : by_range) {
            std::printf(" %d |", n);
        }
        std::printf("\n");
    }
}

// ---- Program

scene::ImportedVolume Imported(const Phantom& phantom) {
    scene::ImportedVolume v;
    v.dims = phantom.size;
    v.spacing_mm = ToArray(phantom.spacing_mm);
    v.index_to_patient = {phantom.spacing_mm.x,
                          0,
                          0,
                          phantom.origin_mm.x,
                          0,
                          phantom.spacing_mm.y,
                          0,
                          phantom.origin_mm.y,
                          0,
                          0,
                          phantom.spacing_mm.z,
                          phantom.origin_mm.z};
    v.voxels = scene::VoxelBuffer(phantom.voxels.size());
    std::copy(phantom.voxels.begin(), phantom.voxels.end(), v.voxels.data());
    const auto [low, high] = std::minmax_element(phantom.voxels.begin(), phantom.voxels.end());
    v.min_value = *low;
    v.max_value = *high;
    v.is_signed = true;
    v.bits_stored = 13;
    v.modality = "CT";
    return v;
}

struct Plan {
    scene::PhantomRequest phantom;
    int num_views = 20;
    int picks_each = 40;
};

// Views all round: the azimuth goes once around while the elevation swings.
scene::View ViewOf(int i, int num_views) {
    scene::View view;
    view.azimuth_deg = 360.0 * i / num_views + 3.0;
    view.elevation_deg = 50.0 * std::sin(2.0 * std::numbers::pi * i * 0.618);
    view.roll_deg = 7.0 * i;
    return view;
}

std::vector<Result> PickInView(const Pictures& pictures, const Truth& truth, const Phantom& phantom, bool mip,
                               int picks_each, scene::RandomStream& random) {
    constexpr int kMostTries = 30000;
    std::vector<Result> results;
    std::array<int, kNumRanges> wanted;
    wanted.fill(picks_each);
    for (int i = 0; i < kMostTries && std::any_of(wanted.begin(), wanted.end(), [](int n) { return n > 0; }); ++i) {
        const auto v =
            static_cast<std::size_t>(random.Uniform(0.0, static_cast<double>(phantom.vessels.size()) - 1e-6));
        const Vec3 position_mm = RandomPositionInside(phantom.vessels[v], random);
        const Beside beside = truth.At(v, position_mm);
        const std::optional<std::size_t> likely = RangeOf(beside.radius_mm / truth.VoxelMm());
        if (!likely || wanted[*likely] <= 0) {
            continue;
        }
        const std::optional<Result> result = PickNear(pictures, truth, phantom, mip, position_mm);
        const std::optional<std::size_t> range = result ? RangeOf(result->radius_vox) : std::nullopt;
        if (range && wanted[*range] > 0) {
            --wanted[*range];
            results.push_back(*result);
        }
    }
    return results;
}

void Run(const Plan& plan) {
    const Phantom phantom = scene::MakePhantom(plan.phantom);
    const Truth truth(phantom);
    scene::VolumeSource source(Imported(phantom));
    scene::Projection projection(source, true);
    scene::VolumeRendering rendering(source);
    rendering.SetTransfer(*scene::FindPreset("ct-angio"), true);
    const scene::OpacityTables opacities(rendering.ColourTables(), source.Stored());

    scene::RandomStream random(plan.phantom.seed);
    std::array<std::vector<Result>, 2> results;
    for (int i = 0; i < plan.num_views; ++i) {
        const scene::View view = ViewOf(i, plan.num_views);
        const Pictures pictures{source, scene::MakeCamera(view, source.GetSubject()), projection, opacities};
        projection.SetView(pictures.camera, view);
        for (const bool mip : {true, false}) {
            std::vector<Result>& all = results[mip ? 0 : 1];
            const std::vector<Result> own = PickInView(pictures, truth, phantom, mip, plan.picks_each, random);
            all.insert(all.end(), own.begin(), own.end());
        }
    }

    const auto [nx, ny, nz] = phantom.size;
    std::printf("head phantom %d x %d x %d, seed %u, %d views\n", nx, ny, nz, plan.phantom.seed, plan.num_views);
    for (const bool mip : {true, false}) {
        const std::string on = mip ? "Maximum-intensity projection" : "Volume rendering";
        const std::vector<Result>& all = results[mip ? 0 : 1];
        PrintTable(on + ", all picks", all, false);
        PrintTable(on + ", clear of other vessels, bone and calcifications", all, true);
        PrintReasons(all);
    }
}

}  // namespace

int main(int argc, char** argv) {
    Plan plan;
    plan.phantom.size = {512, 512, 400};
    if (argc > 1 &&
        std::sscanf(argv[1], "%d,%d,%d", &plan.phantom.size[0], &plan.phantom.size[1], &plan.phantom.size[2]) != 3) {
        std::fprintf(stderr, "usage: vessel_accuracy [X,Y,Z [SEED [VIEWS [PICKS]]]]\n");
        return 2;
    }
    plan.phantom.seed = argc > 2 ? static_cast<std::uint32_t>(std::atoi(argv[2])) : 1;
    plan.num_views = argc > 3 ? std::max(1, std::atoi(argv[3])) : plan.num_views;
    plan.picks_each = argc > 4 ? std::max(1, std::atoi(argv[4])) : plan.picks_each;
    Run(plan);
    return 0;
}
