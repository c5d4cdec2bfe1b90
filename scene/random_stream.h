// Deterministic random numbers, the same on every platform.
#pragma once

#include <cstdint>

namespace scene {

// A well-mixed 64-bit number of x (the finaliser of splitmix64).
constexpr std::uint64_t Mixed(std::uint64_t x) {
    x += 0x9E3779B97F4A7C15ULL;
    x = (x ^ (x >> 30)) * 0xBF58476D1CE4E5B9ULL;
    x = (x ^ (x >> 27)) * 0x94D049BB133111EBULL;
    return x ^ (x >> 31);
}

class RandomStream {
public:
    explicit RandomStream(std::uint64_t seed) : m_State(Mixed(seed)) {}

    // Uniform in [first, last).
    double Uniform(double first, double last) {
        m_State = Mixed(m_State);
        return first + (last - first) * (static_cast<double>(m_State >> 11) * 0x1.0p-53);
    }

private:
    std::uint64_t m_State;
};

}  // namespace scene
