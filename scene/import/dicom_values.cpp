#include "scene/import/dicom_values.h"

#include <algorithm>
#include <cmath>
#include <limits>
#include <tuple>

#include "scene/import/import_context.h"

namespace scene::import {

namespace {

// The voxels of one slice and what is known about them.
struct Slice {
    const DicomFrame& frame;
    const FrameValues& found;
    std::int16_t* values;
    std::size_t count;

    int At(std::size_t i) const {
        return found.is_signed ? values[i] : static_cast<int>(static_cast<std::uint16_t>(values[i]));
    }
    bool IsPadding(std::size_t i) const { return found.has_padding && At(i) == found.padding_value; }
    double Rescaled(int stored) const { return stored * frame.slope + frame.intercept; }
};

std::vector<Slice> SlicesOf(const DicomStack& stack, const std::vector<FrameValues>& found, const VoxelBuffer& voxels) {
    std::vector<Slice> slices;
    const std::size_t count = voxels.size() / stack.frames.size();
    for (std::size_t i = 0; i < stack.frames.size(); ++i) {
        slices.push_back({stack.frames[i], found[i], voxels.data() + i * count, count});
    }
    return slices;
}

bool HaveOneCode(const std::vector<Slice>& slices) {
    const Slice& first = slices.front();
    return std::all_of(slices.begin(), slices.end(), [&](const Slice& slice) {
        return slice.frame.slope == first.frame.slope && slice.frame.intercept == first.frame.intercept &&
               slice.found.is_signed == first.found.is_signed;
    });
}

// Range of the stored values, padding left out; 0 to 0 when there is nothing else.
std::pair<int, int> StoredRange(const std::vector<Slice>& slices) {
    int low = 65536, high = -65536;
    for (const Slice& slice : slices) {
        low = std::min(low, slice.found.min_value);
        high = std::max(high, slice.found.max_value);
    }
    return low <= high ? std::pair(low, high) : std::pair(0, 0);
}

void ReplacePadding(const Slice& slice, int replacement) {
    for (std::size_t i = 0; i < slice.count; ++i) {
        if (slice.IsPadding(i)) {
            slice.values[i] = static_cast<std::int16_t>(replacement);
        }
    }
}

// Padding that is higher than measured values would shine through them: it becomes the lowest of them. Padding that is
// lower already means "less than anything" and stays. Where values are going to be turned around, the highest stored
// value is the lowest to be.
void SettlePadding(const std::vector<Slice>& slices, const SixteenBitCode& range, bool is_falling,
                   ImportedVolume& volume) {
    bool has_replaced = false;
    for (const Slice& slice : slices) {
        if (!slice.found.has_padding) {
            continue;
        }
        if (!is_falling && slice.found.padding_value <= range.min_value) {
            volume.padding_value = slice.found.padding_value;
        } else {
            ReplacePadding(slice, is_falling ? range.max_value : range.min_value);
            has_replaced = true;
        }
    }
    if (has_replaced) {
        volume.do_announced_slices_change = true;
        volume.warnings.push_back("padding is replaced by the lowest of the measured values");
    }
}

// The code that all slices share, over measured values alone.
SixteenBitCode SharedCode(const std::vector<Slice>& slices) {
    SixteenBitCode code;
    code.is_signed = slices.front().found.is_signed;
    code.slope = slices.front().frame.slope;
    code.intercept = slices.front().frame.intercept;
    std::tie(code.min_value, code.max_value) = StoredRange(slices);
    return code;
}

bool IsWhole(double value) {
    return value == std::trunc(value);
}

// A code that holds the rescaled values of all slices: exact when they are whole and fit.
SixteenBitCode CommonCode(const std::vector<Slice>& slices) {
    double low = std::numeric_limits<double>::infinity(), high = -low;
    bool are_whole = true;
    for (const Slice& slice : slices) {
        const double a = slice.Rescaled(slice.found.min_value), b = slice.Rescaled(slice.found.max_value);
        if (slice.found.min_value <= slice.found.max_value) {
            low = std::min({low, a, b});
            high = std::max({high, a, b});
        }
        are_whole = are_whole && IsWhole(slice.frame.slope) && IsWhole(slice.frame.intercept);
    }
    if (low > high) {
        low = high = 0.0;
    }
    SixteenBitCode code;
    const bool fits_signed = low >= -32768.0 && high <= 32767.0;
    if (are_whole && high - low <= 65535.0) {
        code.is_signed = fits_signed;
        code.intercept = fits_signed ? 0.0 : low;
        return code;
    }
    code.slope = high > low ? (high - low) / 65535.0 : 1.0;
    code.intercept = low;
    return code;
}

SixteenBitCode Recode(const std::vector<Slice>& slices, ImportedVolume& volume) {
    SixteenBitCode code = CommonCode(slices);
    const double lowest = code.is_signed ? -32768.0 : 0.0, highest = code.is_signed ? 32767.0 : 65535.0;
    for (const Slice& slice : slices) {
        const bool is_rising = slice.frame.slope > 0.0;
        const int replacement = slice.found.min_value > slice.found.max_value ? 0
                                : is_rising                                   ? slice.found.min_value
                                                                              : slice.found.max_value;
        for (std::size_t i = 0; i < slice.count; ++i) {
            const double value = slice.Rescaled(slice.IsPadding(i) ? replacement : slice.At(i));
            const double stored = std::clamp(std::nearbyint((value - code.intercept) / code.slope), lowest, highest);
            slice.values[i] = static_cast<std::int16_t>(static_cast<int>(stored));
        }
    }
    if (code.slope != 1.0) {
        volume.warnings.push_back("slices have rescale factors of their own: all are re-coded in steps of " +
                                  Text(code.slope));
    }
    return code;
}

// Mean of the pixels at the rims of all slices, as a part of the range: near 0 where the background is the lowest
// value.
double RimLevel(const std::vector<Slice>& slices, const SixteenBitCode& code) {
    double sum = 0.0, count = 0.0;
    for (const Slice& slice : slices) {
        const auto columns = static_cast<std::size_t>(slice.frame.file->columns);
        for (std::size_t i = 0; i < columns; ++i) {
            for (const std::size_t at : {i, slice.count - 1 - i}) {
                sum += slice.IsPadding(at) ? 0.0 : slice.At(at) - code.min_value;
                count += slice.IsPadding(at) ? 0.0 : 1.0;
            }
        }
    }
    return sum / std::max(count, 1.0) / std::max(code.max_value - code.min_value, 1);
}

// Low values of an inverted picture are meant to look bright. Measured units (HU, activity) keep their meaning however
// they are shown, unless a CT has its air at the top: then its values themselves are upside down.
bool MustBeInverted(const std::vector<Slice>& slices, const SixteenBitCode& code, ImportedVolume& volume) {
    const DicomFile& file = *slices.front().frame.file;
    if (!file.is_inverted) {
        return false;
    }
    const bool is_measured = file.modality == "CT" || file.modality == "PT" || file.modality == "NM";
    const bool is_upside_down = file.modality == "CT" && (RimLevel(slices, code) > 0.5) != (code.slope < 0.0);
    if (is_measured && !is_upside_down) {
        volume.warnings.push_back("the picture is marked as inverted (MONOCHROME1): its measured values are kept");
        return false;
    }
    volume.warnings.push_back("the picture is inverted (MONOCHROME1): values are turned around so that bright is high");
    return true;
}

// Turns values around within their range; what they stand for turns around with them.
void Invert(const SixteenBitCode& code, const VoxelBuffer& voxels) {
    const int pivot = code.min_value + code.max_value;
    for (std::size_t i = 0; i < voxels.size(); ++i) {
        voxels[i] = static_cast<std::int16_t>(pivot - voxels[i]);
    }
}

}  // namespace

SixteenBitCode UnifyValues(const DicomStack& stack, const std::vector<FrameValues>& found, const VoxelBuffer& voxels,
                           ImportedVolume& volume) {
    // Find one code.
    const std::vector<Slice> slices = SlicesOf(stack, found, voxels);
    const bool have_one_code = HaveOneCode(slices);
    SixteenBitCode code = have_one_code ? SharedCode(slices) : Recode(slices, volume);
    if (!have_one_code) {
        FindRange(code, voxels.data(), voxels.size());
    }

    // Let high mean bright, and padding mean dark.
    const bool is_inverted = MustBeInverted(slices, code, volume);
    if (have_one_code) {
        SettlePadding(slices, code, (code.slope < 0.0) != is_inverted, volume);
    }
    if (is_inverted) {
        Invert(code, voxels);
    }
    MakeSlopePositive(code, voxels.data(), voxels.size());
    if (volume.padding_value) {
        code.min_value = std::min(code.min_value, *volume.padding_value);
    }
    return code;
}

}  // namespace scene::import
