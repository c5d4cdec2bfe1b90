#include "apps/volr/session.h"

#include "host/tasks.h"
#include "ip_volr/IP_VOLR_Info.h"
#include "scene/output_file.h"

#include <sys/resource.h>
#include <unistd.h>
#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstdio>

namespace volr {

namespace {

// What the signal handler cancels.
std::atomic<reference_host::CancellationToken*> g_cancelled_by_signal{nullptr};

void CancelOnSignal(int signal_number) {
    reference_host::CancellationToken* const token = g_cancelled_by_signal.load();
    if (token == nullptr || token->IsCancelled()) {
        std::signal(signal_number, SIG_DFL);
        std::raise(signal_number);
        return;
    }
    token->Cancel();
}

// A row or column of so many voxels is left out by the ray caster, half at each end.
constexpr int kVoxelsWithoutRays = 5;

int LogLevelByName(const std::string& name) {
    return name == "error" ? 3 : name == "warning" ? 4 : name == "information" ? 6 : name == "trace" ? 7 : 0;
}

nlohmann::ordered_json Array(const scene::Vec3& v) {
    return scene::ToArray(v);
}

std::string Rounded(double seconds) {
    char text[32];
    std::snprintf(text, sizeof text, "%.2f s", seconds);
    return text;
}

}  // namespace

Progress::Progress(std::string what, bool quiet)
    : m_What(std::move(what)), m_Enabled(!quiet && ::isatty(STDERR_FILENO) != 0) {}

Progress::~Progress() {
    if (m_Shown) {
        std::fputs("\r\033[K", stderr);
    }
}

void Progress::Show(double fraction) {
    const int percent = static_cast<int>(std::clamp(fraction, 0.0, 1.0) * 100.0);
    if (!m_Enabled || percent == m_LastPercent) {
        return;
    }
    constexpr int kBarLength = 30;
    const auto done = static_cast<std::size_t>(percent * kBarLength / 100);
    const std::string bar = std::string(done, '#') + std::string(kBarLength - done, '.');
    std::fprintf(stderr, "\r%s [%s] %3d%%", m_What.c_str(), bar.c_str(), percent);
    std::fflush(stderr);
    m_LastPercent = percent;
    m_Shown = true;
}

Session::Session(const RunOptions& options) : m_Options(options) {
    reference_host::SetNumberOfServers(options.threads);
    if (!options.memory_budget.empty()) {
        reference_host::SetMemoryBudget(ParseBytes("--memory-budget", options.memory_budget));
    }
    if (!options.log_level.empty()) {
        reference_host::SetLogLevel(LogLevelByName(options.log_level));
        reference_host::LogToStandardError(true);
    }
    if (!options.stats_path.empty()) {
        CheckOutput(options.stats_path);
    }
    m_Scope.emplace(m_Token);
    g_cancelled_by_signal.store(&m_Token);
    std::signal(SIGINT, CancelOnSignal);
    std::signal(SIGTERM, CancelOnSignal);
}

Session::~Session() {
    g_cancelled_by_signal.store(nullptr);
}

bool Session::IsCancelled() const {
    return m_Token.IsCancelled();
}

void Session::ThrowIfCancelled() const {
    if (IsCancelled()) {
        throw TCO_CANCEL_EXCEPTION();
    }
}

scene::ImportedVolume Session::Import(const InputOptions& input) {
    const Stopwatch watch;
    Progress progress("reading", Quiet());
    scene::ImportOptions options;
    options.series = input.series;
    options.time_index = input.time;
    options.num_threads = m_Options.threads;
    options.progress = [&](double fraction) { progress.Show(fraction); };
    options.is_cancelled = [this] { return IsCancelled(); };
    scene::ImportedVolume volume = scene::ImportVolume(input.path, options);
    m_ImportSeconds += watch.Seconds();

    for (const std::string& warning : volume.warnings) {
        Warn(warning);
    }
    return volume;
}

void Session::Warn(const std::string& warning) const {
    if (!Quiet()) {
        std::fprintf(stderr, "volr: warning: %s\n", warning.c_str());
    }
}

void Session::WarnIfTooFlatForRays(const scene::VolumeSource& source) const {
    const std::array<int, 3>& dims = source.Info().dims;
    const int shortest = std::min(dims[0], dims[1]);  // still shorter ones are refused
    if (shortest >= kVoxelsWithoutRays && (shortest == kVoxelsWithoutRays || dims[2] == 1)) {
        Warn("a volume of " + std::to_string(dims[0]) + " x " + std::to_string(dims[1]) + " x " +
             std::to_string(dims[2]) +
             " voxels has no depth to cast rays through: the picture shows nothing or a sliver " +
             "(volr mip draws it)");
    }
}

std::unique_ptr<scene::VolumeSource> Session::Open(const InputOptions& input) {
    scene::ImportedVolume volume = Import(input);
    const Stopwatch watch;
    auto source = std::make_unique<scene::VolumeSource>(std::move(volume));
    m_ImportSeconds += watch.Seconds();
    const scene::ImportedVolume& info = source->Info();
    m_Input = {{"dims", info.dims},
               {"spacing_mm", info.spacing_mm},
               {"bits", info.bits_stored},
               {"signed", info.is_signed},
               {"rescale", {{"slope", info.rescale_slope}, {"intercept", info.rescale_intercept}}}};
    return source;
}

void Session::DrawFrames(const std::function<void()>& draw) {
    Progress progress("drawing", Quiet());
    for (int i = 0; i < m_Options.repeat; ++i) {
        progress.Show(static_cast<double>(i) / m_Options.repeat);
        const Stopwatch watch;
        draw();
        NoteFrame(watch.Seconds());
        ThrowIfCancelled();
    }
}

nlohmann::ordered_json Session::Statistics() const {
    const reference_host::PagerStatistics pager = reference_host::GetPagerStatistics();
    rusage usage{};
    ::getrusage(RUSAGE_SELF, &usage);
    nlohmann::ordered_json stats;
    stats["input"] = m_Input;
    stats["seconds"] = {{"import", m_ImportSeconds},
                        {"prepare", m_PrepareSeconds},
                        {"frames", m_FrameSeconds},
                        {"write", m_WriteSeconds}};
    stats["memory"] = {{"peak_rss_bytes", static_cast<std::int64_t>(usage.ru_maxrss) * 1024},
                       {"pager_peak_bytes", pager.peak_resident_bytes},
                       {"spilled_bytes", pager.total_spilled_bytes}};
    stats["threads"] = TCO_CompoundTaskManager::GetNumberOfServers();
    stats["instruction_set"] = IP_VOLR_GetInfo().instruction_set;
    if (m_Picture) {
        stats["picture"] = {{"width", m_Picture->width},
                            {"height", m_Picture->height},
                            {"origin_mm", Array(m_Picture->origin_mm)},
                            {"right_mm", Array(m_Picture->right_mm)},
                            {"down_mm", Array(m_Picture->down_mm)},
                            {"toward_viewer", Array(m_Picture->toward_viewer)}};
    }
    return stats;
}

void Session::WriteStatistics() {
    if (!m_Options.stats_path.empty()) {
        scene::WriteFile(m_Options.stats_path, Statistics().dump(2) + "\n");
    }
}

void Session::Report(const std::string& output) {
    WriteStatistics();
    if (Quiet()) {
        return;
    }
    std::string line = output;
    if (m_Picture) {
        line += "  " + std::to_string(m_Picture->width) + "x" + std::to_string(m_Picture->height);
    }
    line += "  import " + Rounded(m_ImportSeconds);
    if (m_PrepareSeconds > 0.0) {
        line += ", prepare " + Rounded(m_PrepareSeconds);
    }
    if (!m_FrameSeconds.empty()) {
        const auto [fastest, slowest] = std::minmax_element(m_FrameSeconds.begin(), m_FrameSeconds.end());
        line += m_FrameSeconds.size() == 1 ? ", frame " + Rounded(*fastest)
                                           : ", " + std::to_string(m_FrameSeconds.size()) + " frames " +
                                                 Rounded(*fastest) + " to " + Rounded(*slowest);
    }
    std::printf("%s\n", line.c_str());
}

void CheckOutput(const std::string& path) {
    const scene::OutputFile probe(path);
}

}  // namespace volr
