#include "ip_volr/IP_VOLRC_BrickStorage.h"

#include <algorithm>

IP_VOLRC_BrickStorage::~IP_VOLRC_BrickStorage() {
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    for (MEM_PagerInfo& block : m_Blocks) {
        pager->Free(block);
    }
    pager->Free(m_FlagBlock);
}

bool IP_VOLRC_BrickStorage::Allocate(int bricks_per_layer, int num_layers, int num_workers) {
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    m_BricksPerLayer = bricks_per_layer;
    m_NumWorkers = num_workers;
    m_Layers.assign(num_layers, nullptr);
    m_Blocks.assign((num_layers + kLayersPerBlock - 1) / kLayersPerBlock, MEM_PagerInfo(pager));
    m_FlagBlock = MEM_PagerInfo(pager);
    for (MEM_PagerInfo& block : m_Blocks) {
        m_BlockHandles.push_back(&block);
    }

    const std::uint64_t layer_bytes = static_cast<std::uint64_t>(bricks_per_layer) * sizeof(IP_VOLRC_BrickData);
    int layers_left = num_layers;
    for (MEM_PagerInfo& block : m_Blocks) {
        const int layers = std::min(layers_left, kLayersPerBlock);
        if (pager->Allocate64(layers * layer_bytes, &block, 16) != 0) {
            return false;
        }
        layers_left -= layers;
    }

    const std::uint64_t num_planes = static_cast<std::uint64_t>(num_workers) + 9;
    if (pager->Allocate64(num_planes * num_layers * bricks_per_layer, &m_FlagBlock, 0) != 0) {
        return false;
    }
    m_NumMappings = 1;
    BindPointers();
    return true;
}

bool IP_VOLRC_BrickStorage::Map() {
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    const int num_blocks = static_cast<int>(m_BlockHandles.size());
    if (pager->MapMemPagerInfoVec(m_BlockHandles.data(), num_blocks) != 0) {
        return false;
    }
    if (m_FlagBlock.Map() != 0) {
        pager->UnmapMemPagerInfoVec(m_BlockHandles.data(), num_blocks);
        return false;
    }
    ++m_NumMappings;
    BindPointers();
    return true;
}

void IP_VOLRC_BrickStorage::Unmap() {
    if (m_NumMappings == 0) {
        return;
    }
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    pager->UnmapMemPagerInfoVec(m_BlockHandles.data(), static_cast<int>(m_BlockHandles.size()));
    m_FlagBlock.Unmap();
    if (--m_NumMappings == 0) {
        std::fill(m_Layers.begin(), m_Layers.end(), nullptr);
        m_ClipVisibility = nullptr;
        m_Occlusion = nullptr;
    }
}

// Blocks may have come back elsewhere: takes all addresses anew.
void IP_VOLRC_BrickStorage::BindPointers() {
    const int num_layers = static_cast<int>(m_Layers.size());
    for (int z = 0; z < num_layers; ++z) {
        auto* const block = static_cast<IP_VOLRC_BrickData*>(m_Blocks[z / kLayersPerBlock].Ptr());
        m_Layers[z] = block + (z % kLayersPerBlock) * m_BricksPerLayer;
    }
    m_ClipVisibility = static_cast<bool*>(m_FlagBlock.Ptr());
    m_Occlusion = m_ClipVisibility + (m_NumWorkers + 1) * m_BricksPerLayer * num_layers;
}
