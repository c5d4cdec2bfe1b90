// What every reader gets besides the path: options, progress, memory for the result, and how to refuse a file.
#ifndef SCENE_IMPORT_IMPORT_CONTEXT_H
#define SCENE_IMPORT_IMPORT_CONTEXT_H

#include <functional>
#include <string>

#include "scene/import/imported_volume.h"

namespace scene::import {

// Serves one import. Everything is called from the thread that runs the reader.
class ImportContext {
public:
    explicit ImportContext(const ImportOptions& options) : m_options(options) {}
    virtual ~ImportContext() = default;

    const ImportOptions& Options() const { return m_options; }
    int NumThreads() const;

    // Tells how far the work is, 0 to 1. Throws ImportCancelled when the caller wants no more.
    virtual void Progress(double fraction) = 0;
    // Memory of the voxels that the import returns; at most once for each import. Throws std::bad_alloc.
    virtual VoxelBuffer AllocateResult(std::size_t num_voxels) = 0;

    // Whether somebody wants to see slices before all are there.
    bool WantsSlices() const { return m_options.on_layout && m_options.on_slices; }
    // See ImportOptions. The layout's voxels are those of AllocateResult.
    virtual void AnnounceLayout(const ImportedVolume& layout) = 0;
    virtual void AnnounceSlices(const std::vector<int>& slices) = 0;

private:
    const ImportOptions& m_options;
};

// Throws ImportError "WHAT: WHY (ADVICE)".
[[noreturn]] void Refuse(const std::string& what, const std::string& why, const std::string& advice);

// Control characters become blanks: texts from files must not break lines or terminals.
std::string OneLine(std::string text);

// At most six significant digits, as people write numbers.
std::string Text(double value);

// Calls work(i) for i of [0, count), each once, on so many threads, the caller's among them; poll(done) runs on the
// caller's thread between its items. The first exception of work or poll ends the loop and reaches the caller after all
// threads have stopped.
void ParallelFor(int count, int num_threads, const std::function<void(int)>& work,
                 const std::function<void(int done)>& poll = {});

}  // namespace scene::import

#endif  // SCENE_IMPORT_IMPORT_CONTEXT_H
