#include "host/masks.h"

#include <algorithm>
#include <cmath>

#include "host/reference/matrix_inverse.h"
#include "host/tasks.h"

namespace {

constexpr int kNone = -1;
constexpr int kWordBits = 32;

// Physical mm to the indices of a box, in double precision.
void physical_to_index(const IP_Box& box, double out[4][4]) {
    float index_to_physical[4][4];
    box.GetIndexToPhysicalTrans(index_to_physical);
    if (!reference_host::invert_matrix(index_to_physical, out)) {
        for (int r = 0; r < 4; ++r) {
            for (int c = 0; c < 4; ++c) {
                out[r][c] = r == c ? 1.0 : 0.0;
            }
        }
    }
}

// The indices of one box to those of another.
void index_to_index(const IP_Box& from, const IP_Box& to, double out[4][4]) {
    float first[4][4];
    from.GetIndexToPhysicalTrans(first);
    double second[4][4];
    physical_to_index(to, second);
    for (int r = 0; r < 4; ++r) {
        for (int c = 0; c < 4; ++c) {
            out[r][c] = 0.0;
            for (int k = 0; k < 4; ++k) {
                out[r][c] += first[r][k] * second[k][c];
            }
        }
    }
}

// Whether the trilinear interpolation of the bits around an index position reaches one half. Voxels outside are unset.
bool is_set_trilinear(const IP_BitVol& volume, const double pos_vox[3]) {
    int corner[3];
    double fraction[3];
    for (int i = 0; i < 3; ++i) {
        const double base = std::floor(pos_vox[i]);
        corner[i] = static_cast<int>(base);
        fraction[i] = pos_vox[i] - base;
    }
    double sum = 0.0;
    for (int i = 0; i < 8; ++i) {
        double weight = 1.0;
        for (int axis = 0; axis < 3; ++axis) {
            weight *= ((i >> axis) & 1) != 0 ? fraction[axis] : 1.0 - fraction[axis];
        }
        if (weight > 0.0 && volume.GetPixel(corner[0] + (i & 1), corner[1] + ((i >> 1) & 1), corner[2] + (i >> 2))) {
            sum += weight;
        }
    }
    return sum >= 0.5;
}

bool is_set_nearest(const IP_BitVol& volume, const double pos_vox[3]) {
    return volume.GetPixel(static_cast<int>(std::floor(pos_vox[0] + 0.5)),
                           static_cast<int>(std::floor(pos_vox[1] + 0.5)),
                           static_cast<int>(std::floor(pos_vox[2] + 0.5))) != 0;
}

// Whether a position lies within a voxel of the volume, so that it fits integers and may see set voxels.
bool is_near(const double pos_vox[3], const int dims[3]) {
    return pos_vox[0] > -1.0 && pos_vox[0] < dims[0] && pos_vox[1] > -1.0 && pos_vox[1] < dims[1] &&
           pos_vox[2] > -1.0 && pos_vox[2] < dims[2];
}

// Sets the voxels of one volume that are set in another, slices in parallel: they have no word in common.
class SmoothOrJob {
public:
    SmoothOrJob(IP_BitVol& target, const IP_BitVol& sampled, int interpolation)
        : m_Target(target), m_Sampled(sampled), m_Interpolation(interpolation) {
        m_Target.GetDims(m_Dims);
        m_Sampled.GetDims(m_SampledDims);
    }

    double to_other[4][4] = {};  // indices of the target to indices of the sampled volume

    void Execute() {
        TCO_CompoundRunnable<SmoothOrJob> runnable(this, &SmoothOrJob::subtask_set_slices);
        TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, 0, false);
    }

private:
    void subtask_set_slices() {
        const TCO_RunnableSelf self;
        const int last = self.EndRange(m_Dims[2] - 1, 0);
        for (int z = self.StartRange(m_Dims[2] - 1, 0); z <= last; ++z) {
            for (int y = 0; y < m_Dims[1]; ++y) {
                SetRow(y, z);
            }
        }
    }

    void SetRow(int y, int z) {
        for (int x = 0; x < m_Dims[0]; ++x) {
            double pos_vox[3];
            for (int c = 0; c < 3; ++c) {
                pos_vox[c] = x * to_other[0][c] + y * to_other[1][c] + z * to_other[2][c] + to_other[3][c];
            }
            if (!is_near(pos_vox, m_SampledDims)) {
                continue;
            }
            if (m_Interpolation == 0 ? is_set_nearest(m_Sampled, pos_vox) : is_set_trilinear(m_Sampled, pos_vox)) {
                m_Target.SetPixel(x, y, z, true);
            }
        }
    }

    IP_BitVol& m_Target;
    const IP_BitVol& m_Sampled;
    const int m_Interpolation;
    int m_Dims[3];
    int m_SampledDims[3];
};

IP_Box place_box(const IP_ListVol* list, const IP_BoxParams* place) {
    int dims[3] = {0, 0, 0};
    if (list != nullptr) {
        list->GetDims(dims);
    }
    IP_Box box(dims[0], dims[1], dims[2]);
    if (place != nullptr) {
        float vecs[3][3];
        float start[3];
        place->GetVecs(vecs);
        place->GetStart(start);
        box.SetParams(vecs);
        box.SetStart(start);
    }
    return box;
}

}  // namespace

IP_ListVol::IP_ListVol(const IP_Dims& dims) : m_Dims(dims) {}

int IP_ListVol::GetPixel(int x, int y, int z) const {
    for (int node = HeadOf(y, z); node != kNone && m_Nodes[node].first <= x; node = m_Nodes[node].next) {
        if (x < m_Nodes[node].last) {
            return 1;
        }
    }
    return 0;
}

void IP_ListVol::Negate() {
    int dims[3];
    m_Dims.GetDims(dims);
    IP_ListVol negated(m_Dims);
    for (int z = 0; z < dims[2]; ++z) {
        for (int y = 0; y < dims[1]; ++y) {
            int gap = 0;
            for (int node = HeadOf(y, z); node != kNone; node = m_Nodes[node].next) {
                negated.AddRun(y, z, gap, m_Nodes[node].first);
                gap = m_Nodes[node].last;
            }
            negated.AddRun(y, z, gap, dims[0]);
        }
    }
    m_Rows.swap(negated.m_Rows);
    m_Nodes.swap(negated.m_Nodes);
    m_Free = kNone;
}

void IP_ListVol::AddRun(int row, int slice, int first, int last) {
    int dims[3];
    m_Dims.GetDims(dims);
    const long long number = RowNumber(row, slice);
    const int cut_first = std::max(first, 0);
    const int cut_last = std::min(last, dims[0]);
    if (number < 0 || cut_first >= cut_last) {
        return;
    }
    if (m_Rows.empty()) {
        m_Rows.assign(static_cast<std::size_t>(dims[1]) * static_cast<std::size_t>(dims[2]), RowEnds{kNone, kNone});
    }

    // The usual case, runs from left to right, touches the end of the row only.
    RowEnds& ends = m_Rows[static_cast<std::size_t>(number)];
    if (ends.tail == kNone || cut_first > m_Nodes[ends.tail].last) {
        const int node = NewNode(cut_first, cut_last, kNone);
        (ends.tail == kNone ? ends.head : m_Nodes[ends.tail].next) = node;
        ends.tail = node;
    } else if (cut_first >= m_Nodes[ends.tail].first) {
        m_Nodes[ends.tail].last = std::max(m_Nodes[ends.tail].last, cut_last);
    } else {
        InsertRun(ends, cut_first, cut_last);
    }
}

std::vector<IP_ListVol::Run> IP_ListVol::GetRuns(int row, int slice) const {
    std::vector<Run> runs;
    for (int node = HeadOf(row, slice); node != kNone; node = m_Nodes[node].next) {
        runs.push_back({m_Nodes[node].first, m_Nodes[node].last});
    }
    return runs;
}

void IP_ListVol::WriteLine(int row, int slice, short* line, unsigned short value) const {
    for (int node = HeadOf(row, slice); node != kNone; node = m_Nodes[node].next) {
        std::fill(line + m_Nodes[node].first, line + m_Nodes[node].last, static_cast<short>(value));
    }
}

void IP_ListVol::WriteLine(int row, int slice, unsigned char* line, unsigned char value, int set) const {
    if (RowNumber(row, slice) < 0) {
        return;
    }
    int gap = 0;
    for (int node = HeadOf(row, slice); node != kNone; node = m_Nodes[node].next) {
        const int first = set != 0 ? m_Nodes[node].first : gap;
        const int last = set != 0 ? m_Nodes[node].last : m_Nodes[node].first;
        std::fill(line + first, line + last, value);
        gap = m_Nodes[node].last;
    }
    if (set == 0) {
        int dims[3];
        m_Dims.GetDims(dims);
        std::fill(line + gap, line + std::max(dims[0], gap), value);
    }
}

long long IP_ListVol::RowNumber(int row, int slice) const {
    int dims[3];
    m_Dims.GetDims(dims);
    if (row < 0 || row >= dims[1] || slice < 0 || slice >= dims[2]) {
        return -1;
    }
    return row + static_cast<long long>(slice) * dims[1];
}

int IP_ListVol::HeadOf(int row, int slice) const {
    const long long number = RowNumber(row, slice);
    return number < 0 || m_Rows.empty() ? kNone : m_Rows[static_cast<std::size_t>(number)].head;
}

int IP_ListVol::NewNode(int first, int last, int next) {
    if (m_Free != kNone) {
        const int node = m_Free;
        m_Free = m_Nodes[node].next;
        m_Nodes[node] = {first, last, next};
        return node;
    }
    m_Nodes.push_back({first, last, next});
    return static_cast<int>(m_Nodes.size()) - 1;
}

// Inserts a run that begins before the row's last one, and merges what it overlaps or touches.
void IP_ListVol::InsertRun(RowEnds& row, int first, int last) {
    int before = kNone;
    int after = row.head;
    while (after != kNone && m_Nodes[after].last < first) {
        before = after;
        after = m_Nodes[after].next;
    }

    // Swallow the runs that the new one reaches.
    while (after != kNone && m_Nodes[after].first <= last) {
        first = std::min(first, m_Nodes[after].first);
        last = std::max(last, m_Nodes[after].last);
        const int swallowed = after;
        after = m_Nodes[after].next;
        m_Nodes[swallowed].next = m_Free;
        m_Free = swallowed;
    }

    const int node = NewNode(first, last, after);
    (before == kNone ? row.head : m_Nodes[before].next) = node;
    if (after == kNone) {
        row.tail = node;
    }
}

IP_BitVol::IP_BitVol(const IP_Dims& dims) : m_Dims(dims) {
    int size[3];
    m_Dims.GetDims(size);
    for (int& edge : size) {
        edge = std::max(edge, 0);
    }
    m_Dims.SetDims(size);
    m_RowStride = (static_cast<std::size_t>(size[0]) + 2 + kWordBits - 1) / kWordBits;
    m_SliceStride = m_RowStride * (static_cast<std::size_t>(size[1]) + 2);
    m_Words.assign(m_SliceStride * (static_cast<std::size_t>(size[2]) + 2), 0U);
}

int IP_BitVol::GetPixel(int x, int y, int z) const {
    int dims[3];
    m_Dims.GetDims(dims);
    if (x < 0 || x >= dims[0] || y < 0 || y >= dims[1] || z < 0 || z >= dims[2]) {
        return 0;
    }
    const std::size_t column = static_cast<std::size_t>(x) + 1;
    const std::size_t row = (static_cast<std::size_t>(y) + 1) * m_RowStride;
    const std::size_t slice = (static_cast<std::size_t>(z) + 1) * m_SliceStride;
    return static_cast<int>((m_Words[slice + row + column / kWordBits] >> (column % kWordBits)) & 1U);
}

void IP_BitVol::SetPixel(int x, int y, int z, bool set) {
    int dims[3];
    m_Dims.GetDims(dims);
    if (x < 0 || x >= dims[0] || y < 0 || y >= dims[1] || z < 0 || z >= dims[2]) {
        return;
    }
    const std::size_t column = static_cast<std::size_t>(x) + 1;
    const std::size_t row = (static_cast<std::size_t>(y) + 1) * m_RowStride;
    const std::size_t slice = (static_cast<std::size_t>(z) + 1) * m_SliceStride;
    unsigned& word = m_Words[slice + row + column / kWordBits];
    const unsigned bit = 1U << (column % kWordBits);
    word = set ? word | bit : word & ~bit;
}

void IP_BitVol::Negate() {
    int dims[3];
    m_Dims.GetDims(dims);

    // The bits of a row that are voxels and not border.
    std::vector<unsigned> inside(m_RowStride, 0U);
    for (std::size_t column = 1; column <= static_cast<std::size_t>(dims[0]); ++column) {
        inside[column / kWordBits] |= 1U << (column % kWordBits);
    }
    for (int z = 0; z < dims[2]; ++z) {
        for (int y = 0; y < dims[1]; ++y) {
            unsigned* const row = m_Words.data() + (static_cast<std::size_t>(z) + 1) * m_SliceStride +
                                  (static_cast<std::size_t>(y) + 1) * m_RowStride;
            std::transform(row, row + m_RowStride, inside.begin(), row, [](unsigned a, unsigned b) { return a ^ b; });
        }
    }
}

void IP_BitVol::WriteLine(int row, int slice, unsigned char* line, unsigned char value, int set) const {
    int dims[3];
    m_Dims.GetDims(dims);
    if (row < 0 || row >= dims[1] || slice < 0 || slice >= dims[2]) {
        return;
    }
    const unsigned* const words = m_Words.data() + (static_cast<std::size_t>(slice) + 1) * m_SliceStride +
                                  (static_cast<std::size_t>(row) + 1) * m_RowStride;
    const unsigned nothing = set != 0 ? 0U : ~0U;
    for (int x = 0; x < dims[0]; ++x) {
        const unsigned column = static_cast<unsigned>(x) + 1;
        const unsigned word = words[column / kWordBits] ^ nothing;
        // Skip the rest of a word that writes nothing.
        if (word == 0U) {
            x += static_cast<int>(kWordBits - 1 - column % kWordBits);
        } else if (((word >> (column % kWordBits)) & 1U) != 0U) {
            line[x] = value;
        }
    }
}

IP_RealListVol::IP_RealListVol(const IP_Box& box) : IP_ListVol(box), m_Box(box) {}

IP_RealBitVol::IP_RealBitVol(const IP_Box& box) : IP_BitVol(box), m_Box(box) {}

IP_RealBitVol::IP_RealBitVol(const IP_ListVol* list, const IP_BoxParams* place, bool negate)
    : IP_BitVol(place_box(list, nullptr)), m_Box(place_box(list, place)) {
    int dims[3];
    m_Dims.GetDims(dims);
    for (int z = 0; list != nullptr && z < dims[2]; ++z) {
        for (int y = 0; y < dims[1]; ++y) {
            for (const IP_ListVol::Run& run : list->GetRuns(y, z)) {
                for (int x = run.first; x < run.last; ++x) {
                    SetPixel(x, y, z, true);
                }
            }
        }
    }
    if (negate) {
        Negate();
    }
}

void IP_RealBitVol::SmoothOr(const IP_RealBitVol& other, int interpolation) {
    // Voxels set here while sampling must not be seen by later samples of the same volume.
    const IP_BitVol copy = &other == this ? IP_BitVol(other) : IP_BitVol();
    const IP_BitVol& sampled = &other == this ? copy : other;
    SmoothOrJob job(*this, sampled, interpolation);
    index_to_index(m_Box, other.m_Box, job.to_other);
    job.Execute();
}
