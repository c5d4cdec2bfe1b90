#include "host/geometry.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "host/matrix_math.h"
#include "host/reference/matrix_inverse.h"

namespace {

// Axes whose directions are closer to a common plane than this count as dependent (sine of the angle).
constexpr double kSmallestSine = 1e-6;

double length_of(const double v[3]) {
    return std::hypot(v[0], v[1], v[2]);
}

float length_of(const float v[3]) {
    const double wide[3] = {v[0], v[1], v[2]};
    return static_cast<float>(length_of(wide));
}

void cross(const double a[3], const double b[3], double out[3]) {
    out[0] = a[1] * b[2] - a[2] * b[1];
    out[1] = a[2] * b[0] - a[0] * b[2];
    out[2] = a[0] * b[1] - a[1] * b[0];
}

// Makes v a unit vector; false, and v untouched, for a zero or non-finite one.
bool normalize(double v[3]) {
    const double length = length_of(v);
    if (!(length > 0.0) || !std::isfinite(length)) {
        return false;
    }
    for (int i = 0; i < 3; ++i) {
        v[i] /= length;
    }
    return true;
}

bool are_independent(const double a[3], const double b[3]) {
    double normal[3];
    cross(a, b, normal);
    return length_of(normal) > kSmallestSine;
}

// A unit vector at right angles to the given unit vectors (none, one or two of them), as near a coordinate axis as
// possible, `preferred` first.
void find_missing_direction(const double (*known)[3], int num_known, int preferred, double out[3]) {
    if (num_known == 2) {
        cross(known[0], known[1], out);
        normalize(out);
        return;
    }
    int axis = preferred;
    if (num_known == 1) {
        // Take the coordinate axis that is farthest from the known one, the preferred of equals.
        for (int i = 0; i < 3; ++i) {
            if (std::fabs(known[0][i]) < std::fabs(known[0][axis])) {
                axis = i;
            }
        }
    }
    for (int i = 0; i < 3; ++i) {
        out[i] = i == axis ? 1.0 : 0.0;
        if (num_known == 1) {
            out[i] -= known[0][axis] * known[0][i];
        }
    }
    normalize(out);
}

// Unit directions of the three axis vectors; those that are zero, not finite, or dependent on earlier ones are marked
// and replaced so that the three are independent.
void complete_directions(const float vecs[3][3], double directions[3][3], bool replaced[3]) {
    double known[3][3];
    int num_known = 0;
    for (int axis = 0; axis < 3; ++axis) {
        std::copy_n(vecs[axis], 3, directions[axis]);
        bool usable = normalize(directions[axis]);
        for (int k = 0; usable && k < num_known; ++k) {
            usable = are_independent(known[k], directions[axis]);
        }
        if (usable && num_known == 2) {
            double normal[3];
            cross(known[0], known[1], normal);
            normalize(normal);
            const double sine =
                normal[0] * directions[axis][0] + normal[1] * directions[axis][1] + normal[2] * directions[axis][2];
            usable = std::fabs(sine) > kSmallestSine;
        }
        replaced[axis] = !usable;
        if (usable) {
            std::copy_n(directions[axis], 3, known[num_known++]);
        }
    }

    for (int axis = 0; axis < 3; ++axis) {
        if (replaced[axis]) {
            find_missing_direction(known, num_known, axis, directions[axis]);
            std::copy_n(directions[axis], 3, known[num_known++]);
        }
    }
}

// The steps from one voxel to the next along each axis, in mm, always independent.
void voxel_steps(const float vecs[3][3], const int dims[3], double steps[3][3]) {
    bool replaced[3];
    complete_directions(vecs, steps, replaced);
    for (int axis = 0; axis < 3; ++axis) {
        double step_mm = 1.0;
        if (!replaced[axis] && dims[axis] > 0) {
            step_mm = static_cast<double>(length_of(vecs[axis])) / dims[axis];
        }
        for (int i = 0; i < 3; ++i) {
            const bool exact = !replaced[axis] && dims[axis] > 0;
            steps[axis][i] = exact ? static_cast<double>(vecs[axis][i]) / dims[axis] : steps[axis][i] * step_mm;
        }
    }
}

// Transform from indices to mm with index 0 at `origin_vox` voxels from the corner along each axis.
void index_to_physical(const float start[3], const float vecs[3][3], const int dims[3], double origin_vox,
                       double m[4][4]) {
    double steps[3][3];
    voxel_steps(vecs, dims, steps);
    for (int axis = 0; axis < 3; ++axis) {
        std::copy_n(steps[axis], 3, m[axis]);
        m[axis][3] = 0.0;
    }
    for (int i = 0; i < 3; ++i) {
        m[3][i] = start[i] + origin_vox * (steps[0][i] + steps[1][i] + steps[2][i]);
    }
    m[3][3] = 1.0;
}

void narrow(const double m[4][4], float out[4][4]) {
    for (int row = 0; row < 4; ++row) {
        std::transform(m[row], m[row] + 4, out[row], [](double v) { return static_cast<float>(v); });
    }
}

void narrow_inverse(const double m[4][4], float out[4][4]) {
    double inverse[4][4];
    if (reference_host::invert_matrix(m, inverse)) {
        narrow(inverse, out);
    } else {
        IP_Midnt(out);
    }
}

}  // namespace

IP_3Coord& IP_3Coord::operator+=(const IP_3Coord& o) {
    x += o.x;
    y += o.y;
    z += o.z;
    return *this;
}

IP_3Coord& IP_3Coord::operator-=(const IP_3Coord& o) {
    x -= o.x;
    y -= o.y;
    z -= o.z;
    return *this;
}

IP_3Coord& IP_3Coord::operator*=(float f) {
    x *= f;
    y *= f;
    z *= f;
    return *this;
}

IP_Dims::IP_Dims(int x, int y, int z) : m_Dims{x, y, z} {}

void IP_Dims::GetDims(int dims[3]) const {
    std::copy_n(m_Dims, 3, dims);
}

void IP_Dims::SetDims(const int dims[3]) {
    std::copy_n(dims, 3, m_Dims);
}

bool IP_Dims::InsideIndexBoxWithNeighbors(const int index[3]) const {
    for (int axis = 0; axis < 3; ++axis) {
        if (index[axis] < 1 || index[axis] >= m_Dims[axis] - 1) {
            return false;
        }
    }
    return true;
}

void IP_BoxParams::GetVecs(float vecs[3][3]) const {
    std::memcpy(vecs, m_Vecs, sizeof(m_Vecs));
}

void IP_BoxParams::SetParams(const float vecs[3][3]) {
    std::memcpy(m_Vecs, vecs, sizeof(m_Vecs));
}

void IP_BoxParams::GetStart(float start[3]) const {
    std::copy_n(m_Start, 3, start);
}

void IP_BoxParams::SetStart(const float start[3]) {
    std::copy_n(start, 3, m_Start);
}

void IP_BoxParams::GetMiddle(float middle[3]) const {
    for (int i = 0; i < 3; ++i) {
        const double diagonal = static_cast<double>(m_Vecs[0][i]) + m_Vecs[1][i] + m_Vecs[2][i];
        middle[i] = static_cast<float>(m_Start[i] + 0.5 * diagonal);
    }
}

void IP_BoxParams::GetVertex(int i, float vertex[3]) const {
    for (int k = 0; k < 3; ++k) {
        double sum = m_Start[k];
        for (int axis = 0; axis < 3; ++axis) {
            sum += ((i >> axis) & 1) != 0 ? m_Vecs[axis][k] : 0.0F;
        }
        vertex[k] = static_cast<float>(sum);
    }
}

float IP_BoxParams::GetWidth() const {
    return length_of(m_Vecs[IP_AXIS_X]);
}

float IP_BoxParams::GetHeight() const {
    return length_of(m_Vecs[IP_AXIS_Y]);
}

float IP_BoxParams::GetDepth() const {
    return length_of(m_Vecs[IP_AXIS_Z]);
}

float IP_BoxParams::GetLength() const {
    // Of a skewed box the longest of the four diagonals counts; those of a right-angled one are equal.
    double longest = 0.0;
    for (int i = 0; i < 4; ++i) {
        double diagonal[3];
        for (int k = 0; k < 3; ++k) {
            diagonal[k] = static_cast<double>(m_Vecs[2][k]) + ((i & 1) != 0 ? -m_Vecs[0][k] : m_Vecs[0][k]) +
                          ((i & 2) != 0 ? -m_Vecs[1][k] : m_Vecs[1][k]);
        }
        longest = std::max(longest, length_of(diagonal));
    }
    return static_cast<float>(longest);
}

void IP_BoxParams::GetOrthoVec(float normal[3], int axis) const {
    const int wanted = std::clamp(axis, 0, 2);
    double directions[3][3];
    bool replaced[3];
    complete_directions(m_Vecs, directions, replaced);

    // The normal of the two other axes, on the side that the axis points to.
    double unit[3];
    cross(directions[(wanted + 1) % 3], directions[(wanted + 2) % 3], unit);
    normalize(unit);
    const double* const side = directions[wanted];
    const double sign = unit[0] * side[0] + unit[1] * side[1] + unit[2] * side[2] < 0.0 ? -1.0 : 1.0;
    for (int i = 0; i < 3; ++i) {
        normal[i] = static_cast<float>(sign * unit[i]);
    }
}

void IP_BoxParams::GetSideVec(float side[3], int axis) const {
    std::copy_n(m_Vecs[std::clamp(axis, 0, 2)], 3, side);
}

void IP_BoxParams::GetNormTrans(float m[4][4]) const {
    IP_Midnt(m);
    for (int axis = 0; axis < 3; ++axis) {
        std::copy_n(m_Vecs[axis], 3, m[axis]);
    }
    std::copy_n(m_Start, 3, m[3]);
}

void IP_BoxParams::ReduceBox(float* margins, float* mm_per_pixel) {
    for (int axis = 0; axis < 3; ++axis) {
        const double length_mm = length_of(m_Vecs[axis]);
        if (!(length_mm > 0.0) || !std::isfinite(margins[axis])) {
            continue;
        }
        // Keep the least extent, at most what there is.
        const double least_mm = std::isfinite(mm_per_pixel[axis]) ? std::fabs(mm_per_pixel[axis]) : 0.0;
        const double left_mm = std::max(length_mm - 2.0 * margins[axis], std::min(least_mm, length_mm));
        const double moved = 0.5 * (length_mm - left_mm) / length_mm;
        for (int i = 0; i < 3; ++i) {
            m_Start[i] = static_cast<float>(m_Start[i] + moved * m_Vecs[axis][i]);
            m_Vecs[axis][i] = static_cast<float>(m_Vecs[axis][i] * (left_mm / length_mm));
        }
    }
}

void IP_BoxParams::Centralize() {
    for (int i = 0; i < 3; ++i) {
        const double diagonal = static_cast<double>(m_Vecs[0][i]) + m_Vecs[1][i] + m_Vecs[2][i];
        m_Start[i] = static_cast<float>(-0.5 * diagonal);
    }
}

void IP_BoxParams::ApplyTransform(float m[4][4]) {
    IP_vectrans(m_Start, m, m_Start);
    for (auto& vec : m_Vecs) {
        IP_vectrans_no_translation(vec, m, vec);
    }
}

void IP_BoxParams::Translate(float x, float y, float z) {
    m_Start[0] += x;
    m_Start[1] += y;
    m_Start[2] += z;
}

void IP_BoxParams::Scale(float x, float y, float z) {
    const float factors[3] = {x, y, z};
    for (int i = 0; i < 3; ++i) {
        m_Start[i] *= factors[i];
        for (auto& vec : m_Vecs) {
            vec[i] *= factors[i];
        }
    }
}

IP_Box::IP_Box(int x, int y, int z) : IP_Box(x, y, z, 1.0F, 1.0F, 1.0F) {}

IP_Box::IP_Box(int x, int y, int z, float mm_x, float mm_y, float mm_z) : IP_Dims(x, y, z) {
    const float spacing_mm[3] = {mm_x, mm_y, mm_z};
    for (int axis = 0; axis < 3; ++axis) {
        m_Vecs[axis][axis] = static_cast<float>(std::max(m_Dims[axis], 0)) * spacing_mm[axis];
    }
}

bool IP_Box::operator==(const IP_Box& o) const {
    const auto same_vec = [](const float(&a)[3], const float(&b)[3]) { return std::equal(a, a + 3, b); };
    return std::equal(m_Dims, m_Dims + 3, o.m_Dims) && same_vec(m_Start, o.m_Start) &&
           std::equal(m_Vecs, m_Vecs + 3, o.m_Vecs, same_vec);
}

float IP_Box::GetXMmPerPixel() const {
    return m_Dims[0] > 0 ? GetWidth() / static_cast<float>(m_Dims[0]) : 0.0F;
}

float IP_Box::GetYMmPerPixel() const {
    return m_Dims[1] > 0 ? GetHeight() / static_cast<float>(m_Dims[1]) : 0.0F;
}

float IP_Box::GetZMmPerPixel() const {
    return m_Dims[2] > 0 ? GetDepth() / static_cast<float>(m_Dims[2]) : 0.0F;
}

float IP_Box::GetSliceZf() const {
    double m[4][4];
    index_to_physical(m_Start, m_Vecs, m_Dims, 0.5, m);
    return static_cast<float>(m[3][2]);
}

void IP_Box::GetIndexToPhysicalTrans(float m[4][4]) const {
    double wide[4][4];
    index_to_physical(m_Start, m_Vecs, m_Dims, 0.5, wide);
    narrow(wide, m);
}

void IP_Box::GetPhysicalToIndexTrans(float m[4][4]) const {
    double wide[4][4];
    index_to_physical(m_Start, m_Vecs, m_Dims, 0.5, wide);
    narrow_inverse(wide, m);
}

void IP_Box::GetIndexToPhysicalFromCorner(float m[4][4]) const {
    double wide[4][4];
    index_to_physical(m_Start, m_Vecs, m_Dims, 0.0, wide);
    narrow(wide, m);
}

void IP_Box::GetPhysicalToIndexFromCorner(float m[4][4]) const {
    double wide[4][4];
    index_to_physical(m_Start, m_Vecs, m_Dims, 0.0, wide);
    narrow_inverse(wide, m);
}

void IP_Box::Embed(IP_Dims* dims) {
    if (dims == nullptr) {
        return;
    }
    double steps[3][3];
    voxel_steps(m_Vecs, m_Dims, steps);
    int new_dims[3];
    dims->GetDims(new_dims);

    for (int axis = 0; axis < 3; ++axis) {
        if (new_dims[axis] == m_Dims[axis]) {
            continue;
        }
        const long long margin_vox = (static_cast<long long>(new_dims[axis]) - m_Dims[axis]) / 2;
        for (int i = 0; i < 3; ++i) {
            m_Start[i] = static_cast<float>(m_Start[i] - static_cast<double>(margin_vox) * steps[axis][i]);
            m_Vecs[axis][i] = static_cast<float>(std::max(new_dims[axis], 0) * steps[axis][i]);
        }
        m_Dims[axis] = new_dims[axis];
    }
}
