// Bytes of a file, plain or gzip, with the checksum of gzip files verified.
#ifndef SCENE_IMPORT_BYTE_SOURCE_H
#define SCENE_IMPORT_BYTE_SOURCE_H

#include <cstdint>
#include <functional>
#include <string>

struct gzFile_s;

namespace scene::import {

// Reads from front to back. Throws ImportError when the file ends early or its compressed data is damaged.
class ByteSource {
public:
    explicit ByteSource(const std::string& path);
    ByteSource(const ByteSource&) = delete;
    ByteSource& operator=(const ByteSource&) = delete;
    ~ByteSource();

    // Reads exactly so many bytes; `poll` runs every few megabytes with the bytes read by this call.
    void Read(void* out, std::uint64_t num_bytes, const std::function<void(std::uint64_t)>& poll = {});
    // Reads and forgets.
    void Skip(std::uint64_t num_bytes);
    // Reads to the end, which verifies the checksum of a gzip file; the number of bytes that were left.
    std::uint64_t VerifyRest();

    // An upper limit of the bytes that the file can hold: its size, times the best ratio of gzip if compressed.
    std::uint64_t MostBytes() const { return m_mostBytes; }

private:
    // At most num_bytes; less at the end of the file.
    std::uint64_t ReadSome(void* out, std::uint64_t num_bytes);

    std::string m_path;
    gzFile_s* m_file = nullptr;
    std::uint64_t m_mostBytes = 0;
};

// Verifies the checksum of a zlib or gzip stream that starts at an offset of a file, and that it holds at least so many
// bytes. Throws ImportError about `what`.
void VerifyDeflated(const std::string& what, const std::string& path, std::uint64_t offset, std::uint64_t least_bytes);

}  // namespace scene::import

#endif  // SCENE_IMPORT_BYTE_SOURCE_H
