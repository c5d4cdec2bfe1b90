// The ray-casting pass: waves of bricks, front to back.
#include "ip_volr/IP_PortableMath.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cmath>

namespace affine = ip_volr::affine;
namespace kernels = ip_volr::kernels;
using ip_volr::kFixedOne;

namespace {

constexpr const char* kFunction = "IP_VOLRC_Projector::DoRayCasting";
// Layers of bricks that are mapped at once when the whole volume does not fit, and when even those do not.
constexpr int kChunkLayers = 9;
constexpr int kSmallChunkLayers = 3;
// Steps are shorter than a brick: a ray cannot jump over one.
constexpr int kLongestStepFixed = (kernels::kBrickEdge << 16) - 1;
constexpr double kGreatestWeight = 1 << 20;
constexpr int kRayLists = IP_VOLRC_BrickData::kNumRayLists;
// A wave is unbalanced when its heaviest brick outweighs the one that the last free task gets by this much, and a brick
// is heavy when it outweighs this part of the heaviest.
constexpr float kUnbalanced = 5.0F;
constexpr float kHeavyPart = 20.0F;
constexpr float kOpaqueCellWeight = 0.01F;

// Adds a ray to the delivery for the brick that it is in: one of the latest, else a new one.
void deliver(_listRay* ray, std::vector<IP_VOLRC_RayDelivery>& deliveries) {
    constexpr int kShift = ip_volr::kBrickShiftFixed;
    constexpr std::size_t kLatest = 8;
    const auto x = static_cast<unsigned short>(ray->position[0] >> kShift);
    const auto y = static_cast<unsigned short>(ray->position[1] >> kShift);
    const auto z = static_cast<unsigned short>(ray->position[2] >> kShift);
    const std::size_t count = deliveries.size();
    for (std::size_t i = count; i > 0 && i + kLatest > count; i--) {
        IP_VOLRC_RayDelivery& delivery = deliveries[i - 1];
        if (delivery.x == x && delivery.y == y && delivery.z == z) {
            ray->next = nullptr;
            delivery.rays.tail->next = ray;
            delivery.rays.tail = ray;
            delivery.rays.count++;
            return;
        }
    }
    ray->next = nullptr;
    deliveries.push_back({x, y, z, {ray, ray, 1}});
}

int shading_weight(double weight, int greatest) {
    return affine::truncate_clamped(weight * 65535.0 + 0.5, 0, greatest);
}

}  // namespace

// ---- Preparation

// Values of the frame that all bricks share.
void IP_VOLRC_Projector::PrepareRayCasting() {
    for (std::vector<IP_VOLRC_RayDelivery>& deliveries : m_Cast->deliveries) {
        deliveries.clear();  // of a frame that was abandoned
    }
    kernels::RayCastFrame& frame = m_Cast->frame;
    m_Box.GetDims(frame.dims);
    frame.slices = m_DataSlices.data();
    frame.tissue_slices = m_TissueSlices.empty() ? nullptr : m_TissueSlices.data();
    frame.is_signed = m_VolumeSigned;
    PrepareMovement();
    PrepareTransferFunction();
    PrepareShading();
}

// The step's length in mm back to voxels, and its parts along the axes. A view for which no ray moves makes the frame
// empty.
void IP_VOLRC_Projector::PrepareMovement() {
    kernels::RayCastFrame& frame = m_Cast->frame;
    double unit_mm[3];
    affine::transform_direction(m_ViewIndex, m_IndexToPhysical, unit_mm);
    const double step_vox = m_StepLength / affine::length(unit_mm);
    m_StepFixed = affine::truncate_clamped(step_vox * kFixedOne, 0, kLongestStepFixed);
    m_Octant = 0;
    for (int j = 0; j < 3; j++) {
        m_Increments[j] =
            affine::truncate_clamped(m_ViewIndex[j] * step_vox * kFixedOne, -kLongestStepFixed, kLongestStepFixed);
        m_Octant |= m_ViewIndex[j] > 0.0 ? 0 : 1 << j;
    }
    const bool moves = m_Increments[0] != 0 || m_Increments[1] != 0 || m_Increments[2] != 0;
    m_FrameIsEmpty = !(m_StepFixed > 0 && moves && affine::is_finite(m_ViewIndex) && affine::is_finite(m_FrameR2P));
    std::copy(m_Increments, m_Increments + 3, frame.increment);
    frame.step = m_StepFixed;
    if (m_Cast->empty_space_stale) {
        m_Cast->empty_space.find_empty_bricks(*m_BrickStructure);
        m_Cast->empty_space_stale = false;
    }
    if (!m_FrameIsEmpty) {
        m_Cast->empty_space.prepare(m_Increments, m_StepFixed);
    }
}

void IP_VOLRC_Projector::PrepareTransferFunction() {
    kernels::RayCastFrame& frame = m_Cast->frame;
    const int half_table = m_VolumeSigned ? 1 << (m_TableBits - 1) : 0;
    frame.missing_value = static_cast<std::uint16_t>(-half_table);
    frame.colours = &m_ColorTables[0][0];
    frame.table_offset = half_table;
    frame.table_last = (1 << m_TableBits) - 1;
    IP_VOLRC_RayCastScratch& cast = *m_Cast;
    for (int k = 0; k < 256; k++) {
        cast.entries_stale = cast.entries_stale || frame.step_transparency[k] != m_StepTransparencies[k][0];
        frame.step_transparency[k] = m_StepTransparencies[k][0];
    }
    const int first_tissue = frame.tissue_slices == nullptr ? kernels::kNoTissue : 0;
    if (cast.entries == nullptr) {
        cast.entries.reset(new std::uint64_t[std::size_t{kernels::kNumTissues} * kernels::kNumTableEntries]);
    }
    if (cast.entries_stale || first_tissue < cast.first_tissue_of_entries) {
        cast.entries_stale = true;  // also when this frame is abandoned
        cast.first_tissue_of_entries = first_tissue;
        RunOnAllServers(&IP_VOLRC_Projector::MakeEntries);
        cast.entries_stale = false;
    }
    frame.entries = cast.entries.get();
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        const unsigned long long* const table = m_OpacityPointers[tissue];
        frame.weight_tables[tissue] =
            table == nullptr ? nullptr : reinterpret_cast<const std::uint64_t*>(table - half_table);
    }
    frame.transparency_threshold = m_TransparencyThreshold;
}

// Subtask: the entries of every n-th tissue, for n subtasks.
void IP_VOLRC_Projector::MakeEntries() {
    const TCO_RunnableSelf self;
    IP_VOLRC_RayCastScratch& cast = *m_Cast;
    for (int tissue = cast.first_tissue_of_entries + self.GetSubtaskIndex(); tissue < kNumTissues;
         tissue += self.GetNumberOfSubtasks()) {
        const std::size_t first = static_cast<std::size_t>(tissue) * kernels::kNumTableEntries;
        kernels::make_entries(m_ColorTables[tissue], cast.frame.step_transparency, cast.frame.table_last + 1,
                              cast.entries.get() + first);
    }
}

void IP_VOLRC_Projector::PrepareShading() {
    kernels::RayCastFrame& frame = m_Cast->frame;
    frame.shading = m_ShadingOn;
    frame.fast_gradients = m_FastGradients;
    frame.weight_decides_shading = !IsFinal() && m_InteractiveQuality != RC_INTERACTIVE_LEVEL_0;
    frame.opacity_gradient_threshold = m_OpacityGradientThreshold;
    if (frame.weight_decides_shading) {
        const double opacity = 1.0 - m_OpacityGradientThreshold / 65535.0;
        const double threshold = 65535.0 * (1.0 - ip_volr::portable_power(opacity, m_StepLength));
        frame.opacity_gradient_threshold = static_cast<std::uint16_t>(affine::truncate_clamped(threshold, 0, 65535));
    }
    for (int i = 0; i < 3; i++) {
        frame.light[i] = std::isfinite(m_LightIndex[i]) ? m_LightIndex[i] : 0.0;
        frame.view[i] = m_ViewIndex[i];
        frame.uniform_weights[i] =
            shading_weight(m_ShadingWeights[i], i == 0 ? 65535 : static_cast<int>(kGreatestWeight));
    }
}

// ---- The pass

void IP_VOLRC_Projector::DoRayCasting() {
    const long long start_ticks = ip_volr::now_ticks();
    int bricks[3];
    m_BrickStructure->GetDims(bricks);
    const int num_layers = bricks[2];
    if (m_FrameIsEmpty) {
        // No ray moves: nothing to cast.
    } else if (MapBricks(0, num_layers)) {
        m_ChunkLayers = kChunkLayers;
        CastLayers(0, num_layers);
        UnmapBricks();
    } else {
        IP_VOLR_TRACE(ip_volr::kTraceWarning, IP_VOLRC_PROJECTOR_SOURCE, kFunction,
                      "Whole VolData mapping failed: mapping incrementally\n");
        const int chunk = m_ChunkLayers;
        const int num_chunks = (num_layers - 1) / chunk + 1;
        const bool upwards = m_ViewIndex[2] > 0.0;
        for (int i = 0; i < num_chunks; i++) {
            const int first = (upwards ? i : num_chunks - 1 - i) * chunk;
            const int last = std::min(first + chunk, num_layers) - 1;
            if (!MapBricks(first, last)) {
                m_ChunkLayers = kSmallChunkLayers;
                throw "Error mapping blocks";
            }
            CastLayers(first, last);
            UnmapBricks();
        }
    }
    m_ListsDirty = false;  // every ray has ended and left its list
    m_LastRenderTime = ip_volr::milliseconds_since(start_ticks);
    IP_VOLR_TRACE(ip_volr::kTraceInformation, IP_VOLRC_PROJECTOR_SOURCE, kFunction, "brick projection took: %lld\n",
                  static_cast<long long>(m_LastRenderTime));
    ConvertRaysToRaster();
}

// Carries the rays through the layers that are mapped, wave after wave.
void IP_VOLRC_Projector::CastLayers(int first_layer, int last_layer) {
    const auto num_waves =
        static_cast<int>((*m_BrickStructure->GetProjectionQueues())[static_cast<std::size_t>(m_Octant)].size());
    const TCO_RunnableSelf self;
    for (m_WaveIndex = 0; m_WaveIndex < num_waves; m_WaveIndex++) {
        self.Service();
        if (BuildBrickList(first_layer, last_layer)) {
            CastWave();
            HandOverRays();
        }
    }
}

const _int_coord* IP_VOLRC_Projector::CurrentWave(int& num_bricks) const {
    const std::vector<_int_coord>& wave =
        (*m_BrickStructure
              ->GetProjectionQueues())[static_cast<std::size_t>(m_Octant)][static_cast<std::size_t>(m_WaveIndex)];
    num_bricks = static_cast<int>(wave.size());
    return wave.data();
}

// ---- Work of one wave

bool IP_VOLRC_Projector::BuildBrickList(int first_layer, int last_layer) {
    m_BrickList.clear();
    int num_bricks = 0;
    const _int_coord* const wave = CurrentWave(num_bricks);
    for (int i = 0; i < num_bricks; i++) {
        if (wave[i].z < first_layer || wave[i].z > last_layer) {
            continue;
        }
        const IP_VOLRC_BrickData* const brick = m_BrickStructure->GetBrick(wave[i].x, wave[i].y, wave[i].z);
        if (brick->GetNumRays() > 0) {
            const float opaque_cells = static_cast<float>(brick->GetNumOpaqueCells());
            const float num_rays = static_cast<float>(brick->GetNumRays());
            m_BrickList.push_back({(1.0F + kOpaqueCellWeight * opaque_cells) * num_rays, i, 0});
        }
    }
    if (m_BrickList.empty()) {
        return false;
    }

    // Heaviest first, equal ones in wave order: the pieces of a brick follow each other, so that a server mostly holds
    // the brick's voxels already.
    const auto heavier = [](const BrickListEntry& a, const BrickListEntry& b) {
        return a.weight != b.weight ? a.weight > b.weight : a.brick < b.brick;
    };
    std::stable_sort(m_BrickList.begin(), m_BrickList.end(), heavier);
    if (!IsListBalanced()) {
        RedistributeRaysToTasks();
        std::stable_sort(m_BrickList.begin(), m_BrickList.end(), heavier);
    }
    return true;
}

bool IP_VOLRC_Projector::IsListBalanced() const {
    const std::size_t num_tasks = static_cast<std::size_t>(m_TaskCount);
    if (m_BrickList.size() <= num_tasks) {
        return false;
    }
    return m_BrickList.front().weight <= kUnbalanced * m_BrickList[num_tasks].weight;
}

void IP_VOLRC_Projector::RedistributeRaysToTasks() {
    const float limit = m_BrickList.front().weight / kHeavyPart;
    const std::size_t num_bricks = m_BrickList.size();
    for (std::size_t i = 0; i < num_bricks; i++) {
        if (m_BrickList[i].weight > limit) {
            SplitRayList(i);
        }
    }
}

// Cuts ray list 0 of an entry's brick into up to eight pieces of equal length; the last keeps the rest.
void IP_VOLRC_Projector::SplitRayList(std::size_t entry) {
    int num_bricks = 0;
    const _int_coord at = CurrentWave(num_bricks)[m_BrickList[entry].brick];
    IP_VOLRC_BrickData* const brick = m_BrickStructure->GetBrick(at.x, at.y, at.z);
    const int piece = std::max(1, brick->GetNumRays() / kRayLists);
    m_BrickList[entry].weight *= 1.0F / kRayLists;
    const BrickListEntry part = m_BrickList[entry];

    _listRay* ray = brick->GetRayListHeader(0);
    for (int list = 1; list < kRayLists; list++) {
        for (int i = 1; i < piece && ray->next != nullptr; i++) {
            ray = ray->next;
        }
        _listRay* const rest = ray->next;
        ray->next = nullptr;
        if (rest == nullptr) {
            return;
        }
        brick->SetRayListHeader(list, rest);
        m_BrickList.push_back({part.weight, part.brick, list});
        ray = rest;
    }
}

void IP_VOLRC_Projector::CastWave() {
    for (RenderingResource& resource : m_Resources) {
        resource.held_brick = -1;
    }
    if (m_Cast->deliveries.size() < m_BrickList.size()) {
        m_Cast->deliveries.resize(m_BrickList.size());
    }
    if (m_BrickList.size() == 1 || m_TaskCount == 1) {
        for (std::size_t i = 0; i < m_BrickList.size(); i++) {
            ProcessBrick(i, 0);
        }
        return;
    }
    TCO_CompoundRunnable<IP_VOLRC_Projector> runnable(this, &IP_VOLRC_Projector::ProcessBrickList);
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, static_cast<int>(m_BrickList.size()),
                                                              false);
}

void IP_VOLRC_Projector::ProcessBrickList() {
    const TCO_RunnableSelf self;
    ProcessBrick(static_cast<std::size_t>(self.GetSubtaskIndex()), self.GetServerIndex());
}

void IP_VOLRC_Projector::ProcessBrick(std::size_t item, int server) {
    const BrickListEntry& entry = m_BrickList[item];
    int num_bricks = 0;
    const _int_coord at = CurrentWave(num_bricks)[entry.brick];
    IP_VOLRC_BrickData* const data = m_BrickStructure->GetBrick(at.x, at.y, at.z);
    kernels::RayCastBrick brick;
    data->GetOrigin(brick.origin[0], brick.origin[1], brick.origin[2]);
    brick.invisible_cache = *data->GetCellInvisCache();
    brick.only_tissue = kernels::kNoTissue;
    if (m_Cast->frame.tissue_slices != nullptr) {
        const bool* const active = data->GetActiveTissueVector();
        const bool* const found = std::find(active, active + kNumTissues, true);
        brick.only_tissue = data->GetNumTissues() == 1 ? static_cast<int>(found - active) : -1;
    }
    RenderingResource& resource = m_Resources[static_cast<std::size_t>(server)];
    brick.is_held = resource.held_brick == entry.brick;
    resource.held_brick = entry.brick;
    kernels::RayCastResult result;
    kernels::process_brick(m_Cast->frame, brick, resource.block, data->GetRayListHeader(entry.list), result);
    DeliverRays(at, result, item);
}

// Sorts the rays that left a brick by the brick that they go on to: from an empty one to the first that is not.
void IP_VOLRC_Projector::DeliverRays(const _int_coord& from, const kernels::RayCastResult& result, std::size_t item) {
    std::vector<IP_VOLRC_RayDelivery>& deliveries = m_Cast->deliveries[item];
    int dims[3];
    m_BrickStructure->GetDims(dims);
    for (int k = 0; k < kernels::kNumNeighbours; k++) {
        const kernels::RayList& moved = result.moved[k];
        const int to[3] = {from.x + k % 3 - 1, from.y + k / 3 % 3 - 1, from.z + k / 9 - 1};
        const bool exists =
            to[0] >= 0 && to[1] >= 0 && to[2] >= 0 && to[0] < dims[0] && to[1] < dims[1] && to[2] < dims[2];
        if (moved.head == nullptr || !exists) {
            continue;
        }
        if (!m_Cast->empty_space.is_empty(to[0], to[1], to[2])) {
            deliveries.push_back({static_cast<unsigned short>(to[0]), static_cast<unsigned short>(to[1]),
                                  static_cast<unsigned short>(to[2]), moved});
            continue;
        }
        for (_listRay* ray = moved.head; ray != nullptr;) {
            _listRay* const next = ray->next;
            if (m_Cast->empty_space.leap(*ray)) {
                deliver(ray, deliveries);
            }
            ray = next;
        }
    }
}

// Moves the rays that left each brick in front of the lists of the bricks that they came to. The order of the rays in a
// list never shows: each ray's way and colour are its own.
void IP_VOLRC_Projector::HandOverRays() {
    int num_bricks = 0;
    const _int_coord* const wave = CurrentWave(num_bricks);
    for (std::size_t item = 0; item < m_BrickList.size(); item++) {
        const BrickListEntry& entry = m_BrickList[item];
        const _int_coord at = wave[entry.brick];
        IP_VOLRC_BrickData* const brick = m_BrickStructure->GetBrick(at.x, at.y, at.z);
        brick->SetRayListHeader(entry.list, nullptr);
        brick->DecrementNumRays(brick->GetNumRays());
        for (const IP_VOLRC_RayDelivery& delivery : m_Cast->deliveries[item]) {
            IP_VOLRC_BrickData* const target = m_BrickStructure->GetBrick(delivery.x, delivery.y, delivery.z);
            delivery.rays.tail->next = target->GetRayListHeader(0);
            target->SetRayListHeader(0, delivery.rays.head);
            target->IncrementNumRays(delivery.rays.count);
        }
        m_Cast->deliveries[item].clear();
    }
}
