// volr rotate: a full turn as numbered pictures.
#include "apps/volr/projection_options.h"
#include "apps/volr/session.h"
#include "apps/volr/tissue_options.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"
#include "scene/error.h"
#include "scene/projection.h"
#include "scene/volume_rendering.h"

#include <cstdio>
#include <filesystem>
#include <memory>

namespace volr {

namespace {

struct Options {
    InputOptions input;
    std::string folder;
    int frames = 36;
    std::string mode = "render";
    ViewOptions view;
    LookOptions look;
    ProjectionOptions projection;
    TissueOptions tissues;
    ClipOptions clip;
    PictureOptions picture;
    RunOptions running;
};

// Draws the picture of one camera.
using Drawer = std::function<scene::Picture(const scene::Camera&, const scene::View&)>;

Drawer RenderDrawer(const Options& options, Tissues& tissues, scene::VolumeSource& source) {
    auto rendering = std::make_shared<scene::VolumeRendering>(source);
    rendering->SetTransfer(options.look.FunctionFor(source), options.look.Lit());
    tissues.Apply(*rendering);
    rendering->SetQuality(options.look.ParseQuality());
    rendering->SetClipping(options.clip.Parse(source));
    return [rendering, light = options.look.ParseLight(), background = options.picture.ParseBackground()](
               const scene::Camera& camera, const scene::View&) {
        rendering->SetView(camera, light);
        return rendering->Draw(background);
    };
}

// The first frame's window holds for the whole turn.
Drawer MipDrawer(const Options& options, Tissues& tissues, scene::VolumeSource& source) {
    auto projection = std::make_shared<scene::Projection>(source, options.projection.Linear());
    options.projection.Apply(*projection);
    tissues.Apply(*projection);
    projection->SetClipping(options.clip.Parse(source));
    projection->Prepare();
    auto window = std::make_shared<std::optional<scene::DisplayWindow>>(options.projection.ParseWindow());
    return [projection, window, &source](const scene::Camera& camera, const scene::View& view) {
        projection->SetView(camera, view);
        const scene::ProjectedPicture picture = projection->Draw();
        if (!*window) {
            *window = scene::DefaultWindow(source, picture);
        }
        return scene::Windowed(picture, source, **window);
    };
}

std::string FramePath(const Options& options, int frame) {
    char name[32];
    std::snprintf(name, sizeof name, "frame_%04d.png", frame);
    return (std::filesystem::path(options.folder) / name).string();
}

void Run(const Options& options) {
    scene::View view = options.view.Parse();
    options.picture.ParseBackground();
    options.look.ParseLight();
    options.look.Function();
    options.projection.Check();
    options.tissues.Check();
    options.clip.Check();
    std::error_code error;
    std::filesystem::create_directories(options.folder, error);
    CheckOutput(FramePath(options, 0));

    Session session(options.running);
    const std::unique_ptr<scene::VolumeSource> source = session.Open(options.input);
    if (options.mode != "mip") {
        session.WarnIfTooFlatForRays(*source);
    }
    Tissues tissues(session, options.tissues, options.look, *source);
    const Stopwatch prepare_watch;
    const Drawer draw =
        options.mode == "mip" ? MipDrawer(options, tissues, *source) : RenderDrawer(options, tissues, *source);
    session.NotePrepared(prepare_watch.Seconds());

    Progress progress("drawing", session.Quiet());
    const double first_azimuth = view.azimuth_deg;
    for (int frame = 0; frame < options.frames; ++frame) {
        progress.Show(static_cast<double>(frame) / options.frames);
        view.azimuth_deg = first_azimuth + 360.0 * frame / options.frames;
        const scene::Camera camera = scene::MakeCamera(view, source->GetSubject());
        const Stopwatch frame_watch;
        scene::Picture picture = draw(camera, view);
        session.NoteFrame(frame_watch.Seconds());
        const Stopwatch write_watch;
        if (options.picture.annotate) {
            scene::Annotate(picture, camera);
        }
        scene::WritePng(FramePath(options, frame), picture);
        session.NoteWritten(write_watch.Seconds());
        if (frame == 0) {
            session.NotePicture(scene::GeometryOf(camera));
        }
        session.ThrowIfCancelled();
    }
    session.Report(options.folder);
}

}  // namespace

void AddRotateVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("rotate", "draws a full turn around the patient as numbered PNGs");
    options->input.AddTo(*verb);
    verb->add_option("-o,--output", options->folder, "folder for frame_0000.png and so on; made when missing")
        ->required();
    verb->add_option("--frames", options->frames, "number of pictures")
        ->check(CLI::Range(1, 9999))
        ->capture_default_str();
    verb->add_option("--mode", options->mode, "kind of picture")
        ->check(CLI::IsMember({"mip", "render"}))
        ->capture_default_str();
    options->view.AddTo(*verb);
    options->look.AddTo(*verb);
    options->tissues.AddTo(*verb);
    options->projection.AddTo(*verb);
    options->clip.AddTo(*verb);
    options->picture.AddTo(*verb);
    options->running.AddTo(*verb, false);
    verb->footer(
        "Examples:\n  volr rotate study/ -o turn/\n  volr rotate head.nrrd --mode mip --fast --frames 72 --size "
        "256x256 -o turn/");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
