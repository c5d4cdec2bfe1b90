#include "host/memory_utilities.h"

#include <algorithm>
#include <cstring>

void IP_FillMemWord(unsigned short* dst, std::size_t count, unsigned short value) {
    if (dst != nullptr) {
        std::fill_n(dst, count, value);
    }
}

void IP_FillMemDWord(unsigned* dst, std::size_t count, unsigned value) {
    if (dst != nullptr) {
        std::fill_n(dst, count, value);
    }
}

void IP_Memcpy(void* dst, const void* src, std::size_t bytes) {
    if (dst != nullptr && src != nullptr && bytes > 0) {
        std::memcpy(dst, src, bytes);
    }
}
