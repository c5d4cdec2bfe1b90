// Small volumes and a log catcher for the vessel tests.
#pragma once

#include "host/images.h"
#include "host/reference/settings.h"

#include <functional>
#include <memory>
#include <set>
#include <string>
#include <vector>

namespace vessel_tests {

// A volume whose slices own their blocks; all slices rest unmapped.
template <class Slice, class Pixel>
std::unique_ptr<IP_VolData> make_volume(int nx, int ny, int nz, std::size_t pixels_per_slice,
                                        const std::function<Pixel(std::size_t, int)>& pixel) {
    IP_Box box(nx, ny, nz);
    auto volume = std::make_unique<IP_VolData>(&box, nz);
    for (int z = 0; z < nz; ++z) {
        auto* const info = new MEM_PagerInfo(MEM_MemPager::GetHandleForMP());
        MEM_MemPager::GetHandleForMP()->Allocate(static_cast<unsigned>(pixels_per_slice * sizeof(Pixel)), info, 0);
        auto* const pixels = static_cast<Pixel*>(info->Ptr());
        for (std::size_t i = 0; i < pixels_per_slice; ++i) {
            pixels[i] = pixel(i, z);
        }
        info->Unmap();
        auto* const slice = new Slice(info, PixelDataAttributes{nx, ny, 16, true}, 0);
        slice->SetOwnsData(true);
        volume->SetSlice(slice, z);
    }
    return volume;
}

inline std::unique_ptr<IP_VolData> make_data(int nx, int ny, int nz, const std::function<int(int, int, int)>& value) {
    return make_volume<IP_ShortSlice, short>(nx, ny, nz, static_cast<std::size_t>(nx) * static_cast<std::size_t>(ny),
                                             [&](std::size_t i, int z) {
                                                 const int index = static_cast<int>(i);
                                                 return static_cast<short>(value(index % nx, index / nx, z));
                                             });
}

// Catches every line of the log while it lives.
class LogCatcher {
public:
    LogCatcher() {
        reference_host::SetLogLevel(7);
        reference_host::LogToCallback([this](const reference_host::LogLine& line) {
            if (std::string(line.source) == "ip_volr/IP_Relate") {
                m_Text += line.text;
                m_Statements.insert(line.line);
                m_HasHeadline = m_HasHeadline || line.headline;
            }
        });
    }
    ~LogCatcher() {
        reference_host::LogToCallback(nullptr);
        reference_host::SetLogLevel(0);
    }
    LogCatcher(const LogCatcher&) = delete;
    LogCatcher& operator=(const LogCatcher&) = delete;

    const std::string& Text() const { return m_Text; }
    bool HasHeadline() const { return m_HasHeadline; }
    std::size_t NumStatements() const { return m_Statements.size(); }  // as their line numbers tell

private:
    std::string m_Text;
    std::set<int> m_Statements;
    bool m_HasHeadline = false;
};

}  // namespace vessel_tests
