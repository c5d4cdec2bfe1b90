// Structures and constants come from the format's own header files; its library is not linked, because its versions for
// NIfTI-1 (which ITK links) and NIfTI-2 define the same symbols over different structures.
#include "scene/import/nifti_header.h"

#include <nifti1.h>
#include <nifti2.h>

#include <algorithm>
#include <cmath>
#include <cstring>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

static_assert(sizeof(nifti_1_header) == 348 && sizeof(nifti_2_header) == 540);

constexpr int kUnitsOfSpace = 0x07;

// Fields of a raw header in native byte order.
class Fields {
public:
    explicit Fields(bool is_swapped) : m_isSwapped(is_swapped) {}

    template <typename Number>
    Number operator()(Number raw) const {
        if (m_isSwapped) {
            auto* const bytes = reinterpret_cast<unsigned char*>(&raw);
            std::reverse(bytes, bytes + sizeof raw);
        }
        return raw;
    }

private:
    bool m_isSwapped;
};

// Right-anterior-superior to left-posterior-superior, and the file's unit to mm.
Affine ToLpsMm(const Affine& ras, int units) {
    const double to_mm = units == NIFTI_UNITS_METER ? 1e3 : units == NIFTI_UNITS_MICRON ? 1e-3 : 1.0;
    Affine lps = ras;
    for (std::size_t i = 0; i < lps.size(); ++i) {
        lps[i] *= i < 8 ? -to_mm : to_mm;
    }
    return lps;
}

// Rotation of a unit quaternion (a, b, c, d) of which the file holds b, c and d; steps along the axes; the third axis
// is mirrored when qfac is negative. Formula of the NIfTI-1 standard, method 2.
Affine QuaternionAffine(Vec3 bcd, const Vec3& offset, const std::array<double, 4>& steps) {
    const double square = Dot(bcd, bcd);
    double a = 0.0;
    if (square > 1.0) {
        bcd = AddScaled({}, bcd, 1.0 / std::sqrt(square));
    } else {
        a = std::sqrt(1.0 - square);
    }
    const auto [b, c, d] = bcd;
    const double qfac = steps[0] < 0.0 ? -1.0 : 1.0;
    const double x = std::abs(steps[1]), y = std::abs(steps[2]), z = std::abs(steps[3]) * qfac;
    return {(a * a + b * b - c * c - d * d) * x, 2.0 * (b * c - a * d) * y,
            2.0 * (b * d + a * c) * z,           offset[0],
            2.0 * (b * c + a * d) * x,           (a * a + c * c - b * b - d * d) * y,
            2.0 * (c * d - a * b) * z,           offset[1],
            2.0 * (b * d - a * c) * x,           2.0 * (c * d + a * b) * y,
            (a * a + d * d - c * c - b * b) * z, offset[2]};
}

// What both versions hold under the same names, though in different types and places.
template <typename Raw>
NiftiHeader Convert(const Raw& raw, bool is_swapped, const std::string& path) {
    const Fields field(is_swapped);
    NiftiHeader header;
    header.is_swapped = is_swapped;
    header.num_bytes = sizeof raw;
    header.datatype = field(raw.datatype);
    header.slope = field(raw.scl_slope);
    header.intercept = field(raw.scl_inter);
    header.sform_code = static_cast<int>(field(raw.sform_code));
    header.qform_code = static_cast<int>(field(raw.qform_code));

    // Sizes.
    const auto num_axes = field(raw.dim[0]);
    if (num_axes < 1 || num_axes > 7) {
        Refuse(path, "its header says it has " + std::to_string(num_axes) + " axes", "the header is damaged");
    }
    header.num_axes = static_cast<int>(num_axes);
    header.sizes.fill(1);
    for (int axis = 0; axis < header.num_axes; ++axis) {
        header.sizes[static_cast<std::size_t>(axis)] = field(raw.dim[axis + 1]);
    }
    const auto offset = static_cast<double>(field(raw.vox_offset));
    if (!(offset >= 0.0 && offset < 1e15)) {
        Refuse(path, "its header does not say where the image starts", "the header is damaged");
    }
    header.data_offset = std::max(static_cast<std::uint64_t>(offset), header.num_bytes);

    // Geometry.
    const int units = static_cast<int>(field(raw.xyzt_units)) & kUnitsOfSpace;
    std::array<double, 4> steps;
    Affine sform;
    for (int i = 0; i < 4; ++i) {
        steps[i] = field(raw.pixdim[i]);
        sform[i] = field(raw.srow_x[i]);
        sform[4 + i] = field(raw.srow_y[i]);
        sform[8 + i] = field(raw.srow_z[i]);
    }
    const Vec3 bcd = {field(raw.quatern_b), field(raw.quatern_c), field(raw.quatern_d)};
    const Vec3 start = {field(raw.qoffset_x), field(raw.qoffset_y), field(raw.qoffset_z)};
    const bool has_qform = header.qform_code > 0;
    steps[0] = has_qform ? steps[0] : 1.0;
    header.sform = ToLpsMm(sform, units);
    header.qform = ToLpsMm(QuaternionAffine(has_qform ? bcd : Vec3{}, has_qform ? start : Vec3{}, steps), units);
    return header;
}

template <typename Raw>
Raw ReadRest(ByteSource& source, std::int32_t first) {
    Raw raw;
    std::memcpy(static_cast<void*>(&raw), &first, sizeof first);
    source.Read(reinterpret_cast<char*>(&raw) + sizeof first, sizeof raw - sizeof first);
    return raw;
}

}  // namespace

NiftiHeader ReadNiftiHeader(ByteSource& source, const std::string& path) {
    std::int32_t size = 0;
    source.Read(&size, sizeof size);
    const std::int32_t swapped_size = Fields(true)(size);
    if (size == 348 || swapped_size == 348) {
        const auto raw = ReadRest<nifti_1_header>(source, size);
        if (std::memcmp(raw.magic, "n+1", 4) != 0) {
            Refuse(path, "no single-file NIfTI header", "convert it to .nii, with a position");
        }
        return Convert(raw, size != 348, path);
    }
    if (size == 540 || swapped_size == 540) {
        const auto raw = ReadRest<nifti_2_header>(source, size);
        if (std::memcmp(raw.magic, "n+2\0\r\n\032\n", 8) != 0) {
            Refuse(path, "no single-file NIfTI header", "the header is damaged");
        }
        return Convert(raw, size != 540, path);
    }
    Refuse(path, "no NIfTI header", "the file is damaged or of another format");
}

}  // namespace scene::import
