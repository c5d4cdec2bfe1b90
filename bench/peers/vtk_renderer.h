// The peer: VTK's fixed-point ray caster, set to draw what this library draws.
#pragma once

#include "scene/phantom.h"
#include "scene/picture.h"
#include "scene/transfer_function.h"
#include "scene/views.h"

#include <memory>

namespace peers {

enum class Blend { kMaximum, kComposite };

struct PeerRequest {
    Blend blend = Blend::kComposite;
    const scene::TransferFunction* transfer = nullptr;  // composite; opacity per mm
    bool shaded = true;
    double step_mm = 1.0;
    int num_threads = 2;
    double window_low = 0.0;  // maximum: the values that become black and white
    double window_high = 1.0;
};

// Draws one phantom again and again. Set-up happens with the first frame.
class VtkRenderer {
public:
    VtkRenderer(const scene::Phantom& phantom, const PeerRequest& request);
    ~VtkRenderer();

    void SetCamera(const scene::Camera& camera);
    // Draws a frame; seconds it took.
    double Draw();
    scene::Picture LastPicture() const;

private:
    struct Pipeline;
    std::unique_ptr<Pipeline> m_Pipeline;
};

}  // namespace peers
