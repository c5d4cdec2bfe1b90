// Volumes that are drawn while they are read: what is there is drawn as it will be, and in the end nothing differs from
// a volume that was read at once.
#include "scene/growing_source.h"

#include "host/reference/settings.h"
#include "scene/error.h"
#include "scene/presets.h"
#include "scene/projection.h"
#include "scene/random_stream.h"
#include "scene/volume_rendering.h"
#include "tests/scene/import_test_files.h"

#include <numeric>

namespace {

using namespace import_test;
using scene::GrowingSource;
using scene::ImportedVolume;
using scene::VolumeSource;

constexpr int kSlices = 80;    // three layers of bricks
constexpr int kBoundary = 30;  // a slice that bricks of two layers read

// A CT of soft noise with a bright rod that winds through all slices, and a plate in one slice alone.
DicomSlice SliceOfRod(int iz) {
    DicomSlice slice;
    slice.columns = 40;
    slice.rows = 36;
    slice.row_step = slice.column_step = 1.0;
    slice.position = {0.0, 0.0, 1.0 * iz};
    for (int at = 0; at < 40 * 36; ++at) {
        const double x = at % 40 - 20.0 - 8.0 * std::sin(0.2 * iz), y = at / 40 - 18.0 - 6.0 * std::cos(0.2 * iz);
        const bool is_bright = x * x + y * y < 20.0 || (iz == kBoundary && at % 40 > 30);
        const int value = is_bright ? 2100 + iz : 900 + (at * 37 + iz * 11) % 97;
        slice.pixels += Raw(static_cast<std::uint16_t>(value));
    }
    return slice;
}

void WriteRod(const TempFolder& folder, const std::function<void(DicomSlice&)>& change = {}) {
    for (int iz = 0; iz < kSlices; ++iz) {
        DicomSlice slice = SliceOfRod(iz);
        if (change) {
            change(slice);
        }
        slice.Write(folder / std::to_string(1000 + (iz * 7) % kSlices));
    }
}

// Objects that draw one source in all ways, and go on doing so.
struct Drawings {
    scene::Projection fast, linear;
    scene::VolumeRendering rendering;

    explicit Drawings(VolumeSource& source) : fast(source, false), linear(source, true), rendering(source) {
        rendering.SetTransfer(*scene::FindPreset("ct-bone"), true);
    }
    // Pictures of an oblique view, one behind the other.
    std::vector<std::uint32_t> Draw(VolumeSource& source, double azimuth) {
        scene::View view;
        view.azimuth_deg = azimuth;
        view.elevation_deg = 20.0;
        view.width = view.height = 96;
        const scene::Camera camera = scene::MakeCamera(view, source.GetSubject());
        std::vector<std::uint32_t> all;
        for (scene::Projection* const projection : {&fast, &linear}) {
            projection->SetView(camera, view);
            const scene::ProjectedPicture picture = projection->Draw();
            all.insert(all.end(), picture.stored.begin(), picture.stored.end());
        }
        rendering.SetView(camera, {});
        const scene::Picture picture = rendering.Draw({});
        all.insert(all.end(), picture.pixels.begin(), picture.pixels.end());
        return all;
    }
};

std::vector<std::uint32_t> Pictures(VolumeSource& source, double azimuth) {
    return Drawings(source).Draw(source, azimuth);
}

// The volume of a layout with these slices and nothing else.
ImportedVolume Partial(const ImportedVolume& layout, const ImportedVolume& whole, const std::vector<int>& slices) {
    ImportedVolume part = layout;
    part.voxels = scene::VoxelBuffer(whole.voxels.size());
    std::fill_n(part.voxels.data(), part.voxels.size(), static_cast<std::int16_t>(part.min_value));
    const std::size_t size = whole.voxels.size() / static_cast<std::size_t>(whole.dims[2]);
    for (const int iz : slices) {
        std::copy_n(whole.voxels.data() + size * iz, size, part.voxels.data() + size * iz);
    }
    return part;
}

// What an import announces, and what it returns.
struct WatchedImport {
    std::optional<ImportedVolume> layout;
    std::vector<int> slices;
    std::unique_ptr<GrowingSource> source;
    ImportedVolume volume;

    // Takes the slices at once when `takes`.
    explicit WatchedImport(const std::string& path, bool isolate, bool takes) {
        scene::ImportOptions options;
        options.isolate = isolate;
        options.on_layout = [&](const ImportedVolume& announced) {
            EXPECT_FALSE(layout);
            layout = announced;
            source = std::make_unique<GrowingSource>(announced);
        };
        options.on_slices = [&](const std::vector<int>& announced) {
            slices.insert(slices.end(), announced.begin(), announced.end());
            if (takes) {
                source->Take(announced);
            }
        };
        volume = scene::ImportVolume(path, options);
    }
};

TEST(GrowingSource, PicturesShowWhatHasComeAndInTheEndTheWhole) {
    const TempFolder folder;
    WriteRod(folder);
    const ImportedVolume whole = ImportVolume(folder.Path(), InProcess());
    WatchedImport import(folder.Path(), true, false);
    ASSERT_TRUE(import.layout);
    std::vector<int> all(kSlices);
    std::iota(all.begin(), all.end(), 0);
    std::vector<int> announced = import.slices;
    std::sort(announced.begin(), announced.end());
    EXPECT_EQ(announced, all);

    // In any order and any portions, with the same drawing objects throughout.
    GrowingSource& source = *import.source;
    auto drawings = std::make_unique<Drawings>(source);
    std::vector<int> order;
    for (int i = 0; i < kSlices; ++i) {
        order.push_back(i * 37 % kSlices);
    }
    std::iter_swap(std::find(order.begin(), order.end(), kBoundary), order.end() - 1);
    int num_taken = 0;
    for (const int portion : {0, 1, 24, 25, 0, 29, 1}) {
        source.Take({order.begin() + num_taken, order.begin() + num_taken + portion});
        num_taken += portion;
        EXPECT_EQ(source.NumArrived(), num_taken);
        VolumeSource part(Partial(*import.layout, whole, {order.begin(), order.begin() + num_taken}));
        const double azimuth = 31.0 * num_taken;  // slices are turned on the way
        EXPECT_EQ(drawings->Draw(source, azimuth), Pictures(part, azimuth)) << num_taken << " slices";
    }
    drawings.reset();

    const std::unique_ptr<VolumeSource> finished = source.Finish(std::move(import.volume));
    ImportedVolume copy = whole;
    VolumeSource at_once(std::move(copy));
    EXPECT_EQ(Pictures(*finished, 40.0), Pictures(at_once, 40.0));
    const ImportedVolume &a = finished->Info(), &b = at_once.Info();
    EXPECT_EQ(std::tie(a.dims, a.is_signed, a.bits_stored, a.min_value, a.max_value, a.padding_value, a.warnings),
              std::tie(b.dims, b.is_signed, b.bits_stored, b.min_value, b.max_value, b.padding_value, b.warnings));
    EXPECT_EQ(finished->RelativeWindow(), at_once.RelativeWindow());
}

// Every odd case ends as if nobody had watched, whether slices were taken early or not.
TEST(GrowingSource, EndsRightWhereTheForecastWasNot) {
    const std::vector<std::function<void(DicomSlice&)>> cases = {
        [](DicomSlice& s) { s.more = Element(0x00280120, "US", Raw<std::uint16_t>(2150)); },  // padding above the rest
        [](DicomSlice& s) { s.more = Element(0x00280120, "US", Raw<std::uint16_t>(0)); },
        [](DicomSlice& s) { s.bits_stored = 16; },                        // unsigned, needs fewer
        [](DicomSlice& s) { s.is_signed = true, s.bits_stored = 16; },    // no negative value
        [](DicomSlice& s) { s.slope = s.position[2] > 40 ? 2.0 : 1.0; },  // not foreseeable
        [](DicomSlice& s) { s.photometric = "MONOCHROME1"; },
        [](DicomSlice& s) { s.position[2] *= s.position[2] > 60 ? 1.01 : 1.0; },  // resampled
    };
    for (std::size_t i = 0; i < cases.size(); ++i) {
        const TempFolder folder;
        WriteRod(folder, cases[i]);
        VolumeSource at_once(ImportVolume(folder.Path(), InProcess()));
        for (const bool takes : {false, true}) {
            WatchedImport import(folder.Path(), true, takes);
            EXPECT_EQ(import.layout.has_value(), i < 4) << "case " << i;
            const auto finished = import.source != nullptr ? import.source->Finish(std::move(import.volume))
                                                           : std::make_unique<VolumeSource>(std::move(import.volume));
            EXPECT_EQ(Pictures(*finished, 10.0), Pictures(at_once, 10.0)) << "case " << i;
            EXPECT_EQ(finished->Info().min_value, at_once.Info().min_value) << "case " << i;
            EXPECT_EQ(finished->Info().rescale_intercept, at_once.Info().rescale_intercept) << "case " << i;
        }
    }
}

TEST(GrowingSource, RefusedMemoryAndCancellationLeaveNothing) {
    const TempFolder folder;
    WriteRod(folder);
    const std::int64_t blocks = reference_host::GetPagerStatistics().blocks;
    {
        // Refused in the middle: what has come stays, and the rest can be taken later.
        WatchedImport import(folder.Path(), true, false);
        reference_host::SetPagerFaults({.refuse_allocation = 11});
        EXPECT_THROW(import.source->Take(import.slices), scene::Error);
        reference_host::SetPagerFaults({});
        EXPECT_LT(import.source->NumArrived(), kSlices);
        import.source->Take(import.slices);
        EXPECT_EQ(import.source->NumArrived(), kSlices);

        VolumeSource at_once(ImportVolume(folder.Path(), InProcess()));
        const auto finished = import.source->Finish(std::move(import.volume));
        EXPECT_EQ(Pictures(*finished, 70.0), Pictures(at_once, 70.0));
    }
    for (const bool isolate : {false, true}) {
        scene::ImportOptions options;
        options.isolate = isolate;
        std::unique_ptr<GrowingSource> source;
        options.on_layout = [&](const ImportedVolume& layout) { source = std::make_unique<GrowingSource>(layout); };
        options.on_slices = [&](const std::vector<int>& slices) { source->Take(slices); };
        options.is_cancelled = [&] { return source != nullptr && source->NumArrived() > 0; };
        EXPECT_THROW(ImportVolume(folder.Path(), options), scene::ImportCancelled);
        EXPECT_GT(source->NumArrived(), 0);
    }
    EXPECT_EQ(reference_host::GetPagerStatistics().blocks, blocks);
}

}  // namespace
