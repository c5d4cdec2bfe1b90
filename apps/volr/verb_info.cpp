// volr info: what an input holds.
#include "apps/volr/session.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"

#include <cmath>
#include <cstdio>
#include <memory>

namespace volr {

namespace {

using Json = nlohmann::ordered_json;

scene::Vec3 Direction(const scene::ImportedVolume& v, std::size_t axis) {
    return {v.index_to_patient[axis], v.index_to_patient[4 + axis], v.index_to_patient[8 + axis]};
}

// Whole numbers print without a fraction.
std::string Number(double value) {
    char text[64];
    std::snprintf(text, sizeof text, "%.6g", value);
    return text;
}

double Rescaled(const scene::ImportedVolume& v, double stored) {
    return stored * v.rescale_slope + v.rescale_intercept;
}

Json Describe(const scene::ImportedVolume& v) {
    Json json;
    json["format"] = scene::Name(v.source);
    json["modality"] = v.modality;
    json["dims"] = v.dims;
    json["spacing_mm"] = v.spacing_mm;
    json["index_to_patient"] = v.index_to_patient;
    json["orientation"] = {scene::DirectionLetters(Direction(v, 0)), scene::DirectionLetters(Direction(v, 1)),
                           scene::DirectionLetters(Direction(v, 2))};
    json["value_range"] = {Rescaled(v, v.min_value), Rescaled(v, v.max_value)};
    json["bits"] = v.bits_stored;
    json["signed"] = v.is_signed;
    json["rescale"] = {{"slope", v.rescale_slope}, {"intercept", v.rescale_intercept}};
    if (v.padding_value) {
        json["padding"] = Rescaled(v, *v.padding_value);
    }
    if (v.window_centre && v.window_width) {
        json["window"] = {*v.window_centre, *v.window_width};
    }
    json["time_points"] = v.num_time_points;
    json["series_number"] = v.series_number;
    json["series"] = Json::array();
    for (const scene::SeriesInfo& s : v.series) {
        json["series"].push_back({{"number", s.number},
                                  {"uid", s.uid},
                                  {"modality", s.modality},
                                  {"description", s.description},
                                  {"dims", s.dims},
                                  {"note", s.note},
                                  {"default", s.is_default}});
    }
    json["warnings"] = v.warnings;
    return json;
}

void PrintText(const scene::ImportedVolume& v) {
    std::printf("format       %s%s%s\n", scene::Name(v.source), v.modality.empty() ? "" : ", ", v.modality.c_str());
    std::printf("size         %d x %d x %d voxels\n", v.dims[0], v.dims[1], v.dims[2]);
    std::printf("spacing      %s x %s x %s mm\n", Number(v.spacing_mm[0]).c_str(), Number(v.spacing_mm[1]).c_str(),
                Number(v.spacing_mm[2]).c_str());
    std::printf("orientation  columns to %s, rows to %s, slices to %s\n",
                scene::DirectionLetters(Direction(v, 0)).c_str(), scene::DirectionLetters(Direction(v, 1)).c_str(),
                scene::DirectionLetters(Direction(v, 2)).c_str());
    std::printf("first voxel  %s, %s, %s mm (LPS)\n", Number(v.index_to_patient[3]).c_str(),
                Number(v.index_to_patient[7]).c_str(), Number(v.index_to_patient[11]).c_str());
    std::printf("values       %s to %s%s, %d bits %s, slope %s, intercept %s\n",
                Number(Rescaled(v, v.min_value)).c_str(), Number(Rescaled(v, v.max_value)).c_str(),
                v.modality == "CT" ? " HU" : "", v.bits_stored, v.is_signed ? "signed" : "unsigned",
                Number(v.rescale_slope).c_str(), Number(v.rescale_intercept).c_str());
    if (v.padding_value) {
        std::printf("padding      %s\n", Number(Rescaled(v, *v.padding_value)).c_str());
    }
    if (v.window_centre && v.window_width) {
        std::printf("window       centre %s, width %s\n", Number(*v.window_centre).c_str(),
                    Number(*v.window_width).c_str());
    }
    if (v.num_time_points > 1) {
        std::printf("time points  %d\n", v.num_time_points);
    }
    for (const scene::SeriesInfo& s : v.series) {
        if (v.series.size() > 1) {
            std::printf(
                "series %-5d %s%d x %d x %d%s%s%s%s\n", s.number, s.modality.empty() ? "" : (s.modality + ", ").c_str(),
                s.dims[0], s.dims[1], s.dims[2], s.description.empty() ? "" : ", ", s.description.c_str(),
                s.note.empty() ? "" : (", " + s.note).c_str(), s.number == v.series_number ? "  (this one)" : "");
        }
    }
}

}  // namespace

void AddInfoVerb(CLI::App& app, Work& run) {
    struct Options {
        InputOptions input;
        RunOptions running;
        bool json = false;
    };
    const auto options = std::make_shared<Options>();
    CLI::App* const verb =
        app.add_subcommand("info", "modality, size, spacing, orientation, values and series of an input");
    options->input.AddTo(*verb);
    verb->add_flag("--json", options->json, "prints one JSON object");
    options->running.AddTo(*verb, false);
    verb->footer("Examples:\n  volr info study/\n  volr info head.nii.gz --json");
    verb->callback([options, &run] {
        run = [options] {
            Session session(options->running);
            const scene::ImportedVolume volume = session.Import(options->input);
            if (options->json) {
                std::printf("%s\n", Describe(volume).dump(2, ' ', false, Json::error_handler_t::replace).c_str());
            } else {
                PrintText(volume);
            }
        };
    });
}

}  // namespace volr
