// Minimum and maximum values of the layers that receive new slices while a series is streaming in.
#include "host/images.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLRC_BrickMinMaxScratch.h"
#include "ip_volr/IP_VOLRC_BrickSlices.h"
#include "ip_volr/IP_VOLRC_BrickStorage.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <algorithm>
#include <chrono>
#include <new>
#include <utility>

namespace {

constexpr int kLayersPerGroup = 9;  // layers whose slices are mapped at once
constexpr int kSlicesPerLayer = IP_VOLRC_BrickData::kEdge;

}  // namespace

// QUIRK(streaming-layer-offset): a reader expects a slice to mark its own layer and, at a boundary, the one below whose
// overlap it is; the slice two above marks its layer only (the padded volume starts two slices earlier). The overlap of
// the layer below may be stale by one voxel; kept: callers rely on it.
void IP_VOLRC_BrickStructure::PrepareUpdatedBricksVector(std::list<int>* new_slices) {
    m_UpdatedLayers.clear();
    if (new_slices == nullptr) {
        return;
    }
    std::vector<bool> is_updated(m_NumBricksZ, false);
    for (const int slice : *new_slices) {
        const long long layer = (slice + 2LL) / kSlicesPerLayer;
        if (slice >= 0 && layer < m_NumBricksZ) {
            is_updated[layer] = true;
        }
    }
    for (int layer = 0; layer < m_NumBricksZ; ++layer) {
        if (is_updated[layer]) {
            m_UpdatedLayers.push_back(layer);
        }
    }
}

bool IP_VOLRC_BrickStructure::RecalculateMinMaxForNewSlices() {
    if (m_VolData == nullptr || !m_Storage->IsMapped()) {
        return false;
    }
    m_NumWorkers = TCO_CompoundTaskManager::GetNumberOfServers();
    const auto start = std::chrono::steady_clock::now();
    try {
        if (!ComputeUpdatedMinMax()) {
            return false;
        }
    } catch (const std::bad_alloc&) {
        return false;
    }
    const long long elapsed_ms =
        std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count();
    IP_VOLR_TRACE(ip_volr::kTraceInformation, "ip_volr/IP_VOLRC_Brick",
                  "IP_VOLRC_BrickStructure::RecalculateMinMaxForNewSlices", "preprocessing finished: %lld\n",
                  elapsed_ms);
    return true;
}

// Fills the tables of the listed layers, group after group.
bool IP_VOLRC_BrickStructure::ComputeUpdatedMinMax() {
    IP_VOLRC_MinMaxScratch scratch(*m_VolData, m_NumBricksX, m_NumBricksY, m_NumWorkers, m_IsSigned);
    const ip_volr::ScopedPointer lent(m_MinMaxScratch, scratch);
    const int num_updated = static_cast<int>(m_UpdatedLayers.size());
    for (int group = 0; group < num_updated; group += kLayersPerGroup) {
        const int group_end = std::min(group + kLayersPerGroup, num_updated);

        // Map the slices of every layer and one beyond it; one that two layers share is mapped for both.
        std::vector<IP_Slice*> slices;
        for (int i = group; i < group_end; ++i) {
            const int first = m_UpdatedLayers[i] * kSlicesPerLayer;
            ip_volr::append_slices(*m_VolData, first, std::min(first + kSlicesPerLayer, scratch.m_Depth - 1), slices);
        }
        const ip_volr::MappedSlices mapped(std::move(slices));
        if (!mapped.IsMapped()) {
            return false;
        }
        for (int i = group; i < group_end; ++i) {
            const int first = m_UpdatedLayers[i] * kSlicesPerLayer;
            scratch.FindPixels(*m_VolData, first, std::min(first + kSlicesPerLayer, scratch.m_Depth - 1));
        }

        m_CurrentGroup = group;
        RunOnWorkers(&IP_VOLRC_BrickStructure::InitLeavesMinMaxFromBrickVector);
    }
    return true;
}

// Subtask: every n-th position, for n subtasks, of the current group of the updated layers.
void IP_VOLRC_BrickStructure::InitLeavesMinMaxFromBrickVector() {
    if (m_MinMaxScratch == nullptr) {
        return;
    }
    const TCO_RunnableSelf self;
    const int end = std::min(m_CurrentGroup + kLayersPerGroup, static_cast<int>(m_UpdatedLayers.size()));
    for (int i = m_CurrentGroup + self.GetSubtaskIndex(); i < end; i += self.GetNumberOfSubtasks()) {
        self.Service();
        InitSingleBrickLayerMinMax(m_UpdatedLayers[i], self.GetSubtaskIndex());
    }
}
