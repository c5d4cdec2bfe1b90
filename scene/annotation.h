// Orientation letters, scale bar and marks drawn into a picture.
#pragma once

#include "scene/picture.h"
#include "scene/views.h"

#include <string>
#include <string_view>

namespace scene {

// The letters of a direction, strongest first: R or L (right, left), A or P (front, back), S or I (superior, inferior).
// Axes that take part by less than about 17 degrees are left out.
std::string DirectionLetters(const Vec3& direction);

// Length of a scale bar that suits a picture: 1, 2 or 5 times a power of ten mm, at most a quarter of the width.
double ScaleBarMm(const Camera& camera);

// Draws letters at the four edges and a scale bar with its length in the lower right corner.
void Annotate(Picture& picture, const Camera& camera);

// Draws a text with its middle at a pixel; capital letters, digits, '.', '-' and the letters c and m; others are blank.
void DrawText(Picture& picture, std::string_view text, double centre_x, double centre_y, double height);

// Draws a cross with a gap around a pixel.
void DrawMark(Picture& picture, double x, double y, std::uint32_t rgb);

}  // namespace scene
