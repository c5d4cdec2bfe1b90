// What both sides should draw, in double precision.
#pragma once

#include "scene/phantom.h"
#include "scene/picture.h"
#include "scene/projection.h"
#include "scene/transfer_function.h"
#include "scene/volume_source.h"

namespace peers {

// A final frame without light, at a tenth of the step of ours, developed like ours.
scene::Picture composite_model(const scene::Phantom& phantom, const scene::VolumeSource& source,
                               const scene::TransferFunction& function, const scene::Camera& camera, double step_vox);

// The greatest trilinear value along each ray, sampled every tenth of a voxel, through a window.
scene::Picture maximum_model(const scene::Phantom& phantom, const scene::VolumeSource& source,
                             const scene::Camera& camera, const scene::DisplayWindow& window);

// The function as our table of 8 bits of opacity and colour holds it: a point for each stored value, so that the peer
// draws the very same one.
scene::TransferFunction as_tabled(const scene::TransferFunction& function, const scene::VolumeSource& source);

// Peak signal-to-noise ratio of the colour bytes in dB.
double colour_psnr(const scene::Picture& a, const scene::Picture& b);

}  // namespace peers
