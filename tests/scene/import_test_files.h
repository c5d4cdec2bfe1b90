// Files for the import tests, written byte by byte so that they do not share code or conventions with what reads them.
// Their values are a linear function of the patient position, which survives linear resampling: wherever a voxel comes
// to lie, its value says whether that is right.
#ifndef TESTS_SCENE_IMPORT_TEST_FILES_H
#define TESTS_SCENE_IMPORT_TEST_FILES_H

#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "scene/import/imported_volume.h"

namespace import_test {

using Point = std::array<double, 3>;

// A folder that goes with the test.
class TempFolder {
public:
    TempFolder() {
        std::string name = (std::filesystem::temp_directory_path() / "volr_import_XXXXXX").string();
        m_path = ::mkdtemp(name.data());
    }
    TempFolder(const TempFolder&) = delete;
    TempFolder& operator=(const TempFolder&) = delete;
    ~TempFolder() { std::filesystem::remove_all(m_path); }
    std::string operator/(const std::string& name) const { return m_path + "/" + name; }
    const std::string& Path() const { return m_path; }

private:
    std::string m_path;
};

inline void WriteBytes(const std::string& path, const std::string& bytes) {
    std::ofstream(path, std::ios::binary) << bytes;
}

inline std::string ReadBytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

// The bytes of a number, reversed for the other byte order.
template <typename Number>
std::string Raw(Number number, bool is_reversed = false) {
    std::string bytes(sizeof number, '\0');
    std::memcpy(bytes.data(), &number, sizeof number);
    return is_reversed ? std::string(bytes.rbegin(), bytes.rend()) : bytes;
}

inline double ValueAt(const Point& p) {
    return 500.0 + 3.0 * p[0] - 2.0 * p[1] + 4.0 * p[2];
}

inline Point PositionOf(const scene::ImportedVolume& volume, double i, double j, double k) {
    const auto& m = volume.index_to_patient;
    return {m[0] * i + m[1] * j + m[2] * k + m[3], m[4] * i + m[5] * j + m[6] * k + m[7],
            m[8] * i + m[9] * j + m[10] * k + m[11]};
}

inline int StoredAt(const scene::ImportedVolume& volume, int i, int j, int k) {
    const std::size_t at = (std::size_t(k) * volume.dims[1] + j) * volume.dims[0] + i;
    return volume.is_signed ? volume.voxels[at] : static_cast<std::uint16_t>(volume.voxels[at]);
}

inline double RescaledAt(const scene::ImportedVolume& volume, int i, int j, int k) {
    return StoredAt(volume, i, j, k) * volume.rescale_slope + volume.rescale_intercept;
}

// Every voxel holds the value of its position, but for so many that hold the lowest value.
inline void ExpectLinearValues(const scene::ImportedVolume& volume, double tolerance, double part_outside = 0.0) {
    int num_wrong = 0, num_outside = 0;
    for (int k = 0; k < volume.dims[2]; ++k) {
        for (int j = 0; j < volume.dims[1]; ++j) {
            for (int i = 0; i < volume.dims[0]; ++i) {
                const bool is_right =
                    std::abs(RescaledAt(volume, i, j, k) - ValueAt(PositionOf(volume, i, j, k))) <= tolerance;
                const bool is_lowest = StoredAt(volume, i, j, k) == volume.min_value;
                num_outside += !is_right && is_lowest;
                num_wrong += !is_right && !is_lowest;
            }
        }
    }
    EXPECT_EQ(num_wrong, 0);
    EXPECT_LE(num_outside, part_outside * volume.dims[0] * volume.dims[1] * volume.dims[2]);
    const auto& m = volume.index_to_patient;
    const double determinant =
        m[0] * (m[5] * m[10] - m[6] * m[9]) - m[1] * (m[4] * m[10] - m[6] * m[8]) + m[2] * (m[4] * m[9] - m[5] * m[8]);
    EXPECT_GT(determinant, 0.0) << "a mirrored grid";
}

// On the calling process, where a failure can be debugged.
inline scene::ImportOptions InProcess() {
    scene::ImportOptions options;
    options.isolate = false;
    return options;
}

// The line with which a file is refused; empty if it is not.
inline std::string Refusal(const std::string& path, const scene::ImportOptions& options = InProcess()) {
    try {
        scene::ImportVolume(path, options);
    } catch (const scene::ImportError& error) {
        const std::string line = error.what();
        EXPECT_EQ(line.find('\n'), std::string::npos) << line;
        EXPECT_EQ(line.back(), ')') << line;
        return line;
    }
    return {};
}

inline bool Warns(const scene::ImportedVolume& volume, const std::string& words) {
    for (const std::string& warning : volume.warnings) {
        if (warning.find(words) != std::string::npos) {
            return true;
        }
    }
    return false;
}

// ---- DICOM ----

inline std::string Even(std::string text, char padding) {
    return text.size() % 2 ? text + padding : text;
}

// An explicit little-endian element.
inline std::string Element(std::uint32_t tag, const std::string& type, std::string value) {
    value = Even(std::move(value), type == "UI" || type == "OB" ? '\0' : ' ');
    const bool is_long = type == "OB" || type == "OW" || type == "SQ" || type == "UN";
    const auto length = static_cast<std::uint32_t>(value.size());
    return Raw(static_cast<std::uint16_t>(tag >> 16)) + Raw(static_cast<std::uint16_t>(tag)) + type +
           (is_long ? std::string(2, '\0') + Raw(length) : Raw(static_cast<std::uint16_t>(length))) + value;
}
inline std::string Element(std::uint32_t tag, int value) {
    return Element(tag, "US", Raw(static_cast<std::uint16_t>(value)));
}

inline std::string Decimals(const std::vector<double>& numbers) {
    std::string text;
    for (const double number : numbers) {
        char buffer[32];
        std::snprintf(buffer, sizeof buffer, "%.8g", number);
        text += (text.empty() ? "" : "\\") + std::string(buffer);
    }
    return text;
}

// One item of a sequence, of known length.
inline std::string Item(const std::string& elements) {
    return Raw<std::uint16_t>(0xfffe) + Raw<std::uint16_t>(0xe000) + Raw(static_cast<std::uint32_t>(elements.size())) +
           elements;
}

// A DICOM slice; the defaults make a plain CT.
struct DicomSlice {
    int columns = 12, rows = 10;
    Point position = {-20.0, 10.0, 30.0}, row = {1, 0, 0}, column = {0, 1, 0};
    double row_step = 1.5, column_step = 2.0;
    double slope = 1.0, intercept = -1024.0;
    bool is_signed = false;
    int bits_stored = 12, bits_allocated = 16;
    std::string photometric = "MONOCHROME2", modality = "CT", series_uid = "1.2.3";
    int series_number = 4, acquisition = 1, instance = 1;
    std::string more;    // further elements in front of the pixels, of groups above 0028
    std::string pixels;  // instead of values of the positions

    int StoredAt(int i, int j) const {
        Point p;
        for (int axis = 0; axis < 3; ++axis) {
            p[axis] = position[axis] + row[axis] * column_step * i + column[axis] * row_step * j;
        }
        return static_cast<int>(std::lround((ValueAt(p) - intercept) / slope));
    }
    std::string Pixels() const {
        std::string bytes = pixels;
        for (int at = 0; pixels.empty() && at < rows * columns; ++at) {
            const auto word = static_cast<std::uint16_t>(StoredAt(at % columns, at / columns));
            bytes += Raw(static_cast<std::uint16_t>(word & ((1 << bits_stored) - 1)));
        }
        return bytes;
    }
    std::string Header() const {
        return Element(0x00080016, "UI", "1.2.840.10008.5.1.4.1.1.2") + Element(0x00080060, "CS", modality) +
               Element(0x00100010, "PN", "Secret^Name") + Element(0x0020000e, "UI", series_uid) +
               Element(0x00200011, "IS", std::to_string(series_number)) +
               Element(0x00200012, "IS", std::to_string(acquisition)) +
               Element(0x00200013, "IS", std::to_string(instance)) +
               Element(0x00200032, "DS", Decimals({position[0], position[1], position[2]})) +
               Element(0x00200037, "DS", Decimals({row[0], row[1], row[2], column[0], column[1], column[2]})) +
               Format() + Element(0x00281052, "DS", Decimals({intercept})) +
               Element(0x00281053, "DS", Decimals({slope})) + more;
    }
    std::string Format() const {
        return Element(0x00280002, 1) + Element(0x00280004, "CS", photometric) + Element(0x00280010, rows) +
               Element(0x00280011, columns) + Element(0x00280030, "DS", Decimals({row_step, column_step})) +
               Element(0x00280100, bits_allocated) + Element(0x00280101, bits_stored) +
               Element(0x00280102, bits_stored - 1) + Element(0x00280103, is_signed ? 1 : 0);
    }
    static std::string Part10(const std::string& elements, const std::string& syntax = "1.2.840.10008.1.2.1") {
        return std::string(128, '\0') + "DICM" + Element(0x00020010, "UI", syntax) + elements;
    }
    void Write(const std::string& path) const {
        WriteBytes(path, Part10(Header() + Element(0x7fe00010, "OW", Pixels())));
    }
};

// Writes slices at the given heights, in a shuffled order of names and instance numbers.
inline void WriteStack(const TempFolder& folder, const DicomSlice& pattern, const std::vector<double>& heights,
                       const std::string& prefix = "s") {
    const auto count = static_cast<int>(heights.size());
    for (int i = 0; i < count; ++i) {
        DicomSlice slice = pattern;
        slice.position[2] = heights[static_cast<std::size_t>(i)];
        slice.instance = (i * 7 + 3) % count;
        slice.Write(folder / (prefix + std::to_string((i * 5 + 2) % 100) + "_" + std::to_string(i)));
    }
}

inline std::vector<double> Heights(double first, double step, int count) {
    std::vector<double> heights;
    for (int i = 0; i < count; ++i) {
        heights.push_back(first + step * i);
    }
    return heights;
}

}  // namespace import_test

#endif  // TESTS_SCENE_IMPORT_TEST_FILES_H
