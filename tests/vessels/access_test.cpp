// The sliding range of mapped slices: what is mapped when, and what an error leaves mapped.
#include "ip_volr/IP_VolDataAccess.h"
#include "vessel_scene.h"

#include <gtest/gtest.h>

namespace {

using reference_host::GetPagerStatistics;
using vessel_tests::make_data;

std::string error_of(const std::function<void()>& call) {
    try {
        call();
    } catch (const map_failure_exception& e) {
        return std::string("map: ") + e.what();
    } catch (const invalid_argument_exception& e) {
        return std::string("argument: ") + e.what();
    } catch (const invalid_type_exception& e) {
        return std::string("type: ") + e.what();
    }
    return "none";
}

TEST(SlidingRange, KeepsAtMostAHundredAndOneSlicesMapped) {
    const auto volume = make_data(4, 3, 300, [](int x, int y, int z) { return x + 10 * y + 100 * z; });
    const auto mapped_before = GetPagerStatistics().mapped_blocks;
    {
        voldata_manager manager;
        manager.attach(volume.get());
        manager.release();
        struct Access {
            int slice, first, last, newly_mapped;
        };
        // Overlapping moves map only what is new, a far jump everything.
        for (const Access& a : {Access{0, 0, 50, 51}, Access{100, 50, 150, 100}, Access{120, 50, 150, 0},
                                Access{151, 101, 201, 51}, Access{290, 240, 299, 60}, Access{239, 189, 289, 51}}) {
            const auto maps_before = GetPagerStatistics().total_maps;
            EXPECT_EQ(manager.get_short_ptr(a.slice)[1 * 4 + 2], static_cast<short>(12 + 100 * a.slice));
            EXPECT_EQ(manager.first_mapped(), a.first) << a.slice;
            EXPECT_EQ(manager.last_mapped(), a.last) << a.slice;
            EXPECT_EQ(GetPagerStatistics().total_maps - maps_before, a.newly_mapped) << a.slice;
            EXPECT_EQ(GetPagerStatistics().mapped_blocks - mapped_before, a.last - a.first + 1) << a.slice;
        }
        manager.move_mapped_range(5, 4);
        EXPECT_EQ(manager.first_mapped(), 0);
        EXPECT_EQ(manager.last_mapped(), -1);
        EXPECT_EQ(GetPagerStatistics().mapped_blocks, mapped_before);
        manager.get_short_ptr(7);
    }
    EXPECT_EQ(GetPagerStatistics().mapped_blocks, mapped_before) << "destruction releases the range";
}

TEST(SlidingRange, TellsWhatIsWrongAndReleasesEverything) {
    const auto volume = make_data(4, 4, 120, [](int, int, int) { return 1; });
    const auto mapped_before = GetPagerStatistics().mapped_blocks;
    const std::unique_ptr<IP_Slice> original(volume->GetSlice(3));
    voldata_manager manager;
    manager.attach(volume.get());

    // A missing slice, one of another kind, one without pixels.
    volume->SetSlice(nullptr, 3);
    EXPECT_EQ(error_of([&] { manager.get_short_ptr(3); }),
              "argument: Error: slice is NULL in voldata_manager::get_short_ptr()!");
    EXPECT_EQ(error_of([&] { manager.get_tisind_ptr(500); }),
              "argument: Error: slice is NULL in voldata_manager::get_tisind_ptr()!");
    IP_RGBASlice colour(nullptr, PixelDataAttributes{}, 0);
    volume->SetSlice(&colour, 3);
    EXPECT_EQ(error_of([&] { manager.get_short_ptr(3); }),
              "type: Error while converting slice to IP_ShortSlice in voldata_manager::get_short_ptr()!");
    EXPECT_EQ(error_of([&] { manager.get_tisind_ptr(3); }),
              "type: Error while converting slice to IP_TisIndSlice in voldata_manager::get_tisind_ptr()!");
    IP_ShortSlice empty(nullptr, PixelDataAttributes{}, 0);
    volume->SetSlice(&empty, 3);
    EXPECT_EQ(error_of([&] { manager.get_short_ptr(3); }),
              "argument: Slice is not mapped in voldata_manager::get_short_ptr()!");
    manager.release();
    MEM_PagerInfo small_block;
    MEM_MemPager::GetHandleForMP()->Allocate(2, &small_block, 0);
    IP_ShortSlice small(&small_block, PixelDataAttributes{1, 1, 16, true}, 0);
    volume->SetSlice(&small, 3);
    EXPECT_EQ(error_of([&] { manager.get_short_ptr(3); }),
              "argument: Error: slice of another size than its volume in voldata_manager!");
    manager.release();
    MEM_MemPager::GetHandleForMP()->Free(small_block);
    volume->SetSlice(original.get(), 3);

    // A refused mapping, in each step of an overlapping move: what was mapped before can still be released.
    for (int refused = 1; refused <= 2; ++refused) {
        manager.move_mapped_range(40, 60);
        reference_host::PagerFaults faults;
        faults.refuse_map = refused;
        reference_host::SetPagerFaults(faults);
        EXPECT_EQ(error_of([&] { manager.move_mapped_range(30, 70); }),
                  "map: Mapping failed in slice_mapper_stage::_map_slices()");
        reference_host::SetPagerFaults({});
        manager.release();
        EXPECT_EQ(GetPagerStatistics().mapped_blocks, mapped_before);
    }
    volume->SetSlice(nullptr, 3);
}

}  // namespace
