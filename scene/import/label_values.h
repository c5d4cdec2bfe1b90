// Label maps: whole numbers instead of measured values.
#ifndef SCENE_IMPORT_LABEL_VALUES_H
#define SCENE_IMPORT_LABEL_VALUES_H

#include <string>

#include "scene/import/imported_volume.h"

namespace scene::import {

// Turns the 16-bit values of a volume that is complete otherwise into the labels they stand for. Throws ImportError
// when one of them is not a whole number of 0 to 65535.
void MakeLabels(ImportedVolume& volume, const std::string& what);

}  // namespace scene::import

#endif  // SCENE_IMPORT_LABEL_VALUES_H
