// Everything of a volume but its voxels as bytes, for the way from the import process to its parent.
#ifndef SCENE_IMPORT_VOLUME_ARCHIVE_H
#define SCENE_IMPORT_VOLUME_ARCHIVE_H

#include <string>
#include <vector>

#include "scene/import/imported_volume.h"

namespace scene::import {

std::string Pack(const ImportedVolume& volume);
std::string Pack(const std::vector<SeriesInfo>& series);

// The bytes come from a process that may have been taken over by a hostile file: throws ImportError when they do not
// make sense.
ImportedVolume UnpackVolume(const std::string& bytes);
std::vector<SeriesInfo> UnpackSeries(const std::string& bytes);

}  // namespace scene::import

#endif  // SCENE_IMPORT_VOLUME_ARCHIVE_H
