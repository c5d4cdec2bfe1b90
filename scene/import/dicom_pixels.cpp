#include "scene/import/dicom_pixels.h"

#include <fcntl.h>
#include <gdcmImageReader.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <limits>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

[[noreturn]] void RefuseDecoding(const DicomFile& file) {
    Refuse(file.path, "its pixels cannot be decoded", "it is damaged or of a kind that is not supported");
}

std::size_t PixelsOf(const DicomFile& file) {
    return std::size_t(file.rows) * file.columns;
}

// Widens bytes to words, in place or not.
void CopyWords(const void* pixels, int bytes_each, std::size_t count, std::int16_t* out) {
    if (bytes_each == 2) {
        std::memcpy(out, pixels, count * 2);
        return;
    }
    const auto* const bytes = static_cast<const std::uint8_t*>(pixels);
    std::copy(bytes, bytes + count, out);
}

// Reads so many bytes of a file at a place.
void ReadAt(const DicomFile& file, int descriptor, std::uint64_t offset, void* out, std::size_t num_bytes) {
    auto* bytes = static_cast<char*>(out);
    while (num_bytes > 0) {
        const ssize_t got = ::pread(descriptor, bytes, num_bytes, static_cast<off_t>(offset));
        if (got <= 0) {
            RefuseDecoding(file);
        }
        bytes += got;
        offset += static_cast<std::uint64_t>(got);
        num_bytes -= static_cast<std::size_t>(got);
    }
}

// Uncompressed little-endian pixels need no decoder.
void ReadRawFrames(const DicomFile& file, const std::vector<FrameTarget>& targets) {
    const int descriptor = ::open(file.path.c_str(), O_RDONLY | O_CLOEXEC);
    if (descriptor < 0) {
        RefuseDecoding(file);
    }
    const std::unique_ptr<const int, void (*)(const int*)> closer(&descriptor, [](const int* fd) { ::close(*fd); });
    const std::size_t num_pixels = PixelsOf(file);
    const int bytes_each = file.bits_allocated / 8;
    std::vector<std::uint8_t> narrow(bytes_each == 1 ? num_pixels : 0);
    for (const FrameTarget& target : targets) {
        const std::uint64_t offset = *file.raw_offset + std::uint64_t(target.index) * num_pixels * bytes_each;
        if (bytes_each == 2) {
            ReadAt(file, descriptor, offset, target.out, num_pixels * 2);
        } else {
            ReadAt(file, descriptor, offset, narrow.data(), num_pixels);
            CopyWords(narrow.data(), 1, num_pixels, target.out);
        }
    }
}

// Everything else goes through the decoder, which delivers all frames at once.
void DecodeWithGdcm(const DicomFile& file, const std::vector<FrameTarget>& targets) {
    gdcm::ImageReader reader;
    reader.SetFileName(file.path.c_str());
    if (!reader.Read()) {
        RefuseDecoding(file);
    }

    // What comes out must be what the header promised.
    const gdcm::Image& image = reader.GetImage();
    const gdcm::PixelFormat& format = image.GetPixelFormat();
    const int bytes_each = format.GetBitsAllocated() / 8;
    const std::size_t num_pixels = PixelsOf(file);
    const std::size_t num_bytes = num_pixels * static_cast<std::size_t>(file.num_frames * std::max(bytes_each, 1));
    const bool is_expected = (bytes_each == 1 || bytes_each == 2) && format.GetSamplesPerPixel() == 1 &&
                             image.GetDimension(0) == static_cast<unsigned>(file.columns) &&
                             image.GetDimension(1) == static_cast<unsigned>(file.rows) &&
                             image.GetBufferLength() == num_bytes;
    std::vector<char> buffer(is_expected ? num_bytes : 0);
    if (!is_expected || !image.GetBuffer(buffer.data())) {
        RefuseDecoding(file);
    }
    for (const FrameTarget& target : targets) {
        const std::size_t offset = static_cast<std::size_t>(target.index) * num_pixels * bytes_each;
        CopyWords(buffer.data() + offset, bytes_each, num_pixels, target.out);
    }
}

// From a raw word to the value of its stored bits.
class BitField {
public:
    explicit BitField(const DicomFile& file)
        : m_shift(file.high_bit + 1 - file.bits_stored),
          m_mask((1 << file.bits_stored) - 1),
          m_signBit(file.is_signed ? 1 << (file.bits_stored - 1) : 0) {}

    int operator()(int word) const {
        const int field = (word >> m_shift) & m_mask;
        return (field ^ m_signBit) - m_signBit;
    }
    bool IsWholeWord() const { return m_mask == 0xffff; }

private:
    int m_shift, m_mask, m_signBit;
};

// Replaces words by values.
void ExtractFields(const BitField& field, std::int16_t* words, std::size_t count) {
    for (std::size_t i = 0; i < count; ++i) {
        words[i] = static_cast<std::int16_t>(field(static_cast<std::uint16_t>(words[i])));
    }
}

// The same where some words mean padding. Padding is recognised by its word, whatever type its tag was written with,
// and also where its value does not fit the stored bits.
void ExtractFieldsAndPadding(const DicomFile& file, const BitField& field, std::int16_t* words, std::size_t count,
                             FrameValues& found) {
    const auto as_value = [&](std::uint16_t word) {
        return file.is_signed ? static_cast<std::int16_t>(word) : static_cast<int>(word);
    };
    const int first = as_value(*file.padding_first), last = as_value(file.padding_last.value_or(*file.padding_first));
    const int low = std::min(first, last), high = std::max(first, last);
    found.padding_value = first;
    for (std::size_t i = 0; i < count; ++i) {
        const auto word = static_cast<std::uint16_t>(words[i]);
        const int whole = as_value(word), value = field(word);
        const bool is_padding = (whole >= low && whole <= high) || (value >= low && value <= high);
        words[i] = static_cast<std::int16_t>(is_padding ? first : value);
        if (is_padding) {
            found.has_padding = true;
        } else {
            found.min_value = std::min(found.min_value, value);
            found.max_value = std::max(found.max_value, value);
        }
    }
}

template <typename Value>
void FindFrameRange(const std::int16_t* values, std::size_t count, FrameValues& found) {
    Value low = std::numeric_limits<Value>::max(), high = std::numeric_limits<Value>::min();
    for (std::size_t i = 0; i < count; ++i) {
        low = std::min(low, static_cast<Value>(values[i]));
        high = std::max(high, static_cast<Value>(values[i]));
    }
    found.min_value = low;
    found.max_value = high;
}

void Interpret(const DicomFile& file, const FrameTarget& target) {
    const BitField field(file);
    const std::size_t count = PixelsOf(file);
    FrameValues& found = *target.found;
    found = {.is_signed = file.is_signed, .min_value = 65536, .max_value = -65536};
    if (file.padding_first) {
        ExtractFieldsAndPadding(file, field, target.out, count, found);
        return;
    }
    if (!field.IsWholeWord()) {
        ExtractFields(field, target.out, count);
    }
    if (file.is_signed) {
        FindFrameRange<std::int16_t>(target.out, count, found);
    } else {
        FindFrameRange<std::uint16_t>(target.out, count, found);
    }
}

}  // namespace

void DecodeFrames(const DicomFile& file, const std::vector<FrameTarget>& targets) {
    try {
        if (file.raw_offset) {
            ReadRawFrames(file, targets);
        } else {
            DecodeWithGdcm(file, targets);
        }
    } catch (const ImportError&) {
        throw;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {  // decoders throw more than std::exception
        RefuseDecoding(file);
    }
    for (const FrameTarget& target : targets) {
        Interpret(file, target);
    }
}

}  // namespace scene::import
