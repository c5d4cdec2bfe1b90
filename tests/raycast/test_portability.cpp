// The same picture on every system: what one system drew is kept here as a number for each picture.
#include "ip_volr/IP_PortableMath.h"
#include "tests/raycast/scene.h"

#include <gtest/gtest.h>

#include <cmath>
#include <set>

using namespace raycast_test;

namespace {

// 0 for a picture that shows nothing.
std::uint64_t number_of(const std::vector<std::uint32_t>& picture) {
    std::uint64_t number = 14695981039346656037ULL;
    for (const std::uint32_t pixel : picture) {
        number = (number ^ pixel) * 1099511628211ULL;
    }
    const std::set<std::uint32_t> colours(picture.begin(), picture.end());
    return colours.size() < 50 ? 0 : number;
}

// A sphere that is cut and seen at an angle. No function of the system's decides anything here but the square root.
Scene oblique_scene(bool is_signed) {
    Scene scene = sphere_scene({45, 40, 37}, {1.0, 1.0, 1.3}, is_signed);
    scene.right = {0.8, 0.0, -0.6};
    scene.down = {0.288, 0.877, 0.384};
    scene.down = unit(scene.down);
    scene.into = {0.5262, -0.48, 0.7016};
    scene.into = unit(scene.into);
    scene.light = {0.0, 0.6, 0.8};
    scene.planes = {{0.6, 0.0, 0.8, -8.0}};
    return scene;
}

}  // namespace

TEST(RayCastPortability, PicturesAreThoseOfEverySystem) {
    const std::uint64_t expected[2][3] = {{66970978095528955U, 14643046768862050587U, 15722381239311502858U},
                                          {15418763916559789139U, 78905872952867099U, 15722381239311502858U}};
    for (const int is_signed : {0, 1}) {
        Renderer renderer(oblique_scene(is_signed != 0));
        EXPECT_EQ(number_of(renderer.render(0x00203040)), expected[is_signed][0]);
        renderer.facade.SetRenderMode(IP_VOLRC_VolumeRenderingRC::RENDER_MODE_INTERACTIVE);
        renderer.facade.SetInteractiveQuality(IP_VOLRC_VolumeRenderingRC::INTERACTIVE_QUALITY_1);
        EXPECT_EQ(number_of(renderer.render()), expected[is_signed][1]);
        renderer.facade.SetRenderMode(IP_VOLRC_VolumeRenderingRC::RENDER_MODE_FINAL);
        renderer.facade.SetVolrQuality(IP_VOLRC_VolumeRenderingRC::RENDER_QUALITY_STANDARD);
        EXPECT_EQ(number_of(renderer.render()), expected[is_signed][2]);
    }
}

TEST(PortableMath, PowersAnglesAndLengthsAreRight) {
    for (int k = 0; k < 256; k++) {
        const double base = 1.0 - k / 255.0;
        EXPECT_EQ(ip_volr::portable_power(base, 1.0), base);
        for (const double exponent : {1e-3, 0.3, 0.5, 2.0, 7.7, 30.0}) {
            // The system's own function may be wrong in the last digits.
            const double expected = std::pow(base, exponent);
            EXPECT_NEAR(ip_volr::portable_power(base, exponent), expected, 1e-14 * expected);
        }
        const auto cosine = static_cast<float>(base);
        EXPECT_NEAR(ip_volr::portable_arc_cosine(cosine), std::acos(base), 2e-7);
        EXPECT_FLOAT_EQ(ip_volr::portable_length(cosine, 3.0F), std::hypot(cosine, 3.0F));
    }
    EXPECT_EQ(ip_volr::portable_power(0.5, 0.0), 1.0);
    EXPECT_EQ(ip_volr::portable_power(0.5, 1e300), 0.0);
    EXPECT_TRUE(std::isinf(ip_volr::portable_power(0.5, -INFINITY)));
    EXPECT_TRUE(std::isinf(ip_volr::portable_power(0.0, -1.0)));
    EXPECT_TRUE(std::isnan(ip_volr::portable_power(0.5, NAN)));
    // Where the last bits count: another result here would be another picture.
    EXPECT_EQ(ip_volr::portable_power(0.7, 0.31), 0.89532434239284664);
    EXPECT_EQ(ip_volr::portable_arc_cosine(0.7F), 0.795398831F);
}
