// The same picture on every system: what one system drew is kept here as a number for each picture.
#include "tests/mip/model.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <set>

using namespace mip_model;

namespace {

// 0 for a picture that shows nothing.
std::uint64_t number_of(const std::vector<short>& picture) {
    std::uint64_t number = 14695981039346656037ULL;
    for (const short pixel : picture) {
        number = (number ^ static_cast<unsigned short>(pixel)) * 1099511628211ULL;
    }
    const std::set<short> values(picture.begin(), picture.end());
    return values.size() < 50 ? 0 : number;
}

}  // namespace

TEST(MipPortability, PicturesAreThoseOfEverySystem) {
    Volume v;
    v.dims = {41, 35, 29};
    v.spacing_mm = {0.9, 0.8, 1.4};
    v.start_mm = {-3.0, 5.0, 0.7};
    unsigned state = 1;
    v.fill([&](int x, int y, int z) {
        state = state * 1664525U + 1013904223U;
        const int noise = static_cast<int>(state >> 24);
        return noise + (x * 3 + y * 2 - z * 4) % 37 * 20 + ((x - 20) * (x - 20) + (y - 9) * (y - 9) < 20 ? 900 : 0);
    });
    Request r(v);
    const float views[3][3][3] = {{{1, 0, 0}, {0, 1, 0}, {0, 0, 1}},
                                  {{0.8F, 0.288F, 0.526283F}, {0, 0.877208F, -0.480F}, {-0.6F, 0.384F, 0.701711F}},
                                  {{0.28F, 0, 0.96F}, {0, 1, 0}, {-0.96F, 0, 0.28F}}};
    const std::uint64_t expected[3][2] = {{288837960766856383U, 3739133385289906485U},
                                          {14286147214188875574U, 7275804859071634273U},
                                          {2292330319786261686U, 550444130357414231U}};
    r.clip({{0.6F, -0.8F, 0.0F, 2.0F}});
    r.p.m_DepthCueing = 1;
    r.p.m_DepthCueFloor = 0.3F;
    for (int view = 0; view < 3; view++) {
        r.set_view({});
        for (int row = 0; row < 3; row++) {
            std::copy_n(views[view][row], 3, r.p.m_ViewMatrix[row]);
        }
        for (const int linear : {0, 1}) {
            r.draw(linear != 0);
            EXPECT_EQ(number_of(r.output), expected[view][linear]) << view << ' ' << linear;
        }
    }
}
