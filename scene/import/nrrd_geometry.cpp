#include "scene/import/nrrd_geometry.h"

#include <algorithm>
#include <charconv>
#include <sstream>

#include "scene/import/text_header.h"

namespace scene::import {

namespace {

// Signs that turn the axes of a space into left, posterior, superior.
struct Space {
    Vec3 signs = {1, 1, 1};
    bool is_patient = true;
};

Space SpaceOf(std::string name) {
    name.resize(std::min(name.size(), name.find("-time")));
    if (name == "left-posterior-superior" || name == "lps" || name == "lpst") {
        return {{1, 1, 1}, true};
    }
    if (name == "right-anterior-superior" || name == "ras" || name == "rast") {
        return {{-1, -1, 1}, true};
    }
    if (name == "left-anterior-superior" || name == "las" || name == "last") {
        return {{1, -1, 1}, true};
    }
    // At least never mirrored.
    return {{name == "3d-left-handed" || name == "3dlh" ? -1.0 : 1.0, 1, 1}, false};
}

// "(a,b,c)" as a vector; nothing for "none".
std::optional<Vec3> ParseVector(std::string text) {
    for (char& character : text) {
        character = character == '(' || character == ')' || character == ',' ? ' ' : character;
    }
    Vec3 vector{};
    const char* next = text.data();
    const char* const end = text.data() + text.size();
    for (double& number : vector) {
        while (next < end && (*next == ' ' || *next == '+')) {
            ++next;
        }
        const auto parsed = std::from_chars(next, end, number);
        if (parsed.ec != std::errc()) {
            return std::nullopt;
        }
        next = parsed.ptr;
    }
    return vector;
}

// The entries of "space directions", with blanks within brackets removed.
std::vector<std::string> Entries(const std::string& text) {
    std::string tight;
    int depth = 0;
    for (const char character : text) {
        depth += character == '(' ? 1 : character == ')' ? -1 : 0;
        if (character != ' ' || depth == 0) {
            tight += character;
        }
        if (character == ')') {
            tight += ' ';
        }
    }
    std::istringstream stream(tight);
    std::vector<std::string> entries;
    for (std::string entry; stream >> entry;) {
        entries.push_back(entry);
    }
    return entries;
}

}  // namespace

NrrdGeometry ReadNrrdGeometry(const std::string& path) {
    // Collect the directions of the spatial axes.
    const TextHeader header = ReadTextHeader(path, ':', "");
    const Space space = SpaceOf(Lower(header.Field("space")));
    NrrdGeometry geometry;
    geometry.is_patient_space = space.is_patient;
    std::vector<Vec3> directions;
    const std::vector<std::string> entries = Entries(header.Field("spacedirections"));
    for (std::size_t i = 0; i < entries.size(); ++i) {
        if (const std::optional<Vec3> direction = ParseVector(entries[i])) {
            directions.push_back(*direction);
        } else {
            geometry.has_channels_first = geometry.has_channels_first || i == 0;
            geometry.is_space_torn = geometry.is_space_torn || (i > 0 && directions.size() < 3);
        }
    }
    if (directions.size() != 3) {
        return geometry;
    }

    // Turn them into LPS.
    Affine affine{};
    for (int axis = 0; axis < 3; ++axis) {
        SetColumn(affine, axis, directions[static_cast<std::size_t>(axis)]);
    }
    SetColumn(affine, 3, ParseVector(header.Field("spaceorigin")).value_or(Vec3{}));
    for (int i = 0; i < 12; ++i) {
        affine[i] *= space.signs[i / 4];
    }
    geometry.index_to_patient = affine;
    return geometry;
}

}  // namespace scene::import
