// Blocks of one size carved from larger mappings, so that slices live in huge pages.
//
//   slab   | block | block | ... | block | rest |     a few huge pages; blocks are whole pages, not whole huge pages
//
// A block costs no page fault of its own where its neighbours were written before, and pages come to be where they are
// first written, by whoever writes them: filling many blocks in parallel populates them in parallel, and blocks that
// nobody writes cost nothing.
//
// A block that is given back keeps its pages for the next block of its size, as long as no more than a certain sum
// waits in all slabs; beyond it the pages go back to the system at once, and the whole slab when its last block is
// free.
#pragma once

#include <cstddef>
#include <cstdint>
#include <list>
#include <map>
#include <mutex>
#include <vector>

namespace reference_host {

class BlockSlabs {
public:
    // A run of huge pages that blocks of one length are carved from.
    struct Slab {
        enum class Block : std::uint8_t { Bare, Kept, Used };

        char* base = nullptr;
        std::size_t length = 0;
        std::size_t block_length = 0;
        std::size_t num_used = 0;
        std::size_t num_kept = 0;  // free, but with pages
        std::vector<Block> blocks;
    };

    // `most_kept_bytes`: what may wait for another use. Map and unmap get and give back runs of huge pages.
    using MapPages = void* (*)(std::size_t length);
    using UnmapPages = void (*)(void* base, std::size_t length);
    using DropPages = void (*)(void* base, std::size_t length);  // the range stays, its contents go
    struct System {
        MapPages map;
        UnmapPages unmap;
        DropPages drop;
    };
    BlockSlabs(const System& system, std::size_t most_kept_bytes) : m_System(system), m_MostKept(most_kept_bytes) {}

    // A block of `length` bytes (a multiple of the page size) and its slab; null when the system has no memory. Throws
    // std::bad_alloc, with nothing taken, when there is none for the slab's own records.
    void* Take(std::size_t length, Slab** slab);
    void Put(Slab* slab, void* block);
    // Gives back all slabs without a used block; false when there were none.
    bool Clear();

private:
    Slab* SlabFor(std::size_t length);
    Slab* NewSlab(std::size_t length);
    void Remove(Slab* slab);

    const System m_System;
    const std::size_t m_MostKept;
    std::mutex m_Mutex;
    std::map<std::size_t, std::list<Slab>> m_Slabs;  // by block length
    std::size_t m_KeptBytes = 0;
};

}  // namespace reference_host
