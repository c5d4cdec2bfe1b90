// What a voxel's neighbourhood says about vessels: sampling at non-integer points, classification into thin, medium and
// high-intensity vessels, and membership of a point in a vessel already classified.
//
// Points are voxel index coordinates (integers at voxel centres). Values are rescaled values (for CT, Hounsfield
// units): stored value times slope plus intercept. The access exceptions of IP_VolDataAccess.h pass through every
// function.
#pragma once

#include "ip_volr/IP_VOLR_Export.h"
#include "ip_volr/IP_VolDataAccess.h"

enum VesselClass { kVesselNone = 0, kVesselThin = 1, kVesselMedium = 2, kVesselHigh = 3 };

// Mean and standard deviation, in rescaled values.
struct VesselStatistics {
    double mean = 0.0;
    double std = 0.0;
};

// Count, sum and sum of squares of a set of values.
struct RunningStatistics {
    double count = 0.0;
    double sum = 0.0;
    double sum_of_squares = 0.0;

    void Add(double value);
    // Sample standard deviation (divisor count - 1); 0 for fewer than two values.
    VesselStatistics Statistics() const;
};

// The statistics of the values [first, last), continued from `initial`.
IP_VOLR_EXPORT RunningStatistics vessel_running_statistics(const short* first, const short* last,
                                                           const RunningStatistics& initial);

// Trilinear sample, truncated towards zero to a stored value. A point outside the volume counts as the nearest point
// inside.
IP_VOLR_EXPORT short vessel_trilinear_sample(voldata_manager& data, const double point[3]);

// trunc(trilinear sample * slope + intercept).
IP_VOLR_EXPORT int vessel_rescaled_sample(voldata_manager& data, const double point[3], double slope, double intercept);

// Opacity of a point: the first byte of its entry of colour table 15, times scale, over 255. The tables are 16 pointers
// that designate the entry of stored value 0; a null table is fully transparent.
IP_VOLR_EXPORT double vessel_opacity_sample(voldata_manager& data, const unsigned* const* colour_tables,
                                            const double point[3], double scale);

// The same with the table of the nearest voxel's tissue. The tissue volume has the size of the data.
IP_VOLR_EXPORT double vessel_opacity_sample(voldata_manager& data, voldata_manager& tissues,
                                            const unsigned* const* colour_tables, const double point[3], double scale);

// The class of a point from 7 rescaled samples: itself and its six face neighbours. The statistics of the samples are
// written once they have been computed; a point rejected before that leaves them as they are. Each rejection leaves one
// letter in the log, each vessel a line.
IP_VOLR_EXPORT VesselClass is_vessel_internal_voxel(voldata_manager& data, const double point[3], double slope,
                                                    double intercept, VesselStatistics& statistics);

// Whether a rescaled value lies strictly inside the range of a vessel of this class and statistics.
IP_VOLR_EXPORT bool vessel_value_is_member(int value, VesselClass vessel_class, const VesselStatistics& statistics);

// The same for the value at a point.
IP_VOLR_EXPORT bool vessel_contains(voldata_manager& data, const double point[3], double slope, double intercept,
                                    VesselClass vessel_class, const VesselStatistics& statistics);
