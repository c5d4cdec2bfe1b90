// One run of the tool: settings, cancellation, progress, timings, statistics.
#pragma once

#include "apps/volr/options.h"
#include "host/reference/settings.h"
#include "scene/views.h"
#include "scene/volume_source.h"

#include <nlohmann/json.hpp>

#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

namespace volr {

// Seconds since its making.
class Stopwatch {
public:
    double Seconds() const { return std::chrono::duration<double>(std::chrono::steady_clock::now() - m_Start).count(); }

private:
    std::chrono::steady_clock::time_point m_Start = std::chrono::steady_clock::now();
};

// A bar on standard error while it lives; nothing when standard error is no terminal or the run is quiet.
class Progress {
public:
    Progress(std::string what, bool quiet);
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;

    void Show(double fraction);

private:
    std::string m_What;
    bool m_Shown = false;
    bool m_Enabled;
    int m_LastPercent = -1;
};

// Applies the running options. Ctrl-C cancels the work that the session's thread starts; a second one ends the program.
class Session {
public:
    explicit Session(const RunOptions& options);
    ~Session();
    Session(const Session&) = delete;
    Session& operator=(const Session&) = delete;

    bool Quiet() const { return m_Options.quiet; }
    int NumThreads() const { return m_Options.threads; }  // 0 means one for each processor
    bool IsCancelled() const;
    void ThrowIfCancelled() const;  // throws TCO_CANCEL_EXCEPTION

    // Reads the volume; prints its warnings.
    std::unique_ptr<scene::VolumeSource> Open(const InputOptions& input);
    scene::ImportedVolume Import(const InputOptions& input);

    void Warn(const std::string& warning) const;
    // The ray caster leaves out two and a half voxels at each end of a row and of a column, half a slice at each end of
    // the stack: thin volumes all but vanish, and the user is told so.
    void WarnIfTooFlatForRays(const scene::VolumeSource& source) const;

    // Draws the frame as often as asked and notes the times.
    void DrawFrames(const std::function<void()>& draw);

    void NotePrepared(double seconds) { m_PrepareSeconds += seconds; }
    void NoteFrame(double seconds) { m_FrameSeconds.push_back(seconds); }
    void NoteWritten(double seconds) { m_WriteSeconds += seconds; }
    void NotePicture(const scene::PictureGeometry& picture) { m_Picture = picture; }

    void WriteStatistics();  // when asked for
    // Writes the statistics when asked for, then prints one line: what was made and how long it took.
    void Report(const std::string& output);

private:
    nlohmann::ordered_json Statistics() const;

    RunOptions m_Options;
    reference_host::CancellationToken m_Token;
    std::optional<reference_host::CancellationScope> m_Scope;
    nlohmann::ordered_json m_Input;
    double m_ImportSeconds = 0.0;
    double m_PrepareSeconds = 0.0;
    double m_WriteSeconds = 0.0;
    std::vector<double> m_FrameSeconds;
    std::optional<scene::PictureGeometry> m_Picture;
};

// Throws early when a file could not be written there.
void CheckOutput(const std::string& path);

}  // namespace volr
