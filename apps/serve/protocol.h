// What the page says, checked: messages become plain values, or one line that says what is wrong.
#pragma once

#include "scene/clipping.h"
#include "scene/projection.h"
#include "scene/vector3.h"

#include <array>
#include <cstdint>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace serve {

constexpr std::size_t kLargestMessage = 64 * 1024;  // bytes of a text message
constexpr int kSmallestPane = 16;                   // pixels
constexpr int kLargestPane = 2048;
constexpr int kLargestExport = 4096;
constexpr double kLeastBudgetMs = 8.0;  // that a moving picture may be asked to take
constexpr double kMostBudgetMs = 500.0;
constexpr double kDefaultBudgetMs = 33.0;
constexpr std::size_t kMostPanes = 2;
constexpr std::size_t kMostPlanes = 4;

// A message that cannot be taken as it is. what() is one line; `request` is that of the message when it had one.
class ProtocolError : public std::runtime_error {
public:
    explicit ProtocolError(const std::string& why, std::optional<std::int64_t> request = std::nullopt)
        : std::runtime_error(why), m_Request(request) {}

    std::optional<std::int64_t> Request() const { return m_Request; }

private:
    std::optional<std::int64_t> m_Request;
};

enum class PaneMode { kMip, kSlab, kRender };

struct Pane {
    PaneMode mode = PaneMode::kMip;
    int width = 512;  // pixels
    int height = 512;

    bool operator==(const Pane&) const = default;
};

// Unit vectors of the picture in the patient; they need not be quite perpendicular.
struct CameraChoice {
    scene::Vec3 right = {1, 0, 0};
    scene::Vec3 down = {0, 0, -1};
    double zoom = 1.0;
    double pan_x = 0.0;  // picture widths
    double pan_y = 0.0;  // picture heights
};

struct TissueChoice {
    int label = 0;
    bool visible = true;
    std::optional<std::uint32_t> colour;  // 0xRRGGBB; empty: looks like the volume
    double opacity = 1.0;                 // 0 to 1

    bool operator==(const TissueChoice&) const = default;
};

// What to look at, from where, how: the whole state of a page.
struct SceneState {
    std::int64_t id = 0;  // grows with each state of a client
    bool moving = false;
    std::optional<double> budget_ms;  // for a moving picture; empty: the server's default
    std::vector<Pane> panes;
    CameraChoice camera;
    std::optional<scene::DisplayWindow> window;  // empty: what suits the picture
    std::optional<scene::Slab> slab;             // of panes of mode slab
    std::optional<double> depth_cue;
    std::string preset;  // a known name, or empty: the default of the series
    double shift = 0.0;
    double opacity = 1.0;
    bool lit = true;
    double light_azimuth_deg = -25.0;
    double light_elevation_deg = 30.0;
    std::uint32_t background = 0;  // 0xRRGGBB
    scene::ClipBox box;
    std::vector<scene::ClipPlane> planes;
    std::vector<TissueChoice> tissues;
};

struct OpenMessage {
    std::string series;
};

struct ShownMessage {
    std::int64_t id = 0;
    int pane = 0;
};

struct PickMessage {
    std::int64_t request = 0;
    int pane = 0;
    double x = 0.0;  // pixels of the pane
    double y = 0.0;
    bool vessel = false;
};

struct ExportedPoint {
    std::string label;
    scene::Vec3 position_mm;
    std::string description;
};

struct ExportMessage {
    enum class Kind { kPng, kMovie, kMarkups, kCsv };

    std::int64_t request = 0;
    Kind kind = Kind::kPng;
    // Of pictures and movies:
    int pane = 0;
    int width = 0;
    int height = 0;
    bool annotate = false;
    int frames = 0;
    double frames_per_second = 0.0;
    // Of point lists:
    std::vector<ExportedPoint> points;
};

struct CancelMessage {
    std::int64_t request = 0;
};

using Message = std::variant<OpenMessage, SceneState, ShownMessage, PickMessage, ExportMessage, CancelMessage>;

// Throws ProtocolError. Needs nothing but the text: what depends on the open series is checked by who knows it.
Message ParseMessage(std::string_view text);

}  // namespace serve
