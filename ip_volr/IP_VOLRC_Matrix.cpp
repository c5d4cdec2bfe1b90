#include "ip_volr/IP_VOLRC_Matrix.h"

#include <cmath>
#include <cstring>

namespace ip_volr::affine {

namespace {

constexpr double kSingularDeterminant = 1e-16;
constexpr double kShortestVector = 1e-50;

void set_last_column(Matrix m) {
    m[0][3] = 0.0;
    m[1][3] = 0.0;
    m[2][3] = 0.0;
    m[3][3] = 1.0;
}

}  // namespace

void set_identity(Matrix m) {
    for (int i = 0; i < 4; i++) {
        for (int j = 0; j < 4; j++) {
            m[i][j] = i == j ? 1.0 : 0.0;
        }
    }
}

void copy(const Matrix from, Matrix to) {
    std::memmove(to, from, sizeof(Matrix));
}

void from_float(const float from[4][4], Matrix to) {
    for (int i = 0; i < 4; i++) {
        for (int j = 0; j < 4; j++) {
            to[i][j] = from[i][j];
        }
    }
}

void multiply(const Matrix a, const Matrix b, Matrix result) {
    for (int i = 0; i < 4; i++) {
        for (int j = 0; j < 3; j++) {
            result[i][j] = a[i][0] * b[0][j] + a[i][1] * b[1][j] + a[i][2] * b[2][j] + (i == 3 ? b[3][j] : 0.0);
        }
    }
    set_last_column(result);
}

void invert(const Matrix m, Matrix result) {
    // Cofactors of the upper 3 by 3 part.
    double cofactor[3][3];
    for (int i = 0; i < 3; i++) {
        const int i1 = (i + 1) % 3;
        const int i2 = (i + 2) % 3;
        for (int j = 0; j < 3; j++) {
            const int j1 = (j + 1) % 3;
            const int j2 = (j + 2) % 3;
            cofactor[i][j] = m[i1][j1] * m[i2][j2] - m[i1][j2] * m[i2][j1];
        }
    }
    double determinant = m[0][0] * cofactor[0][0] + m[0][1] * cofactor[0][1] + m[0][2] * cofactor[0][2];
    if (determinant == 0.0) {
        determinant = kSingularDeterminant;
    }

    // Their transpose over the determinant; the translation goes back through it.
    for (int i = 0; i < 3; i++) {
        for (int j = 0; j < 3; j++) {
            result[i][j] = cofactor[j][i] / determinant;
        }
    }
    for (int j = 0; j < 3; j++) {
        result[3][j] = -(m[3][0] * result[0][j] + m[3][1] * result[1][j] + m[3][2] * result[2][j]);
    }
    set_last_column(result);
}

void transform_point(const double p[3], const Matrix m, double result[3]) {
    const double x = p[0];
    const double y = p[1];
    const double z = p[2];
    for (int j = 0; j < 3; j++) {
        result[j] = x * m[0][j] + y * m[1][j] + z * m[2][j] + m[3][j];
    }
}

void transform_direction(const double v[3], const Matrix m, double result[3]) {
    const double x = v[0];
    const double y = v[1];
    const double z = v[2];
    for (int j = 0; j < 3; j++) {
        result[j] = x * m[0][j] + y * m[1][j] + z * m[2][j];
    }
}

double length(const double v[3]) {
    return std::sqrt(v[0] * v[0] + v[1] * v[1] + v[2] * v[2]);
}

void normalise(double v[3]) {
    const double len = length(v);
    if (!(len >= kShortestVector)) {
        return;
    }
    for (int i = 0; i < 3; i++) {
        v[i] /= len;
    }
}

bool is_finite(const double v[3]) {
    return std::isfinite(v[0]) && std::isfinite(v[1]) && std::isfinite(v[2]);
}

bool is_finite(const Matrix m) {
    return is_finite(m[0]) && is_finite(m[1]) && is_finite(m[2]) && is_finite(m[3]);
}

int truncate_clamped(double value, int lowest, int highest) {
    if (!(value > lowest)) {
        return lowest;
    }
    return value >= highest ? highest : static_cast<int>(value);
}

}  // namespace ip_volr::affine
