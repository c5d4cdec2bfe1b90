#include "scene/import/isolated_process.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fstream>
#include <new>

#include "scene/import/volume_archive.h"

namespace scene::import {

namespace {

constexpr int kPollMilliseconds = 30;
constexpr std::uint32_t kMaxMessageBytes = 64u << 20;

// Messages of the child: a kind, a length and so many bytes.
enum class MessageKind : std::uint32_t {
    kProgress = 1,
    kLayout,
    kSlices,
    kDone,
    kRefused,
    kCancelled,
    kNoMemory,
    kFailed
};
struct MessageHead {
    MessageKind kind;
    std::uint32_t num_bytes;
};

class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : m_fd(fd) {}
    FileDescriptor(const FileDescriptor&) = delete;
    FileDescriptor& operator=(const FileDescriptor&) = delete;
    ~FileDescriptor() { Close(); }
    int Get() const { return m_fd; }
    void Reset(int fd) {
        Close();
        m_fd = fd;
    }
    void Close() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
        m_fd = -1;
    }

private:
    int m_fd;
};

// Maps a file of shared memory; the mapping outlives the descriptor.
VoxelBuffer MapVoxels(int fd, std::size_t num_voxels) {
    const std::size_t num_bytes = std::max<std::size_t>(num_voxels * sizeof(std::int16_t), 1);
    void* const memory = ::mmap(nullptr, num_bytes, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    if (memory == MAP_FAILED) {
        throw std::bad_alloc();
    }
    const auto unmap = [num_bytes](std::int16_t* voxels) { ::munmap(voxels, num_bytes); };
    return VoxelBuffer(std::shared_ptr<std::int16_t>(static_cast<std::int16_t*>(memory), unmap), num_voxels);
}

// ---- the child's side ----

void WriteAll(int fd, const void* data, std::size_t num_bytes) {
    const char* next = static_cast<const char*>(data);
    while (num_bytes > 0) {
        const ssize_t written = ::write(fd, next, num_bytes);
        if (written < 0 && errno == EINTR) {
            continue;
        }
        if (written <= 0) {
            ::_exit(3);  // nobody listens any more
        }
        next += written;
        num_bytes -= static_cast<std::size_t>(written);
    }
}

void Send(int fd, MessageKind kind, const void* data, std::size_t num_bytes) {
    const MessageHead head = {kind, static_cast<std::uint32_t>(num_bytes)};
    WriteAll(fd, &head, sizeof head);
    WriteAll(fd, data, num_bytes);
}

class ChildContext : public ImportContext {
public:
    ChildContext(const ImportOptions& options, int pipe, int memory)
        : ImportContext(options), m_pipe(pipe), m_memory(memory) {}

    void Progress(double fraction) override { Send(m_pipe, MessageKind::kProgress, &fraction, sizeof fraction); }
    VoxelBuffer AllocateResult(std::size_t num_voxels) override {
        if (::ftruncate(m_memory, static_cast<off_t>(num_voxels * sizeof(std::int16_t))) != 0) {
            throw std::bad_alloc();
        }
        return MapVoxels(m_memory, num_voxels);
    }
    void AnnounceLayout(const ImportedVolume& layout) override {
        const std::string text = Pack(layout);
        Send(m_pipe, MessageKind::kLayout, text.data(), text.size());
    }
    void AnnounceSlices(const std::vector<int>& slices) override {
        Send(m_pipe, MessageKind::kSlices, slices.data(), slices.size() * sizeof(int));
    }

private:
    int m_pipe, m_memory;
};

// What the process has mapped already, in bytes.
std::size_t MappedBytes() {
    unsigned long long pages = 0;
    std::ifstream("/proc/self/statm") >> pages;
    return static_cast<std::size_t>(pages) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

std::size_t MachineMemory() {
    return static_cast<std::size_t>(::sysconf(_SC_PHYS_PAGES)) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

// Leaves only what decoding needs: no files of the host, none of its signal handlers, no core files, limited memory.
void ConfineChild(const ImportLimits& limits, int& pipe, int& memory, int complaints) {
    ::prctl(PR_SET_PDEATHSIG, SIGKILL);

    // Signals.
    for (const int signal_number : {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT, SIGTERM, SIGPIPE, SIGALRM}) {
        ::signal(signal_number, SIG_DFL);
    }
    ::signal(SIGINT, SIG_IGN);  // the parent decides what Ctrl-C means
    sigset_t none;
    ::sigemptyset(&none);
    ::sigprocmask(SIG_SETMASK, &none, nullptr);

    // Descriptors: 0 and 1 lead nowhere, 2 collects complaints, 3 is the pipe, 4 the memory.
    const int high_pipe = ::fcntl(pipe, F_DUPFD, 10), high_memory = ::fcntl(memory, F_DUPFD, 10);
    const int high_complaints = ::fcntl(complaints, F_DUPFD, 10), nowhere = ::open("/dev/null", O_RDWR);
    if (high_pipe < 0 || high_memory < 0 || high_complaints < 0 || nowhere < 0) {
        ::_exit(4);
    }
    ::dup2(nowhere, 0);
    ::dup2(nowhere, 1);
    ::dup2(high_complaints, 2);
    pipe = ::dup2(high_pipe, 3);
    memory = ::dup2(high_memory, 4);
    ::close_range(5, ~0u, 0);

    // Limits.
    const std::size_t allowed = limits.memory_bytes > 0 ? limits.memory_bytes : MachineMemory();
    const rlimit address_space = {MappedBytes() + allowed, RLIM_INFINITY};
    ::setrlimit(RLIMIT_AS, &address_space);
    const rlimit no_core = {0, 0};
    ::setrlimit(RLIMIT_CORE, &no_core);
}

[[noreturn]] void RunChild(const ImportOptions& options, const ImportJob& job, int pipe, int memory, int complaints) {
    ConfineChild(options.limits, pipe, memory, complaints);
    const auto send_text = [&](MessageKind kind, const std::string& text) {
        Send(pipe, kind, text.data(), text.size());
    };
    try {
        ChildContext context(options, pipe, memory);
        send_text(MessageKind::kDone, job(context));
    } catch (const ImportCancelled&) {
        send_text(MessageKind::kCancelled, "");
    } catch (const ImportError& error) {
        send_text(MessageKind::kRefused, error.what());
    } catch (const std::bad_alloc&) {
        send_text(MessageKind::kNoMemory, "");
    } catch (...) {
        send_text(MessageKind::kFailed, "");
    }
    ::_exit(0);
}

// ---- the parent's side ----

// The child process; ended and reaped when the handle goes.
class ChildProcess {
public:
    explicit ChildProcess(pid_t pid) : m_pid(pid) {}
    ChildProcess(const ChildProcess&) = delete;
    ChildProcess& operator=(const ChildProcess&) = delete;
    ~ChildProcess() {
        ::kill(m_pid, SIGKILL);
        while (::waitpid(m_pid, nullptr, 0) < 0 && errno == EINTR) {
        }
    }

private:
    pid_t m_pid;
};

[[noreturn]] void RefuseCrash(const std::string& what) {
    Refuse(what, "unreadable file, its decoder crashed", "the file is damaged; get it anew");
}
[[noreturn]] void RefuseMemory(const std::string& what) {
    Refuse(what, "reading it needs more memory than allowed", "the file may be damaged; else use a machine with more");
}

// Collects bytes of the pipe and cuts them into messages.
class MessageReader {
public:
    explicit MessageReader(int fd) : m_fd(fd) {}

    // Waits a moment; false when the other side has closed.
    bool Fill() {
        pollfd waiting = {m_fd, POLLIN, 0};
        const int ready = ::poll(&waiting, 1, kPollMilliseconds);
        if (ready <= 0) {
            return true;
        }
        char buffer[65536];
        const ssize_t got = ::read(m_fd, buffer, sizeof buffer);
        if (got > 0) {
            m_bytes.append(buffer, static_cast<std::size_t>(got));
        }
        return got > 0 || (got < 0 && errno == EINTR);
    }

    bool Next(MessageKind& kind, std::string& text) {
        MessageHead head;
        if (m_bytes.size() < sizeof head) {
            return false;
        }
        std::memcpy(&head, m_bytes.data(), sizeof head);
        if (head.num_bytes > kMaxMessageBytes) {
            throw std::length_error("message of the import process");
        }
        if (m_bytes.size() < sizeof head + head.num_bytes) {
            return false;
        }
        kind = head.kind;
        text = m_bytes.substr(sizeof head, head.num_bytes);
        m_bytes.erase(0, sizeof head + head.num_bytes);
        return true;
    }

private:
    int m_fd;
    std::string m_bytes;
};

// Maps what the child left; a size that is no whole number of voxels cannot come from AllocateResult.
VoxelBuffer TakeVoxels(int memory) {
    struct stat status {};
    if (::fstat(memory, &status) != 0 || status.st_size <= 0) {
        return {};
    }
    return MapVoxels(memory, static_cast<std::size_t>(status.st_size) / sizeof(std::int16_t));
}

// The same while the child is still there. It must not take memory away again that the parent reads.
VoxelBuffer TakeGrowingVoxels(int memory) {
    if (::fcntl(memory, F_ADD_SEALS, F_SEAL_SHRINK) != 0) {
        return {};
    }
    return TakeVoxels(memory);
}

// Follows the child until it has said its last word.
class ChildDialogue {
public:
    ChildDialogue(const std::string& what, const ImportOptions& options, int pipe, int memory)
        : m_what(what), m_options(options), m_reader(pipe), m_memory(memory) {}

    // The text of the result.
    std::string Run() {
        m_lastSign = std::chrono::steady_clock::now();
        for (;;) {
            const bool is_open = m_reader.Fill();
            MessageKind kind;
            std::string text;
            while (m_reader.Next(kind, text)) {
                m_lastSign = std::chrono::steady_clock::now();
                if (kind == MessageKind::kDone) {
                    return text;
                }
                Hear(kind, text);
                CheckPatience();
            }
            if (!is_open) {
                RefuseCrash(m_what);
            }
            CheckPatience();
        }
    }

private:
    void Hear(MessageKind kind, const std::string& text) {
        switch (kind) {
            case MessageKind::kProgress:
                if (m_options.progress && text.size() == sizeof(double)) {
                    double fraction;
                    std::memcpy(&fraction, text.data(), sizeof fraction);
                    m_highest = std::max(m_highest, std::clamp(fraction, 0.0, 1.0));
                    m_options.progress(m_highest);
                }
                return;
            case MessageKind::kLayout:
                HearLayout(UnpackVolume(text));
                return;
            case MessageKind::kSlices:
                HearSlices(text);
                return;
            case MessageKind::kRefused:
                throw ImportError(OneLine(text));
            case MessageKind::kCancelled:
                throw ImportCancelled();
            case MessageKind::kNoMemory:
                RefuseMemory(m_what);
            default:
                RefuseCrash(m_what);
        }
    }

    // Shares the memory that the child is filling.
    void HearLayout(ImportedVolume layout) {
        if (m_numSlices > 0 || !m_options.on_layout) {
            RefuseCrash(m_what);
        }
        layout.voxels = TakeGrowingVoxels(m_memory);
        std::size_t num_voxels = 1;
        for (const int size : layout.dims) {
            num_voxels *= size > 0 && size <= (1 << 20) ? static_cast<std::size_t>(size) : 0;
        }
        if (num_voxels == 0 || layout.voxels.size() != num_voxels) {
            RefuseCrash(m_what);
        }
        m_numSlices = layout.dims[2];
        m_options.on_layout(layout);
    }

    void HearSlices(const std::string& text) {
        std::vector<int> slices(text.size() / sizeof(int));
        std::memcpy(slices.data(), text.data(), slices.size() * sizeof(int));
        const auto is_one = [this](int slice) { return slice >= 0 && slice < m_numSlices; };
        if (!std::all_of(slices.begin(), slices.end(), is_one) || !m_options.on_slices) {
            RefuseCrash(m_what);
        }
        m_options.on_slices(slices);
    }

    void CheckPatience() const {
        if (m_options.is_cancelled && m_options.is_cancelled()) {
            throw ImportCancelled();
        }
        const std::chrono::duration<double> silence = std::chrono::steady_clock::now() - m_lastSign;
        if (silence.count() > m_options.limits.silence_seconds) {
            Refuse(m_what,
                   "unreadable file, its decoder made no progress for " + Text(m_options.limits.silence_seconds) + " s",
                   "the file is damaged; get it anew");
        }
    }

    const std::string& m_what;
    const ImportOptions& m_options;
    MessageReader m_reader;
    int m_memory;
    std::chrono::steady_clock::time_point m_lastSign;
    double m_highest = 0.0;
    int m_numSlices = 0;  // of the layout, once there is one
};

// The first line of what was written, made fit to be shown.
std::string TakeComplaint(int complaints) {
    std::string text(200, '\0');
    const ssize_t got = ::pread(complaints, text.data(), text.size(), 0);
    text.resize(static_cast<std::size_t>(std::max<ssize_t>(got, 0)));
    return OneLine(text.substr(0, text.find('\n')));
}

class InProcessContext : public ImportContext {
public:
    using ImportContext::ImportContext;

    void Progress(double fraction) override {
        if (Options().is_cancelled && Options().is_cancelled()) {
            throw ImportCancelled();
        }
        m_highest = std::max(m_highest, std::clamp(fraction, 0.0, 1.0));
        if (Options().progress) {
            Options().progress(m_highest);
        }
    }
    VoxelBuffer AllocateResult(std::size_t num_voxels) override { return result = VoxelBuffer(num_voxels); }
    void AnnounceLayout(const ImportedVolume& layout) override { Options().on_layout(layout); }
    void AnnounceSlices(const std::vector<int>& slices) override { Options().on_slices(slices); }

    VoxelBuffer result;

private:
    double m_highest = 0.0;
};

}  // namespace

JobResult RunInProcess(const ImportOptions& options, const ImportJob& job) {
    InProcessContext context(options);
    JobResult result;
    result.text = job(context);
    result.voxels = context.result;
    return result;
}

JobResult RunIsolated(const std::string& what, const ImportOptions& options, const ImportJob& job) {
    // Open the ways back.
    int ends[2];
    if (::pipe2(ends, O_CLOEXEC) != 0) {
        Refuse(what, "no pipe to an import process", "close files and try again");
    }
    FileDescriptor read_end(ends[0]), write_end(ends[1]);
    const FileDescriptor memory(::memfd_create("voxels", MFD_CLOEXEC | MFD_ALLOW_SEALING));
    const FileDescriptor complaints(::memfd_create("complaints", MFD_CLOEXEC));
    if (memory.Get() < 0 || complaints.Get() < 0) {
        Refuse(what, "no shared memory for an import process", "close programs and try again");
    }

    // Start the child.
    const pid_t pid = ::fork();
    if (pid < 0) {
        Refuse(what, "no import process could be started", "close programs and try again");
    }
    if (pid == 0) {
        RunChild(options, job, write_end.Get(), memory.Get(), complaints.Get());
    }
    const ChildProcess child(pid);
    write_end.Close();

    // Follow it to the end.
    JobResult result;
    result.text = ChildDialogue(what, options, read_end.Get(), memory.Get()).Run();
    result.voxels = TakeVoxels(memory.Get());
    result.complaint = TakeComplaint(complaints.Get());
    return result;
}

}  // namespace scene::import
