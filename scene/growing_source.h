// A volume that is drawn while it is read.
#pragma once

#include "scene/volume_source.h"

#include <memory>
#include <string>
#include <vector>

namespace scene {

// Starts with the layout that an import announces (ImportOptions::on_layout) and no slice; missing slices hold the
// lowest value of the pixel type, as air around the patient would. Take and Finish run on the thread that draws,
// between frames, while the import goes on on another. When the import has ended, Finish makes the source that the
// volume would have been read into at once; when it fails, the growing source goes and nothing is left.
//
// Memory: one volume and the slices that are announced and not taken; where the layout says that slices may change
// after they were announced, two volumes until the end.
class GrowingSource : public VolumeSource {
public:
    // Keeps the layout's voxels, which the import fills. Throws Error when the pager refuses memory.
    explicit GrowingSource(const ImportedVolume& layout);

    // Takes slices that the import has announced out of its memory: what it returns is good for Finish alone then.
    // Those that were taken before are left alone, so that a call that threw can be made again. Throws Error when the
    // pager refuses memory, and the host's cancellation.
    void Take(const std::vector<int>& slices);
    int NumArrived() const { return static_cast<int>(m_Arrived.size()); }

    // The volume as the import returned it, made of the slices that are here and of the others' voxels. Equals
    // VolumeSource(imported) in every way. What draws this source must be gone before; the source itself is of no use
    // afterwards. Throws as the constructor of VolumeSource does.
    std::unique_ptr<VolumeSource> Finish(ImportedVolume&& imported);

private:
    class Whole;

    VoxelBuffer m_Voxels;                       // that the import fills
    std::shared_ptr<MEM_PagerInfo> m_Backdrop;  // the block that stands for each missing slice
    std::string m_Series;                       // begins the identities of slices
};

}  // namespace scene
