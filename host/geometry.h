// Geometry core: points, dimensions, oriented boxes and volume lattices.
//
// Matrices are 4 by 4 float arrays, rows of four; a point is a row vector multiplied from the left, so the
// translation stands in the last row. Physical coordinates are millimetres, index coordinates are voxels.
#pragma once

#include "host/host_export.h"

// A point or vector of three floats, in millimetres or voxels as the caller decides.
class IP_HOST_API IP_3Coord {
public:
    float x = 0.0F;
    float y = 0.0F;
    float z = 0.0F;

    IP_3Coord() = default;
    IP_3Coord(float x_in, float y_in, float z_in) : x(x_in), y(y_in), z(z_in) {}
    explicit IP_3Coord(const float v[3]) : x(v[0]), y(v[1]), z(v[2]) {}

    IP_3Coord& operator+=(const IP_3Coord& o);
    IP_3Coord& operator-=(const IP_3Coord& o);
    IP_3Coord& operator*=(float f);
};

// The axes of a box: along rows (x), along columns (y), across slices (z).
enum IP_Axis { IP_AXIS_X = 0, IP_AXIS_Y = 1, IP_AXIS_Z = 2 };

// Three integer dimensions, in voxels.
class IP_HOST_API IP_Dims {
public:
    IP_Dims() = default;
    IP_Dims(int x, int y, int z);

    void GetDims(int dims[3]) const;
    void SetDims(const int dims[3]);

    // Whether the index and its six face neighbours lie inside.
    bool InsideIndexBoxWithNeighbors(const int index[3]) const;

protected:
    int m_Dims[3] = {0, 0, 0};
};

// What can be moved and scaled in physical space.
class IP_HOST_API IP_Transformable {
public:
    virtual ~IP_Transformable() = default;

    virtual void Translate(float x, float y, float z) = 0;
    void Scale(float f) { Scale(f, f, f); }
    virtual void Scale(float x, float y, float z) = 0;
};

// An oriented box in physical space: a start corner and three axis vectors that carry their lengths (mm).
// The default box is the unit cube with its start corner at the origin.
class IP_HOST_API IP_BoxParams : public IP_Transformable {
public:
    IP_BoxParams() = default;

    void GetVecs(float vecs[3][3]) const;
    void SetParams(const float vecs[3][3]);  // axis vectors, lengths included; the start corner stays

    void GetStart(float start[3]) const;
    void SetStart(const float start[3]);
    void GetMiddle(float middle[3]) const;
    // Corner i: bit 0 of i adds the x vector, bit 1 the y vector, bit 2 the z vector to the start.
    void GetVertex(int i, float vertex[3]) const;

    float GetWidth() const;   // length of the x vector, mm
    float GetHeight() const;  // length of the y vector, mm
    float GetDepth() const;   // length of the z vector, mm
    float GetLength() const;  // length of the space diagonal, mm: a picture this wide holds the box from any side

    // Of the axes IP_AXIS_X to IP_AXIS_Z; numbers beyond count as the nearest.
    void GetOrthoVec(float normal[3], int axis) const;  // unit normal of the faces across an axis
    void GetSideVec(float side[3], int axis) const;     // side vector along an axis, length included

    // Transform from the unit cube [0,1]^3 of the box to physical space.
    void GetNormTrans(float m[4][4]) const;

    // Moves each face inwards by margins[axis] (mm, along its axis); mm_per_pixel[axis] is the least extent that is
    // left, so that a box thinner than its margins keeps its middle instead of turning inside out.
    void ReduceBox(float* margins, float* mm_per_pixel);

    void Centralize();                           // moves the middle to the origin
    virtual void ApplyTransform(float m[4][4]);  // maps the start corner as a point, the vectors as directions

    void Translate(float x, float y, float z) override;
    using IP_Transformable::Scale;
    void Scale(float x, float y, float z) override;  // about the origin

protected:
    float m_Start[3] = {0.0F, 0.0F, 0.0F};
    float m_Vecs[3][3] = {{1.0F, 0.0F, 0.0F}, {0.0F, 1.0F, 0.0F}, {0.0F, 0.0F, 1.0F}};
};

// A volume's lattice: dimensions in voxels and a placement in space. The box runs from voxel corner to voxel corner:
// the spacing along an axis is the axis vector's length divided by the dimension.
class IP_HOST_API IP_Box : public IP_Dims, public IP_BoxParams {
public:
    IP_Box() = default;           // no voxels, unit cube
    IP_Box(int x, int y, int z);  // 1 mm voxels, start corner at the origin
    IP_Box(int x, int y, int z, float mm_x, float mm_y, float mm_z);

    bool operator==(const IP_Box& o) const;

    float GetXMmPerPixel() const;  // 0 for a box without voxels along the axis
    float GetYMmPerPixel() const;
    float GetZMmPerPixel() const;
    float GetSliceZf() const;  // physical z of the first slice's centre plane at its first voxel

    // Between voxel indices (integers at voxel centres) and physical mm. A box with an empty or flat axis counts that
    // axis as 1 mm, so that the inverse always exists.
    void GetIndexToPhysicalTrans(float m[4][4]) const;
    void GetPhysicalToIndexTrans(float m[4][4]) const;
    // The same with the index origin at the first voxel's corner.
    void GetIndexToPhysicalFromCorner(float m[4][4]) const;
    void GetPhysicalToIndexFromCorner(float m[4][4]) const;

    // Enlarges the box in place to the given dimensions at the same spacing; the data stays centred: the margin at the
    // start of an axis is (new - old) / 2 voxels, integer division, the rest is at its end.
    void Embed(IP_Dims* dims);
};
