// Volumes, looks and views of the benchmarks of whole frames.
#pragma once

#include "scene/labels.h"
#include "scene/phantom.h"
#include "scene/projection.h"
#include "scene/transfer_function.h"
#include "scene/views.h"
#include "scene/volume_source.h"

#include <memory>
#include <string>
#include <vector>

namespace volr_bench {

// A volume by name: "head256" (256^3), "head512" (512x512x400), "head1000" (512x512x1000) or "real" (the path in the
// environment variable VOLR_BENCH_VOLUME).
struct Volume {
    std::string name;
    std::unique_ptr<scene::VolumeSource> source;
    scene::ImportedVolume labels;  // without voxels unless it is a phantom
};

// The names that can be had here: no real volume without a path, no large one without memory for it.
std::vector<std::string> volume_names();

// Makes or reads the volume. Only one exists at a time: nothing may use the one before.
Volume& volume(const std::string& name);

// A phantom as an imported volume, and its labels as an imported label map.
scene::ImportedVolume imported(const scene::Phantom& phantom);
scene::ImportedVolume imported_labels(const scene::Phantom& phantom);

// "opaque" (bone and vessels), "skin" (to soft tissue), "half" (half transparent everywhere).
const scene::TransferFunction& look(const std::string& name);

scene::View view_of(double azimuth_deg, double elevation_deg, int size);

}  // namespace volr_bench
