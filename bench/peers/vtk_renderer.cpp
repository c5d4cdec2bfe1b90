#include "vtk_renderer.h"

#include <vtkCamera.h>
#include <vtkColorTransferFunction.h>
#include <vtkFixedPointVolumeRayCastMapper.h>
#include <vtkImageData.h>
#include <vtkLight.h>
#include <vtkNew.h>
#include <vtkPiecewiseFunction.h>
#include <vtkPointData.h>
#include <vtkRenderWindow.h>
#include <vtkRenderer.h>
#include <vtkShortArray.h>
#include <vtkUnsignedCharArray.h>
#include <vtkVolume.h>
#include <vtkVolumeProperty.h>

#include <chrono>

namespace peers {

struct VtkRenderer::Pipeline {
    vtkNew<vtkImageData> image;
    vtkNew<vtkFixedPointVolumeRayCastMapper> mapper;
    vtkNew<vtkPiecewiseFunction> opacity;
    vtkNew<vtkColorTransferFunction> colour;
    vtkNew<vtkVolumeProperty> property;
    vtkNew<vtkVolume> volume;
    vtkNew<vtkRenderer> renderer;
    vtkNew<vtkRenderWindow> window;
};

namespace {

// The voxels stay the phantom's own.
void share_voxels(const scene::Phantom& phantom, vtkImageData* image) {
    image->SetDimensions(phantom.size[0], phantom.size[1], phantom.size[2]);
    image->SetSpacing(phantom.spacing_mm.x, phantom.spacing_mm.y, phantom.spacing_mm.z);
    image->SetOrigin(phantom.origin_mm.x, phantom.origin_mm.y, phantom.origin_mm.z);
    vtkNew<vtkShortArray> scalars;
    scalars->SetArray(const_cast<short*>(phantom.voxels.data()), static_cast<vtkIdType>(phantom.voxels.size()), 1);
    image->GetPointData()->SetScalars(scalars);
}

void set_composite(const scene::TransferFunction& function, bool shaded, vtkPiecewiseFunction* opacity,
                   vtkColorTransferFunction* colour, vtkVolumeProperty* property) {
    for (const scene::OpacityPoint& p : function.opacity) {
        opacity->AddPoint(p.value, p.opacity_per_mm);
    }
    for (const scene::ColourPoint& p : function.colour) {
        colour->AddRGBPoint(p.value, p.red, p.green, p.blue);
    }
    property->SetShade(shaded ? 1 : 0);
    property->SetAmbient(function.lighting.ambient);
    property->SetDiffuse(function.lighting.diffuse);
    property->SetSpecular(function.lighting.specular);
    property->SetSpecularPower(10.0);
}

// A window of grey values, opaque wherever there is a value.
void set_maximum(double low, double high, vtkPiecewiseFunction* opacity, vtkColorTransferFunction* colour) {
    colour->AddRGBPoint(low, 0.0, 0.0, 0.0);
    colour->AddRGBPoint(high, 1.0, 1.0, 1.0);
    opacity->AddPoint(-32768.0, 1.0);
    opacity->AddPoint(32767.0, 1.0);
}

}  // namespace

VtkRenderer::VtkRenderer(const scene::Phantom& phantom, const PeerRequest& request)
    : m_Pipeline(std::make_unique<Pipeline>()) {
    Pipeline& p = *m_Pipeline;
    share_voxels(phantom, p.image);

    // The same step, threads and unit of opacity as ours; no adaptation of its own.
    p.mapper->SetInputData(p.image);
    p.mapper->SetAutoAdjustSampleDistances(0);
    p.mapper->SetImageSampleDistance(1.0F);
    p.mapper->SetSampleDistance(static_cast<float>(request.step_mm));
    p.mapper->SetInteractiveSampleDistance(static_cast<float>(request.step_mm));
    p.mapper->SetIntermixIntersectingGeometry(0);
    p.mapper->SetNumberOfThreads(request.num_threads);
    p.property->SetScalarOpacityUnitDistance(1.0);
    p.property->SetInterpolationTypeToLinear();
    if (request.blend == Blend::kMaximum) {
        p.mapper->SetBlendModeToMaximumIntensity();
        set_maximum(request.window_low, request.window_high, p.opacity, p.colour);
    } else {
        p.mapper->SetBlendModeToComposite();
        set_composite(*request.transfer, request.shaded, p.opacity, p.colour, p.property);
    }
    p.property->SetScalarOpacity(p.opacity);
    p.property->SetColor(p.colour);

    p.volume->SetMapper(p.mapper);
    p.volume->SetProperty(p.property);
    p.renderer->AddVolume(p.volume);
    p.renderer->SetBackground(0.0, 0.0, 0.0);
    p.window->SetOffScreenRendering(1);
    p.window->SetMultiSamples(0);
    p.window->AddRenderer(p.renderer);
}

VtkRenderer::~VtkRenderer() = default;

void VtkRenderer::SetCamera(const scene::Camera& camera) {
    constexpr double distance_mm = 5000.0;
    Pipeline& p = *m_Pipeline;
    p.window->SetSize(camera.width, camera.height);
    // Their picture's middle lies between pixels; ours shows the volume's middle at centre_x, centre_y.
    const scene::Vec3 target = camera.PositionOnPlane((camera.width - 1) / 2.0, (camera.height - 1) / 2.0);
    vtkCamera* const view = p.renderer->GetActiveCamera();
    view->ParallelProjectionOn();
    view->SetFocalPoint(target.x, target.y, target.z);
    view->SetPosition(target.x - camera.into.x * distance_mm, target.y - camera.into.y * distance_mm,
                      target.z - camera.into.z * distance_mm);
    view->SetViewUp(-camera.down.x, -camera.down.y, -camera.down.z);
    view->SetParallelScale(camera.height / 2.0 / camera.pixels_per_mm);
    p.renderer->ResetCameraClippingRange();
}

double VtkRenderer::Draw() {
    const auto start = std::chrono::steady_clock::now();
    m_Pipeline->renderer->GetActiveCamera()->Modified();
    m_Pipeline->window->Render();
    return std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
}

scene::Picture VtkRenderer::LastPicture() const {
    const int* const size = m_Pipeline->window->GetSize();
    scene::Picture picture(size[0], size[1]);
    vtkNew<vtkUnsignedCharArray> bytes;
    m_Pipeline->window->GetPixelData(0, 0, size[0] - 1, size[1] - 1, 1, bytes);
    for (int y = 0; y < size[1]; ++y) {
        for (int x = 0; x < size[0]; ++x) {
            // Their rows run from the bottom up.
            const unsigned char* const rgb =
                bytes->GetPointer(3 * (static_cast<vtkIdType>(size[1] - 1 - y) * size[0] + x));
            picture.At(x, y) =
                0xFF000000U | static_cast<unsigned>(rgb[0]) << 16 | static_cast<unsigned>(rgb[1]) << 8 | rgb[2];
        }
    }
    return picture;
}

}  // namespace peers
