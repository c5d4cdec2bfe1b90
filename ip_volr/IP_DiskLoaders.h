// Debugging and tooling aids: volumes from raw files and from binary masks, without the host's loaders.
//
// They print their progress on standard output and use one thread. A slice gets a pager block of its own, which goes
// with it; the volume takes the slice, an earlier one is not deleted. When memory is refused, loading ends there.
#pragma once

#include "ip_volr/IP_VOLR_Export.h"

class IP_RealBitVol;
class IP_VolData;

// Fills the slices of an existing volume, whose box gives the dimensions X x Y x Z, with the files "image0001",
// "image0002", ... (numbered from first_number) of a directory: X times Y 16-bit little-endian values each, row by row,
// without header. Negative values become 0 in the first half of each slice only. The series ends with the first file
// that is missing; the volume's box is then cut to the slices read.
//
// Either separator may stand in the directory.
IP_VOLR_EXPORT void ReadDataFromDisk(IP_VolData** volume, const wchar_t* directory, int first_number);

// Fills an existing volume with tissue-index slices (two voxels a byte, low nibble first) from a file of Z slices of X
// times Y bytes, the low four bits of each a tissue. What a short file lacks is tissue 0. False when the file cannot be
// opened or memory is refused.
IP_VOLR_EXPORT bool ReadTissueFromDisk(IP_VolData** volume, const char* path);

// Makes a new volume (the caller's, to delete) with the mask's box, slope 1 and intercept 0, and tissue-index slices:
// tissue 1 inside the mask, 0 outside. False, and null, when there is no mask or memory is refused.
IP_VOLR_EXPORT bool ConvertRBVToTissue(IP_VolData** volume, IP_RealBitVol* mask);
