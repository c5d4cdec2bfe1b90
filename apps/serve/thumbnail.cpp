#include "apps/serve/thumbnail.h"

#include "scene/projection.h"

#include <algorithm>
#include <cmath>

namespace serve {

namespace {

constexpr int kMostVoxels = 256;  // along an axis

// The front, unless another side of the volume is much larger, as that of a few axial slices.
scene::StandardView BestFace(const scene::ImportedVolume& volume) {
    std::array<double, 3> extent_mm{};
    for (std::size_t patient = 0; patient < 3; ++patient) {
        for (std::size_t axis = 0; axis < 3; ++axis) {
            extent_mm[patient] += std::abs(volume.index_to_patient[patient * 4 + axis]) * volume.dims[axis];
        }
    }
    constexpr double kMuch = 2.5;
    const double front = kMuch * extent_mm[0] * extent_mm[2];
    const double side = extent_mm[1] * extent_mm[2];
    const double top = extent_mm[0] * extent_mm[1];
    if (front >= side && front >= top) {
        return scene::StandardView::kAnterior;
    }
    return side > top ? scene::StandardView::kLeft : scene::StandardView::kInferior;
}

}  // namespace

scene::ImportedVolume Thinned(const scene::ImportedVolume& volume) {
    scene::ImportedVolume thin = volume;
    std::array<std::size_t, 3> step{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        const int n = (volume.dims[axis] + kMostVoxels - 1) / kMostVoxels;
        step[axis] = static_cast<std::size_t>(n);
        thin.dims[axis] = (volume.dims[axis] + n - 1) / n;
        thin.spacing_mm[axis] *= n;
        for (std::size_t row = 0; row < 3; ++row) {
            thin.index_to_patient[row * 4 + axis] *= n;
        }
    }
    const auto columns = static_cast<std::size_t>(volume.dims[0]), rows = static_cast<std::size_t>(volume.dims[1]);
    const auto slices = static_cast<std::size_t>(volume.dims[2]);
    thin.voxels = scene::VoxelBuffer(static_cast<std::size_t>(thin.dims[0]) * static_cast<std::size_t>(thin.dims[1]) *
                                     static_cast<std::size_t>(thin.dims[2]));
    std::size_t out = 0;
    for (std::size_t k = 0; k < slices; k += step[2]) {
        for (std::size_t j = 0; j < rows; j += step[1]) {
            for (std::size_t i = 0; i < columns; i += step[0]) {
                thin.voxels[out++] = volume.voxels[(k * rows + j) * columns + i];
            }
        }
    }
    return thin;
}

std::string DrawThumbnail(scene::ImportedVolume&& volume) {
    scene::View view;
    view.face = BestFace(volume);
    view.width = view.height = kThumbnailEdge;
    view.zoom = 1.3;  // a ball around the volume leaves much room at the sides
    scene::VolumeSource source(std::move(volume));
    scene::Projection projection(source, true);
    projection.SetView(scene::MakeCamera(view, source.GetSubject()), view);
    const scene::ProjectedPicture picture = projection.Draw();
    return scene::EncodePng(scene::Windowed(picture, source, scene::DefaultWindow(source, picture)));
}

}  // namespace serve
