#include "ip_volr/IP_PortableMath.h"

#include <cmath>
#include <limits>

namespace ip_volr {

namespace {

// A number of twice the precision: the sum of both, `low` below half the last place of `high`.
struct Twice {
    double high;
    double low;
};

// Sum of any two numbers, without error.
Twice exact_sum(double a, double b) {
    const double sum = a + b;
    const double b_seen = sum - a;
    return {sum, (a - (sum - b_seen)) + (b - b_seen)};
}

// Product without error, by halves of 26 bits.
Twice exact_product(double a, double b) {
    constexpr double kSplit = 134217729.0;  // 2^27 + 1
    const double a_wide = a * kSplit;
    const double a_high = a_wide - (a_wide - a);
    const double a_low = a - a_high;
    const double b_wide = b * kSplit;
    const double b_high = b_wide - (b_wide - b);
    const double b_low = b - b_high;
    const double product = a * b;
    return {product, ((a_high * b_high - product) + a_high * b_low + a_low * b_high) + a_low * b_low};
}

Twice product(const Twice& a, const Twice& b) {
    const Twice p = exact_product(a.high, b.high);
    return exact_sum(p.high, p.low + (a.high * b.low + a.low * b.high));
}

// Natural logarithm of 2 and its inverse; the first part has 21 zero bits at its end, so that its multiples are exact.
constexpr double kLog2High = 6.93147180369123816490e-01;
constexpr double kLog2Low = 1.90821492927058770002e-10;
constexpr double kInverseLog2 = 1.44269504088896338700;

// Logarithm of a normal number above 0: the exponent's part, and 2 artanh(s) of the mantissa m with
// s = (m - 1) / (m + 1), |s| < 0.172.
Twice logarithm(double x) {
    int exponent = 0;
    double mantissa = std::frexp(x, &exponent);  // 0.5 to 1
    if (mantissa < 0.70710678118654752) {
        mantissa *= 2.0;
        exponent--;
    }

    // s in twice the precision.
    const double above = mantissa - 1.0;
    const Twice below = exact_sum(mantissa, 1.0);
    const double s = above / below.high;
    const Twice back = exact_product(s, below.high);
    const Twice wide_s = exact_sum(s, ((above - back.high) - back.low - s * below.low) / below.high);

    // s + s^3 / 3 + s^5 / 5 + ...: the terms after the first are a hundred times smaller.
    const double square = s * s;
    double series = 0.0;
    for (int n = 25; n >= 3; n -= 2) {
        series = series * square + 1.0 / n;
    }
    const Twice half = exact_sum(wide_s.high, wide_s.low + series * square * s);
    const Twice whole = exact_sum(exponent * kLog2High, 2.0 * half.high);
    return exact_sum(whole.high, whole.low + (2.0 * half.low + exponent * kLog2Low));
}

// e to a power that neither overflows nor becomes subnormal.
double exponential(const Twice& power) {
    // A multiple of log 2, and a rest of at most 0.35.
    const double multiple = std::floor(power.high * kInverseLog2 + 0.5);
    const Twice rest = exact_sum(power.high - multiple * kLog2High, power.low - multiple * kLog2Low);

    // 1 + r + r^2 / 2 + ...
    const double r = rest.high;
    double series = 0.0;
    for (int n = 17; n >= 2; n--) {
        series = (series + 1.0) * r / n;
    }
    const Twice sum = exact_sum(1.0, r);
    return std::ldexp(sum.high + (sum.low + (rest.low + series * r)), static_cast<int>(multiple));
}

}  // namespace

double portable_power(double base, double exponent) {
    constexpr double kInfinity = std::numeric_limits<double>::infinity();
    if (exponent == 0.0 || base == 1.0) {
        return 1.0;
    }
    if (std::isnan(base) || std::isnan(exponent)) {
        return base + exponent;
    }
    if (base < std::numeric_limits<double>::min()) {
        return exponent > 0.0 ? 0.0 : kInfinity;
    }
    const Twice log_base = logarithm(base);
    const double estimate = log_base.high * exponent;
    if (!(estimate > -708.0 && estimate < 709.0)) {
        return estimate < 0.0 ? 0.0 : kInfinity;
    }
    return exponential(product(log_base, {exponent, 0.0}));
}

float portable_arc_cosine(float cosine) {
    // The tangent of half the angle; three times halved it is below 0.1.
    const double x = static_cast<double>(cosine);
    double tangent = std::sqrt((1.0 - x) / (1.0 + x));
    for (int i = 0; i < 3; i++) {
        tangent /= 1.0 + std::sqrt(1.0 + tangent * tangent);
    }
    const double square = tangent * tangent;
    double series = 0.0;
    for (int n = 19; n >= 1; n -= 2) {
        series = 1.0 / n - series * square;
    }
    return static_cast<float>(16.0 * tangent * series);
}

float portable_length(float x, float y) {
    const double wide_x = static_cast<double>(x);
    const double wide_y = static_cast<double>(y);
    return static_cast<float>(std::sqrt(wide_x * wide_x + wide_y * wide_y));
}

}  // namespace ip_volr
