#include "scene/import/dicom_scan.h"

#include <gdcmReader.h>

#include <algorithm>
#include <array>
#include <cstring>
#include <fstream>
#include <set>

#include "scene/import/dicom_tags.h"
#include "scene/import/import_context.h"

namespace scene::import {

namespace {

using gdcm::DataSet;
using gdcm::Tag;

const Tag kPixelData(0x7fe0, 0x0010);
constexpr std::uint32_t kUndefinedLength = 0xffffffffu;

// Why a file is no slice.
struct Unusable {
    DicomScanResult result;
    std::string reason, advice;
};

[[noreturn]] void Broken(const std::string& reason) {
    throw Unusable{DicomScanResult::kBroken, reason, "it is damaged or truncated; get it anew"};
}
[[noreturn]] void NoSlice(const std::string& reason, const std::string& advice) {
    throw Unusable{DicomScanResult::kUnusable, reason, advice};
}

// Part 10 files by their mark; older ones without preamble by a plausible first element of group 2 or 8.
bool LooksLikeDicom(std::istream& stream) {
    std::array<unsigned char, 132> start{};
    stream.read(reinterpret_cast<char*>(start.data()), start.size());
    const bool is_long = stream.gcount() == static_cast<std::streamsize>(start.size());
    stream.clear();
    stream.seekg(0);
    if (is_long && std::memcmp(start.data() + 128, "DICM", 4) == 0) {
        return true;
    }
    return is_long && (start[0] == 2 || start[0] == 8) && start[1] == 0 && start[3] == 0 && start[2] < 0x20;
}

// Where the value of the pixel data element starts, how long it says it is, and in which byte order.
struct PixelElement {
    std::uint64_t offset = 0;
    std::uint32_t num_bytes = 0;
};

std::uint32_t LittleEndian32(const unsigned char* bytes) {
    return bytes[0] | bytes[1] << 8 | bytes[2] << 16 | std::uint32_t(bytes[3]) << 24;
}

// The stream stands behind the head of the pixel data element; nothing if what lies there is no such head.
std::optional<PixelElement> PixelElementBefore(std::ifstream& stream, std::uint64_t offset) {
    std::array<unsigned char, 12> head{};
    if (offset < head.size()) {
        return std::nullopt;
    }
    stream.clear();
    stream.seekg(static_cast<std::streamoff>(offset - head.size()));
    stream.read(reinterpret_cast<char*>(head.data()), head.size());
    constexpr std::array<unsigned char, 4> kLittle = {0xe0, 0x7f, 0x10, 0x00}, kBig = {0x7f, 0xe0, 0x00, 0x10};
    const auto is_tag = [&](std::size_t at, const auto& tag) { return std::equal(tag.begin(), tag.end(), &head[at]); };
    if (!stream || !(is_tag(0, kLittle) || is_tag(4, kLittle) || is_tag(0, kBig))) {
        return std::nullopt;
    }
    std::array<unsigned char, 4> length = {head[8], head[9], head[10], head[11]};
    if (is_tag(0, kBig)) {
        std::reverse(length.begin(), length.end());
    }
    return PixelElement{offset, LittleEndian32(length.data())};
}

// Walks the fragments of compressed pixel data: each must be whole and the list must be closed, or the decoder would
// invent what is missing.
void CheckFragments(std::ifstream& stream, std::uint64_t offset, std::uint64_t file_bytes) {
    constexpr std::uint32_t kItem = 0xe000fffe, kEnd = 0xe0ddfffe;
    while (offset + 8 <= file_bytes) {
        std::array<unsigned char, 8> head{};
        stream.clear();
        stream.seekg(static_cast<std::streamoff>(offset));
        stream.read(reinterpret_cast<char*>(head.data()), head.size());
        const std::uint32_t tag = LittleEndian32(head.data()), num_bytes = LittleEndian32(head.data() + 4);
        if (tag == kEnd) {
            return;
        }
        if (tag != kItem || num_bytes == kUndefinedLength) {
            Broken("its compressed pixel data is damaged");
        }
        offset += 8 + std::uint64_t(num_bytes);
    }
    Broken("the file ends before its pixel data does");
}

bool IsTransferSyntax(const gdcm::Reader& reader, gdcm::TransferSyntax::TSType type) {
    return reader.GetFile().GetHeader().GetDataSetTransferSyntax() == type;
}

// Checks that the pixels are all there.
void CheckPixelData(gdcm::Reader& reader, std::ifstream& stream, DicomFile& file) {
    using TransferSyntax = gdcm::TransferSyntax;
    if (IsTransferSyntax(reader, TransferSyntax::DeflatedExplicitVRLittleEndian)) {
        return;  // the length shows only when decoding
    }

    // Find the element.
    const std::streamoff here = stream.tellg();
    stream.clear();
    stream.seekg(0, std::ios::end);
    const auto file_bytes = static_cast<std::uint64_t>(stream.tellg());
    const auto element = here < 0 ? std::nullopt : PixelElementBefore(stream, static_cast<std::uint64_t>(here));
    if (!element) {
        Broken("it holds no pixel data");
    }

    // Compare its length with what the image needs.
    if (element->num_bytes == kUndefinedLength) {
        CheckFragments(stream, element->offset, file_bytes);
        return;
    }
    const std::uint64_t needed =
        (std::uint64_t(file.rows) * file.columns * file.num_frames * file.bits_allocated + 7) / 8;
    if (element->num_bytes < needed || element->offset + needed > file_bytes) {
        const std::uint64_t there = std::min<std::uint64_t>(element->num_bytes, file_bytes - element->offset);
        Broken("its pixel data is truncated, " + std::to_string(there) + " of " + std::to_string(needed) + " bytes");
    }
    const bool is_little = IsTransferSyntax(reader, TransferSyntax::ImplicitVRLittleEndian) ||
                           IsTransferSyntax(reader, TransferSyntax::ExplicitVRLittleEndian);
    if (is_little && (file.bits_allocated == 16 || file.bits_allocated == 8)) {
        file.raw_offset = element->offset;
    }
}

std::optional<std::uint16_t> PaddingWord(const DataSet& data, const Tag& tag) {
    const std::optional<int> value = TagInteger(data, tag);
    return value ? std::optional(static_cast<std::uint16_t>(*value)) : std::nullopt;
}

// Pixel format and identity of the file.
DicomFile ReadFileHeader(const DataSet& data, const std::string& path) {
    DicomFile file;
    file.path = path;
    file.series_uid = TagText(data, Tag(0x0020, 0x000e));
    file.frame_of_reference_uid = TagText(data, Tag(0x0020, 0x0052));
    file.modality = OneLine(TagText(data, Tag(0x0008, 0x0060)));
    file.description = OneLine(TagText(data, Tag(0x0008, 0x103e)));
    file.series_number = TagInteger(data, Tag(0x0020, 0x0011));
    file.acquisition = TagInteger(data, Tag(0x0020, 0x0012));
    file.rows = TagInteger(data, Tag(0x0028, 0x0010)).value_or(0);
    file.columns = TagInteger(data, Tag(0x0028, 0x0011)).value_or(0);
    file.num_frames = TagInteger(data, Tag(0x0028, 0x0008)).value_or(1);
    file.bits_allocated = TagInteger(data, Tag(0x0028, 0x0100)).value_or(0);
    file.bits_stored = TagInteger(data, Tag(0x0028, 0x0101)).value_or(file.bits_allocated);
    file.high_bit = TagInteger(data, Tag(0x0028, 0x0102)).value_or(file.bits_stored - 1);
    file.is_signed = TagInteger(data, Tag(0x0028, 0x0103)).value_or(0) == 1;
    file.padding_first = PaddingWord(data, Tag(0x0028, 0x0120));
    file.padding_last = PaddingWord(data, Tag(0x0028, 0x0121));
    return file;
}

// Refuses what can never be a slice of 16-bit values.
void CheckFormat(const DataSet& data, DicomFile& file) {
    const std::string photometric = TagText(data, Tag(0x0028, 0x0004));
    if (file.rows < 1 || file.columns < 1 || file.num_frames < 1 || file.num_frames > (1 << 20)) {
        Broken("its header says nothing useful about its size");
    }
    if (TagInteger(data, Tag(0x0028, 0x0002)).value_or(1) != 1 || photometric.compare(0, 10, "MONOCHROME") != 0) {
        NoSlice("a colour picture (" + (photometric.empty() ? "no photometric interpretation" : photometric) + ")",
                "volumes are made of grey slices");
    }
    file.is_inverted = photometric == "MONOCHROME1";
    if (file.bits_allocated != 8 && file.bits_allocated != 12 && file.bits_allocated != 16) {
        NoSlice("pixels of " + std::to_string(file.bits_allocated) + " bits", "convert it to 16-bit pixels");
    }
    if (file.bits_stored < 1 || file.bits_stored > file.bits_allocated || file.high_bit < file.bits_stored - 1 ||
        file.high_bit >= file.bits_allocated) {
        Broken("its pixel format makes no sense, " + std::to_string(file.bits_stored) + " bits up to bit " +
               std::to_string(file.high_bit) + " of " + std::to_string(file.bits_allocated));
    }
}

// Functional groups of an enhanced file: per frame before shared; the plain data set serves classic files.
class FrameGroups {
public:
    FrameGroups(const DataSet& data, int num_frames) : m_data(data), m_shared(FirstItem(data, Tag(0x5200, 0x9229))) {
        const auto items = TagSequence(data, Tag(0x5200, 0x9230));
        m_isEnhanced = items != nullptr;
        if (items) {
            if (items->GetNumberOfItems() < static_cast<std::size_t>(num_frames)) {
                Broken("it describes fewer frames than it has");
            }
            for (int frame = 0; frame < num_frames; ++frame) {
                m_perFrame.push_back(items->GetItem(static_cast<std::size_t>(frame) + 1).GetNestedDataSet());
            }
        }
    }

    bool IsEnhanced() const { return m_isEnhanced; }

    // The data set in which to look for the attributes of a group.
    DataSet Group(int frame, const Tag& group) const {
        if (!m_isEnhanced) {
            return m_data;
        }
        const DataSet own = FirstItem(m_perFrame[static_cast<std::size_t>(frame)], group);
        return own.IsEmpty() ? FirstItem(m_shared, group) : own;
    }

private:
    const DataSet& m_data;
    DataSet m_shared;
    std::vector<DataSet> m_perFrame;
    bool m_isEnhanced = false;
};

void ReadGeometry(const FrameGroups& groups, DicomFrame& frame) {
    // Find the numbers.
    const DataSet measures = groups.Group(frame.index, Tag(0x0028, 0x9110));
    const auto position = TagVec3(groups.Group(frame.index, Tag(0x0020, 0x9113)), Tag(0x0020, 0x0032));
    const auto directions = TagNumbers(groups.Group(frame.index, Tag(0x0020, 0x9116)), Tag(0x0020, 0x0037));
    const auto spacing = TagNumbers(measures, Tag(0x0028, 0x0030));
    if (!position || directions.size() < 6 || spacing.size() < 2) {
        NoSlice("it has no position, orientation or pixel spacing", "volumes need slices with geometry");
    }
    if (!(spacing[0] > 1e-6 && spacing[1] > 1e-6 && spacing[0] < 1e4 && spacing[1] < 1e4)) {
        NoSlice("its pixel spacing is " + Text(spacing[0]) + " x " + Text(spacing[1]) + " mm", "correct the header");
    }

    // Make unit vectors of the directions.
    Vec3 row = {directions[0], directions[1], directions[2]}, column = {directions[3], directions[4], directions[5]};
    const double row_length = Length(row), column_length = Length(column);
    if (std::abs(row_length - 1.0) > 0.1 || std::abs(column_length - 1.0) > 0.1 || std::abs(Dot(row, column)) > 0.01 ||
        Length(*position) > 1e7) {
        NoSlice("its orientation or position makes no sense", "correct the header");
    }
    row = AddScaled({}, row, 1.0 / row_length);
    column = AddScaled(column, row, -Dot(column, row));
    frame.along_row = row;
    frame.along_column = AddScaled({}, column, 1.0 / Length(column));
    frame.position_mm = *position;
    frame.row_step_mm = spacing[0];
    frame.column_step_mm = spacing[1];
    frame.slice_step_mm = TagNumber(measures, Tag(0x0018, 0x0088));
    if (!frame.slice_step_mm) {
        frame.slice_step_mm = TagNumber(measures, Tag(0x0018, 0x0050));
    }
}

void ReadValueMeaning(const FrameGroups& groups, DicomFrame& frame) {
    const DataSet rescale = groups.Group(frame.index, Tag(0x0028, 0x9145));
    frame.slope = TagNumber(rescale, Tag(0x0028, 0x1053)).value_or(1.0);
    frame.intercept = TagNumber(rescale, Tag(0x0028, 0x1052)).value_or(0.0);
    if (frame.slope == 0.0 || std::abs(frame.slope) > 1e12 || std::abs(frame.intercept) > 1e12) {
        NoSlice("its rescale slope is " + Text(frame.slope) + " and its intercept " + Text(frame.intercept),
                "correct the header");
    }
    const DataSet window = groups.Group(frame.index, Tag(0x0028, 0x9132));
    frame.window_centre = TagNumber(window, Tag(0x0028, 0x1050));
    frame.window_width = TagNumber(window, Tag(0x0028, 0x1051));
}

// What tells apart images at one place.
void ReadKind(const FrameGroups& groups, const DataSet& data, DicomFrame& frame) {
    const auto add = [&](const std::string& text) { frame.kind += text.empty() ? "" : "; " + OneLine(text); };
    if (groups.IsEnhanced()) {
        const DataSet content = groups.Group(frame.index, Tag(0x0020, 0x9111));
        frame.time = TagInteger(content, Tag(0x0020, 0x9128));
        add(TagText(content, Tag(0x0020, 0x9056)));  // stack
        for (const Tag& type : {Tag(0x0018, 0x9226), Tag(0x0018, 0x9329)}) {
            add(TagText(groups.Group(frame.index, type), Tag(0x0008, 0x9007)));
        }
        if (const auto echo = TagNumber(groups.Group(frame.index, Tag(0x0018, 0x9114)), Tag(0x0018, 0x9082))) {
            add("echo time " + Text(*echo));
        }
        if (const auto weight = TagNumber(groups.Group(frame.index, Tag(0x0018, 0x9117)), Tag(0x0018, 0x9087))) {
            add("b " + Text(*weight));
        }
        return;
    }
    frame.time = TagInteger(data, Tag(0x0020, 0x0100));
    if (const auto echo = TagNumber(data, Tag(0x0018, 0x0081))) {
        add("echo time " + Text(*echo));
    }
    add(TagText(data, Tag(0x0008, 0x0008)));
}

// A file without pixels may be no image at all, or an image that was cut off.
[[noreturn]] void RefuseWithoutPixels(const DataSet& data, bool was_read) {
    const std::string sop_class = TagText(data, Tag(0x0008, 0x0016));
    const std::set<std::string> image_modalities = {"CT", "MR", "PT", "NM", "CR", "DX", "XA", "US"};
    if (!was_read || data.FindDataElement(Tag(0x0028, 0x0010)) || sop_class.empty() ||
        image_modalities.count(TagText(data, Tag(0x0008, 0x0060))) > 0) {
        Broken("the file ends before its pixel data");
    }
    throw Unusable{DicomScanResult::kNoImage, "it holds no image", "name a file with pixels"};
}

std::vector<DicomFrame> ScanStream(std::ifstream& stream, const std::string& path) {
    // Read up to the pixels.
    gdcm::Reader reader;
    reader.SetStream(stream);
    const bool was_read = reader.ReadUpToTag(kPixelData, {kPixelData});
    const DataSet& data = reader.GetFile().GetDataSet();
    const bool has_pixel_format = data.FindDataElement(Tag(0x0028, 0x0100));
    if (!was_read || !has_pixel_format) {
        RefuseWithoutPixels(data, was_read);
    }

    // Check and describe the file, then each frame.
    const auto file = std::make_shared<DicomFile>(ReadFileHeader(data, path));
    CheckFormat(data, *file);
    CheckPixelData(reader, stream, *file);
    const FrameGroups groups(data, file->num_frames);
    if (file->num_frames > 1 && !groups.IsEnhanced()) {
        NoSlice("its " + std::to_string(file->num_frames) + " frames have no positions of their own",
                "volumes need slices with geometry");
    }
    std::vector<DicomFrame> frames(static_cast<std::size_t>(file->num_frames));
    for (int index = 0; index < file->num_frames; ++index) {
        DicomFrame& frame = frames[static_cast<std::size_t>(index)];
        frame.file = file;
        frame.index = index;
        ReadGeometry(groups, frame);
        ReadValueMeaning(groups, frame);
        ReadKind(groups, data, frame);
    }
    return frames;
}

}  // namespace

DicomScan ScanDicomFile(const std::string& path) {
    DicomScan scan;
    std::ifstream stream(path, std::ios::binary);
    if (!stream || !LooksLikeDicom(stream)) {
        return scan;
    }
    try {
        scan.frames = ScanStream(stream, path);
        scan.result = DicomScanResult::kUsable;
    } catch (const Unusable& unusable) {
        scan.result = unusable.result;
        scan.reason = unusable.reason;
        scan.advice = unusable.advice;
    } catch (const std::bad_alloc&) {
        throw;
    } catch (...) {  // the parser throws more than std::exception
        scan.result = DicomScanResult::kBroken;
        scan.reason = "its header is damaged";
        scan.advice = "get the file anew";
    }
    return scan;
}

}  // namespace scene::import
