#include "apps/serve/embedded_files.h"

#include "apps/serve/embedded_table.h"

#include <algorithm>
#include <array>
#include <utility>

namespace serve {

std::string_view EmbeddedFile(std::string_view name) {
    const auto* const end = kEmbeddedFiles + kNumEmbeddedFiles;
    const auto* const found =
        std::find_if(kEmbeddedFiles, end, [&](const EmbeddedEntry& entry) { return entry.name == name; });
    return found != end ? std::string_view(reinterpret_cast<const char*>(found->bytes), found->length)
                        : std::string_view();
}

std::string_view ContentType(std::string_view name) {
    constexpr std::array<std::pair<std::string_view, std::string_view>, 6> kTypes = {{
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
        {".svg", "image/svg+xml"},
        {".png", "image/png"},
        {".json", "application/json"},
    }};
    const auto* const found =
        std::find_if(kTypes.begin(), kTypes.end(), [&](const auto& type) { return name.ends_with(type.first); });
    return found != kTypes.end() ? found->second : "application/octet-stream";
}

}  // namespace serve
