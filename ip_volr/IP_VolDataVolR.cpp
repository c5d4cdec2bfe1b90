#include "ip_volr/IP_VolDataVolR.h"

#include "host/memory_utilities.h"
#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_SliceMapping.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <algorithm>

namespace {

using ip_volr::ScopedSliceMapping;

constexpr char kSource[] = "ip_volr/IP_VolDataVolR";
constexpr float kBytesPerPixel = 0.125F;
constexpr int kNumTissues = 16;
constexpr int kNoTissue = 15;
constexpr unsigned kOpaqueFrom = 128;

unsigned char* bits_of(IP_Slice* slice) {
    return static_cast<IP_OpacitySlice*>(slice)->GetMappedSlice();
}

// Whether a slice has a block with room for x times y pixels.
bool has_memory(const IP_Slice* slice, int x, int y) {
    if (slice == nullptr || slice->GetData() == nullptr || slice->GetData()->Block() == -1) {
        return false;
    }
    const PixelDataAttributes& attributes = slice->GetAttributes();
    const long long num_pixels = static_cast<long long>(attributes.width) * attributes.height;
    return num_pixels == 0 || num_pixels >= static_cast<long long>(x) * y;
}

// The tissue slice that covers x times y voxels of slice z; null when there is none.
IP_Slice* tissue_slice(const IP_VolData* tissues, int x, int y, int z) {
    IP_Slice* const slice = tissues == nullptr ? nullptr : tissues->GetSlice(z);
    const bool usable = slice != nullptr && slice->GetData() != nullptr && slice->GetData()->Block() != -1 &&
                        slice->GetAttributes().width >= x && slice->GetAttributes().height >= y;
    return usable ? slice : nullptr;
}

// Tissue of voxel (x, y) of a mapped tissue slice.
int tissue_at(const IP_Slice* slice, int x, int y) {
    const std::size_t i = static_cast<std::size_t>(y) * static_cast<std::size_t>(slice->GetAttributes().width) +
                          static_cast<std::size_t>(x);
    return static_cast<const IP_TisIndSlice*>(slice)->GetMappedSlice()[i / 2] >> (i % 2 * 4) & 15;
}

// Eight flags of 0 or 1 a byte, the first in the lowest bit.
void pack(const std::uint8_t* flags, unsigned char* bits, int num_bytes) {
    for (int i = 0; i < num_bytes; i++, flags += 8) {
        unsigned byte = 0;
        for (unsigned k = 0; k < 8; k++) {
            byte |= static_cast<unsigned>(flags[k]) << k;
        }
        bits[i] = static_cast<unsigned char>(byte);
    }
}

// Transposes rows of x bits, y of them, in blocks of eight by eight. Both are multiples of 8.
void transpose_bits(const unsigned char* from, unsigned char* to, int x, int y) {
    for (int by = 0; by < y / 8; by++) {
        for (int bx = 0; bx < x / 8; bx++) {
            for (int column = 0; column < 8; column++) {
                unsigned byte = 0;
                for (int row = 0; row < 8; row++) {
                    const unsigned line = from[(by * 8 + row) * static_cast<std::ptrdiff_t>(x / 8) + bx];
                    byte |= (line >> column & 1U) << row;
                }
                to[(bx * 8 + column) * static_cast<std::ptrdiff_t>(y / 8) + by] = static_cast<unsigned char>(byte);
            }
        }
    }
}

}  // namespace

// ---- Tables

IP_VolDataVolR::OpaqueValues::OpaqueValues(const unsigned int** colours, const PixelDataAttributes& attributes)
    : bits(std::clamp(attributes.bits_stored, 1, 16)),
      lowest(attributes.is_signed ? -(1 << (bits - 1)) : 0),
      flags(static_cast<std::size_t>(kNumTissues) << bits) {
    const std::ptrdiff_t count = std::ptrdiff_t{1} << bits;
    for (int tissue = 0; tissue < kNumTissues; tissue++) {
        const unsigned int* const table = colours[tissue];
        if (table == nullptr) {
            continue;
        }
        unsigned greatest = 0;
        for (std::ptrdiff_t i = 0; i < count; i++) {
            greatest = std::max(greatest, table[i + lowest] >> 24);
        }
        const unsigned from = std::clamp((greatest + 1) / 2, 1U, kOpaqueFrom);
        std::uint8_t* const to = flags.data() + tissue * count;
        for (std::ptrdiff_t i = 0; i < count; i++) {
            to[i] = table[i + lowest] >> 24 >= from ? 1 : 0;
        }
    }
}

std::size_t IP_VolDataVolR::OpaqueValues::position(short pixel) const {
    const int value = lowest < 0 ? pixel : static_cast<unsigned short>(pixel);
    return static_cast<std::size_t>(std::clamp(value - lowest, 0, (1 << bits) - 1));
}

std::shared_ptr<const IP_VolDataVolR::OpaqueValues> IP_VolDataVolR::make_tables(const IP_VolData& source,
                                                                                const unsigned int** colours) {
    const IP_Slice* const slice = source.GetSlice(source.GetFirstSliceInd());
    const PixelDataAttributes attributes = slice == nullptr ? PixelDataAttributes() : slice->GetAttributes();
    return std::make_shared<const OpaqueValues>(colours, attributes);
}

// False without source or tables, and with nothing changed when there is no memory.
bool IP_VolDataVolR::take_tables(const IP_VolData* source, const unsigned int** colours, IP_VolData* tissues) {
    if (source == nullptr || colours == nullptr) {
        return false;
    }
    return ip_volr::succeeds_with_memory(kSource, "IP_VolDataVolR::take_tables", [&] {
        m_Opaque = make_tables(*source, colours);
        m_Tissues = tissues;
        return true;
    });
}

// ---- Creation and refill

IP_VolDataVolR::IP_VolDataVolR(IP_Box* box) : IP_VolDataProj(box) {}

IP_VolDataVolR::IP_VolDataVolR(const IP_VolDataVolR& o) = default;

IP_VolDataVolR::IP_VolDataVolR(const IP_VolDataVolR& o, bool transposed)
    : IP_VolDataProj(o, transposed, kBytesPerPixel), m_Opaque(o.m_Opaque), m_Tissues(o.m_Tissues) {}

IP_VolDataVolR& IP_VolDataVolR::operator=(const IP_VolDataVolR& o) = default;

bool IP_VolDataVolR::Create(const IP_VolData& source, SliceHashMap& map, const unsigned int** colours,
                            IP_VolData* tissues, int factor, bool transposed, int pd_counter, int tissue_counter,
                            int render_quality) {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolDataVolR::Create",
                  "IP_VolDataVolR Create info: Factor = %d, Transposed = %d\n", factor, transposed ? 1 : 0);
    return take_tables(&source, colours, tissues) &&
           IP_VolDataProj::Create(source, map, false, factor, transposed, pd_counter, tissue_counter, render_quality,
                                  kBytesPerPixel);
}

bool IP_VolDataVolR::LeanCreate(const IP_VolData& source, SliceHashMap& map, const unsigned int** colours,
                                IP_VolData* tissues, int factor, bool transposed, int pd_counter, int tissue_counter,
                                int render_quality) {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolDataVolR::LeanCreate",
                  "IP_VolDataVolR LeanCreate info: Factor = %d, Transposed = %d\n", factor, transposed ? 1 : 0);
    return take_tables(&source, colours, tissues) &&
           IP_VolDataProj::LeanCreate(source, map, false, factor, transposed, pd_counter, tissue_counter,
                                      render_quality, kBytesPerPixel);
}

bool IP_VolDataVolR::CopyFastFromSlow(IP_VolData* source, const unsigned int** colours, IP_VolData* tissues,
                                      bool transposed, int pd_counter, int tissue_counter) {
    return take_tables(source, colours, tissues) &&
           IP_VolDataProj::CopyFastFromSlow(source, transposed, pd_counter, tissue_counter, 0);
}

bool IP_VolDataVolR::CopyWithTissue(IP_VolData* source, const unsigned int** colours, IP_VolData* tissues,
                                    bool transposed, int pd_counter, int tissue_counter, bool run) {
    return take_tables(source, colours, tissues) &&
           IP_VolDataProj::CopyWithTissue(source, transposed, pd_counter, tissue_counter, run);
}

void IP_VolDataVolR::SetSlowTissues(IP_VolData* tissues, const unsigned int** colours) {
    if (GetCurrVolData() != nullptr && colours != nullptr) {
        m_Opaque = make_tables(*GetCurrVolData(), colours);
    }
    m_Tissues = tissues;
}

// ---- Slices

IP_Slice* IP_VolDataVolR::create_new_slice(MEM_PagerInfo* block, PixelDataAttributes& attributes) {
    return new IP_OpacitySlice(block, attributes, 0);
}

// Writes the bits of a source slice, centred in the destination's x times y voxels.
bool IP_VolDataVolR::fill(IP_Slice* destination, int x, int y, IP_Slice* source, int slice_index) {
    const ScopedSliceMapping destination_mapping(destination);
    if (!destination_mapping.ok()) {
        return false;
    }
    unsigned char* const bits = bits_of(destination);
    std::fill_n(bits, static_cast<std::size_t>(x) * static_cast<std::size_t>(y) / 8, static_cast<unsigned char>(0));
    int dims[3];
    GetSourceBox().GetDims(dims);
    if (!has_memory(source, dims[0], dims[1])) {
        return true;
    }
    IP_Slice* const tissue = tissue_slice(m_Tissues, dims[0], dims[1], slice_index);
    const ScopedSliceMapping source_mapping(source);
    const ScopedSliceMapping tissue_mapping(tissue);
    if (!source_mapping.ok() || (tissue != nullptr && !tissue_mapping.ok())) {
        return false;
    }

    // Row by row of the destination; each of its voxels gathers factor times factor of the source.
    const short* const pixels = static_cast<IP_ShortSlice*>(source)->GetMappedSlice();
    const std::uint8_t* const flags = m_Opaque->flags.data();
    const int width = m_ReducedX * m_Factor;
    const int left = (x - m_ReducedX) / 2;
    const int top = (y - m_ReducedY) / 2;
    std::vector<std::uint8_t> line(static_cast<std::size_t>(x));
    for (int row = 0; row < m_ReducedY; row++) {
        std::fill(line.begin(), line.end(), static_cast<std::uint8_t>(0));
        for (int source_y = row * m_Factor; source_y < (row + 1) * m_Factor; source_y++) {
            const short* const from = pixels + static_cast<std::ptrdiff_t>(source_y) * dims[0];
            for (int source_x = 0; source_x < width; source_x++) {
                const int t = tissue != nullptr ? tissue_at(tissue, source_x, source_y) : kNoTissue;
                const std::size_t table = static_cast<std::size_t>(t) << m_Opaque->bits;
                line[static_cast<std::size_t>(left + source_x / m_Factor)] |=
                    flags[table + m_Opaque->position(from[source_x])];
            }
        }
        pack(line.data(), bits + static_cast<std::ptrdiff_t>(top + row) * (x / 8), x / 8);
    }
    return true;
}

bool IP_VolDataVolR::copy_slice(IP_Slice* destination, int destination_x, int destination_y, IP_Slice* source,
                                int /*source_x*/, int /*source_y*/) {
    return fill(destination, destination_x, destination_y, source, -1);
}

bool IP_VolDataVolR::copy_slice_with_tissue(IP_Slice* destination, int destination_x, int destination_y,
                                            IP_Slice* source, int /*source_x*/, int /*source_y*/, int slice_index) {
    return destination != nullptr && source != nullptr &&
           fill(destination, destination_x, destination_y, source, slice_index);
}

bool IP_VolDataVolR::copy_fast_slice(IP_Slice* destination, IP_Slice* source, int x, int y) {
    return fill(destination, x, y, source, -1);
}

bool IP_VolDataVolR::copy_slice_with_tissue_fast(IP_Slice* source, IP_Slice* destination, IP_Slice* /*temp_slice*/,
                                                 int slice_index, int x, int y) {
    return fill(destination, x, y, source, slice_index);
}

void IP_VolDataVolR::transpose_slice_swap_data(IP_Slice* slice, IP_Slice* work_slice, int x, int y) {
    transpose_bits(bits_of(slice), bits_of(work_slice), x, y);
    slice->SwapPixelDataWithSlice(*work_slice);
}

void IP_VolDataVolR::reestablish_working_mem(IP_Slice* slice, IP_Slice* work_slice) {
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataVolR::reestablish_working_mem",
                  "reestablish_working_mem\n");
    const unsigned char* from = bits_of(slice);
    unsigned char* to = bits_of(work_slice);
    if (from != nullptr && to != nullptr) {
        IP_Memcpy(to, from, static_cast<std::size_t>(m_ChunkX) * m_ChunkY / 8);
        slice->SwapPixelDataWithSlice(*work_slice);
    }
}

bool IP_VolDataVolR::transpose_slice(IP_Slice* slice, IP_Slice* work_slice, int x, int y) {
    const ScopedSliceMapping slice_mapping(slice);
    const ScopedSliceMapping work_mapping(work_slice);
    if (!slice_mapping.ok() || !work_mapping.ok()) {
        return false;
    }
    transpose_bits(bits_of(slice), bits_of(work_slice), x, y);
    return true;
}

// ---- Reading

bool IP_VolDataVolR::Reader::IsOpaque(int x, int y, int z) {
    if (m_Data.m_Opaque == nullptr || x < 0 || y < 0 || z < 0 || x >= m_Data.m_ReducedX || y >= m_Data.m_ReducedY ||
        z >= m_Data.m_NumbSlices || !MapSlice(z)) {
        return false;
    }
    return m_Bits != nullptr ? IsOpaqueInBits(x, y) : m_Source != nullptr && IsOpaqueInSource(x, y);
}

// Maps the bits of a slice, or of a slice without bits what they would be made of. False when that is refused.
bool IP_VolDataVolR::Reader::MapSlice(int z) {
    if (z == m_MappedIndex) {
        return true;
    }
    Release();
    const auto map = [this](IP_Slice* slice) {
        const bool mapped = slice->MapMemory() == 0;
        m_HasFailed = m_HasFailed || !mapped;
        return mapped ? slice : nullptr;
    };
    if (m_Data.slice_record(z) != nullptr) {
        m_Bits = map(m_Data.GetSlice(z));
        m_MappedIndex = m_Bits != nullptr ? z : -1;
        return m_Bits != nullptr;
    }

    int dims[3];
    m_Data.GetSourceBox().GetDims(dims);
    IP_Slice* const source = m_Data.m_OrigVolData == nullptr ? nullptr : m_Data.m_OrigVolData->GetSlice(z);
    IP_Slice* const tissue = tissue_slice(m_Data.m_Tissues, dims[0], dims[1], z);
    m_MappedIndex = z;
    if (has_memory(source, dims[0], dims[1])) {
        m_Source = map(source);
        m_Tissue = m_Source != nullptr && tissue != nullptr ? map(tissue) : nullptr;
        if (m_Source == nullptr || (tissue != nullptr && m_Tissue == nullptr)) {
            Release();
            return false;
        }
    }
    return true;
}

void IP_VolDataVolR::Reader::Release() {
    for (IP_Slice** slice : {&m_Bits, &m_Source, &m_Tissue}) {
        if (*slice != nullptr) {
            (*slice)->UnmapMemory();
            *slice = nullptr;
        }
    }
    m_MappedIndex = -1;
}

bool IP_VolDataVolR::Reader::IsOpaqueInBits(int x, int y) const {
    const int column = x + (m_Data.GetChunkX() - m_Data.m_ReducedX) / 2;
    const int row = y + (m_Data.GetChunkY() - m_Data.m_ReducedY) / 2;
    const bool transposed = m_Data.IsSliceTransposed(m_MappedIndex);
    const std::ptrdiff_t i = transposed ? static_cast<std::ptrdiff_t>(column) * m_Data.GetChunkY() + row
                                        : static_cast<std::ptrdiff_t>(row) * m_Data.GetChunkX() + column;
    return (bits_of(m_Bits)[i / 8] >> (i % 8) & 1) != 0;
}

bool IP_VolDataVolR::Reader::IsOpaqueInSource(int x, int y) const {
    int dims[3];
    m_Data.GetSourceBox().GetDims(dims);
    const int factor = m_Data.m_Factor;
    const short* const pixels = static_cast<IP_ShortSlice*>(m_Source)->GetMappedSlice();
    for (int source_y = y * factor; source_y < (y + 1) * factor; source_y++) {
        for (int source_x = x * factor; source_x < (x + 1) * factor; source_x++) {
            const int t = m_Tissue != nullptr ? tissue_at(m_Tissue, source_x, source_y) : kNoTissue;
            const short pixel = pixels[static_cast<std::ptrdiff_t>(source_y) * dims[0] + source_x];
            const std::size_t table = static_cast<std::size_t>(t) << m_Data.m_Opaque->bits;
            if (m_Data.m_Opaque->flags[table + m_Data.m_Opaque->position(pixel)] != 0) {
                return true;
            }
        }
    }
    return false;
}
