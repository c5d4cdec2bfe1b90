#include "ip_volr/IP_SliceChunk.h"

#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/kernels/transpose.h"

#include <limits>
#include <new>
#include <vector>

namespace {

constexpr char kSource[] = "ip_volr/IP_SliceChunk";

// The pager maps and unmaps by a list of handles, in one call.
std::vector<MEM_PagerInfo*> addresses_of(MEM_PagerInfo* infos, unsigned count) {
    std::vector<MEM_PagerInfo*> result(count);
    for (unsigned i = 0; i < count; i++) {
        result[i] = infos + i;
    }
    return result;
}

}  // namespace

std::uint32_t IP_SliceChunk::BlockSize(int x, int y, float bytes_per_pixel) {
    constexpr double kMaxBytes = static_cast<double>(std::numeric_limits<std::uint32_t>::max() - ALLIASING_64K_OFFSET);
    const float num_pixels = static_cast<float>(static_cast<long long>(x) * y);
    const double padded = static_cast<double>(num_pixels * bytes_per_pixel) + 15.0;
    return padded < kMaxBytes ? (static_cast<std::uint32_t>(padded) & ~15U) + ALLIASING_64K_OFFSET : 0;
}

IP_SliceChunk::IP_SliceChunk(unsigned num_slices, int x, int y, float bytes_per_pixel, bool max_alloc,
                             unsigned* num_granted) {
    BuildChunk(num_slices, x, y, bytes_per_pixel, max_alloc, num_granted);
}

IP_SliceChunk::~IP_SliceChunk() {
    delete[] m_Infos;
    if (m_MemInfos != nullptr) {
        MEM_MemPager* pager = MEM_MemPager::GetHandleForMP();
        for (unsigned i = 0; i < m_NumbSlices; i++) {
            pager->Free(m_MemInfos[i]);
        }
        delete[] m_MemInfos;
    }
}

void IP_SliceChunk::BuildChunk(unsigned num_slices, int x, int y, float bytes_per_pixel, bool max_alloc,
                               unsigned* num_granted) {
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_SliceChunk::BuildChunk",
                  "BuildChunk: NumbSlices = %d, X = %d, Y = %d, SizeInBytes = %f, MaxAlloc = %d\n",
                  static_cast<int>(num_slices), x, y, static_cast<double>(bytes_per_pixel), max_alloc ? 1 : 0);
    *num_granted = 0;
    if (num_slices == 0 || x <= 0 || y <= 0) {
        return;
    }

    m_SliceSize = BlockSize(x, y, bytes_per_pixel);
    m_MemInfos = new MEM_PagerInfo[num_slices];
    m_Infos = new (std::nothrow) IP_SliceIDInfo[num_slices];
    if (m_Infos == nullptr || m_SliceSize == 0) {
        return;
    }

    // A refusal is no error: the chunk keeps what it got. A new block comes back mapped and rests unmapped.
    MEM_MemPager* pager = MEM_MemPager::GetHandleForMP();
    for (unsigned i = 0; i < num_slices; i++) {
        pager->Allocate(m_SliceSize, &m_MemInfos[i], 0);
        if (m_MemInfos[i].Block() == -1) {
            return;
        }
        m_MemInfos[i].Unmap();
        m_NumbSlices++;
        *num_granted = m_NumbSlices;
    }
}

int IP_SliceChunk::MapSlices() {
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_SliceChunk::MapSlices",
                  "MapSlices: MapMemPagerInfoVec [%d - %d[\n", 0, static_cast<int>(m_NumbSlices));
    try {
        std::vector<MEM_PagerInfo*> infos = addresses_of(m_MemInfos, m_NumbSlices);
        return MEM_MemPager::GetHandleForMP()->MapMemPagerInfoVec(infos.data(), static_cast<int>(infos.size()));
    } catch (const std::bad_alloc&) {
        return -1;
    }
}

int IP_SliceChunk::UnmapSlices() {
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_SliceChunk::UnmapSlices",
                  "UnmapSlices: UnmapMemPagerInfoVec [%d - %d[\n", 0, static_cast<int>(m_NumbSlices));
    std::vector<MEM_PagerInfo*> infos;
    try {
        infos = addresses_of(m_MemInfos, m_NumbSlices);
    } catch (const std::bad_alloc&) {
        for (unsigned i = 0; i < m_NumbSlices; i++) {
            m_MemInfos[i].Unmap();  // one by one where a list finds no memory
        }
        return 0;
    }
    MEM_MemPager::GetHandleForMP()->UnmapMemPagerInfoVec(infos.data(), static_cast<int>(infos.size()));
    return 0;
}

void transpose_matrix(short* source, short* destination, int X, int Y) {
    transpose_matrix(reinterpret_cast<unsigned short*>(source), reinterpret_cast<unsigned short*>(destination), X, Y, X,
                     Y);
}

void transpose_matrix(unsigned short* source, unsigned short* destination, int X, int Y, int source_stride,
                      int destination_stride) {
    ip_volr::kernels::transpose_kernels().transpose_16(source, destination, X, Y, source_stride, destination_stride);
}

void transpose_matrix_32(int* source, int* destination, int X, int Y) {
    transpose_matrix_32(source, destination, X, Y, X, Y);
}

void transpose_matrix_32(int* source, int* destination, int X, int Y, int source_stride, int destination_stride) {
    ip_volr::kernels::transpose_kernels().transpose_32(reinterpret_cast<const std::uint32_t*>(source),
                                                       reinterpret_cast<std::uint32_t*>(destination), X, Y,
                                                       source_stride, destination_stride);
}
