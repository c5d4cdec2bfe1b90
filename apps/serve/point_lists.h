// Points that a page has collected, as files.
#pragma once

#include "apps/serve/protocol.h"

#include <string>
#include <vector>

namespace serve {

// The public markups form.
std::string PointsMarkups(const std::vector<ExportedPoint>& points);

// One line for each point: label, x, y, z (patient LPS, mm), description. Texts stand in quotes, and never begin with
// what spreadsheets take for a formula.
std::string PointsCsv(const std::vector<ExportedPoint>& points);

}  // namespace serve
