// Pictures held to the independent model: values, placement, and what happens near 45 degrees.
#include "tests/mip/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

using namespace mip_model;

namespace {

const std::vector<View> kViews = {{0, 0, 0},    {90, 0, 0},    {0, 90, 0},   {180, 0, 0},  {-90, 0, 0}, {0, -90, 0},
                                  {30, 20, 0},  {60, -25, 10}, {200, 40, 0}, {100, 65, 5}, {10, 80, 90}, {44, 1, 0},
                                  {46, -1, 30}, {135, 35, 0},  {3, -2, 45}};

struct Shape {
    std::array<int, 3> dims;
    Vec3 spacing_mm;
    bool is_signed;
};
const std::vector<Shape> kShapes = {{{40, 32, 24}, {1.0, 1.0, 1.0}, true},
                                    {{33, 48, 21}, {0.7, 0.9, 1.1}, false},
                                    {{32, 30, 9}, {0.5, 0.5, 0.55}, true},
                                    {{30, 34, 1}, {1.0, 1.0, 1.0}, true},
                                    {{17, 16, 40}, {1.3, 1.3, 0.6}, true}};

std::string describe(const Shape& s, const View& v) {
    return std::to_string(s.dims[0]) + "x" + std::to_string(s.dims[1]) + "x" + std::to_string(s.dims[2]) + " azimuth " +
           std::to_string(v.azimuth) + " elevation " + std::to_string(v.elevation) + " roll " + std::to_string(v.roll);
}

// Holds every pixel of the linear path's sheared picture to the model.
void expect_linear_picture(Request& r, const Volume& v, const View& view, const Planes& planes, const std::string& what) {
    r.set_view(view);
    r.draw(true);
    const std::vector<short> picture = r.sheared(r.a);
    ASSERT_FALSE(picture.empty()) << what;
    const int axis = principal_axis(view);
    int wrong = 0;
    int undecided = 0;
    double worst = 0.0;
    for (int row = 0; row < r.a.m_PictureHeight; row++) {
        for (int column = 0; column < r.a.m_PictureWidth; column++) {
            const double expected = sheared_pixel(v, r.a, view, axis, column, row, Sampling::Linear, planes, -32768.0);
            const double got = picture[static_cast<std::size_t>(row * r.a.m_PictureWidth + column)];
            const double error = std::fabs(expected - got);
            // A ray half way between an existing and a missing voxel may see either.
            const auto moved = [&](double degrees) {
                return sheared_pixel(v, r.a, {view.azimuth + degrees, view.elevation + degrees, view.roll}, axis, column, row,
                                     Sampling::Linear, planes, -32768.0);
            };
            if (error > 1.0 && std::fabs(moved(0.003) - moved(-0.003)) > 1.0) {
                undecided++;
            } else if (error > 1.0) {
                wrong++;
                worst = std::max(worst, error);
            }
        }
    }
    EXPECT_EQ(wrong, 0) << what << ", worst " << worst;
    EXPECT_LE(undecided, r.a.m_PictureWidth * r.a.m_PictureHeight / 100) << what;
}

}  // namespace

TEST(MipPicture, LinearPathIsBilinearInsideSlicesAndMaximumAcross) {
    for (const Shape& shape : kShapes) {
        const Volume v = phantom(shape.dims, shape.spacing_mm, shape.is_signed);
        Request r(v);
        for (const View& view : kViews) {
            if (std::getenv("MIP_DUMP")) {
                static int n = 0;
                r.set_view(view);
                r.draw(true);
                write_pgm("/tmp/mipdump/l" + std::to_string(100+n) + ".pgm", r.output, r.p.m_Width, r.p.m_Height, -1100, 1500);
                r.draw(false);
                write_pgm("/tmp/mipdump/f" + std::to_string(100+n) + ".pgm", r.output, r.p.m_Width, r.p.m_Height, -1100, 1500);
                n++;
            }
            if (shape.dims[2] == 1 && principal_axis(view) != 2) {
                continue;  // seen edge on a single slice is one line
            }
            expect_linear_picture(r, v, view, {}, describe(shape, view));
        }
    }
}
