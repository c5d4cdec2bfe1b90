// The options of the tool. What means the same bears the same name on every verb.
#pragma once

#include "scene/clipping.h"
#include "scene/import/imported_volume.h"
#include "scene/views.h"
#include "scene/volume_rendering.h"
#include "scene/volume_source.h"

#include <CLI/CLI.hpp>

#include <optional>
#include <string>
#include <vector>

namespace volr {

// Wrong usage, told in the tool's error line.
[[noreturn]] void Misuse(const std::string& option, const std::string& why, const std::string& advice);

// Numbers between commas, as many as `count`. Misuse otherwise.
std::vector<double> ParseNumbers(const std::string& option, const std::string& text, std::size_t count);
// #RRGGBB.
std::uint32_t ParseColour(const std::string& option, const std::string& text);
// Bytes with an optional unit: 512M, 2G, 1.5GiB.
std::int64_t ParseBytes(const std::string& option, const std::string& text);

// INPUT and how to read it.
struct InputOptions {
    std::string path;
    std::string series;
    int time = -1;

    void AddTo(CLI::App& verb);
};

// Running: threads, memory, log, statistics.
struct RunOptions {
    int threads = 0;
    std::string memory_budget;
    std::string log_level;
    std::string stats_path;
    int repeat = 1;
    bool quiet = false;

    void AddTo(CLI::App& verb, bool draws_frames);
    // Without statistics and repetition, for verbs that run until they are stopped.
    void AddEngineOptionsTo(CLI::App& verb);
};

// Where the viewer stands.
struct ViewOptions {
    std::string face = "anterior";
    double azimuth = 0.0;
    double elevation = 0.0;
    double roll = 0.0;
    double zoom = 1.0;
    std::string pan;
    std::string size = "512x512";

    void AddTo(CLI::App& verb);
    scene::View Parse() const;
};

// What cuts the volume.
struct ClipOptions {
    std::vector<std::string> planes;
    std::string box;

    void AddTo(CLI::App& verb);
    std::vector<scene::ClipPlane> Parse(const scene::VolumeSource& source) const;
    void Check() const;  // what can be checked before the volume is there
};

// How it looks as a shaded rendering.
struct LookOptions {
    std::string preset;
    std::string transfer_path;
    double shift = 0.0;
    double opacity = 1.0;
    std::string lighting = "on";
    std::string light;
    std::string quality = "enhanced";

    void AddTo(CLI::App& verb);
    // The function before it meets data, read and checked early; empty when the data decide.
    std::optional<scene::TransferFunction> Function() const;
    scene::TransferFunction FunctionFor(scene::VolumeSource& source) const;
    scene::Light ParseLight() const;
    scene::RenderQuality ParseQuality() const;
    bool Lit() const { return lighting == "on"; }
};

// How the picture is finished.
struct PictureOptions {
    std::string background = "#000000";
    bool annotate = false;

    void AddTo(CLI::App& verb);
    scene::Background ParseBackground() const;
};

}  // namespace volr
