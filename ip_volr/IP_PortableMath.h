// Functions with the same result, to the last bit, on every platform: tables and decisions that a picture depends on
// never call those of the system's mathematical library, whose last bits differ between systems.
#pragma once

namespace ip_volr {

// base to the power of exponent, for base 0 to 1 and any exponent, within 0.7 of the last place. Limits as the standard
// function has them: anything to the power of 0 is 1, a base of 0 gives 0, 1 or infinity, what is not a number stays.
double portable_power(double base, double exponent);

// Angle in radians of a cosine of 0 to 1, within one last place of a float.
float portable_arc_cosine(float cosine);

// Length of a plane vector.
float portable_length(float x, float y);

}  // namespace ip_volr
