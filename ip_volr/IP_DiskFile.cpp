#include "ip_volr/IP_DiskFile.h"

#include <algorithm>
#include <cstdint>

namespace ip_volr {
namespace {

#ifndef _WIN32
// Appends a code point; one that no text can hold becomes the replacement character.
void append_utf8(std::uint32_t code, std::string& text) {
    if (code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) {
        code = 0xFFFD;
    }
    if (code < 0x80) {
        text += static_cast<char>(code);
        return;
    }
    const int num_following = code < 0x800 ? 1 : code < 0x10000 ? 2 : 3;
    const unsigned int lead = num_following == 1 ? 0xC0 : num_following == 2 ? 0xE0 : 0xF0;
    text += static_cast<char>(lead | code >> (6 * num_following));
    for (int i = num_following - 1; i >= 0; --i) {
        text += static_cast<char>(0x80 | (code >> (6 * i) & 0x3F));
    }
}
#endif

}  // namespace

DiskFile open_for_reading(const std::string& path) {
    DiskFile file(std::fopen(path.c_str(), "rb"));
#ifndef _WIN32
    if (file == nullptr) {
        std::string slashed = path;
        std::replace(slashed.begin(), slashed.end(), '\\', '/');
        file.reset(std::fopen(slashed.c_str(), "rb"));
    }
#endif
    return file;
}

DiskFile open_for_reading(const std::wstring& path) {
#ifdef _WIN32
    return DiskFile(_wfopen(path.c_str(), L"rb"));
#else
    std::string utf8;
    for (const wchar_t c : path) {
        append_utf8(static_cast<std::uint32_t>(c), utf8);
    }
    return open_for_reading(utf8);
#endif
}

std::size_t read_bytes(std::FILE* file, void* buffer, std::size_t count) {
    return std::fread(buffer, 1, count, file);
}

}  // namespace ip_volr
