#include "scene/import/dicom_scan.h"

#include <algorithm>
#include <set>

#include "scene/import/dicom_fragments.h"
#include "scene/import/import_context.h"

namespace scene::import {

namespace {

constexpr const char* kBrokenAdvice = "it is damaged or truncated; get it anew";

// Why a file is no slice.
struct Unusable {
    DicomScanResult result;
    std::string reason, advice;
};

[[noreturn]] void Broken(const std::string& reason) {
    throw Unusable{DicomScanResult::kBroken, reason, kBrokenAdvice};
}
[[noreturn]] void NoSlice(const std::string& reason, const std::string& advice) {
    throw Unusable{DicomScanResult::kUnusable, reason, advice};
}

// Checks that the pixels are all there, and says where.
void LocatePixels(const ParsedDicom& parsed, DicomFile& file) {
    file.encoding = parsed.encoding;
    file.transfer_syntax = parsed.transfer_syntax;
    file.pixel_offset = parsed.pixels->offset;
    if (parsed.encoding == DicomEncoding::kCompressed) {
        try {
            FindFragments(file);
        } catch (const DicomParseError& error) {
            Broken(error.what());
        }
        return;
    }
    file.are_bytes_swapped =
        parsed.encoding == DicomEncoding::kBigEndian && file.bits_allocated == 8 && parsed.pixels->type != "OB";
    const std::uint64_t needed = std::uint64_t(file.rows) * file.columns * file.num_frames * (file.bits_allocated / 8);
    const std::uint64_t available =
        (parsed.encoding == DicomEncoding::kDeflated ? parsed.bytes.size() : parsed.file_bytes) - file.pixel_offset;
    const std::uint64_t there = std::min<std::uint64_t>(parsed.pixels->num_bytes.value_or(0), available);
    if (there < needed) {
        Broken("its pixel data is truncated, " + std::to_string(there) + " of " + std::to_string(needed) + " bytes");
    }
}

std::optional<std::uint16_t> PaddingWord(const DicomDataSet& data, DicomTag tag) {
    const std::optional<int> value = data.Integer(tag);
    return value ? std::optional(static_cast<std::uint16_t>(*value)) : std::nullopt;
}

// Pixel format and identity of the file.
DicomFile ReadFileHeader(const DicomDataSet& data, const std::string& path) {
    DicomFile file;
    file.path = path;
    file.series_uid = data.Text(0x0020000e);
    file.frame_of_reference_uid = data.Text(0x00200052);
    file.modality = OneLine(data.Text(0x00080060));
    file.description = OneLine(data.Text(0x0008103e));
    file.series_number = data.Integer(0x00200011);
    file.acquisition = data.Integer(0x00200012);
    file.rows = data.Integer(0x00280010).value_or(0);
    file.columns = data.Integer(0x00280011).value_or(0);
    file.num_frames = data.Integer(0x00280008).value_or(1);
    file.bits_allocated = data.Integer(0x00280100).value_or(0);
    file.bits_stored = data.Integer(0x00280101).value_or(file.bits_allocated);
    file.high_bit = data.Integer(0x00280102).value_or(file.bits_stored - 1);
    file.is_signed = data.Integer(0x00280103).value_or(0) == 1;
    file.padding_first = PaddingWord(data, 0x00280120);
    file.padding_last = PaddingWord(data, 0x00280121);
    return file;
}

// Refuses what can never be a slice of 16-bit values.
void CheckFormat(const DicomDataSet& data, DicomFile& file) {
    const std::string photometric = data.Text(0x00280004);
    if (file.rows < 1 || file.columns < 1 || file.num_frames < 1 || file.num_frames > (1 << 20)) {
        Broken("its header says nothing useful about its size");
    }
    if (data.Integer(0x00280002).value_or(1) != 1 || photometric.compare(0, 10, "MONOCHROME") != 0) {
        NoSlice("a colour picture (" + (photometric.empty() ? "no photometric interpretation" : photometric) + ")",
                "volumes are made of grey slices");
    }
    file.is_inverted = photometric == "MONOCHROME1";
    if (file.bits_allocated != 8 && file.bits_allocated != 16) {
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
    FrameGroups(const DicomDataSet& data, int num_frames)
        : m_data(data), m_shared(data.FirstItem(0x52009229)), m_perFrame(data.Items(0x52009230)) {
        if (IsEnhanced() && m_perFrame.size() < static_cast<std::size_t>(num_frames)) {
            Broken("it describes fewer frames than it has");
        }
    }

    bool IsEnhanced() const { return !m_perFrame.empty(); }

    // The data set in which to look for the attributes of a group.
    const DicomDataSet& Group(int frame, DicomTag group) const {
        if (!IsEnhanced()) {
            return m_data;
        }
        const DicomDataSet& own = m_perFrame[static_cast<std::size_t>(frame)];
        return own.Has(group) ? own.FirstItem(group) : m_shared.FirstItem(group);
    }

private:
    const DicomDataSet& m_data;
    const DicomDataSet& m_shared;
    const std::vector<DicomDataSet>& m_perFrame;
};

void ReadGeometry(const FrameGroups& groups, DicomFrame& frame) {
    // Find the numbers.
    const DicomDataSet& measures = groups.Group(frame.index, 0x00289110);
    const auto position = groups.Group(frame.index, 0x00209113).Vector(0x00200032);
    const auto directions = groups.Group(frame.index, 0x00209116).Numbers(0x00200037);
    const auto spacing = measures.Numbers(0x00280030);
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
    frame.slice_step_mm = measures.Number(0x00180088);
    if (!frame.slice_step_mm) {
        frame.slice_step_mm = measures.Number(0x00180050);
    }
}

void ReadValueMeaning(const FrameGroups& groups, DicomFrame& frame) {
    const DicomDataSet& rescale = groups.Group(frame.index, 0x00289145);
    frame.slope = rescale.Number(0x00281053).value_or(1.0);
    frame.intercept = rescale.Number(0x00281052).value_or(0.0);
    if (frame.slope == 0.0 || std::abs(frame.slope) > 1e12 || std::abs(frame.intercept) > 1e12) {
        NoSlice("its rescale slope is " + Text(frame.slope) + " and its intercept " + Text(frame.intercept),
                "correct the header");
    }
    const DicomDataSet& window = groups.Group(frame.index, 0x00289132);
    frame.window_centre = window.Number(0x00281050);
    frame.window_width = window.Number(0x00281051);
}

// What tells apart images at one place.
void ReadKind(const FrameGroups& groups, const DicomDataSet& data, DicomFrame& frame) {
    const auto add = [&](const std::string& text) { frame.kind += text.empty() ? "" : "; " + OneLine(text); };
    if (groups.IsEnhanced()) {
        const DicomDataSet& content = groups.Group(frame.index, 0x00209111);
        frame.time = content.Integer(0x00209128);
        add(content.Text(0x00209056));  // stack
        for (DicomTag type : {0x00189226, 0x00189329}) {
            add(groups.Group(frame.index, type).Text(0x00089007));
        }
        if (const auto echo = groups.Group(frame.index, 0x00189114).Number(0x00189082)) {
            add("echo time " + Text(*echo));
        }
        if (const auto weight = groups.Group(frame.index, 0x00189117).Number(0x00189087)) {
            add("b " + Text(*weight));
        }
        return;
    }
    frame.time = data.Integer(0x00200100);
    if (const auto echo = data.Number(0x00180081)) {
        add("echo time " + Text(*echo));
    }
    add(data.Text(0x00080008));
}

// A file without pixels may be no image at all, or an image that was cut off.
[[noreturn]] void RefuseWithoutPixels(const DicomDataSet& data) {
    const std::set<std::string> image_modalities = {"CT", "MR", "PT", "NM", "CR", "DX", "XA", "US"};
    if (data.Has(0x00280010) || data.Text(0x00080016).empty() || image_modalities.count(data.Text(0x00080060)) > 0) {
        Broken("the file ends before its pixel data");
    }
    throw Unusable{DicomScanResult::kNoImage, "it holds no image", "name a file with pixels"};
}

std::vector<DicomFrame> ScanFrames(const ParsedDicom& parsed, const std::string& path) {
    // Check and describe the file.
    const DicomDataSet& data = parsed.data;
    if (!parsed.pixels) {
        RefuseWithoutPixels(data);
    }
    const auto file = std::make_shared<DicomFile>(ReadFileHeader(data, path));
    CheckFormat(data, *file);
    LocatePixels(parsed, *file);

    // Then each frame.
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
    const auto conclude = [&](DicomScanResult result, const std::string& reason, const std::string& advice) {
        scan = {result, reason, advice, {}};
    };
    try {
        if (const std::optional<ParsedDicom> parsed = ParseDicom(path)) {
            scan.frames = ScanFrames(*parsed, path);
            scan.result = DicomScanResult::kUsable;
        }
    } catch (const Unusable& unusable) {
        conclude(unusable.result, unusable.reason, unusable.advice);
    } catch (const DicomParseError& error) {
        conclude(DicomScanResult::kBroken, error.what(), kBrokenAdvice);
    }
    return scan;
}

}  // namespace scene::import
