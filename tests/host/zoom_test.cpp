// The zoom: pixels of a double-precision model, the same bytes for every instruction set and number of servers.
#include "host/zoom.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

#include "host/matrix_math.h"
#include "host/reference/settings.h"

namespace {

using reference_host::InstructionSet;

struct Image {
    int width;
    int height;
    std::vector<short> pixels;

    Image(int w, int h, short value = 0)
        : width(w), height(h), pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), value) {}
    IP_Dims Dims() const { return IP_Dims(width, height, 1); }
};

enum class Fill { Random, Extremes, Lowest, Highest };

Image make_image(int width, int height, Fill kind, unsigned seed) {
    Image image(width, height);
    std::minstd_rand random(seed);
    for (short& pixel : image.pixels) {
        const int value = static_cast<int>(random() % 65536) - 32768;
        const int extreme = value < 0 ? -32768 : 32767;
        pixel = static_cast<short>(kind == Fill::Random     ? value
                                   : kind == Fill::Extremes ? extreme
                                   : kind == Fill::Lowest   ? -32768
                                                            : 32767);
    }
    return image;
}

struct Matrix {
    float m[4][4];

    // Turned by an angle, scaled, moved by (x, y) from one pixel centre to another.
    Matrix(double degrees, double scale_x, double scale_y, double x, double y) {
        IP_Midnt(m);
        const double angle = degrees * 3.14159265358979 / 180.0;
        m[0][0] = static_cast<float>(scale_x * std::cos(angle));
        m[0][1] = static_cast<float>(scale_x * std::sin(angle));
        m[1][0] = static_cast<float>(-scale_y * std::sin(angle));
        m[1][1] = static_cast<float>(scale_y * std::cos(angle));
        m[3][0] = static_cast<float>(x + 0.5);
        m[3][1] = static_cast<float>(y + 0.5);
    }
};

Image zoom(const Matrix& matrix, const Image& src, const Image& old, bool keep_maximum, int floor) {
    Image dst = old;
    const IP_Dims s = src.Dims();
    const IP_Dims d = dst.Dims();
    if (keep_maximum) {
        LinShearZoomShortMax(matrix.m, &s, &d, src.pixels.data(), dst.pixels.data(), floor);
    } else {
        LinShearZoomShortOver(matrix.m, &s, &d, src.pixels.data(), dst.pixels.data(), floor, nullptr, nullptr);
    }
    return dst;
}

// The value that destination pixel (x, y) sees, or NaN for nothing.
double model_value(const Matrix& matrix, const Image& src, int x, int y) {
    const double sx =
        static_cast<double>(x) * matrix.m[0][0] + static_cast<double>(y) * matrix.m[1][0] + matrix.m[3][0] - 0.5;
    const double sy =
        static_cast<double>(x) * matrix.m[0][1] + static_cast<double>(y) * matrix.m[1][1] + matrix.m[3][1] - 0.5;
    if (!(sx >= -0.5 && sx <= src.width - 0.5 && sy >= -0.5 && sy <= src.height - 0.5)) {
        return std::numeric_limits<double>::quiet_NaN();
    }
    const auto pixel = [&src](double px, double py) {
        const int ix = static_cast<int>(std::min(std::max(px, 0.0), src.width - 1.0));
        const int iy = static_cast<int>(std::min(std::max(py, 0.0), src.height - 1.0));
        return static_cast<double>(src.pixels[static_cast<std::size_t>(iy) * static_cast<std::size_t>(src.width) +
                                              static_cast<std::size_t>(ix)]);
    };
    const double cx = std::floor(sx);
    const double cy = std::floor(sy);
    const double top = pixel(cx, cy) * (1 - (sx - cx)) + pixel(cx + 1, cy) * (sx - cx);
    const double bottom = pixel(cx, cy + 1) * (1 - (sx - cx)) + pixel(cx + 1, cy + 1) * (sx - cx);
    return top * (1 - (sy - cy)) + bottom * (sy - cy);
}

void expect_like_model(const Matrix& matrix, const Image& src, const Image& old, bool keep_maximum, int floor) {
    const Image dst = zoom(matrix, src, old, keep_maximum, floor);
    int num_wrong = 0;
    for (int y = 0; y < dst.height; ++y) {
        for (int x = 0; x < dst.width; ++x) {
            const std::size_t i =
                static_cast<std::size_t>(y) * static_cast<std::size_t>(dst.width) + static_cast<std::size_t>(x);
            const double least = keep_maximum ? old.pixels[i] : floor;
            const double value = model_value(matrix, src, x, y);
            const double expected = std::isnan(value) ? least : std::max(value, least);
            num_wrong += std::abs(dst.pixels[i] - expected) > 1.0;
        }
    }
    EXPECT_EQ(num_wrong, 0) << src.width << "x" << src.height << " to " << dst.width << "x" << dst.height << " m "
                            << matrix.m[0][0] << " " << matrix.m[0][1] << " " << matrix.m[1][0] << " " << matrix.m[1][1]
                            << " " << matrix.m[3][0] << " " << matrix.m[3][1];
}

const std::vector<Matrix>& matrices() {
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    static const std::vector<Matrix> all = {
        Matrix(0, 1, 1, 0, 0),        Matrix(0, 1, 1, 0.5, -0.5),       Matrix(0, 0.25, 0.25, -0.375, -0.375),
        Matrix(30, 0.7, 1.9, 10, -7), Matrix(-135, 0.31, 0.31, 40, 60), Matrix(90, 1, 1, 20, 0),
        Matrix(180, 2, 2, 62, 62),    Matrix(0, 0, 0, 5.25, 3.5),       Matrix(0, 1, 0, 0, 4.5),
        Matrix(10, 500, 500, -3, -3), Matrix(0, 1e-4, 1e-4, -0.5, 2),   Matrix(45, 1e30, 1e30, 1, 1),
        Matrix(0, 1, 1, 1e9, 1e9),    Matrix(0, 3e38, 1, 2, 2),         Matrix(20, kInfinity, 1, 0, 0),
        Matrix(0, 1, 1, NAN, 0)};
    return all;
}

class ZoomTest : public testing::Test {
protected:
    void TearDown() override {
        reference_host::LimitInstructionSet(InstructionSet::Avx2);
        reference_host::SetNumberOfServers(0);
    }
};

TEST_F(ZoomTest, PixelsAreThoseOfTheModel) {
    const int sizes[][2] = {{64, 64}, {37, 53}, {1, 1}, {1, 40}, {40, 1}, {2, 2}};
    for (const auto& size : sizes) {
        for (const Fill kind : {Fill::Random, Fill::Extremes}) {
            const Image src = make_image(size[0], size[1], kind, 11);
            const Image old = make_image(71, 45, Fill::Random, 12);
            for (const Matrix& matrix : matrices()) {
                expect_like_model(matrix, src, old, false, -1000);
                expect_like_model(matrix, src, old, true, 0);
            }
        }
    }
}

TEST_F(ZoomTest, EveryInstructionSetGivesTheSameBytes) {
    std::minstd_rand random(5);
    const auto uniform = [&random](double low, double high) { return low + (high - low) * (random() % 10001) / 1e4; };
    for (int round = 0; round < 60; ++round) {
        const Fill kind = static_cast<Fill>(round % 4);
        const Image src = make_image(1 + static_cast<int>(random() % 90), 1 + static_cast<int>(random() % 90), kind, 3);
        const Image old = make_image(1 + static_cast<int>(random() % 70), 1 + static_cast<int>(random() % 20), kind, 4);
        const Matrix matrix = round < 16 ? matrices()[static_cast<std::size_t>(round)]
                                         : Matrix(uniform(0, 360), uniform(0.01, 3), uniform(0.01, 3), uniform(-20, 90),
                                                  uniform(-20, 90));
        for (const bool keep_maximum : {false, true}) {
            ASSERT_EQ(reference_host::LimitInstructionSet(InstructionSet::Scalar), InstructionSet::Scalar);
            const Image expected = zoom(matrix, src, old, keep_maximum, -500);
            for (const InstructionSet set : {InstructionSet::Sse41, InstructionSet::Avx2}) {
                if (reference_host::LimitInstructionSet(set) == set) {
                    EXPECT_EQ(zoom(matrix, src, old, keep_maximum, -500).pixels, expected.pixels)
                        << "round " << round << " set " << static_cast<int>(set);
                }
            }
        }
    }
}

TEST_F(ZoomTest, LargePicturesDoNotDependOnTheNumberOfServers) {
    const Image src = make_image(300, 280, Fill::Random, 8);
    const Image old(700, 611, -20000);
    const Matrix matrix(33, 0.45, 0.45, 90, -40);
    reference_host::SetNumberOfServers(1);
    const Image expected = zoom(matrix, src, old, false, -32000);
    for (const int servers : {2, 3, 8}) {
        reference_host::SetNumberOfServers(servers);
        EXPECT_EQ(zoom(matrix, src, old, false, -32000).pixels, expected.pixels) << servers << " servers";
    }
}

TEST_F(ZoomTest, ImagesWithoutPixelsAreSeenNowhere) {
    const Matrix matrix(0, 1, 1, -0.5, -0.5);
    EXPECT_EQ(zoom(matrix, Image(0, 0), Image(3, 2, 9), false, -4).pixels, std::vector<short>(6, -4));
    EXPECT_EQ(zoom(matrix, Image(0, 0), Image(3, 2, 9), true, 50).pixels, std::vector<short>(6, 9));
    EXPECT_EQ(zoom(matrix, Image(2, 2, 7), Image(0, 0), false, 100000).pixels.size(), 0U);
    EXPECT_EQ(zoom(matrix, Image(0, 0), Image(1, 1), false, 100000).pixels[0], 32767);
}

}  // namespace
