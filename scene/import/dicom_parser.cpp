#include "scene/import/dicom_parser.h"

#include <zlib.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <set>

namespace scene::import {

namespace {

constexpr DicomTag kPixelData = 0x7fe00010, kItem = 0xfffee000, kItemEnd = 0xfffee00d, kSequenceEnd = 0xfffee0dd;
constexpr std::uint32_t kUndefined = 0xffffffff;
constexpr int kDeepest = 20;                  // sequences within sequences
constexpr std::size_t kFirstRead = 64 << 10;  // bytes; headers are mostly shorter
constexpr std::size_t kLargestInflated = 1u << 30;

// More bytes are needed than there are.
struct OutOfBytes {};

// How elements are written.
struct Notation {
    bool is_explicit = true, is_big_endian = false;
};

// Sequences of which the content is asked for; all others are skipped.
bool IsWantedSequence(DicomTag tag) {
    static const std::set<DicomTag> kWanted = {0x52009229, 0x52009230,  // shared and per-frame functional groups
                                               0x00209113, 0x00209116, 0x00289110,  // position, orientation, measures
                                               0x00289145, 0x00289132,              // rescale, window
                                               0x00209111, 0x00189114, 0x00189117,  // frame content, echo, diffusion
                                               0x00189226, 0x00189329};             // frame types of MR and CT
    return kWanted.count(tag) > 0;
}

// Reads forward through memory; throws OutOfBytes instead of reading beyond its end.
class Cursor {
public:
    Cursor(std::string_view bytes, std::size_t at, std::size_t end) : m_bytes(bytes), m_at(at), m_end(end) {}

    std::size_t At() const { return m_at; }
    bool IsAtEnd() const { return m_at >= m_end; }
    std::string_view Take(std::size_t count) {
        if (count > m_end - m_at || m_end > m_bytes.size()) {
            throw OutOfBytes();
        }
        m_at += count;
        return m_bytes.substr(m_at - count, count);
    }
    std::uint32_t Number(int num_bytes, bool is_big_endian) {
        const std::string_view bytes = Take(static_cast<std::size_t>(num_bytes));
        std::uint32_t number = 0;
        for (int i = 0; i < num_bytes; ++i) {
            const int at = is_big_endian ? i : num_bytes - 1 - i;
            number = number << 8 | static_cast<unsigned char>(bytes[static_cast<std::size_t>(at)]);
        }
        return number;
    }
    // A cursor over the next bytes alone.
    Cursor Part(std::size_t count) {
        const std::size_t start = m_at;
        Take(count);
        return Cursor(m_bytes, start, m_at);
    }
    void MoveTo(std::size_t at) { m_at = at; }

private:
    std::string_view m_bytes;
    std::size_t m_at, m_end;
};

struct ElementHead {
    DicomTag tag = 0;
    std::string type;
    std::uint32_t num_bytes = 0;
};

bool IsType(std::string_view letters) {
    return letters.size() == 2 && letters[0] >= 'A' && letters[0] <= 'Z' && letters[1] >= 'A' && letters[1] <= 'Z';
}

ElementHead ReadHead(Cursor& cursor, const Notation& notation) {
    const bool is_big = notation.is_big_endian;
    ElementHead head;
    head.tag = cursor.Number(2, is_big) << 16;
    head.tag |= cursor.Number(2, is_big);
    const bool has_type = notation.is_explicit && head.tag >> 16 != 0xfffe;
    if (!has_type) {
        head.num_bytes = cursor.Number(4, is_big);
        return head;
    }
    static const std::set<std::string> kLong = {"OB", "OD", "OF", "OL", "OV", "OW", "SQ",
                                                "SV", "UC", "UN", "UR", "UT", "UV"};
    const std::size_t type_at = cursor.At();
    head.type = cursor.Take(2);
    if (!IsType(head.type)) {
        // Some writers slip implicit elements in between.
        cursor.MoveTo(type_at);
        head.type.clear();
        head.num_bytes = cursor.Number(4, is_big);
    } else if (kLong.count(head.type) > 0) {
        cursor.Take(2);
        head.num_bytes = cursor.Number(4, is_big);
    } else {
        head.num_bytes = cursor.Number(2, is_big);
    }
    return head;
}

[[noreturn]] void RefuseNonsense() {
    throw DicomParseError("its header is damaged");
}

void ParseElements(Cursor& cursor, const Notation& notation, int depth, DicomDataSet& data, ParsedDicom* file);

// Items of a sequence, until its end or its end mark.
std::vector<DicomDataSet> ParseItems(Cursor& cursor, const Notation& notation, int depth, bool has_end_mark) {
    if (depth > kDeepest) {
        RefuseNonsense();
    }
    std::vector<DicomDataSet> items;
    while (has_end_mark || !cursor.IsAtEnd()) {
        const ElementHead head = ReadHead(cursor, notation);
        if (head.tag == kSequenceEnd) {
            break;
        }
        if (head.tag != kItem) {
            RefuseNonsense();
        }
        DicomDataSet& item = items.emplace_back();
        if (head.num_bytes == kUndefined) {
            ParseElements(cursor, notation, depth + 1, item, nullptr);
        } else {
            Cursor part = cursor.Part(head.num_bytes);
            ParseElements(part, notation, depth + 1, item, nullptr);
        }
    }
    return items;
}

// One element that is not the pixels.
DicomDataSet::Element ParseValue(Cursor& cursor, const ElementHead& head, const Notation& notation, int depth) {
    DicomDataSet::Element element;
    element.type = head.type;
    element.is_swapped = notation.is_big_endian;
    const bool is_wanted = IsWantedSequence(head.tag);
    // Sequences of unknown type are always written implicitly.
    const bool is_unknown = head.type == "UN";
    const Notation inner = is_unknown ? Notation{false, false} : notation;
    if (head.num_bytes == kUndefined) {
        if (!head.type.empty() && head.type != "SQ" && !is_unknown) {
            RefuseNonsense();
        }
        std::vector<DicomDataSet> items = ParseItems(cursor, inner, depth + 1, true);
        element.items = is_wanted ? std::move(items) : std::vector<DicomDataSet>();
    } else if (is_wanted) {
        Cursor part = cursor.Part(head.num_bytes);
        element.items = ParseItems(part, inner, depth + 1, false);
    } else {
        element.value = cursor.Take(head.num_bytes);
    }
    return element;
}

// Elements up to the cursor's end, the end mark of an item, or (in the file's own data set) the pixels.
void ParseElements(Cursor& cursor, const Notation& notation, int depth, DicomDataSet& data, ParsedDicom* file) {
    while (!cursor.IsAtEnd()) {
        const ElementHead head = ReadHead(cursor, notation);
        if (head.tag == kItemEnd) {
            return;
        }
        if (head.tag == kPixelData && file) {
            file->pixels = {cursor.At(), std::nullopt, head.type};
            if (head.num_bytes != kUndefined) {
                file->pixels->num_bytes = head.num_bytes;
            }
            return;
        }
        data.Add(head.tag, ParseValue(cursor, head, notation, depth));
    }
}

// The first elements tell whether types are written.
bool LooksExplicit(std::string_view bytes, std::size_t at) {
    return bytes.size() >= at + 6 && IsType(bytes.substr(at + 4, 2));
}

// Group 2: always explicit little-endian; absent in old files.
std::size_t ParseMetaGroup(std::string_view bytes, std::size_t at, DicomDataSet& meta) {
    const Notation notation;
    while (at + 2 <= bytes.size() && bytes[at] == 2 && bytes[at + 1] == 0) {
        Cursor cursor(bytes, at, bytes.size());
        const ElementHead head = ReadHead(cursor, notation);
        meta.Add(head.tag, ParseValue(cursor, head, notation, 0));
        at = cursor.At();
    }
    return at;
}

// Inflates what follows the meta group, in place of it.
void InflateFrom(std::vector<char>& bytes, std::size_t at) {
    z_stream stream{};
    if (inflateInit2(&stream, -15) != Z_OK) {
        throw std::bad_alloc();
    }
    std::vector<char> inflated(std::min(std::max<std::size_t>(bytes.size() * 4, 1 << 16), kLargestInflated));
    stream.next_in = reinterpret_cast<Bytef*>(bytes.data() + at);
    stream.avail_in = static_cast<uInt>(bytes.size() - at);
    int status = Z_OK;
    while (status == Z_OK) {
        if (stream.total_out == inflated.size()) {
            if (inflated.size() >= kLargestInflated) {
                break;
            }
            inflated.resize(inflated.size() * 2);
        }
        stream.next_out = reinterpret_cast<Bytef*>(inflated.data() + stream.total_out);
        stream.avail_out = static_cast<uInt>(inflated.size() - stream.total_out);
        status = inflate(&stream, Z_NO_FLUSH);
    }
    inflated.resize(stream.total_out);
    inflateEnd(&stream);
    if (status != Z_STREAM_END) {
        throw DicomParseError("its deflated data is damaged or truncated");
    }
    bytes = std::move(inflated);
}

// Sets encoding and notation from the transfer syntax.
Notation NotationOf(ParsedDicom& file, std::size_t at) {
    const std::string& syntax = file.transfer_syntax;
    const std::string_view bytes(file.bytes.data(), file.bytes.size());
    if (syntax.empty()) {
        return {LooksExplicit(bytes, at), false};
    }
    if (syntax == "1.2.840.10008.1.2") {
        return {false, false};
    }
    if (syntax == "1.2.840.113619.5.2") {  // a vendor's own: implicit, but big-endian pixels
        file.encoding = DicomEncoding::kBigEndian;
        return {false, false};
    }
    if (syntax == "1.2.840.10008.1.2.2") {
        file.encoding = DicomEncoding::kBigEndian;
        return {true, true};
    }
    if (syntax == "1.2.840.10008.1.2.1.99") {
        file.encoding = DicomEncoding::kDeflated;
    } else if (syntax != "1.2.840.10008.1.2.1") {
        file.encoding = DicomEncoding::kCompressed;
    }
    return {true, false};
}

// Parses what has been read of the file. Throws OutOfBytes when that is not enough.
void ParseBytes(ParsedDicom& file, std::size_t start) {
    DicomDataSet meta;
    std::string_view bytes(file.bytes.data(), file.bytes.size());
    std::size_t at = ParseMetaGroup(bytes, start, meta);
    file.transfer_syntax = meta.Text(0x00020010);
    const Notation notation = NotationOf(file, at);
    if (file.encoding == DicomEncoding::kDeflated) {
        if (file.bytes.size() < file.file_bytes) {
            throw OutOfBytes();
        }
        InflateFrom(file.bytes, at);
        bytes = {file.bytes.data(), file.bytes.size()};
        at = 0;
    }
    Cursor cursor(bytes, at, bytes.size());
    ParseElements(cursor, notation, 0, file.data, &file);
    if (!file.pixels && file.bytes.size() < file.file_bytes && file.encoding != DicomEncoding::kDeflated) {
        throw OutOfBytes();
    }
    if (file.pixels && !file.pixels->num_bytes && file.encoding != DicomEncoding::kCompressed) {
        RefuseNonsense();
    }
}

// Where the first element starts: behind the mark of part 10 files, or at once in older ones whose first element is of
// a plausible group. Nothing when the file is something else.
std::optional<std::size_t> FindStart(const std::vector<char>& bytes) {
    if (bytes.size() >= 132 && std::memcmp(bytes.data() + 128, "DICM", 4) == 0) {
        return 132;
    }
    const bool is_plausible = bytes.size() >= 132 && (bytes[0] == 2 || bytes[0] == 8) && bytes[1] == 0 &&
                              bytes[3] == 0 && static_cast<unsigned char>(bytes[2]) < 0x20;
    return is_plausible ? std::optional<std::size_t>(0) : std::nullopt;
}

void ReadMore(std::ifstream& stream, std::uint64_t file_bytes, std::vector<char>& bytes, std::size_t wanted) {
    bytes.resize(static_cast<std::size_t>(std::min<std::uint64_t>(wanted, file_bytes)));
    stream.clear();
    stream.seekg(0);
    stream.read(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    bytes.resize(static_cast<std::size_t>(std::max<std::streamsize>(stream.gcount(), 0)));
}

}  // namespace

std::optional<ParsedDicom> ParseDicom(const std::string& path) {
    // Look at the start.
    std::ifstream stream(path, std::ios::binary | std::ios::ate);
    if (!stream) {
        return std::nullopt;
    }
    const auto file_bytes = static_cast<std::uint64_t>(std::max<std::streamoff>(stream.tellg(), 0));
    std::vector<char> bytes;
    ReadMore(stream, file_bytes, bytes, kFirstRead);
    const std::optional<std::size_t> start = FindStart(bytes);
    if (!start) {
        return std::nullopt;
    }

    // Parse, reading on as long as the header does.
    for (std::size_t wanted = kFirstRead;; wanted *= 8) {
        ParsedDicom file;
        file.file_bytes = file_bytes;
        if (wanted == kFirstRead) {
            file.bytes = std::move(bytes);
        } else {
            ReadMore(stream, file_bytes, file.bytes, wanted);
        }
        try {
            ParseBytes(file, *start);
            return file;
        } catch (const OutOfBytes&) {
            if (wanted >= file_bytes) {
                throw DicomParseError("the file ends within its header");
            }
        }
    }
}

}  // namespace scene::import
