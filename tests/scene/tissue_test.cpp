// Labels: they lie where the map says whatever its axes, get the looks asked for, and reach the engines voxel by voxel.
#include "scene/tissues.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <numeric>

#include "scene/error.h"
#include "scene/projection.h"
#include "scene/vector3.h"
#include "scene/volume_source.h"
#include "tests/scene/turned_grid.h"

namespace {

using scene::ImportedVolume;
using scene::LabelVolume;
using scene::PlanTissues;
using scene::TissueLook;
using scene::TissuePlan;
using scene::TissueWish;
using scene::Vec3;
using scene_test::TurnedVolume;

using Index = std::array<int, 3>;
using Column = std::array<double, 3>;

std::size_t Linear(const Index& dims, const Index& i) {
    return (static_cast<std::size_t>(i[2]) * static_cast<std::size_t>(dims[1]) + static_cast<std::size_t>(i[1])) *
               static_cast<std::size_t>(dims[0]) +
           static_cast<std::size_t>(i[0]);
}

// Calls visit(index) for all voxels.
template <class Visit>
void ForEachVoxel(const Index& dims, const Visit& visit) {
    for (int z = 0; z < dims[2]; ++z) {
        for (int y = 0; y < dims[1]; ++y) {
            for (int x = 0; x < dims[0]; ++x) {
                visit(Index{x, y, z});
            }
        }
    }
}

Column Position(const ImportedVolume& v, const std::array<double, 3>& index) {
    Column p{};
    for (std::size_t j = 0; j < 3; ++j) {
        p[j] = v.index_to_patient[4 * j + 3];
        for (std::size_t i = 0; i < 3; ++i) {
            p[j] += v.index_to_patient[4 * j + i] * index[i];
        }
    }
    return p;
}

// A label map over the volume's own positions: axis i of the map runs along axis order[i] of the volume, backwards
// where flip says so; its first voxel is the volume's voxel `first`.
ImportedVolume Reordered(const ImportedVolume& volume, const Index& dims, const Index& order, unsigned flip,
                         const Index& first) {
    ImportedVolume map = volume;
    map.dims = dims;
    map.voxels = scene::VoxelBuffer(Linear(dims, {0, 0, dims[2]}));
    const Column origin = Position(volume, {1.0 * first[0], 1.0 * first[1], 1.0 * first[2]});
    for (std::size_t j = 0; j < 3; ++j) {
        map.index_to_patient[4 * j + 3] = origin[j];
        for (std::size_t i = 0; i < 3; ++i) {
            const double sign = (flip >> i & 1U) != 0 ? -1.0 : 1.0;
            map.index_to_patient[4 * j + i] =
                sign * volume.index_to_patient[4 * j + static_cast<std::size_t>(order[i])];
        }
    }
    return map;
}

int LabelAt(const LabelVolume& labels, const Index& i) {
    return labels.Slice(i[2])[Linear(labels.Dims(), {i[0], i[1], 0})];
}

TEST(LabelMaps, LieAtTheirPlaceWhateverTheOrderOfTheirAxes) {
    const ImportedVolume volume = TurnedVolume({11, 9, 7}, {0.7, 1.1, 2.5}, 33.0);
    Index order = {0, 1, 2};
    do {
        for (unsigned flip = 0; flip < 8; ++flip) {
            // A map that begins inside the volume and ends beyond it.
            const Index size = {8, 10, 6};
            const Index first = {3, 4, 2};
            ImportedVolume map = Reordered(volume, size, order, flip, first);
            std::vector<int> expected(volume.voxels.size(), 0);
            int number = 0;
            ForEachVoxel(size, [&](const Index& i) {
                Index at = first;
                bool inside = true;
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    at[static_cast<std::size_t>(order[axis])] += (flip >> axis & 1U) != 0 ? -i[axis] : i[axis];
                }
                for (std::size_t axis = 0; axis < 3; ++axis) {
                    inside = inside && at[axis] >= 0 && at[axis] < volume.dims[axis];
                }
                map.voxels[Linear(size, i)] = static_cast<std::int16_t>(++number % 5 == 0 ? 0 : 40000 + number);
                if (inside && number % 5 != 0) {
                    expected[Linear(volume.dims, at)] = 40000 + number;
                }
            });

            LabelVolume labels(volume);
            labels.Add(map, false, "map");
            int num_wrong = 0;
            int num_set = 0;
            ForEachVoxel(volume.dims, [&](const Index& i) {
                num_wrong += LabelAt(labels, i) != expected[Linear(volume.dims, i)] ? 1 : 0;
                num_set += LabelAt(labels, i) != 0 ? 1 : 0;
            });
            EXPECT_EQ(num_wrong, 0) << order[0] << order[1] << order[2] << " flip " << flip;
            EXPECT_GT(num_set, 0) << order[0] << order[1] << order[2] << " flip " << flip;
        }
    } while (std::next_permutation(order.begin(), order.end()));
}

TEST(LabelMaps, OfAnotherGridAreRefusedOrResampledToTheNearestVoxel) {
    const ImportedVolume volume = TurnedVolume({23, 17, 9}, {1.0, 1.0, 2.0}, 20.0);
    ImportedVolume map = TurnedVolume({12, 12, 7}, {1.7, 1.3, 2.2}, 24.0);
    std::iota(map.voxels.data(), map.voxels.data() + map.voxels.size(), std::int16_t{1});
    LabelVolume labels(volume);
    EXPECT_THROW(labels.Add(map, false, "map"), scene::Error);
    labels.Add(map, true, "map");

    // By exhaustive search: the nearest voxel of the map holds the label, none is more than half a voxel away.
    ForEachVoxel(volume.dims, [&](const Index& i) {
        const Column p = Position(volume, {1.0 * i[0], 1.0 * i[1], 1.0 * i[2]});
        Index nearest{};
        bool inside = true;
        for (std::size_t axis = 0; axis < 3; ++axis) {
            double along = 0.0;
            for (std::size_t j = 0; j < 3; ++j) {
                along += (p[j] - map.index_to_patient[4 * j + 3]) * map.index_to_patient[4 * j + axis];
            }
            along /= map.spacing_mm[axis] * map.spacing_mm[axis];
            nearest[axis] = static_cast<int>(std::lround(along));
            inside = inside && nearest[axis] >= 0 && nearest[axis] < map.dims[axis];
        }
        const int expected = inside ? map.voxels[Linear(map.dims, nearest)] : 0;
        ASSERT_EQ(LabelAt(labels, i), expected) << i[0] << " " << i[1] << " " << i[2];
    });

    // Beside the volume; half a voxel off; a tenth of a per cent of spacing over 1000 voxels.
    ImportedVolume far = Reordered(volume, {4, 4, 4}, {0, 1, 2}, 0, {100, 0, 0});
    EXPECT_THROW(LabelVolume(volume).Add(far, true, "far"), scene::Error);
    ImportedVolume shifted = volume;
    shifted.index_to_patient[3] += 0.5;
    EXPECT_THROW(LabelVolume(volume).Add(shifted, false, "shifted"), scene::Error);
    shifted.index_to_patient[3] -= 0.5 - 0.01;
    EXPECT_NO_THROW(LabelVolume(volume).Add(shifted, false, "shifted"));
}

TEST(LabelMaps, FurtherMapsLieOnTopWithNumbersOfTheirOwn) {
    const ImportedVolume volume = TurnedVolume({6, 1, 1}, {1, 1, 1}, 0.0);
    ImportedVolume first = TurnedVolume({6, 1, 1}, {1, 1, 1}, 0.0);
    ImportedVolume second = TurnedVolume({6, 1, 1}, {1, 1, 1}, 0.0);
    const int first_values[] = {0, 3, 3, 7, 7, 0};
    const int second_values[] = {0, 0, 255, 255, 9, 9};
    std::copy(std::begin(first_values), std::end(first_values), first.voxels.data());
    std::copy(std::begin(second_values), std::end(second_values), second.voxels.data());
    LabelVolume labels(volume);
    labels.Add(first, false, "first");
    labels.Add(second, false, "second");
    const std::vector<int> expected = {0, 3, 9, 9, 8, 8};
    EXPECT_EQ(std::vector<int>(labels.Slice(0), labels.Slice(0) + 6), expected);
    EXPECT_EQ(labels.Present(), (std::vector<int>{3, 7, 8, 9}));
}

TEST(LabelTables, AreReadLineByLine) {
    const auto entries = scene::ParseLabelTable(
        "# a comment\n\n    0     0    0    0        0  0  0    \"Clear Label\"\r\n"
        "   12   255  128    1      0.5  1  0    \"left \"\"lung\"\n3 1 2 3 1 0 0",
        "table");
    ASSERT_EQ(entries.size(), 3U);
    EXPECT_EQ(entries[1].label, 12);
    EXPECT_EQ(entries[1].rgb, 0xFF8001U);
    EXPECT_EQ(entries[1].opacity, 0.5);
    EXPECT_EQ(entries[1].name, "left \"\"lung");
    EXPECT_FALSE(entries[2].visible);
    for (const char* wrong :
         {"", "# nothing\n", "1 2 3\n", "1 300 0 0 1 1 1 \"x\"", "1 0 0 0 2 1 1 \"x\"", "-1 0 0 0 1 1 1 \"x\"",
          "1.5 0 0 0 1 1 1 \"x\"", "a 0 0 0 1 1 1 \"x\"", "1 0 0 0 nan 1 1"}) {
        EXPECT_THROW(scene::ParseLabelTable(wrong, "table"), scene::Error) << wrong;
    }
}

TissueWish Wish(int label, const TissueLook& look) {
    return {label, look, false};
}

TEST(TissuePlans, GiveEachLabelTheLookAskedFor) {
    const TissueLook red = TissueLook::Colour(0xFF0000, 1.0);
    const TissueLook blue = TissueLook::Colour(0x0000FF, 0.5);
    const auto look_of = [](const TissuePlan& plan, int label) {
        return plan.LookOf(plan.index_of_label[static_cast<std::size_t>(label)]);
    };

    // Wishes; labels without one look like the volume.
    const TissuePlan plan =
        PlanTissues({1, 2, 3, 900}, {Wish(1, red), Wish(2, TissueLook::Hidden()), Wish(900, red)}, {});
    EXPECT_EQ(look_of(plan, 1), red);
    EXPECT_TRUE(plan.IsHidden(2));
    EXPECT_EQ(look_of(plan, 900), red);
    EXPECT_EQ(plan.index_of_label[3], TissuePlan::kRest);
    EXPECT_EQ(plan.index_of_label[0], TissuePlan::kRest);

    // Only: the rest is hidden, the label keeps its colour.
    const TissuePlan only = PlanTissues({1, 2}, {Wish(1, red), {1, std::nullopt, true}}, {});
    EXPECT_EQ(look_of(only, 1), red);
    EXPECT_TRUE(only.IsHidden(2));
    EXPECT_TRUE(only.IsHidden(0));
    const TissuePlan plain_only = PlanTissues({1, 2}, {{2, std::nullopt, true}}, {});
    EXPECT_EQ(look_of(plain_only, 2).kind, TissueLook::Kind::kAsVolume);
    EXPECT_TRUE(plain_only.IsHidden(0));

    // A table under the wishes; its entry for label 0 is no wish to hide everything else.
    const TissuePlan table = PlanTissues({1, 2, 3}, {Wish(1, red)},
                                         {{0, 0, 0.0, false, ""},
                                          {1, 0x00FF00, 1.0, true, ""},
                                          {2, 0x0000FF, 0.5, true, ""},
                                          {3, 0x123456, 1.0, false, ""}});
    EXPECT_EQ(look_of(table, 1), red);
    EXPECT_EQ(look_of(table, 2), blue);
    EXPECT_TRUE(table.IsHidden(3));
    EXPECT_FALSE(table.IsHidden(0));

    // Nothing said: colours apart.
    const TissuePlan palette = PlanTissues({4, 5}, {}, {});
    EXPECT_FALSE(look_of(palette, 4) == look_of(palette, 5));
    EXPECT_THROW(PlanTissues({1, 2}, {Wish(3, red)}, {}), scene::Error);
}

TEST(TissuePlans, ShareOneIndexAmongLabelsThatNobodyNamed) {
    std::vector<int> present(31);
    std::iota(present.begin(), present.end(), 1);
    std::vector<scene::LabelTableEntry> table;
    std::vector<TissueWish> wishes;
    for (int label = 1; label <= 31; ++label) {
        table.push_back({label, static_cast<std::uint32_t>(label), 1.0, true, ""});
    }
    for (int label = 1; label <= 14; ++label) {
        wishes.push_back(Wish(label, TissueLook::Colour(0xFF0000U + static_cast<std::uint32_t>(label), 1.0)));
    }
    const TissuePlan plan = PlanTissues(present, wishes, table);
    EXPECT_TRUE(plan.shares_rest);
    for (int label = 1; label <= 31; ++label) {
        EXPECT_EQ(plan.index_of_label[static_cast<std::size_t>(label)], label <= 14 ? label - 1 : TissuePlan::kRest);
    }

    EXPECT_TRUE(PlanTissues(present, {}, {}).shares_rest);

    wishes.push_back(Wish(15, TissueLook::Colour(0xFF0001, 0.5)));
    EXPECT_NO_THROW(PlanTissues(present, wishes, table));
    wishes.push_back(Wish(16, TissueLook::Colour(0xFF0002, 0.5)));
    EXPECT_THROW(PlanTissues(present, wishes, table), scene::Error);
}

TEST(TissueVolumes, HoldTheIndicesAndMasksOfEveryVoxel) {
    for (const Index& dims : {Index{7, 5, 3}, Index{8, 5, 4}, Index{1, 1, 1}}) {
        ImportedVolume map = TurnedVolume(dims, {1.0, 1.5, 2.0}, 10.0);
        for (std::size_t i = 0; i < map.voxels.size(); ++i) {
            map.voxels[i] = static_cast<std::int16_t>(i * 7919 % 11 / 3);
        }
        ImportedVolume grey = TurnedVolume(dims, {1.0, 1.5, 2.0}, 10.0);
        std::iota(grey.voxels.data(), grey.voxels.data() + grey.voxels.size(), std::int16_t{100});
        grey.is_signed = true;
        grey.min_value = 100;
        grey.max_value = 1000;
        scene::VolumeSource source(std::move(grey));
        LabelVolume labels(source.Info());
        labels.Add(map, false, "map");
        const TissuePlan plan =
            labels.Present().empty()
                ? PlanTissues({}, {Wish(0, TissueLook::Hidden())}, {})
                : PlanTissues(labels.Present(),
                              {Wish(1, TissueLook::Colour(0xFF0000, 1.0)), Wish(2, TissueLook::Hidden())}, {});
        const auto indices = MakeTissueVolume(labels, plan, source);
        const auto mask = MakeHiddenMask(labels, plan, source);
        ASSERT_NE(mask, nullptr);
        const scene::MaskedVolume masked(source, *mask, 100);

        ForEachVoxel(dims, [&](const Index& i) {
            auto* const slice = static_cast<IP_TisIndSlice*>(indices->GetVolData(0)->GetSlice(i[2]));
            auto* const grey_slice = static_cast<IP_ShortSlice*>(masked.Volume()->GetSlice(i[2]));
            ASSERT_EQ(slice->MapMemory(), 0);
            ASSERT_EQ(grey_slice->MapMemory(), 0);
            const std::size_t in_slice = Linear(dims, {i[0], i[1], 0});
            const int label = map.voxels[Linear(dims, i)];
            EXPECT_EQ(slice->GetMappedSlice()[in_slice / 2] >> (in_slice % 2 * 4) & 15,
                      plan.index_of_label[static_cast<std::size_t>(label)]);
            EXPECT_EQ(mask->GetPixel(i[0], i[1], i[2]) != 0, plan.IsHidden(label));
            EXPECT_EQ(grey_slice->GetMappedSlice()[in_slice],
                      plan.IsHidden(label) ? 100 : 100 + static_cast<int>(Linear(dims, i)));
            slice->UnmapMemory();
            grey_slice->UnmapMemory();
        });
        EXPECT_EQ(MakeHiddenMask(labels, PlanTissues(labels.Present(), {}, {}), source), nullptr);
    }
}

// A volume of spread values, its lowest in the first voxel, without the voxels that are hidden.
ImportedVolume Scattered(const Index& dims, const std::function<bool(const Index&)>& hidden) {
    ImportedVolume v = TurnedVolume(dims, {1.0, 1.1, 2.3}, 15.0);
    v.is_signed = true;
    v.bits_stored = 12;
    v.min_value = -1000;
    v.max_value = 1000;
    ForEachVoxel(dims, [&](const Index& i) {
        const int value = static_cast<int>(Linear(dims, i) * 7919 % 2001) - 1000;
        v.voxels[Linear(dims, i)] = static_cast<std::int16_t>(hidden(i) ? -1000 : value);
    });
    return v;
}

TEST(TissueVolumes, ProjectionsWithAMaskAreThoseOfAVolumeWithoutItsVoxels) {
    const Index dims = {41, 34, 13};
    const auto hidden = [](const Index& i) { return (i[0] / 7 + i[1] / 5 + i[2] / 4) % 2 == 0; };
    scene::VolumeSource whole(Scattered(dims, [](const Index&) { return false; }));
    scene::VolumeSource cut(Scattered(dims, hidden));
    const auto mask = std::make_shared<IP_RealListVol>(*whole.Volume()->GetBox());
    ForEachVoxel(dims, [&](const Index& i) {
        if (hidden(i)) {
            mask->AddRun(i[1], i[2], i[0], i[0] + 1);
        }
    });

    scene::View view;
    view.width = 70;
    view.height = 60;
    const auto draw = [&](scene::Projection& projection, double azimuth_deg) {
        view.azimuth_deg = azimuth_deg;
        view.elevation_deg = azimuth_deg / 3.0;
        projection.SetView(MakeCamera(view, whole.GetSubject()), view);
        return projection.Draw().stored;
    };
    for (const bool linear : {true, false}) {
        for (const double azimuth_deg : {0.0, 37.0, 90.0}) {
            scene::Projection of_whole(whole, linear);
            scene::Projection of_cut(cut, linear);
            scene::Projection masked_first(whole, linear);
            scene::Projection switched(whole, linear);
            const auto unmasked = draw(of_whole, azimuth_deg);
            const auto expected = draw(of_cut, azimuth_deg);
            ASSERT_NE(unmasked, expected);
            masked_first.SetMask(mask);
            EXPECT_EQ(draw(masked_first, azimuth_deg), expected) << linear << " " << azimuth_deg;
            draw(switched, 90.0 - azimuth_deg);
            switched.SetMask(mask);
            EXPECT_EQ(draw(switched, azimuth_deg), expected) << linear << " " << azimuth_deg;
            switched.SetMask(nullptr);
            EXPECT_EQ(draw(switched, azimuth_deg), unmasked) << linear << " " << azimuth_deg;
            switched.SetMask(mask);
            EXPECT_EQ(draw(switched, azimuth_deg), expected) << linear << " " << azimuth_deg;
        }
    }
}

}  // namespace
