#include "host/multi_volume.h"

#include <algorithm>
#include <cmath>
#include <limits>

namespace {

// More voxels along an axis would only serve a set whose volumes lie absurdly far apart.
constexpr double kMostVoxels = 32767.0;

long long number_of_voxels(const IP_Box& box) {
    int dims[3];
    box.GetDims(dims);
    double product = 1.0;
    for (const int dim : dims) {
        product *= std::max(dim, 0);
    }
    return static_cast<long long>(std::min(product, 9e18));
}

// Widens [low, high] by the eight corners of a box; corners that are not finite do not count.
void include_corners(const IP_Box& box, float low[3], float high[3]) {
    for (int i = 0; i < 8; ++i) {
        float corner[3];
        box.GetVertex(i, corner);
        for (int k = 0; k < 3; ++k) {
            if (std::isfinite(corner[k])) {
                low[k] = std::min(low[k], corner[k]);
                high[k] = std::max(high[k], corner[k]);
            }
        }
    }
}

// The smallest spacing of a box in mm, or infinity when no axis has one.
double smallest_spacing(const IP_Box& box) {
    double smallest = std::numeric_limits<double>::infinity();
    for (const float spacing : {box.GetXMmPerPixel(), box.GetYMmPerPixel(), box.GetZMmPerPixel()}) {
        if (spacing > 0.0F) {
            smallest = std::min(smallest, static_cast<double>(spacing));
        }
    }
    return smallest;
}

// The axis-aligned box from low to high with voxels of about the given spacing.
IP_Box make_aligned_box(const float low[3], const float high[3], double spacing_mm) {
    IP_Box box;
    int dims[3] = {0, 0, 0};
    float vecs[3][3] = {};
    float start[3] = {0.0F, 0.0F, 0.0F};
    for (int axis = 0; axis < 3; ++axis) {
        if (!(low[axis] <= high[axis])) {
            continue;
        }
        start[axis] = low[axis];
        vecs[axis][axis] = high[axis] - low[axis];
        const double num_voxels = std::isfinite(spacing_mm) ? std::round(vecs[axis][axis] / spacing_mm) : 1.0;
        dims[axis] = static_cast<int>(std::clamp(num_voxels, 1.0, kMostVoxels));
    }
    box.SetDims(dims);
    box.SetParams(vecs);
    box.SetStart(start);
    return box;
}

}  // namespace

IP_VolData* IP_MultiVolData::GetVolData(int i) const {
    return GetSharedVolData(i).get();
}

std::shared_ptr<IP_VolData> IP_MultiVolData::GetSharedVolData(int i) const {
    return i >= 0 && i < GetNVolData() ? m_Volumes[static_cast<std::size_t>(i)] : nullptr;
}

IP_VolData* IP_MultiVolData::GetBiggestVolData(int& index) const {
    index = -1;
    long long most_voxels = -1;
    for (int i = 0; i < GetNVolData(); ++i) {
        const long long num_voxels = number_of_voxels(*GetVolData(i)->GetBox());
        if (num_voxels > most_voxels) {
            most_voxels = num_voxels;
            index = i;
        }
    }
    return GetVolData(index);
}

IP_Box* IP_MultiVolData::GetBoundingBox() {
    return &m_BoundingBox;
}

void IP_MultiVolData::AddVolData(const std::shared_ptr<IP_VolData>& volume) {
    if (volume != nullptr) {
        m_Volumes.push_back(volume);
        Reset();
    }
}

void IP_MultiVolData::Reset() {
    if (m_Volumes.empty()) {
        m_BoundingBox = IP_Box();
        return;
    }
    if (m_Volumes.size() == 1) {
        m_BoundingBox = *m_Volumes.front()->GetBox();
        return;
    }
    constexpr float kInfinity = std::numeric_limits<float>::infinity();
    float low[3] = {kInfinity, kInfinity, kInfinity};
    float high[3] = {-kInfinity, -kInfinity, -kInfinity};
    double spacing_mm = std::numeric_limits<double>::infinity();
    for (const auto& volume : m_Volumes) {
        include_corners(*volume->GetBox(), low, high);
        spacing_mm = std::min(spacing_mm, smallest_spacing(*volume->GetBox()));
    }
    m_BoundingBox = make_aligned_box(low, high, spacing_mm);
}

void IP_MultiVolData::ResetNvoldatas() {
    m_Volumes.clear();
    Reset();
}

IP_RealBitVol* IP_MultiRealBitVol::GetRealBitVol(int i) const {
    return i >= 0 && i < GetNRealBitVol() ? m_Volumes[static_cast<std::size_t>(i)] : nullptr;
}

IP_RealListVol* IP_MultiRealListVol::GetRealListVol(int i) const {
    return i >= 0 && i < GetNRealListVol() ? m_Volumes[static_cast<std::size_t>(i)] : nullptr;
}
