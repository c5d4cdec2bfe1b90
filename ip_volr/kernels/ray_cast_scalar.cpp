// The definition of the ray caster's arithmetic: one ray after the other, one step after the other.
#include <algorithm>
#include <cmath>
#include <cstring>

#include "ip_volr/kernels/ray_cast_job.h"

namespace ip_volr::kernels {

namespace {

constexpr float kFraction = 1.0f / 65536.0f;

// A sample's place in the brick's block of voxel pairs, and its weights.
struct Cell {
    const std::uint32_t* pairs;  // of the lower corner
    std::int32_t weight_y;       // 14 bits
    float fraction_x, fraction_z;
};

struct Sample {
    std::int32_t pos[3];  // in the brick
    std::uint32_t colour;
    std::uint32_t weight;
    std::uint32_t table_index;
};

struct Light {
    std::uint32_t channel[3];
};

Cell locate(const RayCastJob& job, const std::int32_t pos[3]) {
    const std::int32_t index = (pos[2] >> 16) * kPairPlane + (pos[1] >> 16) * kPairRow + (pos[0] >> 16);
    return {job.work->pairs + kPairOrigin + index, (pos[1] & 0xffff) >> (16 - kWeightBits),
            static_cast<float>(pos[0] & 0xffff) * kFraction, static_cast<float>(pos[2] & 0xffff) * kFraction};
}

// Interpolates along y, scaled by 2^14: exact.
std::int32_t interpolate_y(const Cell& cell, std::ptrdiff_t offset) {
    const std::uint32_t pair = cell.pairs[offset];
    const std::int32_t low = static_cast<std::int16_t>(pair & 0xffff);
    const std::int32_t high = static_cast<std::int16_t>(pair >> 16);
    return low * (kWeightOne - cell.weight_y) + high * cell.weight_y;
}

float interpolate(float a, float b, float fraction) {
    return a + fraction * (b - a);
}

// Interpolates the four values of a cell's corners (x, z) along x and z.
float interpolate_xz(const Cell& cell, const std::int32_t (&corners)[4]) {
    const float near_z = interpolate(static_cast<float>(corners[0]), static_cast<float>(corners[1]), cell.fraction_x);
    const float far_z = interpolate(static_cast<float>(corners[2]), static_cast<float>(corners[3]), cell.fraction_x);
    return interpolate(near_z, far_z, cell.fraction_z);
}

std::int32_t sample_value(const Cell& cell) {
    const std::int32_t corners[4] = {interpolate_y(cell, 0), interpolate_y(cell, 1), interpolate_y(cell, kPairPlane),
                                     interpolate_y(cell, kPairPlane + 1)};
    return static_cast<std::int32_t>(std::lrint(interpolate_xz(cell, corners) * (1.0f / kWeightOne)));
}

// Difference of the interpolated volume between one voxel ahead along an axis (`stride` words apart) and one voxel
// behind, or here when gradients are fast. Its scale does not matter.
float difference(const Cell& cell, std::ptrdiff_t stride, bool fast) {
    const std::ptrdiff_t behind = fast ? 0 : -stride;
    const std::ptrdiff_t corner_offsets[4] = {0, 1, kPairPlane, kPairPlane + 1};
    std::int32_t corners[4];
    for (int i = 0; i < 4; i++) {
        corners[i] = interpolate_y(cell, corner_offsets[i] + stride) - interpolate_y(cell, corner_offsets[i] + behind);
    }
    return interpolate_xz(cell, corners);
}

// The tissue of the nearest voxel among the brick's own.
std::uint32_t sample_tissue(const RayCastJob& job, const std::int32_t pos[3]) {
    if (!job.has_tissues) {
        return static_cast<std::uint32_t>(job.brick->only_tissue);
    }
    std::int32_t voxel[3];
    for (int axis = 0; axis < 3; axis++) {
        voxel[axis] = std::min((pos[axis] + 0x8000) >> 16, kBrickEdge - 1);
    }
    return job.work->tissues[(voxel[2] * kBrickEdge + voxel[1]) * kBrickEdge + voxel[0]];
}

// Weight of one kind of light on a scale of 65535.
std::uint32_t light_weight(const RayCastJob& job, std::uint32_t table_index, int kind) {
    const std::uint64_t* const table = job.frame->weight_tables[table_index >> 16];
    if (table == nullptr) {
        return static_cast<std::uint32_t>(job.frame->uniform_weights[kind]);
    }
    return table[table_index & 0xffff] >> (16 * kind) & 0xffff;
}

// a * b / 65536 for a below 2^20 + 1 and 16 bits of b, saturated to 16 bits.
std::uint32_t multiply_16(std::uint32_t a, std::uint32_t b) {
    return static_cast<std::uint32_t>(std::min<std::uint64_t>(std::uint64_t{a} * b >> 16, 0xffff));
}

std::uint32_t weighted_channel(const Sample& sample, int channel) {
    return sample.weight * ((sample.colour >> (8 * channel) & 0xff) << 8) >> 16;
}

void add_light(const Light& light, std::uint16_t* sums) {
    for (int c = 0; c < 3; c++) {
        sums[c] = static_cast<std::uint16_t>(std::min(sums[c] + light.channel[c], 0xffffu));
    }
}

Light ambient_light(const RayCastJob& job, const Sample& sample) {
    const std::uint32_t weight = light_weight(job, sample.table_index, 2);
    Light light;
    for (int c = 0; c < 3; c++) {
        light.channel[c] = multiply_16(weight, weighted_channel(sample, c));
    }
    return light;
}

float power_8(float x) {
    const float x2 = x * x;
    const float x4 = x2 * x2;
    return x4 * x4;
}

// The highlight's brightness at the cosine s: a sharp lobe on a wide one.
float highlight(float s) {
    if (!(s > 0.5f)) {
        return 0.0f;
    }
    const float away = 1.0f - s;
    const float sharp = power_8(std::max(0.0f, 1.0f - 12.5f * away));
    const float wide = power_8(std::max(0.0f, 1.0f - 2.5f * away));
    return std::min(1.0f, sharp + wide);
}

// Cosine between the normal of length 1 / scale and a unit vector.
float cosine(const float (&normal)[3], float scale, const float (&direction)[3]) {
    return (normal[0] * direction[0] + normal[1] * direction[1] + normal[2] * direction[2]) * scale;
}

// Diffuse and specular light of a shaded sample.
void add_surface_light(const RayCastJob& job, const Sample& sample, std::uint16_t* sums) {
    const Cell cell = locate(job, sample.pos);
    const bool fast = job.frame->fast_gradients;
    const float normal[3] = {difference(cell, 1, fast), difference(cell, kPairRow, fast),
                             difference(cell, kPairPlane, fast)};
    const float length_2 = normal[0] * normal[0] + normal[1] * normal[1] + normal[2] * normal[2];
    const float scale = length_2 > 0.0f ? 1.0f / std::sqrt(length_2) : 0.0f;

    const float lambert = std::min(std::max(cosine(normal, scale, job.light), 0.0f), 1.0f);
    const float diffuse_weight = lambert * static_cast<float>(light_weight(job, sample.table_index, 0));
    const auto diffuse = static_cast<std::uint32_t>(std::lrint(diffuse_weight));
    const float specular_weight = highlight(cosine(normal, scale, job.half_vector)) *
                                  static_cast<float>(light_weight(job, sample.table_index, 1));
    const auto specular = static_cast<std::uint32_t>(std::lrint(specular_weight));

    Light light;
    for (int c = 0; c < 3; c++) {
        light.channel[c] = multiply_16(diffuse, weighted_channel(sample, c));
    }
    add_light(light, sums);
    const std::uint32_t white = multiply_16(specular, sample.weight);
    add_light({{white, white, white}}, sums);
}

bool is_cell_visible(const RayCastJob& job, const std::int32_t pos[3]) {
    const std::uint32_t word = job.brick->invisible_cache[(pos[2] >> 16) * kBrickEdge + (pos[1] >> 16)];
    return (word >> (pos[0] >> 16) & 1) != 0;
}

// One sample: absorbs transparency and collects light.
void take_sample(const RayCastJob& job, const std::int32_t pos[3], std::uint32_t& transparency, std::uint16_t* sums) {
    const RayCastFrame& frame = *job.frame;
    const std::uint32_t tissue = sample_tissue(job, pos);
    const std::int32_t value = sample_value(locate(job, pos)) + job.value_offset;
    const auto index = static_cast<std::uint32_t>(std::clamp(value, 0, frame.table_last));
    const std::uint32_t colour = frame.colours[std::size_t{tissue} * kNumTableEntries + index];
    const std::uint32_t opacity = colour >> 24;
    if (opacity == 0) {
        return;
    }
    const std::uint32_t behind = transparency * frame.step_transparency[opacity] >> 16;
    const Sample sample = {{pos[0], pos[1], pos[2]}, colour, transparency - behind, tissue << 16 | index};
    transparency = behind;

    add_light(ambient_light(job, sample), sums);
    const std::uint32_t decider = frame.weight_decides_shading ? sample.weight : opacity << 8;
    if (frame.shading && decider > frame.opacity_gradient_threshold) {
        add_surface_light(job, sample, sums);
    }
}

void cast_ray(const RayCastJob& job, _listRay& ray, std::uint16_t* sums) {
    const RayCastFrame& frame = *job.frame;
    std::int32_t pos[3];
    for (int axis = 0; axis < 3; axis++) {
        pos[axis] =
            static_cast<std::int32_t>(ray.position[axis] - (static_cast<std::uint32_t>(job.brick->origin[axis]) << 16));
    }
    std::uint32_t transparency = ray.transparency;
    while (static_cast<std::uint32_t>(pos[0] | pos[1] | pos[2]) >> kBrickPositionBits == 0 &&
           ray.step_count <= ray.end && transparency >= frame.transparency_threshold) {
        if (is_cell_visible(job, pos)) {
            take_sample(job, pos, transparency, sums);
        }
        for (int axis = 0; axis < 3; axis++) {
            pos[axis] += frame.increment[axis];
            ray.position[axis] += static_cast<std::uint32_t>(frame.increment[axis]);
        }
        ray.step_count =
            static_cast<int>(static_cast<std::uint32_t>(ray.step_count) + static_cast<std::uint32_t>(frame.step));
    }
    ray.transparency = static_cast<std::uint16_t>(transparency);
}

void cast(const RayCastJob& job) {
    gather_leaves(job, job.work->visible);
    std::memset(job.work->sums, 0, sizeof job.work->sums);
    for (int i = 0; i < job.num_rays; i++) {
        cast_ray(job, *job.work->rays[i], job.work->sums[i]);
    }
}

}  // namespace

void fill_ray_cast_scalar(RayCastKernels& table) {
    table.cast = cast;
}

}  // namespace ip_volr::kernels
