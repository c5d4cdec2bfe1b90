// Filling and copying of memory; the areas of a copy do not overlap. Null pointers do nothing.
#pragma once

#include "host/host_export.h"

#include <cstddef>

IP_HOST_API void IP_FillMemWord(unsigned short* dst, std::size_t count, unsigned short value);
IP_HOST_API void IP_FillMemDWord(unsigned* dst, std::size_t count, unsigned value);
IP_HOST_API void IP_Memcpy(void* dst, const void* src, std::size_t bytes);
