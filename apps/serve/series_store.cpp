#include "apps/serve/series_store.h"

#include "host/tasks.h"
#include "scene/error.h"
#include "scene/output_file.h"

#include <algorithm>
#include <exception>
#include <filesystem>
#include <future>
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

// One reading of a series, on a thread of its own; the import itself runs in a child process. Outlived by the store.
class SeriesStore::Loading {
public:
    Loading(SeriesStore& store, std::string id, SeriesPlace place, std::shared_ptr<std::atomic<bool>> cancelled)
        : m_Store(store), m_Id(std::move(id)), m_Place(std::move(place)), m_Cancelled(std::move(cancelled)) {}

    void Run() {
        std::shared_ptr<OpenedSeries> series;
        std::string why;
        try {
            series = Read();
        } catch (const std::bad_alloc&) {
            why = "memory: not enough for this series (close other programs or use --memory-budget)";
        } catch (const std::exception& error) {
            m_Store.m_Options.warn(error.what());
            why = WithoutPath(error.what(), m_Place.path);
        }
        if (series == nullptr && m_Growing != nullptr) {
            m_Store.m_Drawing.Replace(m_Growing, nullptr);
        }
        if (series == nullptr || m_Growing == nullptr) {
            TellResult(series, why);
        }
    }

private:
    std::shared_ptr<OpenedSeries> Read() {
        scene::ImportOptions options = Options();
        scene::ImportedVolume volume = scene::ImportVolume(m_Place.path, options);
        for (const std::string& warning : volume.warnings) {
            m_Store.m_Options.warn(warning);
        }
        options = Options();
        options.progress = {};
        options.on_layout = {};
        options.on_slices = {};
        std::optional<SeriesLabels> labels = ReadLabels(m_Store.m_Options, volume, options);
        if (m_Growing == nullptr) {
            return std::make_shared<OpenedSeries>(m_Id, std::make_unique<scene::VolumeSource>(std::move(volume)),
                                                  std::move(labels));
        }
        return Finish(std::move(volume), std::move(labels));
    }

    scene::ImportOptions Options() {
        scene::ImportOptions options;
        options.series = m_Place.series;
        options.num_threads = m_Store.m_Options.num_threads;
        options.is_cancelled = [this] { return m_Cancelled->load(); };
        options.progress = [this](double fraction) { Progress(fraction); };
        options.on_layout = [this](const scene::ImportedVolume& layout) { Begin(layout); };
        options.on_slices = [this](const std::vector<int>& slices) { Take(slices); };
        return options;
    }

    void Progress(double fraction) {
        const int percent = static_cast<int>(fraction * 100.0);
        if (percent == m_Percent) {
            return;
        }
        m_Percent = percent;
        m_Store.Tell(m_Id, [fraction, slices = m_NumSlices](Entry& entry) {
            for (const Listener& listener : entry.listeners) {
                listener.progress(fraction, slices);
            }
        });
    }

    // The series can be shown from now on.
    void Begin(const scene::ImportedVolume& layout) {
        m_Growing = std::make_shared<OpenedSeries>(m_Id, std::make_unique<scene::GrowingSource>(layout));
        m_Store.Tell(m_Id, [growing = m_Growing](Entry& entry) {
            entry.growing = growing;
            for (const Listener& listener : entry.listeners) {
                listener.opened(growing);
            }
        });
    }

    // Slices come one by one; pictures of every few of them are enough.
    void Take(const std::vector<int>& slices) {
        constexpr std::chrono::milliseconds kPause{200};
        m_NumSlices += static_cast<int>(slices.size());
        m_Waiting.insert(m_Waiting.end(), slices.begin(), slices.end());
        const Time now = std::chrono::steady_clock::now();
        if (m_Growing == nullptr || now - m_LastTaken < kPause) {
            return;
        }
        m_LastTaken = now;
        m_Store.m_Drawing.Run(
            [&drawing = m_Store.m_Drawing, growing = m_Growing, taken = std::move(m_Waiting)] {
                growing->Growing()->Take(taken);
                drawing.Refresh(growing);
            },
            m_Growing);
        m_Waiting.clear();
    }

    void TellResult(const std::shared_ptr<OpenedSeries>& series, const std::string& why) {
        m_Store.Tell(m_Id, [&store = m_Store, id = m_Id, series, why](Entry&) { store.Loaded(id, series, why); });
    }

    // On the drawing thread, between pictures: who looked at the growing series looks at the whole one, and is told so
    // before its pictures come.
    std::shared_ptr<OpenedSeries> Finish(scene::ImportedVolume&& volume, std::optional<SeriesLabels>&& labels) {
        using Whole = std::shared_ptr<OpenedSeries>;
        const auto promise = std::make_shared<std::promise<Whole>>();
        std::future<Whole> whole = promise->get_future();
        const auto parts = std::make_shared<std::pair<scene::ImportedVolume, std::optional<SeriesLabels>>>(
            std::move(volume), std::move(labels));
        m_Store.m_Drawing.Run(
            [this, &drawing = m_Store.m_Drawing, growing = m_Growing, promise, parts] {
                drawing.Release(growing);
                try {
                    auto series = std::make_shared<OpenedSeries>(
                        m_Id, growing->Growing()->Finish(std::move(parts->first)), std::move(parts->second));
                    drawing.Replace(growing, series);
                    TellResult(series, "");
                    promise->set_value(std::move(series));
                } catch (...) {
                    drawing.Replace(growing, nullptr);
                    promise->set_exception(std::current_exception());
                }
            },
            m_Growing);
        return whole.get();
    }

    SeriesStore& m_Store;
    const std::string m_Id;
    const SeriesPlace m_Place;
    const std::shared_ptr<std::atomic<bool>> m_Cancelled;
    std::shared_ptr<OpenedSeries> m_Growing;  // once the layout is known
    std::vector<int> m_Waiting;               // slices that are not taken yet
    int m_NumSlices = 0;
    int m_Percent = -1;
    Time m_LastTaken;
};

SeriesStore::SeriesStore(Executor executor, DrawingThread& drawing, LoadOptions options)
    : m_Executor(std::move(executor)),
      m_Drawing(drawing),
      m_Options(std::move(options)),
      m_Alive(std::make_shared<Alive>(Alive{this})) {
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
    if (entry.growing != nullptr) {
        m_Executor([opened = listener.opened, series = entry.growing] { opened(series); });
    }
    entry.listeners.push_back(std::move(listener));
    if (!entry.loader.joinable()) {
        MakeRoom();
        entry.loader =
            std::thread([this, id, place, cancelled = entry.cancelled] { Loading(*this, id, place, cancelled).Run(); });
    }
}

std::shared_ptr<OpenedSeries> SeriesStore::Find(const std::string& id) const {
    const auto found = m_Entries.find(id);
    return found != m_Entries.end() ? found->second.series : nullptr;
}

int SeriesStore::NumLoading() const {
    return static_cast<int>(std::count_if(m_Entries.begin(), m_Entries.end(),
                                          [](const auto& entry) { return entry.second.loader.joinable(); }));
}

// Of the series that nobody looks at only the one that was used last stays.
void SeriesStore::MakeRoom() {
    const auto is_unused = [](const Entry& entry) { return entry.series != nullptr && entry.series.use_count() == 1; };
    Time last;
    for (const auto& [id, entry] : m_Entries) {
        last = is_unused(entry) ? std::max(last, entry.last_used) : last;
    }
    std::erase_if(m_Entries, [&](const auto& e) { return is_unused(e.second) && e.second.last_used < last; });
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

void SeriesStore::Loaded(const std::string& id, const std::shared_ptr<OpenedSeries>& series, const std::string& why) {
    Entry& entry = m_Entries[id];
    entry.loader.join();
    entry.series = series;
    entry.growing.reset();
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
