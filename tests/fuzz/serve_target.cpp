// What browsers send, of any content: a message within its bounds or one line that says what is wrong; headers that let
// nobody in who does not know the token.
#include "apps/serve/access.h"
#include "apps/serve/protocol.h"
#include "tests/fuzz/fuzz_input.h"

#include <cmath>
#include <string>
#include <string_view>

namespace {

bool IsWithin(double value, double low, double high) {
    return std::isfinite(value) && value >= low && value <= high;
}

void Check(const serve::SceneState& state) {
    fuzz::Require(state.id >= 0 && !state.panes.empty() && state.panes.size() <= serve::kMostPanes);
    for (const serve::Pane& pane : state.panes) {
        fuzz::Require(IsWithin(pane.width, serve::kSmallestPane, serve::kLargestPane));
        fuzz::Require(IsWithin(pane.height, serve::kSmallestPane, serve::kLargestPane));
    }
    const auto camera = scene::MakeCamera(state.camera.right, state.camera.down, {}, {});
    fuzz::Require(camera && std::abs(scene::Dot(camera->right, camera->down)) < 1e-6);
    fuzz::Require(std::abs(scene::Length(camera->into) - 1.0) < 1e-6);
    fuzz::Require(IsWithin(state.camera.zoom, 0.1, 20.0) && IsWithin(state.opacity, 0.0, 10.0));
    fuzz::Require(!state.window || state.window->width > 0.0);
    fuzz::Require(state.planes.size() <= serve::kMostPlanes);
    for (const scene::ClipPlane& plane : state.planes) {
        fuzz::Require(std::isfinite(plane.d) && scene::Length({plane.a, plane.b, plane.c}) > 0.0);
    }
    for (std::size_t axis = 0; axis < 3; ++axis) {
        fuzz::Require(state.box.fractions[2 * axis] < state.box.fractions[2 * axis + 1]);
    }
    for (const serve::TissueChoice& tissue : state.tissues) {
        fuzz::Require(IsWithin(tissue.label, 0, 65535) && IsWithin(tissue.opacity, 0.0, 1.0));
    }
}

void ReadMessage(std::string_view text) {
    try {
        const serve::Message message = serve::ParseMessage(text);
        if (const auto* const state = std::get_if<serve::SceneState>(&message)) {
            Check(*state);
        }
    } catch (const serve::ProtocolError& error) {
        fuzz::Require(std::string(error.what()).find('\n') == std::string::npos);
    }
}

void ReadHeaders(std::string_view text) {
    const serve::AccessRules access("0123456789abcdef0123456789abcdef", "127.0.0.1", 8765);
    const bool knows_token = text.find(access.Token()) != std::string_view::npos;
    fuzz::Require(knows_token || !access.HasToken(text));
    fuzz::Require(knows_token || !access.IsToken(serve::TokenOfTarget(text)));
    fuzz::Require(!access.IsOwnOrigin(text, "evil.example:8765"));
    fuzz::Require(!access.IsOwnHost(text) || text.size() <= std::string_view("localhost:8765").size());
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    const std::string_view text(reinterpret_cast<const char*>(data), size);
    ReadMessage(text);
    ReadHeaders(text);
    return 0;
}
