// Turns clipping planes into the bounds of every line of a volume's voxels.
#pragma once

#include "host/geometry.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <vector>

class IP_ClipManager;

// Per-line clipping bounds of a lattice of voxels, for one set of planes.
//
// Bounds are inclusive pairs [first, last] of the voxels whose centres lie inside every plane (value of the plane not
// positive); first > last when nothing is left. XY lines run along x, one per row y of a slice; YX lines run along y,
// one per column x. The pair of line r of slice s stands at 2 * (s * lines + r), with as many lines as the slice has
// rows (XY) or columns (YX).
//
// Works on all servers. One driving thread. Cancellation leaves as TCO_CANCEL_EXCEPTION, with the bounds half filled.
class IP_VOLR_EXPORT IP_ClipCalculator {
public:
    // No planes: everything is inside.
    IP_ClipCalculator() = default;
    // Takes the active planes of the manager that are not reference planes. They are copied.
    explicit IP_ClipCalculator(IP_ClipManager* manager);
    IP_ClipCalculator(const IP_ClipCalculator&) = default;
    IP_ClipCalculator& operator=(const IP_ClipCalculator&) = default;
    virtual ~IP_ClipCalculator();

    // Fills one array of 2 * slices * lines entries. The 16-bit form suits lines of up to 32767 voxels; longer ones are
    // cut there.
    void CalculateXY(const IP_Box& lattice, int* bounds) { Calculate(lattice, false, bounds, nullptr); }
    void CalculateYX(const IP_Box& lattice, int* bounds) { Calculate(lattice, true, bounds, nullptr); }
    void CalculateXY(const IP_Box& lattice, short* bounds) { Calculate(lattice, false, nullptr, bounds); }
    void CalculateYX(const IP_Box& lattice, short* bounds) { Calculate(lattice, true, nullptr, bounds); }

    // Number of entries of an array: 2 * slices * rows (XY) or 2 * slices * columns (YX).
    static std::size_t NumberOfEntries(const IP_Box& lattice, bool along_y);

private:
    struct Plane {
        double eq[4];
    };
    // The value of a plane at voxel (position along the line, line, slice).
    struct LinePlane {
        double at_origin;
        double per_position;
        double per_line;
        double per_slice;
    };

    void Calculate(const IP_Box& lattice, bool along_y, int* wide, short* narrow);
    void subtask_bounds();
    void slice_bounds(int slice, std::vector<LinePlane>& cutting) const;
    void store(std::size_t pair, int first, int last) const;

    std::vector<Plane> m_Planes;  // physical space

    // The array in progress.
    std::vector<LinePlane> m_LinePlanes;
    int m_NumPositions = 0;
    int m_NumLines = 0;
    int m_NumSlices = 0;
    int* m_Wide = nullptr;
    short* m_Narrow = nullptr;
};
