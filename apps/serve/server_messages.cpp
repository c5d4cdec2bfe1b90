#include "apps/serve/server_messages.h"

#include "host/tasks.h"
#include "ip_volr/IP_VOLR_Info.h"

#include <nlohmann/json.hpp>

#include <cstdio>

namespace serve {

namespace {

using Json = nlohmann::ordered_json;

// Texts of files need not be valid UTF-8.
std::string Text(const Json& json) {
    return json.dump(-1, ' ', false, Json::error_handler_t::replace);
}

Json Array(const scene::Vec3& v) {
    return scene::ToArray(v);
}

Json Window(const std::optional<scene::DisplayWindow>& window) {
    return window ? Json{{"centre", window->centre}, {"width", window->width}} : Json();
}

Json Presets() {
    Json presets = Json::array();
    for (const scene::TransferFunction& preset : scene::Presets()) {
        const std::string prefix = preset.name.substr(0, 3);
        const char* const modality = prefix == "ct-" ? "CT" : prefix == "mr-" ? "MR" : "";
        presets.push_back({{"name", preset.name}, {"description", preset.description}, {"modality", modality}});
    }
    return presets;
}

// What the labels are called, and the colours that they have unless the page says otherwise.
Json Tissues(const OpenedSeries& series) {
    Json tissues = Json::array();
    if (!series.Labels()) {
        return tissues;
    }
    const std::vector<scene::LabelTableEntry>& table = series.Labels()->table;
    const auto plan =
        std::make_unique<scene::TissuePlan>(scene::PlanTissues(series.Labels()->labels.Present(), {}, table));
    for (const int label : series.Labels()->labels.Present()) {
        const auto entry =
            std::find_if(table.begin(), table.end(), [&](const scene::LabelTableEntry& e) { return e.label == label; });
        const bool named = entry != table.end() && !entry->name.empty();
        const scene::TissueLook& look = plan->LookOf(plan->index_of_label[static_cast<std::size_t>(label)]);
        const bool coloured = look.name.size() >= 7 && look.name[0] == '#';
        tissues.push_back({{"label", label},
                           {"name", named ? entry->name : "label " + std::to_string(label)},
                           {"colour", coloured ? Json(look.name.substr(0, 7)) : Json()}});
    }
    return tissues;
}

const char* OutcomeName(scene::PickOutcome outcome) {
    switch (outcome) {
        case scene::PickOutcome::kShown:
            return "shown";
        case scene::PickOutcome::kMissesVolume:
            return "misses";
        case scene::PickOutcome::kNothingVisible:
            break;
    }
    return "nothing";
}

std::string ValueText(double value) {
    char text[32];
    std::snprintf(text, sizeof text, "value %.6g", value);
    return text;
}

Json Vessel(const scene::VesselPick& pick) {
    Json vessel = {{"found", pick.found}, {"class", scene::Name(pick.vessel_class)}, {"reason", pick.reason}};
    if (pick.found) {
        vessel["centre"] = Array(pick.centre_mm);
        vessel["length"] = pick.length_mm;
    }
    return vessel;
}

}  // namespace

std::string HelloMessage(const HelloFacts& facts) {
    return Text({{"type", "hello"},
                 {"version", IP_VOLR_GetInfo().version},
                 {"token", facts.token},
                 {"instructionSet", IP_VOLR_GetInfo().instruction_set},
                 {"threads", TCO_CompoundTaskManager::GetNumberOfServers()},
                 {"presets", Presets()},
                 {"budgetMs", facts.budget_ms},
                 {"limits",
                  {{"clients", facts.most_clients},
                   {"pane", kLargestPane},
                   {"export", kLargestExport},
                   {"planes", kMostPlanes},
                   {"messageBytes", kLargestMessage}}},
                 {"default", facts.only_series ? Json(*facts.only_series) : Json()}});
}

std::string OpeningMessage(const std::string& series, double fraction, int slices, int of) {
    return Text({{"type", "opening"}, {"series", series}, {"fraction", fraction}, {"slices", slices}, {"of", of}});
}

std::string VolumeMessage(OpenedSeries& series) {
    scene::VolumeSource& source = series.Source();
    const scene::ImportedVolume& info = source.Info();
    const scene::Subject subject = source.GetSubject();
    return Text({{"type", "volume"},
                 {"series", series.Id()},
                 {"modality", info.modality},
                 {"dims", info.dims},
                 {"spacing", info.spacing_mm},
                 {"indexToPatient", info.index_to_patient},
                 {"middle", Array(subject.middle_mm)},
                 {"diameter", subject.diameter_mm},
                 {"range", {source.Rescaled(info.min_value), source.Rescaled(info.max_value)}},
                 {"unit", info.modality == "CT" ? "HU" : ""},
                 {"window", Window(series.DefaultWindow())},
                 {"preset", series.DefaultPreset()},
                 {"tissues", Tissues(series)},
                 {"complete", series.IsWhole()}});
}

std::string PickedMessage(const PickMessage& asked, const PickResult& result) {
    const scene::PickedPoint& point = result.point;
    const bool shown = point.outcome == scene::PickOutcome::kShown;
    Json json = {{"type", "picked"},
                 {"request", asked.request},
                 {"pane", asked.pane},
                 {"outcome", OutcomeName(point.outcome)},
                 {"text", shown ? ValueText(point.value) : std::string(scene::Text(point.outcome))}};
    if (shown) {
        json["position"] = Array(point.position_mm);
        json["voxel"] = point.voxel;
        json["value"] = point.value;
    }
    if (result.vessel) {
        json["vessel"] = Vessel(*result.vessel);
    }
    return Text(json);
}

std::string RateMessage(double frames_per_second, double draw_ms, int clients) {
    return Text({{"type", "rate"}, {"framesPerSecond", frames_per_second}, {"drawMs", draw_ms}, {"clients", clients}});
}

std::string ProgressMessage(std::int64_t request, double fraction) {
    return Text({{"type", "progress"}, {"request", request}, {"fraction", fraction}});
}

std::string FileMessage(std::int64_t request, const std::string& url, const std::string& name, std::size_t bytes) {
    return Text({{"type", "file"}, {"request", request}, {"url", url}, {"name", name}, {"bytes", bytes}});
}

std::string ErrorMessage(const std::string& text, std::optional<std::int64_t> request, bool fatal) {
    Json json = {{"type", "error"}, {"text", text}};
    if (request) {
        json["request"] = *request;
    }
    if (fatal) {
        json["fatal"] = true;
    }
    return Text(json);
}

std::string PictureMessage(const DrawnFrame& frame) {
    const std::string header = Text({{"id", frame.scene},
                                     {"pane", frame.pane},
                                     {"final", frame.final},
                                     {"format", frame.format},
                                     {"width", frame.shape.width},
                                     {"height", frame.shape.height},
                                     {"drawMs", frame.draw_ms},
                                     {"encodeMs", frame.encode_ms},
                                     {"window", Window(frame.window)},
                                     {"geometry",
                                      {{"origin", Array(frame.geometry.origin_mm)},
                                       {"right", Array(frame.geometry.right_mm)},
                                       {"down", Array(frame.geometry.down_mm)},
                                       {"towardViewer", Array(frame.geometry.toward_viewer)}}},
                                     {"quality", frame.quality}});
    std::string message;
    message.reserve(4 + header.size() + frame.bytes.size());
    for (unsigned shift = 0; shift < 32; shift += 8) {
        message.push_back(static_cast<char>(header.size() >> shift & 255));
    }
    return message + header + frame.bytes;
}

std::string SeriesJson(const SeriesCatalogue::Listing& listing, bool show_names) {
    Json all = Json::array();
    for (const SeriesEntry& entry : listing.series) {
        Json series = {{"id", entry.id}};
        if (show_names) {
            series["folder"] = entry.folder;
            series["description"] = entry.note.empty() ? entry.description : entry.description + " " + entry.note;
        }
        series["modality"] = entry.modality;
        series["dims"] = entry.dims;
        series["thumbnail"] = entry.has_thumbnail;
        all.push_back(series);
    }
    return Text({{"scanning", listing.is_scanning}, {"series", all}});
}

std::string PresetsJson() {
    return Text(Presets());
}

}  // namespace serve
