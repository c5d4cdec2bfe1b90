#include "apps/serve/series_store.h"

#include "host/tasks.h"
#include "scene/error.h"
#include "scene/output_file.h"

#include <algorithm>
#include <filesystem>
#include <new>

namespace serve {

namespace {

constexpr std::chrono::seconds kKeepUnused{120};
constexpr std::size_t kLargestTable = 16U << 20;

bool IsTable(const std::string& path) {
    const std::string ending = std::filesystem::path(path).extension().string();
    return ending == ".txt" || ending == ".label" || ending == ".lbl";
}

// The labels that go with a series; nothing when there are none or they do not fit.
std::optional<SeriesLabels> ReadLabels(const LoadOptions& options, const scene::ImportedVolume& grid,
                                       const scene::ImportOptions& importing) {
    if (options.labels.empty()) {
        return std::nullopt;
    }
    try {
        SeriesLabels result{scene::LabelVolume(grid), {}};
        for (const std::string& path : options.labels) {
            if (IsTable(path)) {
                const auto entries = scene::ParseLabelTable(scene::ReadFile(path, kLargestTable), path);
                result.table.insert(result.table.end(), entries.begin(), entries.end());
            } else {
                result.labels.Add(scene::ImportLabels(path, importing), options.resample_labels, path);
            }
        }
        return result;
    } catch (const scene::ImportCancelled&) {
        throw;
    } catch (const scene::ImportError& error) {
        options.warn(std::string("labels are left out: ") + error.what());
    } catch (const scene::Error& error) {
        options.warn(std::string("labels are left out: ") + error.what());
    }
    return std::nullopt;
}

// Errors of the import begin with a path of this machine, which is nobody else's business.
std::string WithoutPath(const std::string& line, const std::string& path) {
    const std::size_t at = path.empty() ? std::string::npos : line.find(path);
    return at == std::string::npos ? line : line.substr(0, at) + "series" + line.substr(at + path.size());
}

}  // namespace

SeriesStore::SeriesStore(Executor executor, LoadOptions options)
    : m_Executor(std::move(executor)), m_Options(std::move(options)), m_Alive(std::make_shared<Alive>(Alive{this})) {
    if (!m_Options.warn) {
        m_Options.warn = [](const std::string&) {};
    }
}

SeriesStore::~SeriesStore() {
    m_Alive->store = nullptr;
    for (auto& [id, entry] : m_Entries) {
        entry.cancelled->store(true);
    }
    for (auto& [id, entry] : m_Entries) {
        if (entry.loader.joinable()) {
            entry.loader.join();
        }
    }
}

void SeriesStore::Open(const std::string& id, const SeriesPlace& place, Listener listener) {
    Entry& entry = m_Entries[id];
    entry.last_used = std::chrono::steady_clock::now();
    if (entry.series != nullptr) {
        m_Executor([opened = std::move(listener.opened), series = entry.series] { opened(series); });
        return;
    }
    entry.listeners.push_back(std::move(listener));
    if (!entry.loader.joinable()) {
        entry.loader = std::thread([this, id, place, cancelled = entry.cancelled] { Load(id, place, cancelled); });
    }
}

std::shared_ptr<OpenedSeries> SeriesStore::Find(const std::string& id) const {
    const auto found = m_Entries.find(id);
    return found != m_Entries.end() ? found->second.series : nullptr;
}

void SeriesStore::Sweep() {
    const Time now = std::chrono::steady_clock::now();
    for (auto entry = m_Entries.begin(); entry != m_Entries.end();) {
        const bool used = entry->second.series == nullptr || entry->second.series.use_count() > 1;
        if (used) {
            entry->second.last_used = now;
        }
        entry = now - entry->second.last_used > kKeepUnused ? m_Entries.erase(entry) : std::next(entry);
    }
}

void SeriesStore::Tell(const std::string& id, std::function<void(Entry&)> then) {
    m_Executor([alive = m_Alive, id, then = std::move(then)] {
        if (alive->store == nullptr) {
            return;
        }
        const auto entry = alive->store->m_Entries.find(id);
        if (entry != alive->store->m_Entries.end()) {
            then(entry->second);
        }
    });
}

// On a thread of its own; the import itself runs in a child process.
void SeriesStore::Load(const std::string& id, const SeriesPlace& place,
                       const std::shared_ptr<std::atomic<bool>>& cancelled) {
    scene::ImportOptions options;
    options.series = place.series;
    options.num_threads = m_Options.num_threads;
    options.is_cancelled = [cancelled] { return cancelled->load(); };
    int last_percent = -1;
    options.progress = [&](double fraction) {
        const int percent = static_cast<int>(fraction * 100.0);
        if (percent != last_percent) {
            last_percent = percent;
            Tell(id, [fraction](Entry& entry) {
                for (const Listener& listener : entry.listeners) {
                    listener.progress(fraction);
                }
            });
        }
    };
    std::shared_ptr<OpenedSeries> series;
    std::string why;
    try {
        scene::ImportedVolume volume = scene::ImportVolume(place.path, options);
        for (const std::string& warning : volume.warnings) {
            m_Options.warn(warning);
        }
        options.progress = {};
        std::optional<SeriesLabels> labels = ReadLabels(m_Options, volume, options);
        series = std::make_shared<OpenedSeries>(id, std::move(volume), std::move(labels));
    } catch (const std::bad_alloc&) {
        why = "memory: not enough for this series (close other programs or use --memory-budget)";
    } catch (const std::exception& error) {
        m_Options.warn(error.what());
        why = WithoutPath(error.what(), place.path);
    }
    Tell(id, [this, id, series, why](Entry&) { Loaded(id, series, why); });
}

void SeriesStore::Loaded(const std::string& id, const std::shared_ptr<OpenedSeries>& series, const std::string& why) {
    Entry& entry = m_Entries[id];
    entry.loader.join();
    entry.series = series;
    entry.last_used = std::chrono::steady_clock::now();
    const std::vector<Listener> listeners = std::move(entry.listeners);
    entry.listeners.clear();
    if (series == nullptr) {
        m_Entries.erase(id);
    }
    for (const Listener& listener : listeners) {
        if (series != nullptr) {
            listener.opened(series);
        } else {
            listener.failed(why);
        }
    }
}

}  // namespace serve
