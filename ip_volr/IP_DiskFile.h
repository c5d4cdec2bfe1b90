// Files of the debugging loaders.
#pragma once

#include <cstdio>
#include <memory>
#include <string>

namespace ip_volr {

struct CloseFile {
    void operator()(std::FILE* file) const { std::fclose(file); }
};
using DiskFile = std::unique_ptr<std::FILE, CloseFile>;  // null when the file could not be opened

// Opens a file for binary reading. Where the system's separator is '/', a path that names no file as it stands is tried
// again with its backslashes turned into it.
DiskFile open_for_reading(const std::string& path);
DiskFile open_for_reading(const std::wstring& path);  // elsewhere than on Windows the path becomes UTF-8

// Reads up to `count` bytes; returns how many there were.
std::size_t read_bytes(std::FILE* file, void* buffer, std::size_t count);

}  // namespace ip_volr
