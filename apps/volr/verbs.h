// The verbs of the tool. Each adds itself to the command line; when the user names it, `run` becomes its work.
#pragma once

#include <CLI/CLI.hpp>

#include <functional>

namespace volr {

using Work = std::function<void()>;

void AddInfoVerb(CLI::App& app, Work& run);
void AddPhantomVerb(CLI::App& app, Work& run);
void AddPresetsVerb(CLI::App& app, Work& run);
void AddRenderVerb(CLI::App& app, Work& run);
void AddMipVerb(CLI::App& app, Work& run);
void AddRotateVerb(CLI::App& app, Work& run);
void AddVesselVerb(CLI::App& app, Work& run);
void AddPickVerb(CLI::App& app, Work& run);
#ifdef IP_VOLR_WITH_SERVER
void AddServeVerb(CLI::App& app, Work& run);
#endif

}  // namespace volr
