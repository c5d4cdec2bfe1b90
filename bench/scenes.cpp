#include "bench/scenes.h"

#include "host/reference/settings.h"
#include "scene/presets.h"

#include <algorithm>
#include <cstdlib>

namespace volr_bench {

namespace {

const char* real_path() {
    return std::getenv("VOLR_BENCH_VOLUME");
}

std::array<int, 3> phantom_size(const std::string& name) {
    return name == "head256"   ? std::array{256, 256, 256}
           : name == "head512" ? std::array{512, 512, 400}
                               : std::array{512, 512, 1000};
}

scene::ImportedVolume grid_of(const scene::Phantom& phantom) {
    const scene::Vec3& d = phantom.spacing_mm;
    const scene::Vec3& o = phantom.origin_mm;
    scene::ImportedVolume volume;
    volume.dims = phantom.size;
    volume.spacing_mm = {d.x, d.y, d.z};
    volume.index_to_patient = {d.x, 0, 0, o.x, 0, d.y, 0, o.y, 0, 0, d.z, o.z};
    volume.voxels = scene::VoxelBuffer(phantom.voxels.size());
    return volume;
}

// What many people try: thin air is faintly visible, so that nothing can be skipped and no ray ends early.
scene::TransferFunction half_transparent() {
    scene::TransferFunction function = *scene::FindPreset("ct-soft-tissue");
    function.name = "half-transparent";
    function.opacity = {{-1100.0, 0.004}, {-200.0, 0.006}, {100.0, 0.02}, {400.0, 0.05}, {3000.0, 0.05}};
    return function;
}

}  // namespace

std::vector<std::string> volume_names() {
    std::vector<std::string> names = {"head256", "head512"};
    // Voxels, labels and the import's copy of them, with room for what else there is.
    constexpr std::int64_t kLargest = std::int64_t{3} << 30;
    if (reference_host::GetMemoryBudget() > kLargest) {
        names.emplace_back("head1000");
    }
    if (real_path() != nullptr) {
        names.emplace_back("real");
    }
    return names;
}

Volume& volume(const std::string& name) {
    static Volume current;
    if (current.name == name) {
        return current;
    }
    current = Volume();
    if (name == "real") {
        current.source = std::make_unique<scene::VolumeSource>(scene::ImportVolume(real_path()));
    } else {
        const scene::Phantom phantom = scene::MakePhantom({scene::PhantomKind::kHead, phantom_size(name), 1});
        current.labels = imported_labels(phantom);
        current.source = std::make_unique<scene::VolumeSource>(imported(phantom));
    }
    current.name = name;
    return current;
}

scene::ImportedVolume imported(const scene::Phantom& phantom) {
    scene::ImportedVolume result = grid_of(phantom);
    std::copy(phantom.voxels.begin(), phantom.voxels.end(), result.voxels.data());
    const auto [lowest, highest] = std::minmax_element(phantom.voxels.begin(), phantom.voxels.end());
    result.is_signed = true;
    result.min_value = *lowest;
    result.max_value = *highest;
    result.bits_stored = 13;
    result.modality = "CT";
    return result;
}

scene::ImportedVolume imported_labels(const scene::Phantom& phantom) {
    scene::ImportedVolume result = grid_of(phantom);
    std::copy(phantom.labels.begin(), phantom.labels.end(), result.voxels.data());
    result.max_value = 6;
    result.bits_stored = 3;
    return result;
}

const scene::TransferFunction& look(const std::string& name) {
    static const scene::TransferFunction half = half_transparent();
    return name == "half" ? half : *scene::FindPreset(name == "skin" ? "ct-skin" : "ct-bone");
}

scene::View view_of(double azimuth_deg, double elevation_deg, int size) {
    scene::View view;
    view.azimuth_deg = azimuth_deg;
    view.elevation_deg = elevation_deg;
    view.width = size;
    view.height = size;
    return view;
}

}  // namespace volr_bench
