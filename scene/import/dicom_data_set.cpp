#include <algorithm>
#include <bit>
#include <charconv>
#include <cmath>
#include <cstring>

#include "scene/import/dicom_parser.h"

namespace scene::import {

namespace {

bool IsPadding(char character) {
    return character == ' ' || character == '\0';
}

template <typename Number>
std::vector<double> BinaryNumbers(std::string_view bytes, bool is_swapped) {
    std::vector<double> numbers;
    for (std::size_t offset = 0; offset + sizeof(Number) <= bytes.size(); offset += sizeof(Number)) {
        char raw[sizeof(Number)];
        std::memcpy(raw, bytes.data() + offset, sizeof raw);
        if (is_swapped != (std::endian::native == std::endian::big)) {
            std::reverse(raw, raw + sizeof raw);
        }
        Number number;
        std::memcpy(&number, raw, sizeof number);
        if (!std::isfinite(static_cast<double>(number))) {
            break;
        }
        numbers.push_back(static_cast<double>(number));
    }
    return numbers;
}

// One number with blanks around it. std::from_chars, because a host may have set a locale with decimal commas.
std::optional<double> ParseNumber(std::string_view text) {
    while (!text.empty() && (IsPadding(text.front()) || text.front() == '+')) {
        text.remove_prefix(1);
    }
    while (!text.empty() && IsPadding(text.back())) {
        text.remove_suffix(1);
    }
    double number = 0.0;
    const auto parsed = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool is_whole = parsed.ec == std::errc() && parsed.ptr == text.data() + text.size();
    return is_whole && std::isfinite(number) ? std::optional(number) : std::nullopt;
}

std::vector<double> TextNumbers(std::string_view text) {
    std::vector<double> numbers;
    for (std::size_t start = 0; start <= text.size();) {
        const std::size_t end = std::min(text.find('\\', start), text.size());
        const std::optional<double> number = ParseNumber(text.substr(start, end - start));
        if (!number) {
            break;
        }
        numbers.push_back(*number);
        start = end + 1;
    }
    return numbers;
}

// The type of the few binary numbers that are asked for, where the file does not say it.
std::string ImplicitType(DicomTag tag) {
    switch (tag) {
        case 0x00280002:
        case 0x00280010:
        case 0x00280011:
        case 0x00280100:
        case 0x00280101:
        case 0x00280102:
        case 0x00280103:
        case 0x00280120:
        case 0x00280121:
            return "US";
        case 0x00209128:
            return "UL";  // temporal position index
        case 0x00189082:  // effective echo time
        case 0x00189087:
            return "FD";  // diffusion weighting
        default:
            return {};
    }
}

}  // namespace

const DicomDataSet::Element* DicomDataSet::Find(DicomTag tag) const {
    const auto found = m_elements.find(tag);
    return found == m_elements.end() ? nullptr : &found->second;
}

std::string DicomDataSet::Text(DicomTag tag) const {
    const Element* const element = Find(tag);
    std::string_view text = element ? element->value : std::string_view();
    while (!text.empty() && IsPadding(text.back())) {
        text.remove_suffix(1);
    }
    while (!text.empty() && text.front() == ' ') {
        text.remove_prefix(1);
    }
    return std::string(text);
}

std::vector<double> DicomDataSet::Numbers(DicomTag tag) const {
    const Element* const element = Find(tag);
    if (!element) {
        return {};
    }
    const bool is_known = !element->type.empty() && element->type != "UN";
    const std::string type = is_known ? element->type : ImplicitType(tag);
    const std::string_view value = element->value;
    const bool is_swapped = element->is_swapped;
    return type == "US"   ? BinaryNumbers<std::uint16_t>(value, is_swapped)
           : type == "SS" ? BinaryNumbers<std::int16_t>(value, is_swapped)
           : type == "UL" ? BinaryNumbers<std::uint32_t>(value, is_swapped)
           : type == "SL" ? BinaryNumbers<std::int32_t>(value, is_swapped)
           : type == "FD" ? BinaryNumbers<double>(value, is_swapped)
           : type == "FL" ? BinaryNumbers<float>(value, is_swapped)
                          : TextNumbers(value);
}

std::optional<double> DicomDataSet::Number(DicomTag tag) const {
    const std::vector<double> numbers = Numbers(tag);
    return numbers.empty() ? std::nullopt : std::optional(numbers[0]);
}

std::optional<int> DicomDataSet::Integer(DicomTag tag) const {
    const std::optional<double> number = Number(tag);
    return number && std::abs(*number) <= 2147483647.0 ? std::optional(static_cast<int>(*number)) : std::nullopt;
}

std::optional<Vec3> DicomDataSet::Vector(DicomTag tag) const {
    const std::vector<double> numbers = Numbers(tag);
    return numbers.size() < 3 ? std::nullopt : std::optional(Vec3{numbers[0], numbers[1], numbers[2]});
}

const std::vector<DicomDataSet>& DicomDataSet::Items(DicomTag tag) const {
    static const std::vector<DicomDataSet> kNone;
    const Element* const element = Find(tag);
    return element ? element->items : kNone;
}

const DicomDataSet& DicomDataSet::FirstItem(DicomTag tag) const {
    static const DicomDataSet kEmpty;
    const std::vector<DicomDataSet>& items = Items(tag);
    return items.empty() ? kEmpty : items.front();
}

}  // namespace scene::import
