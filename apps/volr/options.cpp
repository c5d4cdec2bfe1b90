#include "apps/volr/options.h"

#include "scene/error.h"
#include "scene/output_file.h"
#include "scene/preset_file.h"
#include "scene/presets.h"

#include <charconv>
#include <cmath>

namespace volr {

namespace {

constexpr int kLargestPicture = 16384;
constexpr std::size_t kLargestPresetFile = 16U << 20;

// A whole text as one finite number.
std::optional<double> ToNumber(std::string_view text) {
    double number = 0.0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    return whole && std::isfinite(number) ? std::optional(number) : std::nullopt;
}

std::vector<std::string> Names(const std::vector<std::string_view>& names) {
    return {names.begin(), names.end()};
}

// WxH in whole pixels.
std::array<int, 2> ParseSize(const std::string& text) {
    int width = 0;
    int height = 0;
    const char* const end = text.data() + text.size();
    const std::from_chars_result w = std::from_chars(text.data(), end, width);
    const std::from_chars_result h = w.ptr != end && *w.ptr == 'x' ? std::from_chars(w.ptr + 1, end, height) : w;
    const bool usable = width >= 1 && height >= 1 && width <= kLargestPicture && height <= kLargestPicture;
    if (h.ptr != end || h.ec != std::errc() || !usable) {
        Misuse("--size", "\"" + text + "\" is not a picture size", "write it as 512x512, at most 16384x16384");
    }
    return {width, height};
}

void CheckFinite(const std::string& option, double value) {
    if (!std::isfinite(value)) {
        Misuse(option, "is not a number", "give a number");
    }
}

}  // namespace

void Misuse(const std::string& option, const std::string& why, const std::string& advice) {
    throw scene::Error(scene::ErrorKind::kInput, option, why, advice);
}

std::vector<double> ParseNumbers(const std::string& option, const std::string& text, std::size_t count) {
    std::vector<double> numbers;
    for (std::size_t from = 0; from <= text.size();) {
        const std::size_t to = std::min(text.find(',', from), text.size());
        const std::optional<double> number = ToNumber(std::string_view(text).substr(from, to - from));
        if (!number) {
            Misuse(option, "\"" + text + "\" is not a list of numbers",
                   "give " + std::to_string(count) + " numbers with commas between");
        }
        numbers.push_back(*number);
        from = to + 1;
    }
    if (numbers.size() != count) {
        Misuse(option, "\"" + text + "\" holds " + std::to_string(numbers.size()) + " numbers",
               "give " + std::to_string(count) + " numbers with commas between");
    }
    return numbers;
}

std::uint32_t ParseColour(const std::string& option, const std::string& text) {
    std::uint32_t rgb = 0;
    const char* const end = text.data() + text.size();
    if (text.size() != 7 || text[0] != '#' || std::from_chars(text.data() + 1, end, rgb, 16).ptr != end) {
        Misuse(option, "\"" + text + "\" is not a colour", "write it as #RRGGBB");
    }
    return rgb;
}

std::int64_t ParseBytes(const std::string& option, const std::string& text) {
    const std::size_t digits = text.find_first_not_of("0123456789.");
    const std::optional<double> number = ToNumber(std::string_view(text).substr(0, digits));
    const std::string unit = digits == std::string::npos ? "" : text.substr(digits);
    static const std::vector<std::pair<std::string, double>> units = {
        {"", 1.0}, {"K", 1024.0}, {"M", 1048576.0}, {"G", 1073741824.0}, {"T", 1099511627776.0}};
    for (const auto& [name, factor] : units) {
        const bool match = unit == name || (!name.empty() && (unit == name + "B" || unit == name + "iB"));
        if (match && number && *number * factor >= 1.0 && *number * factor < 9e18) {
            return static_cast<std::int64_t>(*number * factor);
        }
    }
    Misuse(option, "\"" + text + "\" is not an amount of memory", "write it as 512M or 2G");
}

void InputOptions::AddTo(CLI::App& verb) {
    verb.add_option("INPUT", path, "DICOM folder or file, .nii, .nii.gz, .nrrd, .nhdr, .mha or .mhd")->required();
    verb.add_option("--series", series, "series to read, by number or UID (default: the largest; volr info lists them)")
        ->group("Import");
    verb.add_option("--time", time, "time point to read, from 0 (default: the first)")
        ->check(CLI::NonNegativeNumber)
        ->group("Import");
}

void RunOptions::AddEngineOptionsTo(CLI::App& verb) {
    const auto group = "Running";
    verb.add_option("--threads", threads, "worker threads (default: one for each processor)")
        ->check(CLI::Range(1, 256))
        ->group(group);
    verb.add_option("--memory-budget", memory_budget,
                    "memory for image data, as 512M or 2G; beyond it a temporary file is used")
        ->group(group);
    verb.add_option("--log", log_level, "writes the engine's log to standard error")
        ->check(CLI::IsMember({"error", "warning", "information", "trace"}))
        ->group(group);
    verb.add_flag("--quiet", quiet, "no progress, no warnings, no report")->group(group);
}

void RunOptions::AddTo(CLI::App& verb, bool draws_frames) {
    const auto group = "Running";
    AddEngineOptionsTo(verb);
    verb.add_option("--stats", stats_path, "writes times, memory and what each pixel shows to a JSON file")
        ->group(group);
    if (draws_frames) {
        verb.add_option("--repeat", repeat, "draws the frame so many times, for timing; the last one counts")
            ->check(CLI::Range(1, 100000))
            ->group(group);
    }
}

void ViewOptions::AddTo(CLI::App& verb) {
    const auto group = "View";
    verb.add_option("--view", face, "face of the patient that looks at you")
        ->check(CLI::IsMember({"anterior", "posterior", "left", "right", "superior", "inferior"}))
        ->capture_default_str()
        ->group(group);
    verb.add_option("--azimuth", azimuth, "degrees to walk around the patient, to your right")
        ->capture_default_str()
        ->group(group);
    verb.add_option("--elevation", elevation, "degrees to climb after that")->capture_default_str()->group(group);
    verb.add_option("--roll", roll, "degrees to turn the picture clockwise after that")
        ->capture_default_str()
        ->group(group);
    verb.add_option("--zoom", zoom, "1 shows the whole volume from every direction")
        ->capture_default_str()
        ->group(group);
    verb.add_option("--pan", pan, "moves the content right and down, in picture widths and heights, as X,Y")
        ->group(group);
    verb.add_option("--size", size, "picture size in pixels, as WxH")->capture_default_str()->group(group);
}

scene::View ViewOptions::Parse() const {
    scene::View view;
    view.face = scene::ViewByName(face).value_or(scene::StandardView::kAnterior);
    CheckFinite("--azimuth", azimuth);
    CheckFinite("--elevation", elevation);
    CheckFinite("--roll", roll);
    view.azimuth_deg = azimuth;
    view.elevation_deg = elevation;
    view.roll_deg = roll;
    if (!(zoom >= 0.01 && zoom <= 1000.0)) {
        Misuse("--zoom", "is out of range", "give a number from 0.01 to 1000");
    }
    view.zoom = zoom;
    if (!pan.empty()) {
        const std::vector<double> xy = ParseNumbers("--pan", pan, 2);
        view.pan_x = xy[0];
        view.pan_y = xy[1];
    }
    const std::array<int, 2> pixels = ParseSize(size);
    view.width = pixels[0];
    view.height = pixels[1];
    return view;
}

void ClipOptions::AddTo(CLI::App& verb) {
    verb.add_option("--clip", planes, "keeps A*x + B*y + C*z + D >= 0 (patient mm, LPS), as A,B,C,D; repeatable")
        ->allow_extra_args(false)
        ->group("Scene");
    verb.add_option("--clip-box", box, "keeps a box, as fractions X0,X1,Y0,Y1,Z0,Z1 of columns, rows and slices")
        ->group("Scene");
}

void ClipOptions::Check() const {
    for (const std::string& text : planes) {
        const std::vector<double> p = ParseNumbers("--clip", text, 4);
        if (p[0] == 0.0 && p[1] == 0.0 && p[2] == 0.0) {
            Misuse("--clip", "\"" + text + "\" has no direction", "A, B or C must differ from 0");
        }
    }
    if (!box.empty()) {
        const std::vector<double> b = ParseNumbers("--clip-box", box, 6);
        for (std::size_t axis = 0; axis < 3; ++axis) {
            if (b[2 * axis] >= b[2 * axis + 1]) {
                Misuse("--clip-box", "\"" + box + "\" leaves nothing", "each pair must ascend");
            }
        }
    }
}

std::vector<scene::ClipPlane> ClipOptions::Parse(const scene::VolumeSource& source) const {
    std::vector<scene::ClipPlane> all;
    for (const std::string& text : planes) {
        const std::vector<double> p = ParseNumbers("--clip", text, 4);
        all.push_back({p[0], p[1], p[2], p[3]});
    }
    if (!box.empty()) {
        const std::vector<double> b = ParseNumbers("--clip-box", box, 6);
        scene::ClipBox clip_box;
        std::copy(b.begin(), b.end(), clip_box.fractions.begin());
        const std::vector<scene::ClipPlane> sides = scene::PlanesOf(clip_box, source);
        all.insert(all.end(), sides.begin(), sides.end());
    }
    return all;
}

void LookOptions::AddTo(CLI::App& verb) {
    std::vector<std::string_view> names;
    for (const scene::TransferFunction& known : scene::Presets()) {
        names.push_back(known.name);
    }
    const auto group = "Scene";
    CLI::Option* const by_name =
        verb.add_option("--preset", preset,
                        "colours and opacities by name (default by modality; volr presets lists them)")
            ->check(CLI::IsMember(Names(names)))
            ->group(group);
    verb.add_option("--transfer", transfer_path,
                    "colours and opacities from a preset file: JSON (ours or a colour map), volume-property XML or .vp")
        ->excludes(by_name)
        ->group(group);
    verb.add_option("--shift", shift, "moves them by so many HU")->capture_default_str()->group(group);
    verb.add_option("--opacity", opacity, "multiplies the opacities")
        ->check(CLI::Range(0.0, 1000.0))
        ->capture_default_str()
        ->group(group);
    verb.add_option("--lighting", lighting, "shading")
        ->check(CLI::IsMember({"on", "off"}))
        ->capture_default_str()
        ->group(group);
    verb.add_option("--light", light,
                    "where the light comes from, degrees right of and above you, as AZ,EL (default -25,30)")
        ->group(group);
    verb.add_option("--quality", quality, "how finely to draw")
        ->check(CLI::IsMember({"enhanced", "standard", "interactive0", "interactive1", "interactive2"}))
        ->capture_default_str()
        ->group(group);
}

std::optional<scene::TransferFunction> LookOptions::Function() const {
    CheckFinite("--shift", shift);
    if (!transfer_path.empty()) {
        return scene::TransferFromFile(scene::ReadFile(transfer_path, kLargestPresetFile), transfer_path);
    }
    if (!preset.empty()) {
        return *scene::FindPreset(preset);
    }
    return std::nullopt;
}

scene::TransferFunction LookOptions::FunctionFor(scene::VolumeSource& source) const {
    std::optional<scene::TransferFunction> function = Function();
    if (!function) {
        const double lowest = source.Rescaled(source.Info().min_value);
        function = *scene::FindPreset(scene::DefaultPreset(source.Info().modality, lowest));
    }
    if (function->relative) {
        const std::array<double, 2> window = source.RelativeWindow();
        function = scene::Resolved(*function, window[0], window[1]);
    }
    return scene::Adjusted(*function, shift, opacity);
}

scene::Light LookOptions::ParseLight() const {
    if (light.empty()) {
        return {};
    }
    const std::vector<double> angles = ParseNumbers("--light", light, 2);
    return {angles[0], angles[1]};
}

scene::RenderQuality LookOptions::ParseQuality() const {
    return scene::QualityByName(quality).value_or(scene::RenderQuality::kEnhanced);
}

void PictureOptions::AddTo(CLI::App& verb) {
    verb.add_option("--background", background, "#RRGGBB or transparent")->capture_default_str()->group("Picture");
    verb.add_flag("--annotate", annotate, "orientation letters and a scale bar")->group("Picture");
}

scene::Background PictureOptions::ParseBackground() const {
    if (background == "transparent") {
        return {true, 0};
    }
    return {false, ParseColour("--background", background)};
}

}  // namespace volr
