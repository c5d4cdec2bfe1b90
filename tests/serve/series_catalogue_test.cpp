// The list of series and their thumbnails, over folders as people have them.
#include "apps/serve/series_catalogue.h"
#include "apps/serve/thumbnail.h"
#include "scene/error.h"
#include "scene/picture.h"
#include "tests/scene/import_test_files.h"

#include <chrono>
#include <set>

namespace {

using namespace import_test;
using serve::SeriesCatalogue;
namespace fs = std::filesystem;

// Runs jobs at once, on the calling thread.
void AtOnce(const std::function<void()>& job) {
    job();
}

void Await(const std::function<bool()>& is_done) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(60);
    while (!is_done() && std::chrono::steady_clock::now() < end) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_TRUE(is_done());
}

std::string WriteMetaImage(const std::string& path) {
    std::string voxels;
    for (int i = 0; i < 20 * 16 * 24; ++i) {
        voxels += Raw(static_cast<std::int16_t>(i % 20 * 50));
    }
    WriteBytes(path,
               "ObjectType = Image\nNDims = 3\nDimSize = 20 16 24\nElementSpacing = 1 1 1\n"
               "ElementType = MET_SHORT\nElementDataFile = LOCAL\n" +
                   voxels);
    return path;
}

// Two studies, one of them with two series, a volume file, and things that are no images.
void WriteHospital(const TempFolder& folder) {
    for (const char* const name : {"anna/ct/deep", "ben", "notes", ".hidden"}) {
        fs::create_directories(folder / name);
    }
    DicomSlice slice;
    WriteStack(folder, slice, Heights(0.0, 2.0, 6), "anna/ct/a");
    slice.series_uid = "1.2.4";
    slice.series_number = 7;
    slice.modality = "MR";
    WriteStack(folder, slice, Heights(0.0, 2.0, 3), "anna/ct/deep/b");
    WriteStack(folder, slice, Heights(0.0, 2.0, 4), ".hidden/c");
    WriteMetaImage(folder / "ben/head.mha");
    WriteBytes(folder / "ben/broken.nrrd", "NRRD0004\ntype: nonsense\n\n");
    WriteBytes(folder / "notes/readme.txt", std::string(500, 'x'));
    slice.Write(folder / "notes/DICOMDIR");
    fs::create_directory_symlink(folder.Path(), folder / "notes/loop");
}

TEST(SeriesCatalogue, FindsWhatAFolderHoldsAndGoesOnAfterBrokenFiles) {
    const TempFolder folder;
    WriteHospital(folder);
    // One thread: sanitizers do not bear threads in children of a process that has several.
    const SeriesCatalogue catalogue({folder.Path(), folder / "ben/head.mha"}, AtOnce, {.num_threads = 1});
    Await([&] { return !catalogue.List().is_scanning; });
    const SeriesCatalogue::Listing listing = catalogue.List();

    const std::vector<std::tuple<std::string, std::string, int>> expected = {
        {"ct", "CT", 6}, {"ct", "MR", 3}, {"head.mha", "", 24}, {"head.mha", "", 24}};
    std::vector<std::tuple<std::string, std::string, int>> found;
    std::set<std::string> ids;
    for (const serve::SeriesEntry& entry : listing.series) {
        found.emplace_back(entry.folder, entry.modality, entry.dims[2]);
        ids.insert(entry.id);
        const serve::SeriesPlace place = catalogue.Find(entry.id).value();
        scene::ImportOptions options = InProcess();
        options.series = place.series;
        EXPECT_EQ(scene::ImportVolume(place.path, options).dims, entry.dims);
    }
    EXPECT_EQ(found, expected);
    EXPECT_EQ(ids.size(), 4u);
    ASSERT_EQ(listing.problems.size(), 1u);
    EXPECT_NE(listing.problems[0].find("broken.nrrd"), std::string::npos);
    EXPECT_FALSE(catalogue.Find("s9"));
    EXPECT_THROW(SeriesCatalogue({folder / "missing"}, AtOnce), scene::Error);
}

TEST(SeriesCatalogue, DrawsAThumbnailOfEachSeriesThatCanBeRead) {
    const TempFolder folder;
    DicomSlice slice;
    WriteStack(folder, slice, Heights(0.0, 2.0, 6), "a");
    WriteStack(folder, slice, {4.0}, "twice");  // two slices at one place: listed, but no volume
    const std::string volume = WriteMetaImage(folder / "head.mha");
    const SeriesCatalogue catalogue({folder.Path()}, AtOnce);
    Await([&] { return catalogue.Thumbnail("s2") != nullptr; });
    EXPECT_EQ(catalogue.Thumbnail("s1"), nullptr);
    EXPECT_TRUE(catalogue.List().series[1].has_thumbnail);

    // Seen from the front: brighter towards the patient's left, which is on the right.
    WriteBytes(folder / "thumbnail.png", *catalogue.Thumbnail("s2"));
    const scene::Picture picture = scene::ReadPng(folder / "thumbnail.png");
    EXPECT_EQ(picture.width, 192);
    EXPECT_EQ(picture.height, 192);
    EXPECT_GT(picture.At(120, 96) & 255U, (picture.At(70, 96) & 255U) + 60U);
}

TEST(SeriesCatalogue, ThinnedVolumesKeepTheirPlace) {
    scene::ImportedVolume volume;
    volume.dims = {600, 7, 2};
    volume.spacing_mm = {0.5, 1.0, 2.0};
    volume.index_to_patient = {0.5, 0, 0, -9, 0, 1, 0, 4, 0, 0, 2, 1};
    volume.voxels = scene::VoxelBuffer(600 * 7 * 2);
    for (std::size_t i = 0; i < volume.voxels.size(); ++i) {
        volume.voxels[i] = static_cast<std::int16_t>(i);
    }
    const scene::ImportedVolume thin = serve::Thinned(volume);
    EXPECT_EQ(thin.dims, (std::array<int, 3>{200, 7, 2}));
    EXPECT_EQ(PositionOf(thin, 100, 3, 1), PositionOf(volume, 300, 3, 1));
    EXPECT_EQ(StoredAt(thin, 100, 3, 1), StoredAt(volume, 300, 3, 1));
}

TEST(SeriesCatalogue, EndsWhileJobsWaitAndIsNotMissedByThem) {
    const TempFolder folder;
    WriteMetaImage(folder / "head.mha");
    std::mutex mutex;
    std::vector<std::function<void()>> jobs;
    {
        const SeriesCatalogue catalogue({folder.Path()}, [&](std::function<void()> job) {
            const std::lock_guard lock(mutex);
            jobs.push_back(std::move(job));
            if (jobs.size() == 1) {
                jobs[0]();  // lets the volume be read; its drawing has to wait
            }
        });
        Await([&] {
            const std::lock_guard lock(mutex);
            return jobs.size() == 2;
        });
    }
    jobs[1]();
}

}  // namespace
