// volr pick: where in the patient a pixel looks.
#include "apps/volr/picked_picture.h"
#include "apps/volr/verbs.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <memory>

namespace volr {

namespace {

using Json = nlohmann::ordered_json;

std::array<int, 3> NearestVoxel(const scene::VolumeSource& source, const scene::Vec3& position_mm) {
    const std::array<double, 3> index = ToArray(source.VoxelIndex(position_mm));
    std::array<int, 3> nearest{};
    for (std::size_t axis = 0; axis < 3; ++axis) {
        nearest[axis] =
            static_cast<int>(std::clamp(std::lround(index[axis]), 0L, static_cast<long>(source.Info().dims[axis] - 1)));
    }
    return nearest;
}

Json PickPixel(PickedPicture& picture, const std::array<double, 2>& pixel) {
    Json json = {{"pixel", pixel}, {"patient_mm", nullptr}, {"voxel", nullptr}, {"value", nullptr}};
    const std::optional<scene::Vec3> position = picture.Position(pixel[0], pixel[1]);
    if (position) {
        const std::array<int, 3> voxel = NearestVoxel(picture.Source(), *position);
        json["patient_mm"] = ToArray(*position);
        json["voxel"] = voxel;
        json["value"] = picture.Source().Rescaled(picture.Source().StoredAt(voxel));
    }
    return json;
}

void Print(const Json& pick) {
    std::printf("pixel %g,%g: ", pick["pixel"][0].get<double>(), pick["pixel"][1].get<double>());
    if (pick["patient_mm"].is_null()) {
        std::printf("nothing opaque\n");
        return;
    }
    const Json& mm = pick["patient_mm"];
    const Json& voxel = pick["voxel"];
    std::printf("%.2f, %.2f, %.2f mm (LPS), voxel %d, %d, %d, value %g\n", mm[0].get<double>(), mm[1].get<double>(),
                mm[2].get<double>(), voxel[0].get<int>(), voxel[1].get<int>(), voxel[2].get<int>(),
                pick["value"].get<double>());
}

void Run(const PickOptions& options) {
    options.Check();
    Session session(options.running);
    PickedPicture picture(session, options);
    if (options.OnRendering()) {
        session.DrawFrames([&] { picture.Draw(); });
    }
    Json all = Json::array();
    for (const std::array<double, 2>& pixel : options.Pixels()) {
        all.push_back(PickPixel(picture, pixel));
    }
    if (options.json) {
        std::printf("%s\n", (all.size() == 1 ? all[0] : all).dump(2).c_str());
    } else {
        std::for_each(all.begin(), all.end(), Print);
    }
    session.WriteStatistics();
}

}  // namespace

void AddPickVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<PickOptions>();
    CLI::App* const verb = app.add_subcommand("pick", "tells which patient position, voxel and value a pixel shows");
    options->AddTo(*verb);
    verb->footer(
        "Examples:\n  volr pick study/ --pixel 256,200\n  volr pick head.nrrd --on render --preset ct-bone --view left "
        "--pixel 256,200 --json");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
