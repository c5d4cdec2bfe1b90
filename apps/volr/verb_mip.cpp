// volr mip: a maximum-intensity projection as a PNG.
#include "apps/volr/projection_options.h"
#include "apps/volr/session.h"
#include "apps/volr/tissue_options.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"
#include "scene/output_file.h"
#include "scene/projection.h"

#include <memory>

namespace volr {

namespace {

struct Options {
    InputOptions input;
    std::string output;
    std::string raw_path;
    int bits = 8;
    ViewOptions view;
    ProjectionOptions projection;
    TissueOptions tissues;
    ClipOptions clip;
    bool annotate = false;
    RunOptions running;
};

// Little-endian 16-bit values, rows top to bottom.
std::string RawBytes(const scene::ProjectedPicture& picture) {
    std::string bytes;
    bytes.reserve(picture.stored.size() * 2);
    for (const std::int16_t v : picture.stored) {
        bytes.push_back(static_cast<char>(v & 255));
        bytes.push_back(static_cast<char>(v >> 8 & 255));
    }
    return bytes;
}

void Write(const Options& options, const scene::ProjectedPicture& picture, scene::VolumeSource& source,
           const scene::Camera& camera) {
    const std::optional<scene::DisplayWindow> named = options.projection.ParseWindow();
    const scene::DisplayWindow window = named ? *named : scene::DefaultWindow(source, picture);
    if (!options.raw_path.empty()) {
        scene::WriteFile(options.raw_path, RawBytes(picture));
    }
    if (options.bits == 16) {
        scene::WritePng(options.output, scene::Windowed16(picture, source, window));
        return;
    }
    scene::Picture shown = scene::Windowed(picture, source, window);
    if (options.annotate) {
        scene::Annotate(shown, camera);
    }
    scene::WritePng(options.output, shown);
}

void Run(const Options& options) {
    const scene::View view = options.view.Parse();
    options.projection.Check();
    options.tissues.Check();
    options.clip.Check();
    if (options.annotate && options.bits == 16) {
        Misuse("--annotate", "draws into 8-bit pictures only", "leave out --bits 16 or --annotate");
    }
    CheckOutput(options.output);
    if (!options.raw_path.empty()) {
        CheckOutput(options.raw_path);
    }

    Session session(options.running);
    const std::unique_ptr<scene::VolumeSource> source = session.Open(options.input);
    Tissues tissues(session, options.tissues, {}, *source);
    const Stopwatch prepare_watch;
    scene::Projection projection(*source, options.projection.Linear());
    const scene::Camera camera = scene::MakeCamera(view, source->GetSubject());
    options.projection.Apply(projection);
    tissues.Apply(projection);
    projection.SetClipping(options.clip.Parse(*source));
    projection.SetView(camera, view);
    projection.Prepare();
    session.NotePrepared(prepare_watch.Seconds());

    scene::ProjectedPicture picture;
    session.DrawFrames([&] { picture = projection.Draw(); });

    const Stopwatch write_watch;
    Write(options, picture, *source, camera);
    session.NoteWritten(write_watch.Seconds());
    session.NotePicture(scene::GeometryOf(camera));
    session.Report(options.output);
}

}  // namespace

void AddMipVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("mip", "draws a maximum-intensity projection");
    options->input.AddTo(*verb);
    verb->add_option("-o,--output", options->output, "PNG to write")->required();
    options->view.AddTo(*verb);
    options->projection.AddTo(*verb);
    options->tissues.AddTo(*verb);
    options->clip.AddTo(*verb);
    verb->add_option("--bits", options->bits, "bits of a PNG pixel")
        ->check(CLI::IsMember({8, 16}))
        ->capture_default_str()
        ->group("Picture");
    verb->add_option("--raw16", options->raw_path,
                     "also writes the stored 16-bit values, little-endian, rows top to bottom")
        ->group("Picture");
    verb->add_flag("--annotate", options->annotate, "orientation letters and a scale bar")->group("Picture");
    options->running.AddTo(*verb, true);
    verb->footer(
        "Examples:\n  volr mip study/ -o mip.png\n  volr mip study/ --view left --window 300,800 --slab 40 -o "
        "slab.png\n"
        "  volr mip head.nrrd --fast --depth-cue 0.3 --azimuth 30 -o cue.png\n"
        "  volr mip study/ --labels bones.nii.gz --tissue 1=hidden -o vessels.png");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
