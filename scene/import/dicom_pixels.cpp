#include "scene/import/dicom_pixels.h"

#include <gdcmImage.h>
#include <gdcmSequenceOfFragments.h>

#include <algorithm>
#include <bit>
#include <cstring>
#include <limits>

#include "scene/import/dicom_fragments.h"
#include "scene/import/import_context.h"

namespace scene::import {

namespace {

[[noreturn]] void RefuseDecoding(const DicomFile& file) {
    Refuse(file.path, "its pixels cannot be decoded", "it is damaged or of a kind that is not supported");
}

std::size_t PixelsOf(const DicomFile& file) {
    return std::size_t(file.rows) * file.columns;
}

// Uncompressed pixels of one frame, widened to words of this machine.
void CopyRawFrame(const DicomFile& file, const char* bytes, std::int16_t* out) {
    const std::size_t count = PixelsOf(file);
    const auto byte_at = [bytes](std::size_t at) { return static_cast<unsigned char>(bytes[at]); };
    if (file.bits_allocated == 8) {
        for (std::size_t i = 0; i < count; ++i) {
            out[i] = byte_at(file.are_bytes_swapped && (i ^ 1) < count ? i ^ 1 : i);
        }
        return;
    }
    const std::size_t low = file.encoding == DicomEncoding::kBigEndian ? 1 : 0;
    for (std::size_t i = 0; i < count; ++i) {
        out[i] = static_cast<std::int16_t>(byte_at(2 * i + low) | byte_at(2 * i + 1 - low) << 8);
    }
}

std::size_t RawFrameBytes(const DicomFile& file) {
    return PixelsOf(file) * (file.bits_allocated / 8);
}

void ReadRawFrames(const DicomFile& file, const std::vector<FrameTarget>& targets) {
    const RandomAccessFile source(file.path);
    const bool is_native = file.bits_allocated == 16 && file.encoding == DicomEncoding::kLittleEndian &&
                           std::endian::native == std::endian::little;
    std::vector<char> bytes(is_native ? 0 : RawFrameBytes(file));
    for (const FrameTarget& target : targets) {
        const std::uint64_t offset = file.pixel_offset + std::uint64_t(target.index) * RawFrameBytes(file);
        if (is_native) {
            source.Read(offset, target.out, RawFrameBytes(file));
        } else {
            source.Read(offset, bytes.data(), bytes.size());
            CopyRawFrame(file, bytes.data(), target.out);
        }
    }
}

void ReadDeflatedFrames(const DicomFile& file, const std::vector<FrameTarget>& targets) {
    const std::optional<ParsedDicom> parsed = ParseDicom(file.path);
    for (const FrameTarget& target : targets) {
        const std::uint64_t offset = file.pixel_offset + std::uint64_t(target.index) * RawFrameBytes(file);
        if (!parsed || offset + RawFrameBytes(file) > parsed->bytes.size()) {
            RefuseDecoding(file);
        }
        CopyRawFrame(file, parsed->bytes.data() + offset, target.out);
    }
}

// An image of the decoding library for one frame of compressed fragments.
gdcm::Image MakeImage(const DicomFile& file, const std::vector<std::string>& fragments) {
    // Collect the fragments.
    const gdcm::SmartPointer<gdcm::SequenceOfFragments> sequence = new gdcm::SequenceOfFragments;
    for (const std::string& bytes : fragments) {
        gdcm::Fragment fragment;
        fragment.SetByteValue(bytes.data(), gdcm::VL(static_cast<std::uint32_t>(bytes.size())));
        sequence->AddFragment(fragment);
    }
    gdcm::DataElement pixels(gdcm::Tag(0x7fe0, 0x0010));
    pixels.SetVR(gdcm::VR::OB);
    pixels.SetValue(*sequence);

    // Describe what they hold.
    gdcm::Image image;
    image.SetNumberOfDimensions(2);
    image.SetDimension(0, static_cast<unsigned>(file.columns));
    image.SetDimension(1, static_cast<unsigned>(file.rows));
    image.SetPixelFormat(gdcm::PixelFormat(1, static_cast<unsigned short>(file.bits_allocated),
                                           static_cast<unsigned short>(file.bits_stored),
                                           static_cast<unsigned short>(file.high_bit), file.is_signed ? 1 : 0));
    image.SetPhotometricInterpretation(gdcm::PhotometricInterpretation::MONOCHROME2);
    image.SetTransferSyntax(gdcm::TransferSyntax::GetTSType(file.transfer_syntax.c_str()));
    image.SetDataElement(pixels);
    return image;
}

void DecodeFrame(const DicomFile& file, const std::vector<std::string>& fragments, std::int16_t* out) {
    const gdcm::Image image = MakeImage(file, fragments);
    const std::size_t num_pixels = PixelsOf(file);
    const unsigned long num_bytes = image.GetBufferLength();
    if (num_bytes != num_pixels && num_bytes != 2 * num_pixels) {
        RefuseDecoding(file);
    }
    std::vector<char> buffer(num_bytes);
    if (!image.GetBuffer(buffer.data()) || image.GetBufferLength() != num_bytes) {
        RefuseDecoding(file);
    }
    if (num_bytes == num_pixels) {
        std::transform(buffer.begin(), buffer.end(), out, [](char byte) { return static_cast<unsigned char>(byte); });
    } else {
        std::memcpy(out, buffer.data(), num_bytes);
    }
}

void DecodeCompressedFrames(const DicomFile& file, const std::vector<FrameTarget>& targets) {
    const RandomAccessFile source(file.path);
    const std::vector<FrameFragments> frames = FindFragments(file);
    for (const FrameTarget& target : targets) {
        std::vector<std::string> fragments;
        for (const ByteRange& range : frames[static_cast<std::size_t>(target.index)]) {
            fragments.emplace_back(range.num_bytes, '\0');
            source.Read(range.offset, fragments.back().data(), range.num_bytes);
        }
        DecodeFrame(file, fragments, target.out);
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

// The same for whole words and a single padding word, which are most files: nothing to extract.
template <typename Value>
void FindFrameRangeBesidePadding(const std::int16_t* values, std::size_t count, FrameValues& found) {
    constexpr Value kLowest = std::numeric_limits<Value>::min(), kHighest = std::numeric_limits<Value>::max();
    const auto padding = static_cast<Value>(found.padding_value);
    Value low = kHighest, high = kLowest;
    bool has_padding = false, has_values = false;
    for (std::size_t i = 0; i < count; ++i) {
        const auto value = static_cast<Value>(values[i]);
        const bool is_padding = value == padding;
        has_padding |= is_padding;
        has_values |= !is_padding;
        low = std::min(low, is_padding ? kHighest : value);
        high = std::max(high, is_padding ? kLowest : value);
    }
    found.has_padding = has_padding;
    if (has_values) {
        found.min_value = low;
        found.max_value = high;
    }
}

void Interpret(const DicomFile& file, const FrameTarget& target) {
    const BitField field(file);
    const std::size_t count = PixelsOf(file);
    FrameValues& found = *target.found;
    found = {.is_signed = file.is_signed, .min_value = 65536, .max_value = -65536};
    if (file.padding_first && !file.padding_last && field.IsWholeWord()) {
        if (file.is_signed) {
            found.padding_value = static_cast<std::int16_t>(*file.padding_first);
            FindFrameRangeBesidePadding<std::int16_t>(target.out, count, found);
        } else {
            found.padding_value = *file.padding_first;
            FindFrameRangeBesidePadding<std::uint16_t>(target.out, count, found);
        }
        return;
    }
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
        switch (file.encoding) {
            case DicomEncoding::kCompressed:
                DecodeCompressedFrames(file, targets);
                break;
            case DicomEncoding::kDeflated:
                ReadDeflatedFrames(file, targets);
                break;
            default:
                ReadRawFrames(file, targets);
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
