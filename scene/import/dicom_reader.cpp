// DICOM folders and files: scan, sort into stacks, choose one, decode it, bring it onto a straight grid.
#include <gdcmGlobal.h>
#include <gdcmTrace.h>

#include <algorithm>
#include <filesystem>
#include <map>
#include <mutex>

#include "scene/import/dicom_pixels.h"
#include "scene/import/dicom_stacks.h"
#include "scene/import/dicom_values.h"
#include "scene/import/label_values.h"
#include "scene/import/readers.h"
#include "scene/import/stack_plan.h"
#include "scene/import/stack_resampling.h"

namespace scene::import {

namespace {

namespace fs = std::filesystem;

constexpr std::size_t kMostFiles = 200000;
constexpr double kScanShare = 0.2, kDecodeShare = 0.9;  // of the progress

std::vector<std::string> FilesOf(const std::string& path) {
    if (!fs::is_directory(path)) {
        return {path};
    }
    std::vector<std::string> files;
    std::error_code error;
    fs::recursive_directory_iterator entry(path, fs::directory_options::skip_permission_denied, error);
    for (const fs::recursive_directory_iterator end; !error && entry != end; entry.increment(error)) {
        if (entry->is_regular_file(error)) {
            files.push_back(entry->path().string());
        }
        if (files.size() > kMostFiles) {
            Refuse(path, "it holds more than " + std::to_string(kMostFiles) + " files",
                   "name the folder of one series");
        }
    }
    std::sort(files.begin(), files.end());
    return files;
}

// What a folder holds.
struct FolderScan {
    std::vector<DicomFrame> frames;
    std::vector<std::string> broken, unusable;  // file names
    DicomScan first_broken, first_unusable;     // why
    bool has_dicom = false;
};

FolderScan ScanFolder(ImportContext& context, const std::string& path) {
    // Scan all files at once.
    const std::vector<std::string> files = FilesOf(path);
    std::vector<DicomScan> scans(files.size());
    const auto count = static_cast<int>(files.size());
    ParallelFor(
        count, context.NumThreads(),
        [&](int i) { scans[static_cast<std::size_t>(i)] = ScanDicomFile(files[static_cast<std::size_t>(i)]); },
        [&](int done) { context.Progress(kScanShare * done / count); });

    // Collect what they hold, in the order of their names.
    FolderScan folder;
    for (std::size_t i = 0; i < scans.size(); ++i) {
        DicomScan& scan = scans[i];
        folder.has_dicom = folder.has_dicom || scan.result != DicomScanResult::kNotDicom;
        std::move(scan.frames.begin(), scan.frames.end(), std::back_inserter(folder.frames));
        const std::string name = fs::path(files[i]).filename().string();
        if (scan.result == DicomScanResult::kBroken) {
            folder.broken.push_back(name);
            folder.first_broken = folder.broken.size() == 1 ? std::move(scan) : std::move(folder.first_broken);
        } else if (scan.result == DicomScanResult::kUnusable) {
            folder.unusable.push_back(name);
            folder.first_unusable = folder.unusable.size() == 1 ? std::move(scan) : std::move(folder.first_unusable);
        }
    }
    return folder;
}

void RefuseEmpty(const FolderScan& folder, const std::string& path) {
    if (!folder.frames.empty()) {
        return;
    }
    if (!folder.broken.empty()) {
        Refuse(path, folder.first_broken.reason, folder.first_broken.advice);
    }
    if (!folder.unusable.empty()) {
        Refuse(path, folder.first_unusable.reason, folder.first_unusable.advice);
    }
    if (folder.has_dicom) {
        Refuse(path, "it holds no image", "name the folder of a series");
    }
    Refuse(path, "no DICOM image and of no other known format",
           "known are DICOM, .nii, .nii.gz, .nrrd, .nhdr, .mha and .mhd");
}

std::string Files(std::size_t count) {
    return std::to_string(count) + (count == 1 ? " file" : " files");
}

void WarnOfSkippedFiles(const FolderScan& folder, std::vector<std::string>& warnings) {
    if (!folder.broken.empty()) {
        warnings.push_back(Files(folder.broken.size()) + " skipped, the first, " + folder.broken.front() +
                           ", because " + folder.first_broken.reason);
    }
    if (!folder.unusable.empty()) {
        warnings.push_back(Files(folder.unusable.size()) + " skipped, the first, " + folder.unusable.front() +
                           ", because it is unusable: " + folder.first_unusable.reason);
    }
}

StackGeometry GeometryOf(const DicomStack& stack, int num_lost) {
    const DicomFrame& first = stack.frames.front();
    StackGeometry geometry;
    geometry.along_row = first.along_row;
    geometry.along_column = first.along_column;
    geometry.column_step_mm = first.column_step_mm;
    geometry.row_step_mm = first.row_step_mm;
    geometry.columns = first.file->columns;
    geometry.rows = first.file->rows;
    const double step_mm = first.slice_step_mm.value_or(1.0);
    geometry.single_step_mm = step_mm > 1e-3 && step_mm < 1e4 ? step_mm : 1.0;
    geometry.num_lost = num_lost;
    for (const DicomFrame& frame : stack.frames) {
        geometry.positions_mm.push_back(frame.position_mm);
    }
    return geometry;
}

// Whether all that decoding could find out about the values, but their range, is in the headers: then slices mean the
// same before and after the last of them is decoded.
bool IsForeseeable(const DicomStack& stack) {
    const DicomFrame& first = stack.frames.front();
    const DicomFile& pattern = *first.file;
    return first.slope > 0.0 && !pattern.is_inverted &&
           std::all_of(stack.frames.begin(), stack.frames.end(), [&](const DicomFrame& frame) {
               const DicomFile& file = *frame.file;
               return frame.slope == first.slope && frame.intercept == first.intercept &&
                      file.is_signed == pattern.is_signed && file.bits_stored == pattern.bits_stored &&
                      file.padding_first == pattern.padding_first && file.padding_last == pattern.padding_last &&
                      file.is_inverted == pattern.is_inverted;
           });
}

// Tells how the volume will be before any slice is decoded into `voxels`; false when that is not known.
bool AnnounceLayout(ImportContext& context, const StackPlan& plan, const DicomStack& stack, const std::string& path,
                    const VoxelBuffer& voxels, const ImportedVolume& volume) {
    if (!context.WantsSlices() || !IsForeseeable(stack) || Determinant(plan.index_to_patient) <= 0.0) {
        return false;
    }
    const DicomFrame& first = stack.frames.front();
    SixteenBitCode code;
    code.is_signed = first.file->is_signed;
    code.slope = first.slope;
    code.intercept = first.intercept;
    const int num_values = 1 << first.file->bits_stored;
    code.min_value = code.is_signed ? -num_values / 2 : 0;
    code.max_value = code.min_value + num_values - 1;

    // Padding may turn out to be higher than measured values; then it is replaced at the end.
    const std::optional<std::uint16_t> padding_word = first.file->padding_first;
    if (padding_word) {
        const int padding = code.is_signed ? static_cast<std::int16_t>(*padding_word) : static_cast<int>(*padding_word);
        if (padding < code.min_value || padding > code.max_value) {
            return false;
        }
    }
    ImportedVolume layout = volume;
    layout.voxels = voxels;
    layout.do_announced_slices_change = padding_word.has_value();
    SetCode(layout, code);
    SetGrid(layout, path, plan.index_to_patient);
    context.AnnounceLayout(layout);
    return true;
}

// What one file contributes to a stack.
struct FileJob {
    const DicomFile* file = nullptr;
    std::vector<FrameTarget> targets;
    std::vector<int> slices;  // of the stack
};

std::vector<FileJob> JobsOf(const DicomStack& stack, const VoxelBuffer& out, std::vector<FrameValues>& found) {
    std::map<const DicomFile*, std::size_t> job_of_file;
    std::vector<FileJob> jobs;
    for (std::size_t i = 0; i < stack.frames.size(); ++i) {
        const DicomFrame& frame = stack.frames[i];
        const auto [place, is_new] = job_of_file.emplace(frame.file.get(), jobs.size());
        if (is_new) {
            jobs.push_back({frame.file.get(), {}, {}});
        }
        const std::size_t slice_size = std::size_t(frame.file->rows) * frame.file->columns;
        FileJob& job = jobs[place->second];
        job.targets.push_back({frame.index, out.data() + i * slice_size, &found[i]});
        job.slices.push_back(static_cast<int>(i));
    }
    return jobs;
}

// Slices that were decoded on any thread, until the import's thread tells of them.
class SliceNews {
public:
    void Add(const std::vector<int>& slices) {
        const std::lock_guard lock(m_mutex);
        m_slices.insert(m_slices.end(), slices.begin(), slices.end());
    }
    void Tell(ImportContext& context) {
        std::vector<int> slices;
        {
            const std::lock_guard lock(m_mutex);
            slices.swap(m_slices);
        }
        if (!slices.empty()) {
            context.AnnounceSlices(slices);
        }
    }

private:
    std::mutex m_mutex;
    std::vector<int> m_slices;
};

// Decodes all frames of a stack, file by file in parallel.
std::vector<FrameValues> DecodeStack(ImportContext& context, const DicomStack& stack, bool is_announced,
                                     const VoxelBuffer& out) {
    std::vector<FrameValues> found(stack.frames.size());
    const std::vector<FileJob> jobs = JobsOf(stack, out, found);
    const auto count = static_cast<int>(jobs.size());
    SliceNews news;
    ParallelFor(
        count, context.NumThreads(),
        [&](int i) {
            const FileJob& job = jobs[static_cast<std::size_t>(i)];
            DecodeFrames(*job.file, job.targets);
            if (is_announced) {
                news.Add(job.slices);
            }
        },
        [&](int done) {
            news.Tell(context);
            context.Progress(kScanShare + (kDecodeShare - kScanShare) * done / count);
        });
    news.Tell(context);
    return found;
}

void Resample(ImportContext& context, const StackPlan& plan, const DicomStack& stack, const VoxelBuffer& source,
              const SixteenBitCode& code, ImportedVolume& volume) {
    const DicomFile& file = *stack.frames.front().file;
    const std::size_t slice_size = std::size_t(plan.dims[0]) * plan.dims[1];
    volume.voxels = context.AllocateResult(slice_size * static_cast<std::size_t>(plan.dims[2]));
    ParallelFor(
        plan.dims[2], context.NumThreads(),
        [&](int slice) {
            ResampleSlice(plan, slice, source.data(), file.columns, file.rows, code.is_signed, code.min_value,
                          volume.voxels.data() + slice_size * static_cast<std::size_t>(slice));
        },
        [&](int done) { context.Progress(kDecodeShare + (1.0 - kDecodeShare) * done / plan.dims[2]); });
}

// Fills voxels, range and rescale.
void ReadValues(ImportContext& context, const StackPlan& plan, const DicomStack& stack, const std::string& path,
                Content content, ImportedVolume& volume) {
    const DicomFile& file = *stack.frames.front().file;
    const std::size_t num_voxels = std::size_t(file.rows) * file.columns * stack.frames.size();
    const VoxelBuffer decoded = plan.is_resampled ? VoxelBuffer(num_voxels) : context.AllocateResult(num_voxels);
    const bool is_announced =
        !plan.is_resampled && content == Content::kGrey && AnnounceLayout(context, plan, stack, path, decoded, volume);
    const std::vector<FrameValues> found = DecodeStack(context, stack, is_announced, decoded);
    SixteenBitCode code = UnifyValues(stack, found, decoded, volume);
    if (plan.is_resampled) {
        Resample(context, plan, stack, decoded, code, volume);
        FindRange(code, volume.voxels.data(), volume.voxels.size());
    } else {
        volume.voxels = decoded;
    }
    SetCode(volume, code);
}

void DescribeVolume(const DicomStack& stack, const std::vector<DicomStack>& stacks, ImportedVolume& volume) {
    const DicomFrame& middle = stack.frames[stack.frames.size() / 2];
    volume.modality = stack.info.modality;
    volume.series = Describe(stacks);
    volume.series_number = stack.info.number;
    volume.num_time_points = stack.num_times;
    if (middle.window_centre && middle.window_width && *middle.window_width > 0.0) {
        volume.window_centre = middle.window_centre;
        volume.window_width = middle.window_width;
    }
    if (middle.kind.find("MOSAIC") != std::string::npos) {
        volume.warnings.push_back(
            "the image is a mosaic of small slices: it is read as one slice, and only positions "
            "within one tile make sense");
    }
}

void WarnOfChoice(const std::vector<DicomStack>& stacks, const DicomStack& chosen, const ImportOptions& options,
                  std::vector<std::string>& warnings) {
    if (options.series.empty() && stacks.size() > 1) {
        warnings.push_back("series " + std::to_string(chosen.info.number) + " is the largest of " +
                           std::to_string(stacks.size()) + " and is read");
    }
    if (options.time_index < 0 && chosen.num_times > 1) {
        warnings.push_back("time point " + std::to_string(chosen.time_index) + " of " +
                           std::to_string(chosen.num_times) + " is read");
    }
}

}  // namespace

void PrepareReaders() {
    static const bool is_ready = [] {
        gdcm::Global::GetInstance();
        gdcm::Trace::WarningOff();
        gdcm::Trace::ErrorOff();
        return true;
    }();
    static_cast<void>(is_ready);
}

ImportedVolume ReadDicom(ImportContext& context, const std::string& path, Content content) {
    // Find the images.
    FolderScan folder = ScanFolder(context, path);
    RefuseEmpty(folder, path);
    const std::vector<DicomStack> stacks = SortIntoStacks(std::move(folder.frames));
    const DicomStack& stack = ChooseStack(stacks, context.Options(), path);
    const StackPlan plan = PlanStack(GeometryOf(stack, static_cast<int>(folder.broken.size())), path);
    if (content == Content::kLabels && plan.is_resampled) {
        Refuse(path, "its slices are tilted, uneven or incomplete", "labels need a straight, even grid");
    }

    // Make the volume.
    ImportedVolume volume;
    volume.dims = plan.dims;
    WarnOfChoice(stacks, stack, context.Options(), volume.warnings);
    WarnOfSkippedFiles(folder, volume.warnings);
    volume.warnings.insert(volume.warnings.end(), plan.warnings.begin(), plan.warnings.end());
    DescribeVolume(stack, stacks, volume);
    ReadValues(context, plan, stack, path, content, volume);
    SetGrid(volume, path, plan.index_to_patient);
    if (content == Content::kLabels) {
        MakeLabels(volume, path);
    }
    context.Progress(1.0);
    return volume;
}

std::vector<SeriesInfo> ListDicomSeries(ImportContext& context, const std::string& path) {
    FolderScan folder = ScanFolder(context, path);
    RefuseEmpty(folder, path);
    return Describe(SortIntoStacks(std::move(folder.frames)));
}

}  // namespace scene::import
