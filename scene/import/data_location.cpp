#include "scene/import/data_location.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>

#include "scene/import/text_header.h"

namespace scene::import {

namespace {

DataLocation Located(DataForm form, const std::string& header_path, const std::string& data_name, std::uint64_t end) {
    DataLocation location = {form, header_path, end, 0};
    if (!data_name.empty() && Lower(data_name) != "local") {
        location.path = (std::filesystem::path(header_path).parent_path() / data_name).string();
        location.offset = 0;
    }
    std::error_code error;
    const std::uintmax_t num_bytes = std::filesystem::file_size(location.path, error);
    if (error) {
        return {DataForm::kMissing, location.path, 0, 0};
    }
    location.bytes_available = num_bytes - std::min<std::uintmax_t>(location.offset, num_bytes);
    return location;
}

DataLocation LocateNrrdData(const std::string& path) {
    const TextHeader header = ReadTextHeader(path, ':', "");
    const std::string encoding = Lower(header.Field("encoding"));
    const bool is_plain = header.fields.count("lineskip") == 0 && header.fields.count("byteskip") == 0;
    const std::string name = header.Field("datafile");
    const bool is_one = name.find('%') == std::string::npos && Lower(name).compare(0, 4, "list") != 0;
    if (!is_plain || !is_one || (encoding != "gzip" && encoding != "gz")) {
        return {};
    }
    return Located(DataForm::kDeflated, path, name, header.end);
}

// MetaIO reads short files without a complaint, so everything but one plain or compressed file is left out.
DataLocation LocateMetaData(const std::string& path) {
    const TextHeader header = ReadTextHeader(path, '=', "elementdatafile");
    const std::string name = header.Field("elementdatafile");
    const bool is_one = !name.empty() && name.find('%') == std::string::npos && Lower(name).compare(0, 4, "list") != 0;
    const std::string binary = Lower(header.Field("binarydata"));
    if (!is_one || binary == "false" || binary == "f") {
        return {DataForm::kOther, path, 0, 0};
    }
    const std::string compressed = Lower(header.Field("compresseddata"));
    const bool is_deflated = !compressed.empty() && (compressed[0] == 't' || compressed[0] == '1');
    DataLocation location = Located(is_deflated ? DataForm::kDeflated : DataForm::kStored, path, name, header.end);
    const long skipped = std::strtol(header.Field("headersize").c_str(), nullptr, 10);
    if (skipped > 0) {
        const auto num_bytes = std::min<std::uint64_t>(static_cast<std::uint64_t>(skipped), location.bytes_available);
        location.offset += num_bytes;
        location.bytes_available -= num_bytes;
    }
    return location;
}

}  // namespace

DataLocation LocateData(const std::string& path, SourceKind kind) {
    return kind == SourceKind::kNrrd ? LocateNrrdData(path) : LocateMetaData(path);
}

}  // namespace scene::import
