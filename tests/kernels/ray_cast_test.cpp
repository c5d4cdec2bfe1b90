// The ray caster's kernels: equal bytes for every instruction set, the same picture whatever is skipped, and the
// picture that the optical model in double precision gives.
#include "ip_volr/kernels/ray_cast.h"

#include <gtest/gtest.h>

#include <cmath>

#include "ip_volr/kernels/instruction_set.h"
#include "tests/kernels/ray_cast_scene.h"

namespace {

using namespace ray_cast_scene;

constexpr std::size_t kGuard = 64;
constexpr InstructionSet kSets[] = {InstructionSet::Scalar, InstructionSet::Sse41, InstructionSet::Avx2};

// What a call left behind.
struct Outcome {
    std::vector<_listRay> rays;  // `next` replaced by null
    std::vector<std::vector<std::ptrdiff_t>> moved;
    int num_finished = 0;
};

std::vector<std::ptrdiff_t> walk(const RayList& list, const _listRay* first) {
    std::vector<std::ptrdiff_t> order;
    for (const _listRay* ray = list.head; ray != nullptr; ray = ray->next) {
        order.push_back(ray - first);
    }
    EXPECT_EQ(list.count, static_cast<int>(order.size()));
    EXPECT_EQ(list.tail, order.empty() ? nullptr : first + order.back());
    return order;
}

std::vector<std::uint8_t> make_block() {
    return std::vector<std::uint8_t>(kWorkBlockBytes + 2 * kGuard, 0xa5);
}

// Casts a copy of the scene's rays in a work block between guard bytes, which may hold the brick already.
Outcome cast_in(std::vector<std::uint8_t>& block, bool is_held, const Scene& scene,
                const std::vector<std::uint32_t>& cache, InstructionSet set) {
    const ScopedInstructionSet limit(set);
    EXPECT_EQ(limit.in_force(), std::min(set, detected_instruction_set()));
    Outcome outcome;
    outcome.rays = scene.rays;
    RayCastResult result;
    std::memset(&result, 0xff, sizeof result);
    RayCastBrick brick = scene.brick(cache);
    brick.is_held = is_held;
    process_brick(scene.frame, brick, block.data() + kGuard, Scene::link(outcome.rays), result);
    for (std::size_t i = 0; i < kGuard; i++) {
        EXPECT_EQ(block[i], 0xa5);
        EXPECT_EQ(block[block.size() - 1 - i], 0xa5);
    }
    for (const RayList& list : result.moved) {
        outcome.moved.push_back(walk(list, outcome.rays.data()));
    }
    outcome.num_finished = result.num_finished;
    for (_listRay& ray : outcome.rays) {
        ray.next = nullptr;
    }
    return outcome;
}

Outcome cast(const Scene& scene, const std::vector<std::uint32_t>& cache, InstructionSet set) {
    std::vector<std::uint8_t> block = make_block();
    return cast_in(block, false, scene, cache, set);
}

void expect_equal(const Outcome& a, const Outcome& b, const std::string& what) {
    ASSERT_EQ(a.rays.size(), b.rays.size());
    for (std::size_t i = 0; i < a.rays.size(); i++) {
        const _listRay &p = a.rays[i], &q = b.rays[i];
        ASSERT_EQ(std::memcmp(&p, &q, sizeof p), 0)
            << what << ", ray " << i << ": position " << p.position[0] << "/" << q.position[0] << " steps "
            << p.step_count << "/" << q.step_count << " transparency " << p.transparency << "/" << q.transparency
            << " blue " << p.colour[0] << "/" << q.colour[0] << " green " << p.colour[1] << "/" << q.colour[1]
            << " red " << p.colour[2] << "/" << q.colour[2];
    }
    ASSERT_EQ(a.moved, b.moved) << what;
    ASSERT_EQ(a.num_finished, b.num_finished) << what;
}

std::string describe(const Options& o, InstructionSet set) {
    return std::string(instruction_set_name(set)) + " seed " + std::to_string(o.seed) + " rays " +
           std::to_string(o.num_rays) + " voxels " + std::to_string(static_cast<int>(o.voxels)) + " opacity " +
           std::to_string(static_cast<int>(o.opacity)) + " weights " + std::to_string(static_cast<int>(o.weights)) +
           " bits " + std::to_string(o.bits) + (o.is_signed ? " signed" : "") + (o.tissues ? " tissues" : "") +
           (o.shading ? " shading" : "") + (o.fast_gradients ? " fast" : "") +
           (o.weight_decides_shading ? " by weight" : "") + (o.missing_slices ? " missing slices" : "");
}

// Options drawn at random, every flag and value included.
Options draw_options(unsigned seed) {
    constexpr int kNumRays[] = {0, 1, 3, 4, 5, 7, 8, 9, 16, 65, 255, 256, 257, 600};
    std::mt19937 random(seed);
    const auto pick = [&random](int count) { return static_cast<int>(random() % static_cast<unsigned>(count)); };
    Options o;
    o.seed = seed;
    o.num_rays = kNumRays[seed % 14];
    o.dims = {64 + pick(9), 64 + pick(9), 64 + pick(9)};
    for (int& origin : o.origin) {
        origin = 32 * pick(3);
    }
    o.voxels = static_cast<Voxels>(pick(5));
    o.opacity = static_cast<Opacity>(pick(4));
    o.weights = static_cast<Weights>(pick(4));
    o.is_signed = pick(2) != 0;
    o.bits = pick(2) != 0 ? 16 : 12;
    o.tissues = pick(3) == 0;
    o.missing_slices = pick(4) == 0;
    o.shading = pick(4) != 0;
    o.fast_gradients = pick(2) != 0;
    o.weight_decides_shading = pick(2) != 0;
    for (double& along : o.direction) {
        along = pick(5) == 0 ? 0.0 : pick(2000) / 1000.0 - 1.0;
    }
    o.step_vox = 0.1 + pick(100) / 50.0;
    return o;
}

Options normalised(Options o) {
    // A brick beyond the drawn dimensions is no brick; a view without direction is no view.
    for (std::size_t axis = 0; axis < 3; axis++) {
        o.origin[axis] = std::min(o.origin[axis], (o.dims[axis] - 1) / 32 * 32);
    }
    const double length = std::hypot(o.direction[0], o.direction[1], o.direction[2]);
    if (length < 0.1) {
        o.direction = {0.0, 0.0, -1.0};
        return o;
    }
    for (double& along : o.direction) {
        along /= length;
    }
    return o;
}

TEST(RayCast, InstructionSetsAndSkippingGiveTheSameBytes) {
    for (unsigned seed = 0; seed < 168; seed++) {
        const Scene scene(normalised(draw_options(seed)));
        const Outcome expected = cast(scene, scene.full_cache, InstructionSet::Scalar);
        for (const InstructionSet set : kSets) {
            const std::string what = describe(scene.options, set);
            expect_equal(expected, cast(scene, scene.full_cache, set), what + ", all cells");
            expect_equal(expected, cast(scene, scene.true_cache, set), what + ", skipping");
            if (HasFatalFailure()) {
                return;
            }
        }
    }
}

TEST(RayCast, ListsMayBeDivided) {
    for (unsigned seed = 1000; seed < 1040; seed++) {
        Options o = draw_options(seed);
        o.voxels = Voxels::Noise;
        o.num_rays = 600;
        Scene scene(normalised(o));
        // Slabs of neighbours, so that each part reaches little of the brick.
        std::sort(scene.rays.begin(), scene.rays.end(), [axis = seed % 3](const _listRay& a, const _listRay& b) {
            return a.position[axis] < b.position[axis];
        });
        const Outcome whole = cast(scene, scene.true_cache, InstructionSet::Avx2);
        const std::vector<_listRay> all = scene.rays;
        std::vector<std::uint8_t> block = make_block();
        const bool keeps_block = seed % 2 == 0;
        for (std::size_t first = 0; first < all.size(); first += 37) {
            const std::size_t last = std::min(first + 37, all.size());
            const auto begin = all.begin();
            scene.rays.assign(begin + static_cast<std::ptrdiff_t>(first), begin + static_cast<std::ptrdiff_t>(last));
            const Outcome part =
                cast_in(block, keeps_block && first > 0, scene, scene.true_cache, InstructionSet::Avx2);
            for (std::size_t i = first; i < last; i++) {
                ASSERT_EQ(std::memcmp(&part.rays[i - first], &whole.rays[i], sizeof(_listRay)), 0)
                    << describe(scene.options, InstructionSet::Avx2) << ", ray " << i;
            }
        }
    }
}

TEST(RayCast, RaysLeaveToEachOfTheNeighbours) {
    for (int neighbour = 0; neighbour < kNumNeighbours; neighbour++) {
        if (neighbour == 13) {
            continue;
        }
        Options o;
        o.opacity = Opacity::None;
        o.origin = {0, 0, 0};  // positions below 0 wrap around
        o.num_rays = 9;
        o.direction = {neighbour % 3 - 1.0, neighbour / 3 % 3 - 1.0, neighbour / 9 - 1.0};
        Scene scene(o);
        for (_listRay& ray : scene.rays) {
            std::fill_n(ray.position, 3, 16u << 16);
            ray.step_count = 0;
            ray.end = 1 << 28;
            ray.transparency = 65535;
        }
        for (const InstructionSet set : kSets) {
            const Outcome outcome = cast(scene, scene.true_cache, set);
            EXPECT_EQ(outcome.moved[static_cast<std::size_t>(neighbour)].size(), scene.rays.size()) << neighbour;
            EXPECT_EQ(outcome.num_finished, 0);
            const int num_steps = outcome.rays[0].step_count / scene.frame.step;
            for (int axis = 0; axis < 3; axis++) {
                const int pos = static_cast<int>(outcome.rays[0].position[axis]);
                EXPECT_EQ(pos, (16 << 16) + num_steps * scene.frame.increment[axis]);
                // The step before was still inside.
                EXPECT_EQ((pos - scene.frame.increment[axis]) >> 21, 0);
            }
        }
    }
}

TEST(RayCast, RaysEndAtTheirEndAndAtTheThreshold) {
    Options o;
    o.voxels = Voxels::Highest;
    o.opacity = Opacity::Full;
    o.shading = false;
    o.num_rays = 2;
    Scene scene(o);
    // The first ray has passed its end after three steps, the second fades in one sample of opacity 255.
    for (_listRay& ray : scene.rays) {
        std::fill_n(ray.position, 3, 48u << 16);
        ray.step_count = 0;
        ray.end = 2 * scene.frame.step;
        ray.transparency = 65535;
        std::fill_n(ray.colour, 3, static_cast<unsigned short>(0));
    }
    const Outcome faded = cast(scene, scene.true_cache, InstructionSet::Avx2);
    EXPECT_EQ(faded.num_finished, 2);
    EXPECT_EQ(faded.rays[0].step_count, scene.frame.step);
    EXPECT_EQ(faded.rays[0].transparency, 0);
    // Weight 65535, red 250 of 256, ambient weight 19661 of 65536, halved.
    EXPECT_EQ(faded.rays[0].colour[2], 65535ll * (250 << 8) / 65536 * 19661 / 65536 / 2);
    scene.frame.step_transparency[255] = 65535;
    scene.make_entries();
    const Outcome ended = cast(scene, scene.true_cache, InstructionSet::Avx2);
    EXPECT_EQ(ended.num_finished, 2);
    EXPECT_EQ(ended.rays[1].step_count, 3 * scene.frame.step);
    EXPECT_EQ(ended.rays[1].transparency, 65532);
}

// ---- The optical model in double precision ----

class Model {
public:
    explicit Model(const Scene& scene) : m_Scene(scene) {}

    struct Light {
        double transparency;
        double colour[3];
    };

    Light cast(const _listRay& ray) const {
        Light light = {ray.transparency / 65535.0, {}};
        double pos[3] = {ray.position[0] / 65536.0, ray.position[1] / 65536.0, ray.position[2] / 65536.0};
        for (double count = ray.step_count; count <= ray.end && light.transparency * 65535.0 >= 3276.0;
             count += m_Scene.frame.step) {
            for (std::size_t axis = 0; axis < 3; axis++) {
                if (std::floor(pos[axis] / 32.0) != m_Scene.options.origin[axis] / 32) {
                    return light;
                }
            }
            add_sample(pos, light);
            for (int axis = 0; axis < 3; axis++) {
                pos[axis] += m_Scene.frame.increment[axis] / 65536.0;
            }
        }
        return light;
    }

private:
    // Interpolates f over the eight voxels around a position.
    template <class Function>
    static double interpolate(const double pos[3], Function f) {
        const int x = static_cast<int>(pos[0]), y = static_cast<int>(pos[1]), z = static_cast<int>(pos[2]);
        double sum = 0.0;
        for (int corner = 0; corner < 8; corner++) {
            const int dx = corner & 1, dy = corner >> 1 & 1, dz = corner >> 2;
            const double weight =
                std::abs(1 - dx - (pos[0] - x)) * std::abs(1 - dy - (pos[1] - y)) * std::abs(1 - dz - (pos[2] - z));
            sum += weight * f(x + dx, y + dy, z + dz);
        }
        return sum;
    }

    void find_normal(const double pos[3], double normal[3]) const {
        const int behind = m_Scene.options.fast_gradients ? 0 : 1;
        double length = 0.0;
        for (int axis = 0; axis < 3; axis++) {
            const int dx = axis == 0, dy = axis == 1, dz = axis == 2;
            normal[axis] = interpolate(pos, [&](int x, int y, int z) {
                return m_Scene.value(x + dx, y + dy, z + dz) -
                       m_Scene.value(x - behind * dx, y - behind * dy, z - behind * dz);
            });
            length += normal[axis] * normal[axis];
        }
        for (int axis = 0; axis < 3; axis++) {
            normal[axis] /= length > 0.0 ? std::sqrt(length) : 1.0;
        }
    }

    void add_sample(const double pos[3], Light& light) const {
        const RayCastFrame& frame = m_Scene.frame;
        const double value = interpolate(pos, [&](int x, int y, int z) { return m_Scene.value(x, y, z); });
        int nearest[3];
        for (std::size_t axis = 0; axis < 3; axis++) {
            nearest[axis] = std::min(static_cast<int>(pos[axis] + 0.5), m_Scene.options.origin[axis] + 31);
        }
        const int tissue = m_Scene.tissue(nearest[0], nearest[1], nearest[2]);
        const std::uint32_t entry = m_Scene.colour(tissue, static_cast<int>(std::lround(value)));
        const double opacity = (entry >> 24) / 255.0;
        const double weight = light.transparency * (1.0 - std::pow(1.0 - opacity, m_Scene.options.step_vox));
        light.transparency -= weight;
        double diffuse = 0.0, specular = 0.0;
        if (frame.shading && (entry >> 24) * 256 > frame.opacity_gradient_threshold) {
            double normal[3], half[3], length = 0.0, cosine = 0.0;
            find_normal(pos, normal);
            for (int axis = 0; axis < 3; axis++) {
                half[axis] = frame.light[axis] + frame.view[axis];
                length += half[axis] * half[axis];
                diffuse += normal[axis] * frame.light[axis];
            }
            for (int axis = 0; axis < 3; axis++) {
                cosine += normal[axis] * half[axis] / std::sqrt(length);
            }
            diffuse = std::clamp(diffuse, 0.0, 1.0) * frame.uniform_weights[0] / 65536.0;
            const double lobes = std::pow(std::max(0.0, 1.0 - 12.5 * (1.0 - cosine)), 8.0) +
                                 std::pow(std::max(0.0, 1.0 - 2.5 * (1.0 - cosine)), 8.0);
            specular = cosine > 0.5 ? std::min(1.0, lobes) * frame.uniform_weights[1] / 65536.0 : 0.0;
        }
        for (int c = 0; c < 3; c++) {
            const double channel = (entry >> (8 * c) & 0xff) / 256.0;
            light.colour[c] += weight * (channel * (frame.uniform_weights[2] / 65536.0 + diffuse) + specular);
        }
    }

    const Scene& m_Scene;
};

TEST(RayCast, ScalarKernelFollowsTheOpticalModel) {
    for (int variant = 0; variant < 6; variant++) {
        Options o;
        o.seed = 100u + static_cast<unsigned>(variant);
        o.is_signed = variant % 2 != 0;
        o.fast_gradients = variant == 2;
        o.tissues = variant == 3;
        o.bits = variant == 4 ? 14 : 16;
        o.missing_slices = variant == 5;
        o.num_rays = variant % 2 != 0 ? 400 : 40;
        Scene scene(o);
        for (_listRay& ray : scene.rays) {
            ray.transparency = 65535;
            std::fill_n(ray.colour, 3, static_cast<unsigned short>(0));
        }
        const Outcome outcome = cast(scene, scene.true_cache, InstructionSet::Scalar);
        const Model model(scene);
        double error_2 = 0.0;
        for (std::size_t i = 0; i < scene.rays.size(); i++) {
            const Model::Light light = model.cast(scene.rays[i]);
            const _listRay& ray = outcome.rays[i];
            error_2 += std::pow(ray.transparency / 65535.0 - light.transparency, 2.0);
            for (int c = 0; c < 3; c++) {
                // The sums of a brick saturate at 1.
                error_2 += std::pow(ray.colour[c] / 32767.5 - std::min(light.colour[c], 1.0), 2.0);
            }
        }
        const double psnr = -10.0 * std::log10(error_2 / (4.0 * static_cast<double>(scene.rays.size())));
        EXPECT_GT(psnr, 60.0) << "variant " << variant;
    }
}

}  // namespace
