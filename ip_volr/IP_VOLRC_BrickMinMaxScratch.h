// Working memory of the brick structure's minimum and maximum computation.
#pragma once

#include "ip_volr/IP_VOLRC_OctreeData.h"
#include "ip_volr/kernels/min_max.h"

#include <cstdint>
#include <vector>

class IP_VolData;

// What all workers read, and one set of buffers for each.
struct IP_VOLRC_MinMaxScratch {
    // Running minimum and maximum of image rows, with room for the leaf columns beyond the volume, which stay empty.
    struct RowBuffers {
        std::vector<std::uint16_t> minimum;
        std::vector<std::uint16_t> maximum;
    };
    struct Worker {
        RowBuffers rows;              // rows 0 to 3 of a leaf row
        RowBuffers overlap;           // row 4, which is row 0 of the next
        std::vector<sMinMax> leaves;  // one plane of leaves, row by row
    };

    IP_VOLRC_MinMaxScratch(const IP_VolData& volume, int bricks_x, int bricks_y, int num_workers, bool is_signed);

    // Looks up the pixels of slices first to last, which are mapped.
    void FindPixels(const IP_VolData& volume, int first, int last);

    int m_Width;
    int m_Height;
    int m_Depth;
    int m_NumLeavesX;  // leaf columns of all bricks
    int m_NumLeavesY;
    ip_volr::kernels::MinMaxRows m_Kernels;
    std::vector<const std::uint16_t*> m_Pixels;  // of each slice; null where there is no pixel data
    std::vector<std::uint16_t> m_EmptyRow;       // stands for the rows of slices without pixel data
    std::vector<Worker> m_Workers;
};

namespace ip_volr {

// Lends a pointer to an object for the life of the scope.
template <class T>
class ScopedPointer {
public:
    ScopedPointer(T*& pointer, T& object) : m_Pointer(pointer) { m_Pointer = &object; }
    ~ScopedPointer() { m_Pointer = nullptr; }
    ScopedPointer(const ScopedPointer&) = delete;
    ScopedPointer& operator=(const ScopedPointer&) = delete;

private:
    T*& m_Pointer;
};

}  // namespace ip_volr
