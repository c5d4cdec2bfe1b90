// Where the rays of a batch go next: the vector form of what the ray caster does between samples. Included by
// ray_cast_lanes.h only; a template on `Lanes` as everything there.
//
// A ray gets a run: a number of samples, known beforehand, that stay inside a cube of visible leaves, inside the brick
// and before the ray's end. Until it is in such a cube it leaps over cubes of invisible leaves. A vector of rays is
// served at once, first all rays of the batch, then those whose run is over.
#pragma once

#include <cstdint>

#include "ip_volr/kernels/ray_cast_job.h"

namespace ip_volr::kernels {

namespace {

// Where rays are, one in each lane.
template <class Lanes>
struct PlaceLanes {
    typename Lanes::Int x, y, z;     // position in the brick
    typename Lanes::Int count, end;  // step counts
    typename Lanes::Int transparency;
};

// The batch's rays, an array for each property, with room for one more vector.
struct RayTable {
    static constexpr int kCount = kMaxBatch + 8;
    std::int32_t x[kCount], y[kCount], z[kCount];
    std::int32_t count[kCount], end[kCount], transparency[kCount];
};

struct RayRun {
    int slot;  // ray of the batch
    int num_samples;
};

template <class Lanes>
class RayRuns {
    using Int = typename Lanes::Int;
    using Float = typename Lanes::Float;
    using Place = PlaceLanes<Lanes>;
    static constexpr int kCount = Lanes::kCount;
    static constexpr int kFewRuns = 64;  // so many do not reach all of a brick

public:
    explicit RayRuns(const RayCastJob& job) : m_Job(job), m_Frame(*job.frame), m_Work(*job.work) {}

    // Takes over the rays of the job and finds their first runs.
    void start() {
        const int* const origin = m_Job.brick->origin;
        for (int i = 0; i < m_Job.num_rays; i++) {
            const _listRay& ray = *m_Work.rays[i];
            m_Rays.x[i] = static_cast<std::int32_t>(ray.position[0] - (static_cast<std::uint32_t>(origin[0]) << 16));
            m_Rays.y[i] = static_cast<std::int32_t>(ray.position[1] - (static_cast<std::uint32_t>(origin[1]) << 16));
            m_Rays.z[i] = static_cast<std::int32_t>(ray.position[2] - (static_cast<std::uint32_t>(origin[2]) << 16));
            m_Rays.count[i] = ray.step_count;
            m_Rays.end[i] = ray.end;
            m_Rays.transparency[i] = ray.transparency;
        }
        for (int first = 0; first < m_Job.num_rays; first += kCount) {
            find_runs_from(first);
        }
        gather_runs();
    }

    // Writes the rays' positions, step counts and transparencies back.
    void finish() const {
        const int* const origin = m_Job.brick->origin;
        for (int i = 0; i < m_Job.num_rays; i++) {
            _listRay& ray = *m_Work.rays[i];
            ray.position[0] = static_cast<std::uint32_t>(m_Rays.x[i]) + (static_cast<std::uint32_t>(origin[0]) << 16);
            ray.position[1] = static_cast<std::uint32_t>(m_Rays.y[i]) + (static_cast<std::uint32_t>(origin[1]) << 16);
            ray.position[2] = static_cast<std::uint32_t>(m_Rays.z[i]) + (static_cast<std::uint32_t>(origin[2]) << 16);
            ray.step_count = m_Rays.count[i];
            ray.transparency = static_cast<unsigned short>(m_Rays.transparency[i]);
        }
    }

    const RayTable& rays() const { return m_Rays; }

    // The next run, which must exist.
    bool has_run() const { return m_NextRun < m_NumRuns; }
    RayRun take_run() {
        const int i = m_NextRun++;
        return {m_RunSlots[i], m_Runs[i]};
    }

    // Moves a ray over the samples of its run that were taken; it waits for the next run.
    void end_run(const RayRun& taken, std::int32_t transparency) {
        const int slot = taken.slot;
        m_Rays.x[slot] += taken.num_samples * m_Frame.increment[0];
        m_Rays.y[slot] += taken.num_samples * m_Frame.increment[1];
        m_Rays.z[slot] += taken.num_samples * m_Frame.increment[2];
        const std::uint32_t way =
            static_cast<std::uint32_t>(taken.num_samples) * static_cast<std::uint32_t>(m_Frame.step);
        m_Rays.count[slot] = static_cast<std::int32_t>(static_cast<std::uint32_t>(m_Rays.count[slot]) + way);
        m_Rays.transparency[slot] = transparency;
        m_Waiting[m_NumWaiting++] = slot;
    }

    // Finds runs for waiting rays when there are none left: for full vectors of rays, or for any when `for_few`. False
    // when there are no new runs.
    __attribute__((noinline)) bool find_waiting_runs(bool for_few) {
        m_NextRun = 0;
        m_NumRuns = 0;
        while (m_NumWaiting >= kCount || (for_few && m_NumWaiting > 0 && m_NumRuns == 0)) {
            const int num_rays = m_NumWaiting < kCount ? m_NumWaiting : kCount;
            m_NumWaiting -= num_rays;
            find_runs_of(m_Waiting + m_NumWaiting, num_rays);
        }
        gather_runs();
        return m_NumRuns > 0;
    }

private:
    // Finds the next runs of at most a vector of rays anywhere in the batch.
    void find_runs_of(const std::int32_t* slots, int num_rays) {
        alignas(32) std::int32_t x[kCount], y[kCount], z[kCount], count[kCount], end[kCount], transparency[kCount];
        for (int i = 0; i < kCount; i++) {
            const int slot = slots[i < num_rays ? i : 0];
            x[i] = m_Rays.x[slot];
            y[i] = m_Rays.y[slot];
            z[i] = m_Rays.z[slot];
            count[i] = m_Rays.count[slot];
            end[i] = m_Rays.end[slot];
            transparency[i] = m_Rays.transparency[slot];
        }
        Place place = {Lanes::load(x),     Lanes::load(y),   Lanes::load(z),
                       Lanes::load(count), Lanes::load(end), Lanes::load(transparency)};
        add_runs(Lanes::load(slots), find_runs(place, Lanes::first_lanes(num_rays)));
        Lanes::store(x, place.x);
        Lanes::store(y, place.y);
        Lanes::store(z, place.z);
        Lanes::store(count, place.count);
        for (int i = 0; i < num_rays; i++) {
            const int slot = slots[i];
            m_Rays.x[slot] = x[i];
            m_Rays.y[slot] = y[i];
            m_Rays.z[slot] = z[i];
            m_Rays.count[slot] = count[i];
        }
    }

    // Finds the first runs of a vector of neighbours in the batch.
    void find_runs_from(int first) {
        Place place = {Lanes::load(m_Rays.x + first),   Lanes::load(m_Rays.y + first),
                       Lanes::load(m_Rays.z + first),   Lanes::load(m_Rays.count + first),
                       Lanes::load(m_Rays.end + first), Lanes::load(m_Rays.transparency + first)};
        const Int runs = find_runs(place, Lanes::first_lanes(m_Job.num_rays - first));
        Lanes::store(m_Rays.x + first, place.x);
        Lanes::store(m_Rays.y + first, place.y);
        Lanes::store(m_Rays.z + first, place.z);
        Lanes::store(m_Rays.count + first, place.count);
        add_runs(Lanes::add(Lanes::set(first), Lanes::lane_numbers()), runs);
    }

    // Appends the runs that are not 0.
    void add_runs(Int slots, Int runs) {
        const int lanes = Lanes::mask(Lanes::greater(runs, Lanes::set(0)));
        const auto order = Lanes::compress_order(lanes);
        Lanes::store_compressed(m_RunSlots + m_NumRuns, slots, order);
        Lanes::store_compressed(m_Runs + m_NumRuns, runs, order);
        m_NumRuns += Lanes::count_bits(lanes);
    }

    // Gathers the voxels of all leaves that the new runs sample.
    void gather_runs() {
        if (m_NumRuns == 0) {
            return;
        }
        if (m_Job.is_all_visible && m_NumRuns > kFewRuns) {
            gather_leaves(m_Job, m_Work.visible);
            return;
        }
        LeafMask leaves{};
        for (int i = 0; i < m_NumRuns; i++) {
            add_leaves(m_RunSlots[i], m_Runs[i], leaves);
        }
        gather_leaves(m_Job, leaves);
    }

    // Adds the leaves of a ray's next samples: of stretches no longer than a leaf, those around both ends.
    void add_leaves(int slot, int num_samples, LeafMask& leaves) const {
        std::int32_t x = m_Rays.x[slot], y = m_Rays.y[slot], z = m_Rays.z[slot];
        int left = num_samples - 1;
        do {
            const int steps = left < m_Job.steps_in_leaf ? left : m_Job.steps_in_leaf;
            const std::int32_t first_leaves[3] = {x, y, z};
            x += steps * m_Frame.increment[0];
            y += steps * m_Frame.increment[1];
            z += steps * m_Frame.increment[2];
            const std::uint64_t row = std::uint64_t{1} << (first_leaves[0] >> kLeafPositionBits) |
                                      std::uint64_t{1} << (x >> kLeafPositionBits);
            const std::uint64_t plane =
                row << 8 * (first_leaves[1] >> kLeafPositionBits) | row << 8 * (y >> kLeafPositionBits);
            leaves[static_cast<std::size_t>(first_leaves[2] >> kLeafPositionBits)] |= plane;
            leaves[static_cast<std::size_t>(z >> kLeafPositionBits)] |= plane;
            left -= steps;
        } while (left > 0);
    }

    // Lanes whose ray has left the brick, passed its end or faded.
    Int find_retired(const Place& place) {
        const Int position = Lanes::bit_or(Lanes::bit_or(place.x, place.y), place.z);
        const Int outside = Lanes::greater(Lanes::template shift_right<kBrickPositionBits>(position), Lanes::set(0));
        const Int ended = Lanes::greater(place.count, place.end);
        const Int faded = Lanes::greater(Lanes::set(m_Frame.transparency_threshold), place.transparency);
        return Lanes::bit_or(outside, Lanes::bit_or(ended, faded));
    }

    // Edge in leaves of the cube around each position, negative when its leaves are invisible.
    Int look_up_leaf(const Place& place) {
        const Int leaf_x = Lanes::template shift_right<kLeafPositionBits>(place.x);
        const Int leaf_y = Lanes::template shift_right<kLeafPositionBits>(place.y);
        const Int leaf_z = Lanes::template shift_right<kLeafPositionBits>(place.z);
        Int leaf = Lanes::add(Lanes::template shift_left<3>(leaf_z), leaf_y);
        leaf = Lanes::bit_and(Lanes::add(Lanes::template shift_left<3>(leaf), leaf_x), Lanes::set(kNumLeaves - 1));
        return Lanes::load_byte(m_Work.leaf_runs, leaf);
    }

    // Distance, as if coordinates always grew, to the last position of the cube of `edge` leaves around a coordinate,
    // or to the last one in the brick when all of it is visible.
    Float find_distance(Int coordinate, Int edge, std::int32_t mirror) {
        const Int mirrored = Lanes::bit_xor(coordinate, Lanes::set(mirror));
        Int beyond = Lanes::set(1 << kBrickPositionBits);
        if (!m_Job.is_all_visible) {
            const Int leaf = Lanes::template shift_right<kLeafPositionBits>(mirrored);
            beyond = Lanes::template shift_left<kLeafPositionBits>(Lanes::add(leaf, edge));
        }
        return Lanes::to_float(Lanes::sub(Lanes::sub(beyond, Lanes::set(1)), mirrored));
    }

    // Moves rays behind the invisible leaves around them until they are in visible ones or retire. Returns their runs,
    // 0 for those that retire.
    Int find_runs(Place& place, Int searching) {
        const float* const scale = m_Job.steps_per_unit;
        const std::int32_t* const mirror = m_Job.mirror;
        Int runs = Lanes::set(0);
        for (;;) {
            searching = Lanes::bit_and_not(find_retired(place), searching);
            if (Lanes::mask(searching) == 0) {
                return runs;
            }

            // Count the steps that stay in the cube and do not pass the end. Whether a step more would stay does not
            // matter: it would only be found by the next look-up.
            const Int leaf_run = m_Job.is_all_visible ? Lanes::set(-1) : look_up_leaf(place);
            const Int edge = Lanes::absolute(leaf_run);
            const Float steps_x = Lanes::mul(find_distance(place.x, edge, mirror[0]), Lanes::set(scale[0]));
            const Float steps_y = Lanes::mul(find_distance(place.y, edge, mirror[1]), Lanes::set(scale[1]));
            const Float steps_z = Lanes::mul(find_distance(place.z, edge, mirror[2]), Lanes::set(scale[2]));
            const Float left = Lanes::to_float(Lanes::sub(place.end, place.count));
            const Float steps_left = Lanes::mul(left, Lanes::set(scale[3]));
            const Float least = Lanes::min(Lanes::min(steps_x, steps_y), Lanes::min(steps_z, steps_left));
            const Int run = Lanes::add(Lanes::truncate(least), Lanes::set(1));

            // Set the runs, leap.
            const Int leaping = Lanes::bit_and(searching, Lanes::greater(leaf_run, Lanes::set(0)));
            runs = Lanes::bit_or(runs, Lanes::bit_and(Lanes::bit_and_not(leaping, searching), run));
            const Int leap = Lanes::bit_and(leaping, run);
            place.x = Lanes::add(place.x, Lanes::mul_low(leap, Lanes::set(m_Frame.increment[0])));
            place.y = Lanes::add(place.y, Lanes::mul_low(leap, Lanes::set(m_Frame.increment[1])));
            place.z = Lanes::add(place.z, Lanes::mul_low(leap, Lanes::set(m_Frame.increment[2])));
            place.count = Lanes::add(place.count, Lanes::mul_low(leap, Lanes::set(m_Frame.step)));
            searching = leaping;
        }
    }

    const RayCastJob& m_Job;
    const RayCastFrame& m_Frame;
    RayCastWorkspace& m_Work;
    // Rays with a run, from m_NextRun on.
    int m_NextRun = 0;
    int m_NumRuns = 0;
    int m_NumWaiting = 0;  // rays whose last run is over
    std::int32_t m_RunSlots[RayTable::kCount], m_Runs[RayTable::kCount], m_Waiting[RayTable::kCount];
    alignas(32) RayTable m_Rays;
};

}  // namespace

}  // namespace ip_volr::kernels
