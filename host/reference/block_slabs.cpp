#include "host/reference/block_slabs.h"

#include <algorithm>

namespace reference_host {

namespace {

constexpr std::size_t kHugePage = std::size_t{2} << 20;
constexpr std::size_t kLongestSlab = 8 * kHugePage;

// The shortest slab that wastes no more than a thirty-second, or else the one that wastes least.
std::size_t slab_length(std::size_t block_length) {
    std::size_t best = kHugePage;
    double least_waste = 1.0;
    for (std::size_t length = kHugePage; length <= kLongestSlab; length += kHugePage) {
        const double waste = static_cast<double>(length % block_length) / static_cast<double>(length);
        if (length >= block_length && waste < least_waste) {
            best = length;
            least_waste = waste;
        }
        if (least_waste <= 1.0 / 32.0) {
            break;
        }
    }
    return best;
}

}  // namespace

void* BlockSlabs::Take(std::size_t length, Slab** slab) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    *slab = SlabFor(length);
    if (*slab == nullptr) {
        return nullptr;
    }
    // Pages that are there already before new ones.
    Slab& s = **slab;
    const Slab::Block wanted = s.num_kept > 0 ? Slab::Block::Kept : Slab::Block::Bare;
    const auto block = std::find(s.blocks.begin(), s.blocks.end(), wanted);
    if (wanted == Slab::Block::Kept) {
        --s.num_kept;
        m_KeptBytes -= length;
    }
    *block = Slab::Block::Used;
    ++s.num_used;
    return s.base + static_cast<std::size_t>(block - s.blocks.begin()) * length;
}

// A slab with a free block, if possible one that has pages.
BlockSlabs::Slab* BlockSlabs::SlabFor(std::size_t length) {
    Slab* found = nullptr;
    for (Slab& slab : m_Slabs[length]) {
        if (slab.num_kept > 0) {
            return &slab;
        }
        if (found == nullptr && slab.num_used < slab.blocks.size()) {
            found = &slab;
        }
    }
    return found != nullptr ? found : NewSlab(length);
}

BlockSlabs::Slab* BlockSlabs::NewSlab(std::size_t length) {
    // A list of its own until nothing can fail any more.
    std::list<Slab> made(1);
    std::list<Slab>& slabs = m_Slabs[length];
    Slab& slab = made.front();
    slab.length = slab_length(length);
    slab.block_length = length;
    slab.blocks.assign(slab.length / length, Slab::Block::Bare);
    slab.base = static_cast<char*>(m_System.map(slab.length));
    if (slab.base == nullptr) {
        return nullptr;
    }
    slabs.splice(slabs.end(), made);
    return &slabs.back();
}

void BlockSlabs::Put(Slab* slab, void* block) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    const std::size_t length = slab->block_length;
    Slab::Block& state = slab->blocks[static_cast<std::size_t>(static_cast<char*>(block) - slab->base) / length];
    --slab->num_used;
    if (m_KeptBytes + length <= m_MostKept) {
        state = Slab::Block::Kept;
        ++slab->num_kept;
        m_KeptBytes += length;
        return;
    }
    state = Slab::Block::Bare;
    if (slab->num_used > 0) {
        m_System.drop(block, length);
    } else {
        Remove(slab);
    }
}

void BlockSlabs::Remove(Slab* slab) {
    m_KeptBytes -= slab->num_kept * slab->block_length;
    m_System.unmap(slab->base, slab->length);
    m_Slabs[slab->block_length].remove_if([slab](const Slab& s) { return &s == slab; });
}

bool BlockSlabs::Clear() {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    bool had_some = false;
    for (auto& [length, slabs] : m_Slabs) {
        for (auto slab = slabs.begin(); slab != slabs.end();) {
            const auto next = std::next(slab);
            if (slab->num_used == 0) {
                Remove(&*slab);
                had_some = true;
            }
            slab = next;
        }
    }
    return had_some;
}

}  // namespace reference_host
