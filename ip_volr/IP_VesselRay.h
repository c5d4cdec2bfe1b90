// What both vessel searches share: the sampled ray, the check for calcifications and the search for the walls.
#pragma once

#include "host/images.h"
#include "host/masks.h"
#include "ip_volr/IP_Relate.h"
#include "ip_volr/IP_VesselClassification.h"

namespace ip_volr {

// A ray of n half-voxel samples. A ray with a component that is not finite has no samples.
class VesselRay {
public:
    VesselRay(const double start[3], const double direction[3], double voxel_size_mm, double length);

    int NumSamples() const { return m_NumSamples; }
    double StepMm() const { return m_VoxelSizeMm / 2.0; }
    void Point(int i, double point[3]) const;

    // Clamps [first, last) to the samples that lie inside a volume of this size, voxel borders included.
    void ClampToVolume(const int size[3], int& first, int& last) const;

private:
    double m_Start[3];
    double m_Direction[3];
    double m_VoxelSizeMm;
    int m_NumSamples;
};

// Values along a ray. Which samples count is decided by what a search looks at: opacity or a mask.
class VesselRaySampler {
public:
    VesselRaySampler(IP_VolData* data, const VesselRay& ray);

    void UseOpacity(IP_VolData* tissues, const unsigned* const* colour_tables);
    void UseMask(const IP_ListVol* mask) { m_Mask = mask; }

    const VesselRay& Ray() const { return m_Ray; }
    voldata_manager& Data() { return m_Data; }
    // The samples [first, last) that lie inside the volume.
    void SamplesInside(int& first, int& last) const;

    int Value(int i);                     // rescaled
    double Opacity(int i, double scale);  // 0 outside the volume
    bool Counts(int i);                   // visible through the tables, or inside the mask
    bool IsWall(int i, int value);        // strictly between its two neighbours
    VesselClass Classify(int i, VesselStatistics& statistics);

private:
    void DataSize(int size[3]) const;
    bool InsideVolume(const double point[3]) const;
    bool InsideMask(const double point[3]) const;

    const VesselRay& m_Ray;
    voldata_manager m_Data;
    voldata_manager m_Tissues;
    bool m_HasTissues = false;
    const unsigned* const* m_ColourTables = nullptr;
    const IP_ListVol* m_Mask = nullptr;
    double m_Slope = 1.0;
    double m_Intercept = 0.0;
};

// A vessel as known so far.
struct VesselCandidate {
    VesselClass vessel_class = kVesselNone;
    int internal_index = -1;
    VesselStatistics statistics;
};

// What is at most this opaque hides nothing.
constexpr double kTransparentOpacity = 0.005;

// Rescaled values above are calcification, below are background.
constexpr int kVesselCalcificationAbove = 750;
constexpr int kVesselBackgroundBelow = 50;

// Looks behind a high-intensity point, towards the end of the ray, for the medium vessel of which it may be a
// calcification; the candidate becomes that vessel when it is found.
void check_for_calcification(VesselRaySampler& sampler, const char* function, VesselCandidate& candidate);

// "Thin vessel found\n" and its siblings.
void trace_vessel_class(const char* function, VesselClass vessel_class);

enum class WallSearchResult { kFound, kNoBounds, kTooManyPasses };

// Finds the first samples on either side of the internal point that do not belong to the vessel, refining the
// candidate's statistics until the walls stop moving.
WallSearchResult find_vessel_walls(VesselRaySampler& sampler, const char* function, VesselCandidate& candidate,
                                   int& lower_wall_index, int& upper_wall_index);

// A thin vessel is thinner than this many half-steps; any other is wider than one.
constexpr int kThinVesselBelow = 11;
constexpr int kThickVesselAbove = 1;

void midpoint_of_samples(const VesselRay& ray, int i, int j, double point[3]);

}  // namespace ip_volr
