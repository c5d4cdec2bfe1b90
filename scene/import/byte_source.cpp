#include "scene/import/byte_source.h"

#include <sys/stat.h>
#include <zlib.h>

#include <algorithm>
#include <fstream>
#include <vector>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

constexpr std::uint64_t kChunkBytes = 4u << 20;
constexpr std::uint64_t kBestGzipRatio = 1100;

[[noreturn]] void RefuseTruncated(const std::string& what) {
    Refuse(what, "the file ends before its image does", "it is truncated; get it anew");
}
[[noreturn]] void RefuseDamaged(const std::string& what) {
    Refuse(what, "its compressed data is damaged", "get the file anew");
}

// An inflater for zlib and gzip streams.
class Inflater {
public:
    explicit Inflater(const std::string& what) {
        if (inflateInit2(&stream, 15 + 32) != Z_OK) {
            RefuseDamaged(what);
        }
    }
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() { inflateEnd(&stream); }

    z_stream stream{};
};

}  // namespace

ByteSource::ByteSource(const std::string& path) : m_path(path) {
    struct stat status {};
    m_file = gzopen(path.c_str(), "rb");
    if (!m_file || ::stat(path.c_str(), &status) != 0) {
        if (m_file) {
            gzclose(m_file);
        }
        Refuse(path, "cannot be opened", "check the path and its permissions");
    }
    gzbuffer(m_file, 1u << 20);
    m_mostBytes = static_cast<std::uint64_t>(status.st_size) * (gzdirect(m_file) ? 1 : kBestGzipRatio);
}

ByteSource::~ByteSource() {
    gzclose(m_file);
}

std::uint64_t ByteSource::ReadSome(void* out, std::uint64_t num_bytes) {
    const int got = gzread(m_file, out, static_cast<unsigned>(std::min(num_bytes, kChunkBytes)));
    int status = Z_OK;
    gzerror(m_file, &status);
    if (got < 0 || status == Z_DATA_ERROR) {
        RefuseDamaged(m_path);
    }
    if (status == Z_BUF_ERROR) {
        RefuseTruncated(m_path);
    }
    return static_cast<std::uint64_t>(got);
}

void ByteSource::Read(void* out, std::uint64_t num_bytes, const std::function<void(std::uint64_t)>& poll) {
    auto* const bytes = static_cast<char*>(out);
    for (std::uint64_t done = 0; done < num_bytes;) {
        const std::uint64_t got = ReadSome(bytes + done, num_bytes - done);
        if (got == 0) {
            RefuseTruncated(m_path);
        }
        done += got;
        if (poll) {
            poll(done);
        }
    }
}

void ByteSource::Skip(std::uint64_t num_bytes) {
    std::vector<char> scratch(std::min(num_bytes, kChunkBytes));
    for (std::uint64_t left = num_bytes; left > 0;) {
        const std::uint64_t got = ReadSome(scratch.data(), std::min<std::uint64_t>(left, scratch.size()));
        if (got == 0) {
            RefuseTruncated(m_path);
        }
        left -= got;
    }
}

std::uint64_t ByteSource::VerifyRest() {
    std::vector<char> scratch(kChunkBytes);
    std::uint64_t num_left = 0;
    while (const std::uint64_t got = ReadSome(scratch.data(), scratch.size())) {
        num_left += got;
    }
    return num_left;
}

void VerifyDeflated(const std::string& what, const std::string& path, std::uint64_t offset, std::uint64_t least_bytes) {
    std::ifstream file(path, std::ios::binary);
    file.seekg(static_cast<std::streamoff>(offset));
    std::vector<char> packed(1u << 20), unpacked(4u << 20);
    Inflater inflater(what);
    z_stream& stream = inflater.stream;
    for (int status = Z_OK; status != Z_STREAM_END;) {
        if (stream.avail_in == 0) {
            file.read(packed.data(), static_cast<std::streamsize>(packed.size()));
            stream.next_in = reinterpret_cast<Bytef*>(packed.data());
            stream.avail_in = static_cast<uInt>(file.gcount());
            if (stream.avail_in == 0) {
                RefuseTruncated(what);
            }
        }
        stream.next_out = reinterpret_cast<Bytef*>(unpacked.data());
        stream.avail_out = static_cast<uInt>(unpacked.size());
        status = inflate(&stream, Z_NO_FLUSH);
        if (status != Z_OK && status != Z_STREAM_END && status != Z_BUF_ERROR) {
            RefuseDamaged(what);
        }
    }
    if (stream.total_out < least_bytes) {
        RefuseTruncated(what);
    }
}

}  // namespace scene::import
