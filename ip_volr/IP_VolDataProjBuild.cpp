// Creation of prepared data: reuse by identity, chunks, slice objects and the list of slices to fill.
#include "ip_volr/IP_VOLR_Trace.h"
#include "ip_volr/IP_VolDataProj.h"

#include <algorithm>
#include <memory>
#include <unordered_set>
#include <utility>

namespace {

constexpr char kSource[] = "ip_volr/IP_VolDataProj";

// Padded size of a slice: a multiple of 16, at factor 1 of 32, so that half of it is a multiple of 16 too. The half is
// rounded up: 33 voxels do not fit into 32.
int padded_size(int size, int factor) {
    return factor == 1 ? (((size + 1) / 2 + 15) & ~15) * 2 : (size + 15) & ~15;
}

}  // namespace

void IP_VolDataProj::set_params(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor,
                                bool transposed, int pd_counter, int tissue_counter, int render_quality,
                                float bytes_per_pixel) {
    update_slow_opacity_bvs(GetBox(), render_quality);

    // Let go of an earlier preparation, but for the chunks whose blocks the map finds.
    release_slices();
    m_OwnsSlices = true;
    m_FirstNewChunk = std::max<std::size_t>(1, m_Chunks.size());
    WorkerChunks own = ReleaseWorkerChunks();
    if (own.work != nullptr) {
        m_OfferedChunks = std::move(own);
    }

    m_PDCounter = pd_counter;
    m_TissueCounter = tissue_counter;
    m_Transposed = transposed;
    m_BytesPerPixel = bytes_per_pixel;
    m_Map = &map;
    m_Factor = factor;
    m_OrigVolData = const_cast<IP_VolData*>(&source);  // read only; the type is the interface's
    m_NewTissue = new_tissue;
    m_NumbNewSlices = 0;
    m_IndexArray.clear();
    m_ReducedX = 0;
    m_ReducedY = 0;
    m_NumbSlices = 0;
    m_RenderQuality = render_quality;
    DisconnectBounds();

    // Reduce the box in x and y: its extent stays, its dimensions shrink.
    m_SourceBox = *source.GetBox();
    m_Box = IP_Box();
    if (factor == 1 || factor == 2) {
        int dims[3];
        m_Box = m_SourceBox;
        m_Box.GetDims(dims);
        dims[0] /= factor;
        dims[1] /= factor;
        m_Box.SetDims(dims);
        m_ReducedX = dims[0];
        m_ReducedY = dims[1];
        m_NumbSlices = std::max(0, dims[2]);
    }
    double slope = 1.0;
    double intercept = 0.0;
    source.GetRescaleTrans(slope, intercept);
    SetRescaleTrans(slope, intercept);

    m_ChunkX = static_cast<unsigned>(padded_size(m_ReducedX, factor));
    m_ChunkY = static_cast<unsigned>(padded_size(m_ReducedY, factor));
    m_NumbWorkSlices = static_cast<unsigned>(std::max(2, TCO_CompoundTaskManager::GetNumberOfServers()));
    m_Slices.assign(static_cast<std::size_t>(m_NumbSlices) + 2 * std::size_t{m_NumbWorkSlices}, nullptr);
    m_Records.assign(static_cast<std::size_t>(m_NumbSlices), nullptr);
}

PreparedSliceShape IP_VolDataProj::shape() const {
    return {m_ReducedX, m_ReducedY, static_cast<int>(m_ChunkX), static_cast<int>(m_ChunkY), m_Factor, m_BytesPerPixel};
}

// The record that holds a slice of this text and this volume's shape; null when there is none.
IP_SliceIDInfo* IP_VolDataProj::find_record(const char* id) const {
    SliceIDKey key;
    key.SetText(id, false);
    if (key.GetLength() == 0) {
        return nullptr;
    }
    const auto found = m_Map->find(&key);
    if (found == m_Map->end()) {
        return nullptr;
    }
    IP_SliceIDInfo* record = found->second;
    const bool has_block = record->GetData() != nullptr && record->GetData()->Block() != -1;
    return has_block && record->GetShape() == shape() ? record : nullptr;
}

void IP_VolDataProj::find_existed_slices_data() {
    // Two slices of one text must not share a block: the second one counts as new.
    std::unordered_set<IP_SliceIDInfo*> taken;
    taken.reserve(m_Records.size());

    m_NumbNewSlices = 0;
    for (int i = start_index(); i < m_NumbSlices; i++) {
        const IP_Slice* source = m_OrigVolData->GetSlice(i);
        IP_SliceIDInfo* record = source == nullptr ? nullptr : find_record(source->GetID());
        if (record != nullptr && taken.insert(record).second) {
            m_Slices[static_cast<std::size_t>(i)] = new_slice(record->GetData(), i, 1);
            m_Records[static_cast<std::size_t>(i)] = record;
        } else {
            m_NumbNewSlices++;
        }
    }
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolDataProj::find_existed_slices_data",
                  "find %d new slices\n", static_cast<int>(m_NumbNewSlices));
    build_ind_array(false);
}

void IP_VolDataProj::build_ind_array(bool all_slices) {
    constexpr char kFunction[] = "IP_VolDataProj::build_ind_array";
    if (m_NewTissue) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kFunction,
                      "there is new tissue, build index array for %d slices\n", m_NumbSlices);
    } else if (all_slices) {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kFunction, "build index array for all slices (%d)\n",
                      m_NumbSlices);
        m_NumbNewSlices = static_cast<unsigned>(m_NumbSlices);
    } else {
        IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kFunction, "build index array for %d slices\n",
                      static_cast<int>(m_NumbNewSlices));
    }

    m_IndexArray.clear();
    for (int i = start_index(); i < m_NumbSlices; i++) {
        if (m_NewTissue || all_slices || m_Slices[static_cast<std::size_t>(i)] == nullptr) {
            m_IndexArray.push_back(static_cast<unsigned>(i));
        }
    }
}

bool IP_VolDataProj::build_chunks(bool allocate) {
    constexpr char kFunction[] = "IP_VolDataProj::build_chunks";

    // Enlarge the box to the padded size; the data stays centred.
    if (static_cast<int>(m_ChunkX) != m_ReducedX || static_cast<int>(m_ChunkY) != m_ReducedY) {
        IP_Dims dims(static_cast<int>(m_ChunkX), static_cast<int>(m_ChunkY), m_NumbSlices);
        m_Box.Embed(&dims);
    }

    WorkerChunks offered = std::move(m_OfferedChunks);
    if (m_Chunks.empty()) {
        m_Chunks.push_back(nullptr);
    }
    m_Chunks.front() =
        build_worker_chunk("Work Chunk: try to allocate %d slices, allocated: %d\n", 1, std::move(offered.work));
    if (m_Chunks.front() == nullptr) {
        return false;
    }
    m_TempChunk =
        build_worker_chunk("Temp Chunk: try to allocate %d slices, allocated: %d\n", m_Factor, std::move(offered.temp));
    if (m_TempChunk == nullptr) {
        return false;
    }

    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, kFunction, "build chunks for %d slice, alloc = %d\n",
                  static_cast<int>(m_NumbNewSlices), allocate ? 1 : 0);
    return !allocate || m_NumbNewSlices == 0 || build_slice_chunks();
}

// One block per worker, `scale` times the padded size in x and y, in the offered chunk if it is such; null when the
// pager grants fewer.
IP_SliceChunk* IP_VolDataProj::build_worker_chunk(const char* log_line, int scale,
                                                  std::unique_ptr<IP_SliceChunk> offered) {
    constexpr char kFunction[] = "IP_VolDataProj::build_chunks";
    const int x = scale * static_cast<int>(m_ChunkX);
    const int y = scale * static_cast<int>(m_ChunkY);
    std::unique_ptr<IP_SliceChunk> chunk = std::move(offered);
    unsigned granted = m_NumbWorkSlices;
    if (chunk == nullptr || chunk->GetNumbSlices() != m_NumbWorkSlices ||
        chunk->GetSliceSize() != IP_SliceChunk::BlockSize(x, y, m_BytesPerPixel)) {
        chunk.reset();
        chunk = std::make_unique<IP_SliceChunk>(m_NumbWorkSlices, x, y, m_BytesPerPixel, true, &granted);
    }
    if (Tmr_LogFile::StoreParams(kSource, kFunction, __LINE__, ip_volr::kTraceDetail, ip_volr::kTraceFacility,
                                 ip_volr::kTraceReserved) != 0) {
        Tmr_LogFile::Log(log_line, static_cast<int>(m_NumbWorkSlices), static_cast<int>(granted));
    }
    if (granted < m_NumbWorkSlices) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "Failed to allocate chunk\n");
        return nullptr;
    }
    return chunk.release();
}

// Chunks for the new slices. The pager is never asked again for more than it last granted, so that a fragmented one
// serves the volume in a few chunks. On failure the chunks of this call are given back.
bool IP_VolDataProj::build_slice_chunks() {
    constexpr char kFunction[] = "IP_VolDataProj::build_chunks";
    std::vector<std::unique_ptr<IP_SliceChunk>> chunks;
    unsigned remaining = m_NumbNewSlices;
    unsigned request = remaining;
    while (remaining > 0) {
        unsigned granted = 0;
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, kFunction, "Alloc. Chunk: try to allocate %d slices\n",
                      static_cast<int>(request));
        chunks.push_back(std::make_unique<IP_SliceChunk>(request, static_cast<int>(m_ChunkX),
                                                         static_cast<int>(m_ChunkY), m_BytesPerPixel, false, &granted));
        IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, kFunction, "allocated: %d\n", static_cast<int>(granted));
        if (granted == 0) {
            IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "Failed to allocate chunk\n");
            return false;
        }
        remaining -= granted;
        request = std::min(remaining, granted);
    }
    m_Chunks.reserve(m_Chunks.size() + chunks.size());
    for (std::unique_ptr<IP_SliceChunk>& chunk : chunks) {
        m_Chunks.push_back(chunk.release());
    }
    return true;
}

void IP_VolDataProj::build_slices(bool allocate) {
    IP_VOLR_TRACE(ip_volr::kTraceInformation, kSource, "IP_VolDataProj::build_slices",
                  "build_slices m_NumbNewSlices = %d total = %d alloc = %d\n", static_cast<int>(m_NumbNewSlices),
                  m_NumbSlices, allocate ? 1 : 0);
    build_new_slices(allocate);
    build_worker_slices(*m_Chunks.front(), m_NumbSlices, 1);
    build_worker_slices(*m_TempChunk, m_NumbSlices + static_cast<int>(m_NumbWorkSlices), m_Factor);
}

// Fills the empty positions in order, block by block of the new chunks.
void IP_VolDataProj::build_new_slices(bool allocate) {
    std::size_t chunk_index = m_FirstNewChunk;
    unsigned block_index = 0;
    int number = 0;
    for (int k = start_index(); k < m_NumbSlices; k++) {
        const std::size_t position = static_cast<std::size_t>(k);
        if (m_Slices[position] != nullptr) {
            continue;
        }
        if (!allocate) {
            m_Slices[position] = new_slice(nullptr, k, 1);
            continue;
        }

        if (block_index == m_Chunks[chunk_index]->GetNumbSlices()) {
            chunk_index++;
            block_index = 0;
        }
        MEM_PagerInfo* block = m_Chunks[chunk_index]->GetMemInfo(block_index);
        IP_SliceIDInfo& record = m_Chunks[chunk_index]->GetInfoMem()[block_index];
        block_index++;

        IP_Slice* slice = new_slice(block, k, 1);
        m_Slices[position] = slice;
        m_Records[position] = &record;
        record.SetData(block);
        record.SetShape(shape());
        record.SetID(slice->GetID());
        if (register_record(record)) {
            IP_VOLR_TRACE(ip_volr::kTraceDetail, kSource, "IP_VolDataProj::build_slices",
                          "insert slice info for slice %d key %d into hash, id = %s\n", number,
                          static_cast<int>(record.GetID()->GetHash()), slice->GetID());
        }
        number++;
    }
}

// Puts a record into the map. It stays out without text, and when the text belongs to another slice of this volume; a
// record of another shape makes room.
bool IP_VolDataProj::register_record(IP_SliceIDInfo& record) {
    if (record.GetID()->GetLength() == 0) {
        return false;
    }
    const auto found = m_Map->find(record.GetID());
    if (found != m_Map->end() && std::find(m_Records.begin(), m_Records.end(), found->second) != m_Records.end()) {
        return false;
    }
    record.Register(*m_Map);
    return true;
}

// A slice object with identity, bits and signedness of a source slice, `scale` times the padded size.
IP_Slice* IP_VolDataProj::new_slice(MEM_PagerInfo* block, int source_index, int scale) {
    const IP_Slice* source = m_OrigVolData->GetSlice(source_index);
    PixelDataAttributes attributes;
    if (source != nullptr) {
        attributes = source->GetAttributes();
    }
    attributes.width = scale * static_cast<int>(m_ChunkX);
    attributes.height = scale * static_cast<int>(m_ChunkY);

    std::unique_ptr<IP_Slice> slice(create_new_slice(block, attributes));
    if (source != nullptr) {
        slice->SetID(source->GetID());
    }
    return slice.release();
}

// Work or temp slices: anonymous, with the attributes of the first source slice.
void IP_VolDataProj::build_worker_slices(IP_SliceChunk& chunk, int position, int scale) {
    for (unsigned w = 0; w < m_NumbWorkSlices; w++) {
        MEM_PagerInfo* block = chunk.GetMemInfo(w);
        chunk.GetInfoMem()[w].SetData(block);
        IP_Slice* slice = new_slice(block, 0, scale);
        slice->SetID("");
        m_Slices[static_cast<std::size_t>(position) + w] = slice;
    }
}
