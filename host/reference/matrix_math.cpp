#include "host/matrix_math.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <utility>

#include "host/reference/matrix_inverse.h"

namespace {

// A row scaled to a largest entry of 1 leaves a pivot this small only when the rows depend on each other.
constexpr double kSmallestPivot = 1e-12;

// Scales each of the n rows (right side included) so that its largest coefficient is 1. False for a zero or
// non-finite row.
bool equilibrate_rows(double rows[4][8]) {
    for (int r = 0; r < 4; ++r) {
        double largest = 0.0;
        for (int c = 0; c < 4; ++c) {
            if (!std::isfinite(rows[r][c])) {
                return false;
            }
            largest = std::max(largest, std::fabs(rows[r][c]));
        }
        if (largest == 0.0) {
            return false;
        }
        for (int c = 0; c < 8; ++c) {
            rows[r][c] /= largest;
        }
    }
    return true;
}

// Clears a column outside its pivot row, which is brought to the diagonal first. False when there is no pivot.
bool eliminate_column(double rows[4][8], int column) {
    int pivot = column;
    for (int r = column + 1; r < 4; ++r) {
        if (std::fabs(rows[r][column]) > std::fabs(rows[pivot][column])) {
            pivot = r;
        }
    }
    if (!(std::fabs(rows[pivot][column]) > kSmallestPivot)) {
        return false;
    }
    std::swap_ranges(rows[pivot], rows[pivot] + 8, rows[column]);

    const double inverse_pivot = 1.0 / rows[column][column];
    for (int c = 0; c < 8; ++c) {
        rows[column][c] *= inverse_pivot;
    }
    for (int r = 0; r < 4; ++r) {
        const double factor = rows[r][column];
        if (r == column || factor == 0.0) {
            continue;
        }
        for (int c = 0; c < 8; ++c) {
            rows[r][c] -= factor * rows[column][c];
        }
    }
    return true;
}

}  // namespace

namespace reference_host {

bool invert_matrix(const double m[4][4], double out[4][4]) {
    double rows[4][8] = {};
    for (int r = 0; r < 4; ++r) {
        std::copy_n(m[r], 4, rows[r]);
        rows[r][4 + r] = 1.0;
    }
    if (!equilibrate_rows(rows)) {
        return false;
    }
    for (int c = 0; c < 4; ++c) {
        if (!eliminate_column(rows, c)) {
            return false;
        }
    }
    for (int r = 0; r < 4; ++r) {
        std::copy_n(rows[r] + 4, 4, out[r]);
    }
    return true;
}

bool invert_matrix(const float m[4][4], double out[4][4]) {
    double wide[4][4];
    for (int r = 0; r < 4; ++r) {
        std::copy_n(m[r], 4, wide[r]);
    }
    return invert_matrix(wide, out);
}

}  // namespace reference_host

void IP_Midnt(float m[4][4]) {
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
            m[r][c] = r == c ? 1.0F : 0.0F;
        }
    }
}

void IP_Mmul(const float a[4][4], const float b[4][4], float out[4][4]) {
    float product[4][4];
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
            double sum = 0.0;
            for (int k = 0; k < 4; ++k) {
                sum += static_cast<double>(a[r][k]) * b[k][c];
            }
            product[r][c] = static_cast<float>(sum);
        }
    }
    std::memcpy(out, product, sizeof(product));
}

bool IP_Minv(const float m[4][4], float out[4][4]) {
    double inverse[4][4];
    if (!reference_host::invert_matrix(m, inverse)) {
        IP_Midnt(out);
        return false;
    }
    bool is_finite = true;
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
            out[r][c] = static_cast<float>(inverse[r][c]);
            is_finite = is_finite && std::isfinite(out[r][c]);
        }
    }
    if (!is_finite) {
        IP_Midnt(out);
        return false;
    }
    return true;
}

float IP_Mdet(const float m[4][4]) {
    // Expand along pairs of rows: 2 by 2 minors of the upper and the lower half.
    const auto minor = [m](int row, int i, int j) {
        return static_cast<double>(m[row][i]) * m[row + 1][j] - static_cast<double>(m[row][j]) * m[row + 1][i];
    };
    const double det = minor(0, 0, 1) * minor(2, 2, 3) - minor(0, 0, 2) * minor(2, 1, 3) +
                       minor(0, 0, 3) * minor(2, 1, 2) + minor(0, 1, 2) * minor(2, 0, 3) -
                       minor(0, 1, 3) * minor(2, 0, 2) + minor(0, 2, 3) * minor(2, 0, 1);
    return static_cast<float>(det);
}

void IP_Mtranslate(float m[4][4], float x, float y, float z) {
    const float translation[4][4] = {{1, 0, 0, 0}, {0, 1, 0, 0}, {0, 0, 1, 0}, {x, y, z, 1}};
    IP_Mmul(m, translation, m);
}

float IP_dot(const float a[3], const float b[3]) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

void IP_normalize(float v[3]) {
    const double length = std::sqrt(static_cast<double>(v[0]) * v[0] + static_cast<double>(v[1]) * v[1] +
                                    static_cast<double>(v[2]) * v[2]);
    if (length == 0.0) {
        return;
    }
    for (int i = 0; i < 3; ++i) {
        v[i] = static_cast<float>(v[i] / length);
    }
}

void IP_vec3mlt(const float a[3], const float b[3], float out[3]) {
    const float x = a[1] * b[2] - a[2] * b[1];
    const float y = a[2] * b[0] - a[0] * b[2];
    const float z = a[0] * b[1] - a[1] * b[0];
    out[0] = x;
    out[1] = y;
    out[2] = z;
}

void IP_vectrans(const float v[3], const float m[4][4], float out[3]) {
    float moved[3];
    for (int c = 0; c < 3; ++c) {
        moved[c] = v[0] * m[0][c] + v[1] * m[1][c] + v[2] * m[2][c] + m[3][c];
    }
    std::copy_n(moved, 3, out);
}

void IP_vectrans_no_translation(const float v[3], const float m[4][4], float out[3]) {
    float turned[3];
    for (int c = 0; c < 3; ++c) {
        turned[c] = v[0] * m[0][c] + v[1] * m[1][c] + v[2] * m[2][c];
    }
    std::copy_n(turned, 3, out);
}

// A point p' = p m satisfies eq . p = 0 exactly when (m^-1 eq) . p' = 0, with eq as a column.
void IP_eqtrans(const double eq[4], const double inverse[4][4], double out[4]) {
    double moved[4];
    for (int r = 0; r < 4; ++r) {
        moved[r] = inverse[r][0] * eq[0] + inverse[r][1] * eq[1] + inverse[r][2] * eq[2] + inverse[r][3] * eq[3];
    }
    std::copy_n(moved, 4, out);
}

void IP_eqtrans(const float eq[4], const float inverse[4][4], float out[4]) {
    const double wide_eq[4] = {eq[0], eq[1], eq[2], eq[3]};
    double wide_inverse[4][4];
    for (int r = 0; r < 4; ++r) {
        std::copy_n(inverse[r], 4, wide_inverse[r]);
    }
    double moved[4];
    IP_eqtrans(wide_eq, wide_inverse, moved);
    std::transform(moved, moved + 4, out, [](double v) { return static_cast<float>(v); });
}

void IP_myeqtrans(const float eq[4], const float m[4][4], float out[4]) {
    double inverse[4][4];
    if (!reference_host::invert_matrix(m, inverse)) {
        std::copy_n(eq, 4, out);
        return;
    }
    const double wide_eq[4] = {eq[0], eq[1], eq[2], eq[3]};
    double moved[4];
    IP_eqtrans(wide_eq, inverse, moved);
    std::transform(moved, moved + 4, out, [](double v) { return static_cast<float>(v); });
}
