// volr phantom: makes a test volume with known answers.
#include "apps/volr/session.h"
#include "apps/volr/verbs.h"
#include "scene/output_file.h"
#include "scene/phantom.h"
#include "scene/volume_output.h"

#include <cmath>
#include <cstdio>
#include <memory>

namespace volr {

namespace {

struct Options {
    std::string kind;
    std::string output;
    std::string labels;
    std::string centre_lines;
    std::string size = "256,256,200";
    std::uint32_t seed = 1;
    RunOptions running;
};

scene::PhantomRequest Parse(const Options& options) {
    scene::PhantomRequest request;
    request.kind = options.kind == "bricks" ? scene::PhantomKind::kBricks : scene::PhantomKind::kHead;
    request.seed = options.seed;
    const std::vector<double> size = ParseNumbers("--size", options.size, 3);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (!(size[axis] >= 1.0 && size[axis] <= 4096.0) || size[axis] != std::floor(size[axis])) {
            Misuse("--size", "\"" + options.size + "\" is not a volume size",
                   "write it as 256,256,200, each from 1 to 4096");
        }
        request.size[axis] = static_cast<int>(size[axis]);
    }
    return request;
}

void Run(const Options& options) {
    const scene::PhantomRequest request = Parse(options);
    scene::CheckVolumePath(options.output);
    CheckOutput(options.output);
    if (!options.labels.empty()) {
        scene::CheckVolumePath(options.labels);
        CheckOutput(options.labels);
    }

    Session session(options.running);
    const Stopwatch watch;
    const scene::Phantom phantom = scene::MakePhantom(request);
    session.NotePrepared(watch.Seconds());

    const Stopwatch write_watch;
    const scene::VolumeLayout layout{phantom.size, phantom.spacing_mm, phantom.origin_mm};
    scene::WriteVolume(options.output, layout, phantom.voxels.data());
    session.ThrowIfCancelled();
    if (!options.labels.empty()) {
        scene::WriteVolume(options.labels, layout, phantom.labels.data());
    }
    if (!options.centre_lines.empty()) {
        scene::WriteFile(options.centre_lines, scene::CentreLinesJson(phantom));
    }
    session.NoteWritten(write_watch.Seconds());
    session.Report(options.output);
}

}  // namespace

void AddPhantomVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("phantom", "makes a CT-like test volume with known vessels");
    verb->add_option("KIND", options->kind,
                     "head: skull, tissue, airways, vessels with contrast medium; bricks: blocks and straight tubes")
        ->required()
        ->check(CLI::IsMember({"head", "bricks"}));
    verb->add_option("-o,--output", options->output, "volume to write: .nii.gz, .nii, .nrrd, .mha or .mhd")->required();
    verb->add_option("--size", options->size, "voxels, as X,Y,Z")->capture_default_str();
    verb->add_option("--seed", options->seed, "other vessels and noise; the same seed gives the same volume")
        ->capture_default_str();
    verb->add_option("--labels", options->labels,
                     "also writes the label map: 1 soft tissue, 2 bone, 3 brain, 4 vessel, 5 calcification, 6 airway");
    verb->add_option("--centrelines", options->centre_lines,
                     "also writes the vessels' centre lines and radii (JSON, mm, LPS)");
    options->running.AddTo(*verb, false);
    verb->footer(
        "Examples:\n  volr phantom head -o head.nrrd\n  volr phantom head --size 512,512,400 -o head.nii.gz --labels "
        "labels.nii.gz --centrelines truth.json");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
