#include "scene/import/text_header.h"

#include <cctype>
#include <fstream>

namespace scene::import {

namespace {

std::string Trimmed(const std::string& text) {
    const std::size_t first = text.find_first_not_of(" \t\r"), last = text.find_last_not_of(" \t\r");
    return first == std::string::npos ? std::string() : text.substr(first, last - first + 1);
}

}  // namespace

std::string TextHeader::Field(const std::string& name) const {
    const auto found = fields.find(name);
    return found == fields.end() ? std::string() : found->second;
}

std::string Lower(std::string text) {
    for (char& character : text) {
        character = static_cast<char>(std::tolower(static_cast<unsigned char>(character)));
    }
    return text;
}

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

}  // namespace scene::import
