// volr: pictures of medical image stacks from the command line.
#include "apps/volr/self_description.h"
#include "apps/volr/verbs.h"
#include "host/tasks.h"
#include "ip_volr/IP_VOLR_Info.h"
#include "scene/error.h"
#include "scene/import/imported_volume.h"

#include <algorithm>
#include <cstdio>
#include <new>
#include <string>

namespace {

enum ExitStatus { kDone = 0, kFailed = 1, kWrongUsage = 2, kCancelled = 130 };

// One line on standard error.
int Tell(ExitStatus status, std::string text) {
    std::replace(text.begin(), text.end(), '\n', ' ');
    std::fprintf(stderr, "volr: %s\n", text.c_str());
    return status;
}

int TellUsage(const CLI::App& app, const std::string& why) {
    const std::vector<CLI::App*> named = app.get_subcommands();
    const std::string verb = named.empty() ? "" : named.front()->get_name();
    return Tell(kWrongUsage, (verb.empty() ? "command line" : verb) + ": " + why + " (volr " + verb +
                                 (verb.empty() ? "" : " ") + "--help shows what it takes)");
}

// What packagers and shells ask for; not among the verbs.
void AddSelfDescription(CLI::App& app, volr::Work& run) {
    app.add_subcommand("completion", "prints a completion script for bash and zsh")->group("")->callback([&app, &run] {
        run = [&app] { std::fputs(volr::CompletionScript(app).c_str(), stdout); };
    });
    app.add_subcommand("man", "prints the manual page")->group("")->callback([&app, &run] {
        run = [&app] { std::fputs(volr::ManPage(app, IP_VOLR_GetInfo().version).c_str(), stdout); };
    });
}

int Work(const volr::Work& run) {
    try {
        run();
        return kDone;
    } catch (const TCO_CANCEL_EXCEPTION&) {
        return Tell(kCancelled, "cancelled: as you asked (no file is half-written; run it again to finish)");
    } catch (const scene::ImportCancelled&) {
        return Tell(kCancelled, "cancelled: as you asked (no file is half-written; run it again to finish)");
    } catch (const scene::ImportError& e) {
        return Tell(kWrongUsage, e.what());
    } catch (const scene::Error& e) {
        return Tell(e.Kind() == scene::ErrorKind::kInput ? kWrongUsage : kFailed, e.what());
    } catch (const std::bad_alloc&) {
        return Tell(kFailed, "memory: not enough for this volume (close other programs or use --memory-budget)");
    } catch (const std::exception& e) {
        return Tell(kFailed, std::string("internal error: ") + e.what() + " (please report it)");
    }
}

}  // namespace

int main(int argc, char** argv) {
    CLI::App app(
        "Pictures of medical image stacks: volume rendering and maximum-intensity projection on ordinary processors.",
        "volr");
    app.set_version_flag("--version", std::string("volr ") + IP_VOLR_GetInfo().version);
    app.require_subcommand(1);
    app.footer("volr VERB --help shows a verb's options and examples.");
    volr::Work run;
    volr::AddInfoVerb(app, run);
    volr::AddPhantomVerb(app, run);
    volr::AddPresetsVerb(app, run);
    volr::AddRenderVerb(app, run);
    volr::AddMipVerb(app, run);
    volr::AddRotateVerb(app, run);
    volr::AddVesselVerb(app, run);
    volr::AddPickVerb(app, run);
#ifdef IP_VOLR_WITH_SERVER
    volr::AddServeVerb(app, run);
#endif

    AddSelfDescription(app, run);

    try {
        app.parse(argc, argv);
    } catch (const CLI::Success& e) {
        return app.exit(e);  // help and version
    } catch (const CLI::ParseError& e) {
        return TellUsage(app, e.what());
    }
    return Work(run);
}
