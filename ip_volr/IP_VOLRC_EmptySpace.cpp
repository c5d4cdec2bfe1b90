#include "ip_volr/IP_VOLRC_EmptySpace.h"

#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_ListRay.h"

#include <algorithm>
#include <cstdlib>

namespace {

// Log2 of a brick's edge in 16.16 coordinates.
constexpr int kBrickShift = 16 + IP_VOLRC_BrickData::kEdgeLog2;
constexpr int kLongestRun = 255;

constexpr std::uint32_t kInBrick = (1U << kBrickShift) - 1;
// Products with the reciprocals stay below the true quotients although both are rounded.
constexpr double kShortened = 1.0 - 1.0 / (1LL << 40);
// More steps than any ray takes.
constexpr double kForever = 1e12;

}  // namespace

void IP_VOLRC_EmptySpace::find_empty_bricks(const IP_VOLRC_BrickStructure& structure) {
    structure.GetDims(m_Dims);
    m_Empty.resize(index_of(0, 0, m_Dims[2]));
    std::size_t i = 0;
    for (int z = 0; z < m_Dims[2]; z++) {
        for (int y = 0; y < m_Dims[1]; y++) {
            for (int x = 0; x < m_Dims[0]; x++, i++) {
                m_Empty[i] = structure.GetBrick(x, y, z)->GetZeroLevelLuminosity() == 0 ? 1 : 0;
            }
        }
    }
}

// A cube of edge n + 1 is empty when its first brick is and the seven cubes of edge n at the neighbours ahead are. What
// lies outside the volume is empty.
void IP_VOLRC_EmptySpace::prepare(const int increment[3], int step) {
    std::copy(increment, increment + 3, m_Increment);
    m_Step = step;
    m_StepsPerUnit[3] = kShortened / step;
    for (int axis = 0; axis < 3; axis++) {
        m_Mirror[axis] = increment[axis] > 0 ? 0 : ~0U;
        m_StepsPerUnit[axis] = increment[axis] == 0 ? 0.0 : kShortened / std::abs(increment[axis]);
        m_LeastSteps[axis] = increment[axis] == 0 ? kForever : 0.0;
    }
    m_Runs.assign(m_Empty.size(), 0);
    const int forward[3] = {increment[0] > 0 ? 1 : -1, increment[1] > 0 ? 1 : -1, increment[2] > 0 ? 1 : -1};
    const auto from_far_end = [&](int axis, int i) { return forward[axis] > 0 ? m_Dims[axis] - 1 - i : i; };
    for (int iz = 0; iz < m_Dims[2]; iz++) {
        for (int iy = 0; iy < m_Dims[1]; iy++) {
            for (int ix = 0; ix < m_Dims[0]; ix++) {
                const int at[3] = {from_far_end(0, ix), from_far_end(1, iy), from_far_end(2, iz)};
                const std::size_t brick = index_of(at[0], at[1], at[2]);
                if (m_Empty[brick] == 0) {
                    continue;
                }
                int run = kLongestRun - 1;
                for (int ahead = 1; ahead < 8; ahead++) {
                    const int x = at[0] + (ahead & 1) * forward[0];
                    const int y = at[1] + (ahead >> 1 & 1) * forward[1];
                    const int z = at[2] + (ahead >> 2) * forward[2];
                    if (x >= 0 && y >= 0 && z >= 0 && x < m_Dims[0] && y < m_Dims[1] && z < m_Dims[2]) {
                        run = std::min<int>(run, m_Runs[index_of(x, y, z)]);
                    }
                }
                m_Runs[brick] = static_cast<unsigned char>(run + 1);
            }
        }
    }
}

bool IP_VOLRC_EmptySpace::leap(_listRay& ray) const {
    for (;;) {
        const std::uint32_t x = ray.position[0] >> kBrickShift;
        const std::uint32_t y = ray.position[1] >> kBrickShift;
        const std::uint32_t z = ray.position[2] >> kBrickShift;
        if (x >= static_cast<std::uint32_t>(m_Dims[0]) || y >= static_cast<std::uint32_t>(m_Dims[1]) ||
            z >= static_cast<std::uint32_t>(m_Dims[2])) {
            return false;
        }
        const std::uint32_t run = m_Runs[index_of(static_cast<int>(x), static_cast<int>(y), static_cast<int>(z))];
        if (run == 0) {
            return true;
        }

        // Steps that stay inside the cube and do not pass the end, and one more. Rounding may make that one too few:
        // then the ray is still where it may leap on.
        const auto left = static_cast<std::uint32_t>(ray.end) - static_cast<std::uint32_t>(ray.step_count);
        double inside = left * m_StepsPerUnit[3];
        for (int axis = 0; axis < 3; axis++) {
            const std::uint32_t gone = (ray.position[axis] ^ m_Mirror[axis]) & kInBrick;
            const std::uint32_t distance = (run << kBrickShift) - 1 - gone;
            inside = std::min(inside, distance * m_StepsPerUnit[axis] + m_LeastSteps[axis]);
        }
        const std::uint32_t steps = static_cast<std::uint32_t>(static_cast<std::int64_t>(inside)) + 1;
        ray.position[0] += steps * static_cast<std::uint32_t>(m_Increment[0]);
        ray.position[1] += steps * static_cast<std::uint32_t>(m_Increment[1]);
        ray.position[2] += steps * static_cast<std::uint32_t>(m_Increment[2]);
        ray.step_count += static_cast<int>(steps) * m_Step;
        if (ray.step_count > ray.end) {
            return false;
        }
    }
}
