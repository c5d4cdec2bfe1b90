#include "host/zoom.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdint>

#include "host/reference/kernels/zoom_rows.h"
#include "host/reference/settings.h"
#include "host/tasks.h"

namespace {

using reference_host::InstructionSet;
using reference_host::zoom::Kernels;
using reference_host::zoom::Run;

constexpr double kFixedOne = 4294967296.0;                      // 1 in positions with 32 fractional bits
constexpr std::int64_t kLargestSource = std::int64_t{1} << 30;  // pixels; offsets fit 32 bits then
constexpr std::int64_t kPixelsPerSubtask = 32 * 1024;           // below, a thread costs more than it gives

std::atomic<InstructionSet> g_Highest{InstructionSet::Avx2};

InstructionSet supported_instruction_set() {
#if defined(__x86_64__)
    if (__builtin_cpu_supports("avx2")) {
        return InstructionSet::Avx2;
    }
    if (__builtin_cpu_supports("sse4.1")) {
        return InstructionSet::Sse41;
    }
#endif
    return InstructionSet::Scalar;
}

const Kernels& kernels() {
    static const InstructionSet supported = supported_instruction_set();
    switch (std::min(supported, g_Highest.load(std::memory_order_relaxed))) {
        case InstructionSet::Avx2:
            return reference_host::zoom::kAvx2;
        case InstructionSet::Sse41:
            return reference_host::zoom::kSse41;
        default:
            return reference_host::zoom::kScalar;
    }
}

// A range [first, last) of the pixels of a destination row.
struct Range {
    int first;
    int last;
};

// The pixels among the `count` first whose position start + i * step lies in [low, high].
Range range_inside(double start, double step, double low, double high, int count) {
    const auto is_inside = [=](int i) {
        const double position = start + i * step;
        return position >= low && position <= high;
    };
    if (!std::isfinite(start) || !std::isfinite(step)) {
        return {0, 0};
    }
    if (step == 0.0) {
        return {0, is_inside(0) ? count : 0};
    }

    // Solve for the ends, bring them into the row before they become integers, and let the positions decide about the
    // pixel next to each.
    const double enter = (step > 0.0 ? low - start : high - start) / step;
    const double leave = (step > 0.0 ? high - start : low - start) / step;
    int first = static_cast<int>(std::clamp(std::floor(enter), 0.0, static_cast<double>(count)));
    int last = static_cast<int>(std::clamp(std::ceil(leave) + 1.0, 0.0, static_cast<double>(count)));
    while (first < last && !is_inside(first)) {
        ++first;
    }
    while (first < last && !is_inside(last - 1)) {
        --last;
    }
    return {first, last};
}

// The same in fixed point, low and high included, within a range that contains the result.
Range narrow_range(std::int64_t start, std::int64_t step, std::int64_t low, std::int64_t high, Range range) {
    while (range.first < range.last && (start + range.first * step < low || start + range.first * step > high)) {
        ++range.first;
    }
    while (range.first < range.last &&
           (start + (range.last - 1) * step < low || start + (range.last - 1) * step > high)) {
        --range.last;
    }
    return range;
}

// One call of the zoom. Rows are independent of each other, so any split among subtasks gives the same picture.
class Warp {
public:
    Warp(const float m[4][4], const int src_dims[3], const int dst_dims[3], const short* src, short* dst)
        : m_Kernels(kernels()),
          m_SrcWidth(src_dims[0]),
          m_SrcHeight(src_dims[1]),
          m_DstWidth(dst_dims[0]),
          m_DstHeight(dst_dims[1]),
          m_Src(src),
          m_Dst(dst) {
        for (int axis = 0; axis < 2; ++axis) {
            m_AlongRow[axis] = m[0][axis];
            m_AlongColumn[axis] = m[1][axis];
            m_Origin[axis] = m[3][axis] - 0.5;
        }
    }

    // Without a floor the pixels become the maximum of old and new.
    void KeepMaximum() { m_KeepsMaximum = true; }
    void SetFloor(int value) { m_Floor = static_cast<short>(std::clamp(value, -32768, 32767)); }

    void Execute() {
        const std::int64_t pixels = static_cast<std::int64_t>(m_DstWidth) * m_DstHeight;
        const std::int64_t most =
            std::min<std::int64_t>(TCO_CompoundTaskManager::GetNumberOfServers() * 4LL, m_DstHeight);
        const int subtasks = static_cast<int>(std::clamp<std::int64_t>(pixels / kPixelsPerSubtask, 1, most));
        if (subtasks == 1) {
            WarpRows(0, m_DstHeight - 1);
            return;
        }
        TCO_CompoundRunnable<Warp> runnable(this, &Warp::subtask_warp_rows);
        TCO_CompoundTaskManager::GetHandle()->ExecuteCompoundTask(&runnable, false, subtasks, false);
    }

private:
    void subtask_warp_rows() {
        const TCO_RunnableSelf self;
        WarpRows(self.StartRange(m_DstHeight - 1, 0), self.EndRange(m_DstHeight - 1, 0));
    }

    void WarpRows(int first, int last) const {
        for (int y = first; y <= last; ++y) {
            WarpRow(y, m_Dst + static_cast<std::int64_t>(y) * m_DstWidth);
        }
    }

    void WarpRow(int y, short* row) const {
        // Find the pixels that see the source.
        const double start_x = m_Origin[0] + y * m_AlongColumn[0];
        const double start_y = m_Origin[1] + y * m_AlongColumn[1];
        const Range across = range_inside(start_x, m_AlongRow[0], -0.5, m_SrcWidth - 0.5, m_DstWidth);
        const Range down = range_inside(start_y, m_AlongRow[1], -0.5, m_SrcHeight - 0.5, m_DstWidth);
        const Range seen{std::max(across.first, down.first), std::min(across.last, down.last)};
        if (m_SrcWidth == 0 || seen.first >= seen.last) {
            FillUnseen(row, 0, m_DstWidth);
            return;
        }
        FillUnseen(row, 0, seen.first);
        FillUnseen(row, seen.last, m_DstWidth);

        // A single pixel may lie anywhere along a step that no fixed-point number holds.
        const bool single = seen.last - seen.first == 1;
        Run run{};
        run.src = m_Src;
        run.src_width = m_SrcWidth;
        run.dst = row + seen.first;
        run.count = seen.last - seen.first;
        run.x = to_fixed(start_x + seen.first * m_AlongRow[0]);
        run.y = to_fixed(start_y + seen.first * m_AlongRow[1]);
        run.step_x = single ? 0 : to_fixed(m_AlongRow[0]);
        run.step_y = single ? 0 : to_fixed(m_AlongRow[1]);
        WarpRun(run);
    }

    // Pixels with all four neighbours go to the kernel, those at the border are done one by one.
    void WarpRun(const Run& run) const {
        const std::int64_t high_x = (static_cast<std::int64_t>(m_SrcWidth - 1) << 32) - 1;
        const std::int64_t high_y = (static_cast<std::int64_t>(m_SrcHeight - 1) << 32) - 1;
        Range inner = narrow_range(run.x, run.step_x, 0, high_x, {0, run.count});
        inner = narrow_range(run.y, run.step_y, 0, high_y, inner);
        for (int i = 0; i < inner.first; ++i) {
            WarpBorderPixel(run, i);
        }
        if (inner.first < inner.last) {
            Run part = run;
            part.dst += inner.first;
            part.count = inner.last - inner.first;
            part.x += inner.first * run.step_x;
            part.y += inner.first * run.step_y;
            Store(part);
        }
        for (int i = std::max(inner.last, inner.first); i < run.count; ++i) {
            WarpBorderPixel(run, i);
        }
    }

    // A pixel whose position is first brought onto the border pixels' centres. Its neighbours are copied together, the
    // missing ones made of the border itself, so that the kernel's own arithmetic gives the value.
    void WarpBorderPixel(const Run& run, int i) const {
        const std::int64_t x =
            std::clamp<std::int64_t>(run.x + i * run.step_x, 0, static_cast<std::int64_t>(m_SrcWidth - 1) << 32);
        const std::int64_t y =
            std::clamp<std::int64_t>(run.y + i * run.step_y, 0, static_cast<std::int64_t>(m_SrcHeight - 1) << 32);
        const std::int64_t left = x >> 32;
        const std::int64_t right = std::min<std::int64_t>(left + 1, m_SrcWidth - 1);
        const std::int64_t upper = (y >> 32) * m_SrcWidth;
        const std::int64_t lower = std::min<std::int64_t>((y >> 32) + 1, m_SrcHeight - 1) * m_SrcWidth;
        const std::int16_t neighbours[4] = {m_Src[upper + left], m_Src[upper + right], m_Src[lower + left],
                                            m_Src[lower + right]};
        Store({neighbours, 2, run.dst + i, 1, x & 0xffffffff, y & 0xffffffff, 0, 0});
    }

    void Store(const Run& run) const {
        if (m_KeepsMaximum) {
            m_Kernels.max(run);
        } else {
            m_Kernels.over(run, m_Floor);
        }
    }

    void FillUnseen(short* row, int first, int last) const {
        if (!m_KeepsMaximum) {
            std::fill(row + first, row + last, m_Floor);
        }
    }

    static std::int64_t to_fixed(double position) {
        return static_cast<std::int64_t>(std::floor(position * kFixedOne + 0.5));
    }

    const Kernels& m_Kernels;
    const int m_SrcWidth;
    const int m_SrcHeight;
    const int m_DstWidth;
    const int m_DstHeight;
    const short* const m_Src;
    short* const m_Dst;
    double m_AlongRow[2];     // source pixels from one destination pixel to the next
    double m_AlongColumn[2];  // from one destination row to the next
    double m_Origin[2];       // position of the first destination pixel, integers at source pixel centres from here on
    bool m_KeepsMaximum = false;
    short m_Floor = -32768;
};

// The dimensions of the warp's images; false when there is nothing to write. A source without pixels, or with more than
// can be addressed, is seen nowhere.
bool get_image_dims(const IP_Dims* src_dims, const IP_Dims* dst_dims, const short* src, const short* dst, int s[3],
                    int d[3]) {
    if (dst_dims == nullptr || dst == nullptr) {
        return false;
    }
    dst_dims->GetDims(d);
    if (src_dims != nullptr && src != nullptr) {
        src_dims->GetDims(s);
    }
    if (s[0] <= 0 || s[1] <= 0 || static_cast<std::int64_t>(s[0]) * s[1] >= kLargestSource) {
        s[0] = 0;
        s[1] = 0;
    }
    return d[0] > 0 && d[1] > 0;
}

}  // namespace

void LinShearZoomShortMax(const float matrix[4][4], const IP_Dims* src_box, const IP_Dims* dst_box, const short* src,
                          short* dst, int /*floor*/) {
    int s[3] = {0, 0, 0};
    int d[3];
    if (get_image_dims(src_box, dst_box, src, dst, s, d)) {
        Warp warp(matrix, s, d, src, dst);
        warp.KeepMaximum();
        warp.Execute();
    }
}

void LinShearZoomShortOver(const float matrix[4][4], const IP_Dims* src_dims, const IP_Dims* dst_dims, const short* src,
                           short* dst, int floor, const IP_BoxParams* /*src_params*/,
                           const IP_BoxParams* /*dst_params*/) {
    int s[3] = {0, 0, 0};
    int d[3];
    if (get_image_dims(src_dims, dst_dims, src, dst, s, d)) {
        Warp warp(matrix, s, d, src, dst);
        warp.SetFloor(floor);
        warp.Execute();
    }
}

namespace reference_host {

InstructionSet LimitInstructionSet(InstructionSet highest) {
    g_Highest.store(highest, std::memory_order_relaxed);
    return std::min(supported_instruction_set(), highest);
}

}  // namespace reference_host
