#include "scene/import/grid_geometry.h"

#include <algorithm>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

// Float32 matrices of files are straight to about this cosine; less is rounding and not worth a word.
constexpr double kSkewOfRounding = 2e-4;

using Matrix3 = std::array<Vec3, 3>;  // by columns

// The transposed inverse of a matrix with columns a, b, c has the columns b x c, c x a, a x b over the determinant.
Matrix3 InverseTransposed(const Matrix3& m) {
    Matrix3 result = {Cross(m[1], m[2]), Cross(m[2], m[0]), Cross(m[0], m[1])};
    const double det = Dot(m[0], result[0]);
    for (Vec3& column : result) {
        column = {column[0] / det, column[1] / det, column[2] / det};
    }
    return result;
}

// Nearest orthogonal matrix by Newton's iteration for the polar decomposition: X <- (X + X^-T) / 2.
Matrix3 NearestOrthogonal(Matrix3 m) {
    for (int iteration = 0; iteration < 50; ++iteration) {
        const Matrix3 other = InverseTransposed(m);
        double change = 0.0;
        for (int column = 0; column < 3; ++column) {
            for (int row = 0; row < 3; ++row) {
                const double mean = 0.5 * (m[column][row] + other[column][row]);
                change = std::max(change, std::abs(mean - m[column][row]));
                m[column][row] = mean;
            }
        }
        if (change < 1e-15) {
            break;
        }
    }
    return m;
}

// Patient position of a voxel index that may lie between voxels.
Vec3 PositionOf(const Affine& m, const Vec3& index) {
    Vec3 position = Column(m, 3);
    for (int axis = 0; axis < 3; ++axis) {
        position = AddScaled(position, Column(m, axis), index[axis]);
    }
    return position;
}

}  // namespace

double Determinant(const Affine& m) {
    return Dot(Column(m, 0), Cross(Column(m, 1), Column(m, 2)));
}

bool IsUsable(const Affine& m) {
    const auto is_sane = [](double v) { return std::isfinite(v) && std::abs(v) < 1e7; };
    if (!std::all_of(m.begin(), m.end(), is_sane)) {
        return false;
    }
    double volume = 1.0;
    for (int axis = 0; axis < 3; ++axis) {
        const double length = Length(Column(m, axis));
        if (length < 1e-6) {
            return false;
        }
        volume *= length;
    }
    return std::abs(Determinant(m)) > 1e-3 * volume;
}

double Skew(const Affine& m) {
    double skew = 0.0;
    for (int axis = 0; axis < 3; ++axis) {
        const Vec3 a = Column(m, axis), b = Column(m, (axis + 1) % 3);
        skew = std::max(skew, std::abs(Dot(a, b)) / (Length(a) * Length(b)));
    }
    return skew;
}

Affine Straightened(const Affine& m, const std::array<int, 3>& dims) {
    // Turn the axes.
    Matrix3 axes;
    Vec3 lengths;
    for (int axis = 0; axis < 3; ++axis) {
        axes[axis] = Column(m, axis);
        lengths[axis] = Length(axes[axis]);
        axes[axis] = AddScaled({}, axes[axis], 1.0 / lengths[axis]);
    }
    axes = NearestOrthogonal(axes);

    // Keep the middle where it was.
    const Vec3 middle_vox = {0.5 * (dims[0] - 1), 0.5 * (dims[1] - 1), 0.5 * (dims[2] - 1)};
    Affine result{};
    for (int axis = 0; axis < 3; ++axis) {
        SetColumn(result, axis, AddScaled({}, axes[axis], lengths[axis]));
    }
    const Vec3 origin = AddScaled(PositionOf(m, middle_vox), PositionOf(result, middle_vox), -1.0);
    SetColumn(result, 3, origin);
    return result;
}

void MakeRightHanded(ImportedVolume& volume) {
    Affine& m = volume.index_to_patient;
    if (Determinant(m) < 0.0) {
        const std::size_t slice_size = std::size_t(volume.dims[0]) * volume.dims[1];
        std::int16_t* const voxels = volume.voxels.data();
        for (int low = 0, high = volume.dims[2] - 1; low < high; ++low, --high) {
            std::swap_ranges(voxels + low * slice_size, voxels + (low + 1) * slice_size, voxels + high * slice_size);
        }
        const Vec3 step = Column(m, 2);
        SetColumn(m, 3, AddScaled(Column(m, 3), step, volume.dims[2] - 1));
        SetColumn(m, 2, AddScaled({}, step, -1.0));
    }
    for (int axis = 0; axis < 3; ++axis) {
        volume.spacing_mm[axis] = Length(Column(m, axis));
    }
}

void SetGrid(ImportedVolume& volume, const std::string& what, Affine index_to_patient) {
    if (!IsUsable(index_to_patient)) {
        Refuse(what, "its geometry is unusable: zero spacing, parallel axes or numbers that are not finite",
               "correct the header");
    }
    const double skew = Skew(index_to_patient);
    if (skew > kSkewOfRounding) {
        volume.warnings.push_back("the axes of the grid are not perpendicular (cosine " + Text(skew) +
                                  "): the nearest straight grid is used instead");
        index_to_patient = Straightened(index_to_patient, volume.dims);
    }
    volume.index_to_patient = index_to_patient;
    MakeRightHanded(volume);
}

}  // namespace scene::import
