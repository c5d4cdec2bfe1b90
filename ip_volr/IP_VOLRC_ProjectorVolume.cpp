// Volumes, tissues and brick structure of the ray-casting projector.
#include "ip_volr/IP_VOLRC_BrickStructure.h"
#include "ip_volr/IP_VOLRC_Matrix.h"
#include "ip_volr/IP_VOLRC_Projector.h"
#include "ip_volr/IP_VOLRC_ProjectorInternal.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace affine = ip_volr::affine;
using ip_volr::kPadding;

namespace {

// Margin between the padded volume's faces and the box that is drawn, in voxels: the stencils of interpolation and
// gradient stay inside, and of the source only half a voxel is lost across the slices.
constexpr float kBoxMargin_vox = 2.5F;

IP_Box padded_box(const IP_Box& source) {
    int dims[3];
    float start[3];
    float vecs[3][3];
    source.GetDims(dims);
    source.GetStart(start);
    source.GetVecs(vecs);
    const float num_slices = static_cast<float>(dims[2]);
    for (int i = 0; i < 3; i++) {
        const float slice_step = vecs[2][i] / num_slices;
        start[i] -= static_cast<float>(kPadding) * slice_step;
        vecs[2][i] += static_cast<float>(2 * kPadding) * slice_step;
    }
    dims[2] += 2 * kPadding;

    IP_Box padded = source;
    padded.SetDims(dims);
    padded.SetStart(start);
    padded.SetParams(vecs);
    return padded;
}

PixelDataAttributes attributes_of_slices(const IP_VolData& volume) {
    int dims[3];
    volume.GetBox()->GetDims(dims);
    const IP_Slice* const first = volume.GetSlice(0);
    PixelDataAttributes attributes = first == nullptr ? PixelDataAttributes() : first->GetAttributes();
    attributes.width = dims[0];
    attributes.height = dims[1];
    return attributes;
}

// A slice whose pixels are not those of the volume's lattice cannot be read.
bool fits_lattice(const IP_Slice& slice, const int dims[3]) {
    return slice.GetAttributes().width == dims[0] && slice.GetAttributes().height == dims[1];
}

int number_of_slices(const IP_VolData& volume) {
    int dims[3];
    volume.GetBox()->GetDims(dims);
    return std::min(dims[2], volume.GetNumberOfSlicePointers());
}

bool has_voxels(const IP_VolData& volume) {
    int dims[3];
    volume.GetBox()->GetDims(dims);
    return dims[0] > 0 && dims[1] > 0 && number_of_slices(volume) == dims[2] && dims[2] > 0;
}

// Sets the source's slices into the padded volume. The empty slice stands for those that cannot be read.
void copy_slices(const IP_VolData& source, IP_Slice* empty, IP_VolData& padded) {
    int dims[3];
    padded.GetBox()->GetDims(dims);
    const int num_slices = std::min(dims[2] - 2 * kPadding, number_of_slices(source));
    for (int z = 0; z < num_slices; z++) {
        IP_Slice* const slice = source.GetSlice(z);
        padded.SetSlice(slice == nullptr || fits_lattice(*slice, dims) ? slice : empty, z + kPadding);
    }
}

std::unique_ptr<IP_VolData> make_padded(const IP_VolData& source, IP_Slice* empty) {
    IP_Box box = padded_box(*source.GetBox());
    int dims[3];
    box.GetDims(dims);
    auto padded = std::make_unique<IP_VolData>(&box, dims[2]);
    double slope = 1.0;
    double intercept = 0.0;
    source.GetRescaleTrans(slope, intercept);
    padded->SetRescaleTrans(slope, intercept);
    for (const int z : {0, 1, dims[2] - 2, dims[2] - 1}) {
        padded->SetSlice(empty, z);
    }
    copy_slices(source, empty, *padded);
    return padded;
}

// A slice of zeros: tissue indices of the padding. Without memory it stays without data.
void fill_empty_tissue_slice(IP_Slice& slice, int width, int height) {
    constexpr const char* kFunction = "IP_VOLRC_Projector::SetVolumeTissues";
    const unsigned long long num_bytes =
        static_cast<unsigned long long>(width) * static_cast<unsigned long long>(height);
    MEM_MemPager* const pager = MEM_MemPager::GetHandleForMP();
    auto block = std::make_unique<MEM_PagerInfo>(pager);
    if (pager->Allocate64(num_bytes, block.get(), 0) == -1) {
        IP_VOLR_TRACE(ip_volr::kTraceWarning, IP_VOLRC_PROJECTOR_SOURCE, kFunction,
                      "could not map empty slice - padding not initialized !!! (might cause slower rendition)");
        return;
    }
    std::memset(block->Ptr(), 0, num_bytes);
    block->Unmap();
    slice.SetData(block.release(), true);
    IP_VOLR_TRACE(ip_volr::kTraceInformation, IP_VOLRC_PROJECTOR_SOURCE, kFunction, "empty slice filled with %d zeros",
                  static_cast<int>(num_bytes));
}

void destroy_padded(IP_VolData*& padded, IP_Slice*& empty) {
    if (padded != nullptr) {
        padded->DisconnectSlices();
    }
    delete padded;
    delete empty;
    padded = nullptr;
    empty = nullptr;
}

// Plane of face 2 * axis (+ 1 at the far end) of a box, its normal pointing outwards.
void face_plane(const IP_Box& box, int face, float equation[4]) {
    // Three corners of the face: one and its neighbours along the two other axes.
    const int axis = face / 2;
    const bool far_end = face % 2 == 1;
    const int corner = far_end ? 1 << axis : 0;
    float points[3][3];
    box.GetVertex(corner, points[0]);
    box.GetVertex(corner | (1 << ((axis + 1) % 3)), points[1]);
    box.GetVertex(corner | (1 << ((axis + 2) % 3)), points[2]);
    double u[3];
    double v[3];
    for (int i = 0; i < 3; i++) {
        u[i] = static_cast<double>(points[1][i]) - points[0][i];
        v[i] = static_cast<double>(points[2][i]) - points[0][i];
    }
    double normal[3] = {u[1] * v[2] - u[2] * v[1], u[2] * v[0] - u[0] * v[2], u[0] * v[1] - u[1] * v[0]};
    affine::normalise(normal);

    // Out of the box: along its axis at the far end, against it at the near one.
    float across[3];
    box.GetSideVec(across, axis);
    const double along = normal[0] * across[0] + normal[1] * across[1] + normal[2] * across[2];
    const double sign = (along > 0.0) == far_end ? 1.0 : -1.0;
    double distance = 0.0;
    for (int i = 0; i < 3; i++) {
        equation[i] = static_cast<float>(sign * normal[i]);
        distance -= static_cast<double>(equation[i]) * points[0][i];
    }
    equation[3] = static_cast<float>(distance);
}

}  // namespace

// ---- Volume

void IP_VOLRC_Projector::SetVolData(IP_VolData* volume, bool flag) {
    if (volume != nullptr && volume->GetIdentity() == m_VolumeIdentity) {
        return;
    }
    DestroyPaddedVolume();
    m_RefusedVolume = {};
    m_Pending[kVolumeChanged] = true;
    m_Valid.fill(false);
    if (volume == nullptr || !has_voxels(*volume)) {
        return;
    }

    // The volume between two empty slices at each end, which stencils may read without tests.
    try {
        auto empty = std::make_unique<IP_ShortSlice>(nullptr, attributes_of_slices(*volume), 0);
        m_PaddedVolume = make_padded(*volume, empty.get()).release();
        m_EmptySlice = empty.release();
    } catch (const std::bad_alloc&) {
        m_RefusedVolume = {volume, flag};
        return;
    }
    m_SourceVolume = volume;
    m_VolumeIdentity = volume->GetIdentity();
    m_VolumeSigned = flag;

    // Its lattice, about its middle, and the maps of directions.
    m_Box = *m_PaddedVolume->GetBox();
    float middle[3];
    m_Box.GetMiddle(middle);
    std::copy(middle, middle + 3, m_Middle_mm);
    m_Box.Centralize();
    float matrix[4][4];
    m_Box.GetPhysicalToIndexFromCorner(matrix);
    affine::from_float(matrix, m_PhysicalToIndex);
    m_Box.GetIndexToPhysicalFromCorner(matrix);
    affine::from_float(matrix, m_IndexToPhysical);
    std::fill(m_PhysicalToIndex[3], m_PhysicalToIndex[3] + 3, 0.0);
    std::fill(m_IndexToPhysical[3], m_IndexToPhysical[3] + 3, 0.0);
    SetViewVector(m_ViewVector);
    const double light[3] = {m_LightVector[0], m_LightVector[1], m_LightVector[2]};
    SetLightVector(light);

    InvalidateOcclusions();
    SetDefaultParams();
}

void IP_VOLRC_Projector::DestroyPaddedVolume() {
    destroy_padded(m_PaddedVolume, m_EmptySlice);
    m_SourceVolume = nullptr;
    m_VolumeIdentity = -1;
    m_BricksInitialised = false;
}

// What there was no memory for when the host set it is taken over now. Throws std::bad_alloc when there is none again.
void IP_VOLRC_Projector::TakeRefusedVolumes() {
    if (m_RefusedVolume.volume != nullptr) {
        const RefusedVolume refused = m_RefusedVolume;
        SetVolData(refused.volume, refused.is_signed);
    }
    if (m_RefusedTissues != nullptr) {
        SetVolumeTissues(m_RefusedTissues);
    }
    if (m_RefusedVolume.volume != nullptr || m_RefusedTissues != nullptr) {
        throw std::bad_alloc();
    }
}

void IP_VOLRC_Projector::BoxUpdated() {
    if (m_PaddedVolume == nullptr || m_SourceVolume == nullptr) {
        return;
    }
    copy_slices(*m_SourceVolume, m_EmptySlice, *m_PaddedVolume);
    m_Valid[kMinMaxValid] = false;
}

void IP_VOLRC_Projector::SetUpdatedSliceIndexList(std::list<int>* slices) {
    m_UpdatedSlices = slices;
    if (slices != nullptr && !slices->empty()) {
        m_Valid[kMinMaxValid] = false;
    }
}

// ---- Tissues

void IP_VOLRC_Projector::SetVolumeTissues(IP_VolData* tissues) {
    const bool had_tissues = m_PaddedTissues != nullptr || m_RefusedTissues != nullptr;
    DestroyPaddedTissues();
    m_RefusedTissues = nullptr;
    if (tissues != nullptr && has_voxels(*tissues)) {
        try {
            const PixelDataAttributes attributes = attributes_of_slices(*tissues);
            auto empty = std::make_unique<IP_TisIndSlice>(nullptr, attributes, 0);
            fill_empty_tissue_slice(*empty, attributes.width, attributes.height);
            m_PaddedTissues = make_padded(*tissues, empty.get()).release();
            m_EmptyTissueSlice = empty.release();
        } catch (const std::bad_alloc&) {
            m_RefusedTissues = tissues;
        }
    } else if (!had_tissues) {
        return;
    }
    m_Pending[kTissuesChanged] = true;
    m_Pending[kColorTablesChanged] = true;
    InvalidateOcclusions();
}

void IP_VOLRC_Projector::DestroyPaddedTissues() {
    destroy_padded(m_PaddedTissues, m_EmptyTissueSlice);
}

bool IP_VOLRC_Projector::TissuesFitVolume() const {
    if (m_PaddedTissues == nullptr || m_PaddedVolume == nullptr) {
        return false;
    }
    int dims[3];
    int tissue_dims[3];
    m_PaddedVolume->GetBox()->GetDims(dims);
    m_PaddedTissues->GetBox()->GetDims(tissue_dims);
    return std::equal(dims, dims + 3, tissue_dims);
}

// ---- Brick structure

IP_VOLRC_BrickStructure* IP_VOLRC_Projector::AllocateBrickStructure() {
    return new (std::nothrow)
        IP_VOLRC_BrickStructure(m_LuminosityTables, m_LuminosityPrefix, m_ColorTables, m_VolumeSigned);
}

void IP_VOLRC_Projector::SetBrickStructure(IP_VOLRC_BrickStructure* structure) {
    if (structure == m_BrickStructure) {
        return;
    }
    UnmapBrickStructure();
    if (m_OwnsBrickStructure) {
        DeleteBrickStructure(m_BrickStructure);
    }
    m_BrickStructure = structure;
    m_OwnsBrickStructure = false;
    m_BricksInitialised = false;
    m_RebuildRequested = true;
    m_ListsDirty = true;
    m_Valid.fill(false);
    if (structure != nullptr) {
        structure->SetColorTables(m_LuminosityTables, m_LuminosityPrefix, m_ColorTables, m_VolumeSigned);
    }
}

void IP_VOLRC_Projector::DeleteBrickStructure(IP_VOLRC_BrickStructure* structure) {
    delete structure;
}

bool IP_VOLRC_Projector::EnsureBrickStructure() {
    if (m_BrickStructure == nullptr) {
        m_BrickStructure = AllocateBrickStructure();
        m_OwnsBrickStructure = m_BrickStructure != nullptr;
        m_RebuildRequested = true;
    }
    return m_BrickStructure != nullptr;
}

bool IP_VOLRC_Projector::InitBrickStructure() {
    UnmapBrickStructure();
    m_BricksInitialised = false;
    m_ListsDirty = true;
    if (!EnsureBrickStructure()) {
        return false;
    }
    m_BrickStructure->Clean();
    m_BrickStructure->SetSigned(m_VolumeSigned);
    m_BrickStructure->SetMaxLayerLoaded(m_MaxLayerLoaded);
    if (!m_BrickStructure->Init(m_PaddedVolume)) {
        m_BrickStructure->Clean();
        return false;
    }
    m_BricksMapped = true;  // a new structure comes mapped
    m_BricksInitialised = true;
    return true;
}

// The six faces of the reduced box, about the volume's middle; inside is where the equation is not positive.
bool IP_VOLRC_Projector::InitClipManager() {
    delete m_BoxClipManager;
    m_BoxClipManager = nullptr;
    m_BoxClipManager = new (std::nothrow) IP_ClipManager();
    if (m_BoxClipManager == nullptr) {
        return false;
    }
    IP_Box reduced = m_Box;
    float mm_per_pixel[3] = {m_Box.GetXMmPerPixel(), m_Box.GetYMmPerPixel(), m_Box.GetZMmPerPixel()};
    float margins[3] = {kBoxMargin_vox * mm_per_pixel[0], kBoxMargin_vox * mm_per_pixel[1],
                        kBoxMargin_vox * mm_per_pixel[2]};
    reduced.ReduceBox(margins, mm_per_pixel);

    for (int face = 0; face < 6; face++) {
        float equation[4];
        face_plane(reduced, face, equation);
        m_BoxClipManager->NewClipPlane(face)->SetPlaneEq(equation);
    }
    return true;
}

bool IP_VOLRC_Projector::SetBrickColorTables() {
    // The structure reads the tables only; its interface does not say so.
    unsigned int* colours[kNumTissues];
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        colours[tissue] = const_cast<unsigned int*>(m_ColorPointers[tissue]);
    }
    m_BrickStructure->SetSigned(m_VolumeSigned);
    // QUIRK(faint-tissue): a reader expects interactive frames to show what final ones show; by contribution, entries
    // with an opacity byte below about 41 count as invisible. Kept: callers rely on it.
    const bool opacity_only = (IsFinal() ? m_Final : m_Interactive).opacity_luminosity;
    m_BrickStructure->SetColorTables(colours, &m_StepTransparencies[0][0], m_TableBits, m_ShadingWeights,
                                     opacity_only ? VISIBILITY_BY_OPACITY : VISIBILITY_BY_CONTRIBUTION);
    m_Cast->empty_space_stale = true;
    m_Cast->entries_stale = true;
    return true;
}
