// Stands in for the reader of formats that fuzzers leave to ITK.
#include "scene/import/readers.h"

namespace scene::import {

ImportedVolume ReadWithItk(ImportContext&, const std::string& path, SourceKind, Content) {
    Refuse(path, "not built", "build with ITK");
}

SeriesInfo DescribeWithItk(const std::string& path, SourceKind) {
    Refuse(path, "not built", "build with ITK");
}

}  // namespace scene::import
