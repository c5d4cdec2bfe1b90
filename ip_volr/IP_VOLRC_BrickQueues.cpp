// The orders in which the projector walks the bricks.
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <algorithm>

void IP_VOLRC_BrickStructure::BuildProjectionQueues() {
    m_ProjectionQueues.assign(kNumQueues, {});
    m_LargestLayerSize = 0;
    const int num_diagonals = m_NumBricksX + m_NumBricksY + m_NumBricksZ - 2;
    if (num_diagonals < 1) {
        return;
    }

    // Queue 0: the diagonals x + y + z = d, away from the corner at brick (0, 0, 0).
    std::vector<std::vector<_int_coord>>& from_origin = m_ProjectionQueues[0];
    from_origin.resize(num_diagonals);
    for (int d = 0; d < num_diagonals; ++d) {
        std::vector<_int_coord>& wave = from_origin[d];
        for (int z = std::min(d, m_NumBricksZ - 1); z >= 0; --z) {
            // Rows further down than this would need an x beyond the last brick.
            const int lowest_y = std::max(0, d - z - (m_NumBricksX - 1));
            for (int y = std::min(d - z, m_NumBricksY - 1); y >= lowest_y; --y) {
                wave.push_back({d - y - z, y, z});
            }
        }
        m_LargestLayerSize = std::max(m_LargestLayerSize, static_cast<int>(wave.size()));
    }

    // The others: the same with mirrored axes.
    for (int q = 1; q < kNumQueues; ++q) {
        m_ProjectionQueues[q] = from_origin;
        for (std::vector<_int_coord>& wave : m_ProjectionQueues[q]) {
            for (_int_coord& brick : wave) {
                brick.x = (q & 1) != 0 ? m_NumBricksX - 1 - brick.x : brick.x;
                brick.y = (q & 2) != 0 ? m_NumBricksY - 1 - brick.y : brick.y;
                brick.z = (q & 4) != 0 ? m_NumBricksZ - 1 - brick.z : brick.z;
            }
        }
    }
}
