// Where the pixels of a NRRD or MetaImage file lie, as far as it matters for checking that they are whole.
#ifndef SCENE_IMPORT_DATA_LOCATION_H
#define SCENE_IMPORT_DATA_LOCATION_H

#include <cstdint>
#include <string>

#include "scene/import/imported_volume.h"

namespace scene::import {

enum class DataForm {
    kChecked,   // the reader itself notices when something is missing
    kStored,    // plain bytes in one file
    kDeflated,  // one zlib or gzip stream in one file
    kMissing,   // the file that the header names is not there
    kOther      // text, or spread over several files
};

struct DataLocation {
    DataForm form = DataForm::kChecked;
    std::string path;                               // of the file that holds it, and
    std::uint64_t offset = 0, bytes_available = 0;  // its first byte and what follows
};

DataLocation LocateData(const std::string& path, SourceKind kind);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DATA_LOCATION_H
