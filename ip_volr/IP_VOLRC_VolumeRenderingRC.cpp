#include "ip_volr/IP_VOLRC_VolumeRenderingRC.h"

#include "host/multi_volume.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"

#include <cstdint>
#include <new>

namespace affine = ip_volr::affine;

namespace {

// Pager flag of working memory.
constexpr int kFrameMemory = 16;
// Identifiers of the user's planes; those below belong to the six faces of the volume.
constexpr int kFirstUserPlane = 6;
constexpr double kShadedWeights[3] = {0.9, 0.6, 0.3};
constexpr double kUnshadedWeights[3] = {0.0, 0.0, 1.0};

// The projector starts at the first address of its block that suits its alignment.
constexpr std::size_t kProjectorBlockBytes = sizeof(IP_VOLRC_Projector) + alignof(IP_VOLRC_Projector);

void* projector_place(void* block) {
    constexpr std::uintptr_t mask = alignof(IP_VOLRC_Projector) - 1;
    return reinterpret_cast<void*>((reinterpret_cast<std::uintptr_t>(block) + mask) & ~mask);
}

}  // namespace

IP_VOLRC_VolumeRenderingRC::IP_VOLRC_VolumeRenderingRC(int /*reserved_a*/, int /*reserved_b*/) {
    affine::set_identity(m_Projection);
    affine::set_identity(m_2DTransform);
}

IP_VOLRC_VolumeRenderingRC::~IP_VOLRC_VolumeRenderingRC() {
    IP_VOLRC_Projector* const projector = Projector();
    if (projector == nullptr) {
        return;
    }
    projector->ClearProjectorResources();
    projector->~IP_VOLRC_Projector();
    MEM_MemPager::GetHandleForMP()->Free(m_ProjectorBlock);
}

// ---- The projector

IP_VOLRC_Projector* IP_VOLRC_VolumeRenderingRC::Projector() const {
    if (m_ProjectorBlock.Block() == -1) {
        return nullptr;
    }
    return static_cast<IP_VOLRC_Projector*>(projector_place(m_ProjectorBlock.Ptr()));
}

IP_VOLRC_Projector* IP_VOLRC_VolumeRenderingRC::CreateProjector(int pager_flags) {
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    if (pager->Allocate(static_cast<unsigned>(kProjectorBlockBytes), &m_ProjectorBlock, pager_flags) == -1) {
        m_ProjectorBlock = MEM_PagerInfo();
        return nullptr;
    }
    int no_size[2] = {0, 0};
    try {
        return new (projector_place(m_ProjectorBlock.Ptr())) IP_VOLRC_Projector(no_size);
    } catch (...) {
        pager->Free(m_ProjectorBlock);
        m_ProjectorBlock = MEM_PagerInfo();
        return nullptr;
    }
}

void IP_VOLRC_VolumeRenderingRC::SetVolumeData(IP_MultiVolData* volumes, bool is_signed) {
    IP_VOLRC_Projector* projector = Projector();
    if (projector == nullptr) {
        projector = CreateProjector(kFrameMemory);
    }
    if (projector == nullptr) {
        return;
    }
    int index = -1;
    projector->SetVolData(volumes == nullptr ? nullptr : volumes->GetBiggestVolData(index), is_signed);
}

void IP_VOLRC_VolumeRenderingRC::SetMaxLayerLoaded(int layer) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->SetMaxLayerLoaded(layer);
    } else {
        CreateProjector(0);
    }
}

void IP_VOLRC_VolumeRenderingRC::SetUpdatedSliceIndexList(std::list<int>* slices) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->SetUpdatedSliceIndexList(slices);
    } else {
        CreateProjector(0);
    }
}

// ---- View

void IP_VOLRC_VolumeRenderingRC::SetProjection(float m[4][4]) {
    affine::from_float(m, m_Projection);
    IP_VOLRC_Projector* const projector = Projector();
    if (projector == nullptr) {
        return;
    }
    double inverse[4][4];
    affine::invert(m_Projection, inverse);
    const double into_screen[3] = {0.0, 0.0, 1.0};
    double view[3];
    affine::transform_point(into_screen, inverse, view);
    affine::normalise(view);
    projector->SetViewVector(view);
    PassRasterToPhysical();
}

void IP_VOLRC_VolumeRenderingRC::Set2DTransform(float m[4][4]) {
    affine::from_float(m, m_2DTransform);
    if (Projector() != nullptr) {
        PassRasterToPhysical();
    }
}

void IP_VOLRC_VolumeRenderingRC::PassRasterToPhysical() {
    double physical_to_raster[4][4];
    double raster_to_physical[4][4];
    affine::multiply(m_Projection, m_2DTransform, physical_to_raster);
    affine::invert(physical_to_raster, raster_to_physical);
    Projector()->SetR2PMatrix(raster_to_physical);
}

void IP_VOLRC_VolumeRenderingRC::SetLightDirection(double d[3]) {
    IP_VOLRC_Projector* const projector = Projector();
    if (projector == nullptr) {
        return;
    }
    double inverse[4][4];
    affine::invert(m_Projection, inverse);
    double light[3];
    affine::transform_point(d, inverse, light);
    affine::normalise(light);
    projector->SetLightVector(light);
}

void IP_VOLRC_VolumeRenderingRC::SetLightingMode(LightingMode mode) {
    const bool shaded = mode == LIGHTING_ON;
    const double* const chosen = shaded ? kShadedWeights : kUnshadedWeights;
    double weights[3] = {chosen[0], chosen[1], chosen[2]};
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->UpdateShadingWeights(shaded, weights);
    }
}

void IP_VOLRC_VolumeRenderingRC::SetClippingPlanes(IP_ClipManager* planes) {
    IP_VOLRC_Projector* const projector = Projector();
    if (projector == nullptr) {
        return;
    }
    // A set of its own until all planes are there.
    IP_ClipManager copies;
    const int num_planes = planes == nullptr ? 0 : planes->GetNPlanes();
    if (planes != nullptr) {
        planes->ResetIterator();
    }
    int id = kFirstUserPlane;
    for (int i = 0; i < num_planes; i++) {
        const IP_ClippingPlane* const plane = planes->GetNextPlane();
        if (plane == nullptr) {
            continue;
        }
        IP_ClippingPlane* const copy = copies.NewClipPlane(id);
        *copy = *plane;
        copy->SetID(id);
        copy->SetActive(plane->IsActive());
        id++;
    }
    *projector->GetUserClipManager() = copies;
    projector->InvalidateOcclusions();
}

// ---- Frame

bool IP_VOLRC_VolumeRenderingRC::Render(unsigned int* buffer, int width, int height) {
    IP_VOLRC_Projector* const projector = Projector();
    if (projector == nullptr || buffer == nullptr) {
        return false;
    }
    const int dims[2] = {width, height};
    projector->SetDims(dims);
    projector->SetProjectZBuf(false);
    projector->SetParallelize(true);
    projector->SetFastGrads(false);
    if (!projector->Project()) {
        return false;
    }
    projector->BlendOutput(buffer);
    return true;
}

// QUIRK(adjust-in-final-mode): a reader expects the ratio to count for the next interactive frame; in final mode it is
// dropped. Kept: callers rely on it.
void IP_VOLRC_VolumeRenderingRC::AdjustRenderingTime(double ratio) {
    IP_VOLRC_Projector* const projector = Projector();
    if (projector != nullptr && projector->GetRenderMode() == RC_RENDERING_INTERACTIVE) {
        projector->AdjustRenderingTime(ratio);
    }
}

// ---- Plain forwarding

void IP_VOLRC_VolumeRenderingRC::SetVolumeTissues(IP_MultiVolData* tissues) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        int index = -1;
        projector->SetVolumeTissues(tissues == nullptr ? nullptr : tissues->GetBiggestVolData(index));
    }
}

void IP_VOLRC_VolumeRenderingRC::SetColorTables(const unsigned int** colour, const unsigned long long** opacity,
                                                int count, bool reserved) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->SetColorTable(colour, opacity, count, reserved);
    }
}

void IP_VOLRC_VolumeRenderingRC::SetRenderMode(RenderMode mode) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->SetRenderMode(mode == RENDER_MODE_INTERACTIVE ? RC_RENDERING_INTERACTIVE : RC_RENDERING_FINAL);
    }
}

void IP_VOLRC_VolumeRenderingRC::SetVolrQuality(RenderQuality quality) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->SetVolrQuality(quality == RENDER_QUALITY_ENHANCED ? RC_QUALITY_ENHANCED : RC_QUALITY_STANDARD);
    }
}

void IP_VOLRC_VolumeRenderingRC::SetInteractiveQuality(IntercativeQuality level) {
    IP_VOLRC_Projector* const projector = Projector();
    if (projector != nullptr && level >= INTERACTIVE_QUALITY_0 && level <= INTERACTIVE_QUALITY_2) {
        projector->SetInteractiveQuality(static_cast<RC_INTERACTIVE_RENDERING_QUALITY>(level));
    }
}

bool IP_VOLRC_VolumeRenderingRC::IsVisible(IP_3Coord point, float tolerance) {
    IP_VOLRC_Projector* const projector = Projector();
    return projector != nullptr && projector->IsVisible(point, tolerance);
}

bool IP_VOLRC_VolumeRenderingRC::IsCacheValid() {
    const IP_VOLRC_Projector* const projector = Projector();
    return projector != nullptr && projector->IsValid();
}

void IP_VOLRC_VolumeRenderingRC::BoxUpdated() {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->BoxUpdated();
    }
}

void IP_VOLRC_VolumeRenderingRC::GetViewVector(double v[3]) {
    if (const IP_VOLRC_Projector* const projector = Projector()) {
        projector->GetViewVector(v);
    }
}

void IP_VOLRC_VolumeRenderingRC::GetInformationString(char* text) {
    if (const IP_VOLRC_Projector* const projector = Projector()) {
        projector->GetInformationString(text);
    }
}

int IP_VOLRC_VolumeRenderingRC::LastRenderTime() {
    const IP_VOLRC_Projector* const projector = Projector();
    return projector == nullptr ? 0 : affine::truncate_clamped(projector->GetRenderingtime(), 0, 0x7fffffff);
}

int IP_VOLRC_VolumeRenderingRC::LastFinalQualityTime() {
    const IP_VOLRC_Projector* const projector = Projector();
    return projector == nullptr ? 0 : affine::truncate_clamped(projector->GetSlowTime(), 0, 0x7fffffff);
}

int IP_VOLRC_VolumeRenderingRC::LastInteractiveQualityTime() {
    const IP_VOLRC_Projector* const projector = Projector();
    return projector == nullptr ? 0 : affine::truncate_clamped(projector->GetFastTime(), 0, 0x7fffffff);
}

// ---- Brick structures of the host

void IP_VOLRC_VolumeRenderingRC::AllocateEngineSpecificData(void*& data) {
    IP_VOLRC_Projector* const projector = Projector();
    data = projector == nullptr ? nullptr : projector->AllocateBrickStructure();
}

void IP_VOLRC_VolumeRenderingRC::SetEngineSpecificData(void* data) {
    if (IP_VOLRC_Projector* const projector = Projector()) {
        projector->SetBrickStructure(static_cast<IP_VOLRC_BrickStructure*>(data));
    }
}

void IP_VOLRC_VolumeRenderingRC::DeallocateEngineSpecificData(void* data) {
    IP_VOLRC_Projector::DeleteBrickStructure(static_cast<IP_VOLRC_BrickStructure*>(data));
}
