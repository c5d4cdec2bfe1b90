// What the source files of the ray-casting projector share.
#pragma once

#include "ip_volr/IP_VOLRC_EmptySpace.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/kernels/ray_cast.h"

#include <chrono>
#include <cstdint>
#include <memory>
#include <vector>

// Source path of the projector's log lines.
#define IP_VOLRC_PROJECTOR_SOURCE "ip_volr/IP_VOLRC_Projector"

// Rays on their way to one brick.
struct IP_VOLRC_RayDelivery {
    unsigned short x, y, z;  // the brick
    ip_volr::kernels::RayList rays;
};

// Working values of the ray-casting pass.
struct IP_VOLRC_RayCastScratch {
    ip_volr::kernels::RayCastFrame frame = {};
    IP_VOLRC_EmptySpace empty_space;
    bool empty_space_stale = true;  // the bricks' luminosity has changed
    // Entries of all tissues as the kernels read them, for the tables and transparencies that they were made of. Those
    // of tissues that the volume has not stay unwritten.
    std::unique_ptr<std::uint64_t[]> entries;
    bool entries_stale = true;  // the colour tables have changed
    int first_tissue_of_entries = 0;
    // Per entry of the brick list: what left it, for which bricks. Kept between waves for their memory.
    std::vector<std::vector<IP_VOLRC_RayDelivery>> deliveries;
};

namespace ip_volr {

// Flag of pager blocks that are working memory of a frame.
constexpr int kFrameMemory = 16;
// Depth of a pixel where no brick is, and the far depth that goes with it.
constexpr int kNoDepth = 0x3fffffff;
constexpr int kNoFarDepth = static_cast<int>(0xc0000000U);
// Raster depths are clamped to this before they become integers.
constexpr int kDepthClamp = 0x3ffffffe;
// Empty slices before the first and behind the last slice of the source.
constexpr int kPadding = 2;
// Log2 of the edge of a brick, in 16.16 coordinates.
constexpr int kBrickShiftFixed = 16 + kernels::kBrickEdgeLog2;
constexpr double kFixedOne = 65536.0;

inline long long now_ticks() {
    return std::chrono::steady_clock::now().time_since_epoch().count();
}

inline double milliseconds_since(long long start_ticks) {
    const std::chrono::steady_clock::duration elapsed(now_ticks() - start_ticks);
    return std::chrono::duration<double, std::milli>(elapsed).count();
}

}  // namespace ip_volr
