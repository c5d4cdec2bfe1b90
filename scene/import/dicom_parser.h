// The header of a DICOM file: data elements up to the pixels.
//
// Parsed here and not by the decoding library, because that library ends the process by assertion where a header breaks
// off, and one broken file must not take a folder of good ones with it.
#ifndef SCENE_IMPORT_DICOM_PARSER_H
#define SCENE_IMPORT_DICOM_PARSER_H

#include <cstdint>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

#include "scene/import/grid_geometry.h"

namespace scene::import {

// Group in the upper, element in the lower half.
using DicomTag = std::uint32_t;

// The elements of a data set or of a sequence's item. Values are views into the memory of the ParsedDicom they belong
// to.
class DicomDataSet {
public:
    struct Element {
        std::string type;  // two letters; empty where the file does not say
        std::string_view value;
        bool is_swapped = false;  // binary numbers are big-endian
        std::vector<DicomDataSet> items;
    };

    bool Has(DicomTag tag) const { return m_elements.count(tag) > 0; }
    // Text without padding; empty when it is missing.
    std::string Text(DicomTag tag) const;
    // Numbers, text or binary as the type says; the list ends before what is no finite number.
    std::vector<double> Numbers(DicomTag tag) const;
    std::optional<double> Number(DicomTag tag) const;
    std::optional<int> Integer(DicomTag tag) const;
    std::optional<Vec3> Vector(DicomTag tag) const;
    // The items of a sequence; none when it is missing.
    const std::vector<DicomDataSet>& Items(DicomTag tag) const;
    // The first item; an empty data set when there is none.
    const DicomDataSet& FirstItem(DicomTag tag) const;

    void Add(DicomTag tag, Element element) { m_elements.insert_or_assign(tag, std::move(element)); }

private:
    const Element* Find(DicomTag tag) const;

    std::map<DicomTag, Element> m_elements;
};

// How pixels are stored.
enum class DicomEncoding { kLittleEndian, kBigEndian, kDeflated, kCompressed };

struct ParsedDicom {
    std::vector<char> bytes;  // the file as far as it was read; inflated if it is deflated
    DicomDataSet data;
    std::string transfer_syntax;
    DicomEncoding encoding = DicomEncoding::kLittleEndian;
    // The value of the pixel data element: where it starts (in the file, or in `bytes` if deflated), its length and
    // type; compressed pixels have no length.
    struct Pixels {
        std::uint64_t offset = 0;
        std::optional<std::uint32_t> num_bytes;
        std::string type;
    };
    std::optional<Pixels> pixels;
    std::uint64_t file_bytes = 0;
};

// The file breaks off or makes no sense; what() says which.
class DicomParseError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// Nothing when the file is not DICOM. Throws DicomParseError. Deflated files are read whole, others up to the pixels.
std::optional<ParsedDicom> ParseDicom(const std::string& path);

}  // namespace scene::import

#endif  // SCENE_IMPORT_DICOM_PARSER_H
