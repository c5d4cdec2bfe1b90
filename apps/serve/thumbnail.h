// Small pictures of whole volumes.
#pragma once

#include "scene/import/imported_volume.h"

#include <string>

namespace serve {

constexpr int kThumbnailEdge = 192;  // pixels

// Every n-th voxel of each axis, so that no axis keeps more than a few hundred: all that a thumbnail shows, in little
// memory. The volume stays as it is.
scene::ImportedVolume Thinned(const scene::ImportedVolume& volume);

// A projection of the volume onto the side of the patient that shows most of it, as a PNG file of 192 x 192 pixels.
// Consumes the volume. Uses the host's workers. Throws scene::Error and the host's cancellation.
std::string DrawThumbnail(scene::ImportedVolume&& volume);

}  // namespace serve
