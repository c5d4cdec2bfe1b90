// Where the pixels of a NRRD or MetaImage file lie, as far as it matters for verifying their checksum.
#ifndef SCENE_IMPORT_DATA_LOCATION_H
#define SCENE_IMPORT_DATA_LOCATION_H

#include <cstdint>
#include <string>

#include "scene/import/imported_volume.h"

namespace scene::import {

struct DataLocation {
    bool is_deflated = false;  // one zlib or gzip stream; the rest is valid only then
    std::string path;          // of the file that holds it
    std::uint64_t offset = 0;  // of its first byte
};

DataLocation LocateData(const std::string& path, SourceKind kind);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DATA_LOCATION_H
