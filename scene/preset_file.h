// Preset files that users own, in the forms that they come in.
#pragma once

#include "scene/transfer_function.h"

#include <string>
#include <string_view>

namespace scene {

// Reads a transfer function from the content of a file, told apart by what it holds:
//
//   our JSON form                (see TransferFromJson)
//   colour map, JSON             an object or a list of them, the first counts: "RGBPoints" v r g b ..., "Points" v
//   opacity
//                                midpoint sharpness ...; without "Points" opacity rises from 0 to 1 over the range
//   volume property, XML         first element with the attributes scalarOpacity and colorTransfer, each "COUNT
//   numbers...";
//                                ambient, diffuse, specular, shade
//   volume property, text (.vp)  a line each: interpolation, shade, diffuse, ambient, specular, specular power, scalar
//                                opacity, gradient opacity, colour
//
// Opacities of the last three hold for 1 mm, like ours. Opacity by gradient, midpoints and sharpness are not taken
// over. `subject` names the file in errors. Throws Error of the input kind, which says what is wrong.
TransferFunction TransferFromFile(std::string_view content, const std::string& subject);

}  // namespace scene
