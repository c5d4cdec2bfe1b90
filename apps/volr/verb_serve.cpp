// volr serve: the viewer in the browser.
#include "apps/serve/http_server.h"
#include "apps/volr/options.h"
#include "apps/volr/session.h"
#include "apps/volr/verbs.h"

#include <cstdio>
#include <memory>

namespace volr {

namespace {

struct Options {
    std::vector<std::string> inputs;
    std::vector<std::string> labels;
    bool resample_labels = false;
    std::string address = "127.0.0.1";
    int port = 8765;
    int clients = 8;
    double budget_ms = serve::kDefaultBudgetMs;
    bool show_names = false;
    RunOptions running;
};

void Run(const Options& options) {
    Session session(options.running);
    serve::ViewerOptions viewer;
    viewer.inputs = options.inputs;
    viewer.loading.num_threads = options.running.threads;
    viewer.loading.labels = options.labels;
    viewer.loading.resample_labels = options.resample_labels;
    viewer.loading.warn = [&session](const std::string& warning) { session.Warn(warning); };
    viewer.catalogue.num_threads = options.running.threads;
    viewer.most_clients = options.clients;
    viewer.budget_ms = options.budget_ms;
    viewer.show_names = options.show_names;

    const serve::ListenOptions listen{options.address, static_cast<unsigned short>(options.port)};
    serve::HttpServer server(listen, std::move(viewer));
    if (options.address != "127.0.0.1" && options.address != "::1") {
        session.Warn("anybody who reaches " + options.address +
                     " and has the link sees the series; the connection is not encrypted");
    }
    // Printed even when quiet: nobody could open it otherwise.
    std::printf("Open %s\n", server.Link().c_str());
    if (!options.running.quiet) {
        std::printf("Ctrl-C ends the viewer.\n");
    }
    std::fflush(stdout);
    server.Run(true);
}

}  // namespace

void AddServeVerb(CLI::App& app, Work& run) {
    const auto options = std::make_shared<Options>();
    CLI::App* const verb = app.add_subcommand("serve", "shows series in the browser: turn, cut, pick and measure");
    verb->add_option("INPUT", options->inputs,
                     "folders to look through and files: DICOM, .nii, .nii.gz, .nrrd, .nhdr, .mha or .mhd")
        ->required();
    const auto network = "Network";
    verb->add_option("--port", options->port, "port to listen on; 0 for any that is free")
        ->check(CLI::Range(0, 65535))
        ->capture_default_str()
        ->group(network);
    verb->add_option("--address", options->address,
                     "address to listen on; any but the default lets other machines in, without encryption")
        ->capture_default_str()
        ->group(network);
    verb->add_option("--clients", options->clients, "pages that may be open at once")
        ->check(CLI::Range(1, 64))
        ->capture_default_str()
        ->group(network);
    verb->add_option("--budget", options->budget_ms, "milliseconds that a moving picture may take")
        ->check(CLI::Range(serve::kLeastBudgetMs, serve::kMostBudgetMs))
        ->capture_default_str()
        ->group("Picture");
    verb->add_flag("--show-names", options->show_names,
                   "shows folder names and series descriptions, which may name the patient")
        ->group("Picture");
    verb->add_option("--labels", options->labels,
                     "label map of a series, or a table of labels' colours (.txt, .label); repeatable")
        ->allow_extra_args(false)
        ->group("Tissues");
    verb->add_flag("--resample-labels", options->resample_labels, "brings label maps of another grid to the volume's")
        ->group("Tissues");
    options->running.AddEngineOptionsTo(*verb);
    verb->footer(
        "Prints a link; the viewer is whoever opens it. Nothing leaves this machine unless --address says so.\n"
        "Examples:\n  volr serve study/\n  volr serve head.nrrd --labels organs.nii.gz --port 0\n"
        "  volr serve studies/ --show-names --address 0.0.0.0");
    verb->callback([options, &run] { run = [options] { Run(*options); }; });
}

}  // namespace volr
