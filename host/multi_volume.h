// The volumes and tissues of one view.
#pragma once

#include "host/host_export.h"
#include "host/images.h"
#include "host/masks.h"

#include <memory>
#include <vector>

// The set of volumes of one view.
class IP_HOST_API IP_MultiVolData {
public:
    IP_MultiVolData() = default;
    IP_MultiVolData(const IP_MultiVolData&) = default;
    IP_MultiVolData& operator=(const IP_MultiVolData&) = default;
    virtual ~IP_MultiVolData() = default;

    int GetNVolData() const { return static_cast<int>(m_Volumes.size()); }
    IP_VolData* GetVolData(int i) const;  // null out of range
    std::shared_ptr<IP_VolData> GetSharedVolData(int i) const;
    // The volume with the most voxels (the first of equals) and its index; null and -1 when there is none.
    IP_VolData* GetBiggestVolData(int& index) const;
    // Box around all volumes: the volume's own box for one volume, an axis-aligned box in physical space for more.
    // Never null; valid until the set changes.
    IP_Box* GetBoundingBox();

    void AddVolData(const std::shared_ptr<IP_VolData>& volume);
    void Reset();           // works the bounding box out anew
    void ResetNvoldatas();  // drops all volumes

private:
    std::vector<std::shared_ptr<IP_VolData>> m_Volumes;
    IP_Box m_BoundingBox;
};

// One tissue as bit volumes, one per volume of a view. The volumes are not owned; null out of range.
class IP_HOST_API IP_MultiRealBitVol {
public:
    int GetNRealBitVol() const { return static_cast<int>(m_Volumes.size()); }
    IP_RealBitVol* GetRealBitVol(int i) const;
    void AddRealBitVol(IP_RealBitVol* volume) { m_Volumes.push_back(volume); }

private:
    std::vector<IP_RealBitVol*> m_Volumes;
};

// One tissue as run-list volumes, one per volume of a view. The volumes are not owned; null out of range.
class IP_HOST_API IP_MultiRealListVol {
public:
    int GetNRealListVol() const { return static_cast<int>(m_Volumes.size()); }
    IP_RealListVol* GetRealListVol(int i) const;
    void AddRealListVol(IP_RealListVol* volume) { m_Volumes.push_back(volume); }

private:
    std::vector<IP_RealListVol*> m_Volumes;
};
