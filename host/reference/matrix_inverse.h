// Inverse of 4 by 4 matrices in double precision, for the reference host's own use.
#pragma once

namespace reference_host {

// False, and `out` untouched, when the matrix is singular or not finite. `out` may be `m`.
bool invert_matrix(const double m[4][4], double out[4][4]);
bool invert_matrix(const float m[4][4], double out[4][4]);

}  // namespace reference_host
