// Decoding in a child process that may crash, hang or ask for all memory without harm to the caller.
#ifndef SCENE_IMPORT_ISOLATED_PROCESS_H
#define SCENE_IMPORT_ISOLATED_PROCESS_H

#include <functional>
#include <string>

#include "scene/import/import_context.h"

namespace scene::import {

// What a job hands back: text of its own making and the voxels it got from AllocateResult, if any.
struct JobResult {
    std::string text;
    VoxelBuffer voxels;
    std::string complaint;  // first line that the child's libraries wrote to standard error
};

using ImportJob = std::function<std::string(ImportContext&)>;

// Runs the job on the calling thread.
JobResult RunInProcess(const ImportOptions& options, const ImportJob& job);

// Runs the job in a forked child and waits for it. The child gets `options.limits`, reports progress through a pipe and
// leaves voxels in shared memory; what libraries print goes nowhere but into the complaint. ImportErrors of the job
// arrive as they are; a crash, lack of memory or silence of the child is an ImportError about `what`. The child is gone
// when this returns, whatever happened.
//
// The child starts with the calling thread alone. The C library keeps its own locks usable across a fork; locks of
// other libraries that another thread holds at that moment stay locked in the child, which then falls silent and is
// ended.
JobResult RunIsolated(const std::string& what, const ImportOptions& options, const ImportJob& job);

}  // namespace scene::import

#endif  // SCENE_IMPORT_ISOLATED_PROCESS_H
