// From rays to the host's picture: conversion, enlargement, blending.
#include "ip_volr/IP_VOLRC_ListRay.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"
#include "ip_volr/kernels/raster.h"

#include <algorithm>
#include <utility>

namespace kernels = ip_volr::kernels;

namespace {

// Rows [first, last) of strip k when `height` rows are cut into strips of `rows`.
struct Strip {
    int first;
    int last;
};

Strip strip_of(int k, int rows, int height) {
    const long long first = std::min<long long>(static_cast<long long>(k) * rows, height);
    return {static_cast<int>(first), static_cast<int>(std::min<long long>(first + rows, height))};
}

std::size_t row_offset(int y, int width) {
    return static_cast<std::size_t>(y) * static_cast<std::size_t>(width);
}

std::uint32_t* pixels(int* raster) {
    return reinterpret_cast<std::uint32_t*>(raster);
}

}  // namespace

void IP_VOLRC_Projector::ConvertRaysToRaster() {
    RunOnAllServers(&IP_VOLRC_Projector::ConvertRaysToPartialRaster);
}

void IP_VOLRC_Projector::ConvertRaysToPartialRaster() {
    const Strip strip = strip_of(TCO_RunnableSelf().GetSubtaskIndex(), RowsPerStrip(), m_RenderHeight);
    for (int y = strip.first; y < strip.last; y++) {
        kernels::rays_to_pixels(RayRow(y), m_RenderWidth, m_TransparencyThreshold,
                                pixels(m_RenderRaster) + row_offset(y, m_RenderWidth));
    }
}

void IP_VOLRC_Projector::EnlargePicture() {
    const long long start_ticks = ip_volr::now_ticks();
    // QUIRK(fading-border): a reader expects border pixels to be continued; what lies beyond them counts as 0, so the
    // outermost half pixel fades to opaque black. Kept: callers rely on it. Reads just behind the last pixel find 0,
    // too.
    const std::size_t num_pixels = row_offset(m_RenderHeight, m_RenderWidth);
    const std::size_t capacity =
        row_offset(m_OutputHeight, m_OutputWidth) + 2 * static_cast<std::size_t>(m_OutputWidth);
    const std::size_t behind = std::min(static_cast<std::size_t>(m_RenderHeight) + 1, capacity - num_pixels);
    std::fill_n(m_RenderRaster + num_pixels, behind, 0);

    RunOnAllServers(&IP_VOLRC_Projector::ResizeImage);
    IP_VOLR_TRACE(ip_volr::kTraceInformation, IP_VOLRC_PROJECTOR_SOURCE, "IP_VOLRC_Projector::Project",
                  "Image resize: %lld\n", static_cast<long long>(ip_volr::milliseconds_since(start_ticks)));
    std::swap(m_RenderRaster, m_ClipRaster);
    std::swap(m_RenderRasterInfo, m_ClipRasterInfo);
}

void IP_VOLRC_Projector::ResizeImage() {
    const kernels::ResizeFrame frame = {pixels(m_RenderRaster), m_RenderWidth, m_RenderHeight,
                                        pixels(m_ClipRaster),   m_OutputWidth, m_OutputHeight};
    const long long k = TCO_RunnableSelf().GetSubtaskIndex();
    kernels::resize_rows(frame, static_cast<int>(k * m_OutputHeight / m_TaskCount),
                         static_cast<int>((k + 1) * m_OutputHeight / m_TaskCount));
}

void IP_VOLRC_Projector::BlendOutput(unsigned int* out) {
    if (out == nullptr || !m_Valid[kPictureValid] || !MapRasters()) {
        return;
    }
    m_Output = out;
    RunOnAllServers(&IP_VOLRC_Projector::BlendOuptutInParallel);
    m_Output = nullptr;
    if (IsFinal()) {
        UnmapRasters();
    }
}

void IP_VOLRC_Projector::BlendOuptutInParallel() {
    const int rows = (m_OutputHeight - 1) / m_TaskCount + 1;
    const Strip strip = strip_of(TCO_RunnableSelf().GetSubtaskIndex(), rows, m_OutputHeight);
    for (int y = strip.first; y < strip.last; y++) {
        const std::size_t row = row_offset(y, m_OutputWidth);
        kernels::blend_row(pixels(m_RenderRaster) + row, m_OutputWidth, m_Output + row);
    }
}
