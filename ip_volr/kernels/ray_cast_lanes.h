// The vector form of the ray caster: one ray in each lane, for any number of lanes. Included by the files of the
// instruction sets only, each with a type `Lanes` of its own in an anonymous namespace; everything here is a template
// on it, so no two instruction sets share code.
//
// Rays take turns in two passes. The first (ray_cast_runs.h) moves a vector of rays to where each of them sees
// something and gives it a run: a number of samples, known beforehand. The second samples: each lane takes a ray with a
// run, and while all lanes have samples left nothing else is looked at; a ray whose run is over waits for the first
// pass again. Samples that are to be shaded go to a queue, which is worked off a full vector at a time whichever rays
// they came from: the light of a ray in a brick is a saturating sum, so its order does not matter.
#pragma once

#include <cstdint>

#include "ip_volr/kernels/ray_cast_job.h"
#include "ip_volr/kernels/ray_cast_runs.h"

// The inner loop keeps its state in registers only when nothing in it is a call.
#define IP_VOLR_HOT __attribute__((always_inline)) inline
#define IP_VOLR_COLD __attribute__((noinline))

namespace ip_volr::kernels {

namespace {

// The registers of a lane that samples.
template <class Lanes>
struct LaneState {
    using Int = typename Lanes::Int;
    Int x, y, z;       // position in the brick
    Int transparency;  // 16 bits
    Int light_br;      // light of this brick: blue in the low, red in the high 16 bits
    Int light_g;       // green in the high 16 bits
    Int run;           // samples that are left
    Int live;          // all ones while the lane has a ray
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
    static constexpr int kAllLanes = (1 << kCount) - 1;
    static constexpr int kFullQueue = kShadeQueue - 8;
    static constexpr std::int32_t kEndless = 0x7fffffff;

    // Two neighbours along x, interpolated along y.
    struct Edge {
        Int first, second;
    };

    // The halves of a sample's entry, see ray_cast.h.
    struct Entry {
        Int blue_red, rest;
    };

    // What the inner loop needs in every lane. The compiler is kept from seeing the values: it would rather build them
    // anew in each turn than keep them.
    struct Constants {
        Int zero = Lanes::hide(Lanes::set(0));
        Int one = Lanes::hide(Lanes::set(1));
        Int low_bits = Lanes::hide(Lanes::set(0xffff));
        Int strides = Lanes::hide(Lanes::set(kPairPlane << 16 | kPairRow));
        Int weight_one = Lanes::hide(Lanes::set(kWeightOne));
        Int green = Lanes::hide(Lanes::set(-0x1000000));
        Int opacity = Lanes::hide(Lanes::set(0xff0000));
        Float unit = Lanes::hide(Lanes::set(1.0f / 65536.0f));
        Float value_unit = Lanes::hide(Lanes::set(1.0f / kWeightOne));
        Int increment_x, increment_y, increment_z;
        Int value_offset, table_last, transparency_threshold, shading_threshold, ambient;

        explicit Constants(const RayCastJob& job)
            : increment_x(Lanes::hide(Lanes::set(job.frame->increment[0]))),
              increment_y(Lanes::hide(Lanes::set(job.frame->increment[1]))),
              increment_z(Lanes::hide(Lanes::set(job.frame->increment[2]))),
              value_offset(Lanes::hide(Lanes::set(job.value_offset))),
              table_last(Lanes::hide(Lanes::set(job.frame->table_last))),
              transparency_threshold(Lanes::hide(Lanes::set(job.frame->transparency_threshold))),
              shading_threshold(Lanes::hide(Lanes::set(shading_threshold_of(*job.frame)))),
              ambient(Lanes::hide(duplicate_16(Lanes::set(job.frame->uniform_weights[2])))) {}

        // What the weight, or the opacity in its place in an entry, must exceed. Nothing does when shading is off.
        static std::int32_t shading_threshold_of(const RayCastFrame& frame) {
            return !frame.shading                 ? 0x7fffffff
                   : frame.weight_decides_shading ? frame.opacity_gradient_threshold
                                                  : frame.opacity_gradient_threshold >> 8 << 16;
        }
    };

public:
    explicit RayCaster(const RayCastJob& job)
        : m_Job(job), m_Frame(*job.frame), m_Work(*job.work), m_Entries(m_Frame.entries), m_TissueBits(0), m_Runs(job) {
        if (!job.has_tissues) {
            m_TissueBits = job.brick->only_tissue << 16;
            m_Entries += m_TissueBits;
        }
    }

    void cast() {
        for (int i = 0; i < m_Job.num_rays; i++) {
            Lanes::clear_sums(m_Work.sums[i]);
        }
        m_Runs.start();
        // The common cases have loops without the others' questions.
        if (m_Job.has_tissues || !m_Job.has_simple_weights) {
            sample_runs<false, true>();
        } else if (m_Frame.shading) {
            sample_runs<true, true>();
        } else {
            sample_runs<true, false>();
        }
        shade_queue(m_NumQueued);
        m_Runs.finish();
    }

private:
    template <bool is_plain, bool is_shaded>
    void sample_runs() {
        const Constants constants(m_Job);
        State state = idle_state();
        int idle = kAllLanes;
        for (;;) {
            idle = fill_lanes(state, idle);
            if (idle == kAllLanes) {
                return;
            }
            Int over;
            do {
                over = take_samples<is_plain, is_shaded>(constants, state);
            } while (Lanes::mask(over) == 0 && (!is_shaded || m_NumQueued < kFullQueue));
            idle |= empty_lanes(state, over);
            if (is_shaded && m_NumQueued >= kFullQueue) {
                shade_full_vectors();
            }
        }
    }

    // ---- Lanes ----

    // A lane without a ray: nothing it does leaves a trace, and its run does not end.
    static State idle_state() {
        const Int zero = Lanes::set(0);
        return {zero, zero, zero, Lanes::set(0xffff), zero, zero, Lanes::set(kEndless), zero};
    }

    // Gives idle lanes rays that have a run. Returns the lanes that stay idle.
    IP_VOLR_HOT int fill_lanes(State& state, int idle) {
        while (idle != 0) {
            if (!m_Runs.has_run() && !m_Runs.find_waiting_runs(idle == kAllLanes)) {
                break;
            }
            const RayRun run = m_Runs.take_run();
            const RayTable& rays = m_Runs.rays();
            const int lane = __builtin_ctz(static_cast<unsigned>(idle));
            const Int only = Lanes::only_lane(lane);
            state.x = Lanes::select(only, Lanes::set(rays.x[run.slot]), state.x);
            state.y = Lanes::select(only, Lanes::set(rays.y[run.slot]), state.y);
            state.z = Lanes::select(only, Lanes::set(rays.z[run.slot]), state.z);
            state.transparency = Lanes::select(only, Lanes::set(rays.transparency[run.slot]), state.transparency);
            state.run = Lanes::select(only, Lanes::set(run.num_samples), state.run);
            state.live = Lanes::bit_or(state.live, only);
            m_Slot[lane] = run.slot;
            m_LaneRuns[lane] = run.num_samples;
            idle &= idle - 1;
        }
        return idle;
    }

    // Takes the rays from the lanes whose run is over. Returns these lanes.
    IP_VOLR_HOT int empty_lanes(State& state, Int over) {
        const int lanes = Lanes::mask(over);
        if (lanes == 0) {
            return 0;
        }
        alignas(32) std::int32_t run[kCount], transparency[kCount];
        alignas(32) std::uint32_t light_br[kCount], light_g[kCount];
        Lanes::store(run, state.run);
        Lanes::store(transparency, state.transparency);
        Lanes::store(light_br, state.light_br);
        Lanes::store(light_g, state.light_g);
        for (int left = lanes; left != 0; left &= left - 1) {
            const int lane = __builtin_ctz(static_cast<unsigned>(left));
            const int slot = m_Slot[lane];
            m_Runs.end_run({slot, m_LaneRuns[lane] - run[lane]}, transparency[lane]);
            Lanes::add_to_sums(m_Work.sums[slot], light_br[lane], light_g[lane] >> 16);
        }
        state.light_br = Lanes::bit_and_not(over, state.light_br);
        state.light_g = Lanes::bit_and_not(over, state.light_g);
        state.transparency = Lanes::select(over, Lanes::set(0xffff), state.transparency);
        state.run = Lanes::select(over, Lanes::set(kEndless), state.run);
        state.live = Lanes::bit_and_not(over, state.live);
        return lanes;
    }

    // ---- Samples ----

    IP_VOLR_HOT static Cell locate(const Constants& k, Int x, Int y, Int z) {
        // y in the low and z in the high 16 bits, times their strides.
        const Int yz = Lanes::low_and_high_16(Lanes::template shift_right<16>(y), z);
        const Int row = Lanes::madd(yz, k.strides);
        const Int f = Lanes::mul_high_16(y, k.weight_one);  // the upper halves are multiplied by 0
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

    // Takes one sample in every lane and moves on. Returns the lanes whose run is over, by its length or because the
    // ray has faded. In plain bricks no tissue is looked up and the ambient light has one weight of 16 bits.
    template <bool is_plain, bool is_shaded>
    IP_VOLR_HOT Int take_samples(const Constants& k, State& state) {
        // Classify.
        Cell cell = locate(k, state.x, state.y, state.z);
        cell.index = Lanes::bit_and(state.live, cell.index);  // idle lanes drift
        const Int value = Lanes::add(sample_value(k, cell), k.value_offset);
        const Int index = Lanes::max(k.zero, Lanes::min(value, k.table_last));
        const Int tissue = is_plain ? Lanes::set(m_TissueBits) : sample_tissue(state);
        const bool has_tissues = !is_plain && m_Job.has_tissues;
        Entry entry;
        Lanes::load_halves(m_Entries, has_tissues ? Lanes::add(tissue, index) : index, entry.blue_red, entry.rest);
        entry.rest = Lanes::bit_and(state.live, entry.rest);

        // Composite. Nothing is left of the light in the upper halves: there is no transparency in them.
        state.run = Lanes::sub(state.run, k.one);
        Int over = Lanes::greater(k.one, state.run);
        const Int behind = Lanes::mul_high_16(state.transparency, entry.rest);
        const Int weight = Lanes::keep_where_not_zero_16(entry.rest, Lanes::sub(state.transparency, behind));
        if (Lanes::mask(Lanes::greater(weight, k.zero)) != 0) {
            state.transparency = Lanes::sub(state.transparency, weight);
            add_light<is_plain, is_shaded>(k, state, entry, weight, Lanes::bit_or(tissue, index));
            over = Lanes::bit_or(over, Lanes::greater(k.transparency_threshold, state.transparency));
        }

        // Advance.
        state.x = Lanes::add(state.x, k.increment_x);
        state.y = Lanes::add(state.y, k.increment_y);
        state.z = Lanes::add(state.z, k.increment_z);
        return over;
    }

    // ---- Light ----

    IP_VOLR_HOT static Int duplicate_16(Int value) {
        return Lanes::bit_or(value, Lanes::template shift_left<16>(value));
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
    template <bool is_plain, bool is_shaded>
    IP_VOLR_HOT void add_light(const Constants& k, State& state, const Entry& entry, Int weight, Int table_index) {
        const Int weight_2 = duplicate_16(weight);
        const Int blue_red = Lanes::mul_high_16(entry.blue_red, weight_2);
        const Int green = Lanes::mul_high_16(Lanes::bit_and(entry.rest, k.green), weight_2);
        if (is_plain || m_Job.has_simple_weights) {
            state.light_br = Lanes::add_saturated_16(state.light_br, Lanes::mul_high_16(blue_red, k.ambient));
            state.light_g = Lanes::add_saturated_16(state.light_g, Lanes::mul_high_16(green, k.ambient));
        } else {
            const Int ambient = light_weight(table_index, 2);
            const Int low = duplicate_16(Lanes::bit_and(ambient, k.low_bits));
            const Int high = duplicate_16(Lanes::template shift_right<16>(ambient));
            state.light_br = Lanes::add_saturated_16(state.light_br, multiply_16(high, low, blue_red));
            state.light_g = Lanes::add_saturated_16(state.light_g, multiply_16(high, low, green));
        }
        if (!is_shaded) {
            return;
        }
        const Int decider = m_Frame.weight_decides_shading ? weight : Lanes::bit_and(entry.rest, k.opacity);
        const int shaded = Lanes::mask(Lanes::greater(decider, k.shading_threshold));
        if (shaded != 0) {
            queue_samples(state, entry, weight, table_index, shaded);
        }
    }

    // ---- Shading ----

    // The queue has room for one more vector whenever samples are taken.
    IP_VOLR_HOT void queue_samples(const State& state, const Entry& entry, Int weight, Int table_index, int lanes) {
        ShadeQueue& queue = m_Work.queue;
        const auto order = Lanes::compress_order(lanes);
        Lanes::store_compressed(queue.x + m_NumQueued, state.x, order);
        Lanes::store_compressed(queue.y + m_NumQueued, state.y, order);
        Lanes::store_compressed(queue.z + m_NumQueued, state.z, order);
        Lanes::store_compressed(queue.blue_red + m_NumQueued, entry.blue_red, order);
        Lanes::store_compressed(queue.green + m_NumQueued, entry.rest, order);
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
            queue.blue_red[i] = queue.blue_red[num_shaded + i];
            queue.green[i] = queue.green[num_shaded + i];
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
        const Int weight = Lanes::load(queue.weight + first);
        const Int weight_2 = duplicate_16(weight);
        const Int weighted_br = Lanes::mul_high_16(Lanes::load(queue.blue_red + first), weight_2);
        const Int weighted_g = Lanes::mul_high_16(Lanes::bit_and(Lanes::load(queue.green + first), k.green), weight_2);
        const Int specular_low = Lanes::bit_and(specular, Lanes::set(0xffff));
        const Int white = multiply_16(Lanes::template shift_right<16>(specular), specular_low, weight);
        const Int blue_red = Lanes::mul_high_16(weighted_br, duplicate_16(diffuse));
        const Int green = Lanes::mul_high_16(Lanes::template shift_right<16>(weighted_g), diffuse);
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
    const std::uint64_t* m_Entries;  // of the brick's tissue, or of all
    std::int32_t m_TissueBits;
    int m_NumQueued = 0;
    std::int32_t m_Slot[kCount], m_LaneRuns[kCount];  // ray of each lane and the length of its run
    RayRuns<Lanes> m_Runs;
};

}  // namespace

}  // namespace ip_volr::kernels

#undef IP_VOLR_HOT
#undef IP_VOLR_COLD
