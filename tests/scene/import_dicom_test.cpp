// DICOM import: what hospitals send, as small files.
#include "tests/scene/import_test_files.h"

namespace {

using namespace import_test;
using scene::ImportedVolume;
using scene::ImportLabels;
using scene::ImportVolume;

TEST(ImportDicom, SlicesAreOrderedByPositionNotByNameOrInstance) {
    const TempFolder folder;
    DicomSlice slice;
    slice.more = Element(0x00281050, "DS", "40\\300 ") + Element(0x00281051, "DS", "400\\1500");
    WriteStack(folder, slice, Heights(-50.0, 2.5, 9));
    const ImportedVolume volume = ImportVolume(folder.Path(), InProcess());
    EXPECT_EQ(volume.dims, (std::array<int, 3>{12, 10, 9}));
    EXPECT_EQ(volume.spacing_mm, (std::array<double, 3>{2.0, 1.5, 2.5}));
    ExpectLinearValues(volume, 0.5);
    EXPECT_TRUE(volume.warnings.empty());
    EXPECT_EQ(volume.rescale_intercept, -1024.0);
    EXPECT_EQ(volume.modality, "CT");
    EXPECT_EQ(volume.window_centre, 40.0);
    EXPECT_EQ(volume.window_width, 400.0);
    EXPECT_EQ(volume.series_number, 4);

    // Falling order and an oblique plane.
    const TempFolder oblique;
    slice.row = {0.8, 0.6, 0.0};
    slice.column = {0.0, 0.0, -1.0};
    const Point normal = {-0.6, 0.8, 0.0};
    for (int i = 0; i < 6; ++i) {
        for (int axis = 0; axis < 3; ++axis) {
            slice.position[axis] = 5.0 * axis - 1.2 * i * normal[axis];
        }
        slice.Write(oblique / std::to_string(i));
    }
    ExpectLinearValues(ImportVolume(oblique.Path(), InProcess()), 0.5);
}

TEST(ImportDicom, EqualPositionsAreRefusedUnlessSomethingTellsThemApart) {
    const TempFolder folder;
    DicomSlice slice;
    WriteStack(folder, slice, Heights(0.0, 2.0, 5), "a");
    WriteStack(folder, slice, {4.0}, "b");
    EXPECT_NE(Refusal(folder.Path()).find("several slices lie at z = 4 mm"), std::string::npos);

    // Two acquisitions over the same place, and two time points, are parted instead.
    const TempFolder acquisitions;
    WriteStack(acquisitions, slice, Heights(0.0, 2.0, 5), "a");
    slice.acquisition = 2;
    WriteStack(acquisitions, slice, Heights(1.0, 2.0, 6), "b");
    const ImportedVolume second = ImportVolume(acquisitions.Path(), InProcess());
    EXPECT_EQ(second.dims[2], 6);
    EXPECT_EQ(second.series.size(), 2u);
    EXPECT_TRUE(Warns(second, "is the largest of 2"));
    ExpectLinearValues(second, 0.5);

    const TempFolder times;
    slice.more = Element(0x00200100, "IS", "1");
    WriteStack(times, slice, Heights(0.0, 2.0, 5), "a");
    slice.more = Element(0x00200100, "IS", "2");
    slice.intercept = 0.0;
    WriteStack(times, slice, Heights(0.0, 2.0, 5), "b");
    scene::ImportOptions options = InProcess();
    options.time_index = 1;
    EXPECT_EQ(ImportVolume(times.Path(), options).rescale_intercept, 0.0);
    options.time_index = 2;
    EXPECT_NE(Refusal(times.Path(), options).find("no time point 2"), std::string::npos);
}

TEST(ImportDicom, AcquisitionsThatContinueEachOtherAreOneVolume) {
    const TempFolder folder;
    DicomSlice slice;
    WriteStack(folder, slice, Heights(0.0, 2.0, 4), "a");
    slice.acquisition = 2;
    WriteStack(folder, slice, Heights(8.0, 2.0, 4), "b");
    EXPECT_EQ(ImportVolume(folder.Path(), InProcess()).dims[2], 8);
}

TEST(ImportDicom, SeriesAreNeverMixedAndChosenByNumberOrUid) {
    const TempFolder folder;
    DicomSlice slice;
    WriteStack(folder, slice, Heights(0.0, 2.0, 8), "a");
    slice.series_uid = "1.2.99";
    slice.series_number = 7;
    slice.modality = "MR";
    WriteStack(folder, slice, Heights(1.0, 2.0, 5), "b");
    slice.series_number = 4;  // the same number again, other size
    slice.series_uid = "1.2.100";
    slice.columns = 6;
    WriteStack(folder, slice, Heights(1.0, 2.0, 3), "c");
    WriteBytes(folder / "notes.txt", std::string(500, 'x'));

    const auto series = scene::ListSeries(folder.Path(), InProcess());
    ASSERT_EQ(series.size(), 3u);
    EXPECT_EQ(series[0].number, 4);
    EXPECT_TRUE(series[0].is_default);
    EXPECT_EQ(series[1].number, 7);
    EXPECT_EQ(series[2].number, 8);
    scene::ImportOptions options = InProcess();
    EXPECT_EQ(ImportVolume(folder.Path(), options).dims[2], 8);
    options.series = "7";
    EXPECT_EQ(ImportVolume(folder.Path(), options).modality, "MR");
    options.series = "1.2.100";
    EXPECT_EQ(ImportVolume(folder.Path(), options).dims, (std::array<int, 3>{6, 10, 3}));
    options.series = "5";
    EXPECT_NE(Refusal(folder.Path(), options).find("it holds 4, 7, 8"), std::string::npos);
}

TEST(ImportDicom, MissingSlicesAreFilledWithAWarningOrRefusedWhenTooMany) {
    const TempFolder folder;
    std::vector<double> heights = Heights(-30.0, 1.0, 24);
    heights.erase(heights.begin() + 10);
    WriteStack(folder, DicomSlice(), heights);
    const ImportedVolume volume = ImportVolume(folder.Path(), InProcess());
    EXPECT_EQ(volume.dims[2], 24);
    EXPECT_TRUE(Warns(volume, "between z = -21 mm and z = -19 mm (2 mm where 1 mm is usual)"));
    ExpectLinearValues(volume, 1.0);
    EXPECT_NE(scene::ImportVolume(folder.Path()).dims[2], 0);
    EXPECT_THROW(ImportLabels(folder.Path(), InProcess()), scene::ImportError);

    // Three of 24, though apart, are more than a tenth.
    const TempFolder sparse;
    for (const int index : {20, 14, 5}) {
        heights.erase(heights.begin() + index);
    }
    WriteStack(sparse, DicomSlice(), heights);
    EXPECT_NE(Refusal(sparse.Path()).find("slices are missing"), std::string::npos);
}

TEST(ImportDicom, UnevenZonesBecomeAnEvenGrid) {
    const TempFolder folder;
    std::vector<double> heights = Heights(0.0, 2.0, 8);
    for (const double height : Heights(18.0, 4.0, 6)) {
        heights.push_back(height);
    }
    WriteStack(folder, DicomSlice(), heights);
    const ImportedVolume volume = ImportVolume(folder.Path(), InProcess());
    EXPECT_EQ(volume.dims[2], 20);
    EXPECT_DOUBLE_EQ(volume.spacing_mm[2], 2.0);
    EXPECT_TRUE(Warns(volume, "unevenly spaced, 2 to 4 mm"));
    ExpectLinearValues(volume, 1.0);
}

TEST(ImportDicom, TiltedGantryBecomesAStraightGrid) {
    const TempFolder folder;
    DicomSlice slice;
    slice.rows = 30;
    slice.column = {0.0, std::cos(0.3), -std::sin(0.3)};
    WriteStack(folder, slice, Heights(0.0, 3.0, 10));
    const ImportedVolume volume = ImportVolume(folder.Path(), InProcess());
    EXPECT_TRUE(Warns(volume, "a gantry tilt of 17.2 degrees"));
    EXPECT_NEAR(volume.spacing_mm[2], 3.0 * std::cos(0.3), 1e-6);
    EXPECT_GT(volume.dims[1], 30);
    // The corners of the wider grid lie outside of all slices.
    ExpectLinearValues(volume, 1.0, 0.25);
}

TEST(ImportDicom, OverlappingSlicesLieWhereTheirPositionSays) {
    const TempFolder folder;
    DicomSlice slice;
    slice.more = "";
    WriteStack(folder, slice, Heights(0.0, 1.25, 6));
    // Thickness belongs to a lower group: put it in front of the header.
    for (const auto& entry : std::filesystem::directory_iterator(folder.Path())) {
        std::string bytes = ReadBytes(entry.path().string());
        bytes.insert(bytes.find("\x20\x00\x0e\x00", 0, 4), Element(0x00180050, "DS", "5.0"));
        WriteBytes(entry.path().string(), bytes);
    }
    EXPECT_DOUBLE_EQ(ImportVolume(folder.Path(), InProcess()).spacing_mm[2], 1.25);
}

TEST(ImportDicom, RescaleOfEachSliceIsUnified) {
    // Whole factors: exact in one code.
    const TempFolder whole;
    DicomSlice slice;
    for (int i = 0; i < 4; ++i) {
        slice.position[2] = 2.0 * i;
        slice.intercept = -1000.0 - i;
        slice.Write(whole / std::to_string(i));
    }
    const ImportedVolume exact = ImportVolume(whole.Path(), InProcess());
    EXPECT_EQ(exact.rescale_slope, 1.0);
    EXPECT_EQ(exact.rescale_intercept, 0.0);
    ExpectLinearValues(exact, 0.5);

    // Broken ones: spread over 16 bits.
    const TempFolder broken;
    for (int i = 0; i < 4; ++i) {
        slice.position[2] = 2.0 * i;
        slice.slope = 0.25 + 0.07 * i;
        slice.intercept = 0.0;
        slice.Write(broken / std::to_string(i));
    }
    const ImportedVolume spread = ImportVolume(broken.Path(), InProcess());
    EXPECT_TRUE(Warns(spread, "rescale factors of their own"));
    EXPECT_GT(spread.max_value, 60000);
    ExpectLinearValues(spread, 0.3);

    // A negative slope turns into a positive one with the same meaning.
    const TempFolder falling;
    slice.slope = -1.0;
    slice.intercept = 3000.0;
    slice.Write(falling / "0");
    const ImportedVolume turned = ImportVolume(falling.Path(), InProcess());
    EXPECT_EQ(turned.rescale_slope, 1.0);
    ExpectLinearValues(turned, 0.5);
}

// Writes one slice of given 16-bit words in one row and gives back its volume.
ImportedVolume ImportWords(DicomSlice slice, const std::vector<int>& words) {
    const TempFolder folder;
    slice.rows = 1;
    slice.columns = static_cast<int>(words.size());
    for (const int word : words) {
        slice.pixels += Raw(static_cast<std::uint16_t>(word));
    }
    slice.Write(folder / "slice");
    return ImportVolume(folder / "slice", InProcess());
}

std::vector<int> StoredValues(const ImportedVolume& volume) {
    std::vector<int> values;
    for (int i = 0; i < volume.dims[0]; ++i) {
        values.push_back(StoredAt(volume, i, 0, 0));
    }
    return values;
}

TEST(ImportDicom, StoredBitsOfAnyWidthAndSign) {
    DicomSlice slice;
    slice.bits_stored = 12;
    EXPECT_EQ(StoredValues(ImportWords(slice, {0x1005, 0xffff, 7})), (std::vector<int>{5, 4095, 7}));
    slice.is_signed = true;
    const ImportedVolume narrow = ImportWords(slice, {0x0fff, 0x0800, 0x07ff, 0xf801});
    EXPECT_EQ(StoredValues(narrow), (std::vector<int>{-1, -2048, 2047, -2047}));
    EXPECT_TRUE(narrow.is_signed);
    EXPECT_EQ(narrow.bits_stored, 12);
    slice.bits_stored = 16;
    EXPECT_EQ(ImportWords(slice, {0x8000, 0x7fff}).bits_stored, 16);
    slice.is_signed = false;
    const ImportedVolume full = ImportWords(slice, {65535, 3});
    EXPECT_EQ(StoredValues(full), (std::vector<int>{65535, 3}));
    EXPECT_FALSE(full.is_signed);
    EXPECT_EQ(full.bits_stored, 16);
}

TEST(ImportDicom, PaddingNeverShinesAndIsKnownWhateverTypeItsTagHas) {
    // Written as unsigned though pixels are signed; lower than all values: kept.
    DicomSlice slice;
    slice.is_signed = true;
    slice.bits_stored = 16;
    slice.more = Element(0x00280120, "US", Raw<std::uint16_t>(63536));
    const ImportedVolume kept = ImportWords(slice, {-2000, -900, 300});
    EXPECT_EQ(StoredValues(kept), (std::vector<int>{-2000, -900, 300}));
    EXPECT_EQ(kept.padding_value, -2000);

    // Above the values, here also beyond the stored bits: replaced by the lowest value.
    slice.is_signed = false;
    slice.bits_stored = 12;
    const ImportedVolume replaced = ImportWords(slice, {63536, 900, 300});
    EXPECT_EQ(StoredValues(replaced), (std::vector<int>{300, 900, 300}));
    EXPECT_FALSE(replaced.padding_value);
    EXPECT_TRUE(Warns(replaced, "padding is replaced"));

    // A range of padding.
    slice.more = Element(0x00280120, 4000) + Element(0x00280121, 4090);
    EXPECT_EQ(StoredValues(ImportWords(slice, {4000, 4050, 4090, 4095, 12})), (std::vector<int>{12, 12, 12, 4095, 12}));
}

TEST(ImportDicom, InvertedPicturesAreTurnedAroundUnlessTheirValuesAreMeasured) {
    DicomSlice slice;
    slice.photometric = "MONOCHROME1";
    slice.modality = "MR";
    EXPECT_EQ(StoredValues(ImportWords(slice, {100, 700, 300})), (std::vector<int>{700, 100, 500}));

    // HU stay HU; a CT with bright air is upside down.
    slice.modality = "CT";
    slice.columns = slice.rows = 4;
    for (const bool has_bright_air : {false, true}) {
        const TempFolder folder;
        slice.pixels.clear();
        for (int i = 0; i < 16; ++i) {
            const bool is_rim = i < 4 || i >= 12;
            slice.pixels += Raw(static_cast<std::uint16_t>(is_rim == has_bright_air ? 2000 : 24));
        }
        slice.Write(folder / "slice");
        const ImportedVolume volume = ImportVolume(folder.Path(), InProcess());
        EXPECT_EQ(StoredAt(volume, 0, 0, 0), 24) << has_bright_air;
        EXPECT_EQ(StoredAt(volume, 1, 1, 0), 2000) << has_bright_air;
        EXPECT_TRUE(Warns(volume, "MONOCHROME1"));
    }
}

// One frame of 16-bit pixels as RLE: a segment of high bytes, one of low bytes, all literal.
std::string RunLengthFrame(const std::string& pixels) {
    std::string segments[2];
    for (const int high : {1, 0}) {
        std::string& segment = segments[1 - high];
        for (std::size_t start = 0; start < pixels.size() / 2; start += 100) {
            const std::size_t count = std::min<std::size_t>(100, pixels.size() / 2 - start);
            segment += static_cast<char>(count - 1);
            for (std::size_t i = start; i < start + count; ++i) {
                segment += pixels[2 * i + high];
            }
        }
        segment = Even(segment, '\0');
    }
    std::string head =
        Raw<std::uint32_t>(2) + Raw<std::uint32_t>(64) + Raw(static_cast<std::uint32_t>(64 + segments[0].size()));
    head.resize(64, '\0');
    return head + segments[0] + segments[1];
}

// An enhanced file with the geometry of each frame in its groups, plain or compressed.
std::string EnhancedFile(const DicomSlice& pattern, const std::vector<double>& heights, bool is_compressed) {
    std::string groups, pixels;
    std::string fragments = Item("");
    for (const double height : heights) {
        DicomSlice frame = pattern;
        frame.position[2] = height;
        const std::string place =
            Element(0x00200032, "DS", Decimals({frame.position[0], frame.position[1], frame.position[2]}));
        groups += Item(Element(0x00209113, "SQ", Item(place)));
        pixels += frame.Pixels();
        fragments += Item(RunLengthFrame(frame.Pixels()));
    }
    const std::string orientation = Element(0x00200037, "DS", "1\\0\\0\\0\\1\\0");
    const std::string rescale =
        Element(0x00281052, "DS", Decimals({pattern.intercept})) + Element(0x00281053, "DS", Decimals({pattern.slope}));
    const std::string measures = Element(0x00280030, "DS", Decimals({pattern.row_step, pattern.column_step}));
    const std::string shared = Element(0x00209116, "SQ", Item(orientation)) +
                               Element(0x00289110, "SQ", Item(measures)) + Element(0x00289145, "SQ", Item(rescale));
    std::string elements = Element(0x0020000e, "UI", "1.2.3") +
                           Element(0x00280008, "IS", std::to_string(heights.size())) + pattern.Format() +
                           Element(0x52009229, "SQ", Item(shared)) + Element(0x52009230, "SQ", groups);
    if (!is_compressed) {
        return DicomSlice::Part10(elements + Element(0x7fe00010, "OW", pixels));
    }
    elements += Element(0x7fe00010, "OB", "");
    elements.replace(elements.size() - 4, 4, Raw<std::uint32_t>(0xffffffff));
    return DicomSlice::Part10(elements + fragments + Raw<std::uint32_t>(0xe0ddfffe) + Raw<std::uint32_t>(0),
                              "1.2.840.10008.1.2.5");
}

TEST(ImportDicom, EnhancedFramesLieWhereTheirOwnGroupsSay) {
    const TempFolder folder;
    for (const bool is_compressed : {false, true}) {
        WriteBytes(folder / "frames", EnhancedFile(DicomSlice(), {6.0, 0.0, 4.0, 2.0}, is_compressed));
        const ImportedVolume volume = ImportVolume(folder / "frames", InProcess());
        EXPECT_EQ(volume.dims, (std::array<int, 3>{12, 10, 4}));
        ExpectLinearValues(volume, 0.5);
    }
    const std::string file = EnhancedFile(DicomSlice(), {0.0, 2.0}, true);
    WriteBytes(folder / "frames", file.substr(0, file.size() - 8));
    EXPECT_NE(Refusal(folder / "frames").find("ends before its pixel data does"), std::string::npos);
}

TEST(ImportDicom, WhatIsNoVolumeIsRefusedInOneLine) {
    const TempFolder folder;
    const std::string path = folder / "slice";
    const auto refusal_of = [&](DicomSlice slice) {
        slice.Write(path);
        return Refusal(path);
    };
    DicomSlice slice;
    slice.photometric = "RGB";
    EXPECT_NE(refusal_of(slice).find("colour"), std::string::npos);
    slice = {};
    slice.row_step = 0.0;
    EXPECT_NE(refusal_of(slice).find("pixel spacing"), std::string::npos);
    slice = {};
    slice.row = {0, 0, 0};
    EXPECT_NE(refusal_of(slice).find("orientation"), std::string::npos);
    slice = {};
    slice.slope = 0.0;
    EXPECT_NE(refusal_of(slice).find("rescale slope is 0"), std::string::npos);
    slice = {};
    slice.rows = 4000;
    slice.pixels = "too short";
    EXPECT_NE(refusal_of(slice).find("truncated, 10 of 96000 bytes"), std::string::npos);
    slice = {};
    slice.bits_stored = 0;
    slice.pixels = std::string(240, '\0');
    EXPECT_NE(refusal_of(slice).find("pixel format makes no sense"), std::string::npos);
    slice = {};
    WriteBytes(path, DicomSlice::Part10(Element(0x00080060, "CS", "CT") + slice.Format() +
                                        Element(0x7fe00010, "OW", slice.Pixels())));
    EXPECT_NE(Refusal(path).find("no position, orientation or pixel spacing"), std::string::npos);
    WriteBytes(path, "hello");
    EXPECT_NE(Refusal(path).find("no DICOM image"), std::string::npos);
    EXPECT_NE(Refusal(folder / "nowhere").find("no such file"), std::string::npos);
}

TEST(ImportDicom, OneBrokenFileDoesNotTakeTheFolderWithIt) {
    const TempFolder folder;
    DicomSlice slice;
    WriteStack(folder, slice, Heights(0.0, 1.0, 20));
    slice.position[2] = 20.0;
    slice.Write(folder / "broken");
    const std::string bytes = ReadBytes(folder / "broken");
    for (const std::size_t length : {bytes.size() - 10, std::size_t(300)}) {
        WriteBytes(folder / "broken", bytes.substr(0, length));
        const ImportedVolume volume = ImportVolume(folder.Path(), InProcess());
        EXPECT_EQ(volume.dims[2], 20);
        EXPECT_TRUE(Warns(volume, "1 file skipped, the first, broken, because"));
    }
}

}  // namespace
