#include "scene/import/dicom_fragments.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>

namespace scene::import {

namespace {

constexpr std::uint32_t kItem = 0xe000fffe, kSequenceEnd = 0xe0ddfffe;  // as little-endian words
constexpr std::uint32_t kItemHeadBytes = 8;

std::uint32_t LittleEndian32(const unsigned char* bytes) {
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | std::uint32_t(bytes[3]) << 24;
}

// All items of the pixel sequence; the first is the offset table.
std::vector<ByteRange> ListItems(const RandomAccessFile& source, std::uint64_t offset) {
    std::vector<ByteRange> items;
    for (;;) {
        if (offset + kItemHeadBytes > source.Size()) {
            throw DicomParseError("the file ends before its pixel data does");
        }
        std::array<unsigned char, kItemHeadBytes> head;
        source.Read(offset, head.data(), head.size());
        const std::uint32_t mark = LittleEndian32(head.data()), num_bytes = LittleEndian32(head.data() + 4);
        if (mark == kSequenceEnd) {
            return items;
        }
        if (mark != kItem) {
            throw DicomParseError("its compressed pixel data is damaged");
        }
        items.push_back({offset + kItemHeadBytes, num_bytes});
        offset += kItemHeadBytes + std::uint64_t(num_bytes);
    }
}

// Frames by the offset table, which counts from the first fragment's head.
std::vector<FrameFragments> FramesByTable(const RandomAccessFile& source, const std::vector<ByteRange>& items,
                                          std::size_t num_frames) {
    const ByteRange table = items.front();
    if (items.size() < 2 || table.num_bytes != num_frames * 4) {
        throw DicomParseError("its compressed frames cannot be told apart");
    }
    std::vector<unsigned char> bytes(table.num_bytes);
    source.Read(table.offset, bytes.data(), bytes.size());
    const std::uint64_t first = items[1].offset;
    std::vector<FrameFragments> frames(num_frames);
    std::size_t frame = 0;
    for (std::size_t i = 1; i < items.size(); ++i) {
        while (frame + 1 < num_frames && items[i].offset - first >= LittleEndian32(&bytes[(frame + 1) * 4])) {
            ++frame;
        }
        frames[frame].push_back(items[i]);
    }
    return frames;
}

}  // namespace

RandomAccessFile::RandomAccessFile(const std::string& path) : m_descriptor(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {
    struct stat status {};
    if (m_descriptor < 0 || ::fstat(m_descriptor, &status) != 0) {
        if (m_descriptor >= 0) {
            ::close(m_descriptor);
        }
        throw DicomParseError("it cannot be opened");
    }
    m_numBytes = static_cast<std::uint64_t>(status.st_size);
}

RandomAccessFile::~RandomAccessFile() {
    ::close(m_descriptor);
}

void RandomAccessFile::Read(std::uint64_t offset, void* out, std::size_t num_bytes) const {
    auto* bytes = static_cast<char*>(out);
    while (num_bytes > 0) {
        const ssize_t got = ::pread(m_descriptor, bytes, num_bytes, static_cast<off_t>(offset));
        if (got <= 0) {
            throw DicomParseError("the file ends before its pixel data does");
        }
        bytes += got;
        offset += static_cast<std::uint64_t>(got);
        num_bytes -= static_cast<std::size_t>(got);
    }
}

std::vector<FrameFragments> FindFragments(const DicomFile& file) {
    const RandomAccessFile source(file.path);
    const std::vector<ByteRange> items = ListItems(source, file.pixel_offset);
    const auto num_frames = static_cast<std::size_t>(file.num_frames);
    if (items.size() < 2) {
        throw DicomParseError("it holds no pixel data");
    }

    // One fragment for each frame, all for one frame, or as the table says.
    std::vector<FrameFragments> frames(num_frames);
    if (items.size() == num_frames + 1) {
        for (std::size_t frame = 0; frame < num_frames; ++frame) {
            frames[frame] = {items[frame + 1]};
        }
    } else if (num_frames == 1) {
        frames[0].assign(items.begin() + 1, items.end());
    } else {
        frames = FramesByTable(source, items, num_frames);
    }
    if (std::any_of(frames.begin(), frames.end(), [](const auto& fragments) { return fragments.empty(); })) {
        throw DicomParseError("a frame has no pixel data");
    }
    return frames;
}

}  // namespace scene::import
