#include "tests/raycast/scene.h"

#include "host/clipping.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>
#include <fstream>

namespace raycast_test {

Vec add(const Vec& a, const Vec& b) {
    return {a[0] + b[0], a[1] + b[1], a[2] + b[2]};
}
Vec scaled(const Vec& a, double f) {
    return {a[0] * f, a[1] * f, a[2] * f};
}
double dot(const Vec& a, const Vec& b) {
    return a[0] * b[0] + a[1] * b[1] + a[2] * b[2];
}
Vec unit(const Vec& a) {
    return scaled(a, 1.0 / std::sqrt(dot(a, a)));
}

void Scene::fill(const std::function<double(double, double, double)>& value) {
    voxels.resize(static_cast<std::size_t>(dims[0]) * static_cast<std::size_t>(dims[1]) *
                  static_cast<std::size_t>(dims[2]));
    std::size_t i = 0;
    const double highest = lowest() + (1 << bits) - 1;
    for (int z = 0; z < dims[2]; z++) {
        for (int y = 0; y < dims[1]; y++) {
            for (int x = 0; x < dims[0]; x++, i++) {
                const double v = std::clamp(std::round(value(x, y, z)), static_cast<double>(lowest()), highest);
                voxels[i] = static_cast<std::int16_t>(static_cast<int>(v));
            }
        }
    }
}

void Scene::set_table(int tissue, const std::function<std::array<double, 4>(double)>& argb) {
    auto& table = colours[static_cast<std::size_t>(tissue)];
    for (int i = 0; i < (1 << bits); i++) {
        std::uint32_t entry = 0;
        for (const double channel : argb(i + lowest())) {
            entry = entry << 8 | static_cast<std::uint32_t>(std::lround(std::clamp(channel, 0.0, 1.0) * 255.0));
        }
        table[static_cast<std::size_t>(i)] = entry;
    }
}

void Scene::turn(double azimuth, double elevation) {
    const auto rotate = [](Vec& a, Vec& b, double angle) {
        const Vec rotated = add(scaled(a, std::cos(angle)), scaled(b, std::sin(angle)));
        b = add(scaled(b, std::cos(angle)), scaled(a, -std::sin(angle)));
        a = rotated;
    };
    rotate(right, into, azimuth);
    rotate(down, into, elevation);
}

Scene sphere_scene(std::array<int, 3> dims, Vec spacing_mm, bool is_signed) {
    Scene scene;
    scene.dims = dims;
    scene.spacing_mm = spacing_mm;
    scene.is_signed = is_signed;
    const Vec middle = {(dims[0] - 1) / 2.0, (dims[1] - 1) / 2.0, (dims[2] - 1) / 2.0};
    double radius_mm = 1e9;
    for (std::size_t j = 0; j < 3; j++) {
        radius_mm = std::min(radius_mm, 0.4 * dims[j] * spacing_mm[j]);
    }
    const double base = scene.lowest() + 1000.0;
    scene.fill([&](double x, double y, double z) {
        const Vec from_middle = {(x - middle[0]) * spacing_mm[0], (y - middle[1]) * spacing_mm[1],
                                 (z - middle[2]) * spacing_mm[2]};
        const double depth_mm = radius_mm - std::sqrt(dot(from_middle, from_middle));
        return base + 60.0 * depth_mm;
    });
    const double full = 60.0 * 0.5 * radius_mm;
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        scene.set_table(tissue, [&](double v) -> std::array<double, 4> {
            const double t = std::clamp((v - base) / full, 0.0, 1.0);
            return {0.45 * t * t * (3 - 2 * t), 0.95, 0.8 - 0.4 * t, 0.5 + 0.1 * (tissue % 4)};
        });
    }
    scene.pixels_per_mm = 0.45 * std::min(scene.width, scene.height) / radius_mm;
    return scene;
}

namespace {

IP_Box box_of(const Scene& scene) {
    IP_Box box(scene.dims[0], scene.dims[1], scene.dims[2]);
    float vecs[3][3];
    float start[3];
    for (std::size_t i = 0; i < 3; i++) {
        double corner = scene.middle_mm[i];
        for (std::size_t axis = 0; axis < 3; axis++) {
            const double len_mm = scene.dims[axis] * scene.spacing_mm[axis];
            vecs[axis][i] = static_cast<float>(scene.axes[axis][i] * len_mm);
            corner -= 0.5 * scene.axes[axis][i] * len_mm;
        }
        start[i] = static_cast<float>(corner);
    }
    box.SetParams(vecs);
    box.SetStart(start);
    return box;
}

template <class Slice>
std::shared_ptr<IP_VolData> volume_of_slices(const Scene& scene, std::size_t slice_bytes,
                                             const std::function<void(int, void*)>& write) {
    IP_Box box = box_of(scene);
    auto volume = std::make_shared<IP_VolData>(&box, scene.dims[2]);
    for (int z = 0; z < scene.dims[2]; z++) {
        auto* const block = new MEM_PagerInfo(MEM_MemPager::GetHandleForMP());
        MEM_MemPager::GetHandleForMP()->Allocate(static_cast<unsigned>(slice_bytes), block, 0);
        write(z, block->Ptr());
        block->Unmap();
        auto* const slice = new Slice(block, {scene.dims[0], scene.dims[1], scene.bits, scene.is_signed}, 0);
        slice->SetOwnsData(true);
        volume->SetSlice(slice, z);
    }
    return volume;
}

}  // namespace

std::shared_ptr<IP_VolData> make_volume(const Scene& scene) {
    const std::size_t slice_voxels = static_cast<std::size_t>(scene.dims[0]) * static_cast<std::size_t>(scene.dims[1]);
    return volume_of_slices<IP_ShortSlice>(scene, slice_voxels * 2, [&](int z, void* pixels) {
        std::memcpy(pixels, scene.voxels.data() + static_cast<std::size_t>(z) * slice_voxels, slice_voxels * 2);
    });
}

std::shared_ptr<IP_VolData> make_tissue_volume(const Scene& scene) {
    const std::size_t slice_voxels = static_cast<std::size_t>(scene.dims[0]) * static_cast<std::size_t>(scene.dims[1]);
    return volume_of_slices<IP_TisIndSlice>(scene, (slice_voxels + 1) / 2, [&](int z, void* pixels) {
        auto* const bytes = static_cast<std::uint8_t*>(pixels);
        std::memset(bytes, 0, (slice_voxels + 1) / 2);
        for (std::size_t i = 0; i < slice_voxels; i++) {
            const unsigned tissue = scene.tissues[static_cast<std::size_t>(z) * slice_voxels + i];
            bytes[i / 2] = static_cast<std::uint8_t>(bytes[i / 2] | tissue << (i % 2 * 4));
        }
    });
}

Renderer::Renderer(const Scene& from) : Renderer(from, make_volume(from)) {}

Renderer::Renderer(const Scene& from, std::shared_ptr<IP_VolData> source) : scene(from), volume(std::move(source)) {
    volumes.AddVolData(volume);
    if (!scene.tissues.empty()) {
        tissues.AddVolData(make_tissue_volume(scene));
    }
    pass_scene();
}

void Renderer::pass_scene() {
    facade.SetVolumeData(&volumes, scene.is_signed);
    facade.SetMaxLayerLoaded((scene.dims[2] - 1) / 32 + 1);
    if (!scene.tissues.empty()) {
        facade.SetVolumeTissues(&tissues);
    }
    facade.SetLightingMode(scene.shaded ? IP_VOLRC_VolumeRenderingRC::LIGHTING_ON
                                        : IP_VOLRC_VolumeRenderingRC::LIGHTING_OFF);
    pass_tables();
    pass_view();
    pass_planes();
}

void Renderer::pass_tables() {
    const unsigned* colours[kNumTissues];
    const unsigned long long* weights[kNumTissues];
    const int zero = -scene.lowest();
    for (std::size_t tissue = 0; tissue < kNumTissues; tissue++) {
        colours[tissue] = scene.colours[tissue].data() + zero;
        weights[tissue] = reinterpret_cast<const unsigned long long*>(scene.weights[tissue].data()) + zero;
        if (!scene.use_weight_tables) {
            weights[tissue] = nullptr;
        }
    }
    facade.SetColorTables(colours, weights, scene.bits, false);
}

void Renderer::pass_view() {
    float projection[4][4] = {};
    float on_screen[4][4] = {};
    for (std::size_t i = 0; i < 3; i++) {
        projection[i][0] = static_cast<float>(scene.right[i]);
        projection[i][1] = static_cast<float>(scene.down[i]);
        projection[i][2] = static_cast<float>(scene.into[i]);
    }
    projection[3][3] = 1.0F;
    on_screen[0][0] = on_screen[1][1] = static_cast<float>(scene.pixels_per_mm);
    on_screen[2][2] = on_screen[3][3] = 1.0F;
    on_screen[3][0] = static_cast<float>((scene.width - 1) / 2.0);
    on_screen[3][1] = static_cast<float>((scene.height - 1) / 2.0);
    facade.SetProjection(projection);
    facade.Set2DTransform(on_screen);
    Vec light = scene.light;
    facade.SetLightDirection(light.data());
}

void Renderer::pass_planes() {
    IP_ClipManager planes;
    for (std::size_t i = 0; i < scene.planes.size(); i++) {
        float equation[4];
        std::copy(scene.planes[i].begin(), scene.planes[i].end(), equation);
        planes.NewClipPlane(static_cast<int>(i))->SetPlaneEq(equation);
    }
    facade.SetClippingPlanes(&planes);
}

std::vector<std::uint32_t> Renderer::render(std::uint32_t background) {
    std::vector<std::uint32_t> picture(static_cast<std::size_t>(scene.width) * static_cast<std::size_t>(scene.height),
                                       background);
    render_into(picture);
    return picture;
}

bool Renderer::render_into(std::vector<std::uint32_t>& picture) {
    const bool drawn = facade.Render(picture.data(), scene.width, scene.height);
    if (!drawn) {
        picture.clear();
    }
    return drawn;
}

Vec pixel_mm(const Scene& scene, double x, double y) {
    const double along_right = (x - (scene.width - 1) / 2.0) / scene.pixels_per_mm;
    const double along_down = (y - (scene.height - 1) / 2.0) / scene.pixels_per_mm;
    return add(scene.middle_mm, add(scaled(scene.right, along_right), scaled(scene.down, along_down)));
}

namespace {

double psnr(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b, int first_shift, int last_shift,
            double peak) {
    if (a.size() != b.size() || a.empty()) {
        return 0.0;
    }
    double sum = 0.0;
    double count = 0.0;
    for (std::size_t i = 0; i < a.size(); i++) {
        for (int shift = first_shift; shift <= last_shift; shift += 8) {
            const int difference = static_cast<int>(a[i] >> shift & 255) - static_cast<int>(b[i] >> shift & 255);
            sum += difference * difference;
            count += 1.0;
        }
    }
    return sum == 0.0 ? 200.0 : 10.0 * std::log10(peak * peak * count / sum);
}

}  // namespace

double colour_psnr(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    return psnr(a, b, 0, 16, 127.0);
}

double transparency_psnr(const std::vector<std::uint32_t>& a, const std::vector<std::uint32_t>& b) {
    return psnr(a, b, 24, 24, 255.0);
}

void dump(const std::string& name, const std::vector<std::uint32_t>& picture, int width, int height) {
    const char* const folder = std::getenv("RAYCAST_PICTURES");
    if (folder == nullptr || picture.empty()) {
        return;
    }
    std::ofstream file(std::string(folder) + "/" + name + ".ppm", std::ios::binary);
    file << "P6\n" << width << " " << height << "\n255\n";
    for (const std::uint32_t pixel : picture) {
        for (int shift = 16; shift >= 0; shift -= 8) {
            file.put(static_cast<char>(std::min(255U, 2 * (pixel >> shift & 255))));
        }
    }
}

}  // namespace raycast_test
