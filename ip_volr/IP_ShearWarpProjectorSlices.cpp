// The pool of transposed slices, and the slices that a pass maps.
#include "ip_volr/IP_ShearWarpProjector.h"
#include "ip_volr/IP_SliceChunk.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr const char* kSource = "ip_volr/IP_ShearWarpProjector";

int clamp_to_int(float v) {
    return static_cast<int>(std::clamp(v, -1e9F, 1e9F));
}

bool is_mapped(const IP_SliceChunk& chunk) {
    for (unsigned i = 0; i < chunk.GetNumbSlices(); i++) {
        if (chunk.GetMemInfo(i)->Ptr() != nullptr) {
            return true;
        }
    }
    return false;
}

// Writes the pool's blocks into the quota table, chunk by chunk.
void fill_quota_table(IP_VolRParams& params, unsigned target) {
    unsigned entry = 0;
    const unsigned last = std::min(target, params.m_QuotaCapacity);
    for (const IP_SliceChunk* chunk : params.m_SliceChunks) {
        for (unsigned i = 0; i < chunk->GetNumbSlices() && entry < last; i++) {
            params.m_QuotaSlices[entry++] = chunk->GetMemInfo(i);
        }
    }
}

}  // namespace

unsigned int IP_ShearWarpProjector::calc_slice_quota(int wanted, int max) {
    const int have = m_Params != nullptr ? static_cast<int>(m_Params->GetNumberSlicesInChunks()) : 0;
    if (wanted == have) {
        return static_cast<unsigned>(have);
    }
    if (have >= max + 2) {
        return static_cast<unsigned>(std::min(wanted, max));
    }
    if (wanted > have) {
        return static_cast<unsigned>(std::max(have - 2, 0));
    }
    return static_cast<unsigned>(wanted);
}

void IP_ShearWarpProjector::allocate_quota_slice_chunk(IP_VolRParams* params, unsigned int n, float factor) {
    // QUIRK(quota-table): a reader expects the table to grow with n, but its first length stays; later blocks beyond it
    // are in the chunks only; kept: callers rely on it.
    if (params->m_QuotaSlices == nullptr) {
        params->m_QuotaSlices = new MEM_PagerInfo* [n + 2] {};
        params->m_QuotaCapacity = n + 2;
    }
    int dims[3];
    params->m_VolumeBox.GetDims(dims);
    const unsigned target = std::min(n + 2, static_cast<unsigned>(std::max(dims[2], 0)));
    const unsigned before = params->GetNumberSlicesInChunks();
    const unsigned kept = params->RemoveSmallSlicesChunks(dims[0], dims[1], factor);
    if (kept != before) {
        // The table must not show blocks that are gone, also when the pager refuses new ones.
        std::fill(params->m_QuotaSlices, params->m_QuotaSlices + params->m_QuotaCapacity, nullptr);
    }

    if (kept < target) {
        unsigned missing = target - kept;
        unsigned ask = missing;
        while (missing > 0) {
            unsigned granted = 0;
            auto chunk = std::make_unique<IP_SliceChunk>(ask, dims[0], dims[1], factor, false, &granted);
            IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_ShearWarpProjector::allocate_quota_slice_chunk",
                          "Alloc. QuotaChunk: try to allocate %d slices, allocated: %d\n", static_cast<int>(ask),
                          static_cast<int>(granted));
            if (granted == 0) {
                IP_VOLR_TRACE(ip_volr::kTraceError, kSource, "IP_ShearWarpProjector::allocate_quota_slice_chunk",
                              "Error allocating memory for slices\n");
                return;
            }
            params->m_SliceChunks.push_back(chunk.get());
            static_cast<void>(chunk.release());
            missing -= granted;
            ask = std::min(missing, granted);
        }
    } else if (before == kept) {
        return;
    }
    fill_quota_table(*params, target);
}

int IP_ShearWarpProjector::map_chunks_slices(IP_VolRParams* params) {
    std::vector<IP_SliceChunk*>& chunks = params->m_SliceChunks;
    for (std::size_t i = 0; i < chunks.size(); i++) {
        if (chunks[i]->MapSlices() == 0) {
            continue;
        }
        // QUIRK(pool-roll-back): a reader expects the chunks before the failed one to be unmapped, but they stay
        // mapped and the failed one loses i - 1 mappings that it had before: none when it is the second, and all when
        // it is the first, for which the count wraps to some four billion; kept: callers rely on it. Unmapping what is
        // not mapped changes nothing, so the repetition ends there.
        for (auto count = static_cast<std::uint32_t>(i) - 1; count != 0 && is_mapped(*chunks[i]); count--) {
            chunks[i]->UnmapSlices();
        }
        return -1;
    }
    return 0;
}

int IP_ShearWarpProjector::unmap_chunks_slices(IP_VolRParams* params) {
    for (IP_SliceChunk* chunk : params->m_SliceChunks) {
        if (chunk->UnmapSlices() != 0) {
            return -1;
        }
    }
    return 0;
}

void IP_ShearWarpProjector::free_requests() {
    delete[] m_Requested;
    delete[] m_RequestedSlices;
    m_Requested = nullptr;
    m_RequestedSlices = nullptr;
    m_RequestedVec = nullptr;
    m_RequestedCapacity = 0;
    m_RequestedCount = 0;
}

bool IP_ShearWarpProjector::reset_RequestedSlice(int n) {
    if (n <= 0) {
        free_requests();
        return true;
    }
    if (n > m_RequestedCapacity) {
        free_requests();
        m_Requested = new (std::nothrow) unsigned char[static_cast<std::size_t>(n)];
        m_RequestedSlices = new (std::nothrow) IP_Slice*[static_cast<std::size_t>(n)];
        if (m_Requested == nullptr || m_RequestedSlices == nullptr) {
            free_requests();
            return false;
        }
        m_RequestedCapacity = n;
    }
    std::memset(m_Requested, 0, static_cast<std::size_t>(m_RequestedCapacity));
    m_RequestedCount = 0;
    return true;
}

void IP_ShearWarpProjector::stored_range(int n, int first, int last, bool forward, bool scaled, int& low,
                                         int& high) const {
    const auto stored = [&](int i) {
        const int mirrored = forward ? i : n - i - 1;
        return scaled ? clamp_to_int(static_cast<float>(mirrored) * m_ZScale) : mirrored;
    };
    const int a = stored(first);
    const int b = stored(last);
    low = std::min(a, b);
    high = std::max(a, b);
}

void IP_ShearWarpProjector::fast_requested_slices(int n, int first, int last, int d_first, int d_last, bool forward,
                                                  bool scaled) {
    int low = d_first == 0 ? 0 : d_first - 1;
    int high = d_last;
    if (m_Dir == 2) {
        stored_range(n, first, last, forward, scaled, low, high);
    }
    low = std::max(low, 0);
    high = std::min(high, m_RequestedCapacity - 1);
    if (low <= high) {
        std::memset(m_Requested + low, 1, static_cast<std::size_t>(high - low + 1));
    }
}

int IP_ShearWarpProjector::map_fast_pre_requested_slices(IP_Slice** slices) {
    m_RequestedVec = slices;
    m_RequestedCount = 0;
    for (int i = 0; i < m_RequestedCapacity; i++) {
        if (m_Requested[i] != 0) {
            m_RequestedSlices[m_RequestedCount++] = slices[i];
        }
    }
    if (!IP_SliceVector::MapIPSliceVec(m_RequestedSlices, m_RequestedCount, nullptr, false, false)) {
        m_RequestedCount = 0;
        return -1;
    }
    return 0;
}

void IP_ShearWarpProjector::unmap_fast_pre_requested_slices() {
    IP_SliceVector::UnMapIPSliceVec(m_RequestedSlices, m_RequestedCount, nullptr, false);
    m_RequestedCount = 0;
}

int IP_ShearWarpProjector::map_fast_requested_slices(int, int, int n, IP_Slice** slices, int first, int last, int, int,
                                                     bool forward, bool scaled) {
    int low = first;
    int high = last;
    if (m_Dir == 2) {
        stored_range(n, first, last, forward, scaled, low, high);
    }
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_ShearWarpProjector::map_fast_requested_slices",
                  "map_fast_requested_slices: MapMemPagerInfoVec [%d - %d]\n", low, high);
    if (high < low) {
        return -1;  // nothing is mapped
    }
    return IP_SliceVector::MapIPSliceVec(slices + low, high - low + 1, nullptr, false, false) ? 0 : -1;
}

// QUIRK(unmap-range): a reader expects the pair of map_fast_requested_slices, but unless the direction is 2 the range
// is [d_first - 1, d_last], and the text carries the name of the map function; kept: callers rely on it.
void IP_ShearWarpProjector::unmap_fast_requested_slices(int, int, int n, IP_Slice** slices, int first, int last,
                                                        int d_first, int d_last, bool forward, bool scaled) {
    int low = d_first == 0 ? 0 : d_first - 1;
    int high = d_last;
    if (m_Dir == 2) {
        stored_range(n, first, last, forward, scaled, low, high);
    }
    IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_ShearWarpProjector::unmap_fast_requested_slices",
                  "map_fast_requested_slices: UnMapIPSliceVec [%d - %d]\n", low, high);
    if (low <= high) {
        IP_SliceVector::UnMapIPSliceVec(slices + low, high - low + 1, nullptr, false);
    }
}
