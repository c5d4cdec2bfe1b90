// Straight grids in patient space (LPS, mm).
#ifndef SCENE_IMPORT_GRID_GEOMETRY_H
#define SCENE_IMPORT_GRID_GEOMETRY_H

#include <array>
#include <cmath>

#include "scene/import/imported_volume.h"

namespace scene::import {

using Vec3 = std::array<double, 3>;
using Affine = std::array<double, 12>;  // 3 x 4, row by row

inline double Dot(const Vec3& a, const Vec3& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
inline double Length(const Vec3& a) {
    return std::sqrt(Dot(a, a));
}
inline Vec3 Cross(const Vec3& a, const Vec3& b) {
    return {a[1] * b[2] - a[2] * b[1], a[2] * b[0] - a[0] * b[2], a[0] * b[1] - a[1] * b[0]};
}
// a + b * factor
inline Vec3 AddScaled(const Vec3& a, const Vec3& b, double factor) {
    return {a[0] + b[0] * factor, a[1] + b[1] * factor, a[2] + b[2] * factor};
}
inline Vec3 Column(const Affine& m, int column) {
    return {m[column], m[4 + column], m[8 + column]};
}
inline void SetColumn(Affine& m, int column, const Vec3& v) {
    for (int row = 0; row < 3; ++row) {
        m[row * 4 + column] = v[row];
    }
}
double Determinant(const Affine& m);

// Whether every number of the matrix is finite and it has an inverse worth the name.
bool IsUsable(const Affine& m);

// Largest cosine between two axes: 0 for a straight grid.
double Skew(const Affine& m);

// The straight grid nearest to a skewed one: axes become orthogonal, their lengths stay, and so does the patient
// position of the middle of the volume.
Affine Straightened(const Affine& m, const std::array<int, 3>& dims);

// Fills spacing_mm from index_to_patient and reverses the order of the slices if the grid is left-handed.
void MakeRightHanded(ImportedVolume& volume);

// Sets dims and grid of a volume from a matrix of the file, which may be skewed (becomes straight, with a warning) or
// left handed. Refuses matrices that are singular or not finite. Voxels must be there already.
void SetGrid(ImportedVolume& volume, const std::string& what, Affine index_to_patient);

}  // namespace scene::import

#endif  // SCENE_IMPORT_GRID_GEOMETRY_H
