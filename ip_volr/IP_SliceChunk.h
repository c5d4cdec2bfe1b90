// Slice chunks: runs of equally sized pager blocks, allocated and mapped together; and transposition of slices.
#pragma once

#include "host/memory_pager.h"
#include "ip_volr/IP_SliceIDInfo.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <cstdint>

// A run of blocks of one size, each with an identity record beside it.
//
//   records  [ 0 ][ 1 ] ... [ requested - 1 ]
//   blocks   [ 0 ][ 1 ] ... [ granted - 1 ]     the pager may grant fewer than were asked for
//
// A block is the payload rounded up to 16 bytes and ALLIASING_64K_OFFSET spare bytes, so that rows of successive slices
// do not alias in the cache at strides of 64 KiB. Blocks rest unmapped; the chunk frees them when it dies. Not locked.
//
// QUIRK(slice-chunk-copy): a reader expects a copy to have blocks of its own, or to share them safely; it refers to the
// same arrays, and only one of the two may be destroyed with the blocks in it; kept: callers rely on it.
class IP_VOLR_EXPORT IP_SliceChunk {
public:
    static constexpr std::uint32_t ALLIASING_64K_OFFSET = 128;

    // Bytes of a block for a slice of x times y pixels; 0 when no block can be that large.
    static std::uint32_t BlockSize(int x, int y, float bytes_per_pixel);

    // Calls BuildChunk.
    IP_SliceChunk(unsigned num_slices, int x, int y, float bytes_per_pixel, bool max_alloc, unsigned* num_granted);
    IP_SliceChunk(const IP_SliceChunk& o) = default;
    IP_SliceChunk& operator=(const IP_SliceChunk& o) = default;
    virtual ~IP_SliceChunk();

    // Allocates blocks for slices of x times y pixels until all are there or the pager refuses; *num_granted receives
    // how many there are. With no slices or no pixels the chunk stays empty (null arrays). max_alloc is only logged.
    // Call once, on an empty chunk. Throws std::bad_alloc, with nothing allocated, when there is no memory for the
    // handles.
    void BuildChunk(unsigned num_slices, int x, int y, float bytes_per_pixel, bool max_alloc, unsigned* num_granted);

    unsigned GetNumbSlices() const { return m_NumbSlices; }                 // granted blocks
    unsigned GetSliceSize() const { return m_SliceSize; }                   // bytes per block
    IP_SliceIDInfo* GetInfoMem() const { return m_Infos; }                  // identity records; null when empty
    MEM_PagerInfo* GetMemInfo(unsigned i) const { return m_MemInfos + i; }  // no bounds check
    MEM_PagerInfo* GetMemInfoArray() const { return m_MemInfos; }

    int MapSlices();    // all blocks or none: 0 on success, else the pager's status, or -1 without memory
    int UnmapSlices();  // always 0

private:
    std::uint32_t m_NumbSlices = 0;
    std::uint32_t m_SliceSize = 0;
    IP_SliceIDInfo* m_Infos = nullptr;
    MEM_PagerInfo* m_MemInfos = nullptr;
};

// Transposition: destination[x * destination stride + y] = source[y * source stride + x] for y in [0, Y), x in [0, X).
// The source has Y rows of X elements, the destination X rows of Y; strides are in elements, and source and destination
// do not overlap. Without strides the rows lie side by side (source stride X, destination stride Y). Every size works.
IP_VOLR_EXPORT void transpose_matrix(short* source, short* destination, int X, int Y);
IP_VOLR_EXPORT void transpose_matrix(unsigned short* source, unsigned short* destination, int X, int Y,
                                     int source_stride, int destination_stride);
IP_VOLR_EXPORT void transpose_matrix_32(int* source, int* destination, int X, int Y);
IP_VOLR_EXPORT void transpose_matrix_32(int* source, int* destination, int X, int Y, int source_stride,
                                        int destination_stride);
