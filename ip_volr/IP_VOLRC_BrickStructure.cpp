#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include "host/images.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLRC_BrickStorage.h"

#include <algorithm>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr double kSmallestSlope = 1e-5;

int num_bricks(int voxels) {
    return (voxels - 1) / IP_VOLRC_BrickData::kEdge + 1;
}

}  // namespace

IP_VOLRC_BrickStructure::IP_VOLRC_BrickStructure(unsigned short (&luminosity)[16][65536],
                                                 int (&luminosity_prefix)[16][65536],
                                                 unsigned int (&colours)[16][65536], bool is_signed)
    : m_IsSigned(is_signed),
      m_LuminosityTables(luminosity),
      m_LuminosityPrefixTables(luminosity_prefix),
      m_ColorTables(colours) {}

IP_VOLRC_BrickStructure::IP_VOLRC_BrickStructure(const IP_VOLRC_BrickStructure&) = default;
IP_VOLRC_BrickStructure& IP_VOLRC_BrickStructure::operator=(const IP_VOLRC_BrickStructure&) = default;

IP_VOLRC_BrickStructure::~IP_VOLRC_BrickStructure() {
    Clean();
}

bool IP_VOLRC_BrickStructure::Init(IP_VolData* volume) {
    Clean();
    if (volume == nullptr) {
        return false;
    }
    try {
        if (!BuildRecords(*volume)) {
            Release();
            return false;
        }
    } catch (const std::bad_alloc&) {
        Release();
        return false;
    } catch (...) {
        Release();
        throw;
    }
    m_VolData = volume;
    try {
        return m_MaxLayerLoaded == 0 || ComputeAllMinMax();
    } catch (const std::bad_alloc&) {
        return false;
    }
}

// Everything of Init but the values of the tables.
bool IP_VOLRC_BrickStructure::BuildRecords(const IP_VolData& volume) {
    // Count the bricks; the projector addresses them with 32-bit indices.
    int dims[3];
    volume.GetBox()->GetDims(dims);
    if (dims[0] < 1 || dims[1] < 1 || dims[2] < 1) {
        return false;
    }
    m_NumBricksX = num_bricks(dims[0]);
    m_NumBricksY = num_bricks(dims[1]);
    m_NumBricksZ = num_bricks(dims[2]);
    const std::int64_t per_layer = static_cast<std::int64_t>(m_NumBricksX) * m_NumBricksY;
    if (per_layer > INT_MAX / m_NumBricksZ) {
        return false;
    }

    volume.GetRescaleTrans(m_RescaleSlope, m_RescaleIntercept);
    if (!(std::fabs(m_RescaleSlope) >= kSmallestSlope)) {
        m_RescaleSlope = 1.0;
    }

    // Allocate before the queues are built: the pager refuses what is too large for the machine.
    m_NumWorkers = TCO_CompoundTaskManager::GetNumberOfServers();
    m_Storage = std::make_shared<IP_VOLRC_BrickStorage>();
    if (!m_Storage->Allocate(static_cast<int>(per_layer), m_NumBricksZ, m_NumWorkers)) {
        return false;
    }
    m_Layers = m_Storage->m_Layers.data();
    BuildProjectionQueues();

    // Construct the records on all workers, so that each touches its share of the new memory.
    RunOnWorkers(&IP_VOLRC_BrickStructure::InitBrickLayers);
    const std::size_t num_flags = static_cast<std::size_t>(per_layer) * m_NumBricksZ;
    std::memset(m_Storage->m_ClipVisibility, 1, num_flags * (m_NumWorkers + 1));
    std::memset(m_Storage->m_Occlusion, 0, num_flags * kNumQueues);
    return true;
}

// Subtask: constructs the records of a contiguous run of layers, with their origins and empty tables.
void IP_VOLRC_BrickStructure::InitBrickLayers() {
    const TCO_RunnableSelf self;
    const unsigned int empty = m_IsSigned ? kEmptyMinMaxSigned : kEmptyMinMaxUnsigned;
    const auto [first, last] = LayerRun(self.GetSubtaskIndex(), self.GetNumberOfSubtasks());
    for (int z = first; z < last; ++z) {
        self.Service();
        IP_VOLRC_BrickData* brick = m_Layers[z];
        for (int y = 0; y < m_NumBricksY; ++y) {
            for (int x = 0; x < m_NumBricksX; ++x, ++brick) {
                new (brick) IP_VOLRC_BrickData();
                brick->SetOrigin(x * IP_VOLRC_BrickData::kEdge, y * IP_VOLRC_BrickData::kEdge,
                                 z * IP_VOLRC_BrickData::kEdge);
                for (int octant = 0; octant < IP_VOLRC_BrickData::kNumOctants; ++octant) {
                    brick->GetOD(octant)->InitMinMaxTable(empty);
                }
            }
        }
    }
}

void IP_VOLRC_BrickStructure::Clean() {
    if (m_VolData != nullptr) {
        Release();
    }
}

// Gives up the records and flags; the last structure that shares them frees them.
void IP_VOLRC_BrickStructure::Release() {
    m_Storage.reset();
    m_Layers = nullptr;
    m_NumBricksX = 0;
    m_NumBricksY = 0;
    m_NumBricksZ = 0;
    m_VolData = nullptr;
    m_TissueVolData = nullptr;
}

bool IP_VOLRC_BrickStructure::Map() {
    return m_Storage != nullptr && m_Storage->Map();
}

bool IP_VOLRC_BrickStructure::Unmap() {
    if (m_Storage != nullptr) {
        m_Storage->Unmap();
    }
    return true;
}

void IP_VOLRC_BrickStructure::GetDims(int* const dims) const {
    dims[0] = m_NumBricksX;
    dims[1] = m_NumBricksY;
    dims[2] = m_NumBricksZ;
}

// The flags were allocated for the workers of Init; a later update may have seen another number.
int IP_VOLRC_BrickStructure::GetMaxRasterProjections() const {
    return m_Storage == nullptr ? m_NumWorkers : std::min(m_NumWorkers, m_Storage->m_NumWorkers);
}

bool* IP_VOLRC_BrickStructure::GetBrickClipVisibility() const {
    return m_Storage == nullptr ? nullptr : m_Storage->m_ClipVisibility;
}

bool* IP_VOLRC_BrickStructure::GetBrickOcclusionIndex(int q) const {
    if (m_Storage == nullptr || m_Storage->m_Occlusion == nullptr || q < 0 || q >= kNumQueues) {
        return nullptr;
    }
    return m_Storage->m_Occlusion + q * m_Storage->m_BricksPerLayer * m_NumBricksZ;
}

void IP_VOLRC_BrickStructure::SetRescaleParams(double slope, double intercept) {
    m_RescaleSlope = slope;
    m_RescaleIntercept = intercept;
}

// Runs a subtask body once for each worker.
void IP_VOLRC_BrickStructure::RunOnWorkers(void (IP_VOLRC_BrickStructure::*method)()) {
    TCO_CompoundRunnable<IP_VOLRC_BrickStructure> runnable(this, method);
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, m_NumWorkers, false);
}

// The contiguous run [first, last) of layers of one subtask.
std::pair<int, int> IP_VOLRC_BrickStructure::LayerRun(int subtask, int num_subtasks) const {
    const std::int64_t run = (static_cast<std::int64_t>(m_NumBricksZ) + num_subtasks - 1) / num_subtasks;
    const std::int64_t first = std::min<std::int64_t>(subtask * run, m_NumBricksZ);
    const std::int64_t last = std::min<std::int64_t>(first + run, m_NumBricksZ);
    return {static_cast<int>(first), static_cast<int>(last)};
}
