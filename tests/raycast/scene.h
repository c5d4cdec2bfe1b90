// A small world to draw: a phantom, its transfer function, a view. The engine and the model are both fed from it.
#pragma once

#include "host/geometry.h"
#include "host/multi_volume.h"
#include "ip_volr/IP_VOLRC_VolumeRenderingRC.h"

#include <array>
#include <cstdint>
#include <functional>
#include <list>
#include <memory>
#include <string>
#include <vector>

namespace raycast_test {

using Vec = std::array<double, 3>;
constexpr int kNumTissues = 16;

Vec add(const Vec& a, const Vec& b);
Vec scaled(const Vec& a, double f);
double dot(const Vec& a, const Vec& b);
Vec unit(const Vec& a);

// Everything that decides a picture. Values are stored values; index 0 of a table is the lowest one.
struct Scene {
    std::array<int, 3> dims = {64, 64, 64};
    Vec spacing_mm = {1.0, 1.0, 1.0};
    std::array<Vec, 3> axes = {Vec{1, 0, 0}, Vec{0, 1, 0}, Vec{0, 0, 1}};  // of the voxel grid, unit vectors
    Vec middle_mm = {0.0, 0.0, 0.0};
    bool is_signed = true;
    int bits = 12;
    std::vector<std::int16_t> voxels;   // x fastest
    std::vector<std::uint8_t> tissues;  // per voxel; empty: none

    std::vector<std::array<std::uint32_t, 65536>> colours{kNumTissues};
    std::vector<std::array<std::uint64_t, 65536>> weights{kNumTissues};
    bool use_weight_tables = false;
    bool shaded = true;

    // Picture: axes in physical space, pixels per mm.
    Vec right = {1, 0, 0};
    Vec down = {0, 1, 0};
    Vec into = {0, 0, 1};
    Vec light = {0.3, 0.4, 0.866};  // on the screen, direction of travel
    int width = 80;
    int height = 72;
    double pixels_per_mm = 1.0;
    std::vector<std::array<double, 4>> planes;  // inside is not positive

    int lowest() const { return is_signed ? -(1 << (bits - 1)) : 0; }
    int voxel(int x, int y, int z) const {
        const std::int16_t v =
            voxels[static_cast<std::size_t>((static_cast<long long>(z) * dims[1] + y) * dims[0] + x)];
        return is_signed ? v : static_cast<std::uint16_t>(v);
    }

    // Fills the voxels from a function of the voxel-centre index.
    void fill(const std::function<double(double, double, double)>& value);
    // A table: opacity and colour (0 to 1) of a stored value.
    void set_table(int tissue, const std::function<std::array<double, 4>(double)>& argb);
    // Turns the view: azimuth about the picture's vertical axis, then elevation, radians.
    void turn(double azimuth, double elevation);
};

// A sphere with a soft edge around the volume's middle, on a ramp that stays transparent: smooth opacity from the
// sphere's rim inwards, warm colour.
Scene sphere_scene(std::array<int, 3> dims, Vec spacing_mm, bool is_signed);

// Slices of the host, made from the scene's voxels.
std::shared_ptr<IP_VolData> make_volume(const Scene& scene);
std::shared_ptr<IP_VolData> make_tissue_volume(const Scene& scene);

// A host: the facade with everything it needs to stay alive.
class Renderer {
public:
    explicit Renderer(const Scene& scene);
    // Draws a host's volume, which has the scene's lattice.
    Renderer(const Scene& scene, std::shared_ptr<IP_VolData> volume);

    // Passes the whole scene to the facade.
    void pass_scene();
    void pass_view();
    void pass_tables();
    void pass_planes();
    // Draws over a background of one colour; empty when the engine refuses.
    std::vector<std::uint32_t> render(std::uint32_t background = 0);
    bool render_into(std::vector<std::uint32_t>& picture);  // of the right size; empty when there is none

    Scene scene;
    std::shared_ptr<IP_VolData> volume;
    IP_MultiVolData volumes;
    IP_MultiVolData tissues;
    IP_VOLRC_VolumeRenderingRC facade{0, 0};
};

// Physical point of a pixel's centre on the plane through the volume's middle.
Vec pixel_mm(const Scene& scene, double x, double y);

// Peak signal-to-noise ratio in dB of the colour bytes, against the engine's greatest colour of 127.
double colour_psnr(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b);
// The same of the transparency byte, against 255.
double transparency_psnr(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b);

// Writes a picture as PPM, colours doubled for display, into the folder named by RAYCAST_PICTURES; else does nothing.
void dump(const std::string& name, const std::vector<std::uint32_t>& picture, int width, int height);

}  // namespace raycast_test
