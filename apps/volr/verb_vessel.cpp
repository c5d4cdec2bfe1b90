// volr vessel: the centre of the vessel under a pixel.
#include "apps/volr/picked_picture.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"
#include "scene/markups.h"
#include "scene/output_file.h"

#include <cstdio>
#include <cstring>
#include <memory>

namespace volr {

namespace {

using Json = nlohmann::ordered_json;

struct Options {
    PickedPictureOptions picked;
    PictureOptions picture;
    std::string output;
    std::string markups;
    bool trace = false;
};

// Prints the search's own log lines while it lives: to standard output, or beside JSON to standard error.
class TracePrinter {
public:
    TracePrinter(bool wanted, bool beside_json) : m_Wanted(wanted), m_LevelBefore(reference_host::GetLogLevel()) {
        if (!m_Wanted) {
            return;
        }
        std::FILE* const out = beside_json ? stderr : stdout;
        constexpr int kTraceLevel = 7;
        reference_host::SetLogLevel(kTraceLevel);
        reference_host::LogToCallback([out](const reference_host::LogLine& line) {
            if (std::strcmp(line.source, "ip_volr/IP_Relate") == 0) {
                std::fputs(line.text, out);
            }
        });
    }
    ~TracePrinter() {
        if (m_Wanted) {
            reference_host::LogToCallback(nullptr);
            reference_host::SetLogLevel(m_LevelBefore);
        }
    }
    TracePrinter(const TracePrinter&) = delete;
    TracePrinter& operator=(const TracePrinter&) = delete;

private:
    bool m_Wanted;
    int m_LevelBefore;
};

Json Describe(const Pixel& pixel, const scene::VesselPick& pick) {
    Json json;
    json["pixel"] = Array(pixel);
    json["class"] = scene::Name(pick.vessel_class);
    json["centre_mm"] = pick.found ? Array(pick.centre_mm) : Json();
    json["centre_voxel"] = pick.found ? Array(pick.centre_voxel) : Json();
    json["picked_mm"] = pick.picked_mm ? Array(*pick.picked_mm) : Json();
    json["length_mm"] = pick.found ? Json(pick.length_mm) : Json();
    json["reason"] = pick.found ? Json() : Json(pick.reason);
    return json;
}

std::string Millimetres(double length_mm) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f mm", length_mm);
    return text;
}

std::string Line(const Pixel& pixel, const scene::VesselPick& pick) {
    std::string line = Name(pixel) + "  " + std::string(scene::Name(pick.vessel_class));
    if (!pick.found) {
        line += "  " + std::string(pick.reason);
        return pick.picked_mm ? line + "  picked " + Numbers(*pick.picked_mm) + " mm" : line;
    }
    return line + "  centre " + Numbers(pick.centre_mm) + " mm  voxel " + Numbers(pick.centre_voxel) + "  length " +
           Millimetres(pick.length_mm);
}

struct Result {
    Pixel pixel;
    scene::VesselPick pick;
};

std::string Markups(const std::vector<Result>& results) {
    std::vector<scene::MarkedPoint> points;
    for (const auto& [pixel, pick] : results) {
        if (pick.found) {
            points.push_back({pick.centre_mm, "vessel " + std::to_string(points.size() + 1),
                              std::string(scene::Name(pick.vessel_class)) + ", " + Millimetres(pick.length_mm) +
                                  " along the line of sight, pixel " + Name(pixel)});
        }
    }
    return scene::MarkupsJson(points);
}

// The picture with a mark on each pixel: the centre lies behind it. Green where a vessel was found, red where none.
void WriteMarkedPicture(const Options& options, PickedPicture& picture, const std::vector<Result>& results,
                        Session& session) {
    constexpr std::uint32_t kFound = 0x40E070;
    constexpr std::uint32_t kNotFound = 0xFF5040;
    scene::Picture drawn = picture.Draw(session, options.picture.ParseBackground());
    const Stopwatch watch;
    if (options.picture.annotate) {
        scene::Annotate(drawn, picture.Camera());
    }
    for (const auto& [pixel, pick] : results) {
        scene::DrawMark(drawn, pixel[0], pixel[1], pick.found ? kFound : kNotFound);
    }
    scene::WritePng(options.output, drawn);
    session.NoteWritten(watch.Seconds());
}

// Searches all pixels; prints each result after its trace, or all results as JSON.
std::vector<Result> SearchAndPrint(const Options& options, PickedPicture& picture, const Session& session) {
    const TracePrinter trace(options.trace, options.picked.json);
    std::vector<Result> results;
    Json all = Json::array();
    for (const Pixel& pixel : options.picked.ParsePixels()) {
        session.ThrowIfCancelled();
        const scene::VesselPick pick = picture.VesselAt(pixel);
        results.push_back({pixel, pick});
        if (options.picked.json) {
            all.push_back(Describe(pixel, pick));
        } else {
            std::printf("%s\n", Line(pixel, pick).c_str());
        }
    }
    if (options.picked.json) {
        std::printf("%s\n", all.dump(2).c_str());
    }
    return results;
}

void Run(const Options& options) {
    options.picked.Check();
    options.picture.ParseBackground();
    for (const std::string& path : {options.output, options.markups}) {
        if (!path.empty()) {
            CheckOutput(path);
        }
    }

    Session session(options.picked.running);
    const std::unique_ptr<scene::VolumeSource> source = session.Open(options.picked.input);
    PickedPicture picture(session, options.picked, *source);
    const std::vector<Result> results = SearchAndPrint(options, picture, session);
    if (!options.markups.empty()) {
        scene::WriteFile(options.markups, Markups(results));
    }
    if (!options.output.empty()) {
        WriteMarkedPicture(options, picture, results, session);
    }
    session.NotePicture(scene::GeometryOf(picture.Camera()));
    if (options.output.empty() || options.picked.json) {
        session.WriteStatistics();
    } else {
        session.Report(options.output);
    }
}

}  // namespace

void AddVesselVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("vessel", "centre and length of the vessel under a pixel of a picture");
    options->picked.AddTo(*verb);
    verb->add_option("-o,--output", options->output, "also draws the picture to this PNG, with the pixels marked");
    verb->add_option("--markups", options->markups, "also writes the centres as a point list (.mrk.json, LPS)");
    verb->add_flag("--trace", options->trace, "prints how the search went, step by step");
    options->picture.AddTo(*verb);
    verb->footer(
        "Lengths run along the line of sight, from wall to wall. Positions are patient mm (LPS).\n"
        "Examples:\n  volr vessel study/ --pixel 256,200 -o marked.png\n"
        "  volr vessel study/ --on render --preset ct-angio --view left --pixel 200,180 --pixel 210,180 --json\n"
        "  volr vessel study/ --pixel 256,200 --trace --markups centres.mrk.json");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
