#include "host/log.h"

#include <atomic>
#include <chrono>
#include <cstdarg>
#include <cstdio>
#include <ctime>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

#include "host/reference/settings.h"

namespace {

using reference_host::LogLine;

// What the calling thread announced last.
struct Announcement {
    const char* source = "";
    const char* function = "";
    int line = 0;
    int level = 0;
};

thread_local Announcement t_Announced;
thread_local bool t_InSink = false;  // a sink that logs would wait for itself

// The level in force: that of the settings while there is a sink, else 0. The only thing that a silent log touches.
std::atomic<int> g_EffectiveLevel{0};

// Sinks and what they share; never destroyed, since threads may log until the process ends.
struct Sinks {
    std::mutex mutex;
    int level = 0;
    bool to_standard_error = false;
    std::FILE* file = nullptr;
    std::function<void(const LogLine&)> callback;

    void UpdateEffectiveLevel() {
        const bool any = to_standard_error || file != nullptr || callback;
        g_EffectiveLevel.store(any ? level : 0, std::memory_order_relaxed);
    }
};

Sinks& sinks() {
    static Sinks* const instance = new Sinks;
    return *instance;
}

char level_letter(int level) {
    constexpr char kLetters[] = "  !EWIID";
    return level >= 0 && level <= 7 ? kLetters[level] : '?';
}

// "2024-01-31 12:34:56.789 E ip_volr/IP_X IP_X::Method:12: "
std::string make_headline(const LogLine& line) {
    const auto now = std::chrono::system_clock::now();
    const std::time_t seconds = std::chrono::system_clock::to_time_t(now);
    const long long milliseconds =
        std::chrono::duration_cast<std::chrono::milliseconds>(now.time_since_epoch()).count() % 1000;
    std::tm local{};
#if defined(_WIN32)
    localtime_s(&local, &seconds);
#else
    localtime_r(&seconds, &local);
#endif
    char stamp[32] = "";
    std::strftime(stamp, sizeof stamp, "%Y-%m-%d %H:%M:%S", &local);
    char fraction[16] = "";
    std::snprintf(fraction, sizeof fraction, ".%03d %c ", static_cast<int>(milliseconds), level_letter(line.level));
    return std::string(stamp) + fraction + line.source + ' ' + line.function + ':' + std::to_string(line.line) + ": ";
}

void write_text(std::FILE* stream, const std::string& text) {
    std::fwrite(text.data(), 1, text.size(), stream);
    std::fflush(stream);
}

void write_line(const char* text, bool headline) {
    const LogLine line{t_Announced.level, t_Announced.source, t_Announced.function, t_Announced.line, text, headline};
    std::string whole = headline ? make_headline(line) + text : text;
    if (headline && (whole.empty() || whole.back() != '\n')) {
        whole += '\n';
    }

    Sinks& s = sinks();
    const std::lock_guard<std::mutex> lock(s.mutex);
    if (s.to_standard_error) {
        write_text(stderr, whole);
    }
    if (s.file != nullptr) {
        write_text(s.file, whole);
    }
    if (s.callback) {
        s.callback(line);
    }
}

// Runs what writes a line. The log never fails its callers: a line that has no memory, or whose sink throws, is lost.
template <class Write>
void write_safely(const Write& write) {
    if (t_InSink) {
        return;
    }
    t_InSink = true;
    try {
        write();
    } catch (...) {
    }
    t_InSink = false;
}

}  // namespace

int Tmr_LogFile::StoreParams(const char* source_path, const char* function, int line, int level, int /*facility*/,
                             int /*reserved*/) {
    if (level > g_EffectiveLevel.load(std::memory_order_relaxed)) {
        return 0;
    }
    t_Announced = {source_path != nullptr ? source_path : "", function != nullptr ? function : "", line, level};
    return 1;
}

void Tmr_LogFile::Log(const char* format, ...) {
    if (format == nullptr || t_Announced.level > g_EffectiveLevel.load(std::memory_order_relaxed)) {
        return;
    }
    std::va_list arguments;
    va_start(arguments, format);
    std::va_list again;
    va_copy(again, arguments);
    char on_stack[512];
    const int length = std::vsnprintf(on_stack, sizeof on_stack, format, arguments);
    va_end(arguments);
    if (length >= static_cast<int>(sizeof on_stack)) {
        write_safely([&] {
            std::vector<char> text(static_cast<std::size_t>(length) + 1);
            std::vsnprintf(text.data(), text.size(), format, again);
            write_line(text.data(), true);
        });
    } else if (length >= 0) {
        write_safely([&] { write_line(on_stack, true); });
    }
    va_end(again);
}

void Tmr_LogFile::LogNoHeadline(const char* text) {
    const int level = g_EffectiveLevel.load(std::memory_order_relaxed);
    if (text != nullptr && level > 0 && t_Announced.level <= level) {
        write_safely([&] { write_line(text, false); });
    }
}

namespace reference_host {

void SetLogLevel(int level) {
    Sinks& s = sinks();
    const std::lock_guard<std::mutex> lock(s.mutex);
    s.level = level;
    s.UpdateEffectiveLevel();
}

int GetLogLevel() {
    Sinks& s = sinks();
    const std::lock_guard<std::mutex> lock(s.mutex);
    return s.level;
}

void LogToStandardError(bool on) {
    Sinks& s = sinks();
    const std::lock_guard<std::mutex> lock(s.mutex);
    s.to_standard_error = on;
    s.UpdateEffectiveLevel();
}

bool LogToFile(const std::string& path) {
    Sinks& s = sinks();
    const std::lock_guard<std::mutex> lock(s.mutex);
    if (s.file != nullptr) {
        std::fclose(s.file);
        s.file = nullptr;
    }
    if (!path.empty()) {
        s.file = std::fopen(path.c_str(), "a");
    }
    s.UpdateEffectiveLevel();
    return path.empty() || s.file != nullptr;
}

void LogToCallback(std::function<void(const LogLine&)> sink) {
    Sinks& s = sinks();
    const std::lock_guard<std::mutex> lock(s.mutex);
    s.callback = std::move(sink);
    s.UpdateEffectiveLevel();
}

}  // namespace reference_host
