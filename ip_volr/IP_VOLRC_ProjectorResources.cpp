// Memory of the ray-casting projector: rasters, ray pool, work blocks, and what is mapped around a frame.
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <new>

using ip_volr::kFrameMemory;
using ip_volr::kPadding;

namespace {

// Rays per page of the pool.
constexpr int kRaysPerPage = 1310720;

using Bytes = unsigned long long;

// Allocates and leaves mapped; null when refused.
void* allocate_mapped(Bytes num_bytes, MEM_PagerInfo& info) {
    if (MEM_MemPager::GetHandleForMP()->Allocate64(num_bytes, &info, kFrameMemory) == -1) {
        info = MEM_PagerInfo();
        return nullptr;
    }
    return info.Ptr();
}

void free_block(MEM_PagerInfo& info) {
    if (info.Block() != -1) {
        MEM_MemPager::GetHandleForMP()->Free(info);
    }
    info = MEM_PagerInfo();
}

}  // namespace

// ---- Rasters

void IP_VOLRC_Projector::AllocateRasters() {
    FreeRasters();
    if (m_OutputWidth < 1 || m_OutputHeight < 1) {
        return;
    }
    constexpr const char* kFunction = "IP_VOLRC_Projector::SetDefaultParams";
    const Bytes num_pixels = static_cast<Bytes>(m_OutputWidth) * static_cast<Bytes>(m_OutputHeight);
    const Bytes raster_bytes = (num_pixels + 2 * static_cast<Bytes>(m_OutputWidth)) * sizeof(unsigned);

    m_RenderRaster = static_cast<int*>(allocate_mapped(raster_bytes, m_RenderRasterInfo));
    if (m_RenderRaster == nullptr) {
        IP_VOLR_TRACE(ip_volr::kTraceError, IP_VOLRC_PROJECTOR_SOURCE, kFunction, "Error allocating render raster\n");
        FreeRasters();
        return;
    }
    m_ClipRaster = static_cast<int*>(allocate_mapped(raster_bytes, m_ClipRasterInfo));
    if (m_ClipRaster == nullptr) {
        IP_VOLR_TRACE(ip_volr::kTraceError, IP_VOLRC_PROJECTOR_SOURCE, kFunction,
                      "Error allocating clipping render raster\n");
        FreeRasters();
        return;
    }
    m_PixelBricks = static_cast<PixelBrick*>(allocate_mapped(num_pixels * sizeof(PixelBrick), m_PixelBrickInfo));
    if (m_PixelBricks == nullptr) {
        IP_VOLR_TRACE(ip_volr::kTraceError, IP_VOLRC_PROJECTOR_SOURCE, kFunction,
                      "Error allocating Brick pager info\n");
        FreeRasters();
        return;
    }
    m_RastersAllocated = true;
    m_RastersMapped = true;
}

void IP_VOLRC_Projector::FreeRasters() {
    free_block(m_RenderRasterInfo);
    free_block(m_ClipRasterInfo);
    free_block(m_PixelBrickInfo);
    m_RenderRaster = nullptr;
    m_ClipRaster = nullptr;
    m_PixelBricks = nullptr;
    m_RastersAllocated = false;
    m_RastersMapped = false;
    m_Valid[kPictureValid] = false;
}

bool IP_VOLRC_Projector::MapRasters() {
    if (m_RastersMapped) {
        return true;
    }
    if (!m_RastersAllocated) {
        return false;
    }
    MEM_PagerInfo* infos[] = {&m_RenderRasterInfo, &m_ClipRasterInfo, &m_PixelBrickInfo};
    if (MEM_MemPager::GetHandleForMP()->MapMemPagerInfoVec(infos, 3) != 0) {
        return false;
    }
    m_RenderRaster = static_cast<int*>(m_RenderRasterInfo.Ptr());
    m_ClipRaster = static_cast<int*>(m_ClipRasterInfo.Ptr());
    m_PixelBricks = static_cast<PixelBrick*>(m_PixelBrickInfo.Ptr());
    m_RastersMapped = true;
    return true;
}

bool IP_VOLRC_Projector::UnmapRasters() {
    if (m_RastersMapped) {
        MEM_PagerInfo* infos[] = {&m_RenderRasterInfo, &m_ClipRasterInfo, &m_PixelBrickInfo};
        MEM_MemPager::GetHandleForMP()->UnmapMemPagerInfoVec(infos, 3);
        m_RastersMapped = false;
    }
    return true;
}

// ---- Ray pool

// The rays themselves are set when a frame attaches them.
void IP_VOLRC_Projector::InitRayPool() {
    if (m_OutputWidth < 1) {
        return;
    }
    FreeRayPool();
    if (m_OutputHeight < 1 || m_OutputWidth > kRaysPerPage) {
        return;
    }
    m_RowsPerPage = kRaysPerPage / m_OutputWidth;
    const int num_pages = (m_OutputHeight - 1) / m_RowsPerPage + 1;
    m_RayPages = new (std::nothrow) _listRay*[static_cast<std::size_t>(num_pages)]();
    m_RayPageInfos = new (std::nothrow) MEM_PagerInfo[static_cast<std::size_t>(num_pages)];
    bool complete = m_RayPages != nullptr && m_RayPageInfos != nullptr;
    for (int page = 0; complete && page < num_pages; page++) {
        const long long first_row = static_cast<long long>(page) * m_RowsPerPage;
        const long long rows = std::min<long long>(m_OutputHeight - first_row, m_RowsPerPage);
        const Bytes num_bytes = static_cast<Bytes>(rows) * static_cast<Bytes>(m_OutputWidth) * sizeof(_listRay);
        m_RayPages[page] = static_cast<_listRay*>(allocate_mapped(num_bytes, m_RayPageInfos[page]));
        complete = m_RayPages[page] != nullptr;
        m_NumRayPages += complete ? 1 : 0;
    }
    if (!complete) {
        IP_VOLR_TRACE(ip_volr::kTraceError, IP_VOLRC_PROJECTOR_SOURCE, "IP_VOLRC_Projector::InitRayPool",
                      "Error allocating ray pool\n");
        FreeRayPool();
    }
}

void IP_VOLRC_Projector::FreeRayPool() {
    for (int page = 0; page < m_NumRayPages; page++) {
        free_block(m_RayPageInfos[page]);
    }
    delete[] m_RayPages;
    delete[] m_RayPageInfos;
    m_RayPages = nullptr;
    m_RayPageInfos = nullptr;
    m_NumRayPages = 0;
    m_RowsPerPage = 0;
    m_ListsDirty = true;
    m_Valid[kRaysValid] = false;
}

_listRay* IP_VOLRC_Projector::RayRow(int y) const {
    return m_RayPages[y / m_RowsPerPage] +
           static_cast<std::size_t>(y % m_RowsPerPage) * static_cast<std::size_t>(m_RenderWidth);
}

// ---- Work blocks of the tasks

bool IP_VOLRC_Projector::AllocateRenderingResources() {
    const auto num_tasks = static_cast<std::size_t>(m_TaskCount);
    if (m_ResourcesAllocated && m_Resources.size() == num_tasks) {
        return true;
    }
    ClearRenderingResources();
    m_Resources.resize(num_tasks);
    m_ResourcesAllocated = true;
    for (RenderingResource& resource : m_Resources) {
        resource.block = static_cast<unsigned char*>(allocate_mapped(ip_volr::kernels::kWorkBlockBytes, resource.info));
        if (resource.block == nullptr) {
            return false;
        }
    }
    int bricks[3];
    m_BrickStructure->GetDims(bricks);
    m_BrickList.reserve(8 * static_cast<std::size_t>(m_BrickStructure->GetLargestLayerSize()));
    int dims[3];
    m_PaddedVolume->GetBox()->GetDims(dims);
    const auto num_slices = static_cast<std::size_t>(dims[2]);
    m_DataSlices.assign(num_slices, nullptr);
    m_TissueSlices.assign(TissuesFitVolume() ? num_slices : 0, nullptr);
    m_SliceInfos.assign(num_slices, nullptr);
    return true;
}

void IP_VOLRC_Projector::ClearRenderingResources() {
    for (RenderingResource& resource : m_Resources) {
        free_block(resource.info);
    }
    m_Resources.clear();
    m_DataSlices.clear();
    m_TissueSlices.clear();
    m_SliceInfos.clear();
    m_ResourcesAllocated = false;
}

void IP_VOLRC_Projector::ClearProjectorResources() {
    UnmapBricks();
    UnmapBrickStructure();
    if (m_OwnsBrickStructure) {
        DeleteBrickStructure(m_BrickStructure);
    }
    m_BrickStructure = nullptr;
    m_OwnsBrickStructure = false;
    m_BricksInitialised = false;
    FreeRasters();
    FreeRayPool();
    delete m_BoxClipManager;
    delete m_UserClipManager;
    m_BoxClipManager = nullptr;
    m_UserClipManager = nullptr;
    ClearRenderingResources();
    m_Cast.reset();
    DestroyPaddedVolume();
    DestroyPaddedTissues();
    m_Valid.fill(false);
}

// ---- Brick structure

bool IP_VOLRC_Projector::MapBrickStructure() {
    if (!m_BricksMapped) {
        m_BricksMapped = m_BrickStructure != nullptr && m_BrickStructure->Map();
    }
    return m_BricksMapped;
}

bool IP_VOLRC_Projector::UnmapBrickStructure() {
    if (m_BricksMapped) {
        m_BricksMapped = false;
        return m_BrickStructure->Unmap();
    }
    return true;
}

// ---- Slices of a range of brick layers

bool IP_VOLRC_Projector::MapBricks(int first_layer, int last_layer) {
    // A brick reads one slice before it and two behind it; the padding stands for the source's slices beside it.
    constexpr int kEdge = ip_volr::kernels::kBrickEdge;
    int dims[3];
    m_PaddedVolume->GetBox()->GetDims(dims);
    const int first_real = kPadding;
    const int last_real = dims[2] - kPadding - 1;
    const int first = std::clamp(first_layer * kEdge - 1, 0, last_real);
    const int last = std::clamp((last_layer + 1) * kEdge + 2, first_real + 1, dims[2]);
    const int count = last - first;
    if (!IP_SliceVector::MapIPSliceVec(m_PaddedVolume->GetSlices() + first, count, m_SliceInfos.data(), false, false)) {
        return false;
    }
    if (!m_TissueSlices.empty() && !IP_SliceVector::MapIPSliceVec(m_PaddedTissues->GetSlices() + first, count,
                                                                  m_SliceInfos.data(), false, false)) {
        IP_SliceVector::UnMapIPSliceVec(m_PaddedVolume->GetSlices() + first, count, m_SliceInfos.data(), false);
        return false;
    }
    m_MappedFirst = first;
    m_MappedLast = last;
    CollectSlicePointers();
    return true;
}

void IP_VOLRC_Projector::CollectSlicePointers() {
    std::fill(m_DataSlices.begin(), m_DataSlices.end(), nullptr);
    std::fill(m_TissueSlices.begin(), m_TissueSlices.end(), nullptr);
    const int num_slices = static_cast<int>(m_DataSlices.size());
    for (int z = m_MappedFirst; z < m_MappedLast; z++) {
        const int real = std::clamp(z, kPadding, num_slices - kPadding - 1);
        const auto* const slice = static_cast<const IP_ShortSlice*>(m_PaddedVolume->GetSlice(real));
        if (slice != nullptr) {
            m_DataSlices[static_cast<std::size_t>(z)] =
                reinterpret_cast<const unsigned short*>(slice->GetMappedSlice());
        }
        if (m_TissueSlices.empty()) {
            continue;
        }
        const auto* const tissues = static_cast<const IP_TisIndSlice*>(m_PaddedTissues->GetSlice(real));
        if (tissues != nullptr) {
            m_TissueSlices[static_cast<std::size_t>(z)] = tissues->GetMappedSlice();
        }
    }
}

void IP_VOLRC_Projector::UnmapBricks() {
    const int count = m_MappedLast - m_MappedFirst;
    if (count == 0) {
        return;
    }
    IP_SliceVector::UnMapIPSliceVec(m_PaddedVolume->GetSlices() + m_MappedFirst, count, m_SliceInfos.data(), false);
    if (!m_TissueSlices.empty()) {
        IP_SliceVector::UnMapIPSliceVec(m_PaddedTissues->GetSlices() + m_MappedFirst, count, m_SliceInfos.data(),
                                        false);
    }
    m_MappedFirst = 0;
    m_MappedLast = 0;
}
