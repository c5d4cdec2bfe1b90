// Pictures held to the independent model: values, placement, and what happens near 45 degrees.
#include "tests/mip/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdlib>

using namespace mip_model;

namespace {

const std::vector<View> kViews = {{0, 0, 0},    {90, 0, 0},  {0, 90, 0},    {180, 0, 0},  {-90, 0, 0},
                                  {0, -90, 0},  {30, 20, 0}, {60, -25, 10}, {200, 40, 0}, {100, 65, 5},
                                  {10, 80, 90}, {44, 1, 0},  {46, -1, 30},  {135, 35, 0}, {3, -2, 45}};

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
void expect_linear_picture(Request& r, const Volume& v, const View& view, const Planes& planes,
                           const std::string& what) {
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
                return sheared_pixel(v, r.a, {view.azimuth + degrees, view.elevation + degrees, view.roll}, axis,
                                     column, row, Sampling::Linear, planes, -32768.0);
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
            if (shape.dims[2] == 1 && principal_axis(view) != 2) {
                continue;  // seen edge on a single slice is one line
            }
            expect_linear_picture(r, v, view, {}, describe(shape, view));
        }
    }
}

TEST(MipPicture, AxisAlignedViewsAreTheExactMaximum) {
    for (const Shape& shape : kShapes) {
        const Volume v = phantom(shape.dims, shape.spacing_mm, shape.is_signed);
        const Volume reduced = v.reduced();
        Request r(v);
        for (std::size_t i = 0; i < 6; i++) {
            const View& view = kViews[i];
            const int axis = principal_axis(view);
            r.set_view(view);
            for (const bool linear : {true, false}) {
                r.draw(linear);
                // The fast path draws from the transposed copy when its x faces the viewer.
                IP_VolRBoxParamsMIP& box = !linear && axis == 0 ? r.b : r.a;
                const std::vector<short> picture = r.sheared(box);
                ASSERT_FALSE(picture.empty()) << describe(shape, view) << linear;
                const short nothing = linear ? -32768 : *std::min_element(picture.begin(), picture.end());
                for (int row = 0; row < box.m_PictureHeight; row++) {
                    for (int column = 0; column < box.m_PictureWidth; column++) {
                        const double expected = sheared_pixel(linear ? v : reduced, box, view, axis, column, row,
                                                              Sampling::Nearest, {}, nothing);
                        const short got = picture[static_cast<std::size_t>(row * box.m_PictureWidth + column)];
                        // Beyond the volume lie the margins of prepared slices, which hold their lowest value.
                        const bool is_margin = !linear && expected == nothing && got <= -4096;
                        ASSERT_TRUE(got == expected || is_margin || (!linear && expected == nothing && got == 0))
                            << describe(shape, view) << (linear ? " linear" : " fast") << " at " << column << ',' << row
                            << ": " << got << " for " << expected;
                    }
                }
            }
        }
    }
}

namespace {

// Centre of what is brighter than half the brightest, weighted by value.
std::array<double, 2> centre_of_brightness(const Request& r) {
    const double limit = *std::max_element(r.output.begin(), r.output.end()) / 2.0;
    double sum = 0.0;
    std::array<double, 2> centre{};
    for (int y = 0; y < r.p.m_Height; y++) {
        for (int x = 0; x < r.p.m_Width; x++) {
            const double w = std::max(r.output[static_cast<std::size_t>(y * r.p.m_Width + x)] - limit, 0.0);
            sum += w;
            centre[0] += w * x;
            centre[1] += w * y;
        }
    }
    return {centre[0] / sum, centre[1] / sum};
}

Volume blob(std::array<int, 3> dims, Vec3 spacing_mm, const Vec3& centre_voxel) {
    Volume v;
    v.dims = dims;
    v.spacing_mm = spacing_mm;
    v.start_mm = {5.0, -20.0, 0.5};
    v.bits = 12;
    v.fill([&](int x, int y, int z) {
        const double rx = (x - centre_voxel[0]) * spacing_mm[0];
        const double ry = (y - centre_voxel[1]) * spacing_mm[1];
        const double rz = (z - centre_voxel[2]) * spacing_mm[2];
        return static_cast<int>(1500.0 * std::exp(-(rx * rx + ry * ry + rz * rz) / (2.0 * 7.0 * 7.0)));
    });
    return v;
}

}  // namespace

TEST(MipPicture, ThingsStandWhereTheyAreOnBothPaths) {
    const Vec3 centre{35.5, 30.5, 21.5};
    const Volume v = blob({64, 64, 48}, {1.0, 1.1, 0.9}, centre);
    Request r(v, 200, 180);
    r.p.m_Zoom = 1.3F;
    r.p.m_PanX = 0.05F;
    r.p.m_PanY = -0.03F;
    Vec3 centre_mm{};
    for (std::size_t i = 0; i < 3; i++) {
        centre_mm[i] = v.start_mm[i] + (centre[i] + 0.5) * v.spacing_mm[i];
    }
    double sum[2] = {0.0, 0.0};
    for (const View& view : kViews) {
        r.set_view(view);
        std::array<double, 2> places[2];
        for (const bool linear : {false, true}) {
            r.draw(linear, 0);
            places[linear ? 1 : 0] = centre_of_brightness(r);
        }
        const std::array<double, 2> expected = to_pixel(r, view, centre_mm);
        const bool is_axis_aligned = &view < &kViews[6];
        for (std::size_t i = 0; i < 2; i++) {
            EXPECT_NEAR(places[1][i], expected[i], 0.1) << "linear " << view.azimuth << ' ' << view.elevation;
            // Nearest slices stand up to half a reduced voxel beside their place when they are sheared.
            const double half_voxel = is_axis_aligned ? 0.1 : r.p.m_Width * 1.1 / r.p.m_ScreenBox.GetWidth();
            EXPECT_NEAR(places[0][i], expected[i], half_voxel) << "fast " << view.azimuth << ' ' << view.elevation;
        }
    }

    // To neither side on the average.
    int num_views = 0;
    for (int azimuth = 2; azimuth < 360; azimuth += 7, num_views++) {
        const View view{static_cast<double>(azimuth), 0.37 * azimuth, 0.0};
        r.set_view(view);
        r.draw(false, 0);
        const std::array<double, 2> place = centre_of_brightness(r);
        const std::array<double, 2> expected = to_pixel(r, view, centre_mm);
        sum[0] += place[0] - expected[0];
        sum[1] += place[1] - expected[1];
    }
    EXPECT_NEAR(sum[0] / num_views, 0.0, 0.1);
    EXPECT_NEAR(sum[1] / num_views, 0.0, 0.1);
}

TEST(MipPicture, NoSeamAndNoJumpOverAFullTurn) {
    // One value everywhere: whatever is drawn inside the outline must have it, whichever copy it comes from.
    Volume v;
    v.dims = {48, 40, 44};
    v.spacing_mm = {1.0, 1.0, 1.2};
    v.start_mm = {0.0, 0.0, 1.2};
    v.fill([](int, int, int) { return 1000; });
    Request r(v, 128, 128);
    for (int degrees = 0; degrees < 360; degrees += 3) {
        const View view{static_cast<double>(degrees), degrees % 2 == 0 ? 10.0 : -17.0, 0.0};
        r.set_view(view);
        r.draw(false, 0);
        int wrong = 0;
        // A ball well inside the volume covers these pixels from every side.
        for (int y = 64 - 18; y <= 64 + 18; y++) {
            for (int x = 64 - 18; x <= 64 + 18; x++) {
                wrong += r.output[static_cast<std::size_t>(y * 128 + x)] != 1000 ? 1 : 0;
            }
        }
        EXPECT_EQ(wrong, 0) << degrees;
    }

    // A ball turns smoothly: inside the band where both copies draw no step stands out.
    const Volume ball = blob({64, 64, 64}, {1.0, 1.0, 1.0}, {40.0, 30.0, 35.0});
    Request turn(ball, 128, 128);
    std::vector<short> before;
    std::vector<double> changes;
    for (int degrees = 0; degrees <= 180; degrees++) {
        turn.set_view({static_cast<double>(degrees), 0.0, 0.0});
        turn.draw(false, 0);
        double change = 0.0;
        for (std::size_t i = 0; i < before.size(); i++) {
            change += std::abs(turn.output[i] - before[i]);
        }
        changes.push_back(change);
        before = turn.output;
    }
    std::vector<double> sorted(changes.begin() + 1, changes.end());
    std::sort(sorted.begin(), sorted.end());
    for (std::size_t degrees = 20; degrees <= 70; degrees++) {
        EXPECT_LT(changes[degrees], 3.0 * sorted[sorted.size() / 2]) << degrees;
        EXPECT_LT(changes[degrees + 90], 3.0 * sorted[sorted.size() / 2]) << degrees + 90;
    }
}

TEST(MipPicture, TurningTransposesAFewSlicesAtATime) {
    const Volume v = phantom({32, 32, 46}, {1.0, 1.0, 1.0});
    Request r(v);
    auto* const prepared = static_cast<IP_VolDataProj*>(r.p.m_AltVolData->GetVolData(0));
    int transposed = 0;
    for (int degrees = 0; degrees <= 90; degrees++) {
        r.set_view({static_cast<double>(degrees), 0.0, 0.0});
        r.draw(false);
        int now = 0;
        for (int z = 0; z < 46; z++) {
            now += prepared->IsSliceTransposed(z) ? 1 : 0;
        }
        EXPECT_LE(now - transposed, 2) << degrees;
        EXPECT_GE(now - transposed, 0) << degrees;
        transposed = now;
    }
    EXPECT_EQ(transposed, 46);
}

TEST(MipPicture, ThickSlicesAreSlabsWithoutGaps) {
    // Slices five pixels thick, first slice where the host's frame puts it; far away the scale is limited.
    Volume v;
    v.dims = {60, 60, 12};
    v.spacing_mm = {1.0, 1.0, 5.0};
    v.fill([](int, int, int) { return 800; });
    for (const double first_z : {5.0, 600.0}) {
        v.start_mm = {0.0, 0.0, first_z - 2.5};
        Request r(v, 128, 128);
        for (const View& view : {View{25, 10, 0}, View{40, 0, 0}, View{10, -30, 20}}) {
            for (const bool linear : {false, true}) {
                r.set_view(view);
                r.draw(linear, 0);
                int wrong = 0;
                for (int y = 64 - 15; y <= 64 + 15; y++) {
                    for (int x = 64 - 15; x <= 64 + 15; x++) {
                        wrong += r.output[static_cast<std::size_t>(y * 128 + x)] != 800 ? 1 : 0;
                    }
                }
                EXPECT_EQ(wrong, 0) << first_z << ' ' << view.azimuth << (linear ? " linear" : " fast");
                EXPECT_LE(r.a.m_PictureWidth, 60 + 21 + 16 * 60);
            }
        }
    }
}

TEST(MipPicture, DepthCueRunsLinearlyFromNearToFar) {
    // One bright voxel a slice, each in a column of its own: its value tells the weight of its slice.
    Volume v;
    v.dims = {32, 32, 11};
    v.fill([](int x, int y, int z) { return y == 16 && x == 2 * z + 4 ? 1024 * 16 : 0; });
    Request r(v);
    r.p.m_DepthCueing = 1;
    r.p.m_DepthCueFloor = 0.25F;
    for (const double azimuth : {0.0, 180.0}) {
        for (const bool linear : {false, true}) {
            r.set_view({azimuth, 0.0, 0.0});
            r.draw(linear);
            const std::vector<short> picture = r.sheared(r.a);
            for (int z = 0; z < 11; z++) {
                const double depth = (azimuth == 0.0 ? z : 10 - z) / 10.0;
                const double expected = 16384.0 * (1023.0 / 1024.0 + (0.25 - 1023.0 / 1024.0) * depth);
                const int column = static_cast<int>(r.a.m_OriginX) + (linear ? 2 * z + 4 : z + 2);
                const int row = static_cast<int>(r.a.m_OriginY) + (linear ? 16 : 8);
                EXPECT_NEAR(picture[static_cast<std::size_t>(row * r.a.m_PictureWidth + column)], expected, 1.0)
                    << azimuth << (linear ? " linear " : " fast ") << z;
            }
        }
    }
    // A slice without memory turns the weighting off for the frame.
    r.volume->GetSlice(5)->SetData(nullptr, true);
    r.set_view({});
    r.draw(true);
    const std::vector<short> picture = r.sheared(r.a);
    EXPECT_EQ(*std::max_element(picture.begin(), picture.end()), 16384);
}
