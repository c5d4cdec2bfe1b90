// What picking on a maximum-intensity projection finds.
#pragma once

#include "ip_volr/IP_VOLR_Export.h"

// The viewing ray of a picture pixel through one volume. Index coordinates count voxels of the source volume, integers
// at voxel centres; sample i of a search stands at start + (i / 2) * direction.
struct IP_MIPRay {
    double start[3];         // first point inside the volume's box, index coordinates
    double direction[3];     // away from the viewer, one voxel long: its length in index coordinates is 1
    double length;           // voxels
    double voxel_size;       // mm along the ray for one voxel of length
    double start_mm[3];      // the first point in physical mm
    double direction_mm[3];  // unit vector in physical space
};

// The voxel that a pixel shows.
struct IP_MIPPick {
    IP_MIPRay ray;
    double voxel[3];     // where the picture sampled it, index coordinates of the source volume
    double physical[3];  // the same in mm
    double rescaled;     // value after the volume's slope and intercept
    int value;           // stored value, without depth weighting
};
