// Memory of pager blocks, straight from the operating system.
#pragma once

#include "host/reference/block_slabs.h"

#include <cstddef>
#include <cstdint>

namespace reference_host {

// The memory of one block. Plain data: whoever holds it releases it.
struct BlockMemory {
    void* address = nullptr;           // what the user sees, a multiple of 64 bytes
    void* base = nullptr;              // what the operating system gave
    std::size_t length = 0;            // of the whole block; 0 when the memory comes from the heap
    BlockSlabs::Slab* slab = nullptr;  // that it is a part of, if any
};

// Memory for at least `bytes` bytes (0 counts as 1), contents unspecified; a null address when there is none. Blocks
// beyond the reach of the heap live in huge pages where the system has them, smaller ones many in a page. Blocks larger
// than a page begin at different cache lines of their pages: else equal rows of many slices would compete for the same
// few lines of the first-level cache. Of released memory, up to 32 MiB in blocks below 2 MiB and as much
// in larger ones of at most 8 MiB wait for blocks of the same size.
BlockMemory allocate_block_memory(std::int64_t bytes);
void release_block_memory(const BlockMemory& memory);

// Memory of the machine, or of the container that the process is confined to, in bytes.
std::int64_t machine_memory_bytes();

}  // namespace reference_host
