// The text in front of the pixels of NRRD and MetaImage files.
#ifndef SCENE_IMPORT_TEXT_HEADER_H
#define SCENE_IMPORT_TEXT_HEADER_H

#include <cstdint>
#include <map>
#include <string>

namespace scene::import {

// The header's fields, names in lower case without blanks, and where it ends.
struct TextHeader {
    std::map<std::string, std::string> fields;
    std::uint64_t end = 0;

    // Empty when it is missing.
    std::string Field(const std::string& name) const;
};

// Reads "name SEPARATOR value" lines up to an empty line or up to the last field.
TextHeader ReadTextHeader(const std::string& path, char separator, const std::string& last_field);

std::string Lower(std::string text);

}  // namespace scene::import

#endif  // SCENE_IMPORT_TEXT_HEADER_H
