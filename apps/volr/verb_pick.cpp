// volr pick: what a pixel shows.
#include "apps/volr/picked_picture.h"
#include "apps/volr/verbs.h"

#include <cstdio>
#include <memory>

namespace volr {

namespace {

using Json = nlohmann::ordered_json;

Json Describe(const Pixel& pixel, const scene::PickedPoint& point) {
    const bool shown = point.outcome == scene::PickOutcome::kShown;
    Json json;
    json["pixel"] = Array(pixel);
    json["patient_mm"] = shown ? Array(point.position_mm) : Json();
    json["voxel"] = shown ? Json(point.voxel) : Json();
    json["voxel_value"] = shown ? Json(point.voxel_value) : Json();
    json["value"] = shown ? Json(point.value) : Json();
    json["reason"] = shown ? Json() : Json(scene::Text(point.outcome));
    return json;
}

std::string Line(const Pixel& pixel, const scene::PickedPoint& point) {
    if (point.outcome != scene::PickOutcome::kShown) {
        return Name(pixel) + "  nothing: " + std::string(scene::Text(point.outcome));
    }
    char numbers[160];
    std::snprintf(numbers, sizeof numbers, "value %.6g  at %s mm  nearest voxel %d %d %d of value %.6g", point.value,
                  Numbers(point.position_mm).c_str(), point.voxel[0], point.voxel[1], point.voxel[2],
                  point.voxel_value);
    return Name(pixel) + "  " + numbers;
}

void Run(const PickedPictureOptions& options) {
    options.Check();
    Session session(options.running);
    const std::unique_ptr<scene::VolumeSource> source = session.Open(options.input);
    PickedPicture picture(session, options, *source);

    Json all = Json::array();
    for (const Pixel& pixel : options.ParsePixels()) {
        session.ThrowIfCancelled();
        const scene::PickedPoint point = picture.PickAt(pixel);
        if (options.json) {
            all.push_back(Describe(pixel, point));
        } else {
            std::printf("%s\n", Line(pixel, point).c_str());
        }
    }
    if (options.json) {
        std::printf("%s\n", (all.size() == 1 ? all[0] : all).dump(2).c_str());
    }
    session.NotePicture(scene::GeometryOf(picture.Camera()));
    session.WriteStatistics();
}

}  // namespace

void AddPickVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<PickedPictureOptions>();
    CLI::App* const verb =
        app.add_subcommand("pick", "patient position, voxel and value that a pixel of a picture shows");
    options->AddTo(*verb);
    verb->footer(
        "Positions are patient mm (LPS), voxels count from 0 along columns, rows and slices.\n"
        "Examples:\n  volr pick study/ --pixel 256,200\n"
        "  volr pick study/ --on render --preset ct-bone --view left --pixel 200,180 --pixel 210,180 --json");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
