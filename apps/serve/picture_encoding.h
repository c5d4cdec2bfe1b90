// Pictures as image files for the page: small and quick while they move, exact when they rest.
#pragma once

#include "scene/picture.h"

#include <string>

namespace serve {

// A JPEG file of an opaque picture; grey pictures become grey files. Quality 1 to 100. Throws Error.
std::string EncodeJpeg(const scene::Picture& picture, int quality);

// A PNG file with the pixels as they are, made for speed rather than size. Throws Error.
std::string EncodePngQuickly(const scene::Picture& picture);

}  // namespace serve
