// Bounds of what a page may say.
#include "apps/serve/protocol.h"

#include <gtest/gtest.h>
#include <nlohmann/json.hpp>

#include <functional>

namespace {

using Json = nlohmann::json;

Json WholeScene() {
    return Json::parse(R"({"type": "scene", "id": 7, "moving": true, "budgetMs": 20,
        "panes": [{"mode": "slab", "width": 640, "height": 480}, {"mode": "render", "width": 16, "height": 2048}],
        "camera": {"right": [0, 1, 0], "down": [0, 0, -1], "zoom": 2.5, "pan": [0.1, -0.2]},
        "window": {"centre": 40, "width": 400}, "slab": {"thickness": 12, "offset": -3}, "depthCue": 0.4,
        "preset": "ct-bone", "shift": -20, "opacity": 0.5, "lit": false, "light": {"azimuth": 10, "elevation": 20},
        "background": "#0A0B0C", "box": [0, 0.5, 0, 1, 0.25, 1], "planes": [[0, 1, 0, 5]],
        "tissues": [{"label": 3, "visible": false, "colour": "#FF8000", "opacity": 0.3}]})");
}

TEST(Protocol, TakesAWholeScene) {
    const auto state = std::get<serve::SceneState>(serve::ParseMessage(WholeScene().dump()));
    EXPECT_EQ(state.id, 7);
    EXPECT_TRUE(state.moving);
    EXPECT_EQ(state.panes,
              (std::vector<serve::Pane>{{serve::PaneMode::kSlab, 640, 480}, {serve::PaneMode::kRender, 16, 2048}}));
    EXPECT_EQ(state.camera.pan_y, -0.2);
    EXPECT_EQ(state.window->width, 400);
    EXPECT_EQ(state.slab->offset_mm, -3);
    EXPECT_EQ(state.background, 0x0A0B0CU);
    EXPECT_EQ(state.box.fractions[4], 0.25);
    EXPECT_EQ(state.planes.at(0).d, 5);
    EXPECT_EQ(state.tissues.at(0), (serve::TissueChoice{3, false, 0xFF8000U, 0.3}));
    // What is null or missing is left to the server.
    Json least = WholeScene();
    for (const char* const name : {"window", "slab", "preset", "budgetMs", "depthCue"}) {
        least[name] = nullptr;
    }
    least.erase("tissues");
    const auto open = std::get<serve::SceneState>(serve::ParseMessage(least.dump()));
    EXPECT_FALSE(open.window || open.slab || open.budget_ms || open.depth_cue);
    EXPECT_EQ(open.preset, "");
}

TEST(Protocol, RefusesWhatIsOutOfBoundsAndNamesIt) {
    const std::vector<std::pair<const char*, Json>> wrong = {
        {"/id", -1},
        {"/id", 1.5},
        {"/id", "7"},
        {"/moving", 1},
        {"/budgetMs", 7.9},
        {"/budgetMs", 501},
        {"/panes", Json::array()},
        {"/panes/2", {{"mode", "mip"}, {"width", 64}, {"height", 64}}},
        {"/panes/0/mode", "gallery"},
        {"/panes/0/width", 15},
        {"/panes/1/height", 2049},
        {"/panes/1/width", 16.5},
        {"/camera/right", {0, 0, 0}},
        {"/camera/right", {0, 0, 1}},
        {"/camera/right", {0, 1}},
        {"/camera/down", {0, 0, "x"}},
        {"/camera/zoom", 0.09},
        {"/camera/pan", {1e300, 0}},
        {"/window/width", 0},
        {"/slab/thickness", -1},
        {"/depthCue", 1.01},
        {"/preset", "../ct-bone"},
        {"/opacity", 11},
        {"/light/azimuth", nullptr},
        {"/background", "#12345"},
        {"/background", "#-12345"},
        {"/box", {0, 1, 0.5, 0.5, 0, 1}},
        {"/box", {0, 1, 0, 1, 0, 1.1}},
        {"/planes/0", {0, 0, 0, 1}},
        {"/planes", Json(std::vector<Json>(5, {0, 1, 0, 5}))},
        {"/tissues/0/label", 65536},
        {"/tissues/0/opacity", -0.1},
        {"/unheard", 1},
        {"/camera/fov", 1},
    };
    for (const auto& [path, value] : wrong) {
        Json scene = WholeScene();
        scene[Json::json_pointer(path)] = value;
        const std::string field = std::string(path).substr(1, std::string(path).find('/', 1) - 1);
        try {
            serve::ParseMessage(scene.dump());
            ADD_FAILURE() << path << " " << value;
        } catch (const serve::ProtocolError& error) {
            EXPECT_NE(std::string(error.what()).find(field), std::string::npos) << path << ": " << error.what();
        }
    }
    const std::string big = R"({"type": "open", "series": ")" + std::string(serve::kLargestMessage, 'x') + "\"}";
    const std::string deep(60000, '[');
    for (const std::string& text :
         {std::string(), std::string("{"), std::string("[]"), std::string("{\"type\": 1}"),
          std::string("{\"type\": \"x\"}"), std::string("{\"type\": \"scene\", \"id\": 1e999}"),
          std::string("{\"type\": \"open\", \"series\": \"a\\u0000\"}"), big, deep}) {
        EXPECT_THROW(serve::ParseMessage(text), serve::ProtocolError) << text.substr(0, 60);
    }
    // An answer to a wrong request says which.
    try {
        serve::ParseMessage(R"({"type": "export", "request": 9, "kind": "tape"})");
        ADD_FAILURE();
    } catch (const serve::ProtocolError& error) {
        EXPECT_EQ(error.Request(), 9);
    }
}

}  // namespace
