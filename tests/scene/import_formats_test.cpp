// NIfTI, NRRD and MetaImage import: conventions of space, byte orders and number types.
#include <zlib.h>

#include <limits>

#include "tests/scene/import_test_files.h"

namespace {

using namespace import_test;
using scene::ImportedVolume;
using scene::ImportLabels;
using scene::ImportVolume;

constexpr std::array<int, 3> kDims = {7, 6, 5};
using Matrix = std::array<double, 12>;

// A left-handed grid in LPS, turned about z, 1.5 x 2 x 2.5 mm.
const Matrix kGrid = {1.2, -1.2, 0.0, 10.0, 0.9, 1.6, 0.0, -20.0, 0.0, 0.0, -2.5, 30.0};

std::vector<double> ValuesOn(const Matrix& m) {
    std::vector<double> values;
    for (int k = 0; k < kDims[2]; ++k) {
        for (int j = 0; j < kDims[1]; ++j) {
            for (int i = 0; i < kDims[0]; ++i) {
                values.push_back(
                    std::round(ValueAt({m[0] * i + m[1] * j + m[2] * k + m[3], m[4] * i + m[5] * j + m[6] * k + m[7],
                                        m[8] * i + m[9] * j + m[10] * k + m[11]})));
            }
        }
    }
    return values;
}

template <typename Number>
std::string Pixels(const std::vector<double>& values, bool is_reversed = false) {
    std::string bytes;
    for (const double value : values) {
        bytes += Raw(static_cast<Number>(value), is_reversed);
    }
    return bytes;
}

void WriteGzip(const std::string& path, const std::string& bytes) {
    gzFile file = gzopen(path.c_str(), "wb");
    gzwrite(file, bytes.data(), static_cast<unsigned>(bytes.size()));
    gzclose(file);
}

// Some bits of a compressed stream decide nothing.
void ExpectRefusedOrRight(const std::string& path) {
    if (Refusal(path).empty()) {
        ExpectLinearValues(ImportVolume(path, InProcess()), 0.51);
    }
}

// ---- NIfTI ----

struct Nifti {
    bool is_second = false, is_reversed = false;
    int datatype = 4, bytes_each = 2, times = 1;
    int sform_code = 1, qform_code = 0;
    Matrix sform_ras = {};
    double slope = 0.0, intercept = 0.0;
    std::array<double, 3> quaternion{}, offset{};
    std::array<double, 4> steps = {1, 1, 1, 1};
    int units = 2;
    std::string pixels;

    template <typename Number>
    void Put(std::string& header, std::size_t at, double value) const {
        header.replace(at, sizeof(Number), Raw(static_cast<Number>(value), is_reversed));
    }
    std::string File() const { return is_second ? Second() : First(); }

    std::string First() const {
        std::string h(352, '\0');
        Put<std::int32_t>(h, 0, 348);
        const double dim[] = {times > 1 ? 4.0 : 3.0, double(kDims[0]), double(kDims[1]), double(kDims[2]),
                              double(times)};
        for (std::size_t i = 0; i < 5; ++i) {
            Put<std::int16_t>(h, 40 + 2 * i, dim[i]);
        }
        Put<std::int16_t>(h, 70, datatype);
        Put<std::int16_t>(h, 72, bytes_each * 8);
        for (std::size_t i = 0; i < 4; ++i) {
            Put<float>(h, 76 + 4 * i, steps[i]);
            Put<float>(h, 280 + 4 * i, sform_ras[i]);
            Put<float>(h, 296 + 4 * i, sform_ras[4 + i]);
            Put<float>(h, 312 + 4 * i, sform_ras[8 + i]);
        }
        Put<float>(h, 108, 352);
        Put<float>(h, 112, slope);
        Put<float>(h, 116, intercept);
        h[123] = static_cast<char>(units);
        Put<std::int16_t>(h, 252, qform_code);
        Put<std::int16_t>(h, 254, sform_code);
        for (std::size_t i = 0; i < 3; ++i) {
            Put<float>(h, 256 + 4 * i, quaternion[i]);
            Put<float>(h, 268 + 4 * i, offset[i]);
        }
        return h.replace(344, 4, std::string("n+1\0", 4)) + pixels;
    }

    std::string Second() const {
        std::string h(544, '\0');
        Put<std::int32_t>(h, 0, 540);
        h.replace(4, 8, std::string("n+2\0\r\n\032\n", 8));
        Put<std::int16_t>(h, 12, datatype);
        for (std::size_t i = 0; i < 4; ++i) {
            Put<std::int64_t>(h, 16 + 8 * i, i == 0 ? 3 : kDims[i - 1]);
            Put<double>(h, 104 + 8 * i, steps[i]);
            Put<double>(h, 400 + 8 * i, sform_ras[i]);
            Put<double>(h, 432 + 8 * i, sform_ras[4 + i]);
            Put<double>(h, 464 + 8 * i, sform_ras[8 + i]);
        }
        Put<std::int64_t>(h, 168, 544);
        Put<std::int32_t>(h, 348, sform_code);
        Put<std::int32_t>(h, 500, units);
        return h + pixels;
    }
};

// The x and y rows change sign between LPS and RAS.
Matrix Ras(Matrix lps) {
    for (int i = 0; i < 8; ++i) {
        lps[i] = -lps[i];
    }
    return lps;
}

ImportedVolume ImportNifti(const Nifti& nifti, const char* name = "image.nii") {
    const TempFolder folder;
    WriteBytes(folder / name, nifti.File());
    return ImportVolume(folder / name, InProcess());
}

TEST(ImportNifti, BothVersionsAndByteOrdersPlainAndGzip) {
    Nifti nifti;
    nifti.sform_ras = Ras(kGrid);
    for (const bool is_second : {false, true}) {
        for (const bool is_reversed : {false, true}) {
            nifti.is_second = is_second;
            nifti.is_reversed = is_reversed;
            nifti.pixels = Pixels<std::int16_t>(ValuesOn(kGrid), is_reversed);
            const ImportedVolume volume = ImportNifti(nifti);
            EXPECT_EQ(volume.dims, kDims);
            ExpectLinearValues(volume, 0.51);
            EXPECT_TRUE(volume.warnings.empty());
            const TempFolder folder;
            WriteGzip(folder / "image.nii.gz", nifti.File());
            ExpectLinearValues(ImportVolume(folder / "image.nii.gz"), 0.51);
        }
    }
}

TEST(ImportNifti, DamagedGzipDataIsNoticedByItsChecksum) {
    const TempFolder folder;
    Nifti nifti;
    nifti.sform_ras = Ras(kGrid);
    nifti.pixels = Pixels<std::int16_t>(ValuesOn(kGrid));
    WriteGzip(folder / "image.nii.gz", nifti.File());
    const std::string bytes = ReadBytes(folder / "image.nii.gz");
    for (std::size_t at = 12; at < bytes.size() - 4; at += 7) {
        std::string damaged = bytes;
        damaged[at] ^= 0x10;
        WriteBytes(folder / "image.nii.gz", damaged);
        ExpectRefusedOrRight(folder / "image.nii.gz");
        WriteBytes(folder / "image.nii.gz", bytes.substr(0, at));
        EXPECT_NE(Refusal(folder / "image.nii.gz"), "") << at;
    }
}

TEST(ImportNifti, SformWinsOverQformAndMetresBecomeMillimetres) {
    Nifti nifti;
    nifti.sform_ras = Ras(kGrid);
    nifti.qform_code = 1;
    nifti.pixels = Pixels<std::int16_t>(ValuesOn(kGrid));
    ExpectLinearValues(ImportNifti(nifti), 0.51);

    // Without sform: a quarter turn about z, mirrored third axis. Column 0 is RAS +y, column 1 RAS -x, column 2 RAS -z.
    nifti.sform_code = 0;
    nifti.quaternion = {0.0, 0.0, std::sqrt(0.5)};
    nifti.offset = {0.001, 0.002, 0.003};
    nifti.steps = {-1.0, 0.002, 0.003, 0.004};
    nifti.units = 1;
    const Matrix lps = {0, 3, 0, -1, -2, 0, 0, -2, 0, 0, -4, 3};
    nifti.pixels = Pixels<std::int16_t>(ValuesOn(lps));
    const ImportedVolume volume = ImportNifti(nifti);
    EXPECT_NEAR(volume.spacing_mm[2], 4.0, 1e-5);
    ExpectLinearValues(volume, 0.51);

    nifti.qform_code = 0;
    EXPECT_TRUE(Warns(ImportNifti(nifti), "does not say how the patient lies"));
}

TEST(ImportNifti, SkewedAxesAreStraightenedAboutTheMiddle) {
    Nifti nifti;
    nifti.sform_ras = {2, 0.2, 0, 5, 0, 2, 0, 6, 0, 0, 2, 7};
    nifti.pixels = Pixels<std::int16_t>(ValuesOn(kGrid));
    const ImportedVolume volume = ImportNifti(nifti);
    EXPECT_TRUE(Warns(volume, "not perpendicular"));
    const auto& m = volume.index_to_patient;
    EXPECT_NEAR(m[0] * m[1] + m[4] * m[5] + m[8] * m[9], 0.0, 1e-9);
    const Point middle = PositionOf(volume, 3.0, 2.5, 2.0);
    EXPECT_NEAR(middle[0], -(2 * 3.0 + 0.2 * 2.5 + 5), 1e-5);
    EXPECT_NEAR(middle[1], -(2 * 2.5 + 6), 1e-5);

    nifti.sform_ras = {2, 2, 0, 5, 0, 0, 0, 6, 0, 0, 2, 7};
    const TempFolder folder;
    WriteBytes(folder / "flat.nii", nifti.File());
    EXPECT_NE(Refusal(folder / "flat.nii").find("geometry is unusable"), std::string::npos);
}

TEST(ImportNifti, TimePointsAreChosenByIndex) {
    Nifti nifti;
    nifti.sform_ras = Ras(kGrid);
    nifti.times = 3;
    std::vector<double> values = ValuesOn(kGrid);
    for (int time = 0; time < 3; ++time) {
        nifti.pixels += Pixels<std::int16_t>(values);
        values.assign(values.size(), time + 1.0);
    }
    const TempFolder folder;
    WriteBytes(folder / "4d.nii", nifti.File());
    const ImportedVolume first = ImportVolume(folder / "4d.nii", InProcess());
    EXPECT_EQ(first.num_time_points, 3);
    EXPECT_TRUE(Warns(first, "the first of 3 time points"));
    ExpectLinearValues(first, 0.51);
    scene::ImportOptions options = InProcess();
    options.time_index = 2;
    EXPECT_EQ(ImportVolume(folder / "4d.nii", options).max_value, 2);
    options.time_index = 3;
    EXPECT_NE(Refusal(folder / "4d.nii", options), "");
}

// ---- number types ----

template <typename Number>
ImportedVolume ImportNumbers(int datatype, std::vector<double> values, double slope = 0.0, double intercept = 0.0) {
    values.resize(std::size_t(kDims[0]) * kDims[1] * kDims[2], values.back());
    Nifti nifti;
    nifti.sform_ras = Ras(kGrid);
    nifti.sform_ras[10] = -nifti.sform_ras[10];  // right-handed: voxels keep their order
    nifti.datatype = datatype;
    nifti.bytes_each = sizeof(Number);
    nifti.slope = slope;
    nifti.intercept = intercept;
    nifti.pixels = Pixels<Number>(values);
    return ImportNifti(nifti);
}

TEST(ImportNumbers, WholeValuesThatFitComeBackExactly) {
    const auto check = [](const ImportedVolume& volume, const std::vector<double>& expected, bool is_signed, int bits) {
        for (std::size_t i = 0; i < expected.size(); ++i) {
            EXPECT_EQ(RescaledAt(volume, static_cast<int>(i), 0, 0), expected[i]);
        }
        EXPECT_EQ(volume.is_signed, is_signed);
        EXPECT_EQ(volume.bits_stored, bits);
        EXPECT_TRUE(volume.warnings.empty());
    };
    check(ImportNumbers<std::uint8_t>(2, {0, 200, 255}), {0, 200, 255}, false, 8);
    check(ImportNumbers<std::int8_t>(256, {-128, 127}), {-128, 127}, true, 8);
    check(ImportNumbers<std::uint16_t>(512, {65535, 1}), {65535, 1}, false, 16);
    check(ImportNumbers<std::int16_t>(4, {-5, 3, 0}), {-5, 3, 0}, true, 4);
    check(ImportNumbers<std::int32_t>(8, {-30000, 32767}), {-30000, 32767}, true, 16);
    check(ImportNumbers<std::uint32_t>(768, {100000, 165535}), {100000, 165535}, false, 16);
    check(ImportNumbers<float>(16, {-1024, 3071}), {-1024, 3071}, true, 13);
    check(ImportNumbers<double>(64, {40000, 7}), {40000, 7}, false, 16);
    check(ImportNumbers<std::int64_t>(1024, {1e12, 1e12 + 65535}), {1e12, 1e12 + 65535}, false, 16);
    check(ImportNumbers<std::int16_t>(4, {-4, 10}, 0.5, 3.0), {1.0, 8.0}, true, 5);
    check(ImportNumbers<std::uint8_t>(2, {0, 10, 250}, -2.0, 100.0), {100.0, 80.0, -400.0}, false, 8);
}

TEST(ImportNumbers, WiderRangesAreSpreadOverSixteenBits) {
    const std::vector<double> values = {-1.5, 0.0, 0.3333, 1e4};
    const ImportedVolume volume = ImportNumbers<float>(16, values);
    EXPECT_TRUE(Warns(volume, "values of -1.5 to 10000 are rescaled to 16 bits"));
    for (int i = 0; i < 4; ++i) {
        EXPECT_NEAR(RescaledAt(volume, i, 0, 0), values[static_cast<std::size_t>(i)], 0.5 * volume.rescale_slope);
    }
    EXPECT_NEAR(RescaledAt(volume, 1, 0, 0), 0.0, 1e-9);
    EXPECT_EQ(ImportNumbers<float>(16, {0.5, 0.5}).rescale_intercept, 0.5);
    EXPECT_NEAR(RescaledAt(ImportNumbers<double>(64, {-1e299, 1e299, 1e308}), 2, 0, 0), 1e299, 1e295);

    // What is no number has a defined value and is told.
    const double nan = std::nan(""), infinity = std::numeric_limits<double>::infinity();
    const ImportedVolume odd = ImportNumbers<float>(16, {nan, infinity, -infinity, 3.0, 8.0});
    EXPECT_EQ(RescaledAt(odd, 0, 0, 0), 3.0);
    EXPECT_EQ(RescaledAt(odd, 1, 0, 0), 8.0);
    EXPECT_EQ(RescaledAt(odd, 2, 0, 0), 3.0);
    EXPECT_TRUE(Warns(odd, "1 voxels are not a number") && Warns(odd, "2 voxels are infinite"));
    EXPECT_THROW(ImportNumbers<float>(16, {nan}), scene::ImportError);
}

TEST(ImportNumbers, LabelsAreWholeAndUnsigned) {
    const TempFolder folder;
    Nifti nifti;
    nifti.sform_ras = Ras(kGrid);
    nifti.datatype = 16;
    const std::string path = folder / "labels.nii";
    const auto import = [&](double first) {
        std::vector<double> values(ValuesOn(kGrid).size(), 40000.0);
        values[0] = first;
        nifti.pixels = Pixels<float>(values);
        WriteBytes(path, nifti.File());
        return ImportLabels(path, InProcess());
    };
    const ImportedVolume labels = import(7.0);
    EXPECT_EQ(labels.max_value, 40000);
    EXPECT_EQ(labels.min_value, 7);
    EXPECT_FALSE(labels.is_signed);
    EXPECT_THROW(import(0.5), scene::ImportError);
    EXPECT_THROW(import(-1.0), scene::ImportError);
    EXPECT_THROW(import(65536.0), scene::ImportError);
}

// ---- NRRD and MetaImage ----

std::string Vector(const Matrix& m, int column) {
    char text[120];
    std::snprintf(text, sizeof text, "(%.10g,%.10g,%.10g)", m[column], m[4 + column], m[8 + column]);
    return text;
}

std::string NrrdHeader(const std::string& space, const Matrix& m, const std::string& more) {
    return "NRRD0004\ntype: short\ndimension: 3\nspace: " + space +
           "\nsizes: 7 6 5\nendian: little\nspace directions: " + Vector(m, 0) + " " + Vector(m, 1) + " " +
           Vector(m, 2) + "\nspace origin: " + Vector(m, 3) + "\n" + more;
}

TEST(ImportNrrd, EverySpaceConventionEndsInLps) {
    const TempFolder folder;
    Matrix las = kGrid;
    for (int i = 4; i < 8; ++i) {
        las[i] = -las[i];
    }
    const std::pair<std::string, Matrix> spaces[] = {{"left-posterior-superior", kGrid},
                                                     {"LPS", kGrid},
                                                     {"right-anterior-superior", Ras(kGrid)},
                                                     {"RAS", Ras(kGrid)},
                                                     {"left-anterior-superior", las}};
    const std::string pixels = Pixels<std::int16_t>(ValuesOn(kGrid));
    for (const auto& [space, matrix] : spaces) {
        WriteBytes(folder / "a.nrrd", NrrdHeader(space, matrix, "encoding: raw\n\n") + pixels);
        const ImportedVolume volume = ImportVolume(folder / "a.nrrd", InProcess());
        SCOPED_TRACE(space);
        ExpectLinearValues(volume, 0.51);
        EXPECT_TRUE(volume.warnings.empty());
    }
    WriteBytes(folder / "a.nrrd", NrrdHeader("scanner-xyz", kGrid, "encoding: raw\n\n") + pixels);
    EXPECT_TRUE(Warns(ImportVolume(folder / "a.nrrd", InProcess()), "does not say how the patient lies"));
}

TEST(ImportNrrd, DetachedAndGzipDataIsFoundAndVerified) {
    const TempFolder folder;
    const std::string pixels = Pixels<std::int16_t>(ValuesOn(kGrid));
    WriteBytes(folder / "a.nhdr", NrrdHeader("LPS", kGrid, "encoding: raw\ndata file: a.raw\n"));
    EXPECT_NE(Refusal(folder / "a.nhdr", {}), "");
    WriteBytes(folder / "a.raw", pixels);
    ExpectLinearValues(ImportVolume(folder / "a.nhdr", InProcess()), 0.51);
    WriteBytes(folder / "a.raw", pixels.substr(0, pixels.size() - 2));
    EXPECT_NE(Refusal(folder / "a.nhdr", {}), "");

    WriteGzip(folder / "a.gz", pixels);
    const std::string packed = ReadBytes(folder / "a.gz");
    const std::string header = NrrdHeader("LPS", kGrid, "encoding: gzip\n\n");
    WriteBytes(folder / "b.nrrd", header + packed);
    ExpectLinearValues(ImportVolume(folder / "b.nrrd", InProcess()), 0.51);
    for (std::size_t at = 12; at < packed.size() - 4; at += 11) {
        std::string damaged = packed;
        damaged[at] ^= 0x04;
        WriteBytes(folder / "b.nrrd", header + damaged);
        ExpectRefusedOrRight(folder / "b.nrrd");
    }
}

TEST(ImportNrrd, ListsAreTimeAndColoursAreRefused) {
    const TempFolder folder;
    const auto write = [&](const std::string& kind) {
        std::string pixels;
        for (const double value : ValuesOn(kGrid)) {
            pixels += Pixels<std::int16_t>({1.0, value, 3.0});
        }
        std::string header = NrrdHeader("LPS", kGrid, "kinds: " + kind + " domain domain domain\nencoding: raw\n\n");
        header.replace(header.find("dimension: 3"), 12, "dimension: 4");
        header.replace(header.find("sizes: "), 7, "sizes: 3 ");
        header.replace(header.find("directions: "), 12, "directions: none ");
        WriteBytes(folder / "a.nrrd", header + pixels);
    };
    write("list");
    scene::ImportOptions options = InProcess();
    options.time_index = 1;
    const ImportedVolume volume = ImportVolume(folder / "a.nrrd", options);
    EXPECT_EQ(volume.num_time_points, 3);
    ExpectLinearValues(volume, 0.51);
    write("RGB-color");
    EXPECT_NE(Refusal(folder / "a.nrrd").find("colour"), std::string::npos);
}

TEST(ImportMetaImage, DirectionCosinesAndCompressedData) {
    const TempFolder folder;
    const std::string pixels = Pixels<std::int16_t>(ValuesOn(kGrid));
    // Rows of TransformMatrix are the directions of the axes.
    const auto header = [&](const std::string& more) {
        return "ObjectType = Image\nNDims = 3\nBinaryData = True\nBinaryDataByteOrderMSB = False\n"
               "TransformMatrix = 0.8 0.6 0 -0.6 0.8 0 0 0 -1\nOffset = 10 -20 30\nElementSpacing = 1.5 2 2.5\n"
               "DimSize = 7 6 5\nElementType = MET_SHORT\n" +
               more;
    };
    WriteBytes(folder / "a.mha", header("ElementDataFile = LOCAL\n") + pixels);
    const ImportedVolume volume = ImportVolume(folder / "a.mha", InProcess());
    EXPECT_NEAR(volume.spacing_mm[0], 1.5, 1e-9);
    ExpectLinearValues(volume, 0.51);

    // A pair of files, and compressed data with its checksum.
    WriteBytes(folder / "b.mhd", header("ElementDataFile = b.raw\n"));
    WriteBytes(folder / "b.raw", pixels);
    ExpectLinearValues(ImportVolume(folder / "b.mhd", InProcess()), 0.51);
    WriteBytes(folder / "b.raw", pixels.substr(1));
    EXPECT_NE(Refusal(folder / "b.mhd"), "");
    WriteBytes(folder / "b.mhd", header("ElementDataFile = slice%02d.raw 1 5 1\n"));
    EXPECT_NE(Refusal(folder / "b.mhd").find("several files"), std::string::npos);
    uLongf packed_bytes = compressBound(pixels.size());
    std::string packed(packed_bytes, '\0');
    compress(reinterpret_cast<Bytef*>(packed.data()), &packed_bytes, reinterpret_cast<const Bytef*>(pixels.data()),
             pixels.size());
    packed.resize(packed_bytes);
    const std::string packed_header = header(
        "CompressedData = True\nCompressedDataSize = " + std::to_string(packed.size()) + "\nElementDataFile = LOCAL\n");
    WriteBytes(folder / "c.mha", packed_header + packed);
    ExpectLinearValues(ImportVolume(folder / "c.mha", InProcess()), 0.51);
    packed[packed.size() / 2] ^= 0x08;
    WriteBytes(folder / "c.mha", packed_header + packed);
    EXPECT_NE(Refusal(folder / "c.mha"), "");
}

}  // namespace
