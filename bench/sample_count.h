// How many samples a ray caster cannot avoid that skips empty bricks and stops opaque rays.
#pragma once

#include "scene/transfer_function.h"
#include "scene/views.h"
#include "scene/volume_source.h"

namespace volr_bench {

struct SampleCount {
    double num_samples = 0.0;  // in bricks of 32 voxels that show something
    double num_shaded = 0.0;   // of them, those that light falls on

    // On this machine now, each sample at the rate of a brick that stays in the cache.
    double seconds() const;
};

// Of one frame with a ray for each pixel. Counts every fourth ray of every fourth row.
SampleCount count_samples(scene::VolumeSource& source, const scene::TransferFunction& function, bool shaded,
                          const scene::Camera& camera, double step_voxels);

}  // namespace volr_bench
