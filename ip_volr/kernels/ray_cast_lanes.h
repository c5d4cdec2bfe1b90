// The vector form of the ray caster: one ray in each lane, for any number of lanes. Included by the files of the
// instruction sets only, each with a type `Lanes` of its own in an anonymous namespace; everything here is a template
// on it, so no two instruction sets share code.
//
// A lane is given a run: a number of samples, known beforehand, that stay inside a cube of visible leaves, inside the
// brick and before the ray's end. While all lanes have samples left nothing else is looked at. When a run is over its
// lane is served: the ray retires and the lane takes the next one, or it leaps over cubes of invisible leaves to the
// next visible one and gets a new run. Samples that are to be shaded go to a queue, which is worked off a full vector
// at a time whichever rays they came from: the light of a ray in a brick is a saturating sum, so its order does not
// matter.
#pragma once

#include <cstdint>

#include "ip_volr/kernels/ray_cast_job.h"

// The inner loop keeps its state in registers only when nothing in it is a call.
#define IP_VOLR_HOT __attribute__((always_inline)) inline
#define IP_VOLR_COLD __attribute__((noinline))

namespace ip_volr::kernels {

namespace {

// The registers of a lane that change as its ray moves.
template <class Lanes>
struct LaneState {
    using Int = typename Lanes::Int;
    Int x, y, z;       // position in the brick
    Int count, end;    // step counts
    Int transparency;  // 16 bits
    Int light_br;      // light of this brick: blue in the low, red in the high 16 bits
    Int light_g;       // green in the low 16 bits
    Int run;           // samples until the lane is served
    Int live;          // all ones while the lane has a ray
};

// The same in memory, where single lanes are reached; this is where the state lives between two runs.
template <class Lanes>
struct alignas(32) LaneMemory {
    using State = LaneState<Lanes>;
    std::int32_t x[Lanes::kCount], y[Lanes::kCount], z[Lanes::kCount];
    std::int32_t count[Lanes::kCount], end[Lanes::kCount], transparency[Lanes::kCount];
    std::uint32_t light_br[Lanes::kCount], light_g[Lanes::kCount];
    std::int32_t run[Lanes::kCount], live[Lanes::kCount];

    IP_VOLR_HOT State load() const {
        return {Lanes::load(x),        Lanes::load(y),       Lanes::load(z),
                Lanes::load(count),    Lanes::load(end),     Lanes::load(transparency),
                Lanes::load(light_br), Lanes::load(light_g), Lanes::load(run),
                Lanes::load(live)};
    }
    IP_VOLR_HOT void store_position(const State& state) {
        Lanes::store(x, state.x);
        Lanes::store(y, state.y);
        Lanes::store(z, state.z);
        Lanes::store(count, state.count);
        Lanes::store(run, state.run);
    }
    // All that a run of samples changes.
    IP_VOLR_HOT void store(const State& state) {
        store_position(state);
        Lanes::store(transparency, state.transparency);
        Lanes::store(light_br, state.light_br);
        Lanes::store(light_g, state.light_g);
    }
};

template <class Lanes>
struct CellLanes {
    typename Lanes::Int index;     // word of the lower corner in the block of voxel pairs
    typename Lanes::Int weight_y;  // both weights, 14 bits each in 16
    typename Lanes::Float fraction_x, fraction_z;
};

template <class Lanes>
class RayCaster {
    using Int = typename Lanes::Int;
    using Float = typename Lanes::Float;
    using Cell = CellLanes<Lanes>;
    using State = LaneState<Lanes>;
    static constexpr int kCount = Lanes::kCount;
    static constexpr int kFullQueue = kShadeQueue - 8;

    // Two neighbours along x, interpolated along y.
    struct Edge {
        Int first, second;
    };

    // What the inner loop needs in every lane. The compiler is kept from seeing the values: it would rather build them
    // anew in each turn than keep them.
    struct Constants {
        Int zero = Lanes::hide(Lanes::set(0));
        Int one = Lanes::hide(Lanes::set(1));
        Int low_bits = Lanes::hide(Lanes::set(0xffff));
        Int high_bits = Lanes::hide(Lanes::set(-0x10000));
        Int strides = Lanes::hide(Lanes::set(kPairPlane << 16 | kPairRow));
        Int weight_one = Lanes::hide(Lanes::set(kWeightOne));
        Int blue_red = Lanes::hide(Lanes::set(-0xff0100));
        Int green = Lanes::hide(Lanes::set(0xff00));
        Float unit = Lanes::hide(Lanes::set(1.0f / 65536.0f));
        Float value_unit = Lanes::hide(Lanes::set(1.0f / kWeightOne));
        Int increment_x, increment_y, increment_z, step;
        Int value_offset, table_last, transparency_threshold, shading_threshold, ambient, ambient_2;

        explicit Constants(const RayCastJob& job)
            : increment_x(Lanes::hide(Lanes::set(job.frame->increment[0]))),
              increment_y(Lanes::hide(Lanes::set(job.frame->increment[1]))),
              increment_z(Lanes::hide(Lanes::set(job.frame->increment[2]))),
              step(Lanes::hide(Lanes::set(job.frame->step))),
              value_offset(Lanes::hide(Lanes::set(job.value_offset))),
              table_last(Lanes::hide(Lanes::set(job.frame->table_last))),
              transparency_threshold(Lanes::hide(Lanes::set(job.frame->transparency_threshold))),
              // Nothing exceeds the threshold when shading is off.
              shading_threshold(
                  Lanes::hide(Lanes::set(job.frame->shading ? job.frame->opacity_gradient_threshold : 0x10000))),
              ambient(Lanes::hide(Lanes::set(job.frame->uniform_weights[2]))),
              ambient_2(Lanes::hide(duplicate_16(Lanes::set(job.frame->uniform_weights[2])))) {}
    };

public:
    explicit RayCaster(const RayCastJob& job)
        : m_Job(job), m_Frame(*job.frame), m_Work(*job.work), m_NextRay(0), m_NumQueued(0) {
        m_Colours = m_Frame.colours;
        m_TissueBits = 0;
        if (!job.has_tissues) {
            m_TissueBits = job.brick->only_tissue << 16;
            m_Colours += m_TissueBits;
        }
    }

    void cast() {
        for (int i = 0; i < m_Job.num_rays; i++) {
            Lanes::clear_sums(m_Work.sums[i]);
        }
        const Constants constants(m_Job);
        start();
        while (serve()) {
            State state = m_Lanes.load();
            do {
                take_samples(constants, state);
            } while (Lanes::mask(Lanes::greater(constants.one, state.run)) == 0 && m_NumQueued < kFullQueue);
            m_Lanes.store(state);
            if (m_NumQueued >= kFullQueue) {
                shade_full_vectors();
            }
        }
        shade_queue(m_NumQueued);
    }

private:
    // ---- Movement ----

    // Loads the first rays.
    void start() {
        for (int lane = 0; lane < kCount; lane++) {
            load_ray(lane);
        }
    }

    // Gives every lane without samples left a new run or a new ray. False when no lane has a ray any more.
    IP_VOLR_COLD bool serve() {
        for (;;) {
            State state = m_Lanes.load();
            const Int waiting = Lanes::greater(Lanes::set(1), state.run);
            const int num_retired = replace_rays(Lanes::mask(Lanes::bit_and(waiting, find_retired(state))));
            if (num_retired == 0) {
                if (Lanes::mask(waiting) == 0) {
                    return Lanes::mask(state.live) != 0;
                }
                find_runs(state, waiting);
                m_Lanes.store_position(state);
            }
        }
    }

    // Lanes whose ray has left the brick, passed its end or faded.
    Int find_retired(const State& state) {
        const Int position = Lanes::bit_or(Lanes::bit_or(state.x, state.y), state.z);
        const Int outside = Lanes::greater(Lanes::template shift_right<kBrickPositionBits>(position), Lanes::set(0));
        const Int ended = Lanes::greater(state.count, state.end);
        const Int faded = Lanes::greater(Lanes::set(m_Frame.transparency_threshold), state.transparency);
        return Lanes::bit_or(outside, Lanes::bit_or(ended, faded));
    }

    // Writes the rays of the given lanes back and gives these lanes the next rays. Returns the lanes.
    int replace_rays(int lanes) {
        for (int left = lanes; left != 0; left &= left - 1) {
            const int lane = __builtin_ctz(static_cast<unsigned>(left));
            retire_ray(lane);
            load_ray(lane);
        }
        return lanes;
    }

    void retire_ray(int lane) {
        const int* const origin = m_Job.brick->origin;
        const int slot = m_Slot[lane];
        _listRay& ray = *m_Work.rays[slot];
        ray.position[0] = static_cast<std::uint32_t>(m_Lanes.x[lane]) + (static_cast<std::uint32_t>(origin[0]) << 16);
        ray.position[1] = static_cast<std::uint32_t>(m_Lanes.y[lane]) + (static_cast<std::uint32_t>(origin[1]) << 16);
        ray.position[2] = static_cast<std::uint32_t>(m_Lanes.z[lane]) + (static_cast<std::uint32_t>(origin[2]) << 16);
        ray.step_count = m_Lanes.count[lane];
        ray.transparency = static_cast<unsigned short>(m_Lanes.transparency[lane]);
        Lanes::add_to_sums(m_Work.sums[slot], m_Lanes.light_br[lane], m_Lanes.light_g[lane]);
    }

    void load_ray(int lane) {
        m_Lanes.light_br[lane] = 0;
        m_Lanes.light_g[lane] = 0;
        if (m_NextRay == m_Job.num_rays) {
            // An idle lane is never served again.
            m_Slot[lane] = 0;
            m_Lanes.x[lane] = m_Lanes.y[lane] = m_Lanes.z[lane] = 0;
            m_Lanes.count[lane] = m_Lanes.end[lane] = 0;
            m_Lanes.transparency[lane] = 0xffff;
            m_Lanes.run[lane] = 0x7fffffff;
            m_Lanes.live[lane] = 0;
            return;
        }
        const int* const origin = m_Job.brick->origin;
        const _listRay& ray = *m_Work.rays[m_NextRay];
        m_Slot[lane] = m_NextRay++;
        m_Lanes.x[lane] = static_cast<std::int32_t>(ray.position[0] - (static_cast<std::uint32_t>(origin[0]) << 16));
        m_Lanes.y[lane] = static_cast<std::int32_t>(ray.position[1] - (static_cast<std::uint32_t>(origin[1]) << 16));
        m_Lanes.z[lane] = static_cast<std::int32_t>(ray.position[2] - (static_cast<std::uint32_t>(origin[2]) << 16));
        m_Lanes.count[lane] = ray.step_count;
        m_Lanes.end[lane] = ray.end;
        m_Lanes.transparency[lane] = ray.transparency;
        m_Lanes.run[lane] = 0;
        m_Lanes.live[lane] = -1;
    }

    // Distance, as if coordinates always grew, to the last position of the cube of `edge` leaves around a coordinate.
    Float find_distance(Int coordinate, Int edge, std::int32_t mirror) {
        const Int mirrored = Lanes::bit_xor(coordinate, Lanes::set(mirror));
        const Int leaf = Lanes::template shift_right<kLeafPositionBits>(mirrored);
        const Int beyond = Lanes::template shift_left<kLeafPositionBits>(Lanes::add(leaf, edge));
        return Lanes::to_float(Lanes::sub(Lanes::sub(beyond, Lanes::set(1)), mirrored));
    }

    // Gives the waiting lanes in visible leaves a run and moves the others, which go on waiting, behind the invisible
    // leaves around them.
    void find_runs(State& state, Int waiting) {
        // Look up the leaf.
        const Int leaf_x = Lanes::template shift_right<kLeafPositionBits>(state.x);
        const Int leaf_y = Lanes::template shift_right<kLeafPositionBits>(state.y);
        const Int leaf_z = Lanes::template shift_right<kLeafPositionBits>(state.z);
        Int leaf = Lanes::add(Lanes::template shift_left<3>(leaf_z), leaf_y);
        leaf = Lanes::bit_and(Lanes::add(Lanes::template shift_left<3>(leaf), leaf_x), Lanes::set(kNumLeaves - 1));
        const Int leaf_run = Lanes::load_byte(m_Work.leaf_runs, leaf);
        const Int edge = Lanes::absolute(leaf_run);

        // Count the steps that stay in the cube and do not pass the end. Whether a step more would stay does not
        // matter: it would only be found by the next look-up.
        const float* const scale = m_Job.steps_per_unit;
        const std::int32_t* const mirror = m_Job.mirror;
        const Float steps_x = Lanes::mul(find_distance(state.x, edge, mirror[0]), Lanes::set(scale[0]));
        const Float steps_y = Lanes::mul(find_distance(state.y, edge, mirror[1]), Lanes::set(scale[1]));
        const Float steps_z = Lanes::mul(find_distance(state.z, edge, mirror[2]), Lanes::set(scale[2]));
        const Float left = Lanes::to_float(Lanes::sub(state.end, state.count));
        const Float steps_left = Lanes::mul(left, Lanes::set(scale[3]));
        const Float least = Lanes::min(Lanes::min(steps_x, steps_y), Lanes::min(steps_z, steps_left));
        const Int run = Lanes::add(Lanes::truncate(least), Lanes::set(1));

        // Set the runs, leap.
        const Int leaping = Lanes::bit_and(waiting, Lanes::greater(leaf_run, Lanes::set(0)));
        const Int sampling = Lanes::bit_and_not(leaping, waiting);
        state.run = Lanes::select(sampling, run, state.run);
        const Int leap = Lanes::bit_and(leaping, run);
        state.x = Lanes::add(state.x, Lanes::mul_low(leap, Lanes::set(m_Frame.increment[0])));
        state.y = Lanes::add(state.y, Lanes::mul_low(leap, Lanes::set(m_Frame.increment[1])));
        state.z = Lanes::add(state.z, Lanes::mul_low(leap, Lanes::set(m_Frame.increment[2])));
        state.count = Lanes::add(state.count, Lanes::mul_low(leap, Lanes::set(m_Frame.step)));
    }

    // ---- Samples ----

    IP_VOLR_HOT static Cell locate(const Constants& k, Int x, Int y, Int z) {
        // y in the low and z in the high 16 bits, times their strides.
        const Int yz = Lanes::bit_or(Lanes::template shift_right<16>(y), Lanes::bit_and(z, k.high_bits));
        const Int row = Lanes::madd(yz, k.strides);
        const Int f = Lanes::template shift_right<16 - kWeightBits>(Lanes::bit_and(y, k.low_bits));
        return {Lanes::add(Lanes::template shift_right<16>(x), row),
                Lanes::add(Lanes::template shift_left<16>(f), Lanes::sub(k.weight_one, f)),
                Lanes::mul(Lanes::to_float(Lanes::bit_and(x, k.low_bits)), k.unit),
                Lanes::mul(Lanes::to_float(Lanes::bit_and(z, k.low_bits)), k.unit)};
    }

    IP_VOLR_HOT static Float interpolate(Float a, Float b, Float fraction) {
        return Lanes::add(a, Lanes::mul(fraction, Lanes::sub(b, a)));
    }

    IP_VOLR_HOT static Float interpolate_xz(const Cell& cell, Int near_0, Int near_1, Int far_0, Int far_1) {
        const Float near_z = interpolate(Lanes::to_float(near_0), Lanes::to_float(near_1), cell.fraction_x);
        const Float far_z = interpolate(Lanes::to_float(far_0), Lanes::to_float(far_1), cell.fraction_x);
        return interpolate(near_z, far_z, cell.fraction_z);
    }

    IP_VOLR_HOT Edge load_edge(const Cell& cell, int offset) {
        Int first, second;
        Lanes::load_2(m_Work.pairs + kPairOrigin + offset, cell.index, first, second);
        return {Lanes::madd(first, cell.weight_y), Lanes::madd(second, cell.weight_y)};
    }

    IP_VOLR_HOT Int sample_value(const Constants& k, const Cell& cell) {
        const Edge near_z = load_edge(cell, 0);
        const Edge far_z = load_edge(cell, kPairPlane);
        const Float value = interpolate_xz(cell, near_z.first, near_z.second, far_z.first, far_z.second);
        return Lanes::round(Lanes::mul(value, k.value_unit));
    }

    // Tissue << 16 of each lane's nearest voxel.
    IP_VOLR_HOT Int sample_tissue(const State& state) {
        if (!m_Job.has_tissues) {
            return Lanes::set(m_TissueBits);
        }
        const Int half = Lanes::set(0x8000);
        const Int last = Lanes::set(kBrickEdge - 1);
        const Int x = Lanes::min(Lanes::template shift_right<16>(Lanes::add(state.x, half)), last);
        const Int y = Lanes::min(Lanes::template shift_right<16>(Lanes::add(state.y, half)), last);
        const Int z = Lanes::min(Lanes::template shift_right<16>(Lanes::add(state.z, half)), last);
        const Int row = Lanes::add(Lanes::template shift_left<kBrickEdgeLog2>(z), y);
        const Int voxel = Lanes::bit_and(state.live, Lanes::add(Lanes::template shift_left<kBrickEdgeLog2>(row), x));
        const Int tissue = Lanes::load_byte(reinterpret_cast<const std::int8_t*>(m_Work.tissues), voxel);
        return Lanes::template shift_left<16>(tissue);
    }

    // Takes one sample in every lane and moves on.
    IP_VOLR_HOT void take_samples(const Constants& k, State& state) {
        // Classify.
        Cell cell = locate(k, state.x, state.y, state.z);
        cell.index = Lanes::bit_and(state.live, cell.index);  // idle lanes drift
        const Int value = Lanes::add(sample_value(k, cell), k.value_offset);
        const Int index = Lanes::max(k.zero, Lanes::min(value, k.table_last));
        const Int tissue = sample_tissue(state);
        const Int entry = m_Job.has_tissues ? Lanes::add(tissue, index) : index;
        const Int colour = Lanes::bit_and(state.live, Lanes::load_word(m_Colours, entry));
        const Int opacity = Lanes::template shift_right<24>(colour);

        // Composite.
        state.run = Lanes::sub(state.run, k.one);
        const Int is_opaque = Lanes::greater(opacity, k.zero);
        if (Lanes::mask(is_opaque) != 0) {
            const Int step_transparency = Lanes::load_word(m_Frame.step_transparency, opacity);
            const Int behind = Lanes::mul_high_16(state.transparency, step_transparency);
            const Int weight = Lanes::bit_and(is_opaque, Lanes::sub(state.transparency, behind));
            state.transparency = Lanes::sub(state.transparency, weight);
            add_light(k, state, colour, opacity, weight, Lanes::bit_or(tissue, index));
            // A faded ray has no run left.
            const Int faded = Lanes::greater(k.transparency_threshold, state.transparency);
            state.run = Lanes::bit_and_not(faded, state.run);
        }

        // Advance.
        state.x = Lanes::add(state.x, k.increment_x);
        state.y = Lanes::add(state.y, k.increment_y);
        state.z = Lanes::add(state.z, k.increment_z);
        state.count = Lanes::add(state.count, k.step);
    }

    // ---- Light ----

    IP_VOLR_HOT static Int duplicate_16(Int value) {
        return Lanes::bit_or(value, Lanes::template shift_left<16>(value));
    }

    IP_VOLR_HOT static Int weighted_blue_red(const Constants& k, Int colour, Int weight) {
        const Int bytes = Lanes::bit_and(Lanes::template shift_left<8>(colour), k.blue_red);
        return Lanes::mul_high_16(bytes, duplicate_16(weight));
    }

    IP_VOLR_HOT static Int weighted_green(const Constants& k, Int colour, Int weight) {
        return Lanes::mul_high_16(Lanes::bit_and(colour, k.green), weight);
    }

    // a * b / 65536 in every 16 bits, saturated; a is given by the 16 bits above and below 65536.
    IP_VOLR_HOT static Int multiply_16(Int a_high, Int a_low, Int b) {
        const Int whole = Lanes::saturating_product_16(a_high, b);
        return Lanes::add_saturated_16(whole, Lanes::mul_high_16(a_low, b));
    }

    // Weight of one kind of light of each lane, below 65536 when it comes from a table.
    IP_VOLR_HOT Int light_weight(Int table_index, int kind) {
        if (!m_Job.has_weight_tables) {
            return Lanes::set(m_Frame.uniform_weights[kind]);
        }
        if (!m_Job.has_tissues) {
            // One table for all lanes: its entries are two words, the first with the first two weights.
            const std::uint64_t* const table = m_Frame.weight_tables[m_Job.brick->only_tissue];
            const auto* const words = reinterpret_cast<const std::uint32_t*>(table);
            const Int index = Lanes::bit_and(table_index, Lanes::set(0xffff));
            const Int word = Lanes::load_word(words + kind / 2, Lanes::template shift_left<1>(index));
            return kind == 1 ? Lanes::template shift_right<16>(word) : Lanes::bit_and(word, Lanes::set(0xffff));
        }
        alignas(32) std::int32_t indices[kCount];
        alignas(32) std::int32_t weights[kCount];
        Lanes::store(indices, table_index);
        for (int lane = 0; lane < kCount; lane++) {
            const std::uint64_t* const table = m_Frame.weight_tables[indices[lane] >> 16];
            weights[lane] = table != nullptr
                                ? static_cast<std::int32_t>(table[indices[lane] & 0xffff] >> (16 * kind) & 0xffff)
                                : m_Frame.uniform_weights[kind];
        }
        return Lanes::load(weights);
    }

    // Light of one sample in every lane; the samples to be shaded go to the queue.
    IP_VOLR_HOT void add_light(const Constants& k, State& state, Int colour, Int opacity, Int weight, Int table_index) {
        const Int blue_red = weighted_blue_red(k, colour, weight);
        const Int green = weighted_green(k, colour, weight);
        if (m_Job.has_simple_weights) {
            state.light_br = Lanes::add_saturated_16(state.light_br, Lanes::mul_high_16(blue_red, k.ambient_2));
            state.light_g = Lanes::add_saturated_16(state.light_g, Lanes::mul_high_16(green, k.ambient));
        } else {
            const Int ambient = light_weight(table_index, 2);
            const Int low = Lanes::bit_and(ambient, k.low_bits);
            const Int high = Lanes::template shift_right<16>(ambient);
            const Int br = multiply_16(duplicate_16(high), duplicate_16(low), blue_red);
            state.light_br = Lanes::add_saturated_16(state.light_br, br);
            state.light_g = Lanes::add_saturated_16(state.light_g, multiply_16(high, low, green));
        }
        const Int decider = m_Frame.weight_decides_shading ? weight : Lanes::template shift_left<8>(opacity);
        const int shaded = Lanes::mask(Lanes::greater(decider, k.shading_threshold));
        if (shaded != 0) {
            queue_samples(state, colour, weight, table_index, shaded);
        }
    }

    // ---- Shading ----

    // The queue has room for one more vector whenever samples are taken.
    IP_VOLR_HOT void queue_samples(const State& state, Int colour, Int weight, Int table_index, int lanes) {
        ShadeQueue& queue = m_Work.queue;
        const auto order = Lanes::compress_order(lanes);
        Lanes::store_compressed(queue.x + m_NumQueued, state.x, order);
        Lanes::store_compressed(queue.y + m_NumQueued, state.y, order);
        Lanes::store_compressed(queue.z + m_NumQueued, state.z, order);
        Lanes::store_compressed(queue.colour + m_NumQueued, colour, order);
        Lanes::store_compressed(queue.weight + m_NumQueued, weight, order);
        Lanes::store_compressed(queue.table_index + m_NumQueued, table_index, order);
        Lanes::store_compressed(queue.slot + m_NumQueued, Lanes::load(m_Slot), order);
        m_NumQueued += Lanes::count_bits(lanes);
    }

    // Works off whole vectors and moves the rest to the front.
    IP_VOLR_COLD void shade_full_vectors() {
        ShadeQueue& queue = m_Work.queue;
        const int num_shaded = m_NumQueued - m_NumQueued % kCount;
        const int num_left = m_NumQueued - num_shaded;
        shade_queue(num_shaded);
        for (int i = 0; i < num_left; i++) {
            queue.x[i] = queue.x[num_shaded + i];
            queue.y[i] = queue.y[num_shaded + i];
            queue.z[i] = queue.z[num_shaded + i];
            queue.colour[i] = queue.colour[num_shaded + i];
            queue.weight[i] = queue.weight[num_shaded + i];
            queue.table_index[i] = queue.table_index[num_shaded + i];
            queue.slot[i] = queue.slot[num_shaded + i];
        }
        m_NumQueued = num_left;
    }

    IP_VOLR_COLD void shade_queue(int num_samples) {
        const Constants constants(m_Job);
        for (int first = 0; first < num_samples; first += kCount) {
            const int num_left = num_samples - first;
            shade(constants, first, num_left < kCount ? num_left : kCount);
        }
    }

    struct Normal {
        Float x, y, z;
    };

    // The gradient of the interpolated volume, up to a factor.
    Normal find_gradient(const Cell& cell) {
        const bool fast = m_Frame.fast_gradients;

        // Along x: four neighbours in a row, on both faces.
        Float along_x[2];
        for (int face = 0; face < 2; face++) {
            Int words[4];
            Lanes::load_4(m_Work.pairs + kPairOrigin + face * kPairPlane - 1, cell.index, words);
            Int values[4];
            for (int i = 0; i < 4; i++) {
                values[i] = Lanes::madd(words[i], cell.weight_y);
            }
            const Int first = Lanes::sub(values[2], fast ? values[1] : values[0]);
            const Int second = Lanes::sub(values[3], fast ? values[2] : values[1]);
            along_x[face] = interpolate(Lanes::to_float(first), Lanes::to_float(second), cell.fraction_x);
        }
        return {interpolate(along_x[0], along_x[1], cell.fraction_z), find_difference(cell, kPairRow, fast),
                find_difference(cell, kPairPlane, fast)};
    }

    // Difference between the volume one voxel ahead and one behind (or here), `stride` words apart.
    Float find_difference(const Cell& cell, int stride, bool fast) {
        const int behind = fast ? 0 : -stride;
        const Edge near_ahead = load_edge(cell, stride);
        const Edge near_behind = load_edge(cell, behind);
        const Edge far_ahead = load_edge(cell, kPairPlane + stride);
        const Edge far_behind = load_edge(cell, kPairPlane + behind);
        return interpolate_xz(
            cell, Lanes::sub(near_ahead.first, near_behind.first), Lanes::sub(near_ahead.second, near_behind.second),
            Lanes::sub(far_ahead.first, far_behind.first), Lanes::sub(far_ahead.second, far_behind.second));
    }

    static Float scalar_product(const Normal& normal, const float (&direction)[3]) {
        const Float xy =
            Lanes::add(Lanes::mul(normal.x, Lanes::set(direction[0])), Lanes::mul(normal.y, Lanes::set(direction[1])));
        return Lanes::add(xy, Lanes::mul(normal.z, Lanes::set(direction[2])));
    }

    static Float power_8(Float x) {
        const Float x2 = Lanes::mul(x, x);
        const Float x4 = Lanes::mul(x2, x2);
        return Lanes::mul(x4, x4);
    }

    static Float highlight(Float s) {
        const Float zero = Lanes::set(0.0f);
        const Float one = Lanes::set(1.0f);
        const Float away = Lanes::sub(one, s);
        const Float sharp = power_8(Lanes::max(zero, Lanes::sub(one, Lanes::mul(Lanes::set(12.5f), away))));
        const Float wide = power_8(Lanes::max(zero, Lanes::sub(one, Lanes::mul(Lanes::set(2.5f), away))));
        return Lanes::keep_where_greater(s, Lanes::set(0.5f), Lanes::min(one, Lanes::add(sharp, wide)));
    }

    // Diffuse and specular light of `num_samples` queued samples, at most a vector of them.
    void shade(const Constants& k, int first, int num_samples) {
        // Find the normals.
        const ShadeQueue& queue = m_Work.queue;
        const Int valid = Lanes::first_lanes(num_samples);
        const Cell cell = locate(k, Lanes::bit_and(valid, Lanes::load(queue.x + first)),
                                 Lanes::bit_and(valid, Lanes::load(queue.y + first)),
                                 Lanes::bit_and(valid, Lanes::load(queue.z + first)));
        const Normal normal = find_gradient(cell);
        const Float length_2 = Lanes::add(Lanes::add(Lanes::mul(normal.x, normal.x), Lanes::mul(normal.y, normal.y)),
                                          Lanes::mul(normal.z, normal.z));
        const Float zero = Lanes::set(0.0f);
        const Float one = Lanes::set(1.0f);
        const Float scale = Lanes::keep_where_greater(length_2, zero, Lanes::div(one, Lanes::sqrt(length_2)));

        // Weigh both kinds of light.
        const Float lit = Lanes::mul(scalar_product(normal, m_Job.light), scale);
        const Float lambert = Lanes::min(Lanes::max(lit, zero), one);
        const Float reflected = highlight(Lanes::mul(scalar_product(normal, m_Job.half_vector), scale));
        const Int table_index = Lanes::bit_and(valid, Lanes::load(queue.table_index + first));
        const Int diffuse = Lanes::round(Lanes::mul(lambert, Lanes::to_float(light_weight(table_index, 0))));
        const Int specular = Lanes::round(Lanes::mul(reflected, Lanes::to_float(light_weight(table_index, 1))));

        // Light up.
        const Int colour = Lanes::load(queue.colour + first);
        const Int weight = Lanes::load(queue.weight + first);
        const Int specular_low = Lanes::bit_and(specular, Lanes::set(0xffff));
        const Int white = multiply_16(Lanes::template shift_right<16>(specular), specular_low, weight);
        const Int blue_red = Lanes::mul_high_16(weighted_blue_red(k, colour, weight), duplicate_16(diffuse));
        const Int green = Lanes::mul_high_16(weighted_green(k, colour, weight), diffuse);
        alignas(32) std::uint32_t light_br[kCount];
        alignas(32) std::uint32_t light_g[kCount];
        Lanes::store(light_br, Lanes::add_saturated_16(blue_red, duplicate_16(white)));
        Lanes::store(light_g, Lanes::add_saturated_16(green, white));
        for (int i = 0; i < num_samples; i++) {
            Lanes::add_to_sums(m_Work.sums[queue.slot[first + i]], light_br[i], light_g[i]);
        }
    }

    const RayCastJob& m_Job;
    const RayCastFrame& m_Frame;
    RayCastWorkspace& m_Work;
    const std::uint32_t* m_Colours;
    std::int32_t m_TissueBits;
    int m_NextRay;
    int m_NumQueued;
    LaneMemory<Lanes> m_Lanes;
    alignas(32) std::int32_t m_Slot[Lanes::kCount];  // ray of each lane
};

}  // namespace

}  // namespace ip_volr::kernels

#undef IP_VOLR_HOT
#undef IP_VOLR_COLD
