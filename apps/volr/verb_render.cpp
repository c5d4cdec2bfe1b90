// volr render: a shaded volume rendering as a PNG.
#include "apps/volr/session.h"
#include "apps/volr/tissue_options.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"
#include "scene/volume_rendering.h"

#include <memory>

namespace volr {

namespace {

struct Options {
    InputOptions input;
    std::string output;
    ViewOptions view;
    LookOptions look;
    TissueOptions tissues;
    ClipOptions clip;
    PictureOptions picture;
    RunOptions running;
};

void Run(const Options& options) {
    const scene::View view = options.view.Parse();
    const scene::Background background = options.picture.ParseBackground();
    const scene::Light light = options.look.ParseLight();
    options.look.Function();
    options.tissues.Check();
    options.clip.Check();
    CheckOutput(options.output);

    Session session(options.running);
    const std::unique_ptr<scene::VolumeSource> source = session.Open(options.input);
    session.WarnIfTooFlatForRays(*source);
    Tissues tissues(session, options.tissues, options.look, *source);

    const Stopwatch prepare_watch;
    scene::VolumeRendering rendering(*source);
    rendering.SetTransfer(options.look.FunctionFor(*source), options.look.Lit());
    tissues.Apply(rendering);
    rendering.SetQuality(options.look.ParseQuality());
    rendering.SetClipping(options.clip.Parse(*source));
    const scene::Camera camera = scene::MakeCamera(view, source->GetSubject());
    rendering.SetView(camera, light);
    session.NotePrepared(prepare_watch.Seconds());

    scene::Picture picture;
    session.DrawFrames([&] { picture = rendering.Draw(background); });

    const Stopwatch write_watch;
    if (options.picture.annotate) {
        scene::Annotate(picture, camera);
    }
    scene::WritePng(options.output, picture);
    session.NoteWritten(write_watch.Seconds());
    session.NotePicture(scene::GeometryOf(camera));
    session.Report(options.output);
}

}  // namespace

void AddRenderVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("render", "draws a shaded volume rendering");
    options->input.AddTo(*verb);
    verb->add_option("-o,--output", options->output, "PNG to write")->required();
    options->view.AddTo(*verb);
    options->look.AddTo(*verb);
    options->tissues.AddTo(*verb);
    options->clip.AddTo(*verb);
    options->picture.AddTo(*verb);
    options->running.AddTo(*verb, true);
    verb->footer(
        "Examples:\n  volr render study/ -o front.png\n  volr render study/ --preset ct-bone --view left --azimuth -30 "
        "--size 1024x1024 -o bone.png\n"
        "  volr render head.nrrd --preset ct-skin --clip-box 0,1,0.5,1,0,1 --annotate -o open.png\n"
        "  volr render study/ --labels organs.nii.gz --tissue 5=#C04040 --tissue 2=hidden -o organs.png");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
