// The readers, one for each family of formats. They run on the import's thread and throw ImportError.
#ifndef SCENE_IMPORT_READERS_H
#define SCENE_IMPORT_READERS_H

#include "scene/import/import_context.h"

namespace scene::import {

// What the voxels mean: labels are never rescaled or resampled.
enum class Content { kGrey, kLabels };

// Brings up what the decoding libraries share, so that forked children find it ready and unlocked.
void PrepareReaders();

// The result's voxels come from context.AllocateResult.
ImportedVolume ReadDicom(ImportContext& context, const std::string& path, Content content);
ImportedVolume ReadNifti(ImportContext& context, const std::string& path, Content content);
ImportedVolume ReadWithItk(ImportContext& context, const std::string& path, SourceKind kind, Content content);

std::vector<SeriesInfo> ListDicomSeries(ImportContext& context, const std::string& path);
SeriesInfo DescribeNifti(const std::string& path);
SeriesInfo DescribeWithItk(const std::string& path, SourceKind kind);

}  // namespace scene::import

#endif  // SCENE_IMPORT_READERS_H
