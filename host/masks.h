// Binary volumes: run lists and bits.
#pragma once

#include "host/geometry.h"
#include "host/host_export.h"

#include <cstddef>
#include <vector>

// A binary volume kept as runs [first, last) of set voxels per row. Empty rows cost eight bytes and no visit; a run
// costs twelve. Adding the runs of each row from left to right takes constant time a run, whatever the order of the
// rows.
//
// Reading from several threads at once is safe, changing needs the object alone.
class IP_HOST_API IP_ListVol {
public:
    struct Run {
        int first;
        int last;  // one beyond the last set voxel
    };

    IP_ListVol() = default;
    explicit IP_ListVol(const IP_Dims& dims);
    virtual ~IP_ListVol() = default;

    void GetDims(int dims[3]) const { m_Dims.GetDims(dims); }
    int GetPixel(int x, int y, int z) const;  // 1 set, 0 unset or outside
    void Negate();                            // set becomes unset and the other way round

    // Adds the voxels [first, last) of a row, cut at the row's ends. Runs may overlap and come in any order; rows and
    // slices outside are ignored.
    void AddRun(int row, int slice, int first, int last);

    // The disjoint, ascending, never touching runs of a row; empty for rows and slices outside.
    std::vector<Run> GetRuns(int row, int slice) const;

    // Writes `value` into the line (as long as a row) at the set voxels of a row; rows and slices outside write
    // nothing.
    void WriteLine(int row, int slice, short* line, unsigned short value) const;
    // The same for bytes: at the set voxels when `set` is non-zero, at the unset ones when it is zero.
    void WriteLine(int row, int slice, unsigned char* line, unsigned char value, int set) const;

private:
    // A run and the next one of its row.
    struct Node {
        int first;
        int last;
        int next;
    };
    // The first and the last node of a row.
    struct RowEnds {
        int head;
        int tail;
    };

    // The number of a row, row + slice * height, or -1 outside.
    long long RowNumber(int row, int slice) const;
    int HeadOf(int row, int slice) const;  // -1 when the row is empty or outside
    int NewNode(int first, int last, int next);
    void InsertRun(RowEnds& row, int first, int last);

    IP_Dims m_Dims;
    std::vector<RowEnds> m_Rows;  // by row number; made by the first run
    std::vector<Node> m_Nodes;    // of all rows
    int m_Free = -1;              // chain of nodes to use again
};

// A binary volume kept as bits, with a border of one voxel on every side: voxel (x, y, z) is bit (x + 1) mod 32 of word
// (y + 1) * row stride + (z + 1) * slice stride + (x + 1) / 32, both strides in words.
//
// Reading from several threads at once is safe; so is changing voxels of different slices.
class IP_HOST_API IP_BitVol {
public:
    IP_BitVol() = default;
    explicit IP_BitVol(const IP_Dims& dims);
    virtual ~IP_BitVol() = default;

    void GetDims(int dims[3]) const { m_Dims.GetDims(dims); }  // without the border
    int GetPixel(int x, int y, int z) const;                   // 1 set, 0 unset or outside
    void SetPixel(int x, int y, int z, bool set);              // nothing outside
    void Negate();  // set becomes unset and the other way round; the border stays unset

    // Like that of IP_ListVol.
    void WriteLine(int row, int slice, unsigned char* line, unsigned char value, int set) const;

    // The words, border included; they stay where they are as long as the volume lives and is not assigned to.
    const unsigned* GetBits() const { return m_Words.data(); }
    unsigned* GetBits() { return m_Words.data(); }
    std::size_t GetRowStride() const { return m_RowStride; }
    std::size_t GetSliceStride() const { return m_SliceStride; }

protected:
    IP_Dims m_Dims;
    std::vector<unsigned> m_Words;
    std::size_t m_RowStride = 0;
    std::size_t m_SliceStride = 0;
};

// A run-list volume placed in space.
class IP_HOST_API IP_RealListVol : public IP_ListVol {
public:
    explicit IP_RealListVol(const IP_Box& box);
    IP_Box* GetBox() { return &m_Box; }
    const IP_Box* GetBox() const { return &m_Box; }

private:
    IP_Box m_Box;
};

// A bit volume placed in space.
class IP_HOST_API IP_RealBitVol : public IP_BitVol {
public:
    explicit IP_RealBitVol(const IP_Box& box);
    // From a run-list volume; placed at `place` (1 mm voxels at the origin when null); `negate` takes the complement.
    IP_RealBitVol(const IP_ListVol* list, const IP_BoxParams* place, bool negate);

    IP_Box* GetBox() { return &m_Box; }
    const IP_Box* GetBox() const { return &m_Box; }

    // Sets the voxels that are set in `other`, sampled at this volume's voxel centres: nearest voxel with interpolation
    // 0, trilinear at one half with any other value.
    void SmoothOr(const IP_RealBitVol& other, int interpolation);

private:
    IP_Box m_Box;
};
