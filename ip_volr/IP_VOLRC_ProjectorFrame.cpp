// One frame of the ray-casting projector, from pending changes to the finished raster.
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cmath>
#include <list>
#include <new>
#include <utility>

namespace affine = ip_volr::affine;

namespace {

constexpr const char* kFunction = "IP_VOLRC_Projector::Project";
// Fewer voxels along an axis of the padded volume leave no room for the stencils.
constexpr int kFewestVoxels = 5;
constexpr int kSpinCaller = 10;
constexpr int kSpinWorkers = 100;

// Distance between render pixels in output pixels.
// QUIRK(reduced-frame-shift): a reader expects reduced frames to lie on the full ones; rays are aligned at the corner
// pixels, the enlargement at pixel areas, so edges shift by up to a pixel or two. Kept: callers rely on it.
double render_scale(int output, int render) {
    return output > 1 && render > 1 ? (output - 1.0) / (render - 1.0) : 1.0;
}

}  // namespace

bool IP_VOLRC_Projector::Project() {
    IP_VOLR_TRACE(ip_volr::kTraceDetail, IP_VOLRC_PROJECTOR_SOURCE, kFunction,
                  "R2P Matrix: %f, %f, %f, %f\n\t%f, %f, %f, %f\n\t%f, %f, %f, %f\n\t%f, %f, %f, %f\n", m_R2P[0][0],
                  m_R2P[0][1], m_R2P[0][2], m_R2P[0][3], m_R2P[1][0], m_R2P[1][1], m_R2P[1][2], m_R2P[1][3],
                  m_R2P[2][0], m_R2P[2][1], m_R2P[2][2], m_R2P[2][3], m_R2P[3][0], m_R2P[3][1], m_R2P[3][2],
                  m_R2P[3][3]);
    IP_VOLR_TRACE(ip_volr::kTraceDetail, IP_VOLRC_PROJECTOR_SOURCE, kFunction, "View Vector: %f, %f, %f\n",
                  m_ViewVector[0], m_ViewVector[1], m_ViewVector[2]);
    TCO_CompoundTaskManager::SetSpinWaitPolicy(kSpinCaller, kSpinWorkers);
    m_TaskCount = m_Parallelize ? std::max(1, TCO_CompoundTaskManager::GetNumberOfServers()) : 1;
    try {
        const bool drawn = ProjectFrame();
        if (!drawn) {
            AbandonFrame();
        }
        return drawn;
    } catch (const TCO_CANCEL_EXCEPTION&) {
        AbandonFrame();
        throw;
    } catch (...) {
        AbandonFrame();
        return false;
    }
}

bool IP_VOLRC_Projector::ProjectFrame() {
    // The host's list is read now and forgotten; what it says is kept until a frame has digested it.
    if (const std::list<int>* const updated = std::exchange(m_UpdatedSlices, nullptr)) {
        try {
            m_PendingSlices.insert(m_PendingSlices.end(), updated->begin(), updated->end());
        } catch (const std::bad_alloc&) {
            m_RebuildRequested = true;  // which slices they were is lost
            throw;
        }
    }
    TakeRefusedVolumes();
    if (m_RayPages == nullptr || !m_RastersAllocated || m_PaddedVolume == nullptr) {
        return false;
    }
    int dims[3];
    m_Box.GetDims(dims);
    if (*std::min_element(dims, dims + 3) < kFewestVoxels) {
        return false;
    }
    if (!EnsureBrickStructure()) {
        return false;
    }
    if (m_Cast == nullptr || m_Cast.use_count() > 1) {
        m_Cast = std::make_shared<IP_VOLRC_RayCastScratch>();
    }
    ApplyParameterSet(IsFinal() ? m_Final : m_Interactive);
    ScaleR2PToRenderSize();
    const long long start_ticks = ip_volr::now_ticks();

    // Volume, slices, tissues and tables.
    const bool rebuild = m_Pending[kVolumeChanged] || m_RebuildRequested || !m_BricksInitialised;
    if (rebuild && !RebuildForVolume()) {
        return false;
    }
    if (!MapBrickStructure() || !MapRasters() || !ApplyPendingChanges(rebuild)) {
        return false;
    }
    IP_VOLR_TRACE(ip_volr::kTraceInformation, IP_VOLRC_PROJECTOR_SOURCE, kFunction, "Preprocessing: %lld\n",
                  static_cast<long long>(ip_volr::milliseconds_since(start_ticks)));

    // The picture.
    CalcZVisBuffer(PROJECTION_SIDE_NEAR);
    CalcZVisBuffer(PROJECTION_SIDE_FAR);
    ClipRasters();
    if (m_ProjectZBuffer) {
        DrawDepthImage();
    } else if (!CastFrame()) {
        return false;
    }
    if (!(IsFinal() && m_VolrQuality == RC_QUALITY_ENHANCED)) {
        EnlargePicture();
    }
    FinishFrame(start_ticks);
    return true;
}

void IP_VOLRC_Projector::ApplyParameterSet(const IP_VOLRC_RenderParameters& parameters) {
    SetStepSize(parameters.step_size);
    m_TransparencyThreshold = parameters.transparency_threshold;
    m_RenderWidth = std::clamp(parameters.render_width, 1, m_OutputWidth);
    m_RenderHeight = std::clamp(parameters.render_height, 1, m_OutputHeight);
    m_FastGradients = parameters.fast_gradients;
    m_OpacityGradientThreshold = parameters.opacity_gradient_threshold;
    if (m_BrickStructure->GetLuminosityThreshold() != parameters.gradient_level) {
        m_BrickStructure->SetLuminosityThreshold(parameters.gradient_level);
        m_Pending[kColorTablesChanged] = true;
    }
}

void IP_VOLRC_Projector::ScaleR2PToRenderSize() {
    const double scale_x = render_scale(m_OutputWidth, m_RenderWidth);
    const double scale_y = render_scale(m_OutputHeight, m_RenderHeight);
    affine::copy(m_R2P, m_FrameR2P);
    for (int j = 0; j < 3; j++) {
        m_FrameR2P[0][j] *= scale_x;
        m_FrameR2P[1][j] *= scale_y;
    }
    double depth_vox[3];
    affine::transform_direction(m_FrameR2P[2], m_PhysicalToIndex, depth_vox);
    m_IndexPerDepth = affine::length(depth_vox);
}

bool IP_VOLRC_Projector::RebuildForVolume() {
    m_RebuildRequested = true;  // until all is there
    if (!InitBrickStructure()) {
        return false;
    }
    ClearRenderingResources();
    if (!InitClipManager()) {
        return false;
    }
    // New bricks know neither tables nor tissues.
    m_Pending[kColorTablesChanged] = true;
    m_Pending[kTissuesChanged] = m_Pending[kTissuesChanged] || m_PaddedTissues != nullptr;
    m_Pending[kVolumeChanged] = false;
    m_RebuildRequested = false;
    m_PendingSlices.clear();
    m_Valid[kVolumeValid] = true;
    return true;
}

bool IP_VOLRC_Projector::ApplyPendingChanges(bool just_rebuilt) {
    // QUIRK(slices-of-first-frame): a reader expects slices named for a volume's first frame to be taken in; a new
    // structure knows the whole volume, or nothing while the maximum loaded layer is 0. Kept: callers rely on it.
    if (!just_rebuilt && !m_PendingSlices.empty() && !ApplyNewSlices()) {
        return false;
    }
    m_PendingSlices.clear();
    m_Valid[kMinMaxValid] = true;
    if (m_Pending[kTissuesChanged]) {
        if (!m_BrickStructure->UpdateTissue(TissuesFitVolume() ? m_PaddedTissues : nullptr)) {
            return false;
        }
        ClearRenderingResources();
        m_Pending[kTissuesChanged] = false;
        m_Pending[kColorTablesChanged] = true;
    }
    if (m_Pending[kColorTablesChanged]) {
        SetBrickColorTables();
        InvalidateOcclusions();
        m_Pending[kColorTablesChanged] = false;
    }
    m_Valid[kLuminosityValid] = true;
    m_Valid[kTablesValid] = true;
    return true;
}

bool IP_VOLRC_Projector::ApplyNewSlices() {
    m_BrickStructure->PrepareUpdatedBricksVector(&m_PendingSlices);
    if (!m_BrickStructure->RecalculateMinMaxForNewSlices()) {
        return false;
    }
    m_BrickStructure->EvaluateLuminosities();
    m_Cast->empty_space_stale = true;
    InvalidateOcclusions();
    return true;
}

bool IP_VOLRC_Projector::CastFrame() {
    if (!AllocateRenderingResources()) {
        return false;
    }
    PrepareRayCasting();
    ResetListHeaders();
    AttachRays();
    DoRayCasting();
    return true;
}

void IP_VOLRC_Projector::FinishFrame(long long start_ticks) {
    const double elapsed_ms = ip_volr::milliseconds_since(start_ticks);
    if (IsFinal()) {
        ClearRenderingResources();
        UnmapBrickStructure();
        m_LastFinalTime = elapsed_ms;
    } else {
        m_LastInteractiveTime = elapsed_ms;
    }
    IP_VOLR_TRACE(ip_volr::kTraceInformation, IP_VOLRC_PROJECTOR_SOURCE, kFunction, "volume rendering end: %lld\n",
                  static_cast<long long>(elapsed_ms));
    m_Pending[kParametersChanged] = false;
    m_Valid.fill(true);
    m_Valid[kRaysValid] = !m_ProjectZBuffer;  // a depth image casts none
}

// After a failure or a cancellation: nothing stays mapped, and the next frame starts from the pending changes.
void IP_VOLRC_Projector::AbandonFrame() {
    UnmapBricks();
    ClearRenderingResources();
    UnmapBrickStructure();
    UnmapRasters();
    m_ListsDirty = true;
    m_Pending[kParametersChanged] = true;
    m_Valid[kRaysValid] = false;
    m_Valid[kPictureValid] = false;
}
