// Voxels of slices in pager blocks: what sources are made of.
#pragma once

#include "host/images.h"
#include "host/memory_pager.h"
#include "scene/import/imported_volume.h"

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace scene {

// Projections compare voxels as signed numbers: values that need all 16 bits unsigned become signed ones, and the
// rescale makes up for it. Changes `info` and returns what is added to its values.
int AsSigned(ImportedVolume& info);

// Different for each call.
std::string UniqueSeriesName();

// Lets the system take back memory whose content is not needed any more. Only whole pages inside the range.
void GiveBack(void* first, std::size_t bytes);

// A block that nobody owns yet: freed with its handle.
struct FreeBlock {
    void operator()(MEM_PagerInfo* block) const;
};
using OwnedBlock = std::unique_ptr<MEM_PagerInfo, FreeBlock>;

// A new block, mapped. When the pager refuses memory, throws an Error that names the subject and says why.
OwnedBlock NewBlock(unsigned long long bytes, const char* subject, const char* why);

// An unmapped block that holds a copy of the values with the offset added. Throws Error when the pager refuses memory.
OwnedBlock BlockOf(const std::int16_t* values, std::size_t count, int offset);

void AddTo(std::int16_t* values, std::size_t count, int offset);

// A slice that takes the block over.
std::unique_ptr<IP_ShortSlice> SliceOf(OwnedBlock block, const PixelDataAttributes& attributes, const std::string& id);

}  // namespace scene
