#include "tests/raycast/model.h"

#include <algorithm>
#include <cmath>

namespace raycast_test {

namespace {

constexpr double kEndTransparency = 3276.0 / 65535.0;
constexpr double kShadedAbove = 8192.0 / 256.0 / 255.0;  // opacity
constexpr double kShadedWeights[3] = {0.9, 0.6, 0.3};
constexpr double kUnshadedWeights[3] = {0.0, 0.0, 1.0};

class Model {
public:
    Model(const Scene& scene, double step_vox) : m_Scene(scene) {
        m_View = index_direction(scene.into);
        m_StepMm = step_vox / length_of_unit(scene.into);
        m_View = unit(m_View);
        const Vec light_mm = add(add(scaled(scene.right, scene.light[0]), scaled(scene.down, scene.light[1])),
                                 scaled(scene.into, scene.light[2]));
        m_Light = unit(index_direction(light_mm));
        m_Half = unit(add(m_Light, m_View));
    }

    std::uint32_t pixel(int x, int y) const {
        double near_mm = 0.0;
        double far_mm = 0.0;
        double transparency = 1.0;
        Vec light = {0.0, 0.0, 0.0};
        if (model_span(m_Scene, x, y, near_mm, far_mm)) {
            const Vec from_mm = pixel_mm(m_Scene, x, y);
            for (double at_mm = near_mm; at_mm <= far_mm && transparency >= kEndTransparency; at_mm += m_StepMm) {
                take_sample(index_of(add(from_mm, scaled(m_Scene.into, at_mm))), transparency, light);
            }
        }
        return finish(transparency, light);
    }

private:
    // ---- Spaces: voxel-centre indices of the source volume.

    Vec index_direction(const Vec& mm) const {
        Vec result{};
        for (std::size_t j = 0; j < 3; j++) {
            result[j] = dot(mm, m_Scene.axes[j]) / m_Scene.spacing_mm[j];
        }
        return result;
    }

    double length_of_unit(const Vec& direction) const {
        const Vec index = index_direction(direction);
        return std::sqrt(dot(index, index));
    }

    Vec index_of(const Vec& mm) const {
        Vec index = index_direction(add(mm, scaled(m_Scene.middle_mm, -1.0)));
        for (std::size_t j = 0; j < 3; j++) {
            index[j] += m_Scene.dims[j] / 2.0 - 0.5;
        }
        return index;
    }

    // ---- The volume, continued by its outermost voxels.

    double at(int x, int y, int z) const {
        return m_Scene.voxel(std::clamp(x, 0, m_Scene.dims[0] - 1), std::clamp(y, 0, m_Scene.dims[1] - 1),
                             std::clamp(z, 0, m_Scene.dims[2] - 1));
    }

    template <class Field>
    static double interpolate(const Vec& p, const Field& field) {
        const int x = static_cast<int>(std::floor(p[0]));
        const int y = static_cast<int>(std::floor(p[1]));
        const int z = static_cast<int>(std::floor(p[2]));
        double sum = 0.0;
        for (int corner = 0; corner < 8; corner++) {
            const int dx = corner & 1;
            const int dy = corner >> 1 & 1;
            const int dz = corner >> 2;
            const double wx = dx != 0 ? p[0] - x : 1.0 - (p[0] - x);
            const double wy = dy != 0 ? p[1] - y : 1.0 - (p[1] - y);
            const double wz = dz != 0 ? p[2] - z : 1.0 - (p[2] - z);
            sum += wx * wy * wz * field(x + dx, y + dy, z + dz);
        }
        return sum;
    }

    Vec normal(const Vec& p) const {
        Vec gradient{};
        for (std::size_t j = 0; j < 3; j++) {
            const int dx = j == 0;
            const int dy = j == 1;
            const int dz = j == 2;
            gradient[j] = interpolate(p, [&](int x, int y, int z) {
                return (at(x + dx, y + dy, z + dz) - at(x - dx, y - dy, z - dz)) / 2.0;
            });
        }
        const double len = std::sqrt(dot(gradient, gradient));
        return len > 0.0 ? scaled(gradient, 1.0 / len) : gradient;
    }

    int tissue(const Vec& p) const {
        if (m_Scene.tissues.empty()) {
            return 15;
        }
        std::size_t i[3];
        for (std::size_t j = 0; j < 3; j++) {
            i[j] =
                static_cast<std::size_t>(std::clamp(static_cast<int>(std::floor(p[j] + 0.5)), 0, m_Scene.dims[j] - 1));
        }
        const auto width = static_cast<std::size_t>(m_Scene.dims[0]);
        const auto height = static_cast<std::size_t>(m_Scene.dims[1]);
        return m_Scene.tissues[(i[2] * height + i[1]) * width + i[0]];
    }

    // ---- Light

    void take_sample(const Vec& p, double& transparency, Vec& light) const {
        const double value = interpolate(p, [&](int x, int y, int z) { return at(x, y, z); });
        const auto table = static_cast<std::size_t>(tissue(p));
        const int index =
            std::clamp(static_cast<int>(std::lround(value)) - m_Scene.lowest(), 0, (1 << m_Scene.bits) - 1);
        const std::uint32_t entry = m_Scene.colours[table][static_cast<std::size_t>(index)];
        const double opacity = (entry >> 24) / 255.0;
        if (opacity == 0.0) {
            return;
        }
        const double left = transparency * std::pow(1.0 - opacity, m_StepMm);
        const double weight = transparency - left;
        transparency = left;

        double weights[3];
        for (int i = 0; i < 3; i++) {
            weights[i] = (m_Scene.shaded ? kShadedWeights : kUnshadedWeights)[i];
            if (m_Scene.use_weight_tables) {
                weights[i] = (m_Scene.weights[table][static_cast<std::size_t>(index)] >> (16 * i) & 65535) / 65535.0;
            }
        }
        double factor = weights[2];
        double highlight = 0.0;
        if (m_Scene.shaded && opacity > kShadedAbove) {
            const Vec n = normal(p);
            factor += std::clamp(dot(n, m_Light), 0.0, 1.0) * weights[0];
            const double s = dot(n, m_Half);
            if (s > 0.5) {
                const double narrow = std::pow(std::max(0.0, 1.0 - 12.5 * (1.0 - s)), 8);
                const double wide = std::pow(std::max(0.0, 1.0 - 2.5 * (1.0 - s)), 8);
                highlight = std::min(1.0, narrow + wide) * weights[1];
            }
        }
        for (std::size_t channel = 0; channel < 3; channel++) {
            const double colour = (entry >> (8 * channel) & 255) / 256.0;
            light[channel] += weight * (factor * colour + highlight);
        }
    }

    static std::uint32_t finish(double transparency, const Vec& light) {
        double boost = 1.0;
        if (transparency < kEndTransparency) {
            boost = 1.0 + transparency + transparency * transparency;
        }
        const auto byte = [](double value) { return static_cast<std::uint32_t>(std::clamp(value, 0.0, 255.0)); };
        std::uint32_t pixel = byte(256.0 * transparency * boost) << 24;
        for (std::size_t channel = 0; channel < 3; channel++) {
            const double half = std::min(0.5, light[channel] / 2.0);
            pixel |= byte(256.0 * half * boost) << (8 * channel);
        }
        return pixel;
    }

    const Scene& m_Scene;
    Vec m_View;
    Vec m_Light;
    Vec m_Half;
    double m_StepMm = 0.0;
};

// Cuts [near, far] to where value + t * slope is not positive.
void cut(double value, double slope, double& near_mm, double& far_mm) {
    if (std::abs(slope) < 1e-9) {
        far_mm = value > 0.0 ? near_mm - 1.0 : far_mm;
    } else if (slope < 0.0) {
        near_mm = std::max(near_mm, -value / slope);
    } else {
        far_mm = std::min(far_mm, -value / slope);
    }
}

}  // namespace

bool model_span(const Scene& scene, int x, int y, double& near_mm, double& far_mm) {
    near_mm = -1e6;
    far_mm = 1e6;
    const Vec from = pixel_mm(scene, x, y);
    const Vec from_middle = add(from, scaled(scene.middle_mm, -1.0));
    for (std::size_t j = 0; j < 3; j++) {
        // Two and a half voxels off each face, across slices half a voxel; at least one voxel is left.
        const double margin_vox = j == 2 ? 0.5 : 2.5;
        const double half_mm = std::max(scene.dims[j] - 2.0 * margin_vox, 1.0) / 2.0 * scene.spacing_mm[j];
        const double at = dot(from_middle, scene.axes[j]);
        const double slope = dot(scene.into, scene.axes[j]);
        cut(at - half_mm, slope, near_mm, far_mm);
        cut(-at - half_mm, -slope, near_mm, far_mm);
    }
    for (const auto& plane : scene.planes) {
        const Vec n = {plane[0], plane[1], plane[2]};
        cut(dot(n, from) + plane[3], dot(n, scene.into), near_mm, far_mm);
    }
    return near_mm < far_mm;
}

std::vector<std::uint32_t> model_picture(const Scene& scene, double step_vox) {
    const Model model(scene, step_vox);
    std::vector<std::uint32_t> picture;
    picture.reserve(static_cast<std::size_t>(scene.width) * static_cast<std::size_t>(scene.height));
    for (int y = 0; y < scene.height; y++) {
        for (int x = 0; x < scene.width; x++) {
            picture.push_back(model.pixel(x, y));
        }
    }
    return picture;
}

}  // namespace raycast_test
