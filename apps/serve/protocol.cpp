#include "apps/serve/protocol.h"

#include "apps/serve/checked_fields.h"
#include "scene/presets.h"

#include <nlohmann/json.hpp>

namespace serve {

namespace {

using Json = nlohmann::json;

constexpr double kFarthest = 1e6;  // mm and rescaled values beyond this mean nothing
constexpr std::size_t kMostTissues = 512;
constexpr std::size_t kMostPoints = 1000;
constexpr int kMostMovieFrames = 720;
constexpr std::size_t kLongestName = 200;  // bytes

Pane ParsePane(const Fields& fields) {
    fields.Allow({"mode", "width", "height"});
    const std::string mode = fields.Text("mode", 16);
    Pane pane;
    if (mode == "mip") {
        pane.mode = PaneMode::kMip;
    } else if (mode == "slab") {
        pane.mode = PaneMode::kSlab;
    } else if (mode == "render") {
        pane.mode = PaneMode::kRender;
    } else {
        throw ProtocolError("panes: there is no such mode (give mip, slab or render)");
    }
    pane.width = fields.Whole("width", kSmallestPane, kLargestPane);
    pane.height = fields.Whole("height", kSmallestPane, kLargestPane);
    return pane;
}

std::vector<Pane> ParsePanes(const Fields& scene) {
    std::vector<Pane> panes;
    for (const Fields& fields : scene.Objects("panes", kMostPanes)) {
        panes.push_back(ParsePane(fields));
    }
    if (panes.empty()) {
        throw ProtocolError("panes: there is none (give 1 or 2)");
    }
    return panes;
}

scene::Vec3 ParseVector(const Fields& fields, const char* name, double limit) {
    const std::vector<double> v = fields.Numbers(name, 3, -limit, limit);
    return {v[0], v[1], v[2]};
}

CameraChoice ParseCamera(const Fields& fields) {
    fields.Allow({"right", "down", "zoom", "pan"});
    CameraChoice camera;
    camera.right = ParseVector(fields, "right", 2.0);
    camera.down = ParseVector(fields, "down", 2.0);
    camera.zoom = fields.Number("zoom", 0.1, 20.0);
    const std::vector<double> pan = fields.Numbers("pan", 2, -100.0, 100.0);
    camera.pan_x = pan[0];
    camera.pan_y = pan[1];
    if (!scene::MakeCamera(camera.right, camera.down, {}, {})) {
        throw ProtocolError("camera: right and down do not say where the viewer stands (give perpendicular vectors)");
    }
    return camera;
}

scene::DisplayWindow ParseWindow(const Fields& fields) {
    fields.Allow({"centre", "width"});
    return {fields.Number("centre", -kFarthest, kFarthest), fields.Number("width", 1e-6, kFarthest)};
}

scene::Slab ParseSlab(const Fields& fields) {
    fields.Allow({"thickness", "offset"});
    return {fields.Number("thickness", 1e-3, kFarthest), fields.Number("offset", -kFarthest, kFarthest, 0.0)};
}

std::vector<scene::ClipPlane> ParsePlanes(const Fields& scene) {
    std::vector<scene::ClipPlane> planes;
    for (const std::vector<double>& p : scene.NumberLists("planes", kMostPlanes, 4, -kFarthest, kFarthest)) {
        if (scene::Length({p[0], p[1], p[2]}) < 1e-6) {
            throw ProtocolError("planes: one has no direction (a, b or c must differ from 0)");
        }
        planes.push_back({p[0], p[1], p[2], p[3]});
    }
    return planes;
}

scene::ClipBox ParseBox(const Fields& scene) {
    scene::ClipBox box;
    if (!scene.Has("box")) {
        return box;
    }
    const std::vector<double> sides = scene.Numbers("box", 6, 0.0, 1.0);
    for (std::size_t axis = 0; axis < 3; ++axis) {
        if (sides[2 * axis] >= sides[2 * axis + 1]) {
            throw ProtocolError("box: it leaves nothing (each pair must ascend)");
        }
    }
    std::copy(sides.begin(), sides.end(), box.fractions.begin());
    return box;
}

std::vector<TissueChoice> ParseTissues(const Fields& scene) {
    std::vector<TissueChoice> tissues;
    for (const Fields& fields : scene.Objects("tissues", kMostTissues)) {
        fields.Allow({"label", "visible", "colour", "opacity"});
        TissueChoice choice;
        choice.label = fields.Whole("label", 0, 65535);
        choice.visible = fields.Flag("visible", true);
        if (fields.Has("colour")) {
            choice.colour = fields.Colour("colour", 0);
        }
        choice.opacity = fields.Number("opacity", 0.0, 1.0, 1.0);
        tissues.push_back(choice);
    }
    return tissues;
}

std::string ParsePreset(const Fields& fields) {
    std::string name = fields.Has("preset") ? fields.Text("preset", kLongestName) : "";
    if (!name.empty() && scene::FindPreset(name) == nullptr) {
        throw ProtocolError("preset: there is none of that name (/api/presets lists them)");
    }
    return name;
}

SceneState ParseScene(const Fields& fields) {
    fields.Allow({"type", "id", "moving", "budgetMs", "panes", "camera", "window", "slab", "depthCue", "preset",
                  "opacity", "shift", "lit", "background", "light", "box", "planes", "tissues"});
    SceneState state;
    state.id = fields.Id("id");
    state.moving = fields.Flag("moving", false);
    if (fields.Has("budgetMs")) {
        state.budget_ms = fields.Number("budgetMs", kLeastBudgetMs, kMostBudgetMs);
    }
    state.panes = ParsePanes(fields);
    state.camera = ParseCamera(fields.Object("camera"));
    if (fields.Has("window")) {
        state.window = ParseWindow(fields.Object("window"));
    }
    if (fields.Has("slab")) {
        state.slab = ParseSlab(fields.Object("slab"));
    }
    if (fields.Has("depthCue")) {
        state.depth_cue = fields.Number("depthCue", 0.0, 1.0);
    }
    state.preset = ParsePreset(fields);
    state.shift = fields.Number("shift", -kFarthest, kFarthest, 0.0);
    state.opacity = fields.Number("opacity", 0.0, 10.0, 1.0);
    state.lit = fields.Flag("lit", true);
    if (fields.Has("light")) {
        const Fields light = fields.Object("light");
        light.Allow({"azimuth", "elevation"});
        state.light_azimuth_deg = light.Number("azimuth", -360.0, 360.0);
        state.light_elevation_deg = light.Number("elevation", -360.0, 360.0);
    }
    state.background = fields.Colour("background", 0);
    state.box = ParseBox(fields);
    state.planes = ParsePlanes(fields);
    state.tissues = ParseTissues(fields);
    return state;
}

PickMessage ParsePick(const Fields& fields) {
    fields.Allow({"type", "request", "pane", "x", "y", "vessel"});
    return {fields.Id("request"), fields.Whole("pane", 0, kMostPanes - 1), fields.Number("x", -0.5, kLargestPane - 0.5),
            fields.Number("y", -0.5, kLargestPane - 0.5), fields.Flag("vessel", false)};
}

std::vector<ExportedPoint> ParsePoints(const Fields& message) {
    std::vector<ExportedPoint> points;
    for (const Fields& fields : message.Objects("points", kMostPoints)) {
        fields.Allow({"label", "position", "description"});
        points.push_back({fields.Text("label", kLongestName), ParseVector(fields, "position", kFarthest),
                          fields.Has("description") ? fields.Text("description", kLongestName) : ""});
    }
    return points;
}

ExportMessage ParseExport(const Fields& fields) {
    ExportMessage message;
    message.request = fields.Id("request");
    const std::string kind = fields.Text("kind", 16);
    if (kind == "markups" || kind == "csv") {
        fields.Allow({"type", "request", "kind", "points"});
        message.kind = kind == "csv" ? ExportMessage::Kind::kCsv : ExportMessage::Kind::kMarkups;
        message.points = ParsePoints(fields);
        return message;
    }
    if (kind != "png" && kind != "movie") {
        throw ProtocolError("kind: there is no such export (give png, movie, markups or csv)");
    }
    const bool movie = kind == "movie";
    message.kind = movie ? ExportMessage::Kind::kMovie : ExportMessage::Kind::kPng;
    fields.Allow({"type", "request", "kind", "pane", "width", "height", "annotate", movie ? "frames" : "kind",
                  movie ? "framesPerSecond" : "kind"});
    message.pane = fields.Whole("pane", 0, kMostPanes - 1);
    message.width = fields.Whole("width", kSmallestPane, kLargestExport);
    message.height = fields.Whole("height", kSmallestPane, kLargestExport);
    message.annotate = fields.Flag("annotate", false);
    if (movie) {
        message.frames = fields.Whole("frames", 2, kMostMovieFrames);
        message.frames_per_second = fields.Number("framesPerSecond", 1.0, 60.0);
    }
    return message;
}

Message Parse(const Fields& fields) {
    const std::string type = fields.Text("type", 16);
    if (type == "scene") {
        return ParseScene(fields);
    }
    if (type == "shown") {
        fields.Allow({"type", "id", "pane"});
        return ShownMessage{fields.Id("id"), fields.Whole("pane", 0, kMostPanes - 1)};
    }
    if (type == "open") {
        fields.Allow({"type", "series"});
        return OpenMessage{fields.Text("series", kLongestName)};
    }
    if (type == "pick") {
        return ParsePick(fields);
    }
    if (type == "export") {
        return ParseExport(fields);
    }
    if (type == "cancel") {
        fields.Allow({"type", "request"});
        return CancelMessage{fields.Id("request")};
    }
    throw ProtocolError("type: there is no such message");
}

}  // namespace

Message ParseMessage(std::string_view text) {
    if (text.size() > kLargestMessage) {
        throw ProtocolError("message: it is too long (at most 64 KiB)");
    }
    const Json json = Json::parse(text, nullptr, false);
    if (!json.is_object()) {
        throw ProtocolError("message: it is not a JSON object");
    }
    const Fields fields(json, "");
    const std::optional<std::int64_t> request = fields.RequestIfAny();
    try {
        return Parse(fields);
    } catch (const ProtocolError& error) {
        throw ProtocolError(error.what(), request);
    }
}

}  // namespace serve
