// Tiny volumes and odd matrices for the targets that draw.
#pragma once

#include "host/multi_volume.h"
#include "tests/fuzz/fuzz_input.h"

#include <functional>
#include <memory>

namespace fuzz {

// Runs a target's work and requires that it leaves nothing mapped and nothing allocated. Faults end with it.
void RunCleanly(const std::function<void()>& work);

// A volume of at most 70 voxels along an axis, of any place, spacing and meaning of pixels; now and then without some
// of its slices or with a slice of another size.
std::shared_ptr<IP_VolData> MakeVolume(Input& input);
// Tissue indices over the lattice of a volume, or over one of another size.
std::shared_ptr<IP_VolData> MakeTissues(Input& input, const IP_VolData& like);
// Changes voxels, replaces a slice or takes its memory away.
void ChangeSlice(Input& input, IP_VolData& volume);

// A turn about a few degrees, a diagonal, or any numbers.
void MakeMatrix(Input& input, float m[4][4]);

// Runs one piece of work, at will with a refused allocation or mapping or a cancellation. Swallows what cancellation
// throws. Requires that the work leaves as many mappings as there were, unless it may keep some.
enum class Mappings { Balanced, MayStay };
void RunWithFault(Input& input, const std::function<void()>& work, Mappings mappings = Mappings::Balanced);

}  // namespace fuzz
