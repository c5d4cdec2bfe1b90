// Debugging loaders: a colour table from a fixed file, and a tissue file that is read and discarded.
#include "host/geometry.h"
#include "ip_volr/IP_DiskFile.h"
#include "ip_volr/IP_VOLRC_BrickStorage.h"
#include "ip_volr/IP_VOLRC_BrickStructure.h"

#include <algorithm>
#include <cstring>
#include <vector>

namespace {

// Row of the stored protocol index plus one.
// QUIRK(protocol-duplicate): a reader expects index -1 to have a file of its own; it shares the one of index 1; kept:
// callers rely on it.
constexpr const char* kProtocolFiles[] = {
    "d:\\images\\protocols\\protocol.angio1",     "d:\\images\\protocols\\protocol.abd1",
    "d:\\images\\protocols\\protocol.angio1",     "d:\\images\\protocols\\protocol.angio1lung",
    "d:\\images\\protocols\\protocol.angio3",     "d:\\images\\protocols\\protocol.angio3lung",
    "d:\\images\\protocols\\protocol.angiobw",    "d:\\images\\protocols\\protocol.ctbone1",
    "d:\\images\\protocols\\protocol.bone1lung",  "d:\\images\\protocols\\protocol.cardiachollow1",
    "d:\\images\\protocols\\protocol.ctabd2lung", "d:\\images\\protocols\\protocol.ctlarynx",
    "d:\\images\\protocols\\protocol.lung1",      "d:\\images\\protocols\\protocol.lung1struct",
    "d:\\images\\protocols\\protocol.lung3",      "d:\\images\\protocols\\protocol.tendons1",
    "d:\\images\\protocols\\protocol.carotids",
};

constexpr int kTableSize = IP_VOLRC_BrickStructure::kTableSize;

// The colour of all of tissue 1, for a debugger to change.
unsigned int constant_tissue_colour = 0x00FF00FF;

// Product of the greatest of the upper bytes with the lowest byte, which acts as the opacity here.
unsigned short debug_luminosity(unsigned int colour) {
    const unsigned int opacity = colour & 0xFFU;
    const unsigned int brightest = std::max({colour >> 24, colour >> 16 & 0xFFU, colour >> 8 & 0xFFU});
    return static_cast<unsigned short>(brightest * opacity / 256);
}

// Reads a whole table; a missing or short file leaves the (remaining) entries as they are.
void load_colours(const char* path, unsigned int* colours) {
    const ip_volr::DiskFile file = ip_volr::open_for_reading(std::string(path));
    if (file == nullptr) {
        return;
    }
    std::vector<unsigned char> bytes(kTableSize * 4U);
    const std::size_t num_read = ip_volr::read_bytes(file.get(), bytes.data(), bytes.size());
    for (std::size_t i = 0; i < num_read / 4; ++i) {
        const unsigned char* const b = bytes.data() + 4 * i;
        colours[i] = b[0] | static_cast<unsigned int>(b[1]) << 8 | static_cast<unsigned int>(b[2]) << 16 |
                     static_cast<unsigned int>(b[3]) << 24;
    }
}

}  // namespace

void IP_VOLRC_BrickStructure::UpdateLuminosity(int protocol, bool /*reserved*/) {
    constexpr int kLastProtocol = static_cast<int>(std::size(kProtocolFiles)) - 2;
    m_CurrentProtocol = protocol >= 0 ? protocol : std::max(m_CurrentProtocol, -1);
    m_TableBits = 16;

    // Tissue 15 from the file, tissue 0 like it, tissue 1 constant.
    if (m_CurrentProtocol <= kLastProtocol) {
        load_colours(kProtocolFiles[m_CurrentProtocol + 1], m_ColorTables[15]);
    }
    std::transform(m_ColorTables[15], m_ColorTables[15] + kTableSize, m_LuminosityTables[15], debug_luminosity);
    std::memcpy(m_LuminosityTables[0], m_LuminosityTables[15], sizeof(m_LuminosityTables[0]));
    std::memcpy(m_ColorTables[0], m_ColorTables[15], sizeof(m_ColorTables[0]));
    std::fill_n(m_ColorTables[1], kTableSize, constant_tissue_colour);
    std::fill_n(m_LuminosityTables[1], kTableSize, debug_luminosity(constant_tissue_colour));

    CalcLuminosityTables();
    const IP_VOLRC_ScopedBrickMapping mapping(m_Storage.get());
    if (mapping.IsMapped()) {
        EvaluateLayers(0, m_NumBricksZ);
    }
}

void IP_VOLRC_BrickStructure::ImportTissues(char* directory, IP_Box* box) {
    if (directory == nullptr || box == nullptr) {
        return;
    }
    std::strcat(directory, "\\tissue.char");
    const ip_volr::DiskFile file = ip_volr::open_for_reading(std::string(directory));
    int dims[3];
    box->GetDims(dims);
    if (file == nullptr || dims[0] < 1 || dims[1] < 1) {
        return;
    }
    std::vector<unsigned char> slice(static_cast<std::size_t>(dims[0]) * dims[1]);
    for (int z = 0; z < dims[2]; ++z) {
        if (ip_volr::read_bytes(file.get(), slice.data(), slice.size()) != slice.size()) {
            return;
        }
    }
}
