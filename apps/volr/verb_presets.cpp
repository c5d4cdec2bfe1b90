// volr presets: the ready-made colours and opacities.
#include "apps/volr/options.h"
#include "apps/volr/verbs.h"
#include "scene/presets.h"

#include <cstdio>
#include <memory>

namespace volr {

void AddPresetsVerb(CLI::App& app, Work& run) {
    const auto dump = std::make_shared<std::string>();
    CLI::App* const verb =
        app.add_subcommand("presets", "lists the presets, or writes one as a file that --transfer reads");
    verb->add_option("--dump", *dump, "preset to print as JSON");
    verb->footer(
        "Examples:\n  volr presets\n  volr presets --dump ct-bone > mine.json\n  volr render study/ --transfer "
        "mine.json -o bone.png");
    verb->callback([dump, &run] {
        run = [dump] {
            if (dump->empty()) {
                for (const scene::TransferFunction& preset : scene::Presets()) {
                    std::printf("%-18s %s\n", preset.name.c_str(), preset.description.c_str());
                }
                return;
            }
            const scene::TransferFunction* const preset = scene::FindPreset(*dump);
            if (preset == nullptr) {
                Misuse("--dump", "there is no preset \"" + *dump + "\"", "volr presets lists them");
            }
            std::fputs(scene::ToJson(*preset).c_str(), stdout);
        };
    });
}

}  // namespace volr
