#include "scene/picture.h"

#include "host/tasks.h"
#include "scene/error.h"
#include "scene/output_file.h"

#include <png.h>

#include <algorithm>
#include <memory>

namespace scene {

namespace {

[[noreturn]] void Throw(png_structp, png_const_charp why) {
    throw Error(ErrorKind::kFailed, "PNG", why, "");
}

void IgnoreWarning(png_structp, png_const_charp) {}

void Append(png_structp png, png_bytep bytes, png_size_t count) {
    static_cast<std::string*>(png_get_io_ptr(png))->append(reinterpret_cast<const char*>(bytes), count);
}

void Flush(png_structp) {}

// The encoder, released on every way out.
class Encoder {
public:
    Encoder() : m_Png(png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, Throw, IgnoreWarning)) {
        m_Info = m_Png != nullptr ? png_create_info_struct(m_Png) : nullptr;
        if (m_Info == nullptr) {
            png_destroy_write_struct(&m_Png, nullptr);
            throw std::bad_alloc();
        }
    }
    ~Encoder() { png_destroy_write_struct(&m_Png, &m_Info); }
    Encoder(const Encoder&) = delete;
    Encoder& operator=(const Encoder&) = delete;

    // Encodes rows of bytes in PNG order.
    std::string Encode(int width, int height, int bits, int colour_type, const std::vector<png_byte>& bytes,
                       PngEffort effort) {
        std::string file;
        png_set_write_fn(m_Png, &file, Append, Flush);
        if (effort == PngEffort::kQuick) {
            // One filter for all rows and runs of equal bytes only: background is most of what can be saved.
            constexpr int kRunLengths = 3;
            png_set_compression_level(m_Png, 1);
            png_set_compression_strategy(m_Png, kRunLengths);
            png_set_filter(m_Png, PNG_FILTER_TYPE_BASE, PNG_FILTER_SUB);
        } else {
            png_set_compression_level(m_Png, 4);
        }
        png_set_IHDR(m_Png, m_Info, static_cast<png_uint_32>(width), static_cast<png_uint_32>(height), bits,
                     colour_type, PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
        png_write_info(m_Png, m_Info);
        const std::size_t row_bytes = bytes.size() / static_cast<std::size_t>(height);
        for (int y = 0; y < height; ++y) {
            TCO_RunnableSelf().Service();
            png_write_row(m_Png, bytes.data() + row_bytes * static_cast<std::size_t>(y));
        }
        png_write_end(m_Png, m_Info);
        return file;
    }

private:
    png_structp m_Png;
    png_infop m_Info = nullptr;
};

}  // namespace

std::string EncodePng(const Picture& picture, PngEffort effort) {
    const bool opaque =
        std::all_of(picture.pixels.begin(), picture.pixels.end(), [](std::uint32_t p) { return p >> 24 == 255; });
    const bool grey = effort == PngEffort::kQuick && opaque &&
                      std::all_of(picture.pixels.begin(), picture.pixels.end(),
                                  [](std::uint32_t p) { return (p & 0xFFFFFFU) == (p & 255) * 0x010101U; });
    const std::size_t channels = grey ? 1 : opaque ? 3 : 4;
    std::vector<png_byte> bytes(picture.pixels.size() * channels);
    png_byte* to = bytes.data();
    for (const std::uint32_t p : picture.pixels) {
        const png_byte all[4] = {static_cast<png_byte>(p >> 16), static_cast<png_byte>(p >> 8),
                                 static_cast<png_byte>(p), static_cast<png_byte>(p >> 24)};
        to = std::copy_n(all, channels, to);
    }
    const int colour_type = grey ? PNG_COLOR_TYPE_GRAY : opaque ? PNG_COLOR_TYPE_RGB : PNG_COLOR_TYPE_RGB_ALPHA;
    return Encoder().Encode(picture.width, picture.height, 8, colour_type, bytes, effort);
}

std::string EncodePng(const GreyPicture& picture) {
    std::vector<png_byte> bytes;
    bytes.reserve(picture.pixels.size() * 2);
    for (const std::uint16_t p : picture.pixels) {
        bytes.insert(bytes.end(), {static_cast<png_byte>(p >> 8), static_cast<png_byte>(p)});
    }
    return Encoder().Encode(picture.width, picture.height, 16, PNG_COLOR_TYPE_GRAY, bytes, PngEffort::kSmall);
}

void WritePng(const std::string& path, const Picture& picture) {
    WriteFile(path, EncodePng(picture));
}

void WritePng(const std::string& path, const GreyPicture& picture) {
    WriteFile(path, EncodePng(picture));
}

Picture ReadPng(const std::string& path) {
    png_image image{};
    image.version = PNG_IMAGE_VERSION;
    if (png_image_begin_read_from_file(&image, path.c_str()) == 0) {
        throw Error(ErrorKind::kInput, path, image.message, "name a PNG file");
    }
    image.format = PNG_FORMAT_BGRA;
    Picture picture(static_cast<int>(image.width), static_cast<int>(image.height));
    if (png_image_finish_read(&image, nullptr, picture.pixels.data(), 0, nullptr) == 0) {
        throw Error(ErrorKind::kInput, path, image.message, "name a PNG file");
    }
    return picture;
}

}  // namespace scene
