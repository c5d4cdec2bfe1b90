#include "ip_volr/IP_VolDataProj.h"

#include "ip_volr/IP_RefusedMemory.h"
#include "ip_volr/IP_VOLR_Trace.h"

#include <algorithm>
#include <utility>

namespace {

constexpr char kSource[] = "ip_volr/IP_VolDataProj";

// Cuts a box along z to the slices [first, last) of `num_slices`.
void cut_box(IP_Box& box, int first, int last, int num_slices) {
    int dims[3];
    box.GetDims(dims);
    dims[2] = last - first;
    box.SetDims(dims);
    if (num_slices <= 0) {
        return;
    }

    float start[3];
    float vecs[3][3];
    box.GetStart(start);
    box.GetVecs(vecs);
    for (int i = 0; i < 3; i++) {
        const float step_mm = vecs[2][i] / static_cast<float>(num_slices);
        start[i] += step_mm * static_cast<float>(first);
        vecs[2][i] = step_mm * static_cast<float>(last - first);
    }
    box.SetStart(start);
    box.SetParams(vecs);
}

}  // namespace

IP_VolDataProj::IP_VolDataProj() = default;

IP_VolDataProj::IP_VolDataProj(IP_Box* box) : IP_VolData(box, 0), m_TransposedBox(*GetBox()) {}

IP_VolDataProj::IP_VolDataProj(const IP_VolDataProj& o) : IP_VolData(o), TCO_CompoundRunnable<IP_VolDataProj>() {
    copy_view(o);
}

IP_VolDataProj::IP_VolDataProj(const IP_VolDataProj& o, bool transposed, float bytes_per_pixel) : IP_VolDataProj(o) {
    m_Transposed = transposed;
    m_BytesPerPixel = bytes_per_pixel;
    SetDirOriginal();
    if (transposed) {
        FlipCurrentDir();
    }
}

IP_VolDataProj& IP_VolDataProj::operator=(const IP_VolDataProj& o) {
    if (this != &o) {
        release();
        IP_VolData::operator=(o);
        copy_view(o);
    }
    return *this;
}

IP_VolDataProj::~IP_VolDataProj() {
    release();
}

void IP_VolDataProj::release_slices() {
    if (m_OwnsSlices) {
        for (IP_Slice* slice : m_Slices) {
            delete slice;
        }
    }
    m_Slices.clear();
    m_Records.clear();
}

void IP_VolDataProj::release() {
    release_slices();
    delete std::exchange(m_TempChunk, nullptr);
    for (IP_SliceChunk* chunk : m_Chunks) {
        delete chunk;
    }
    m_Chunks.clear();
}

// Everything but slices (the base copies the pointers), chunks and the state of an operation.
void IP_VolDataProj::copy_view(const IP_VolDataProj& o) {
    m_Transposed = o.m_Transposed;
    m_TransposedBox = o.m_TransposedBox;
    m_BytesPerPixel = o.m_BytesPerPixel;
    m_ReducedX = o.m_ReducedX;
    m_ReducedY = o.m_ReducedY;
    m_NumbSlices = o.m_NumbSlices;
    m_NumbWorkSlices = o.m_NumbWorkSlices;
    m_NumbNewSlices = o.m_NumbNewSlices;
    m_IndexArray = o.m_IndexArray;
    m_NewTissue = o.m_NewTissue;
    m_Factor = o.m_Factor;
    m_PDCounter = o.m_PDCounter;
    m_TissueCounter = o.m_TissueCounter;
    m_ChunkX = o.m_ChunkX;
    m_ChunkY = o.m_ChunkY;
    m_RenderQuality = o.m_RenderQuality;
    m_Map = o.m_Map;
    m_OrigVolData = o.m_OrigVolData;
    m_CurrentDir = o.m_CurrentDir;
    m_SourceBox = o.m_SourceBox;
    m_Records = o.m_Records;
    ShareBounds(o);
}

// The slices before the first slice index are not prepared.
int IP_VolDataProj::start_index() const {
    return std::clamp(GetFirstSliceInd(), 0, m_NumbSlices);
}

bool IP_VolDataProj::is_built() const {
    return m_Slices.size() >= static_cast<std::size_t>(m_NumbSlices) + 2 * std::size_t{m_NumbWorkSlices} &&
           m_Records.size() == static_cast<std::size_t>(m_NumbSlices);
}

IP_SliceIDInfo* IP_VolDataProj::slice_record(int index) const {
    return index >= 0 && static_cast<std::size_t>(index) < m_Records.size() ? m_Records[static_cast<std::size_t>(index)]
                                                                            : nullptr;
}

void IP_VolDataProj::update_slow_opacity_bvs(const IP_Box* /*box*/, int /*render_quality*/) {}

bool IP_VolDataProj::applies_tissue() const {
    return false;
}

bool IP_VolDataProj::Create(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor, bool transposed,
                            int pd_counter, int tissue_counter, int render_quality, float bytes_per_pixel) {
    if (!prepare_create(source, map, new_tissue, factor, transposed, pd_counter, tissue_counter, render_quality,
                        bytes_per_pixel)) {
        return false;
    }

    m_NumbNotCopied = 0;
    try {
        run_subtasks(&IP_VolDataProj::subtask_copy_slices);
    } catch (...) {
        Reset();
        throw;
    }
    Reset();
    if (m_NumbNotCopied != 0) {
        IP_VOLR_TRACE(ip_volr::kTraceError, kSource, "IP_VolDataProj::Create", "Create: %d slices were not copied\n",
                      m_NumbNotCopied.load());
    }
    return m_NumbNotCopied == 0;
}

bool IP_VolDataProj::LeanCreate(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor,
                                bool transposed, int pd_counter, int tissue_counter, int render_quality,
                                float bytes_per_pixel) {
    constexpr char kFunction[] = "IP_VolDataProj::LeanCreate";
    return ip_volr::succeeds_with_memory(kSource, kFunction, [&] {
        set_params(source, map, new_tissue, factor, transposed, pd_counter, tissue_counter, render_quality,
                   bytes_per_pixel);
        m_NumbNewSlices = static_cast<unsigned>(m_NumbSlices);
        build_ind_array(false);
        if (!build_chunks(false)) {
            IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "chunks building was failed\n");
            return false;
        }
        build_slices(false);
        Reset();
        update_slow_opacity_bvs(GetBox(), render_quality);
        return true;
    });
}

bool IP_VolDataProj::prepare_create(const IP_VolData& source, SliceHashMap& map, bool new_tissue, int factor,
                                    bool transposed, int pd_counter, int tissue_counter, int render_quality,
                                    float bytes_per_pixel) {
    constexpr char kFunction[] = "IP_VolDataProj::prepare_create";
    const auto prepare = [&] {
        set_params(source, map, new_tissue, factor, transposed, pd_counter, tissue_counter, render_quality,
                   bytes_per_pixel);
        find_existed_slices_data();
        if (!build_chunks(true)) {
            IP_VOLR_TRACE(ip_volr::kTraceError, kSource, kFunction, "chunks building was failed\n");
            return false;
        }
        build_slices(true);
        update_slow_opacity_bvs(GetBox(), render_quality);
        build_ind_array(true);
        return true;
    };
    if (ip_volr::succeeds_with_memory(kSource, kFunction, prepare)) {
        return true;
    }
    drop_new_chunks();
    return false;
}

// After a failure: what has no text in the map yet would never be found again.
void IP_VolDataProj::drop_new_chunks() {
    release_slices();
    while (m_Chunks.size() > m_FirstNewChunk) {
        delete m_Chunks.back();
        m_Chunks.pop_back();
    }
}

// More subtasks than work slices would share one: the number of servers may have grown since the creation.
void IP_VolDataProj::run_subtasks(void (IP_VolDataProj::*method)()) {
    TCO_CompoundRunnable<IP_VolDataProj> runnable(this, method);
    const int subtasks =
        std::min(TCO_CompoundTaskManager::GetNumberOfServers(), std::max(1, static_cast<int>(m_NumbWorkSlices)));
    TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, true, subtasks, false);
}

void IP_VolDataProj::Reset() {
    SetDirOriginal();
}

void IP_VolDataProj::ShowSlices(IP_VolDataProj& whole, int first, int last) {
    first = std::clamp(first, 0, whole.m_NumbSlices);
    last = std::clamp(last, first, whole.m_NumbSlices);
    if (m_OwnsSlices || this == &whole) {
        return;
    }

    // Take over the slices of the range and the workers' slices.
    m_Slices.reserve(whole.m_Slices.size());
    m_Records.reserve(whole.m_Records.size());  // from here on nothing can fail
    m_Slices = whole.m_Slices;
    for (int i = 0; i < whole.m_NumbSlices && static_cast<std::size_t>(i) < m_Slices.size(); i++) {
        if (i < first || i >= last) {
            m_Slices[static_cast<std::size_t>(i)] = nullptr;
        }
    }
    m_Records = whole.m_Records;
    m_NumbSlices = whole.m_NumbSlices;
    m_NumbWorkSlices = whole.m_NumbWorkSlices;
    m_OrigVolData = whole.m_OrigVolData;
    SetFirstSliceInd(first);
    ShareBounds(whole);

    // Cut the boxes; the view's direction stays.
    m_Box = whole.m_Box;
    cut_box(m_Box, first, last, whole.m_NumbSlices);
    m_TransposedBox = m_Box;
    if (m_CurrentDir) {
        switch_dirs(&m_TransposedBox, 0, 1);
    }
}

void IP_VolDataProj::switch_dirs(IP_Box* box, int a, int b) {
    float vecs[3][3];
    int dims[3];
    box->GetVecs(vecs);
    box->GetDims(dims);
    for (int i = 0; i < 3; i++) {
        std::swap(vecs[a][i], vecs[b][i]);
    }
    std::swap(dims[a], dims[b]);
    box->SetParams(vecs);
    box->SetDims(dims);
}

void IP_VolDataProj::FlipCurrentDir() {
    m_CurrentDir = !m_CurrentDir;
    switch_dirs(&m_TransposedBox, 0, 1);
}

void IP_VolDataProj::SetDirOriginal() {
    m_TransposedBox = m_Box;
    m_CurrentDir = false;
}

void IP_VolDataProj::SetXYCBounds(int* bounds) {
    if (bounds != m_XYCBounds.get()) {
        m_XYCBounds.reset(bounds);
    }
}

void IP_VolDataProj::SetYXCBounds(int* bounds) {
    if (bounds != m_YXCBounds.get()) {
        m_YXCBounds.reset(bounds);
    }
}

void IP_VolDataProj::SetXYCBoundsLin(short* bounds) {
    if (bounds != m_XYCBoundsLin.get()) {
        m_XYCBoundsLin.reset(bounds);
    }
}

void IP_VolDataProj::SetYXCBoundsLin(short* bounds) {
    if (bounds != m_YXCBoundsLin.get()) {
        m_YXCBoundsLin.reset(bounds);
    }
}

void IP_VolDataProj::SetBounds(std::shared_ptr<int[]> xy, std::shared_ptr<int[]> yx, std::shared_ptr<short[]> xy_lin,
                               std::shared_ptr<short[]> yx_lin) {
    m_XYCBounds = std::move(xy);
    m_YXCBounds = std::move(yx);
    m_XYCBoundsLin = std::move(xy_lin);
    m_YXCBoundsLin = std::move(yx_lin);
}

void IP_VolDataProj::DisconnectBounds() {
    m_XYCBounds.reset();
    m_YXCBounds.reset();
    m_XYCBoundsLin.reset();
    m_YXCBoundsLin.reset();
}

void IP_VolDataProj::ShareBounds(const IP_VolDataProj& other) {
    m_XYCBounds = other.m_XYCBounds;
    m_YXCBounds = other.m_YXCBounds;
    m_XYCBoundsLin = other.m_XYCBoundsLin;
    m_YXCBoundsLin = other.m_YXCBoundsLin;
}

IP_VolDataProj::WorkerChunks IP_VolDataProj::ReleaseWorkerChunks() {
    WorkerChunks result;
    result.temp.reset(std::exchange(m_TempChunk, nullptr));
    if (!m_Chunks.empty()) {
        result.work.reset(std::exchange(m_Chunks.front(), nullptr));
    }
    return result;
}

void IP_VolDataProj::ClearChunks() {
    if (m_Chunks.size() > 1) {
        m_Chunks.resize(1);
    }
}
