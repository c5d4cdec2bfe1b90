// Ready-made transfer functions.
#pragma once

#include "scene/transfer_function.h"

#include <string_view>
#include <vector>

namespace scene {

const std::vector<TransferFunction>& Presets();

// Null when there is none of the name.
const TransferFunction* FindPreset(std::string_view name);

// What suits a volume when the user names nothing: by modality ("CT", "MR", ...) and, without one, by its range.
std::string_view DefaultPreset(std::string_view modality, double lowest_value);

}  // namespace scene
