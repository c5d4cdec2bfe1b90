#include "ip_volr/IP_ClipCalculator.h"

#include "host/clipping.h"

#include <algorithm>
#include <limits>

IP_ClipCalculator::IP_ClipCalculator(IP_ClipManager* manager) {
    if (manager == nullptr) {
        return;
    }
    manager->ResetIterator();
    for (IP_ClippingPlane* plane = manager->GetNextPlane(); plane != nullptr; plane = manager->GetNextPlane()) {
        if (plane->IsActive() && !plane->IsReference()) {
            plane->GetPlaneEq(m_Planes.emplace_back().eq);
        }
    }
}

IP_ClipCalculator::~IP_ClipCalculator() = default;

std::size_t IP_ClipCalculator::NumberOfEntries(const IP_Box& lattice, bool along_y) {
    int dims[3];
    lattice.GetDims(dims);
    const int lines = along_y ? dims[0] : dims[1];
    return lines > 0 && dims[2] > 0 ? 2 * static_cast<std::size_t>(lines) * static_cast<std::size_t>(dims[2]) : 0;
}

void IP_ClipCalculator::Calculate(const IP_Box& lattice, bool along_y, int* wide, short* narrow) {
    int dims[3];
    lattice.GetDims(dims);
    m_NumPositions = dims[along_y ? 1 : 0];
    m_NumLines = dims[along_y ? 0 : 1];
    m_NumSlices = dims[2];
    m_Wide = wide;
    m_Narrow = narrow;

    // Express each plane in voxels: the value at index (x, y, z) is that of the physical point x vx + y vy + z vz + v0.
    float to_physical[4][4];
    lattice.GetIndexToPhysicalTrans(to_physical);
    m_LinePlanes.clear();
    for (const Plane& plane : m_Planes) {
        double per_axis[4] = {0.0, 0.0, 0.0, plane.eq[3]};
        for (int row = 0; row < 4; row++) {
            for (int i = 0; i < 3; i++) {
                per_axis[row] += plane.eq[i] * to_physical[row][i];
            }
        }
        m_LinePlanes.push_back({per_axis[3], per_axis[along_y ? 1 : 0], per_axis[along_y ? 0 : 1], per_axis[2]});
    }

    TCO_CompoundRunnable<IP_ClipCalculator> runnable(this, &IP_ClipCalculator::subtask_bounds);
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, true, 0, false);
}

void IP_ClipCalculator::subtask_bounds() {
    const TCO_RunnableSelf self;
    std::vector<LinePlane> cutting;
    cutting.reserve(m_LinePlanes.size());
    const int last = self.EndRange(m_NumSlices - 1, 0);
    for (int slice = self.StartRange(m_NumSlices - 1, 0); slice <= last; slice++) {
        self.Service();
        slice_bounds(slice, cutting);
    }
}

void IP_ClipCalculator::slice_bounds(int slice, std::vector<LinePlane>& cutting) const {
    // Keep the planes that cut this slice: one that has a corner on each side. A plane that excludes all four corners
    // leaves nothing of the slice.
    bool nothing_left = false;
    cutting.clear();
    for (LinePlane plane : m_LinePlanes) {
        plane.at_origin += slice * plane.per_slice;
        const double across = (m_NumPositions - 1) * plane.per_position;
        const double down = (m_NumLines - 1) * plane.per_line;
        const double lowest = plane.at_origin + std::min(across, 0.0) + std::min(down, 0.0);
        const double highest = plane.at_origin + std::max(across, 0.0) + std::max(down, 0.0);
        nothing_left = nothing_left || lowest > 0.0;
        if (!(highest <= 0.0)) {
            cutting.push_back(plane);
        }
    }

    const std::size_t first_pair = static_cast<std::size_t>(slice) * static_cast<std::size_t>(m_NumLines);
    for (int line = 0; line < m_NumLines; line++) {
        int first = 0;
        int last = nothing_left ? -1 : m_NumPositions - 1;
        for (const LinePlane& plane : cutting) {
            if (first > last) {
                break;
            }
            IP_update_clip_bounds(plane.at_origin + line * plane.per_line, plane.per_position, first, last);
        }
        store(first_pair + static_cast<std::size_t>(line), first, last);
    }
}

void IP_ClipCalculator::store(std::size_t pair, int first, int last) const {
    // Lines that hold nothing all look the same.
    if (first > last) {
        first = 0;
        last = -1;
    }
    if (m_Wide != nullptr) {
        m_Wide[2 * pair] = first;
        m_Wide[2 * pair + 1] = last;
        return;
    }
    constexpr int kMost = std::numeric_limits<short>::max();
    m_Narrow[2 * pair] = static_cast<short>(std::min(first, kMost));
    m_Narrow[2 * pair + 1] = static_cast<short>(std::min(last, kMost));
}
