#include "scene/output_file.h"

#include "scene/error.h"

#include <unistd.h>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

namespace scene {

namespace {

namespace fs = std::filesystem;

// A name beside the path that no other run uses, with the path's ending.
std::string TemporaryBeside(const std::string& path) {
    static std::atomic<int> counter{0};
    const fs::path place(path);
    const std::string name = place.filename().string();
    const std::string unique = ".volr-" + std::to_string(::getpid()) + "-" + std::to_string(counter.fetch_add(1)) + "-";
    return (place.parent_path() / (unique + name)).string();
}

[[noreturn]] void Fail(const std::string& path, const std::string& why) {
    throw Error(ErrorKind::kFailed, path, why, "check the folder, its permissions and free space");
}

}  // namespace

OutputFile::OutputFile(std::string path) : m_Path(std::move(path)) {
    std::error_code ignored;
    const fs::path folder = fs::path(m_Path).parent_path();
    if (!folder.empty() && !fs::is_directory(folder, ignored)) {
        throw Error(ErrorKind::kFailed, m_Path, "its folder does not exist", "create the folder first");
    }
    if (fs::is_directory(m_Path, ignored)) {
        throw Error(ErrorKind::kFailed, m_Path, "is a folder", "name a file");
    }
    const bool special = fs::exists(m_Path, ignored) && !fs::is_regular_file(m_Path, ignored);
    m_Temporary =
        TemporaryBeside(special ? (fs::temp_directory_path() / fs::path(m_Path).filename()).string() : m_Path);
    if (!std::ofstream(m_Temporary, std::ios::binary)) {
        Fail(m_Path, std::string("cannot be written: ") + std::strerror(errno));
    }
}

OutputFile::~OutputFile() {
    if (!m_Committed) {
        std::error_code ignored;
        fs::remove(m_Temporary, ignored);
    }
}

void OutputFile::Write(std::string_view bytes) {
    std::ofstream stream(m_Temporary, std::ios::binary | std::ios::app);
    stream.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    stream.flush();
    if (!stream) {
        Fail(m_Path, "cannot be written: disk full or file too large");
    }
}

void OutputFile::Commit() {
    std::error_code error;
    if (fs::exists(m_Path, error) && !fs::is_regular_file(m_Path, error)) {
        std::ifstream from(m_Temporary, std::ios::binary);
        std::ofstream to(m_Path, std::ios::binary);
        to << from.rdbuf();
        to.flush();
        if (!to) {
            Fail(m_Path, "cannot be written");
        }
        return;
    }
    fs::rename(m_Temporary, m_Path, error);
    if (error) {
        Fail(m_Path, "cannot be written: " + error.message());
    }
    m_Committed = true;
}

void WriteFile(const std::string& path, std::string_view bytes) {
    OutputFile file(path);
    file.Write(bytes);
    file.Commit();
}

std::string ReadFile(const std::string& path, std::size_t limit_bytes) {
    std::error_code ignored;
    std::ifstream stream(path, std::ios::binary);
    if (!stream || fs::is_directory(path, ignored)) {
        throw Error(ErrorKind::kInput, path, "cannot be read", "check the name and its permissions");
    }
    std::string bytes;
    char chunk[65536];
    while (stream.read(chunk, sizeof chunk) || stream.gcount() > 0) {
        bytes.append(chunk, static_cast<std::size_t>(stream.gcount()));
        if (bytes.size() > limit_bytes) {
            throw Error(ErrorKind::kInput, path, "is too large for a file of its kind", "name the right file");
        }
    }
    return bytes;
}

}  // namespace scene
