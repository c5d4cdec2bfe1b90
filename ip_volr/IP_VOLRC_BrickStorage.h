// The pageable memory of a brick structure.
#pragma once

#include "host/memory_pager.h"
#include "ip_volr/IP_VOLRC_BrickData.h"

#include <cstdint>
#include <vector>

// Blocks of brick records (ten layers each) and the block of visibility flags, freed with the object. Copies of a brick
// structure share one storage.
struct IP_VOLRC_BrickStorage {
    static constexpr int kLayersPerBlock = 10;

    IP_VOLRC_BrickStorage() = default;
    ~IP_VOLRC_BrickStorage();
    IP_VOLRC_BrickStorage(const IP_VOLRC_BrickStorage&) = delete;
    IP_VOLRC_BrickStorage& operator=(const IP_VOLRC_BrickStorage&) = delete;

    // Allocates room for the layers and for workers + 9 planes of flags, all mapped once. False when refused; the
    // destructor then frees what there is. Records and flags are not set.
    bool Allocate(int bricks_per_layer, int num_layers, int num_workers);

    bool Map();
    void Unmap();
    bool IsMapped() const { return m_NumMappings > 0; }

    std::int64_t m_BricksPerLayer = 0;
    int m_NumWorkers = 0;
    std::vector<IP_VOLRC_BrickData*> m_Layers;  // start of each layer's records; null while unmapped
    bool* m_ClipVisibility = nullptr;           // (workers + 1) planes
    bool* m_Occlusion = nullptr;                // 8 planes

private:
    void BindPointers();

    std::vector<MEM_PagerInfo> m_Blocks;
    std::vector<MEM_PagerInfo*> m_BlockHandles;  // in the form that the pager takes
    MEM_PagerInfo m_FlagBlock;
    int m_NumMappings = 0;
};

// Keeps the storage mapped for the life of the scope, if it was not mapped already. A null storage counts as not
// mapped.
class IP_VOLRC_ScopedBrickMapping {
public:
    explicit IP_VOLRC_ScopedBrickMapping(IP_VOLRC_BrickStorage* storage)
        : m_Storage(storage),
          m_WasMapped(storage != nullptr && storage->IsMapped()),
          m_IsOurs(storage != nullptr && !m_WasMapped && storage->Map()) {}
    ~IP_VOLRC_ScopedBrickMapping() {
        if (m_IsOurs) {
            m_Storage->Unmap();
        }
    }
    IP_VOLRC_ScopedBrickMapping(const IP_VOLRC_ScopedBrickMapping&) = delete;
    IP_VOLRC_ScopedBrickMapping& operator=(const IP_VOLRC_ScopedBrickMapping&) = delete;

    bool IsMapped() const { return m_WasMapped || m_IsOurs; }

private:
    IP_VOLRC_BrickStorage* m_Storage;
    bool m_WasMapped;
    bool m_IsOurs;
};
