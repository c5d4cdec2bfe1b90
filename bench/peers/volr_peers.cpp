// Draws the same volume, view, transfer function and step with this library and with a peer, in one run, two threads
// each, and prints seconds and ratios. Pictures of both sides go next to each other into a folder, so that nobody
// compares unlike things.
//
// Usage: volr_peers FOLDER [X,Y,Z]
//
// Where the work differs: our MIP composites slices resampled inside their planes (shear-warp), theirs samples along
// rays at the step; the fast MIP reads data reduced by 2x2 maxima. Our shading works in index space with a two-lobe
// highlight.
#include "scene/phantom.h"
#include "scene/picture.h"
#include "scene/presets.h"
#include "scene/projection.h"
#include "scene/views.h"
#include "scene/volume_rendering.h"
#include "scene/volume_source.h"
#include "vtk_renderer.h"

#include "host/reference/settings.h"

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNumThreads = 2;
constexpr int kNumPeerFrames = 3;
constexpr int kNumOwnFrames = 9;
constexpr double kFinalStepVoxels = 0.3;  // of our enhanced final frames

struct Timing {
    double first = 0.0;  // set-up included
    double best = 1e300;
};

Timing time_frames(int num_frames, const std::function<void()>& draw) {
    Timing timing;
    for (int i = 0; i < num_frames + 1; ++i) {
        const auto start = Clock::now();
        draw();
        const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
        if (i == 0) {
            timing.first = seconds;
        } else {
            timing.best = std::min(timing.best, seconds);
        }
    }
    return timing;
}

void print_row(const char* scene, const Timing& own, const Timing& peer) {
    std::printf("%-34s %9.1f %9.1f %7.1fx   %9.1f %9.1f %7.1fx\n", scene, own.best * 1e3, peer.best * 1e3,
                peer.best / own.best, own.first * 1e3, peer.first * 1e3, peer.first / own.first);
    std::fflush(stdout);
}

scene::ImportedVolume imported(const scene::Phantom& phantom) {
    scene::ImportedVolume volume;
    volume.dims = phantom.size;
    volume.spacing_mm = {phantom.spacing_mm.x, phantom.spacing_mm.y, phantom.spacing_mm.z};
    volume.index_to_patient = {phantom.spacing_mm.x,
                               0,
                               0,
                               phantom.origin_mm.x,
                               0,
                               phantom.spacing_mm.y,
                               0,
                               phantom.origin_mm.y,
                               0,
                               0,
                               phantom.spacing_mm.z,
                               phantom.origin_mm.z};
    volume.voxels = scene::VoxelBuffer(phantom.voxels.size());
    std::copy(phantom.voxels.begin(), phantom.voxels.end(), volume.voxels.data());
    volume.is_signed = true;
    const auto [lowest, highest] = std::minmax_element(phantom.voxels.begin(), phantom.voxels.end());
    volume.min_value = *lowest;
    volume.max_value = *highest;
    volume.bits_stored = 13;
    volume.modality = "CT";
    return volume;
}

// Half transparent everywhere: what skipping cannot help.
scene::TransferFunction half_transparent() {
    scene::TransferFunction function = *scene::FindPreset("ct-soft-tissue");
    function.name = "half-transparent";
    function.opacity = {{-1100.0, 0.001}, {-200.0, 0.004}, {100.0, 0.02}, {400.0, 0.05}, {3000.0, 0.05}};
    return function;
}

class Comparison {
public:
    Comparison(std::string folder, const std::array<int, 3>& size)
        : m_Folder(std::move(folder)),
          m_Phantom(scene::MakePhantom({scene::PhantomKind::kHead, size, 1})),
          m_Source(imported(m_Phantom)) {
        m_View.azimuth_deg = 30.0;
        m_View.elevation_deg = 15.0;
        m_Camera = scene::MakeCamera(m_View, m_Source.GetSubject());
    }

    void Maximum(const char* name, bool linear) {
        scene::Projection projection(m_Source, linear);
        projection.SetView(m_Camera, m_View);
        scene::ProjectedPicture own_picture;
        const Timing own = time_frames(kNumOwnFrames, [&] { own_picture = projection.Draw(); });

        const scene::DisplayWindow window{500.0, 2000.0};
        peers::PeerRequest request;
        request.blend = peers::Blend::kMaximum;
        request.step_mm = m_Phantom.spacing_mm.x;
        request.num_threads = kNumThreads;
        request.window_low = window.centre - window.width / 2.0;
        request.window_high = window.centre + window.width / 2.0;
        const Timing peer = Peer(request, name);
        scene::WritePng(m_Folder + "/" + name + "-own.png", scene::Windowed(own_picture, m_Source, window));
        print_row(name, own, peer);
    }

    void Composite(const char* name, const scene::TransferFunction& function, bool shaded, scene::RenderQuality quality,
                   double step_voxels) {
        scene::VolumeRendering rendering(m_Source);
        rendering.SetTransfer(function, shaded);
        rendering.SetQuality(quality);
        rendering.SetView(m_Camera, scene::Light{0.0, 0.0});
        scene::Picture own_picture;
        const Timing own = time_frames(kNumOwnFrames, [&] { own_picture = rendering.Draw({}); });

        peers::PeerRequest request;
        request.transfer = &function;
        request.shaded = shaded;
        request.step_mm = step_voxels * m_Phantom.spacing_mm.x;
        request.num_threads = kNumThreads;
        const Timing peer = Peer(request, name);
        scene::WritePng(m_Folder + "/" + name + "-own.png", own_picture);
        print_row(name, own, peer);
    }

private:
    Timing Peer(const peers::PeerRequest& request, const char* name) {
        Timing timing;
        const auto start = Clock::now();
        peers::VtkRenderer peer(m_Phantom, request);
        peer.SetCamera(m_Camera);
        peer.Draw();
        timing.first = std::chrono::duration<double>(Clock::now() - start).count();
        for (int i = 0; i < kNumPeerFrames; ++i) {
            timing.best = std::min(timing.best, peer.Draw());
        }
        scene::WritePng(m_Folder + "/" + name + "-peer.png", peer.LastPicture());
        return timing;
    }

    std::string m_Folder;
    scene::Phantom m_Phantom;
    scene::VolumeSource m_Source;
    scene::View m_View;
    scene::Camera m_Camera;
};

}  // namespace

int main(int argc, char** argv) {
    std::array<int, 3> size = {512, 512, 400};
    if (argc < 2 || (argc > 2 && std::sscanf(argv[2], "%d,%d,%d", &size[0], &size[1], &size[2]) != 3)) {
        std::fputs("usage: volr_peers FOLDER [X,Y,Z]\n", stderr);
        return 2;
    }
    reference_host::SetNumberOfServers(kNumThreads);
    Comparison comparison(argv[1], size);
    std::printf("%-34s %9s %9s %8s   %9s %9s %8s\n", "best frame, first frame (ms)", "own", "peer", "ratio", "own",
                "peer", "ratio");

    const scene::TransferFunction& opaque = *scene::FindPreset("ct-bone");
    const scene::TransferFunction& skin = *scene::FindPreset("ct-skin");
    const scene::TransferFunction half = half_transparent();
    using Quality = scene::RenderQuality;
    comparison.Maximum("mip-fast", false);
    comparison.Maximum("mip-linear", true);
    comparison.Composite("opaque-final", opaque, true, Quality::kEnhanced, kFinalStepVoxels);
    comparison.Composite("opaque-final-unshaded", opaque, false, Quality::kEnhanced, kFinalStepVoxels);
    comparison.Composite("skin-final", skin, true, Quality::kEnhanced, kFinalStepVoxels);
    comparison.Composite("half-final", half, true, Quality::kEnhanced, kFinalStepVoxels);
    comparison.Composite("half-final-unshaded", half, false, Quality::kEnhanced, kFinalStepVoxels);
    // Interactive frames, beside the peer's frame at one voxel.
    comparison.Composite("opaque-interactive0", opaque, true, Quality::kInteractive0, 1.0);
    comparison.Composite("opaque-interactive1", opaque, true, Quality::kInteractive1, 1.0);
    comparison.Composite("opaque-interactive2", opaque, true, Quality::kInteractive2, 1.0);
    comparison.Composite("half-interactive0", half, true, Quality::kInteractive0, 1.0);
    return 0;
}
