// The series that the viewer offers: found in the background, with a small picture of each.
#pragma once

#include "apps/serve/series_finder.h"

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

namespace serve {

// Takes a job and returns at once; runs it once, on the thread that draws, as soon as nothing else is drawn, or drops
// it. The job may outlive whoever handed it over.
using RunWhenIdle = std::function<void(std::function<void()>)>;

// What may be shown of a series.
struct SeriesEntry {
    std::string id;      // short, made up, the same in each run over the same files
    std::string folder;  // last part of the folder's or file's name
    std::string modality, description;
    std::array<int, 3> dims{};  // columns, rows, slices
    std::string note;           // what sets it apart from others of its folder; mostly empty
    bool has_thumbnail = false;
};

// How scene::ImportVolume opens a series: its path, and ImportOptions::series.
struct SeriesPlace {
    std::string path, series;
};

struct CatalogueOptions {
    int num_threads = 0;  // for reading headers; 0 means one for each processor
    bool draw_thumbnails = true;
    std::size_t thumbnail_bytes = std::size_t{2} << 30;  // larger volumes get no thumbnail
};

// Searches and draws from its construction until its destruction, which ends both within a moment. Safe to be called
// from several threads.
class SeriesCatalogue {
public:
    struct Listing {
        bool is_scanning = true;
        std::vector<SeriesEntry> series;    // in the order in which they were found; only ever grows
        std::vector<std::string> problems;  // lines about what could not be read, with paths: not for clients
    };

    // Throws scene::Error of the input kind when an input does not exist.
    SeriesCatalogue(std::vector<std::string> inputs, RunWhenIdle run_when_idle, CatalogueOptions options = {});
    ~SeriesCatalogue();
    SeriesCatalogue(const SeriesCatalogue&) = delete;
    SeriesCatalogue& operator=(const SeriesCatalogue&) = delete;

    Listing List() const;
    // Nothing when there is no such id.
    std::optional<SeriesPlace> Find(const std::string& id) const;
    // A PNG file of 192 x 192 pixels; null as long as it is not drawn, or when it cannot be.
    std::shared_ptr<const std::string> Thumbnail(const std::string& id) const;

private:
    struct Known {
        SeriesEntry entry;
        SeriesPlace place;
        std::shared_ptr<const std::string> thumbnail;
    };

    void Scan(const std::stop_token& stop);
    void Add(const FoundSeries& found);
    void DrawThumbnails(const std::stop_token& stop);
    std::shared_ptr<const std::string> MakeThumbnail(const Known& series, const std::stop_token& stop) const;
    const Known* FindKnown(const std::string& id) const;  // under the lock

    const std::vector<std::string> m_Inputs;
    const RunWhenIdle m_RunWhenIdle;
    const CatalogueOptions m_Options;
    mutable std::mutex m_Mutex;
    std::condition_variable_any m_Grown;
    std::vector<Known> m_Known;
    std::vector<std::string> m_Problems;
    bool m_IsScanning = true;
    std::jthread m_Scanner, m_Painter;
};

}  // namespace serve
