#include "scene/import/sixteen_bits.h"

#include <algorithm>
#include <bit>
#include <cmath>
#include <cstring>
#include <limits>
#include <type_traits>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

constexpr double kMaxCode = 65535.0;
constexpr double kLargest = 1e300;  // beyond it values count as infinite, so that rescaling them stays finite

// What one pass over the pixels finds.
struct PixelStatistics {
    double min = std::numeric_limits<double>::infinity();
    double max = -std::numeric_limits<double>::infinity();
    std::size_t num_nan = 0, num_infinite = 0;
    bool all_whole = true;
};

template <typename Pixel>
PixelStatistics Examine(const Pixel* pixels, std::size_t count) {
    PixelStatistics found;
    for (std::size_t i = 0; i < count; ++i) {
        const double value = static_cast<double>(pixels[i]);
        if constexpr (std::is_floating_point_v<Pixel>) {
            if (!(std::abs(value) <= kLargest)) {
                ++(std::isnan(value) ? found.num_nan : found.num_infinite);
                continue;
            }
            found.all_whole = found.all_whole && value == std::trunc(value);
        }
        found.min = std::min(found.min, value);
        found.max = std::max(found.max, value);
    }
    return found;
}

// Exact code for whole values whose range fits.
SixteenBitCode WholeCode(double min, double max) {
    SixteenBitCode code;
    code.is_signed = min < 0.0 && min >= -32768.0 && max <= 32767.0;
    code.intercept = code.is_signed || (min >= 0.0 && max <= kMaxCode) ? 0.0 : min;
    return code;
}

// Code that spreads the range over 16 bits; zero inside the range keeps a value of its own.
SixteenBitCode SpreadCode(double min, double max) {
    const bool has_zero_inside = min < 0.0 && max > 0.0;
    const double num_steps = has_zero_inside ? kMaxCode - 1.0 : kMaxCode;
    SixteenBitCode code;
    code.slope = max / num_steps - min / num_steps;
    if (!(code.slope > 0.0)) {
        code.slope = 1.0;
    }
    code.intercept = has_zero_inside ? -std::ceil(-min / code.slope) * code.slope : min;
    return code;
}

// Reading ahead of writing: `out` may alias `pixels`, and 16-bit values never overtake wider ones.
template <typename Pixel>
void Encode(const Pixel* pixels, std::size_t count, const PixelStatistics& range, const SixteenBitCode& code,
            std::int16_t* out) {
    const double lowest = code.is_signed ? -32768.0 : 0.0, highest = code.is_signed ? 32767.0 : kMaxCode;
    for (std::size_t i = 0; i < count; ++i) {
        Pixel pixel;
        std::memcpy(&pixel, pixels + i, sizeof pixel);
        double value = static_cast<double>(pixel);
        value = std::isnan(value) ? range.min : std::clamp(value, range.min, range.max);
        const double stored = std::clamp(std::nearbyint((value - code.intercept) / code.slope), lowest, highest);
        const auto bits = static_cast<std::uint16_t>(static_cast<std::int32_t>(stored));
        std::memcpy(out + i, &bits, sizeof bits);
    }
}

void WarnOfChanges(const PixelStatistics& found, const SixteenBitCode& code, bool is_exact,
                   std::vector<std::string>& warnings) {
    if (found.num_nan > 0) {
        warnings.push_back(std::to_string(found.num_nan) + " voxels are not a number: read as the lowest value, " +
                           Text(found.min));
    }
    if (found.num_infinite > 0) {
        warnings.push_back(std::to_string(found.num_infinite) + " voxels are infinite: read as the ends of the range " +
                           Text(found.min) + " to " + Text(found.max));
    }
    if (!is_exact) {
        warnings.push_back("values of " + Text(found.min) + " to " + Text(found.max) +
                           " are rescaled to 16 bits, in steps of " + Text(code.slope));
    }
}

template <typename Pixel>
SixteenBitCode EncodeWide(const void* pixels, std::size_t count, std::int16_t* out, const std::string& what,
                          std::vector<std::string>& warnings) {
    const auto* const typed = static_cast<const Pixel*>(pixels);
    const PixelStatistics found = Examine(typed, count);
    if (found.min > found.max) {
        Refuse(what, "no voxel has a finite value", "check how the file was made");
    }
    const bool is_exact = found.all_whole && found.max - found.min <= kMaxCode && std::abs(found.min) < 1e15;
    SixteenBitCode code = is_exact ? WholeCode(found.min, found.max) : SpreadCode(found.min, found.max);
    Encode(typed, count, found, code, out);
    WarnOfChanges(found, code, is_exact, warnings);
    return code;
}

template <typename Narrow>
SixteenBitCode CopyNarrow(const void* pixels, std::size_t count, std::int16_t* out) {
    const auto* const typed = static_cast<const Narrow*>(pixels);
    // From the end, so that widening in place never overwrites what is still to be read.
    for (std::size_t i = count; i-- > 0;) {
        out[i] = static_cast<std::int16_t>(typed[i]);
    }
    return {.is_signed = std::is_signed_v<Narrow>};
}

SixteenBitCode EncodeAny(const void* pixels, PixelType type, std::size_t count, std::int16_t* out,
                         const std::string& what, std::vector<std::string>& warnings) {
    switch (type) {
        case PixelType::kUint8:
            return CopyNarrow<std::uint8_t>(pixels, count, out);
        case PixelType::kInt8:
            return CopyNarrow<std::int8_t>(pixels, count, out);
        case PixelType::kUint16:
        case PixelType::kInt16:
            std::memmove(out, pixels, count * 2);
            return {.is_signed = type == PixelType::kInt16};
        case PixelType::kUint32:
            return EncodeWide<std::uint32_t>(pixels, count, out, what, warnings);
        case PixelType::kInt32:
            return EncodeWide<std::int32_t>(pixels, count, out, what, warnings);
        case PixelType::kUint64:
            return EncodeWide<std::uint64_t>(pixels, count, out, what, warnings);
        case PixelType::kInt64:
            return EncodeWide<std::int64_t>(pixels, count, out, what, warnings);
        case PixelType::kFloat32:
            return EncodeWide<float>(pixels, count, out, what, warnings);
        case PixelType::kFloat64:
            return EncodeWide<double>(pixels, count, out, what, warnings);
    }
    Refuse(what, "its pixels are of an unknown type", "convert it");
}

template <typename Value>
void FindRangeAs(SixteenBitCode& code, const std::int16_t* values, std::size_t count) {
    Value low = std::numeric_limits<Value>::max(), high = std::numeric_limits<Value>::min();
    for (std::size_t i = 0; i < count; ++i) {
        const auto value = static_cast<Value>(values[i]);
        low = std::min(low, value);
        high = std::max(high, value);
    }
    code.min_value = low;
    code.max_value = high;
}

}  // namespace

std::size_t BytesPerPixel(PixelType type) {
    switch (type) {
        case PixelType::kUint8:
        case PixelType::kInt8:
            return 1;
        case PixelType::kUint16:
        case PixelType::kInt16:
            return 2;
        case PixelType::kUint32:
        case PixelType::kInt32:
        case PixelType::kFloat32:
            return 4;
        default:
            return 8;
    }
}

SixteenBitCode ToSixteenBits(const void* pixels, PixelType type, std::size_t count, std::int16_t* out,
                             const std::string& what, std::vector<std::string>& warnings) {
    SixteenBitCode code = EncodeAny(pixels, type, count, out, what, warnings);
    FindRange(code, out, count);
    return code;
}

void MakeSlopePositive(SixteenBitCode& code, std::int16_t* values, std::size_t count) {
    if (code.slope >= 0.0) {
        return;
    }
    // stored = pivot - reversed, so slope * stored + intercept = -slope * reversed + (intercept + slope * pivot).
    const int pivot = code.is_signed ? -1 : code.max_value;
    for (std::size_t i = 0; i < count; ++i) {
        values[i] = static_cast<std::int16_t>(pivot - values[i]);
    }
    code.intercept += code.slope * pivot;
    code.slope = -code.slope;
    code = {code.is_signed, code.slope, code.intercept, pivot - code.max_value, pivot - code.min_value};
}

void FindRange(SixteenBitCode& code, const std::int16_t* values, std::size_t count) {
    if (code.is_signed) {
        FindRangeAs<std::int16_t>(code, values, count);
    } else {
        FindRangeAs<std::uint16_t>(code, values, count);
    }
}

void SetCode(ImportedVolume& volume, const SixteenBitCode& code) {
    volume.rescale_slope = code.slope;
    volume.rescale_intercept = code.intercept;
    volume.min_value = code.min_value;
    volume.max_value = code.max_value;
    volume.is_signed = code.min_value < 0;
    const int largest = std::max(code.max_value, volume.is_signed ? -1 - code.min_value : 0);
    const int bits = std::bit_width(static_cast<unsigned>(std::max(largest, 0))) + (volume.is_signed ? 1 : 0);
    volume.bits_stored = std::max(bits, 1);
}

}  // namespace scene::import
