#include "ip_volr/IP_VolDataMIP.h"

#include "host/memory_utilities.h"
#include "ip_volr/IP_SliceMapping.h"
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/kernels/reduce.h"

#include <algorithm>
#include <limits>
#include <optional>
#include <vector>

namespace {

using ip_volr::ScopedSliceMapping;

constexpr char kSource[] = "ip_volr/IP_VolDataMIP";
constexpr float kBytesPerPixel = 2.0F;

// Whether a slice has a block that holds at least so many pixels. A slice that does not say its size is trusted.
bool has_memory(const IP_Slice* slice, int x, int y) {
    if (slice == nullptr || slice->GetData() == nullptr || slice->GetData()->Block() == -1) {
        return false;
    }
    const PixelDataAttributes& attributes = slice->GetAttributes();
    const long long num_pixels = static_cast<long long>(attributes.width) * attributes.height;
    return num_pixels == 0 || num_pixels >= static_cast<long long>(x) * y;
}

short* pixels(IP_Slice* slice) {
    return static_cast<IP_ShortSlice*>(slice)->GetMappedSlice();
}

void fill(short* to, std::ptrdiff_t count, short value) {
    if (count > 0) {
        IP_FillMemWord(reinterpret_cast<unsigned short*>(to), static_cast<std::size_t>(count),
                       static_cast<unsigned short>(value));
    }
}

void fill_slice(IP_Slice* slice, int x, int y, short value) {
    fill(pixels(slice), static_cast<std::ptrdiff_t>(x) * y, value);
}

// Where data of data_x by data_y pixels lies inside a slice of x by y: centred, the odd pixel of a margin at its end.
// Writes the margins around a row and returns where the row begins.
struct Centred {
    int x;
    int y;
    int data_x;
    int data_y;

    int left() const { return (x - data_x) / 2; }
    int top() const { return (y - data_y) / 2; }

    void fill_top_and_bottom(short* slice, short value) const {
        fill(slice, static_cast<std::ptrdiff_t>(top()) * x, value);
        const std::ptrdiff_t data_end = static_cast<std::ptrdiff_t>(top() + data_y) * x;
        fill(slice + data_end, static_cast<std::ptrdiff_t>(y) * x - data_end, value);
    }

    short* begin_row(short* slice, int row, short value) const {
        short* line = slice + static_cast<std::ptrdiff_t>(top() + row) * x;
        fill(line, left(), value);
        fill(line + left() + data_x, x - left() - data_x, value);
        return line + left();
    }
};

// Writes a value into the voxels of a source row that a tissue holds. A tissue of another size lies centred on the
// slice.
class TissueWriter {
public:
    TissueWriter(const IP_ListVol& tissue, int source_x, int source_y, int slice, short value)
        : m_Tissue(tissue), m_SourceX(source_x), m_Slice(slice), m_Value(value) {
        int dims[3];
        tissue.GetDims(dims);
        m_OffsetX = (dims[0] - source_x) / 2;
        m_OffsetY = (dims[1] - source_y) / 2;
        if (dims[0] != source_x) {
            m_Line.resize(static_cast<std::size_t>(std::max(0, dims[0])));
        }
    }

    void write(short* line, int row) {
        const int tissue_row = row + m_OffsetY;
        if (m_Line.empty()) {
            m_Tissue.WriteLine(tissue_row, m_Slice, line, static_cast<unsigned short>(m_Value));
            return;
        }
        // The tissue writes its whole width, which is not the slice's: mark its voxels on a line of its own.
        std::fill(m_Line.begin(), m_Line.end(), static_cast<short>(0));
        m_Tissue.WriteLine(tissue_row, m_Slice, m_Line.data(), 1);
        const int first = std::max(0, -m_OffsetX);
        const int last = std::min(m_SourceX, static_cast<int>(m_Line.size()) - m_OffsetX);
        for (int x = first; x < last; x++) {
            if (m_Line[static_cast<std::size_t>(x + m_OffsetX)] != 0) {
                line[x] = m_Value;
            }
        }
    }

private:
    const IP_ListVol& m_Tissue;
    int m_SourceX;
    int m_Slice;
    short m_Value;
    int m_OffsetX = 0;
    int m_OffsetY = 0;
    std::vector<short> m_Line;
};

}  // namespace

IP_VolDataMIP::IP_VolDataMIP(IP_Box* box) : IP_VolDataProj(box) {}

IP_VolDataMIP::IP_VolDataMIP(const IP_VolDataMIP& o) = default;

IP_VolDataMIP::IP_VolDataMIP(const IP_VolDataMIP& o, bool transposed)
    : IP_VolDataProj(o, transposed, kBytesPerPixel), m_Tissue(o.m_Tissue), m_MinimumValue(o.m_MinimumValue) {}

IP_VolDataMIP& IP_VolDataMIP::operator=(const IP_VolDataMIP& o) = default;

bool IP_VolDataMIP::Create(const IP_VolData& source, SliceHashMap& map, const IP_ListVol* tissue, bool new_tissue,
                           int factor, bool transposed, int pd_counter, int tissue_counter, int render_quality,
                           int minimum_value) {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolDataMIP::Create",
                  "IP_VolDataMIP Create info: Tissue = %p, IsNewTissue = %d, \t\t\t   Factor = %d, Transposed = %d\n",
                  static_cast<const void*>(tissue), new_tissue ? 1 : 0, factor, transposed ? 1 : 0);
    m_MinimumValue = minimum_value;
    m_Tissue = tissue;
    return IP_VolDataProj::Create(source, map, new_tissue, factor, transposed, pd_counter, tissue_counter,
                                  render_quality, kBytesPerPixel);
}

bool IP_VolDataMIP::LeanCreate(const IP_VolData& source, SliceHashMap& map, const IP_ListVol* tissue, bool new_tissue,
                               int factor, bool transposed, int pd_counter, int tissue_counter, int render_quality,
                               int minimum_value) {
    IP_VOLR_TRACE(
        ip_volr::kTraceInformation, kSource, "IP_VolDataMIP::LeanCreate",
        "IP_VolDataMIP LeanCreate info: Tissue = %p, IsNewTissue = %d, \t\t\t   Factor = %d, Transposed = %d\n",
        static_cast<const void*>(tissue), new_tissue ? 1 : 0, factor, transposed ? 1 : 0);
    m_MinimumValue = minimum_value;
    m_Tissue = tissue;
    return IP_VolDataProj::LeanCreate(source, map, new_tissue, factor, transposed, pd_counter, tissue_counter,
                                      render_quality, kBytesPerPixel);
}

bool IP_VolDataMIP::CopyFastFromSlow(IP_VolData* source, IP_ListVol* tissue, bool transposed, int pd_counter,
                                     int tissue_counter, int minimum_value) {
    m_MinimumValue = minimum_value;
    m_Tissue = tissue;
    return tissue != nullptr &&
           IP_VolDataProj::CopyFastFromSlow(source, transposed, pd_counter, tissue_counter, minimum_value);
}

bool IP_VolDataMIP::CopyWithTissue(IP_VolData* source, IP_ListVol* tissue, bool transposed, int pd_counter,
                                   int tissue_counter, int minimum_value, bool run) {
    m_MinimumValue = minimum_value;
    m_Tissue = tissue;
    return tissue != nullptr && IP_VolDataProj::CopyWithTissue(source, transposed, pd_counter, tissue_counter, run);
}

// QUIRK(background-wrap): a reader expects a minimum value beyond 32767 to be limited in every copy; only those with
// tissue limit it, the plain ones take its low 16 bits; kept: callers rely on it.
short IP_VolDataMIP::background(const IP_Slice* source, const IP_ListVol* tissue) const {
    int lowest = std::numeric_limits<short>::min();
    if (source != nullptr) {
        const PixelDataAttributes& attributes = source->GetAttributes();
        lowest = attributes.is_signed ? -(1 << (std::clamp(attributes.bits_stored, 1, 16) - 1)) : 0;
    }
    const int value = std::max(m_MinimumValue, lowest);
    const int limited = std::clamp<int>(value, std::numeric_limits<short>::min(), std::numeric_limits<short>::max());
    return static_cast<short>(tissue != nullptr ? limited : value);
}

IP_Slice* IP_VolDataMIP::create_new_slice(MEM_PagerInfo* block, PixelDataAttributes& attributes) {
    return new IP_ShortSlice(block, attributes, 0);
}

bool IP_VolDataMIP::copy_slice(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source,
                               int source_x, int source_y) {
    if (m_Factor == 2) {
        return copy_fast_slice(destination, source, destination_x, destination_y);
    }
    return copy_full(destination, destination_x, destination_y, source, source_x, source_y, nullptr, 0);
}

bool IP_VolDataMIP::copy_slice_with_tissue(IP_Slice* destination, int destination_x, int destination_y,
                                           IP_Slice* source, int source_x, int source_y, int slice_index) {
    if (destination == nullptr || source == nullptr) {
        return false;
    }
    if (m_Tissue == nullptr) {
        return copy_slice(destination, destination_x, destination_y, source, source_x, source_y);
    }
    return copy_full(destination, destination_x, destination_y, source, source_x, source_y, m_Tissue, slice_index);
}

// Copies a source slice centred into its padded destination, without the voxels of the tissue (null for none).
bool IP_VolDataMIP::copy_full(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source,
                              int source_x, int source_y, const IP_ListVol* tissue, int slice_index) {
    const ScopedSliceMapping destination_mapping(destination);
    if (!destination_mapping.ok()) {
        return false;
    }
    const short value = background(source, tissue);
    const bool readable = has_memory(source, source_x, source_y);
    const ScopedSliceMapping source_mapping(readable ? source : nullptr);
    if (!source_mapping.ok()) {
        fill_slice(destination, destination_x, destination_y, value);
        return !readable;
    }

    const Centred place{destination_x, destination_y, source_x, source_y};
    const short* from = pixels(source);
    short* to = pixels(destination);
    place.fill_top_and_bottom(to, value);
    std::optional<TissueWriter> writer;
    if (tissue != nullptr) {
        writer.emplace(*tissue, source_x, source_y, slice_index, value);
    }
    for (int row = 0; row < source_y; row++) {
        short* line = place.begin_row(to, row, value);
        std::copy_n(from + static_cast<std::ptrdiff_t>(row) * source_x, source_x, line);
        if (writer.has_value()) {
            writer->write(line, row);
        }
    }
    return true;
}

bool IP_VolDataMIP::copy_fast_slice(IP_Slice* destination, IP_Slice* source, int x, int y) {
    int dims[3];
    GetSourceBox().GetDims(dims);
    if (m_Factor == 1) {
        return copy_full(destination, x, y, source, dims[0], dims[1], nullptr, 0);
    }
    return copy_reduced(destination, x, y, source, nullptr, nullptr, 0);
}

bool IP_VolDataMIP::copy_slice_with_tissue_fast(IP_Slice* source, IP_Slice* destination, IP_Slice* temp_slice,
                                                int slice_index, int x, int y) {
    if (m_Tissue == nullptr) {
        return copy_fast_slice(destination, source, x, y);
    }
    int dims[3];
    GetSourceBox().GetDims(dims);
    if (m_Factor == 1) {
        return copy_full(destination, x, y, source, dims[0], dims[1], m_Tissue, slice_index);
    }
    if (copy_reduced(destination, x, y, source, m_Tissue, temp_slice, slice_index)) {
        return true;
    }
    // Without room to mask in, the slice shows unmasked; it is not taken for filled.
    copy_fast_slice(destination, source, x, y);
    return false;
}

// Copies the 2 x 2 maxima of a source slice centred into its padded destination. With a tissue, each pair of rows is
// masked in the temp slice first, so that a masked picture lies where the unmasked one does.
bool IP_VolDataMIP::copy_reduced(IP_Slice* destination, int x, int y, IP_Slice* source, const IP_ListVol* tissue,
                                 IP_Slice* temp_slice, int slice_index) {
    int dims[3];
    GetSourceBox().GetDims(dims);
    const ScopedSliceMapping destination_mapping(destination);
    if (!destination_mapping.ok()) {
        return false;
    }
    const short value = background(source, tissue);
    const bool readable = has_memory(source, dims[0], dims[1]);
    const ScopedSliceMapping source_mapping(readable ? source : nullptr);
    if (!source_mapping.ok()) {
        fill_slice(destination, x, y, value);
        return !readable;
    }
    const ScopedSliceMapping temp_mapping(tissue != nullptr ? temp_slice : nullptr);
    if (tissue != nullptr && !temp_mapping.ok()) {
        return false;
    }

    const ip_volr::kernels::ReduceKernels& kernels = ip_volr::kernels::reduce_kernels();
    const Centred place{x, y, dims[0] / 2, dims[1] / 2};
    const short* from = pixels(source);
    short* to = pixels(destination);
    place.fill_top_and_bottom(to, value);
    std::optional<TissueWriter> writer;
    if (tissue != nullptr) {
        writer.emplace(*tissue, dims[0], dims[1], slice_index, value);
    }
    const std::ptrdiff_t source_x = dims[0];
    for (int row = 0; row < place.data_y; row++) {
        const short* row_a = from + 2 * row * source_x;
        const short* row_b = row_a + source_x;
        if (writer.has_value()) {
            short* masked = pixels(temp_slice);
            std::copy_n(row_a, 2 * source_x, masked);
            writer->write(masked, 2 * row);
            writer->write(masked + source_x, 2 * row + 1);
            row_a = masked;
            row_b = masked + source_x;
        }
        kernels.maximum_2x2(row_a, row_b, place.begin_row(to, row, value), place.data_x);
    }
    return true;
}

void IP_VolDataMIP::transpose_slice_swap_data(IP_Slice* slice, IP_Slice* work_slice, int x, int y) {
    transpose_matrix(pixels(slice), pixels(work_slice), x, y);
    slice->SwapPixelDataWithSlice(*work_slice);
}

void IP_VolDataMIP::reestablish_working_mem(IP_Slice* slice, IP_Slice* work_slice) {
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataMIP::reestablish_working_mem",
                  "reestablish_working_mem\n");
    const short* from = pixels(slice);
    short* to = pixels(work_slice);
    if (from != nullptr && to != nullptr) {
        IP_Memcpy(to, from, sizeof(short) * m_ChunkX * m_ChunkY);
        slice->SwapPixelDataWithSlice(*work_slice);
    }
}

bool IP_VolDataMIP::transpose_slice(IP_Slice* slice, IP_Slice* work_slice, int x, int y) {
    const ScopedSliceMapping slice_mapping(slice);
    const ScopedSliceMapping work_mapping(work_slice);
    if (!slice_mapping.ok() || !work_mapping.ok()) {
        return false;
    }
    transpose_matrix(pixels(slice), pixels(work_slice), x, y);
    return true;
}
