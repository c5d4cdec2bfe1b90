#include "apps/serve/series_catalogue.h"

#include "apps/serve/thumbnail.h"
#include "host/tasks.h"
#include "scene/error.h"

#include <sys/resource.h>
#include <unistd.h>
#include <chrono>
#include <filesystem>
#include <future>

namespace serve {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostSeries = 5000;
constexpr std::size_t kMostProblems = 100;

// The calling thread and what it starts yield to everything else.
void YieldToOthers() {
    ::setpriority(PRIO_PROCESS, static_cast<id_t>(::gettid()), 19);
}

std::string LastPart(const std::string& path) {
    std::error_code ignored;
    const fs::path whole = fs::absolute(path, ignored).lexically_normal();
    return (whole.has_filename() ? whole : whole.parent_path()).filename().string();
}

// Runs the work as a job and waits for what it returns; null when the job was dropped, has failed, or nobody waits any
// more.
template <typename Work>
auto RunAsJob(const RunWhenIdle& run_when_idle, const std::stop_token& stop, Work work)
    -> std::optional<decltype(work())> {
    using Result = decltype(work());
    auto task = std::make_shared<std::packaged_task<Result()>>(std::move(work));
    std::future<Result> result = task->get_future();
    run_when_idle([task = std::move(task)] { (*task)(); });
    while (result.wait_for(std::chrono::milliseconds(20)) != std::future_status::ready) {
        if (stop.stop_requested()) {
            return std::nullopt;
        }
    }
    try {
        return result.get();
    } catch (const std::exception&) {
        return std::nullopt;
    }
}

}  // namespace

SeriesCatalogue::SeriesCatalogue(std::vector<std::string> inputs, RunWhenIdle run_when_idle, CatalogueOptions options)
    : m_Inputs(std::move(inputs)), m_RunWhenIdle(std::move(run_when_idle)), m_Options(options) {
    for (const std::string& input : m_Inputs) {
        std::error_code ignored;
        if (!fs::exists(input, ignored)) {
            throw scene::Error(scene::ErrorKind::kInput, input, "no such file or folder", "check the path");
        }
    }
    m_Scanner = std::jthread([this](const std::stop_token& stop) { Scan(stop); });
    if (m_Options.draw_thumbnails) {
        m_Painter = std::jthread([this](const std::stop_token& stop) { DrawThumbnails(stop); });
    }
}

SeriesCatalogue::~SeriesCatalogue() {
    m_Scanner.request_stop();
    m_Painter.request_stop();
}

SeriesCatalogue::Listing SeriesCatalogue::List() const {
    const std::lock_guard lock(m_Mutex);
    Listing listing;
    listing.is_scanning = m_IsScanning;
    listing.problems = m_Problems;
    for (const Known& known : m_Known) {
        listing.series.push_back(known.entry);
    }
    return listing;
}

const SeriesCatalogue::Known* SeriesCatalogue::FindKnown(const std::string& id) const {
    for (const Known& known : m_Known) {
        if (known.entry.id == id) {
            return &known;
        }
    }
    return nullptr;
}

std::optional<SeriesPlace> SeriesCatalogue::Find(const std::string& id) const {
    const std::lock_guard lock(m_Mutex);
    const Known* const known = FindKnown(id);
    return known != nullptr ? std::optional(known->place) : std::nullopt;
}

std::shared_ptr<const std::string> SeriesCatalogue::Thumbnail(const std::string& id) const {
    const std::lock_guard lock(m_Mutex);
    const Known* const known = FindKnown(id);
    return known != nullptr ? known->thumbnail : nullptr;
}

void SeriesCatalogue::Scan(const std::stop_token& stop) {
    YieldToOthers();
    SearchListener listener;
    listener.on_found = [this](const FoundSeries& found) { Add(found); };
    listener.on_problem = [this](const std::string& line) {
        const std::lock_guard lock(m_Mutex);
        if (m_Problems.size() < kMostProblems) {
            m_Problems.push_back(line);
        }
    };
    listener.is_cancelled = [&] { return stop.stop_requested(); };
    for (const std::string& input : m_Inputs) {
        try {
            FindSeries(input, m_Options.num_threads, listener);
        } catch (const std::exception& error) {
            // Memory or file names that the system cannot spell: the other inputs go on.
            listener.on_problem(input + ": " + error.what());
        }
    }
    const std::lock_guard lock(m_Mutex);
    m_IsScanning = false;
}

void SeriesCatalogue::Add(const FoundSeries& found) {
    Known known;
    known.entry.folder = LastPart(found.path);
    known.entry.modality = found.info.modality;
    known.entry.description = found.info.description;
    known.entry.dims = found.info.dims;
    known.entry.note = found.info.note;
    known.place = {found.path, scene::HasVolumeName(found.path) ? "" : std::to_string(found.info.number)};
    {
        const std::lock_guard lock(m_Mutex);
        if (m_Known.size() >= kMostSeries) {
            return;
        }
        known.entry.id = "s" + std::to_string(m_Known.size() + 1);
        m_Known.push_back(std::move(known));
    }
    m_Grown.notify_all();
}

void SeriesCatalogue::DrawThumbnails(const std::stop_token& stop) {
    YieldToOthers();
    for (std::size_t next = 0;; ++next) {
        Known series;
        {
            std::unique_lock lock(m_Mutex);
            if (!m_Grown.wait(lock, stop, [&] { return next < m_Known.size(); })) {
                return;
            }
            series = m_Known[next];
        }
        const auto thumbnail = MakeThumbnail(series, stop);
        const std::lock_guard lock(m_Mutex);
        m_Known[next].thumbnail = thumbnail;
        m_Known[next].entry.has_thumbnail = thumbnail != nullptr;
    }
}

std::shared_ptr<const std::string> SeriesCatalogue::MakeThumbnail(const Known& series,
                                                                  const std::stop_token& stop) const {
    const std::array<int, 3>& dims = series.entry.dims;
    const double bytes = 2.0 * dims[0] * dims[1] * dims[2];
    if (bytes > static_cast<double>(m_Options.thumbnail_bytes)) {
        return nullptr;
    }
    try {
        // Reading takes processors and memory from whoever looks at pictures: it waits for a quiet moment, too.
        if (!RunAsJob(m_RunWhenIdle, stop, [] { return true; })) {
            return nullptr;
        }
        scene::ImportOptions options;
        options.series = series.place.series;
        options.num_threads = 1;
        options.is_cancelled = [&] { return stop.stop_requested(); };
        const auto thin =
            std::make_shared<scene::ImportedVolume>(Thinned(scene::ImportVolume(series.place.path, options)));
        const auto png = RunAsJob(m_RunWhenIdle, stop, [thin] { return DrawThumbnail(std::move(*thin)); });
        return png ? std::make_shared<const std::string>(*png) : nullptr;
    } catch (const std::exception&) {
        // Whoever opens the series is told why it cannot be read.
        return nullptr;
    }
}

}  // namespace serve
