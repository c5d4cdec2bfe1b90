// Looks through folders for series of images.
#pragma once

#include "scene/import/imported_volume.h"

#include <functional>
#include <string>
#include <vector>

namespace serve {

// A series and how scene::ImportVolume opens it.
struct FoundSeries {
    std::string path;
    scene::SeriesInfo info;  // info.number is what ImportOptions::series takes, for DICOM
};

// What the search tells as it goes, from the thread that called it. `on_problem` gets one line with the path in it
// about what could not be read; the search goes on.
struct SearchListener {
    std::function<void(FoundSeries)> on_found;
    std::function<void(const std::string&)> on_problem;
    std::function<bool()> is_cancelled;
};

// Finds what a file or folder holds. A folder with DICOM files in it counts, with all below it, as one DICOM folder, as
// it does for every verb of the tool; folders above are looked through. Volume files of other formats count one by one.
// Names that begin with a dot and links to folders are passed over; depth and number of folders are bounded.
// Headers are read by processes of their own, on so many threads (0 means one for each processor).
void FindSeries(const std::string& input, int num_threads, const SearchListener& listener);

}  // namespace serve
