// volr vessel: the centre of the vessel under a pixel.
#include "apps/volr/picked_picture.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"
#include "scene/output_file.h"
#include "scene/vessel_pick.h"

#include <algorithm>
#include <cstdio>
#include <memory>

namespace volr {

namespace {

using Json = nlohmann::ordered_json;

struct Options {
    PickOptions pick;
    std::string output;
    std::string markups;
    bool trace = false;
};

// Prints the search's own log while it lives.
class SearchLog {
public:
    explicit SearchLog(bool on) : m_On(on), m_LevelBefore(reference_host::GetLogLevel()) {
        if (m_On) {
            reference_host::SetLogLevel(7);
            reference_host::LogToCallback([](const reference_host::LogLine& line) { std::fputs(line.text, stdout); });
        }
    }
    ~SearchLog() {
        if (m_On) {
            reference_host::LogToCallback(nullptr);
            reference_host::SetLogLevel(m_LevelBefore);
        }
    }
    SearchLog(const SearchLog&) = delete;
    SearchLog& operator=(const SearchLog&) = delete;

private:
    bool m_On;
    int m_LevelBefore;
};

scene::VesselPick Find(PickedPicture& picture, const Options& options, const std::array<double, 2>& pixel) {
    const std::optional<scene::ViewingRay> ray = picture.Ray(pixel[0], pixel[1]);
    if (!ray) {
        scene::VesselPick missed;
        missed.vessel_class = "none";
        missed.reason = "the pixel's ray misses the volume";
        return missed;
    }
    const SearchLog log(options.trace);
    return options.pick.OnRendering() ? scene::FindVesselOnRendering(picture.Source(), picture.Tables(), *ray)
                                      : scene::FindVesselOnProjection(picture.Source(), *ray);
}

Json PositionOrNull(const std::optional<scene::Vec3>& p) {
    return p ? Json(ToArray(*p)) : Json(nullptr);
}

Json ToJson(const std::array<double, 2>& pixel, const scene::VesselPick& pick) {
    return {{"pixel", pixel},
            {"class", pick.vessel_class},
            {"centre_mm", PositionOrNull(pick.centre_mm)},
            {"centre_voxel", PositionOrNull(pick.centre_voxel)},
            {"picked_mm", PositionOrNull(pick.picked_mm)},
            {"length_mm", pick.length_mm},
            {"reason", pick.reason}};
}

void Print(const std::array<double, 2>& pixel, const scene::VesselPick& pick) {
    std::printf("pixel %g,%g: ", pixel[0], pixel[1]);
    if (pick.found) {
        std::printf("%s vessel, centre %.2f, %.2f, %.2f mm (LPS), %.2f mm along the ray\n", pick.vessel_class.c_str(),
                    pick.centre_mm->x, pick.centre_mm->y, pick.centre_mm->z, pick.length_mm);
    } else {
        std::printf("no vessel: %s\n", pick.reason.c_str());
    }
}

// The picture with a cross at each centre.
void WriteMarked(PickedPicture& picture, const std::string& path, const std::vector<scene::VesselPick>& picks) {
    scene::Picture drawn = picture.Draw();
    for (const scene::VesselPick& pick : picks) {
        if (pick.centre_mm) {
            const scene::Camera::Pixel at = picture.GetCamera().Project(*pick.centre_mm);
            scene::DrawMark(drawn, at.x, at.y, pick.found ? 0x40FF60 : 0xFFB020);
        }
    }
    scene::WritePng(path, drawn);
}

void Run(const Options& options) {
    options.pick.Check();
    for (const std::string& path : {options.output, options.markups}) {
        if (!path.empty()) {
            CheckOutput(path);
        }
    }
    Session session(options.pick.running);
    PickedPicture picture(session, options.pick);

    const std::vector<std::array<double, 2>> pixels = options.pick.Pixels();
    std::vector<scene::VesselPick> picks;
    Json all = Json::array();
    for (const std::array<double, 2>& pixel : pixels) {
        const Stopwatch watch;
        picks.push_back(Find(picture, options, pixel));
        session.NoteFrame(watch.Seconds());
        all.push_back(ToJson(pixel, picks.back()));
        if (!options.pick.json) {
            Print(pixel, picks.back());
        }
        session.ThrowIfCancelled();
    }
    if (options.pick.json) {
        std::printf("%s\n", all.dump(2).c_str());
    }
    if (!options.markups.empty()) {
        scene::WriteFile(options.markups, scene::MarkupsJson(picks));
    }
    if (!options.output.empty()) {
        WriteMarked(picture, options.output, picks);
        session.NotePicture(scene::GeometryOf(picture.GetCamera()));
    }
    if (options.output.empty() || options.pick.json) {
        session.WriteStatistics();
    } else {
        session.Report(options.output);
    }
}

}  // namespace

void AddVesselVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("vessel", "finds the centre of the vessel under a pixel");
    options->pick.AddTo(*verb);
    verb->add_option("-o,--output", options->output, "also draws the picture with a cross at each centre (PNG)");
    verb->add_option("--markups", options->markups,
                     "also writes the centres as a point list for other viewers (.mrk.json, LPS)");
    verb->add_flag("--trace", options->trace, "prints the log of the search");
    verb->footer(
        "Examples:\n  volr vessel study/ --pixel 256,200\n"
        "  volr vessel study/ --on render --preset ct-angio --pixel 256,200 --pixel 300,180 --json --markups "
        "centres.mrk.json -o marked.png");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
