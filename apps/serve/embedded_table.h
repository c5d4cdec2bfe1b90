// What the build writes: the page's files as arrays.
#pragma once

#include <cstddef>
#include <string_view>

namespace serve {

struct EmbeddedEntry {
    std::string_view name;
    const unsigned char* bytes;
    std::size_t length;
};

extern const EmbeddedEntry kEmbeddedFiles[];
extern const std::size_t kNumEmbeddedFiles;

}  // namespace serve
