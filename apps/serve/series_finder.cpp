#include "apps/serve/series_finder.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace serve {

namespace {

namespace fs = std::filesystem;

constexpr int kMostLevels = 8;
constexpr int kMostFolders = 20000;
constexpr std::size_t kMostNames = 200000;  // of one folder
constexpr int kFilesToTry = 16;             // of a folder, before it counts as one without DICOM files

bool IsHidden(const fs::path& path) {
    return path.filename().string().starts_with(".");
}

// Whether a file begins like DICOM. The index of a medium does too, but holds no image and lies above all of them.
bool LooksLikeDicom(const fs::path& path) {
    std::string name = path.filename().string();
    std::transform(name.begin(), name.end(), name.begin(), [](unsigned char c) { return std::toupper(c); });
    std::array<char, 132> start{};
    std::ifstream file(path, std::ios::binary);
    if (name == "DICOMDIR" || !file.read(start.data(), start.size())) {
        return false;
    }
    // Older files have no mark: they begin with an element of a low group.
    const bool is_unmarked = (start[0] == 2 || start[0] == 8) && start[1] == 0 && start[3] == 0;
    return std::memcmp(start.data() + 128, "DICM", 4) == 0 || is_unmarked;
}

// What lies directly in a folder, in the order of the names.
struct FolderContent {
    std::vector<fs::path> folders, volumes, others;
};

FolderContent Look(const fs::path& folder) {
    FolderContent content;
    std::error_code error;
    std::size_t num_names = 0;
    fs::directory_iterator entry(folder, fs::directory_options::skip_permission_denied, error);
    for (const fs::directory_iterator end; !error && entry != end && num_names < kMostNames; entry.increment(error)) {
        ++num_names;
        std::error_code ignored;
        const fs::path& path = entry->path();
        if (IsHidden(path)) {
            continue;
        }
        if (entry->is_directory(ignored)) {
            if (!entry->is_symlink(ignored)) {
                content.folders.push_back(path);
            }
        } else if (entry->is_regular_file(ignored)) {
            (scene::HasVolumeName(path.string()) ? content.volumes : content.others).push_back(path);
        }
    }
    for (auto* const paths : {&content.folders, &content.volumes, &content.others}) {
        std::sort(paths->begin(), paths->end());
    }
    return content;
}

class Search {
public:
    Search(int num_threads, const SearchListener& listener) : m_Listener(listener) {
        m_Options.num_threads = num_threads;
        m_Options.is_cancelled = listener.is_cancelled;
    }

    // `is_listed`: the folder's DICOM files are known already.
    void VisitFolder(const fs::path& folder, int level, bool is_listed) {
        if (level > kMostLevels || ++m_NumFolders > kMostFolders || m_Listener.is_cancelled()) {
            return;
        }
        const FolderContent content = Look(folder);
        const auto tried = std::min<std::ptrdiff_t>(std::ssize(content.others), kFilesToTry);
        if (!is_listed && std::any_of(content.others.begin(), content.others.begin() + tried, LooksLikeDicom)) {
            List(folder);
            is_listed = true;
        }
        for (const fs::path& file : content.volumes) {
            List(file);
        }
        for (const fs::path& inner : content.folders) {
            VisitFolder(inner, level + 1, is_listed);
        }
    }

    void List(const fs::path& path) {
        if (m_Listener.is_cancelled()) {
            return;
        }
        try {
            for (const scene::SeriesInfo& info : scene::ListSeries(path.string(), m_Options)) {
                m_Listener.on_found({path.string(), info});
            }
        } catch (const scene::ImportCancelled&) {
            return;
        } catch (const scene::ImportError& error) {
            m_Listener.on_problem(error.what());
        }
    }

private:
    const SearchListener& m_Listener;
    scene::ImportOptions m_Options;
    int m_NumFolders = 0;
};

}  // namespace

void FindSeries(const std::string& input, int num_threads, const SearchListener& listener) {
    Search search(num_threads, listener);
    std::error_code ignored;
    if (fs::is_directory(input, ignored)) {
        search.VisitFolder(input, 0, false);
    } else {
        search.List(input);
    }
}

}  // namespace serve
