// A slow, independent model of maximum-intensity projection in double precision, and the volumes that tests project.
#pragma once

#include "host/images.h"
#include "host/multi_volume.h"
#include "ip_volr/IP_MIPProjector.h"
#include "ip_volr/IP_MultiVolDataIncMIP.h"
#include "ip_volr/IP_VolRClipManager.h"

#include <array>
#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace mip_model {

using Vec3 = std::array<double, 3>;
using Planes = std::vector<std::array<float, 4>>;  // physical mm, inside where not positive

// A volume whose voxels a test knows. Axes are those of space unless the box is turned; the middle is at `middle_mm`.
struct Volume {
    std::array<int, 3> dims{};
    Vec3 spacing_mm{1.0, 1.0, 1.0};
    Vec3 start_mm{0.0, 0.0, 0.0};  // corner of the first voxel
    bool is_signed = true;
    int bits = 16;
    std::vector<short> voxels;

    short& at(int x, int y, int z);
    short at(int x, int y, int z) const { return const_cast<Volume*>(this)->at(x, y, z); }
    void fill(const std::function<int(int, int, int)>& value);
    // The 2 x 2 maxima of every slice; odd columns and rows at the end are dropped, the extent stays.
    Volume reduced() const;
    // The same as host data; each slice has an identity text of its own.
    std::shared_ptr<IP_VolData> to_host() const;
};

// Blobs, rods and noise, with something bright near every face. Deterministic.
Volume phantom(std::array<int, 3> dims, Vec3 spacing_mm, bool is_signed = true);

// A rotation as the view matrix takes it: about y (azimuth), then x (elevation), then z (roll), in degrees.
struct View {
    double azimuth = 0.0;
    double elevation = 0.0;
    double roll = 0.0;

    void to_matrix(float m[4][4]) const;
    // Unit vector of a virtual axis (2: away from the viewer) in physical space.
    Vec3 axis_in_space(int virtual_axis) const;
};

// Everything that a frame needs; frees its pictures at the end.
class Request {
public:
    explicit Request(const Volume& volume, int width = 96, int height = 80);
    // Projects a host's volume. Prepared data is still to come: from prepare(), or the host's own.
    explicit Request(std::shared_ptr<IP_VolData> volume, int width = 96, int height = 80);
    ~Request();
    Request(const Request&) = delete;
    Request& operator=(const Request&) = delete;

    // Goes over to another volume; the prepared data stays.
    void show(std::shared_ptr<IP_VolData> other);
    // Brings the prepared data in line with the volume; false when that fails, and can be tried again.
    bool prepare();
    void set_view(const View& view);
    void clip(const Planes& planes);
    // Draws into `output`.
    void draw(bool linear, int threshold = -32768);
    // Pixels of the sheared picture of a box.
    std::vector<short> sheared(IP_VolRBoxParamsMIP& box);

    IP_VolRParamsMIP p;
    IP_VolRBoxParamsMIP a;
    IP_VolRBoxParamsMIP b;
    IP_MIPProjector projector;
    IP_VolRClipManager clip_manager;
    std::shared_ptr<IP_VolData> volume;
    std::vector<short> output;
};

enum class Sampling { Nearest, Linear };

// What the sheared picture of a box must hold at pixel (column, row): the maximum over the sheets of `volume` along
// `axis` where the viewing ray through that pixel crosses them; `nothing` when it crosses none. Voxels outside the
// planes do not exist. Only the place of the first sheet is taken from the box.
double sheared_pixel(const Volume& volume, const IP_VolRBoxParamsMIP& box, const View& view, int axis, int column,
                     int row, Sampling sampling, const Planes& planes, double nothing);

// The volume's axis closest to the viewing direction.
int principal_axis(const View& view);

// Physical point to output pixel for a request.
std::array<double, 2> to_pixel(const Request& request, const View& view, const Vec3& point_mm);

}  // namespace mip_model
