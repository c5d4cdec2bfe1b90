// Access to single voxels of a volume through a sliding range of mapped slices.
//
//   voldata_manager        typed, mapped pixel pointers of any slice; moves the range first when needed
//        |
//   slice_mapper_stage     which slices are mapped: maps and unmaps only what a move changes
//
// Large series cannot be mapped whole, and one mapping per voxel is too slow: a search along a line touches
// neighbouring slices, so about a hundred slices around the last one stay mapped.
//
// Want of memory leaves as std::bad_alloc, from what maps slices only.
//
// One thread uses an object at a time. The volume and its slices belong to the caller and must outlive the mappings.
#pragma once

#include "host/images.h"
#include "ip_volr/IP_VOLR_Export.h"

#include <stdexcept>
#include <string>

// The pager cannot map a range of slices.
class IP_VOLR_EXPORT map_failure_exception : public std::runtime_error {
public:
    explicit map_failure_exception(const std::string& message) : std::runtime_error(message) {}
};

// A slice is missing, or has no mapped pixels.
class IP_VOLR_EXPORT invalid_argument_exception : public std::invalid_argument {
public:
    explicit invalid_argument_exception(const std::string& message) : std::invalid_argument(message) {}
};

// A slice is of another kind than asked for.
class IP_VOLR_EXPORT invalid_type_exception : public std::logic_error {
public:
    explicit invalid_type_exception(const std::string& message) : std::logic_error(message) {}
};

// Keeps the inclusive range [first mapped, last mapped] of slices mapped. Every slice of the range is mapped once by
// this object and no other slice is; an empty range is [0, -1]. Destruction releases the range.
class IP_VOLR_EXPORT slice_mapper_stage {
public:
    slice_mapper_stage() = default;
    slice_mapper_stage(const slice_mapper_stage&) = delete;
    slice_mapper_stage& operator=(const slice_mapper_stage&) = delete;
    ~slice_mapper_stage();

    // Reads from a volume from now on; a null volume has no slices. The range becomes empty.
    void attach(IP_VolData* volume);
    // Reads from an array of slices of one size, not owned.
    void attach(IP_Slice** slices, int width, int height, int depth);

    // Maps and unmaps the slices first to last, inclusive, which must lie inside the volume; nothing when last is below
    // first. Mapping throws map_failure_exception; unmapping never fails.
    void _map_slices(int first, int last);
    void _unmap_slices(int first, int last);

    // Makes [first, last], which must lie inside the volume or be empty, the mapped range; slices in both ranges stay
    // mapped throughout. After a map_failure_exception the range is what is still mapped.
    void move_mapped_range(int first, int last);

    // Unmaps the whole range. Also the clean-up after an exception.
    void release();

    int first_mapped() const { return m_FirstMapped; }
    int last_mapped() const { return m_LastMapped; }
    int width() const { return m_Width; }    // voxels
    int height() const { return m_Height; }  // voxels
    int depth() const { return m_Depth; }    // slices

protected:
    IP_Slice* slice(int k) const;  // null when there is none

private:
    IP_VolData* m_Volume = nullptr;
    IP_Slice** m_Slices = nullptr;  // used only without a volume
    int m_Width = 0;
    int m_Height = 0;
    int m_Depth = 0;
    int m_FirstMapped = 0;
    int m_LastMapped = -1;
};

// Typed access. A pointer stays valid until the next call that may move the range: fetch it again after touching
// another slice. Voxel (x, y) of a slice is element y * width + x; tissue indices lie two to a byte.
class IP_VOLR_EXPORT voldata_manager : public slice_mapper_stage {
public:
    // Mapped pixels of slice k, which must lie inside the volume. Throws map_failure_exception,
    // invalid_argument_exception (no slice, no pixels) or invalid_type_exception (another kind of slice).
    const short* get_short_ptr(int k);
    const unsigned char* get_tisind_ptr(int k);

private:
    IP_Slice* slice_in_range(int k, const char* missing);
};
