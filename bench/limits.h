// What the machine can do: the limits that figures stand beside. All work on every server.
#pragma once

#include "host/images.h"

#include <vector>

namespace volr_bench {

// Streams the slices of a volume once. They stay mapped as long as this lives.
class Stream {
public:
    explicit Stream(IP_VolData& volume);
    ~Stream();
    Stream(const Stream&) = delete;
    Stream& operator=(const Stream&) = delete;

    double read_seconds();             // every byte
    double sheared_maximum_seconds();  // through a 16-bit maximum, each slice half a pixel further

private:
    void read_share();
    void maximum_share();
    int stride() const;

    std::vector<IP_ShortSlice*> m_Slices;
    std::vector<std::vector<short>> m_Pictures;  // for each server
    int m_Width = 0;
    int m_Height = 0;
};

// Trilinear samples of eight neighbouring rays at once in a brick that stays in the cache; with gradients, the value
// and its six neighbours at a voxel's distance. Samples per second of all servers together; 0 without AVX2.
double trilinear_samples_per_second(bool with_gradients);

// 800 samples (or as many with gradients) on this thread. Needs AVX2.
void take_trilinear_samples(bool with_gradients);

}  // namespace volr_bench
