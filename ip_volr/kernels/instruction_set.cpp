#include "ip_volr/kernels/instruction_set.h"

#include <algorithm>
#include <atomic>

namespace ip_volr::kernels {

namespace {

InstructionSet detect() {
#if defined(__x86_64__) || defined(__i386__)
    // The compiler's run-time support also asks the operating system whether it saves the wide registers.
    __builtin_cpu_init();
    if (__builtin_cpu_supports("avx2")) {
        return InstructionSet::Avx2;
    }
    if (__builtin_cpu_supports("sse4.1")) {
        return InstructionSet::Sse41;
    }
#endif
    return InstructionSet::Scalar;
}

std::atomic<InstructionSet>& limit() {
    static std::atomic<InstructionSet> value{InstructionSet::Avx2};
    return value;
}

}  // namespace

const char* instruction_set_name(InstructionSet set) {
    switch (set) {
        case InstructionSet::Avx2:
            return "avx2";
        case InstructionSet::Sse41:
            return "sse4.1";
        case InstructionSet::Scalar:
            break;
    }
    return "scalar";
}

InstructionSet detected_instruction_set() {
    static const InstructionSet detected = detect();
    return detected;
}

InstructionSet instruction_set() {
    return std::min(detected_instruction_set(), limit().load(std::memory_order_relaxed));
}

InstructionSet limit_instruction_set(InstructionSet highest) {
    limit().store(highest, std::memory_order_relaxed);
    return instruction_set();
}

}  // namespace ip_volr::kernels
