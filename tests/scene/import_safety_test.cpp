// Hostile files and hostile decoders: a clear line, whatever happens, and a process that goes on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <random>
#include <thread>

#include "scene/import/isolated_process.h"
#include "tests/scene/import_test_files.h"

namespace {

using namespace import_test;
using scene::ImportedVolume;
using scene::ImportError;
using scene::ImportOptions;
using scene::import::ImportContext;
using scene::import::RunIsolated;

// The line that a job in a child process ends with.
std::string LineOf(const ImportOptions& options, const scene::import::ImportJob& job) {
    try {
        RunIsolated("file", options, job);
    } catch (const ImportError& error) {
        return error.what();
    }
    return "no error";
}

bool HasChildren() {
    return ::waitpid(-1, nullptr, WNOHANG) >= 0;
}

TEST(ImportIsolation, CrashesHangsAndGreedAreUnreadableFiles) {
    ImportOptions options;
    EXPECT_NE(LineOf(options, [](ImportContext&) -> std::string { std::abort(); }).find("unreadable file"),
              std::string::npos);
    EXPECT_NE(LineOf(options, [](ImportContext&) -> std::string { ::_exit(0); }).find("unreadable file"),
              std::string::npos);
    EXPECT_NE(LineOf(options, [](ImportContext&) -> std::string { throw 7; }).find("unreadable file"),
              std::string::npos);
    EXPECT_EQ(LineOf(options, [](ImportContext&) -> std::string { throw ImportError("a: b (c)"); }), "a: b (c)");
    options.limits.silence_seconds = 0.2;
    EXPECT_NE(LineOf(options,
                     [](ImportContext&) -> std::string {
                         for (;;)
                             ::pause();
                     })
                  .find("no progress for 0.2 s"),
              std::string::npos);
    options.limits = {};
    options.limits.memory_bytes = 64u << 20;
    const auto greedy = [](ImportContext&) { return std::string(std::size_t(1) << 30, 'x').substr(0, 3); };
    const std::string line = LineOf(options, greedy);  // sanitizers abort where memory ends
    EXPECT_TRUE(line.find("more memory") != std::string::npos || line.find("unreadable") != std::string::npos) << line;
    EXPECT_FALSE(HasChildren());
}

TEST(ImportIsolation, ResultProgressAndCancellationCrossTheProcessBorder) {
    std::vector<double> seen;
    ImportOptions options;
    options.progress = [&](double fraction) { seen.push_back(fraction); };
    const auto result = RunIsolated("file", options, [](ImportContext& context) {
        const scene::VoxelBuffer voxels = context.AllocateResult(1000);
        voxels[999] = 77;
        context.Progress(0.5);
        context.Progress(0.25);
        std::fputs("Corrupt data\nand more", stderr);
        return std::string("text\0more", 9);
    });
    EXPECT_EQ(result.text, std::string("text\0more", 9));
    EXPECT_EQ(result.complaint, "Corrupt data");
    ASSERT_EQ(result.voxels.size(), 1000u);
    EXPECT_EQ(result.voxels[999], 77);
    EXPECT_EQ(seen, (std::vector<double>{0.5, 0.5}));

    options.is_cancelled = [] { return true; };
    EXPECT_THROW(RunIsolated("file", options,
                             [](ImportContext&) -> std::string {
                                 for (;;)
                                     ::pause();
                             }),
                 scene::ImportCancelled);
    EXPECT_FALSE(HasChildren());

    // In process the poll comes with the progress.
    const TempFolder folder;
    WriteStack(folder, DicomSlice(), Heights(0.0, 1.0, 5));
    options.isolate = false;
    EXPECT_THROW(scene::ImportVolume(folder.Path(), options), scene::ImportCancelled);
}

TEST(ImportIsolation, WorksFromSeveralThreadsAndWithEveryNumberOfThreads) {
    const TempFolder folder;
    WriteStack(folder, DicomSlice(), Heights(0.0, 1.0, 12));
    std::atomic<int> num_right{0};
    std::vector<std::thread> threads;
    for (const bool isolate : {true, false}) {
        for (int count = 1; count <= 4; ++count) {
            threads.emplace_back([&, isolate, count] {
                ImportOptions options;
                options.isolate = isolate;
                options.num_threads = count;
                const ImportedVolume volume = scene::ImportVolume(folder.Path(), options);
                num_right += volume.dims[2] == 12 && StoredAt(volume, 3, 3, 11) == StoredAt(volume, 3, 3, 0) + 44;
            });
        }
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(num_right, static_cast<int>(threads.size()));
}

// Tries a damaged copy. Nothing but ImportError may come out, in one line; a volume must be consistent in itself.
void Try(const std::string& path, const std::string& bytes, const ImportOptions& options, int& num_read) {
    WriteBytes(path, bytes);
    try {
        const ImportedVolume volume = scene::ImportVolume(path, options);
        ++num_read;
        ASSERT_EQ(volume.voxels.size(), std::size_t(volume.dims[0]) * volume.dims[1] * volume.dims[2]);
        ASSERT_GE(volume.bits_stored, 1);
        ASSERT_LE(volume.bits_stored, 16);
        ASSERT_GT(volume.rescale_slope, 0.0);
        ASSERT_TRUE(std::all_of(volume.index_to_patient.begin(), volume.index_to_patient.end(),
                                [](double v) { return std::isfinite(v); }));
    } catch (const ImportError& error) {
        ASSERT_EQ(std::string(error.what()).find('\n'), std::string::npos);
        ASSERT_EQ(std::string(error.what()).find("decoder"), std::string::npos) << error.what();
    }
}

// The file cut at every so many bytes must be refused; with bits flipped it may be read.
void Attack(const TempFolder& folder, const std::string& name, std::size_t step, int num_flips,
            const ImportOptions& options = InProcess()) {
    const std::string bytes = ReadBytes(folder / name);
    SCOPED_TRACE(name);
    int num_read = 0;
    for (std::size_t length = 0; length < bytes.size(); length += step) {
        Try(folder / name, bytes.substr(0, length), options, num_read);
    }
    EXPECT_EQ(num_read, 0) << "truncated, and nobody noticed";
    std::mt19937 random(17);
    for (int flip = 0; flip < num_flips; ++flip) {
        std::string damaged = bytes;
        for (unsigned bit = 0; bit <= random() % 3; ++bit) {
            damaged[random() % std::min<std::size_t>(damaged.size(), 3000)] ^= static_cast<char>(1u << random() % 8);
        }
        Try(folder / name, damaged, options, num_read);
    }
}

TEST(ImportHostileFiles, TruncatedOrFlippedFilesNeverCrash) {
    const TempFolder folder;
    DicomSlice slice;
    slice.more = Element(0x00281050, "DS", "40") + Element(0x00280120, 3);
    slice.Write(folder / "slice");
    Attack(folder, "slice", 3, 600);
    // In a child, where the libraries that read these complain unheard and leak unpunished.
    WriteBytes(folder / "a.nrrd",
               "NRRD0004\ntype: short\ndimension: 3\nspace: LPS\nsizes: 4 3 2\nendian: little\nencoding: raw\nspace "
               "directions: (1,0,0) (0,1,0) (0,0,1)\nspace origin: (0,0,0)\n\n" +
                   std::string(48, 'v'));
    Attack(folder, "a.nrrd", 19, 60, ImportOptions());
    WriteBytes(folder / "a.mha",
               "ObjectType = Image\nNDims = 3\nBinaryData = True\nTransformMatrix = 1 0 0 0 1 0 0 0 1\nOffset = 0 0 0\n"
               "ElementSpacing = 1 1 1\nDimSize = 4 3 2\nElementType = MET_SHORT\nElementDataFile = LOCAL\n" +
                   std::string(48, 'v'));
    Attack(folder, "a.mha", 19, 60, ImportOptions());
}

TEST(ImportHostileFiles, HugeSizesInShortFilesAreRefusedBeforeTheyCost) {
    const TempFolder folder;
    WriteBytes(folder / "a.mha",
               "ObjectType = Image\nNDims = 3\nBinaryData = True\nDimSize = 60000 60000 100000\nElementType = "
               "MET_SHORT\nElementDataFile = LOCAL\n1234");
    WriteBytes(folder / "a.nrrd",
               "NRRD0004\ntype: short\ndimension: 3\nsizes: 60000 6000 1000\nendian: little\nencoding: raw\n\n1234");
    DicomSlice slice;
    slice.rows = slice.columns = 65535;
    slice.pixels = "1234";
    slice.Write(folder / "slice");
    for (const char* name : {"a.mha", "a.nrrd", "slice"}) {
        EXPECT_NE(Refusal(folder / name, ImportOptions()), "") << name;
    }
}

}  // namespace
