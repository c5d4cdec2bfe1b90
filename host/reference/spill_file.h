// The temporary file that takes pager blocks which do not fit into the memory budget.
#pragma once

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <string>

namespace reference_host {

// A file that has no name any more (or, on Windows, vanishes when it is closed): it ends with the process, however that
// ends. Divided into extents, multiples of 4 KiB, that are used again when freed; the file shrinks when its end is
// free. All operations may be called from any thread; reading and writing go on side by side.
class SpillFile {
public:
    // Opens a file in a folder; an empty name means the system's folder for temporary files. Null when that fails.
    static std::shared_ptr<SpillFile> Open(const std::string& folder);
    ~SpillFile();
    SpillFile(const SpillFile&) = delete;
    SpillFile& operator=(const SpillFile&) = delete;

    // Writes a block and returns its offset; -1, and nothing kept, when the disk is full or fails.
    std::int64_t Write(const void* data, std::int64_t bytes);
    // Reads back what was written; false when the file cannot be read.
    bool Read(void* data, std::int64_t bytes, std::int64_t offset) const;
    // Gives the extent of a block back.
    void Release(std::int64_t offset, std::int64_t bytes);

private:
#if defined(_WIN32)
    using Handle = void*;
#else
    using Handle = int;
#endif
    explicit SpillFile(Handle handle) : m_Handle(handle) {}

    std::int64_t TakeExtent(std::int64_t length);
    bool WriteAt(const char* data, std::int64_t bytes, std::int64_t offset) const;
    bool ReadAt(char* data, std::int64_t bytes, std::int64_t offset) const;
    void Truncate(std::int64_t length) const;

    Handle m_Handle;                                  // invalid until the file is open
    std::mutex m_Mutex;                               // guards the extents
    std::map<std::int64_t, std::int64_t> m_Released;  // length by offset, never two that touch
    std::int64_t m_End = 0;                           // end of the last extent in use
};

}  // namespace reference_host
