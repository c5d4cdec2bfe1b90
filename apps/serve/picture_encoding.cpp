#include "apps/serve/picture_encoding.h"

#include "scene/error.h"

#include <turbojpeg.h>

#include <algorithm>
#include <cstdint>
#include <memory>

namespace serve {

namespace {

bool IsGrey(const scene::Picture& picture) {
    return std::all_of(picture.pixels.begin(), picture.pixels.end(),
                       [](std::uint32_t p) { return (p & 255) == (p >> 8 & 255) && (p & 255) == (p >> 16 & 255); });
}

struct DestroyCompressor {
    void operator()(void* compressor) const { tjDestroy(compressor); }
};

}  // namespace

std::string EncodeJpeg(const scene::Picture& picture, int quality) {
    // A compressor holds no state between pictures, only memory that is worth keeping.
    thread_local const std::unique_ptr<void, DestroyCompressor> compressor(tjInitCompress());
    const int sampling = IsGrey(picture) ? TJSAMP_GRAY : TJSAMP_420;
    unsigned long length = tjBufSize(picture.width, picture.height, sampling);
    std::string file(length, '\0');
    auto* buffer = reinterpret_cast<unsigned char*>(file.data());
    // Pixels 0xAARRGGBB lie in memory as blue, green, red and a byte that does not count.
    const int status =
        compressor == nullptr
            ? -1
            : tjCompress2(compressor.get(), reinterpret_cast<const unsigned char*>(picture.pixels.data()),
                          picture.width, 0, picture.height, TJPF_BGRX, &buffer, &length, sampling, quality,
                          TJFLAG_NOREALLOC | TJFLAG_FASTDCT);
    if (status != 0) {
        throw scene::Error(scene::ErrorKind::kFailed, "JPEG", "the encoder failed", "");
    }
    file.resize(length);
    return file;
}

std::string EncodePngQuickly(const scene::Picture& picture) {
    return scene::EncodePng(picture, scene::PngEffort::kQuick);
}

}  // namespace serve
