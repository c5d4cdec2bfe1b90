#include "tests/tool/program.h"

#include <sys/wait.h>
#include <unistd.h>
#include <algorithm>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <thread>

namespace tool_test {

namespace {

std::string Slurp(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf();
    return text.str();
}

// Replaces the process by the tool, its output in two files.
[[noreturn]] void Become(const std::vector<std::string>& arguments, const std::string& out, const std::string& err) {
    if (std::freopen(out.c_str(), "w", stdout) == nullptr || std::freopen(err.c_str(), "w", stderr) == nullptr) {
        std::_Exit(126);
    }
    std::vector<char*> argv = {const_cast<char*>("volr")};
    for (const std::string& a : arguments) {
        argv.push_back(const_cast<char*>(a.c_str()));
    }
    argv.push_back(nullptr);
    ::execv(VOLR_PROGRAM, argv.data());
    std::_Exit(127);
}

// Whether a process has a handler for the signal; false when it has ended.
bool Catches(pid_t process, int signal_number) {
    std::ifstream status("/proc/" + std::to_string(process) + "/status");
    for (std::string line; std::getline(status, line);) {
        if (line.rfind("SigCgt:", 0) == 0) {
            return (std::stoull(line.substr(7), nullptr, 16) >> (signal_number - 1) & 1) != 0;
        }
    }
    return false;
}

// Waits until the process catches the signal, or has ended.
void WaitForHandler(pid_t process, int signal_number) {
    siginfo_t ended{};
    while (!Catches(process, signal_number) && ended.si_pid == 0) {
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        ::waitid(P_PID, static_cast<id_t>(process), &ended, WEXITED | WNOHANG | WNOWAIT);
    }
}

}  // namespace

Outcome VolrWithSignal(const std::vector<std::string>& arguments, int signal_number, int after_ms) {
    const Folder folder;
    const std::string out = folder.Path("out");
    const std::string err = folder.Path("err");
    const pid_t child = ::fork();
    if (child == 0) {
        Become(arguments, out, err);
    }
    if (signal_number != 0) {
        // However slowly it starts.
        WaitForHandler(child, signal_number);
        std::this_thread::sleep_for(std::chrono::milliseconds(after_ms));
        ::kill(child, signal_number);
    }
    int status = 0;
    ::waitpid(child, &status, 0);
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), Slurp(out), Slurp(err)};
}

Outcome Volr(const std::vector<std::string>& arguments) {
    return VolrWithSignal(arguments, 0, 0);
}

Folder::Folder() {
    std::string name = (std::filesystem::temp_directory_path() / "volr-test-XXXXXX").string();
    m_Path = ::mkdtemp(name.data());
}

Folder::~Folder() {
    std::error_code ignored;
    std::filesystem::remove_all(m_Path, ignored);
}

std::vector<std::string> Folder::Files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::directory_iterator(m_Path)) {
        names.push_back(entry.path().filename().string());
    }
    std::sort(names.begin(), names.end());
    return names;
}

nlohmann::json ReadJson(const std::string& path) {
    return nlohmann::json::parse(Slurp(path));
}

scene::Vec3 ToVec(const nlohmann::json& j) {
    return {j[0], j[1], j[2]};
}

}  // namespace tool_test
