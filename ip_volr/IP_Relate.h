// The centre of the vessel under a picked pixel.
//
// A pick is a ray through the volume, sampled at half-voxel steps: sample i lies at start + (i / 2) * direction, for i
// from 0 to trunc(2 * length) - 1. Coordinates are voxel indices (integers at voxel centres); `direction` is one voxel
// long; `voxel_size_mm` is the length of that step in millimetres, `length` the ray's length in steps. Values are
// rescaled with the data volume's own transform. Every stage tells the host's log what it found (level 7), so that a
// failed pick can be explained.
//
// The searches map at most about a hundred slices at a time and release them on every way out. The access exceptions of
// IP_VolDataAccess.h, and std::bad_alloc, leave them after that. They hold no state: host threads may search at once.
#pragma once

#include "host/images.h"
#include "host/masks.h"
#include "ip_volr/IP_VOLR_Export.h"
#include "ip_volr/IP_VesselClassification.h"

// How a search ended.
enum VesselSearchOutcome {
    kVesselSearchFound = 0,
    kVesselSearchNothingVisible,  // no non-transparent voxel, or no voxel below the calcification limit
    kVesselSearchStartsInside,    // the dominant voxel is the ray's first: there is no way in to follow
    kVesselSearchNoVessel,        // no sample is inside a vessel
    kVesselSearchNoBounds,        // a wall lies beyond the ray's end
    kVesselSearchUnstable,        // the walls kept moving
    kVesselSearchThinTooThick,
    kVesselSearchThickTooThin,
    kVesselSearchEntryTooFar,           // the vessel begins too far in front of the dominant voxel
    kVesselSearchCalcificationTooLong,  // it begins too far behind
};

// One sentence, without a full stop.
IP_VOLR_EXPORT const char* vessel_search_outcome_text(VesselSearchOutcome outcome);

// What a search found beside its centre. Indices count half-voxel samples; -1 where there is none.
struct VesselSearchRecord {
    VesselSearchOutcome outcome = kVesselSearchNothingVisible;
    VesselClass vessel_class = kVesselNone;
    VesselStatistics statistics;
    int picked_index = -1;    // the dominant or the brightest sample
    int internal_index = -1;  // the sample from which the walls were searched
    int lower_wall_index = -1;
    int upper_wall_index = -1;
    double picked_point[3] = {0.0, 0.0, 0.0};  // voxel indices
    double length_mm = 0.0;                    // between the walls, along the ray; 0 without walls
};

// Centre of the vessel seen on a volume rendering. `tissues` may be null: every voxel then has colour table 15. A
// tissue volume of another size than the data is not read. `colour_tables` are the 16 rendering tables, opacity in the
// first byte of an entry, each pointer designating stored value 0.
//
// `opacity_state` is the accumulated opacity and the greatest single contribution, continued from earlier calls; both
// 0.0 for a ray of its own.
//
// Returns 2 when nothing on the ray is visible (the centre is not written), else 1: the centre is the middle between
// the vessel's walls, or the voxel that dominates the pixel when no vessel is recognised.
IP_VOLR_EXPORT int find_vessel_center_volr(IP_VolData* data, IP_VolData* tissues, const unsigned* const* colour_tables,
                                           const double start[3], const double direction[3], double voxel_size_mm,
                                           double length, double centre[3], double opacity_state[2],
                                           VesselSearchRecord* record = nullptr);

// Centre of the vessel seen on a maximum-intensity projection. Only voxels of the mask count, all without one.
//
// `running_maximum` is the greatest rescaled value found so far, continued from earlier calls; a ray of its own starts
// below every value that shall count.
//
// Returns 2 when no voxel qualified (the centre is not written), as the search on a volume rendering does, else 1: the
// centre is the middle between the vessel's walls, or the brightest voxel when no vessel is recognised.
IP_VOLR_EXPORT int find_vessel_center_mip(IP_VolData* data, const IP_ListVol* mask, const double start[3],
                                          const double direction[3], double voxel_size_mm, double length,
                                          double centre[3], int& running_maximum, VesselSearchRecord* record = nullptr);
