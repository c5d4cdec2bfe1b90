// Leaps over empty bricks against single steps.
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_EmptySpace.h"
#include "ip_volr/IP_VOLRC_ListRay.h"
#include "tests/raycast/scene.h"

#include <gtest/gtest.h>

#include <memory>
#include <random>

namespace {

using namespace raycast_test;

struct Tables {
    unsigned short luminosity[16][65536] = {};
    int prefix[16][65536] = {};
    unsigned colours[16][65536] = {};
};

// One step; what the ray caster does in an empty brick.
bool step_to_visible_brick(const IP_VOLRC_BrickStructure& bricks, const int increment[3], int step, _listRay& ray) {
    for (;;) {
        const IP_VOLRC_BrickData* const brick =
            bricks.GetBrick(static_cast<int>(ray.position[0] >> 21), static_cast<int>(ray.position[1] >> 21),
                            static_cast<int>(ray.position[2] >> 21));
        if (brick == nullptr) {
            return false;
        }
        if (brick->GetZeroLevelLuminosity() != 0) {
            return true;
        }
        for (int axis = 0; axis < 3; axis++) {
            ray.position[axis] += static_cast<unsigned>(increment[axis]);
        }
        ray.step_count += step;
        if (ray.step_count > ray.end) {
            return false;
        }
    }
}

TEST(RayCastEmptySpace, LeapsLandWhereSingleStepsDo) {
    // A few visible voxels in a volume of 7 x 6 x 5 bricks.
    std::mt19937 random(7);
    Scene scene;
    scene.dims = {210, 180, 150};
    scene.fill([&](double, double, double) { return random() % 60000 == 0 ? 100 : 0; });
    scene.set_table(15, [](double v) -> std::array<double, 4> { return {v > 50 ? 1.0 : 0.0, 1, 1, 1}; });
    const auto volume = make_volume(scene);
    const auto tables = std::make_unique<Tables>();
    IP_VOLRC_BrickStructure bricks(tables->luminosity, tables->prefix, tables->colours, true);
    bricks.SetMaxLayerLoaded(1);
    ASSERT_TRUE(bricks.Init(volume.get()));
    unsigned* colours[16];
    std::fill_n(colours, 16, scene.colours[15].data() - scene.lowest());
    double params[3] = {};
    unsigned shading[256][4] = {};
    bricks.SetColorTables(colours, &shading[0][0], scene.bits, params, VISIBILITY_BY_OPACITY);
    IP_VOLRC_EmptySpace space;
    space.find_empty_bricks(bricks);

    int landed = 0;
    int leapt = 0;
    for (int round = 0; round < 60; round++) {
        // All octants, axes along which nothing moves, steps of many lengths.
        int increment[3];
        for (int& component : increment) {
            const int length = round % 10 == 9 ? 3000000 : 60000;
            component = random() % 5 == 0 ? 0 : static_cast<int>(random() % (2 * length)) - length;
        }
        increment[round % 3] |= 1;
        const int step = 1 + static_cast<int>(random() % 70000);
        space.prepare(increment, step);
        for (int i = 0; i < 100; i++) {
            _listRay ray = {};
            for (int axis = 0; axis < 3; axis++) {
                ray.position[axis] =
                    random() % (static_cast<unsigned>(scene.dims[static_cast<std::size_t>(axis)]) << 16);
            }
            ray.step_count = static_cast<int>(random() % 4000000) - 2000000;
            ray.end = ray.step_count + static_cast<int>(random() % (step * 2000LL));
            _listRay stepped = ray;
            const bool expected = step_to_visible_brick(bricks, increment, step, stepped);
            const int before = ray.step_count;
            ASSERT_EQ(space.leap(ray), expected);
            landed += expected ? 1 : 0;
            leapt += ray.step_count != before ? 1 : 0;
            // A ray that left the volume may have been carried on to its end.
            if (expected || stepped.step_count > stepped.end) {
                ASSERT_EQ(ray.step_count, stepped.step_count);
                ASSERT_TRUE(std::equal(ray.position, ray.position + 3, stepped.position));
            }
        }
    }
    EXPECT_GT(landed, 1000);
    EXPECT_GT(leapt, 1000);
}

}  // namespace
