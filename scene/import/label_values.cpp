#include "scene/import/label_values.h"

#include <cmath>

#include "scene/import/import_context.h"
#include "scene/import/sixteen_bits.h"

namespace scene::import {

namespace {

// Far below the distance of two labels, far above what float32 rescaling of a label loses.
constexpr double kRoundingOfLabels = 1e-3;

}  // namespace

void MakeLabels(ImportedVolume& volume, const std::string& what) {
    const double slope = volume.rescale_slope, intercept = volume.rescale_intercept;
    std::int16_t* const voxels = volume.voxels.data();
    for (std::size_t i = 0; i < volume.voxels.size(); ++i) {
        const int stored = volume.is_signed ? voxels[i] : static_cast<std::uint16_t>(voxels[i]);
        const double value = stored * slope + intercept;
        const double label = std::nearbyint(value);
        if (std::abs(value - label) > kRoundingOfLabels || label < 0.0 || label > 65535.0) {
            Refuse(what, "no label map, it holds the value " + Text(value), "labels are whole numbers of 0 to 65535");
        }
        voxels[i] = static_cast<std::int16_t>(static_cast<std::uint16_t>(label));
    }
    SixteenBitCode code;
    FindRange(code, voxels, volume.voxels.size());
    SetCode(volume, code);
    volume.padding_value.reset();
    volume.window_centre.reset();
    volume.window_width.reset();
}

}  // namespace scene::import
