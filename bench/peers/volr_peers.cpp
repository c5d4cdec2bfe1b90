// Draws the same volume, view, transfer function and step with this library and with a peer, in one run, two threads
// each in turn, and prints milliseconds and ratios, then how far both sides are from a model in double precision.
// Pictures of both sides go next to each other into a folder, so that nobody compares unlike things.
//
// Usage: volr_peers FOLDER [X,Y,Z]
//
// Where the work differs: our MIP composites slices resampled inside their planes (shear-warp), theirs samples along
// rays at the step; the fast MIP reads data reduced by 2x2 maxima. Our shading works in index space with a two-lobe
// highlight.
#include "bench/scenes.h"
#include "models.h"
#include "scene/phantom.h"
#include "scene/picture.h"
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
#include <optional>
#include <string>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int kNumThreads = 2;
constexpr int kRounds = 3;
constexpr int kOwnFramesPerRound = 3;
constexpr double kFinalStepVoxels = 0.3;  // of our enhanced final frames

struct Timing {
    double first = 0.0;  // set-up included
    double best = 1e300;
};

void add_frame(Timing& timing, const std::function<void()>& draw) {
    const auto start = Clock::now();
    draw();
    timing.best = std::min(timing.best, std::chrono::duration<double>(Clock::now() - start).count());
}

// The first frame of both sides, then rounds of frames in turn: the machine's speed drifts. Set-up counts with the
// first frame.
struct Race {
    Timing own;
    Timing peer;

    Race(const std::function<void()>& own_setup, const std::function<void()>& peer_setup,
         const std::function<void()>& own_frame, const std::function<void()>& peer_frame, int rounds) {
        add_frame(own, own_setup);
        add_frame(peer, peer_setup);
        own = {own.best, 1e300};
        peer = {peer.best, 1e300};
        for (int round = 0; round < rounds; ++round) {
            for (int i = 0; i < kOwnFramesPerRound; ++i) {
                add_frame(own, own_frame);
            }
            add_frame(peer, peer_frame);
        }
    }
};

void print_row(const char* scene, const Timing& own, const Timing& peer) {
    std::printf("%-34s %9.1f %9.1f %7.1fx   %9.1f %9.1f %7.1fx\n", scene, own.best * 1e3, peer.best * 1e3,
                peer.best / own.best, own.first * 1e3, peer.first * 1e3, peer.first / own.first);
    std::fflush(stdout);
}

const scene::DisplayWindow kWindow{500.0, 2000.0};

class Comparison {
public:
    Comparison(std::string folder, const std::array<int, 3>& size, int picture_size)
        : m_Folder(std::move(folder)),
          m_Phantom(scene::MakePhantom({scene::PhantomKind::kHead, size, 1})),
          m_Source(volr_bench::imported(m_Phantom)),
          m_View(volr_bench::view_of(30.0, 15.0, picture_size)),
          m_Camera(scene::MakeCamera(m_View, m_Source.GetSubject())) {}

    void Maximum(const char* name, bool linear) {
        std::optional<scene::Projection> projection;
        scene::ProjectedPicture own;
        const auto draw = [&] { own = projection->Draw(); };
        const auto set_up = [&] {
            projection.emplace(m_Source, linear);
            projection->SetView(m_Camera, m_View);
            draw();
        };
        Compare(
            name, set_up, draw, [&] { return scene::Windowed(own, m_Source, kWindow); }, MaximumRequest());
    }

    void Composite(const char* name, const scene::TransferFunction& function, bool shaded, scene::RenderQuality quality,
                   double step_voxels) {
        std::optional<scene::VolumeRendering> rendering;
        scene::Picture own;
        const auto draw = [&] { own = rendering->Draw({}); };
        const auto set_up = [&] {
            rendering.emplace(m_Source);
            rendering->SetTransfer(function, shaded);
            rendering->SetQuality(quality);
            rendering->SetView(m_Camera, scene::Light{0.0, 0.0});
            draw();
        };
        Compare(
            name, set_up, draw, [&] { return own; }, CompositeRequest(function, shaded, step_voxels));
    }

    // How far both sides are from the model, and from each other.
    void MaximumFidelity(const char* name, bool linear) {
        scene::Projection projection(m_Source, linear);
        projection.SetView(m_Camera, m_View);
        const scene::Picture own = scene::Windowed(projection.Draw(), m_Source, kWindow);
        Fidelity(name, own, peers::maximum_model(m_Phantom, m_Source, m_Camera, kWindow), MaximumRequest());
    }

    void CompositeFidelity(const char* name, const scene::TransferFunction& function) {
        const scene::TransferFunction tabled = peers::as_tabled(function, m_Source);
        scene::VolumeRendering rendering(m_Source);
        rendering.SetTransfer(function, false);
        rendering.SetView(m_Camera, scene::Light{0.0, 0.0});
        const scene::Picture own = rendering.Draw({});
        const scene::Picture model = peers::composite_model(m_Phantom, m_Source, function, m_Camera, kFinalStepVoxels);
        Fidelity(name, own, model, CompositeRequest(tabled, false, kFinalStepVoxels));
    }

private:
    peers::PeerRequest MaximumRequest() const {
        peers::PeerRequest request;
        request.blend = peers::Blend::kMaximum;
        request.step_mm = m_Phantom.spacing_mm.x;
        request.num_threads = kNumThreads;
        request.window_low = kWindow.centre - kWindow.width / 2.0;
        request.window_high = kWindow.centre + kWindow.width / 2.0;
        return request;
    }

    peers::PeerRequest CompositeRequest(const scene::TransferFunction& function, bool shaded,
                                        double step_voxels) const {
        peers::PeerRequest request;
        request.transfer = &function;
        request.shaded = shaded;
        request.step_mm = step_voxels * m_Phantom.spacing_mm.x;
        request.num_threads = kNumThreads;
        return request;
    }

    void Compare(const std::string& name, const std::function<void()>& own_setup,
                 const std::function<void()>& own_frame, const std::function<scene::Picture()>& own_picture,
                 const peers::PeerRequest& request) {
        std::optional<peers::VtkRenderer> peer;
        const auto peer_setup = [&] {
            peer.emplace(m_Phantom, request);
            peer->SetCamera(m_Camera);
            peer->Draw();
        };
        const Race race(
            own_setup, peer_setup, own_frame, [&] { peer->Draw(); }, kRounds);
        WritePictures(name, own_picture(), peer->LastPicture());
        print_row(name.c_str(), race.own, race.peer);
    }

    void Fidelity(const std::string& name, const scene::Picture& own, const scene::Picture& model,
                  const peers::PeerRequest& request) {
        peers::VtkRenderer peer(m_Phantom, request);
        peer.SetCamera(m_Camera);
        peer.Draw();
        const scene::Picture theirs = peer.LastPicture();
        WritePictures(name, own, theirs);
        scene::WritePng(m_Folder + "/" + name + "-model.png", model);
        std::printf("%-34s %9.1f %9.1f %9.1f\n", name.c_str(), peers::colour_psnr(own, model),
                    peers::colour_psnr(theirs, model), peers::colour_psnr(own, theirs));
        std::fflush(stdout);
    }

    void WritePictures(const std::string& name, const scene::Picture& own, const scene::Picture& peer) {
        scene::WritePng(m_Folder + "/" + name + "-own.png", own);
        scene::WritePng(m_Folder + "/" + name + "-peer.png", peer);
    }

    std::string m_Folder;
    scene::Phantom m_Phantom;
    scene::VolumeSource m_Source;
    scene::View m_View;
    scene::Camera m_Camera;
};

// Only where the optics are the same: light is modelled differently.
void compare_fidelity(const std::string& folder) {
    Comparison small(folder, {200, 200, 160}, 256);
    std::printf("\n%-34s %9s %9s %9s\n", "PSNR (dB), 200x200x160, 256x256", "own/model", "peer/model", "own/peer");
    small.MaximumFidelity("fidelity-mip-linear", true);
    small.MaximumFidelity("fidelity-mip-fast", false);
    small.CompositeFidelity("fidelity-opaque", volr_bench::look("opaque"));
    small.CompositeFidelity("fidelity-skin", volr_bench::look("skin"));
    small.CompositeFidelity("fidelity-half", volr_bench::look("half"));
}

}  // namespace

int main(int argc, char** argv) {
    std::array<int, 3> size = {512, 512, 400};
    if (argc < 2 || (argc > 2 && std::sscanf(argv[2], "%d,%d,%d", &size[0], &size[1], &size[2]) != 3)) {
        std::fputs("usage: volr_peers FOLDER [X,Y,Z]\n", stderr);
        return 2;
    }
    reference_host::SetNumberOfServers(kNumThreads);
    Comparison comparison(argv[1], size, 512);
    std::printf("%-34s %9s %9s %8s   %9s %9s %8s\n", "best frame, first frame (ms)", "own", "peer", "ratio", "own",
                "peer", "ratio");

    const scene::TransferFunction& opaque = volr_bench::look("opaque");
    const scene::TransferFunction& skin = volr_bench::look("skin");
    const scene::TransferFunction& half = volr_bench::look("half");
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
    compare_fidelity(argv[1]);
    return 0;
}
