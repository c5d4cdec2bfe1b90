#include "scene/import/data_location.h"

#include <cctype>
#include <filesystem>
#include <fstream>
#include <map>

namespace scene::import {

namespace {

std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r"), last = text.find_last_not_of(" \t\r");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

std::string Lower(std::string text) {
    for (char& character : text) {
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return text;
}

// The header's fields, names in lower case without blanks, and where it ends.
struct TextHeader {
    std::map<std::string, std::string> fields;
    std::uint64_t end = 0;
};

// NRRD headers end at an empty line, MetaImage headers after the name of the data file.
TextHeader ReadTextHeader(const std::string& path, char separator, const std::string& last_field) {
    constexpr int kMostLines = 10000;
    TextHeader header;
    std::ifstream stream(path, std::ios::binary);
    std::string line;
    for (int number = 0; number < kMostLines && std::getline(stream, line); ++number) {
        header.end += line.size() + 1;
        if (Trimmed(line).empty()) {
            break;
        }
        const std::size_t at = line.find(separator);
        if (at == std::string::npos) {
            continue;
        }
        std::string name = Lower(line.substr(0, at));
        std::erase(name, ' ');
        header.fields[name] = Trimmed(line.substr(at + 1));
        if (name == last_field) {
            break;
        }
    }
    return header;
}

DataLocation Located(const std::string& header_path, const std::string& data_name, std::uint64_t end) {
    if (data_name.empty() || Lower(data_name) == "local") {
        return {true, header_path, end};
    }
    const std::filesystem::path beside = std::filesystem::path(header_path).parent_path() / data_name;
    std::error_code error;
    return {std::filesystem::is_regular_file(beside, error), beside.string(), 0};
}

}  // namespace

DataLocation LocateData(const std::string& path, SourceKind kind) {
    if (kind == SourceKind::kNrrd) {
        TextHeader header = ReadTextHeader(path, ':', "");
        const std::string encoding = Lower(header.fields["encoding"]);
        const bool is_plain = header.fields.count("lineskip") == 0 && header.fields.count("byteskip") == 0;
        if (!is_plain || (encoding != "gzip" && encoding != "gz")) {
            return {};
        }
        return Located(path, header.fields["datafile"], header.end);
    }
    TextHeader header = ReadTextHeader(path, '=', "elementdatafile");
    if (Lower(header.fields["compresseddata"]) != "true") {
        return {};
    }
    return Located(path, header.fields["elementdatafile"], header.end);
}

}  // namespace scene::import
