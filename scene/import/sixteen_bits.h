// Bringing pixels of any number type to 16 bits.
#ifndef SCENE_IMPORT_SIXTEEN_BITS_H
#define SCENE_IMPORT_SIXTEEN_BITS_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "scene/import/imported_volume.h"

namespace scene::import {

enum class PixelType { kUint8, kInt8, kUint16, kInt16, kUint32, kInt32, kUint64, kInt64, kFloat32, kFloat64 };

std::size_t BytesPerPixel(PixelType type);

// How 16-bit values stand for values of another range.
struct SixteenBitCode {
    bool is_signed = false;               // how the 16 bits are read
    double slope = 1.0, intercept = 0.0;  // value = 16-bit value * slope + intercept
    int min_value = 0, max_value = 0;     // range of the 16-bit values
};

// Writes 16-bit values for `count` pixels of the type; `out` may be the same memory as `pixels`.
// Types of 8 and 16 bits are copied. Others are kept exactly where all values are whole and their range fits; else the
// range is spread over 65536 steps, with zero kept exact where it lies inside. Not-a-number becomes the lowest value,
// infinities the ends of the finite range. Appends a warning where anything was changed. Throws ImportError for `what`
// when no pixel is finite.
SixteenBitCode ToSixteenBits(const void* pixels, PixelType type, std::size_t count, std::int16_t* out,
                             const std::string& what, std::vector<std::string>& warnings);

// Makes a negative slope positive by reversing the order of the 16-bit values; what they stand for stays.
void MakeSlopePositive(SixteenBitCode& code, std::int16_t* values, std::size_t count);

// The range of the values as they are read.
void FindRange(SixteenBitCode& code, const std::int16_t* values, std::size_t count);

// Puts the code into the volume: rescale, range, sign and the fewest bits that hold them.
void SetCode(ImportedVolume& volume, const SixteenBitCode& code);

}  // namespace scene::import

#endif  // SCENE_IMPORT_SIXTEEN_BITS_H
