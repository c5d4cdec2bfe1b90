// Affine arithmetic of the ray-casting engine in double precision: rows of four, points are row vectors multiplied from
// the left, row 3 holds the translation, the last column is (0, 0, 0, 1).
#pragma once

namespace ip_volr::affine {

using Matrix = double[4][4];

void set_identity(Matrix m);
void copy(const Matrix from, Matrix to);
void from_float(const float from[4][4], Matrix to);

// a, then b. The result may not be one of the arguments.
void multiply(const Matrix a, const Matrix b, Matrix result);

// Inverse by cofactors. A determinant of exactly 0 counts as 1e-16, so that a singular matrix has a result, too. The
// result may not be the argument.
void invert(const Matrix m, Matrix result);

// A point, with the translation, and a direction, without it. Results may be arguments.
void transform_point(const double p[3], const Matrix m, double result[3]);
void transform_direction(const double v[3], const Matrix m, double result[3]);

double length(const double v[3]);
// A vector shorter than 1e-50 stays as it is.
void normalise(double v[3]);

bool is_finite(const Matrix m);
bool is_finite(const double v[3]);

// Truncates towards zero; values beyond [lowest, highest] are clamped, what is not a number becomes `lowest`.
int truncate_clamped(double value, int lowest, int highest);

}  // namespace ip_volr::affine
