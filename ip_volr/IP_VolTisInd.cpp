#include "ip_volr/IP_VolTisInd.h"

#include "host/masks.h"
#include "host/matrix_math.h"
#include "host/multi_volume.h"
#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_SliceMapping.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolRTissueList.h"
#include "ip_volr/kernels/nibbles.h"

#include <algorithm>
#include <cmath>
#include <cstring>

namespace {

constexpr char kSource[] = "ip_volr/IP_VolTisInd";
constexpr float kBytesPerPixel = 0.5F;
constexpr long long kBatchBytes = 350000000;
constexpr int kSlicesPerCancellationPoint = 32;
constexpr float kFarAway_vox = 1e6F;

// The voxel of `volume` at which the first voxel of `mask` lies.
void first_voxel(const IP_Box& mask, const IP_Box& volume, int voxel[3]) {
    float to_mm[4][4];
    float to_voxel[4][4];
    mask.GetIndexToPhysicalTrans(to_mm);
    volume.GetPhysicalToIndexTrans(to_voxel);
    const float first[3] = {0.0F, 0.0F, 0.0F};
    float pos_mm[3];
    float pos_vox[3];
    IP_vectrans(first, to_mm, pos_mm);
    IP_vectrans(pos_mm, to_voxel, pos_vox);
    for (int i = 0; i < 3; i++) {
        const bool near = std::fabs(pos_vox[i]) < kFarAway_vox;
        voxel[i] = static_cast<int>(near ? std::lround(pos_vox[i]) : std::lround(kFarAway_vox));
    }
}

}  // namespace

IP_VolTisInd::IP_VolTisInd(IP_Box* box) : IP_VolDataProj(box) {}

IP_VolTisInd::IP_VolTisInd(const IP_VolTisInd& o)
    : IP_VolDataProj(o, false, kBytesPerPixel), m_VolumeIndex(o.m_VolumeIndex) {}

IP_VolTisInd& IP_VolTisInd::operator=(const IP_VolTisInd& o) {
    if (this != &o) {
        IP_VolDataProj::operator=(o);
        m_Tissues = nullptr;
        m_Masks.clear();
        m_VolumeIndex = o.m_VolumeIndex;
    }
    return *this;
}

bool IP_VolTisInd::Create(const IP_VolData& source, SliceHashMap& map, bool transposed, int pd_counter,
                          int tissue_counter, int render_quality, bool new_tissue, IP_VolRTissueList& tissues,
                          unsigned volume_index) {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolTisInd::Create", "IP_VolTisInd Create info: \n");
    m_Tissues = &tissues;
    m_VolumeIndex = volume_index;
    if (!prepare_create(source, map, new_tissue, 1, transposed, pd_counter, tissue_counter, render_quality,
                        kBytesPerPixel)) {
        return false;
    }
    const bool done = ip_volr::succeeds_with_memory(kSource, "IP_VolTisInd::Create", [this] {
        place_box();
        set_tissue_box_size_status();
        return write_slices();
    });
    if (done) {
        Reset();
    }
    return done;
}

bool IP_VolTisInd::write_slices() {
    // Write batch by batch; a batch is unmapped however it ends.
    const long long slice_bytes = std::max(1LL, static_cast<long long>(m_ChunkX) * m_ChunkY / 2);
    const int batch = static_cast<int>(std::clamp(kBatchBytes / slice_bytes, 1LL, 1000000000LL));
    for (int first = 0; first < m_NumbSlices; first += batch) {
        const int count = std::min(batch, m_NumbSlices - first);
        m_BatchFirstSlice = first;
        m_BatchLastSlice = first + count - 1;
        const ip_volr::ScopedSliceRunMapping mapping(m_Slices.data() + first, count);
        if (!mapping.ok()) {
            return false;
        }
        run_subtasks(&IP_VolDataProj::subtask_copy_slices);
    }
    return true;
}

// The index slices begin with the source's first voxel, whereas the enlarged box has the source in its middle.
void IP_VolTisInd::place_box() {
    float start[3];
    float vecs[3][3];
    m_Box.GetStart(start);
    m_Box.GetVecs(vecs);
    const int margins[2] = {(static_cast<int>(m_ChunkX) - m_ReducedX) / 2,
                            (static_cast<int>(m_ChunkY) - m_ReducedY) / 2};
    const unsigned sizes[2] = {m_ChunkX, m_ChunkY};
    for (int axis = 0; axis < 2; axis++) {
        for (int i = 0; i < 3; i++) {
            start[i] += vecs[axis][i] * static_cast<float>(margins[axis]) / static_cast<float>(sizes[axis]);
        }
    }
    m_Box.SetStart(start);
}

IP_VolTisInd::Mask IP_VolTisInd::find_mask(unsigned tissue) const {
    const int volume = static_cast<int>(m_VolumeIndex);
    const IP_MultiRealListVol* lists = m_Tissues->GetTissue(tissue);
    const IP_MultiRealBitVol* bit_volumes = m_Tissues->GetRbvList(tissue);
    const IP_RealListVol* list = lists == nullptr ? nullptr : lists->GetRealListVol(volume);
    const IP_RealBitVol* bits = m_Tissues->GetRotatedRbv(tissue);
    if (bits == nullptr && list == nullptr && bit_volumes != nullptr) {
        bits = bit_volumes->GetRealBitVol(volume);
    }

    Mask mask;
    mask.color_index = m_Tissues->GetColorTableIndex(tissue);
    mask.negate = m_Tissues->ShouldNegate(tissue);
    if (bits != nullptr) {
        mask.bits = bits;
        mask.box = bits->GetBox();
        bits->GetDims(mask.dims);
    } else if (list != nullptr) {
        mask.list = list;
        mask.box = list->GetBox();
        list->GetDims(mask.dims);
    }
    return mask;
}

// Settles which tissues have the volume's size and where the others lie, and lists those that can be seen.
void IP_VolTisInd::set_tissue_box_size_status() {
    int dims[3];
    GetSourceBox().GetDims(dims);
    m_Masks.clear();
    for (unsigned t = 0; t < m_Tissues->GetNumbTissues(); t++) {
        Mask mask = find_mask(t);
        if (mask.box == nullptr) {
            continue;
        }
        const bool equal = std::equal(dims, dims + 3, mask.dims);
        m_Tissues->SetEqualSize(t, equal);
        if (!equal) {
            first_voxel(*mask.box, GetSourceBox(), mask.offset);
            m_Tissues->SetTissueOffset(t, mask.offset[0], mask.offset[1], mask.offset[2]);
        }
        if (mask.color_index >= 0 && mask.color_index <= kNoTissue) {
            m_Masks.push_back(mask);
        }
    }
}

void IP_VolTisInd::subtask_copy_slices() {
    const TCO_RunnableSelf self;
    const std::vector<unsigned>& indices = index_array();
    const int end_of_range = static_cast<int>(indices.size()) - 1;
    const int first = self.StartRange(end_of_range, 0);
    const int last = self.EndRange(end_of_range, 0);
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolTisInd::subtask_copy_slices",
                  "subtask_copy_slices start = %d, end = %d\n", first, last);
    for (int j = first; j <= last; j++) {
        if (j % kSlicesPerCancellationPoint == 0) {
            self.Service();
        }
        const int i = static_cast<int>(indices[static_cast<std::size_t>(j)]);
        IP_SliceIDInfo* record = slice_record(i);
        if (i < m_BatchFirstSlice || i > m_BatchLastSlice || record == nullptr) {
            continue;
        }
        // QUIRK(tissue-slice-position): a reader expects slice i of the tissues; the position j in the list of slices
        // is passed, which is another one when the first slice index is not 0; kept: callers rely on it.
        copy_slice_with_tissue(GetSlice(i), static_cast<int>(m_ChunkX), static_cast<int>(m_ChunkY), nullptr, m_ReducedX,
                               m_ReducedY, j);
        record->SetPDCounter(m_PDCounter);
        record->SetTissueCounter(m_TissueCounter);
    }
}

IP_Slice* IP_VolTisInd::create_new_slice(MEM_PagerInfo* block, PixelDataAttributes& attributes) {
    return new IP_TisIndSlice(block, attributes, 0);
}

bool IP_VolTisInd::copy_slice_with_tissue(IP_Slice* destination, int destination_x, int destination_y,
                                          IP_Slice* /*source*/, int source_x, int source_y, int slice_index) {
    if (m_Tissues == nullptr || destination == nullptr) {
        return false;
    }
    std::uint8_t* to = static_cast<IP_TisIndSlice*>(destination)->GetMappedSlice();
    if (to == nullptr) {
        return true;
    }

    const ip_volr::kernels::NibbleKernels& kernels = ip_volr::kernels::nibble_kernels();
    const int row_bytes = destination_x / 2;
    std::vector<std::uint8_t> line(static_cast<std::size_t>(destination_x));
    std::vector<std::uint8_t> scratch;
    for (int row = 0; row < source_y; row++) {
        std::fill(line.begin(), line.end(), static_cast<std::uint8_t>(kNoTissue));
        for (std::size_t t = m_Masks.size(); t > 0; t--) {
            set_tissue_line(m_Masks[t - 1], slice_index, row, line.data(), source_x, scratch);
        }
        kernels.pack(line.data(), to, row_bytes);
        to += row_bytes;
    }
    std::memset(to, 0xFF, static_cast<std::size_t>(destination_y - source_y) * static_cast<std::size_t>(row_bytes));
    return true;
}

// Writes one tissue's index into a row of the volume where the tissue is present.
void IP_VolTisInd::set_tissue_line(const Mask& mask, int slice, int row, std::uint8_t* line, int line_length,
                                   std::vector<std::uint8_t>& scratch) const {
    const auto value = static_cast<std::uint8_t>(mask.color_index);
    const auto write = [&](std::uint8_t* to, int mask_row, int mask_slice, std::uint8_t index, int set) {
        if (mask.bits != nullptr) {
            mask.bits->WriteLine(mask_row, mask_slice, to, index, set);
        } else {
            mask.list->WriteLine(mask_row, mask_slice, to, index, set);
        }
    };

    // A mask as wide as the volume and with its first voxel in the volume's first column writes straight into the row.
    const int mask_row = row - mask.offset[1];
    const int mask_slice = slice - mask.offset[2];
    const bool meets = mask_row >= 0 && mask_row < mask.dims[1] && mask_slice >= 0 && mask_slice < mask.dims[2];
    if (meets && mask.offset[0] == 0 && mask.dims[0] == line_length) {
        write(line, mask_row, mask_slice, value, mask.negate ? 0 : 1);
        return;
    }

    // Any other is drawn on a row of its own, of which the overlap counts; outside it there is no mask.
    if (!meets) {
        if (mask.negate) {
            std::fill_n(line, line_length, value);
        }
        return;
    }
    scratch.assign(static_cast<std::size_t>(mask.dims[0]), 0);
    write(scratch.data(), mask_row, mask_slice, 1, 1);
    for (int x = 0; x < line_length; x++) {
        const int mask_x = x - mask.offset[0];
        const bool inside = mask_x >= 0 && mask_x < mask.dims[0] && scratch[static_cast<std::size_t>(mask_x)] != 0;
        if (inside != mask.negate) {
            line[x] = value;
        }
    }
}

bool IP_VolTisInd::copy_slice(IP_Slice*, int, int, IP_Slice*, int, int) {
    return true;
}
void IP_VolTisInd::transpose_slice_swap_data(IP_Slice*, IP_Slice*, int, int) {}
void IP_VolTisInd::reestablish_working_mem(IP_Slice*, IP_Slice*) {}
bool IP_VolTisInd::copy_fast_slice(IP_Slice*, IP_Slice*, int, int) {
    return true;
}
bool IP_VolTisInd::copy_slice_with_tissue_fast(IP_Slice*, IP_Slice*, IP_Slice*, int, int, int) {
    return true;
}
bool IP_VolTisInd::transpose_slice(IP_Slice*, IP_Slice*, int, int) {
    return true;
}
