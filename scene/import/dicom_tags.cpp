#include "scene/import/dicom_tags.h"

#include <gdcmByteValue.h>

#include <charconv>
#include <cmath>
#include <cstring>

namespace scene::import {

namespace {

const gdcm::ByteValue* Bytes(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    if (!data.FindDataElement(tag)) {
        return nullptr;
    }
    const gdcm::DataElement& element = data.GetDataElement(tag);
    return element.IsEmpty() ? nullptr : element.GetByteValue();
}

bool IsPadding(char character) {
    return character == ' ' || character == '\0';
}

template <typename Number>
std::vector<double> BinaryNumbers(const gdcm::ByteValue& bytes) {
    std::vector<double> numbers;
    for (std::size_t offset = 0; offset + sizeof(Number) <= bytes.GetLength(); offset += sizeof(Number)) {
        Number number;
        std::memcpy(&number, bytes.GetPointer() + offset, sizeof number);
        if (!std::isfinite(static_cast<double>(number))) {
            break;
        }
        numbers.push_back(static_cast<double>(number));
    }
    return numbers;
}

// Numbers between backslashes; std::from_chars, because a host may have set a locale with decimal commas.
std::vector<double> TextNumbers(const std::string& text) {
    std::vector<double> numbers;
    std::size_t start = 0;
    while (start <= text.size()) {
        const std::size_t end = std::min(text.find('\\', start), text.size());
        while (start < end && (IsPadding(text[start]) || text[start] == '+')) {
            ++start;
        }
        double number = 0.0;
        const auto parsed = std::from_chars(text.data() + start, text.data() + end, number);
        if (parsed.ec != std::errc() || !std::isfinite(number)) {
            break;
        }
        for (const char* rest = parsed.ptr; rest < text.data() + end; ++rest) {
            if (!IsPadding(*rest)) {
                return numbers;
            }
        }
        numbers.push_back(number);
        start = end + 1;
    }
    return numbers;
}

// Binary type of the few elements that are read as numbers although they are not text; implicit files do not say.
gdcm::VR BinaryType(const gdcm::DataElement& element) {
    const gdcm::VR type = element.GetVR();
    if (type == gdcm::VR::US || type == gdcm::VR::SS || type == gdcm::VR::UL || type == gdcm::VR::SL ||
        type == gdcm::VR::FD || type == gdcm::VR::FL) {
        return type;
    }
    if (type != gdcm::VR::INVALID && type != gdcm::VR::UN) {
        return gdcm::VR::INVALID;
    }
    const gdcm::Tag tag = element.GetTag();
    if (tag.GetGroup() == 0x0028 &&
        (tag.GetElement() <= 0x0011 || (tag.GetElement() >= 0x0100 && tag.GetElement() <= 0x0121)) &&
        tag.GetElement() != 0x0004 && tag.GetElement() != 0x0008) {
        return gdcm::VR::US;
    }
    if (tag == gdcm::Tag(0x0020, 0x9128)) {  // temporal position index
        return gdcm::VR::UL;
    }
    if (tag == gdcm::Tag(0x0018, 0x9082) || tag == gdcm::Tag(0x0018, 0x9087)) {  // echo time, diffusion weighting
        return gdcm::VR::FD;
    }
    return gdcm::VR::INVALID;
}

}  // namespace

std::string TagText(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    const gdcm::ByteValue* const bytes = Bytes(data, tag);
    if (!bytes || !bytes->GetPointer()) {
        return {};
    }
    std::string text(bytes->GetPointer(), bytes->GetLength());
    while (!text.empty() && IsPadding(text.back())) {
        text.pop_back();
    }
    const std::size_t first = text.find_first_not_of(' ');
    return first == std::string::npos ? std::string() : text.substr(first);
}

std::vector<double> TagNumbers(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    const gdcm::ByteValue* const bytes = Bytes(data, tag);
    if (!bytes || !bytes->GetPointer()) {
        return {};
    }
    switch (BinaryType(data.GetDataElement(tag))) {
        case gdcm::VR::US:
            return BinaryNumbers<std::uint16_t>(*bytes);
        case gdcm::VR::SS:
            return BinaryNumbers<std::int16_t>(*bytes);
        case gdcm::VR::UL:
            return BinaryNumbers<std::uint32_t>(*bytes);
        case gdcm::VR::SL:
            return BinaryNumbers<std::int32_t>(*bytes);
        case gdcm::VR::FD:
            return BinaryNumbers<double>(*bytes);
        case gdcm::VR::FL:
            return BinaryNumbers<float>(*bytes);
        default:
            return TextNumbers(TagText(data, tag));
    }
}

std::optional<double> TagNumber(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    const std::vector<double> numbers = TagNumbers(data, tag);
    return numbers.empty() ? std::nullopt : std::optional(numbers[0]);
}

std::optional<int> TagInteger(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    const std::optional<double> number = TagNumber(data, tag);
    if (!number || std::abs(*number) > 2147483647.0) {
        return std::nullopt;
    }
    return static_cast<int>(*number);
}

std::optional<Vec3> TagVec3(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    const std::vector<double> numbers = TagNumbers(data, tag);
    return numbers.size() < 3 ? std::nullopt : std::optional(Vec3{numbers[0], numbers[1], numbers[2]});
}

gdcm::SmartPointer<gdcm::SequenceOfItems> TagSequence(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    return data.FindDataElement(tag) ? data.GetDataElement(tag).GetValueAsSQ() : nullptr;
}

gdcm::DataSet FirstItem(const gdcm::DataSet& data, const gdcm::Tag& tag) {
    const auto items = TagSequence(data, tag);
    return items && items->GetNumberOfItems() > 0 ? items->GetItem(1).GetNestedDataSet() : gdcm::DataSet();
}

}  // namespace scene::import
