#include "tests/mip/model.h"

#include "host/memory_pager.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <optional>
#include <utility>

namespace mip_model {

namespace {

constexpr double kPi = 3.14159265358979323846;

double dot(const Vec3& a, const Vec3& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}

bool inside(const Planes& planes, const Volume& v, int x, int y, int z) {
    const Vec3 mm{v.start_mm[0] + (x + 0.5) * v.spacing_mm[0], v.start_mm[1] + (y + 0.5) * v.spacing_mm[1],
                  v.start_mm[2] + (z + 0.5) * v.spacing_mm[2]};
    return std::all_of(planes.begin(), planes.end(), [&](const std::array<float, 4>& eq) {
        return eq[0] * mm[0] + eq[1] * mm[1] + eq[2] * mm[2] + eq[3] <= 0.0;
    });
}

}  // namespace

short& Volume::at(int x, int y, int z) {
    return voxels[static_cast<std::size_t>((z * dims[1] + y) * dims[0] + x)];
}

void Volume::fill(const std::function<int(int, int, int)>& value) {
    voxels.resize(static_cast<std::size_t>(dims[0] * dims[1] * dims[2]));
    for (int z = 0; z < dims[2]; z++) {
        for (int y = 0; y < dims[1]; y++) {
            for (int x = 0; x < dims[0]; x++) {
                at(x, y, z) = static_cast<short>(value(x, y, z));
            }
        }
    }
}

Volume Volume::reduced() const {
    Volume r = *this;
    r.dims = {dims[0] / 2, dims[1] / 2, dims[2]};
    for (std::size_t i = 0; i < 2; i++) {
        r.spacing_mm[i] = spacing_mm[i] * dims[i] / r.dims[i];
    }
    r.fill([this](int x, int y, int z) {
        return std::max(
            {at(2 * x, 2 * y, z), at(2 * x + 1, 2 * y, z), at(2 * x, 2 * y + 1, z), at(2 * x + 1, 2 * y + 1, z)});
    });
    return r;
}

std::shared_ptr<IP_VolData> Volume::to_host() const {
    static int next_series = 0;
    next_series++;
    IP_Box box(dims[0], dims[1], dims[2], static_cast<float>(spacing_mm[0]), static_cast<float>(spacing_mm[1]),
               static_cast<float>(spacing_mm[2]));
    box.Translate(static_cast<float>(start_mm[0]), static_cast<float>(start_mm[1]), static_cast<float>(start_mm[2]));
    auto volume = std::make_shared<IP_VolData>(&box, dims[2]);
    const std::size_t slice_voxels = static_cast<std::size_t>(dims[0] * dims[1]);
    for (int z = 0; z < dims[2]; z++) {
        auto* const block = new MEM_PagerInfo;
        MEM_MemPager::GetHandleForMP()->Allocate(static_cast<unsigned>(slice_voxels * 2), block, 0);
        std::memcpy(block->Ptr(), voxels.data() + static_cast<std::size_t>(z) * slice_voxels, slice_voxels * 2);
        block->Unmap();
        auto* const slice = new IP_ShortSlice(block, {dims[0], dims[1], bits, is_signed}, 0);
        slice->SetOwnsData(true);
        slice->SetID(("series " + std::to_string(next_series) + " slice " + std::to_string(z)).c_str());
        volume->SetSlice(slice, z);
    }
    return volume;
}

Volume phantom(std::array<int, 3> dims, Vec3 spacing_mm, bool is_signed) {
    Volume v;
    v.dims = dims;
    v.spacing_mm = spacing_mm;
    v.start_mm = {-7.0, 11.0, 0.5 * spacing_mm[2]};
    v.is_signed = is_signed;
    v.bits = is_signed ? 13 : 12;
    unsigned state = 12345;
    const int base = is_signed ? -1000 : 0;
    v.fill([&](int x, int y, int z) {
        state = state * 1664525U + 1013904223U;
        const double u = (x + 0.5) / dims[0];
        const double w = (y + 0.5) / dims[1];
        const double t = (z + 0.5) / dims[2];
        int value = base + static_cast<int>((state >> 16) % 60U);
        value += std::hypot(u - 0.3, w - 0.6, t - 0.5) < 0.2 ? 1100 : 0;              // a ball
        value += std::hypot(u - 0.5 - 0.3 * t, w - 0.4 + 0.2 * t) < 0.06 ? 1900 : 0;  // an oblique rod
        value +=
            (x < 2 && y < 3) || (z == dims[2] - 1 && x > dims[0] - 4) || y == dims[1] - 1 ? 700 : 0;  // on the faces
        return value;
    });
    return v;
}

void View::to_matrix(float m[4][4]) const {
    for (int row = 0; row < 4; row++) {
        for (int column = 0; column < 4; column++) {
            m[row][column] = row == 3 || column == 3 ? (row == column ? 1.0F : 0.0F) : 0.0F;
            if (row < 3 && column < 3) {
                m[row][column] = static_cast<float>(axis_in_space(column)[static_cast<std::size_t>(row)]);
            }
        }
    }
}

Vec3 View::axis_in_space(int virtual_axis) const {
    const double az = azimuth * kPi / 180.0;
    const double el = elevation * kPi / 180.0;
    const double ro = roll * kPi / 180.0;
    const Vec3 right{std::cos(az), 0.0, -std::sin(az)};
    const Vec3 ahead_level{std::sin(az), 0.0, std::cos(az)};
    const Vec3 down{std::sin(el) * ahead_level[0], std::cos(el), std::sin(el) * ahead_level[2]};
    const Vec3 ahead{std::cos(el) * ahead_level[0], -std::sin(el), std::cos(el) * ahead_level[2]};
    Vec3 result = ahead;
    for (std::size_t i = 0; i < 3 && virtual_axis < 2; i++) {
        result[i] = virtual_axis == 0 ? std::cos(ro) * right[i] + std::sin(ro) * down[i]
                                      : std::cos(ro) * down[i] - std::sin(ro) * right[i];
    }
    return result;
}

Request::Request(const Volume& source, int width, int height) : Request(source.to_host(), width, height) {
    prepare();
}

Request::Request(std::shared_ptr<IP_VolData> source, int width, int height) {
    p.m_AltVolData = std::make_shared<IP_MultiVolDataIncMIP>();
    p.m_Width = width;
    p.m_Height = height;
    output.assign(static_cast<std::size_t>(width * height), 12345);
    p.m_OutputImage = output.data();
    b.m_MaxIntoOutput = 1;
    show(std::move(source));
}

Request::~Request() {
    IP_MIPProjector::FreePictures(&p, &a, &b);
}

void Request::show(std::shared_ptr<IP_VolData> other) {
    volume = std::move(other);
    p.m_VolData = std::make_shared<IP_MultiVolData>();
    p.m_VolData->AddVolData(volume);
    projector.Reset(&p, 1);
}

bool Request::prepare() {
    auto& prepared = dynamic_cast<IP_MultiVolDataIncMIP&>(*p.m_AltVolData);
    return prepared.Rebuild(p.m_VolData.get(), nullptr, false, 2, 1, 1, 0, false, -32768);
}

void Request::set_view(const View& view) {
    view.to_matrix(p.m_ViewMatrix);
}

void Request::clip(const Planes& planes) {
    clip_manager.FreeAllClipPlane(CLIP_ALL);
    for (std::size_t i = 0; i < planes.size(); i++) {
        clip_manager.SetClipPlane(static_cast<int>(i), planes[i].data());
    }
    p.m_ClipManager = &clip_manager;
}

void Request::draw(bool linear, int threshold) {
    projector.Project(&p, &a, &b, linear ? 1 : 0, 0, threshold);
    projector.Shear(&p, &a, threshold);
    projector.Shear(&p, &b, threshold);
}

std::vector<short> Request::sheared(IP_VolRBoxParamsMIP& box) {
    const std::size_t count =
        static_cast<std::size_t>(box.m_PictureWidth) * static_cast<std::size_t>(box.m_PictureHeight);
    if (count == 0 || box.m_Picture.Map() != 0) {
        return {};
    }
    const auto address = reinterpret_cast<std::uintptr_t>(box.m_Picture.Ptr());
    const auto* const pixels = reinterpret_cast<const short*>((address + 62) & ~std::uintptr_t{63});
    std::vector<short> copy(pixels, pixels + count);
    box.m_Picture.Unmap();
    return copy;
}

int principal_axis(const View& view) {
    const Vec3 ahead = view.axis_in_space(2);
    int best = 0;
    for (int i = 1; i < 3; i++) {
        if (std::fabs(ahead[static_cast<std::size_t>(i)]) > std::fabs(ahead[static_cast<std::size_t>(best)]) + 1e-5) {
            best = i;
        }
    }
    return best;
}

double sheared_pixel(const Volume& v, const IP_VolRBoxParamsMIP& box, const View& view, int axis, int column, int row,
                     Sampling sampling, const Planes& planes, double nothing) {
    // The pixel's centre on the first sheet, in space: integers of the origin are pixel corners.
    float m[4][4];
    box.m_Box.GetIndexToPhysicalTrans(m);
    const double i = column + 0.5 - static_cast<double>(box.m_OriginX);
    const double j = row + 0.5 - static_cast<double>(box.m_OriginY);
    Vec3 index{};
    Vec3 step = view.axis_in_space(2);
    for (std::size_t n = 0; n < 3; n++) {
        const double mm = i * m[0][n] + j * m[1][n] + m[3][n];
        index[n] = (mm - v.start_mm[n]) / v.spacing_mm[n] - 0.5;
        step[n] /= v.spacing_mm[n];
    }

    // Cross the sheets of voxels one by one.
    const std::size_t across = static_cast<std::size_t>(axis);
    const std::size_t u = axis == 0 ? 1 : 0;
    const std::size_t w = axis == 2 ? 1 : 2;
    double brightest = nothing;
    for (int sheet = 0; sheet < v.dims[across]; sheet++) {
        const double t = (sheet - index[across]) / step[across];
        const double pu = index[u] + t * step[u];
        const double pw = index[w] + t * step[w];
        const auto voxel = [&](int iu, int iw) -> std::optional<double> {
            std::array<int, 3> n{};
            n[across] = sheet;
            n[u] = iu;
            n[w] = iw;
            if (iu < 0 || iu >= v.dims[u] || iw < 0 || iw >= v.dims[w] || !inside(planes, v, n[0], n[1], n[2])) {
                return std::nullopt;
            }
            return static_cast<double>(v.at(n[0], n[1], n[2]));
        };
        const int nu = static_cast<int>(std::floor(pu + 0.5));
        const int nw = static_cast<int>(std::floor(pw + 0.5));
        const std::optional<double> own = voxel(nu, nw);
        if (!own) {
            continue;
        }
        double value = *own;
        if (sampling == Sampling::Linear) {
            // A voxel that does not exist gives way to the nearest that does: first along w, then along u.
            const int su = pu < nu ? -1 : 1;
            const int sw = pw < nw ? -1 : 1;
            const double fu = std::fabs(pu - nu);
            const double fw = std::fabs(pw - nw);
            const double own_column = (1.0 - fw) * *own + fw * voxel(nu, nw + sw).value_or(*own);
            const std::optional<double> beside = voxel(nu + su, nw);
            const double next_column =
                beside ? (1.0 - fw) * *beside + fw * voxel(nu + su, nw + sw).value_or(*beside) : own_column;
            value = (1.0 - fu) * own_column + fu * next_column;
        }
        brightest = std::max(brightest, value);
    }
    return brightest;
}

std::array<double, 2> to_pixel(const Request& request, const View& view, const Vec3& point_mm) {
    const IP_VolRParamsMIP& p = request.p;
    float middle[3];
    request.p.m_VolData->GetBoundingBox()->GetMiddle(middle);
    const Vec3 offset{point_mm[0] - middle[0], point_mm[1] - middle[1], point_mm[2] - middle[2]};
    float start[3];
    p.m_ScreenBox.GetStart(start);
    return {(dot(offset, view.axis_in_space(0)) - start[0]) / p.m_ScreenBox.GetWidth() * p.m_Width - 0.5,
            (dot(offset, view.axis_in_space(1)) - start[1]) / p.m_ScreenBox.GetHeight() * p.m_Height - 0.5};
}

}  // namespace mip_model
