// Choice of the instruction set that the library's kernels use.
//
// Each family of kernels (ray casting, raster rows, brick minima and maxima, ...) is a plain struct of function
// pointers. `KernelFamily` holds one such table for each instruction set, filled from the lowest to the highest: every
// level starts as a copy of the level below and overwrites what it improves. All levels give byte-equal results; the
// scalar ones define them.
//
//     struct RowKernels { void (*fill)(uint32_t* pixels, int count, uint32_t value); };
//     const RowKernels& row_kernels() {
//         static const KernelFamily<RowKernels> family(add_scalar, add_sse41, add_avx2);
//         return family.in_force();
//     }
#pragma once

#include <array>
#include <cstddef>

namespace ip_volr::kernels {

// From the lowest to the highest; each includes the ones before it.
enum class InstructionSet { Scalar = 0, Sse41 = 1, Avx2 = 2 };
constexpr int kNumInstructionSets = 3;

// "scalar", "sse4.1" or "avx2".
const char* instruction_set_name(InstructionSet set);

// The highest instruction set that this processor has and its operating system keeps the registers of. Detected once.
InstructionSet detected_instruction_set();

// The instruction set in force: the detected one, unless a test lowered it. Any thread.
InstructionSet instruction_set();

// For tests and benchmarks: keeps kernels at or below `highest` from the next look-up on, and returns the level that is
// then in force, which is lower than `highest` on a processor without it. Not while a frame is drawn.
InstructionSet limit_instruction_set(InstructionSet highest);

// Limits the instruction set for the life of the object.
class ScopedInstructionSet {
public:
    explicit ScopedInstructionSet(InstructionSet highest)
        : m_Before(instruction_set()), m_InForce(limit_instruction_set(highest)) {}
    ~ScopedInstructionSet() { limit_instruction_set(m_Before); }
    ScopedInstructionSet(const ScopedInstructionSet&) = delete;
    ScopedInstructionSet& operator=(const ScopedInstructionSet&) = delete;

    InstructionSet in_force() const { return m_InForce; }

private:
    const InstructionSet m_Before;
    const InstructionSet m_InForce;
};

// The tables of one family of kernels, one for each instruction set.
template <class Table>
class KernelFamily {
public:
    using Fill = void (*)(Table&);

    // Each function overwrites the entries that its instruction set improves; `scalar` sets them all. A level without
    // kernels of its own passes null.
    KernelFamily(Fill scalar, Fill sse41, Fill avx2) {
        const Fill fills[kNumInstructionSets] = {scalar, sse41, avx2};
        Table table{};
        for (int level = 0; level < kNumInstructionSets; level++) {
            if (fills[level] != nullptr) {
                fills[level](table);
            }
            m_Tables[static_cast<std::size_t>(level)] = table;
        }
    }

    // The table of the instruction set in force: look it up once for each stage, not in an inner loop.
    const Table& in_force() const { return m_Tables[static_cast<std::size_t>(instruction_set())]; }

private:
    std::array<Table, kNumInstructionSets> m_Tables;
};

}  // namespace ip_volr::kernels
