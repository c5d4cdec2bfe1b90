// volr rotate: a full turn as numbered pictures or as a movie.
#include "apps/volr/projection_options.h"
#include "apps/volr/session.h"
#include "apps/volr/tissue_options.h"
#include "apps/volr/verbs.h"
#include "scene/annotation.h"
#include "scene/error.h"
#include "scene/movie/movie_writer.h"
#include "scene/projection.h"
#include "scene/volume_rendering.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <filesystem>
#include <memory>

namespace volr {

namespace {

struct Options {
    InputOptions input;
    std::string output;
    int frames = 0;  // 0: as many as suit the kind of output
    int frames_per_second = 25;
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

bool IsMovie(const std::string& output) {
    std::string ending = std::filesystem::path(output).extension().string();
    std::transform(ending.begin(), ending.end(), ending.begin(), [](unsigned char c) { return std::tolower(c); });
    return ending == ".mp4";
}

// Takes the frames of the turn in order.
class TurnOutput {
public:
    virtual ~TurnOutput() = default;
    virtual void Add(const scene::Picture& picture) = 0;
    virtual void Finish() {}
};

class NumberedPictures : public TurnOutput {
public:
    explicit NumberedPictures(const std::string& folder) : m_Folder(folder) {
        std::error_code error;
        std::filesystem::create_directories(folder, error);
        CheckOutput(NextPath());
    }
    void Add(const scene::Picture& picture) override {
        scene::WritePng(NextPath(), picture);
        ++m_Count;
    }

private:
    std::string NextPath() const {
        char name[32];
        std::snprintf(name, sizeof name, "frame_%04d.png", m_Count);
        return (m_Folder / name).string();
    }

    std::filesystem::path m_Folder;
    int m_Count = 0;
};

class Movie : public TurnOutput {
public:
    Movie(const Options& options, const scene::View& view)
        : m_Writer(options.output, view.width, view.height, options.frames_per_second) {
        if (options.picture.ParseBackground().transparent) {
            throw scene::Error(scene::ErrorKind::kInput, "--background", "a movie has no transparency",
                               "name a colour, or write numbered pictures");
        }
    }
    void Add(const scene::Picture& picture) override { m_Writer.Add(picture); }
    void Finish() override { m_Writer.Finish(); }

private:
    scene::MovieWriter m_Writer;
};

std::unique_ptr<TurnOutput> MakeOutput(const Options& options, const scene::View& view) {
    if (IsMovie(options.output)) {
        return std::make_unique<Movie>(options, view);
    }
    return std::make_unique<NumberedPictures>(options.output);
}

int NumFrames(const Options& options) {
    constexpr int kPictures = 36, kMovieSeconds = 4;
    return options.frames > 0 ? options.frames
                              : (IsMovie(options.output) ? kMovieSeconds * options.frames_per_second : kPictures);
}

void Run(const Options& options) {
    scene::View view = options.view.Parse();
    options.picture.ParseBackground();
    options.look.ParseLight();
    options.look.Function();
    options.projection.Check();
    options.tissues.Check();
    options.clip.Check();
    const std::unique_ptr<TurnOutput> output = MakeOutput(options, view);

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
    const int num_frames = NumFrames(options);
    for (int frame = 0; frame < num_frames; ++frame) {
        progress.Show(static_cast<double>(frame) / num_frames);
        view.azimuth_deg = first_azimuth + 360.0 * frame / num_frames;
        const scene::Camera camera = scene::MakeCamera(view, source->GetSubject());
        const Stopwatch frame_watch;
        scene::Picture picture = draw(camera, view);
        session.NoteFrame(frame_watch.Seconds());
        const Stopwatch write_watch;
        if (options.picture.annotate) {
            scene::Annotate(picture, camera);
        }
        output->Add(picture);
        session.NoteWritten(write_watch.Seconds());
        if (frame == 0) {
            session.NotePicture(scene::GeometryOf(camera));
        }
        session.ThrowIfCancelled();
    }
    const Stopwatch finish_watch;
    output->Finish();
    session.NoteWritten(finish_watch.Seconds());
    session.Report(options.output);
}

}  // namespace

void AddRotateVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb =
        app.add_subcommand("rotate", "draws a full turn around the patient as numbered PNGs or a movie");
    options->input.AddTo(*verb);
    verb->add_option("-o,--output", options->output,
                     "folder for frame_0000.png and so on, made when missing; or a movie, NAME.mp4")
        ->required();
    verb->add_option("--frames", options->frames,
                     "number of pictures (default 36; of a movie as many as 4 seconds take)")
        ->check(CLI::Range(1, 9999));
    verb->add_option("--fps", options->frames_per_second, "pictures of a movie in each second")
        ->check(CLI::Range(1, 120))
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
        "256x256 -o turn/\n  volr rotate study/ --preset ct-bone --fps 30 -o turn.mp4");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
