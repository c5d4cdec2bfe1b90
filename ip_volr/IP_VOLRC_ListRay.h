// One ray of the ray caster: a record of the projector's ray pool, chained into the list of the brick it is in.
#pragma once

// Coordinates are voxel indices of the padded volume in 16.16 fixed point, half a voxel already taken off: the integer
// part names the lower corner of the cell between eight voxel centres, the fraction interpolates inside it. Bits 21 and
// up are therefore the brick (32 voxels an edge) that owns the cell.
struct _listRay {
    unsigned int position[3];     // x, y, z
    int step_count;               // distance gone along the ray, in the units of `end`
    unsigned short transparency;  // what is left: 65535 lets everything behind shine through
    unsigned short colour[3];     // blue, green, red, premultiplied; 32767 at most
    int end;                      // step count at which the ray leaves the clipped volume
    _listRay* next;               // next ray in the same brick list, null at its end; not owned
    unsigned int entry[3];        // position at which the ray was attached
};
