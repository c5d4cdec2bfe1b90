// What the server says: JSON texts and picture messages.
#pragma once

#include "apps/serve/client_scene.h"
#include "apps/serve/drawing_thread.h"
#include "apps/serve/opened_series.h"
#include "apps/serve/series_catalogue.h"

#include <cstdint>
#include <optional>
#include <string>

namespace serve {

struct HelloFacts {
    std::string token;
    int most_clients = 0;
    double budget_ms = kDefaultBudgetMs;     // of a moving picture, unless the page says otherwise
    std::optional<std::string> only_series;  // id of a series that is the only one
};

std::string HelloMessage(const HelloFacts& facts);
std::string OpeningMessage(const std::string& series, double fraction, int slices, int of);
std::string VolumeMessage(OpenedSeries& series);
std::string PickedMessage(const PickMessage& asked, const PickResult& result);
std::string RateMessage(double frames_per_second, double draw_ms, int clients);
std::string ProgressMessage(std::int64_t request, double fraction);
std::string FileMessage(std::int64_t request, const std::string& url, const std::string& name, std::size_t bytes);
std::string ErrorMessage(const std::string& text, std::optional<std::int64_t> request = std::nullopt,
                         bool fatal = false);
// Length of the header, header, bytes of the image file.
std::string PictureMessage(const DrawnFrame& frame);

// Answers to requests beside the socket. `show_names`: series are told by the names that their files give them.
std::string SeriesJson(const SeriesCatalogue::Listing& listing, bool show_names);
std::string PresetsJson();

}  // namespace serve
