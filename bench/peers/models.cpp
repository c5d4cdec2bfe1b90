#include "models.h"

#include "scene/parallel.h"
#include "scene/volume_rendering.h"
#include "tests/raycast/model.h"

#include <algorithm>
#include <cmath>

namespace peers {

namespace {

constexpr int kStopTransparency = 3276;  // of the model and of our final frames

raycast_test::Vec to_vec(const scene::Vec3& v) {
    return {v.x, v.y, v.z};
}

// Interpolated between the voxel centres around it; the position must lie between centres.
double trilinear(const scene::Phantom& phantom, const scene::Vec3& p) {
    const int x = static_cast<int>(p.x), y = static_cast<int>(p.y), z = static_cast<int>(p.z);
    const double fx = p.x - x, fy = p.y - y, fz = p.z - z;
    double value = 0.0;
    for (int corner = 0; corner < 8; ++corner) {
        const int dx = corner & 1, dy = corner >> 1 & 1, dz = corner >> 2;
        const auto index = (static_cast<std::size_t>(z + dz) * static_cast<std::size_t>(phantom.size[1]) +
                            static_cast<std::size_t>(y + dy)) *
                               static_cast<std::size_t>(phantom.size[0]) +
                           static_cast<std::size_t>(x + dx);
        value += (dx != 0 ? fx : 1 - fx) * (dy != 0 ? fy : 1 - fy) * (dz != 0 ? fz : 1 - fz) * phantom.voxels[index];
    }
    return value;
}

bool is_between_centres(const scene::Phantom& phantom, const scene::Vec3& p) {
    return p.x >= 0 && p.y >= 0 && p.z >= 0 && p.x < phantom.size[0] - 1 && p.y < phantom.size[1] - 1 &&
           p.z < phantom.size[2] - 1;
}

}  // namespace

scene::Picture composite_model(const scene::Phantom& phantom, const scene::VolumeSource& source,
                               const scene::TransferFunction& function, const scene::Camera& camera, double step_vox) {
    raycast_test::Scene s;
    s.dims = phantom.size;
    s.spacing_mm = to_vec(phantom.spacing_mm);
    s.middle_mm = to_vec(camera.middle_mm);
    s.bits = source.Stored().bits;
    s.voxels = phantom.voxels;
    s.shaded = false;
    s.right = to_vec(camera.right);
    s.down = to_vec(camera.down);
    s.into = to_vec(camera.into);
    s.width = camera.width;
    s.height = camera.height;
    s.pixels_per_mm = camera.pixels_per_mm;

    const scene::TransferTables tables(function, source.Stored());
    for (auto& colours : s.colours) {
        std::copy_n(tables.Colours() + s.lowest(), std::size_t{1} << s.bits, colours.begin());
    }

    const std::vector<std::uint32_t> raw = raycast_test::model_picture(s, step_vox / 10.0);
    return scene::Developed(raw, camera.width, camera.height, {}, kStopTransparency);
}

scene::Picture maximum_model(const scene::Phantom& phantom, const scene::VolumeSource& source,
                             const scene::Camera& camera, const scene::DisplayWindow& window) {
    constexpr double kStepVox = 0.1;
    const scene::Vec3 per_mm = source.VoxelIndex(camera.into) - source.VoxelIndex({0, 0, 0});
    const scene::Vec3 step = per_mm * (kStepVox / scene::Length(per_mm));
    const double reach_mm = source.GetSubject().diameter_mm;
    const int num_steps = static_cast<int>(reach_mm * scene::Length(per_mm) / kStepVox);

    scene::ProjectedPicture picture{camera.width, camera.height, {}};
    picture.stored.resize(static_cast<std::size_t>(camera.width) * static_cast<std::size_t>(camera.height));
    scene::ForEachIndex(camera.height, [&](int row) {
        for (int x = 0; x < camera.width; ++x) {
            scene::Vec3 p = source.VoxelIndex(camera.PositionOnPlane(x, row) - camera.into * (reach_mm / 2.0));
            double greatest = source.Info().min_value;
            for (int i = 0; i < num_steps; ++i, p = p + step) {
                greatest = is_between_centres(phantom, p) ? std::max(greatest, trilinear(phantom, p)) : greatest;
            }
            picture.stored[static_cast<std::size_t>(row) * static_cast<std::size_t>(camera.width) +
                           static_cast<std::size_t>(x)] = static_cast<std::int16_t>(std::lround(greatest));
        }
    });
    return scene::Windowed(picture, source, window);
}

scene::TransferFunction as_tabled(const scene::TransferFunction& function, const scene::VolumeSource& source) {
    const scene::TransferTables tables(function, source.Stored());
    scene::TransferFunction result = function;
    result.opacity.clear();
    result.colour.clear();
    for (int v = source.Info().min_value; v <= source.Info().max_value; ++v) {
        const std::uint32_t entry = tables.Colours()[v];
        const auto byte = [entry](int shift) { return (entry >> shift & 255) / 255.0; };
        result.opacity.push_back({source.Rescaled(v), byte(24)});
        result.colour.push_back({source.Rescaled(v), byte(16), byte(8), byte(0)});
    }
    return result;
}

double colour_psnr(const scene::Picture& a, const scene::Picture& b) {
    double sum = 0.0;
    for (std::size_t i = 0; i < a.pixels.size(); ++i) {
        for (int shift = 0; shift < 24; shift += 8) {
            const double difference =
                static_cast<double>(a.pixels[i] >> shift & 255) - static_cast<double>(b.pixels[i] >> shift & 255);
            sum += difference * difference;
        }
    }
    const double mean = sum / (3.0 * static_cast<double>(a.pixels.size()));
    return mean > 0.0 ? 10.0 * std::log10(255.0 * 255.0 / mean) : 99.0;
}

}  // namespace peers
