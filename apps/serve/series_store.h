// Series in memory: loaded once for all clients, let go of when nobody looks at them any more.
#pragma once

#include "apps/serve/drawing_thread.h"
#include "apps/serve/opened_series.h"
#include "apps/serve/series_catalogue.h"

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace serve {

// Runs a function on the thread that everything but drawing and loading happens on; safe to be called from any.
using Executor = std::function<void(std::function<void()>)>;

// How series are read.
struct LoadOptions {
    int num_threads = 0;              // 0: one for each processor
    std::vector<std::string> labels;  // label maps and tables that go with the series, where they fit
    bool resample_labels = false;
    std::function<void(const std::string&)> warn;  // lines for the operator; called from loading threads
};

// For one thread, that of the executor; listeners are called on it, never from within Open.
class SeriesStore {
public:
    struct Listener {
        std::function<void(double fraction, int slices)> progress;
        // Once; or first with a series that is not whole yet and then with the whole one.
        std::function<void(std::shared_ptr<OpenedSeries>)> opened;
        std::function<void(const std::string& why)> failed;
    };

    SeriesStore(Executor executor, DrawingThread& drawing, LoadOptions options);
    // Ends what is being loaded.
    ~SeriesStore();
    SeriesStore(const SeriesStore&) = delete;
    SeriesStore& operator=(const SeriesStore&) = delete;

    void Open(const std::string& id, const SeriesPlace& place, Listener listener);
    // The series when it is in memory, whole.
    std::shared_ptr<OpenedSeries> Find(const std::string& id) const;
    int NumLoading() const;
    // Lets go of series that nobody has looked at for a while. Call it now and then.
    void Sweep();

private:
    using Time = std::chrono::steady_clock::time_point;
    struct Entry {
        std::shared_ptr<OpenedSeries> series;   // null while it loads
        std::shared_ptr<OpenedSeries> growing;  // while it loads and can be shown already
        std::vector<Listener> listeners;
        Time last_used;
        std::shared_ptr<std::atomic<bool>> cancelled = std::make_shared<std::atomic<bool>>(false);
        std::thread loader;
    };
    struct Alive {
        SeriesStore* store;
    };

    class Loading;

    void MakeRoom();
    // Runs `then` with the entry on the executor's thread, if both still exist.
    void Tell(const std::string& id, std::function<void(Entry&)> then);
    void Loaded(const std::string& id, const std::shared_ptr<OpenedSeries>& series, const std::string& why);

    Executor m_Executor;
    DrawingThread& m_Drawing;
    LoadOptions m_Options;
    std::map<std::string, Entry> m_Entries;
    std::shared_ptr<Alive> m_Alive;  // what posted functions find the store by
};

}  // namespace serve
