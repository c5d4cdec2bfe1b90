// Preset files and label tables of any content: refused in one line, or a function that makes tables and writes itself
// again.
#include "scene/error.h"
#include "scene/labels.h"
#include "scene/preset_file.h"
#include "tests/fuzz/fuzz_input.h"

#include <string>
#include <string_view>

namespace {

void ReadPreset(std::string_view text) {
    const scene::TransferFunction function = scene::TransferFromFile(text, "file");
    const scene::TransferFunction again = scene::TransferFromJson(scene::ToJson(function), "file");
    fuzz::Require(again.opacity.size() == function.opacity.size());
    fuzz::Require(again.colour.size() == function.colour.size());
    for (const bool is_signed : {false, true}) {
        const scene::TransferFunction resolved = scene::Resolved(function, -100.0, 900.0);
        const scene::TransferTables tables(scene::Adjusted(resolved, 20.0, 1.5), {is_signed, 8, 2.0, -100.0});
        fuzz::Require(tables.Colours() != nullptr && tables.Weights() != nullptr);
    }
}

void ReadLabelTable(std::string_view text) {
    for (const scene::LabelTableEntry& entry : scene::ParseLabelTable(text, "file")) {
        fuzz::Require(entry.label >= 0 && entry.label <= 65535);
        fuzz::Require(entry.opacity >= 0.0 && entry.opacity <= 1.0);
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    for (const auto read : {ReadPreset, ReadLabelTable}) {
        try {
            read(text);
        } catch (const scene::Error& error) {
            fuzz::Require(std::string(error.what()).find('\n') == std::string::npos);
        }
    }
    return 0;
}
