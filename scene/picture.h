// Finished pictures and PNG files.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace scene {

// Colour pixels 0xAARRGGBB, not premultiplied, rows top to bottom without gaps. Alpha 255 is opaque.
struct Picture {
    int width = 0;
    int height = 0;
    std::vector<std::uint32_t> pixels;

    Picture() = default;
    Picture(int w, int h, std::uint32_t fill = 0)
        : width(w), height(h), pixels(static_cast<std::size_t>(w) * static_cast<std::size_t>(h), fill) {}

    std::uint32_t& At(int x, int y) {
        return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
    }
    std::uint32_t At(int x, int y) const {
        return pixels[static_cast<std::size_t>(y) * static_cast<std::size_t>(width) + static_cast<std::size_t>(x)];
    }
};

// Grey pixels of 16 bits, rows top to bottom without gaps; 65535 is white.
struct GreyPicture {
    int width = 0;
    int height = 0;
    std::vector<std::uint16_t> pixels;
};

// What an encoder works for: a small file, or a quick one of the same pixels.
enum class PngEffort { kSmall, kQuick };

// A PNG file's bytes: 8-bit RGB, or RGBA when a pixel is not opaque; quick files of grey pixels have one channel.
// Throws Error when the encoder fails.
std::string EncodePng(const Picture& picture, PngEffort effort = PngEffort::kSmall);
// The same with 16-bit grey pixels.
std::string EncodePng(const GreyPicture& picture);

// Write the file whole or not at all. Throw Error.
void WritePng(const std::string& path, const Picture& picture);
void WritePng(const std::string& path, const GreyPicture& picture);

// Reads an 8-bit PNG of any colour type back. Throws Error of the input kind.
Picture ReadPng(const std::string& path);

}  // namespace scene
