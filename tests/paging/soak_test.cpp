// Many studies, one after the other and beside each other, under a memory budget below the smallest of them.
#include "host/reference/settings.h"
#include "tests/host/log_recorder.h"
#include "tests/mip/model.h"
#include "tests/raycast/scene.h"
#include "tests/support/options.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <numeric>
#include <random>

namespace {

using Picture = std::vector<std::uint32_t>;
constexpr int kViews = 4;
constexpr std::int64_t kBudget = std::int64_t{1} << 19;
constexpr int kLogError = 3;

// A kind of study, and what it looks like when there is memory for everything.
struct Kind {
    raycast_test::Scene scene;
    std::vector<Picture> shaded;
    std::vector<std::vector<short>> fast;
    std::vector<std::vector<short>> linear;

    std::shared_ptr<IP_VolData> make_volume() const {
        static int num_studies = 0;
        num_studies++;
        auto volume = raycast_test::make_volume(scene);
        for (int z = 0; z < volume->GetNumberOfSlicePointers(); z++) {
            volume->GetSlice(z)->SetID(("study " + std::to_string(num_studies) + " " + std::to_string(z)).c_str());
        }
        return volume;
    }
};

// What a host keeps of a study on its screens.
class Study {
public:
    explicit Study(const Kind& kind)
        : m_Kind(&kind), m_Shaded(kind.scene, kind.make_volume()), m_Mip(m_Shaded.volume) {}

    // Goes over to another study, as a host does that keeps its windows.
    void replace(const Kind& kind) {
        const std::shared_ptr<IP_VolData> old_volume = m_Shaded.volume;
        const IP_MultiVolData old_tissues = m_Shaded.tissues;
        m_Kind = &kind;
        m_Shaded.scene = kind.scene;
        m_Shaded.volume = kind.make_volume();
        m_Shaded.volumes.ResetNvoldatas();
        m_Shaded.volumes.AddVolData(m_Shaded.volume);
        m_Shaded.tissues.ResetNvoldatas();
        m_Shaded.facade.SetVolumeTissues(nullptr);
        if (!kind.scene.tissues.empty()) {
            m_Shaded.tissues.AddVolData(raycast_test::make_tissue_volume(kind.scene));
        }
        m_Shaded.pass_scene();
        m_IsPrepared = false;
        m_Mip.p.m_AltVolData = std::make_shared<IP_MultiVolDataIncMIP>();
        m_Mip.show(m_Shaded.volume);
    }

    // Turns the study and draws it three times. What cannot be drawn is empty.
    void draw(int view, Picture& shaded, std::vector<short>& fast, std::vector<short>& linear) {
        m_Shaded.scene = m_Kind->scene;
        m_Shaded.scene.turn(0.7 * view, 0.4 * view);
        m_Shaded.pass_view();
        shaded = m_Shaded.render();
        m_IsPrepared = m_IsPrepared || m_Mip.prepare();
        m_Mip.set_view({40.0 * view, 20.0 * view, 0.0});
        fast = m_IsPrepared ? project(false) : std::vector<short>();
        linear = project(true);
    }

    const Kind& kind() const { return *m_Kind; }

private:
    std::vector<short> project(bool with_linear) {
        m_Mip.draw(with_linear);
        return m_Mip.projector.IsComplete() ? m_Mip.output : std::vector<short>();
    }

    const Kind* m_Kind;
    raycast_test::Renderer m_Shaded;
    mip_model::Request m_Mip;
    bool m_IsPrepared = false;
};

Kind make_kind(std::array<int, 3> dims, raycast_test::Vec spacing_mm, bool with_tissues) {
    Kind kind;
    kind.scene = raycast_test::sphere_scene(dims, spacing_mm, true);
    const std::size_t row = static_cast<std::size_t>(dims[0]);
    for (std::size_t i = 0; i < kind.scene.voxels.size(); i++) {
        // Something that looks different from every side, and noise.
        short& voxel = kind.scene.voxels[i];
        voxel = static_cast<short>(voxel + (i % row < row / 3 && i / row % 40 < 20 ? 250 : 0) + i * 2654435761U % 64);
    }
    if (with_tissues) {
        kind.scene.tissues.assign(kind.scene.voxels.size(), 15);
        std::fill_n(kind.scene.tissues.begin(), kind.scene.tissues.size() / 2, 4);
    }
    return kind;
}

// Resident memory of the process in bytes; 0 where the system does not tell, or where a sanitizer keeps what is freed.
std::int64_t process_bytes() {
    std::int64_t pages = 0;
#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
    std::ifstream file("/proc/self/statm");
    file >> pages >> pages;
#endif
    return pages * 4096;
}

// Length of the spill files in a folder, which have no names any more: what the process holds open there.
std::int64_t spill_file_bytes(const std::filesystem::path& folder) {
    namespace fs = std::filesystem;
    std::int64_t bytes = 0;
    std::error_code error;
    for (const auto& entry : fs::directory_iterator("/proc/self/fd", error)) {
        std::error_code gone;
        const fs::path target = fs::read_symlink(entry.path(), gone);
        if (!gone && target.string().rfind(folder.string(), 0) == 0) {
            const std::uintmax_t size = fs::file_size(entry.path(), gone);
            bytes += gone ? 0 : static_cast<std::int64_t>(size);
        }
    }
    return bytes;
}

class PagingSoak : public testing::Test {
protected:
    void SetUp() override {
        m_Folder = std::filesystem::path(testing::TempDir()) / ("volr-soak-" + std::to_string(std::random_device{}()));
        std::filesystem::create_directories(m_Folder);
        reference_host::SetSpillFolder(m_Folder.string());
        m_BlocksBefore = reference_host::GetPagerStatistics().blocks;
        m_Kinds.push_back(make_kind({96, 80, 90}, {1.0, 1.0, 1.0}, false));
        m_Kinds.push_back(make_kind({150, 128, 70}, {0.7, 0.8, 1.5}, true));
        m_Kinds.push_back(make_kind({64, 60, 230}, {1.0, 1.0, 0.4}, false));
        m_Kinds.push_back(make_kind({190, 170, 33}, {0.5, 0.5, 3.0}, false));
        m_Kinds.push_back(make_kind({101, 99, 131}, {0.9, 0.9, 0.7}, true));
    }
    void TearDown() override {
        reference_host::SetPagerFaults({});
        reference_host::SetMemoryBudget(0);
        reference_host::SetSpillFolder("");
        std::filesystem::remove_all(m_Folder);
    }

    // What each kind looks like with memory for everything, and how much that takes at most.
    void draw_expected() {
        for (Kind& kind : m_Kinds) {
            kind.shaded.resize(kViews);
            kind.fast.resize(kViews);
            kind.linear.resize(kViews);
            reference_host::ResetPagerPeaks();
            Study study(kind);
            for (std::size_t view = 0; view < kViews; view++) {
                study.draw(static_cast<int>(view), kind.shaded[view], kind.fast[view], kind.linear[view]);
                ASSERT_FALSE(kind.shaded[view].empty() || kind.fast[view].empty() || kind.linear[view].empty());
            }
            m_PeakOfOne = std::max(m_PeakOfOne, reference_host::GetPagerStatistics().peak_resident_bytes);
        }
        ASSERT_EQ(reference_host::GetPagerStatistics().total_spilled_bytes, 0);
    }

    // Opens, replaces, closes or only turns; the study to look at next.
    Study& change(std::minstd_rand& random) {
        const Kind& kind = m_Kinds[random() % m_Kinds.size()];
        const unsigned action = static_cast<unsigned>(random() % 8);
        if (m_Studies.empty() || (action == 0 && m_Studies.size() < 4)) {
            m_Studies.push_back(std::make_unique<Study>(kind));
            m_NumOpened++;
            return *m_Studies.back();
        }
        if (action == 1 && m_Studies.size() > 1) {
            m_Studies.erase(m_Studies.begin() + static_cast<std::ptrdiff_t>(random() % m_Studies.size()));
        }
        Study& study = *m_Studies[random() % m_Studies.size()];
        if (action == 2) {
            study.replace(kind);
            m_NumReplaced++;
        }
        return study;
    }

    // Draws a study; whether all of it could be drawn. What was drawn is right.
    bool draw(Study& study, std::size_t view) {
        Picture shaded;
        std::vector<short> fast;
        std::vector<short> linear;
        study.draw(static_cast<int>(view), shaded, fast, linear);
        const Kind& kind = study.kind();
        EXPECT_TRUE(shaded.empty() || shaded == kind.shaded[view]) << "shaded, view " << view;
        EXPECT_TRUE(fast.empty() || fast == kind.fast[view]) << "fast, view " << view;
        EXPECT_TRUE(linear.empty() || linear == kind.linear[view]) << "linear, view " << view;
        m_NumPictures += 3;
        m_NumRefused += (shaded.empty() ? 1 : 0) + (fast.empty() ? 1 : 0) + (linear.empty() ? 1 : 0);
        return !shaded.empty() && !fast.empty() && !linear.empty();
    }

    // One step of a day's work, now and then with a full disk or a file that cannot be read.
    void step(std::minstd_rand& random) {
        enum { kNoFault, kFullDisk, kUnreadable };
        const unsigned dice = static_cast<unsigned>(random() % 8);
        const auto fault = dice == 0 ? kFullDisk : dice == 1 ? kUnreadable : kNoFault;
        const LogRecorder log(kLogError);
        reference_host::PagerFaults faults;
        faults.fail_spill_write = fault == kFullDisk ? -1 : 0;
        faults.fail_spill_read = fault != kUnreadable ? 0 : random() % 4 == 0 ? -1 : 1 + random() % 60;
        reference_host::ResetPagerPeaks();
        reference_host::SetPagerFaults(faults);
        const std::int64_t mapped_by_others = reference_host::GetPagerStatistics().mapped_bytes;
        Study& study = change(random);
        const std::size_t view = random() % kViews;
        const bool was_drawn = draw(study, view);
        const reference_host::PagerStatistics now = reference_host::GetPagerStatistics();
        reference_host::SetPagerFaults({});

        // Errors are told, once, and only where there are some. A full disk keeps nothing from being drawn.
        const long unread = log.Count("cannot be read");
        const std::size_t num_lines = log.Texts().size();
        EXPECT_TRUE(was_drawn || unread > 0);
        EXPECT_EQ(log.Count("cannot be written"), fault == kFullDisk ? 1 : 0);
        EXPECT_TRUE(fault == kUnreadable || num_lines == (fault == kFullDisk ? 1U : 0U)) << num_lines;
        m_NumFullDisks += fault == kFullDisk ? 1 : 0;
        m_NumUnreadable += unread > 0 ? 1 : 0;
        if (fault != kNoFault) {
            // The fault is over: what stayed in memory is written out, and what could not be drawn can.
            reference_host::SetMemoryBudget(kBudget);
            EXPECT_TRUE(draw(study, view));
        }

        // In memory is only what is being drawn, beside what the other studies' engines keep mapped.
        if (fault != kFullDisk) {
            EXPECT_LE(now.peak_resident_bytes, m_PeakOfOne + kBudget + mapped_by_others);
            m_PeakResident = std::max(m_PeakResident, now.peak_resident_bytes);
        }
        const reference_host::PagerStatistics after = reference_host::GetPagerStatistics();
        EXPECT_LE(after.resident_bytes, kBudget + after.mapped_bytes);
        m_MostAllocated = std::max(m_MostAllocated, after.allocated_bytes);
        m_LongestFile = std::max(m_LongestFile, spill_file_bytes(m_Folder));
    }

    // Closes everything: nothing is left, neither in memory nor on the disk.
    void close_all() {
        m_Studies.clear();
        const reference_host::PagerStatistics now = reference_host::GetPagerStatistics();
        EXPECT_EQ(now.blocks, m_BlocksBefore);
        EXPECT_EQ(now.mappings, 0);
        EXPECT_EQ(now.spilled_bytes, 0);
        EXPECT_EQ(spill_file_bytes(m_Folder), 0);
    }

    std::filesystem::path m_Folder;
    std::vector<Kind> m_Kinds;
    std::vector<std::unique_ptr<Study>> m_Studies;
    std::int64_t m_BlocksBefore = 0;
    std::int64_t m_PeakOfOne = 0;
    std::int64_t m_PeakResident = 0;
    std::int64_t m_MostAllocated = 0;
    std::int64_t m_LongestFile = 0;
    int m_NumOpened = 0;
    int m_NumReplaced = 0;
    int m_NumPictures = 0;
    int m_NumRefused = 0;
    int m_NumFullDisks = 0;
    int m_NumUnreadable = 0;
};

}  // namespace

TEST_F(PagingSoak, ManyStudiesUnderABudgetBelowTheSmallest) {
    draw_expected();
    reference_host::SetMemoryBudget(kBudget);

    using Clock = std::chrono::steady_clock;
    const auto end = Clock::now() + std::chrono::duration<double>(test_options::seconds(2.0));
    std::minstd_rand random(5);
    std::vector<std::int64_t> process;  // memory after each closing time
    while (Clock::now() < end || process.size() < 3) {
        for (int i = 0; i < 20 && !HasFailure(); i++) {
            step(random);
        }
        close_all();
        process.push_back(process_bytes());
        ASSERT_FALSE(HasFailure()) << "day " << process.size();
    }

    // The pager may keep up to 64 MiB of freed memory for other blocks. No more may come with the days.
    const std::int64_t most = *std::max_element(process.begin(), process.end());
    EXPECT_LE(most, process.front() + (std::int64_t{80} << 20));
    EXPECT_LE(m_LongestFile, 2 * m_MostAllocated);
    EXPECT_GT(m_NumRefused, 0);
    const auto megabytes = [](std::int64_t bytes) { return std::to_string(bytes / 1000000) + " MB"; };
    std::cout << process.size() << " days, " << m_NumOpened << " studies opened, " << m_NumReplaced << " replaced, "
              << m_NumPictures << " pictures, " << m_NumRefused << " refused; full disk " << m_NumFullDisks
              << " times, file not readable " << m_NumUnreadable << " times\n"
              << "at most " << megabytes(m_MostAllocated) << " allocated, " << megabytes(m_PeakResident)
              << " resident, spill file " << megabytes(m_LongestFile) << "; one study alone, in full, "
              << megabytes(m_PeakOfOne) << "; written out "
              << megabytes(reference_host::GetPagerStatistics().total_spilled_bytes) << "\n"
              << "process after closing, means of the quarters:";
    for (std::size_t quarter = 0; quarter < 4; quarter++) {
        const auto first = process.begin() + static_cast<std::ptrdiff_t>(process.size() * quarter / 4);
        const auto last = process.begin() + static_cast<std::ptrdiff_t>(process.size() * (quarter + 1) / 4);
        std::cout << ' '
                  << megabytes(std::accumulate(first, last, std::int64_t{0}) / std::max<std::int64_t>(last - first, 1));
    }
    std::cout << "; at most " << megabytes(most) << "\n";
}
