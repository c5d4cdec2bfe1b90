// Leaps of rays over bricks in which nothing is visible.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

class IP_VOLRC_BrickStructure;
struct _listRay;

// Knows which bricks hold nothing visible and how far a ray can go without meeting another. A leap is a whole number of
// steps: positions and step counts become exactly what single steps make of them, so pictures do not depend on it.
//
// Written by one thread between stages; `leap` may run on any number of threads.
class IP_VOLRC_EmptySpace {
public:
    // Reads which bricks are empty from the (mapped) structure's luminosity.
    void find_empty_bricks(const IP_VOLRC_BrickStructure& structure);

    // Takes over the movement of a frame (16.16 voxels; `step` is positive) and finds the cubes of empty bricks that
    // extend forward from each brick.
    void prepare(const int increment[3], int step);

    // Carries a ray to the first brick on its way that is not empty. False when it passes its end or leaves the volume
    // before that.
    bool leap(_listRay& ray) const;

    bool is_empty(int x, int y, int z) const { return m_Runs[index_of(x, y, z)] != 0; }

private:
    std::size_t index_of(int x, int y, int z) const {
        return (static_cast<std::size_t>(z) * static_cast<std::size_t>(m_Dims[1]) + static_cast<std::size_t>(y)) *
                   static_cast<std::size_t>(m_Dims[0]) +
               static_cast<std::size_t>(x);
    }

    int m_Dims[3] = {0, 0, 0};           // bricks per axis
    std::vector<unsigned char> m_Empty;  // per brick, x fastest
    std::vector<unsigned char> m_Runs;   // edge, in bricks, of the empty cube that extends forward; 0: not empty
    int m_Increment[3] = {0, 0, 0};
    int m_Step = 1;
    std::uint32_t m_Mirror[3] = {0, 0, 0};  // all ones where coordinates fall
    double m_StepsPerUnit[4] = {};          // per axis, and of the step count
    double m_LeastSteps[3] = {};            // endless where nothing moves
};
