// Reads the decisions of a fuzzed run from the bytes that the fuzzer made up.
#pragma once

#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <new>

// The entry of each target, in the fuzzer's programs and in those that replay a corpus.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size);

namespace fuzz {

// Bytes from front to back; zeros beyond the end.
class Input {
public:
    Input(const std::uint8_t* data, std::size_t size) : m_Next(data), m_End(data + size) {}

    bool IsEmpty() const { return m_Next == m_End; }
    unsigned Byte() { return IsEmpty() ? 0U : *m_Next++; }
    bool Flag() { return (Byte() & 1U) != 0; }

    // Any number of [first, last]; at most 256 of them.
    int Int(int first, int last) { return first + static_cast<int>(Byte()) % (last - first + 1); }

    // Mostly small numbers, some that no host means, now and then any bits.
    float Float() {
        static constexpr float kOdd[] = {0.0F,
                                         1.0F,
                                         -1.0F,
                                         0.5F,
                                         1e-30F,
                                         1e30F,
                                         -1e30F,
                                         3e9F,
                                         std::numeric_limits<float>::infinity(),
                                         -std::numeric_limits<float>::infinity(),
                                         std::numeric_limits<float>::quiet_NaN(),
                                         std::numeric_limits<float>::denorm_min(),
                                         std::numeric_limits<float>::max(),
                                         -0.0F,
                                         65536.0F,
                                         -40000.0F};
        const unsigned kind = Byte();
        if (kind < 16) {
            return kOdd[kind];
        }
        if (kind < 24) {
            std::uint32_t bits = 0;
            for (int i = 0; i < 4; i++) {
                bits = bits << 8 | Byte();
            }
            float value;
            std::memcpy(&value, &bits, sizeof(value));
            return value;
        }
        return (static_cast<float>(kind) - 140.0F) / 16.0F;
    }

private:
    const std::uint8_t* m_Next;
    const std::uint8_t* m_End;
};

// Ends the process where a run broke a promise, so that the fuzzer keeps its input.
inline void Require(bool is_kept) {
    if (!is_kept) {
        std::abort();
    }
}

}  // namespace fuzz
