// Construction, plain settings and state of the ray-casting projector.
#include "ip_volr/IP_VOLRC_Projector.h"

#include "ip_volr/IP_PortableMath.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace affine = ip_volr::affine;

namespace {

constexpr double kDefaultShadingWeights[3] = {0.45, 0.45, 0.09};
// Weights that differ by less are the same.
constexpr double kShadingWeightTolerance = 0.01;
constexpr unsigned short kDefaultOpacityGradientThreshold = 8192;

// Stands for colour tables that the host has not given: everything is transparent. Room on both sides of value 0.
const unsigned int kTransparentTable[2 * IP_VOLRC_Projector::kTableEntries] = {};
const unsigned int* transparent_table() {
    return kTransparentTable + IP_VOLRC_Projector::kTableEntries;
}

}  // namespace

unsigned short IP_VOLRC_Projector::s_DefaultTransparencyThreshold = 3276;
bool IP_VOLRC_Projector::s_DepthFromFront = true;

IP_VOLRC_Projector::IP_VOLRC_Projector() {
    affine::set_identity(m_R2P);
    affine::set_identity(m_FrameR2P);
    affine::set_identity(m_PhysicalToIndex);
    affine::set_identity(m_IndexToPhysical);
    std::memset(m_StepTransparencies, 0, sizeof(m_StepTransparencies));
    std::memset(m_ColorTables, 0, sizeof(m_ColorTables));
    std::memset(m_LuminosityTables, 0, sizeof(m_LuminosityTables));
    std::memset(m_LuminosityPrefix, 0, sizeof(m_LuminosityPrefix));
    std::fill(std::begin(m_ColorPointers), std::end(m_ColorPointers), transparent_table());
}

IP_VOLRC_Projector::IP_VOLRC_Projector(int dims[2]) : IP_VOLRC_Projector() {
    m_RenderWidth = m_OutputWidth = dims[0];
    m_RenderHeight = m_OutputHeight = dims[1];
    m_UserClipManager = new IP_ClipManager();
    std::copy(std::begin(kDefaultShadingWeights), std::end(kDefaultShadingWeights), m_ShadingWeights);
    m_TransparencyThreshold = s_DefaultTransparencyThreshold;
    m_OpacityGradientThreshold = kDefaultOpacityGradientThreshold;
    m_Pending.fill(true);
    SetDefaultParams();
}

IP_VOLRC_Projector::IP_VOLRC_Projector(const IP_VOLRC_Projector&) = default;
IP_VOLRC_Projector& IP_VOLRC_Projector::operator=(const IP_VOLRC_Projector&) = default;
IP_VOLRC_Projector::~IP_VOLRC_Projector() = default;

// ---- View

void IP_VOLRC_Projector::SetLightVector(const double v[3]) {
    std::copy(v, v + 3, m_LightVector);
    affine::transform_direction(v, m_PhysicalToIndex, m_LightIndex);
    affine::normalise(m_LightIndex);
    m_Valid[kViewValid] = false;
}

void IP_VOLRC_Projector::SetViewVector(const double v[3]) {
    const double view[3] = {v[0], v[1], v[2]};
    std::copy(view, view + 3, m_ViewVector);
    affine::transform_direction(view, m_PhysicalToIndex, m_ViewIndex);
    affine::normalise(m_ViewIndex);
    // The step's length in mm depends on the direction: it is worked out anew.
    m_StepLength = 0.0;
    m_Valid[kViewValid] = false;
}

void IP_VOLRC_Projector::SetR2PMatrix(const double m[4][4]) {
    affine::copy(m, m_R2P);
    m_Pending[kParametersChanged] = true;
    m_Valid[kViewValid] = false;
}

void IP_VOLRC_Projector::GetR2PMatrix(double m[4][4]) const {
    affine::copy(m_R2P, m);
}

void IP_VOLRC_Projector::GetViewVector(double v[3]) const {
    std::copy(m_ViewVector, m_ViewVector + 3, v);
}

void IP_VOLRC_Projector::SetPan(const int pan[2]) {
    std::copy(pan, pan + 2, m_Pan);
}

void IP_VOLRC_Projector::SetDims(const int dims[2]) {
    if (dims[0] != m_OutputWidth || dims[1] != m_OutputHeight) {
        m_OutputWidth = dims[0];
        m_OutputHeight = dims[1];
        SetDefaultParams();
        InitRayPool();
        return;
    }
    // What could not be had for this size is asked for again.
    if (!m_RastersAllocated) {
        AllocateRasters();
    }
    if (m_RayPages == nullptr) {
        InitRayPool();
    }
}

// ---- Tables and lighting

// QUIRK(color-table-flag): a reader expects the flag to mean something; it is ignored. Kept: callers rely on it.
void IP_VOLRC_Projector::SetColorTable(const unsigned int** colour, const unsigned long long** opacity, int count,
                                       bool /*reserved*/) {
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        const unsigned int* const table = colour == nullptr ? nullptr : colour[tissue];
        m_ColorPointers[tissue] = table == nullptr ? transparent_table() : table;
        m_OpacityPointers[tissue] = opacity == nullptr ? nullptr : opacity[tissue];
    }
    m_TableBits = std::clamp(count, 1, 16);
    m_Pending[kColorTablesChanged] = true;
}

void IP_VOLRC_Projector::UpdateLuminosity(int protocol) {
    if (m_BrickStructure == nullptr || !m_BricksInitialised || !MapBrickStructure()) {
        return;
    }
    m_BrickStructure->UpdateLuminosity(protocol, false);
    if (m_Cast != nullptr) {
        m_Cast->empty_space_stale = true;
        m_Cast->entries_stale = true;
    }
    InvalidateOcclusions();
}

void IP_VOLRC_Projector::UpdateShadingWeights(bool on, double weights[3]) {
    bool changed = false;
    for (int i = 0; i < 3; i++) {
        changed = changed || !(std::abs(weights[i] - m_ShadingWeights[i]) <= kShadingWeightTolerance);
        m_ShadingWeights[i] = weights[i];
    }
    if (changed) {
        // The luminosity of interactive frames is weighted with them, too.
        m_Pending[kColorTablesChanged] = true;
    }
    if (changed || on != m_ShadingOn) {
        m_Valid[kTablesValid] = false;
    }
    m_ShadingOn = on;
    RecalculateTransparencies();
}

void IP_VOLRC_Projector::SetStepSize(double step) {
    if (!std::isfinite(step)) {
        return;
    }
    if (m_StepLength == 0.0 || step != m_StepSize) {
        // The length in mm of one step along the view, with the sign of the step.
        const double step_vox[3] = {m_ViewIndex[0] * step, m_ViewIndex[1] * step, m_ViewIndex[2] * step};
        double step_mm[3];
        affine::transform_direction(step_vox, m_IndexToPhysical, step_mm);
        const double len_mm = affine::length(step_mm);
        m_StepLength = step > 0.0 ? len_mm : -len_mm;
        m_StepSize = step;
    }
    RecalculateTransparencies();
}

void IP_VOLRC_Projector::RecalculateTransparencies() {
    for (int k = 0; k < 256; k++) {
        const double transparency = kTableEntries - 1.0;
        const double value = transparency * ip_volr::portable_power(1.0 - k / 255.0, m_StepLength);
        const auto entry = static_cast<unsigned>(affine::truncate_clamped(value, 0, kTableEntries - 1));
        std::fill(std::begin(m_StepTransparencies[k]), std::end(m_StepTransparencies[k]), entry);
    }
}

// ---- State

bool IP_VOLRC_Projector::IsValid() const {
    const auto set = [](bool flag) { return flag; };
    return std::all_of(m_Valid.begin(), m_Valid.end(), set) && std::none_of(m_Pending.begin(), m_Pending.end(), set);
}

void IP_VOLRC_Projector::InvalidateOcclusions() {
    m_Valid[kOcclusionsValid] = false;
}

void IP_VOLRC_Projector::RunOnAllServers(RunMethod method) {
    TCO_CompoundRunnable<IP_VOLRC_Projector> runnable(this, method);
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, m_TaskCount, false);
}
