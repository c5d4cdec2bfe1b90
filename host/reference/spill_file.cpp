#include "host/reference/spill_file.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <new>
#include <system_error>

#if defined(_WIN32)
#include <windows.h>
#else
#include <fcntl.h>
#include <signal.h>
#include <sys/stat.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#endif

namespace reference_host {

namespace {

constexpr std::int64_t kExtentUnit = 4096;
constexpr std::int64_t kLargestTransfer = std::int64_t{1} << 30;  // of one call to the operating system

std::int64_t extent_length(std::int64_t bytes) {
    return (std::max<std::int64_t>(bytes, 1) + kExtentUnit - 1) / kExtentUnit * kExtentUnit;
}

std::string default_folder() {
    std::error_code error;
#if !defined(_WIN32)
    // The usual temporary folder is often kept in memory, where nothing would be gained.
    if (std::getenv("TMPDIR") == nullptr && std::filesystem::is_directory("/var/tmp", error)) {
        return "/var/tmp";
    }
#endif
    return std::filesystem::temp_directory_path(error).string();
}

// Moves all bytes, however few `move_some(data, at_most, offset)` moves at once; false when it moves none.
template <class Byte, class MoveSome>
bool move_all(Byte* data, std::int64_t bytes, std::int64_t offset, const MoveSome& move_some) {
    while (bytes > 0) {
        const std::int64_t moved = move_some(data, std::min(bytes, kLargestTransfer), offset);
        if (moved <= 0) {
            return false;
        }
        data += moved;
        bytes -= moved;
        offset += moved;
    }
    return true;
}

#if !defined(_WIN32)

// Repeats a system call that a signal interrupts.
template <class Call>
std::int64_t uninterrupted(const Call& call) {
    while (true) {
        const std::int64_t result = call();
        if (result >= 0 || errno != EINTR) {
            return result;
        }
    }
}

int open_unnamed(const std::string& folder) {
#if defined(O_TMPFILE)
    const int unnamed = open(folder.c_str(), O_TMPFILE | O_RDWR | O_CLOEXEC, S_IRUSR | S_IWUSR);
    if (unnamed >= 0) {
        return unnamed;
    }
#endif
    std::string name = folder + "/ip_volr_spill_XXXXXX";
    const int named = mkstemp(name.data());
    if (named >= 0) {
        fcntl(named, F_SETFD, FD_CLOEXEC);
        unlink(name.c_str());
    }
    return named;
}

// Keeps the signal that writing beyond the process's file size limit raises away from the host: the failed write tells
// the same.
class FileSizeSignalBlock {
public:
    FileSizeSignalBlock() {
        sigemptyset(&m_Signal);
        sigaddset(&m_Signal, SIGXFSZ);
        pthread_sigmask(SIG_BLOCK, &m_Signal, &m_Previous);
    }
    ~FileSizeSignalBlock() {
        if (sigismember(&m_Previous, SIGXFSZ) == 0) {
            const timespec at_once{};
            sigtimedwait(&m_Signal, nullptr, &at_once);
        }
        pthread_sigmask(SIG_SETMASK, &m_Previous, nullptr);
    }
    FileSizeSignalBlock(const FileSizeSignalBlock&) = delete;
    FileSizeSignalBlock& operator=(const FileSizeSignalBlock&) = delete;

private:
    sigset_t m_Signal;
    sigset_t m_Previous;
};

#endif

}  // namespace

#if defined(_WIN32)

std::shared_ptr<SpillFile> SpillFile::Open(const std::string& folder) {
    const std::shared_ptr<SpillFile> file(new SpillFile(INVALID_HANDLE_VALUE));  // before the handle, which it owns
    const std::filesystem::path directory(folder.empty() ? default_folder() : folder);
    wchar_t name[MAX_PATH + 1];
    if (directory.native().size() > MAX_PATH - 14 || GetTempFileNameW(directory.c_str(), L"ipv", 0, name) == 0) {
        return nullptr;
    }
    file->m_Handle = CreateFileW(name, GENERIC_READ | GENERIC_WRITE, FILE_SHARE_READ | FILE_SHARE_DELETE, nullptr,
                                 CREATE_ALWAYS, FILE_ATTRIBUTE_TEMPORARY | FILE_FLAG_DELETE_ON_CLOSE, nullptr);
    return file->m_Handle == INVALID_HANDLE_VALUE ? nullptr : file;
}

namespace {

OVERLAPPED position_of(std::int64_t offset) {
    OVERLAPPED position{};
    position.Offset = static_cast<DWORD>(offset);
    position.OffsetHigh = static_cast<DWORD>(offset >> 32);
    return position;
}

}  // namespace

SpillFile::~SpillFile() {
    if (m_Handle != INVALID_HANDLE_VALUE) {
        CloseHandle(m_Handle);
    }
}

bool SpillFile::WriteAt(const char* data, std::int64_t bytes, std::int64_t offset) const {
    return move_all(data, bytes, offset, [this](const char* from, std::int64_t at_most, std::int64_t at) {
        OVERLAPPED position = position_of(at);
        DWORD done = 0;
        return WriteFile(m_Handle, from, static_cast<DWORD>(at_most), &done, &position) == 0 ? -1 : std::int64_t{done};
    });
}

bool SpillFile::ReadAt(char* data, std::int64_t bytes, std::int64_t offset) const {
    return move_all(data, bytes, offset, [this](char* to, std::int64_t at_most, std::int64_t at) {
        OVERLAPPED position = position_of(at);
        DWORD done = 0;
        return ReadFile(m_Handle, to, static_cast<DWORD>(at_most), &done, &position) == 0 ? -1 : std::int64_t{done};
    });
}

// The file may stay longer than needed: its length is a shared position that other threads' transfers do not use.
void SpillFile::Truncate(std::int64_t /*length*/) const {}

#else

std::shared_ptr<SpillFile> SpillFile::Open(const std::string& folder) {
    const std::shared_ptr<SpillFile> file(new SpillFile(-1));  // before the handle, which it owns
    file->m_Handle = open_unnamed(folder.empty() ? default_folder() : folder);
    return file->m_Handle < 0 ? nullptr : file;
}

SpillFile::~SpillFile() {
    if (m_Handle >= 0) {
        close(m_Handle);
    }
}

bool SpillFile::WriteAt(const char* data, std::int64_t bytes, std::int64_t offset) const {
    const FileSizeSignalBlock no_signal;
    return move_all(data, bytes, offset, [this](const char* from, std::int64_t at_most, std::int64_t at) {
        return uninterrupted([&] { return pwrite(m_Handle, from, static_cast<std::size_t>(at_most), at); });
    });
}

bool SpillFile::ReadAt(char* data, std::int64_t bytes, std::int64_t offset) const {
    return move_all(data, bytes, offset, [this](char* to, std::int64_t at_most, std::int64_t at) {
        return uninterrupted([&] { return pread(m_Handle, to, static_cast<std::size_t>(at_most), at); });
    });
}

void SpillFile::Truncate(std::int64_t length) const {
    // A file that cannot be shortened only takes more room than it needs.
    const int result = ftruncate(m_Handle, length);
    static_cast<void>(result);
}

#endif

std::int64_t SpillFile::Write(const void* data, std::int64_t bytes) {
    const std::int64_t offset = TakeExtent(extent_length(bytes));
    if (!WriteAt(static_cast<const char*>(data), bytes, offset)) {
        Release(offset, bytes);
        return -1;
    }
    return offset;
}

bool SpillFile::Read(void* data, std::int64_t bytes, std::int64_t offset) const {
    return ReadAt(static_cast<char*>(data), bytes, offset);
}

// The first released extent that is large enough, else new room at the end.
std::int64_t SpillFile::TakeExtent(std::int64_t length) {
    const std::lock_guard<std::mutex> lock(m_Mutex);
    const auto found = std::find_if(m_Released.begin(), m_Released.end(),
                                    [length](const auto& extent) { return extent.second >= length; });
    if (found == m_Released.end()) {
        m_End += length;
        return m_End - length;
    }
    // Cut the extent from the released one's end: what is left keeps its offset and its node.
    found->second -= length;
    const std::int64_t offset = found->first + found->second;
    if (found->second == 0) {
        m_Released.erase(found);
    }
    return offset;
}

void SpillFile::Release(std::int64_t offset, std::int64_t bytes) {
    std::int64_t length = extent_length(bytes);
    const std::lock_guard<std::mutex> lock(m_Mutex);

    // Join with the released neighbours.
    const auto after = m_Released.lower_bound(offset);
    if (after != m_Released.begin()) {
        const auto before = std::prev(after);
        if (before->first + before->second == offset) {
            offset = before->first;
            length += before->second;
            m_Released.erase(before);
        }
    }
    if (after != m_Released.end() && after->first == offset + length) {
        length += after->second;
        m_Released.erase(after);
    }

    if (offset + length == m_End) {
        m_End = offset;
        Truncate(m_End);
        return;
    }
    try {
        m_Released.emplace(offset, length);
    } catch (const std::bad_alloc&) {
        // The extent is lost until the file is closed; nothing refers to it.
    }
}

}  // namespace reference_host
