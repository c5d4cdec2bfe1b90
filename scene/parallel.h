// Loops over the host's worker threads.
#pragma once

#include <functional>

namespace scene {

// Calls body(index) once for each index in [0, count), on all workers, in no particular order; returns when all calls
// have ended. A cancellation point lies before each call; the first exception reaches the caller.
void ForEachIndex(int count, const std::function<void(int)>& body);

}  // namespace scene
