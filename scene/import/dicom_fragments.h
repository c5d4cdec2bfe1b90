// Where the compressed frames of a DICOM file lie.
#ifndef SCENE_IMPORT_DICOM_FRAGMENTS_H
#define SCENE_IMPORT_DICOM_FRAGMENTS_H

#include <cstdint>
#include <string>
#include <vector>

#include "scene/import/dicom_scan.h"

namespace scene::import {

// A file that is read at any place.
class RandomAccessFile {
public:
    // Throws DicomParseError when the file cannot be opened.
    explicit RandomAccessFile(const std::string& path);
    RandomAccessFile(const RandomAccessFile&) = delete;
    RandomAccessFile& operator=(const RandomAccessFile&) = delete;
    ~RandomAccessFile();

    std::uint64_t Size() const { return m_numBytes; }
    // Throws DicomParseError when the file ends before.
    void Read(std::uint64_t offset, void* out, std::size_t num_bytes) const;

private:
    int m_descriptor;
    std::uint64_t m_numBytes = 0;
};

struct ByteRange {
    std::uint64_t offset = 0;
    std::uint32_t num_bytes = 0;
};
using FrameFragments = std::vector<ByteRange>;

// The fragments of each frame of a compressed file. All must be whole and their list closed, or the decoder would
// invent what is missing: throws DicomParseError otherwise.
std::vector<FrameFragments> FindFragments(const DicomFile& file);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_FRAGMENTS_H
