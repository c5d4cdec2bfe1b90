// The smallest host: makes a volume of its own, draws it shaded and writes the picture as a portable pixmap.
//
//     minimal_host PICTURE.ppm
#include "host/images.h"
#include "host/multi_volume.h"
#include "ip_volr/IP_VOLRC_VolumeRenderingRC.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <vector>

namespace {

constexpr int kEdge = 96;      // voxels of 1 mm along each axis of the volume
constexpr int kBits = 12;      // stored values are signed, -2048 to 2047
constexpr int kPicture = 256;  // pixels along each edge of the picture
constexpr int kTissues = 16;
constexpr int kNumEntries = 1 << kBits;

// A hollow ball with a bar through it.
short value_at(int x, int y, int z) {
    const double dx = x - (kEdge - 1) / 2.0;
    const double dy = y - (kEdge - 1) / 2.0;
    const double dz = z - (kEdge - 1) / 2.0;
    const double to_shell_mm = std::fabs(std::sqrt(dx * dx + dy * dy + dz * dz) - 30.0);
    const double to_bar_mm = std::hypot(dx, dy);
    const double depth_mm = std::max(6.0 - to_shell_mm, 8.0 - to_bar_mm);
    return static_cast<short>(std::clamp(depth_mm * 200.0, -1000.0, 1500.0));
}

// A slice lives in a block of the host's memory pager and owns it.
IP_Slice* make_slice(int z) {
    auto block = std::make_unique<MEM_PagerInfo>(MEM_MemPager::GetHandleForMP());
    if (MEM_MemPager::GetHandleForMP()->Allocate(kEdge * kEdge * sizeof(short), block.get(), 0) != 0) {
        return nullptr;
    }
    short* pixel = static_cast<short*>(block->Ptr());
    for (int y = 0; y < kEdge; ++y) {
        for (int x = 0; x < kEdge; ++x) {
            *pixel++ = value_at(x, y, z);
        }
    }
    block->Unmap();
    const PixelDataAttributes attributes{kEdge, kEdge, kBits, true};
    auto* const slice = new IP_ShortSlice(block.release(), attributes, 0);
    slice->SetOwnsData(true);
    return slice;
}

IP_MultiVolData make_volumes() {
    IP_Box box(kEdge, kEdge, kEdge, 1.0F, 1.0F, 1.0F);
    box.Centralize();
    const auto volume = std::make_shared<IP_VolData>(&box, kEdge);
    for (int z = 0; z < kEdge; ++z) {
        volume->SetSlice(make_slice(z), z);
    }
    IP_MultiVolData volumes;
    volumes.AddVolData(volume);
    return volumes;
}

// Transparent below value 0, then more and more opaque, from red to yellow. Bytes: opacity per mm, red, green, blue.
std::vector<unsigned> make_colours() {
    std::vector<unsigned> colours(kNumEntries);
    for (int i = 0; i < kNumEntries; ++i) {
        const int value = std::clamp(i - kNumEntries / 2, 0, 1000);
        const auto opacity = static_cast<unsigned>(value * 200 / 1000);
        const auto green = static_cast<unsigned>(80 + value * 150 / 1000);
        colours[static_cast<std::size_t>(i)] = opacity << 24 | 255U << 16 | green << 8 | 60U;
    }
    return colours;
}

// Turns the volume by 30 degrees about the picture's vertical axis, and shows 2 pixels for a millimetre.
void set_view(IP_VOLRC_VolumeRenderingRC& renderer) {
    const float cosine = std::cos(0.5236F);
    const float sine = std::sin(0.5236F);
    constexpr float kMiddle = (kPicture - 1) / 2.0F;
    float projection[4][4] = {{cosine, 0, sine, 0}, {0, 1, 0, 0}, {-sine, 0, cosine, 0}, {0, 0, 0, 1}};
    float on_screen[4][4] = {{2, 0, 0, 0}, {0, 2, 0, 0}, {0, 0, 1, 0}, {kMiddle, kMiddle, 0, 1}};
    double light[3] = {0.3, 0.4, 0.866};
    renderer.SetProjection(projection);
    renderer.Set2DTransform(on_screen);
    renderer.SetLightDirection(light);
}

void write_picture(const char* path, const std::vector<unsigned>& pixels) {
    std::ofstream file(path, std::ios::binary);
    file << "P6\n" << kPicture << " " << kPicture << "\n255\n";
    for (const unsigned pixel : pixels) {
        // The engine's colours leave headroom: twice as bright is what the eye expects.
        for (const int shift : {16, 8, 0}) {
            file.put(static_cast<char>(std::min(2U * ((pixel >> shift) & 255U), 255U)));
        }
    }
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::fprintf(stderr, "usage: minimal_host PICTURE.ppm\n");
        return 2;
    }

    // Everything that the renderer is given outlives it.
    IP_MultiVolData volumes = make_volumes();
    const std::vector<unsigned> colours = make_colours();
    std::array<const unsigned*, kTissues> colour_tables;
    std::array<const unsigned long long*, kTissues> opacity_tables;
    colour_tables.fill(colours.data() + kNumEntries / 2);  // where the entry of value 0 stands
    opacity_tables.fill(nullptr);

    IP_VOLRC_VolumeRenderingRC renderer(0, 0);
    renderer.SetVolumeData(&volumes, true);
    renderer.SetMaxLayerLoaded((kEdge - 1) / 32 + 1);
    renderer.SetColorTables(colour_tables.data(), opacity_tables.data(), kBits, false);
    renderer.SetLightingMode(IP_VOLRC_VolumeRenderingRC::LIGHTING_ON);
    renderer.SetRenderMode(IP_VOLRC_VolumeRenderingRC::RENDER_MODE_FINAL);
    set_view(renderer);

    std::vector<unsigned> pixels(static_cast<std::size_t>(kPicture) * kPicture, 0U);
    if (!renderer.Render(pixels.data(), kPicture, kPicture)) {
        std::fprintf(stderr, "minimal_host: nothing could be drawn\n");
        return 1;
    }
    write_picture(argv[1], pixels);
    return std::count(pixels.begin(), pixels.end(), 0U) == kPicture * kPicture ? 1 : 0;
}
