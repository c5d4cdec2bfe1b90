#include "ip_volr/IP_VolRParams.h"

#include "host/matrix_math.h"
#include "ip_volr/IP_MultiVolDataInc.h"
#include "ip_volr/IP_SliceChunk.h"

#include <cstring>

IP_VolRParams::IP_VolRParams() {
    IP_Midnt(m_ViewMatrix);
}

// QUIRK(shallow-parameters): a reader expects a copy to own its chunks, but it shares them with its source as bare
// pointers, and so does an assigned object, which drops its own chunks without deleting them; kept: callers rely on it.
IP_VolRParams::IP_VolRParams(const IP_VolRParams& o) = default;
IP_VolRParams& IP_VolRParams::operator=(const IP_VolRParams& o) = default;

IP_VolRParams::~IP_VolRParams() {
    for (IP_SliceChunk* chunk : m_SliceChunks) {
        delete chunk;
    }
    m_SliceChunks.clear();
    delete[] m_QuotaSlices;
}

unsigned int IP_VolRParams::GetNumberSlicesInChunks() const {
    unsigned int slices = 0;
    for (const IP_SliceChunk* chunk : m_SliceChunks) {
        slices += chunk->GetNumbSlices();
    }
    return slices;
}

unsigned int IP_VolRParams::RemoveSmallSlicesChunks(int w, int h, float factor) {
    // The same size rule as a chunk's blocks: whole groups of 16 bytes and the spare bytes against aliasing. In single
    // precision the 15 would be rounded up beyond 16 MiB, and chunks that fit would be dropped.
    const float payload_bytes = static_cast<float>(static_cast<unsigned>(w) * static_cast<unsigned>(h)) * factor;
    const std::uint64_t padded_bytes = static_cast<std::uint64_t>(static_cast<double>(payload_bytes) + 15.0);
    const std::uint64_t needed_bytes = (padded_bytes & ~std::uint64_t{15}) + IP_SliceChunk::ALLIASING_64K_OFFSET;

    unsigned int slices = 0;
    for (std::size_t i = 0; i < m_SliceChunks.size();) {
        if (needed_bytes > m_SliceChunks[i]->GetSliceSize()) {
            delete m_SliceChunks[i];
            m_SliceChunks.erase(m_SliceChunks.begin() + static_cast<std::ptrdiff_t>(i));
        } else {
            slices += m_SliceChunks[i]->GetNumbSlices();
            i++;
        }
    }
    return slices;
}

IP_VolRParamsMIP::~IP_VolRParamsMIP() = default;
IP_VolRParamsVolR::~IP_VolRParamsVolR() = default;
SliceInfo::~SliceInfo() = default;
