// Math on 4 by 4 float matrices (row vectors, translation in the last row) and 3-vectors. Outputs may be inputs.
#pragma once

#include "host/host_export.h"

IP_HOST_API void IP_Midnt(float m[4][4]);                                             // identity
IP_HOST_API void IP_Mmul(const float a[4][4], const float b[4][4], float out[4][4]);  // a, then b
// Inverse; a singular matrix gives the identity and the result false.
IP_HOST_API bool IP_Minv(const float m[4][4], float out[4][4]);
IP_HOST_API float IP_Mdet(const float m[4][4]);
IP_HOST_API void IP_Mtranslate(float m[4][4], float x, float y, float z);  // appends a translation

IP_HOST_API float IP_dot(const float a[3], const float b[3]);
IP_HOST_API void IP_normalize(float v[3]);                                          // a zero vector stays zero
IP_HOST_API void IP_vec3mlt(const float a[3], const float b[3], float out[3]);      // cross product
IP_HOST_API void IP_vectrans(const float v[3], const float m[4][4], float out[3]);  // point
IP_HOST_API void IP_vectrans_no_translation(const float v[3], const float m[4][4], float out[3]);  // direction

// Equation of a plane after its points were mapped by m: with the inverse of m given (IP_eqtrans), or m itself
// (IP_myeqtrans).
IP_HOST_API void IP_eqtrans(const double eq[4], const double inverse[4][4], double out[4]);
IP_HOST_API void IP_eqtrans(const float eq[4], const float inverse[4][4], float out[4]);
IP_HOST_API void IP_myeqtrans(const float eq[4], const float m[4][4], float out[4]);
