// Label maps on the grid of a volume, and tables that say how labels look.
#pragma once

#include "scene/import/imported_volume.h"

#include <array>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

namespace scene {

// The labels of a volume's voxels, 0 where there is none; brought together from any number of label maps.
class LabelVolume {
public:
    // On the grid of `grid`, whose voxels do not count; everything 0.
    explicit LabelVolume(const ImportedVolume& grid);

    // Lays a label map over what is there; its zeros leave what is there. The first map's labels keep their numbers.
    // The labels of a further map, in ascending order, become the next numbers after the greatest one so far.
    //
    // Where the map's voxels lie is told by its geometry: its axes may be swapped and reversed, its origin and size
    // may differ. Where its voxels do not coincide with the volume's (to a tenth of a voxel), each voxel of the volume
    // takes the nearest of the map's if `resample`, else that is an Error of the input kind, and so is a map that lies
    // beside the volume. The voxels of a first map on the volume's own grid are shared as long as it is the only one.
    // `subject` names the map in errors. Works on all workers; throws the host's cancellation, after which a part of
    // the map may be laid over the volume until it is added again.
    void Add(const ImportedVolume& map, bool resample, const std::string& subject);

    const std::array<int, 3>& Dims() const { return m_Dims; }
    // Labels of a slice, row by row; once a map was added.
    const std::uint16_t* Slice(int iz) const;
    // Those that occur, ascending, without 0.
    const std::vector<int>& Present() const { return m_Present; }

private:
    std::array<int, 3> m_Dims;
    std::array<double, 12> m_IndexToPatient;
    VoxelBuffer m_Labels;  // 16 bits unsigned
    std::vector<int> m_Present;
    bool m_HasMap = false;
    bool m_IsShared = false;  // the memory of the labels is that of the first map
};

// One line of a label table.
struct LabelTableEntry {
    int label = 0;
    std::uint32_t rgb = 0;
    double opacity = 1.0;  // 0 to 1
    bool visible = true;
    std::string name;
};

// A table of text lines: label, red, green, blue (0 to 255), opacity (0 to 1), visibility and mesh visibility (0 or 1),
// name in double quotes. Empty lines and lines that begin with # say nothing. Throws Error of the input kind, which
// says which line is wrong; `subject` names the table.
std::vector<LabelTableEntry> ParseLabelTable(std::string_view text, const std::string& subject);

}  // namespace scene
