// Parameter sets of the ray-casting projector and adaptive quality.
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cmath>
#include <cstdio>

namespace affine = ip_volr::affine;

namespace {

constexpr unsigned short kFineGradientThreshold = 8192;
constexpr unsigned short kCoarseGradientThreshold = 16384;
constexpr int kCoarseGradientLevel = 16;
constexpr double kFinestStep = 0.3;
constexpr double kCoarsestStep = 1.0;

unsigned short scaled_threshold(double factor) {
    const double value = factor * IP_VOLRC_Projector::s_DefaultTransparencyThreshold;
    return static_cast<unsigned short>(affine::truncate_clamped(value, 0, 65535));
}

// Truncates a size in pixels; what is not a number becomes the greatest size.
int truncate_size(double size, int greatest) {
    return std::isnan(size) ? greatest : affine::truncate_clamped(size, 0, greatest);
}

// QUIRK(magnified-quarter): a reader expects a magnified volume to be drawn with every ray; standard quality draws it
// at down to a quarter of the size and enlarges it. Kept: callers rely on it.
// Sizes along one axis of standard-quality frames by magnification (raster pixels per voxel).
struct StandardSizes {
    int final_size;
    int interactive_minimum;
    double threshold_factor;  // interactive transparency threshold in multiples of the default
};

StandardSizes standard_sizes(double scale, int output) {
    // Zoomed out: full size.
    if (!(scale >= 0.5)) {
        return {output, output / 3, 2.0};
    }
    if (scale < 1.0) {
        const double e = scale - 0.5;
        const int size = truncate_size(output - e * output, output);
        return {size, truncate_size(size / (2.0 * e + 3.0), size), 4.0 * e + 2.0};
    }
    // Magnified: fewer rays, which are enlarged.
    if (scale < 5.0) {
        const double e = (scale - 1.0) * 0.0625;
        const int size = truncate_size(output / 2 - output * e, output);
        return {size, truncate_size(size * e + size / 4, size), 4.0};
    }
    return {output / 4, (output / 4) / 2, 4.0};
}

}  // namespace

const IP_VOLRC_RenderParameters& IP_VOLRC_Projector::GetParameters(RC_RENDERING_MODE mode) const {
    return mode == RC_RENDERING_FINAL ? m_Final : m_Interactive;
}

void IP_VOLRC_Projector::SetDefaultParams() {
    m_Final.fast_gradients = false;
    m_Final.opacity_gradient_threshold = kFineGradientThreshold;
    m_Final.opacity_luminosity = true;
    m_Final.gradient_level = 0;
    m_Final.transparency_threshold = s_DefaultTransparencyThreshold;
    if (m_VolrQuality == RC_QUALITY_ENHANCED) {
        m_Interactive.step_size = 0.8;
        m_Final.step_size = kFinestStep;
        m_StepSize = kFinestStep;
        m_Final.render_width = m_OutputWidth;
        m_Final.render_height = m_OutputHeight;
        m_Interactive.render_width = m_OutputWidth / 2;
        m_Interactive.render_height = m_OutputHeight / 2;
        m_Interactive.transparency_threshold = s_DefaultTransparencyThreshold;
        SetInteractiveQualityParams();
    } else {
        m_Final.step_size = 0.5;
        m_Final.render_width = m_OutputWidth / 2;
        m_Final.render_height = m_OutputHeight / 2;
        m_Interactive.step_size = kCoarsestStep;
        m_Interactive.opacity_gradient_threshold = kCoarseGradientThreshold;
        m_Interactive.opacity_luminosity = false;
        m_Interactive.gradient_level = kCoarseGradientLevel;
        m_Interactive.fast_gradients = true;
        m_Interactive.render_width = m_OutputWidth / 4;
        m_Interactive.render_height = m_OutputHeight / 4;
        m_Interactive.transparency_threshold = scaled_threshold(4.0);
        m_StepSize = kCoarsestStep;
        UpdateNonEnhancedParams();
    }
    m_StepLength = 0.0;
    RecalculateTransparencies();
    AllocateRasters();
}

void IP_VOLRC_Projector::SetInteractiveQualityParams() {
    const bool coarse = m_InteractiveQuality != RC_INTERACTIVE_LEVEL_0;
    constexpr double kThresholdFactors[3] = {1.0, 2.0, 4.0};
    m_Interactive.transparency_threshold = scaled_threshold(kThresholdFactors[m_InteractiveQuality]);
    m_Interactive.opacity_gradient_threshold = coarse ? kCoarseGradientThreshold : kFineGradientThreshold;
    m_Interactive.fast_gradients = coarse;
    m_Interactive.opacity_luminosity = !coarse;
    m_Interactive.gradient_level = coarse ? kCoarseGradientLevel : 0;
}

// ---- Modes

void IP_VOLRC_Projector::SetRenderMode(RC_RENDERING_MODE mode) {
    if (mode == m_RenderMode) {
        return;
    }
    m_RenderMode = mode;
    SetStepSize(GetParameters(mode).step_size);
    // The render size is taken over by the next frame: until then questions about visibility concern the last one.
    m_Pending[kParametersChanged] = true;
}

void IP_VOLRC_Projector::SetVolrQuality(RC_VOLR_QUALITY quality) {
    if (quality == m_VolrQuality) {
        return;
    }
    m_VolrQuality = quality;
    m_Pending[kParametersChanged] = true;
    SetDefaultParams();
}

void IP_VOLRC_Projector::SetInteractiveQuality(RC_INTERACTIVE_RENDERING_QUALITY level) {
    // QUIRK(standard-interactive-level): a reader expects the level to count with every quality; with standard quality
    // the call is ignored. Kept: callers rely on it.
    if (m_VolrQuality != RC_QUALITY_ENHANCED || level < RC_INTERACTIVE_LEVEL_0 || level > RC_INTERACTIVE_LEVEL_2) {
        return;
    }
    m_InteractiveQuality = level;
    SetInteractiveQualityParams();
    m_Pending[kParametersChanged] = true;
}

// ---- Standard quality: sizes by magnification

bool IP_VOLRC_Projector::VolumePixelsPerVoxel(double scale[2]) const {
    int dims[3];
    m_Box.GetDims(dims);
    const double nx = dims[0];
    const double ny = dims[1];
    const double nz = dims[2];
    const double diagonal_vox = std::sqrt(nx * nx + ny * ny + nz * nz);
    if (!(diagonal_vox > 0.0)) {
        return false;
    }

    // Raster extent of a corner of the box and its three neighbours.
    double physical_to_raster[4][4];
    affine::invert(m_R2P, physical_to_raster);
    float vecs[3][3];
    m_Box.GetVecs(vecs);
    double lowest[2] = {0.0, 0.0};
    double highest[2] = {0.0, 0.0};
    for (const auto& vec : vecs) {
        const double edge_mm[3] = {vec[0], vec[1], vec[2]};
        double edge[3];
        affine::transform_direction(edge_mm, physical_to_raster, edge);
        for (int i = 0; i < 2; i++) {
            lowest[i] = std::min(lowest[i], edge[i]);
            highest[i] = std::max(highest[i], edge[i]);
        }
    }
    for (int i = 0; i < 2; i++) {
        scale[i] = (highest[i] - lowest[i]) / diagonal_vox;
    }
    return true;
}

void IP_VOLRC_Projector::UpdateNonEnhancedParams() {
    double scale[2];
    if (!VolumePixelsPerVoxel(scale)) {
        return;
    }
    const StandardSizes x = standard_sizes(scale[0], m_OutputWidth);
    const StandardSizes y = standard_sizes(scale[1], m_OutputHeight);
    m_Final.render_width = x.final_size;
    m_Final.render_height = y.final_size;
    m_Interactive.minimum_width = x.interactive_minimum;
    m_Interactive.minimum_height = y.interactive_minimum;
    m_Interactive.transparency_threshold = scaled_threshold(x.threshold_factor);
    m_Final.step_size = 0.5;
    m_Interactive.fast_gradients = true;
    m_Final.fast_gradients = false;
    m_Final.transparency_threshold = s_DefaultTransparencyThreshold;
}

// ---- Adaptive quality

void IP_VOLRC_Projector::AdjustRenderingTime(double ratio) {
    if (std::isnan(ratio)) {
        return;
    }
    if (m_VolrQuality == RC_QUALITY_ENHANCED) {
        const int divisor = 2 + static_cast<int>(m_InteractiveQuality);
        m_Interactive.minimum_width = m_Final.render_width / divisor;
        m_Interactive.minimum_height = m_Final.render_height / divisor;
        SetInteractiveQualityParams();
    } else {
        UpdateNonEnhancedParams();
    }
    AdjustInteractiveSize(std::max(ratio, 0.0));

    // Rows of whole groups of four pixels; the height follows the aspect.
    int& width = m_Interactive.render_width;
    int& height = m_Interactive.render_height;
    const int width_before = width;
    width -= width % 4;
    if (width_before > 0) {
        height = truncate_size(static_cast<double>(height) / width_before * width, height);
    }
    IP_VOLR_TRACE(ip_volr::kTraceInformation, IP_VOLRC_PROJECTOR_SOURCE, "IP_VOLRC_Projector::AdjustRenderingTime",
                  "Adjusting params: %d/%d, %d/%d\n", width, m_OutputWidth, height, m_OutputHeight);
}

// The coarser step first; fewer rays only once the step has reached its coarsest.
void IP_VOLRC_Projector::AdjustInteractiveSize(double ratio) {
    IP_VOLRC_RenderParameters& set = m_Interactive;
    const int greatest_width = m_Final.render_width;
    const int greatest_height = m_Final.render_height;
    const auto scale_size = [&](double factor) {
        const double root = std::sqrt(factor);
        set.render_width = std::max(set.minimum_width, truncate_size(set.render_width / root, greatest_width));
        set.render_height = std::max(set.minimum_height, truncate_size(set.render_height / root, greatest_height));
    };

    if (ratio > 1.0) {
        if (set.render_width < set.minimum_width || set.render_height < set.minimum_height) {
            set.render_width = std::max(std::min(set.render_width, greatest_width), set.minimum_width);
            set.render_height = std::max(std::min(set.render_height, greatest_height), set.minimum_height);
            return;
        }
        const double old_step = set.step_size;
        set.step_size = std::min(kCoarsestStep, old_step * ratio);
        const bool can_shrink = set.render_width > set.minimum_width || set.render_height > set.minimum_height;
        if (m_StepSize >= kCoarsestStep && can_shrink) {
            scale_size(ratio / (set.step_size / old_step));
        }
        return;
    }
    if (set.render_width >= greatest_width && set.render_height >= greatest_height) {
        set.step_size = std::clamp(ratio * set.step_size, kFinestStep, kCoarsestStep);
        return;
    }
    scale_size(ratio);
}

void IP_VOLRC_Projector::GetInformationString(char* text) const {
    constexpr std::size_t kRoom = 256;
    std::snprintf(text, kRoom, "Last fast rate: %2.1f\nLast slow rate: %2.1f\nFast Resolution: %d/%d, %d/%d",
                  1000.0 / m_LastInteractiveTime, 1000.0 / m_LastFinalTime, m_Interactive.render_width,
                  m_Final.render_width, m_Interactive.render_height, m_Final.render_height);
}
