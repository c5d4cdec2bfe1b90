// Movies, read back by a decoder.
#include "scene/movie/movie_writer.h"

#include "scene/error.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
}

#include <gtest/gtest.h>
#include <cmath>
#include <filesystem>
#include <fstream>

namespace {

namespace fs = std::filesystem;

class Folder {
public:
    Folder() {
        std::string name = (fs::temp_directory_path() / "volr_movie_XXXXXX").string();
        m_Path = ::mkdtemp(name.data());
    }
    ~Folder() { fs::remove_all(m_Path); }
    std::string operator/(const char* name) const { return m_Path / name; }
    bool IsEmpty() const { return fs::is_empty(m_Path); }

private:
    fs::path m_Path;
};

// A grey ramp over which a white bar walks.
scene::Picture Frame(int width, int height, int index) {
    scene::Picture picture(width, height);
    for (int y = 0; y < height; ++y) {
        for (int x = 0; x < width; ++x) {
            const bool in_bar = x >= index * 4 && x < index * 4 + 8;
            picture.At(x, y) = in_bar ? 0xFFFFFFFFU : 0xFF000000U | static_cast<unsigned>(200 * y / height) * 0x010101U;
        }
    }
    return picture;
}

struct Decoded {
    int width = 0, height = 0;
    double seconds = 0.0;
    std::vector<std::vector<std::uint8_t>> luma;  // of each frame, without gaps
};

void TakeFrames(AVCodecContext* codec, Decoded& movie) {
    AVFrame* frame = av_frame_alloc();
    while (avcodec_receive_frame(codec, frame) == 0) {
        std::vector<std::uint8_t> luma;
        for (int y = 0; y < frame->height; ++y) {
            const std::uint8_t* const row = frame->data[0] + y * frame->linesize[0];
            luma.insert(luma.end(), row, row + frame->width);
        }
        movie.luma.push_back(luma);
    }
    av_frame_free(&frame);
}

Decoded Decode(const std::string& path) {
    Decoded movie;
    AVFormatContext* format = nullptr;
    if (avformat_open_input(&format, path.c_str(), nullptr, nullptr) != 0) {
        return movie;
    }
    EXPECT_GE(avformat_find_stream_info(format, nullptr), 0);
    EXPECT_EQ(format->nb_streams, 1U);
    const AVCodecParameters* const parameters = format->streams[0]->codecpar;
    EXPECT_EQ(parameters->codec_id, AV_CODEC_ID_H264);
    EXPECT_EQ(parameters->format, AV_PIX_FMT_YUV420P);
    AVCodecContext* codec = avcodec_alloc_context3(avcodec_find_decoder(parameters->codec_id));
    avcodec_parameters_to_context(codec, parameters);
    EXPECT_EQ(avcodec_open2(codec, nullptr, nullptr), 0);
    AVPacket* packet = av_packet_alloc();
    while (av_read_frame(format, packet) == 0) {
        EXPECT_EQ(avcodec_send_packet(codec, packet), 0);
        av_packet_unref(packet);
        TakeFrames(codec, movie);
    }
    avcodec_send_packet(codec, nullptr);
    TakeFrames(codec, movie);
    movie.width = codec->width;
    movie.height = codec->height;
    movie.seconds = static_cast<double>(format->duration) / AV_TIME_BASE;
    av_packet_free(&packet);
    avcodec_free_context(&codec);
    avformat_close_input(&format);
    return movie;
}

std::string Bytes(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

TEST(MovieWriter, HoldsAllFramesInOrderAlsoOfOddSizes) {
    const Folder folder;
    for (const auto& [width, height] : {std::pair(160, 96), std::pair(161, 97)}) {
        const std::string path = folder / "turn.mp4";
        scene::MovieWriter writer(path, width, height, 20);
        for (int i = 0; i < 30; ++i) {
            writer.Add(Frame(width, height, i));
        }
        EXPECT_FALSE(fs::exists(path) && width == 160);
        writer.Finish();

        const Decoded movie = Decode(path);
        EXPECT_EQ(movie.width, (width + 1) / 2 * 2);
        EXPECT_EQ(movie.height, (height + 1) / 2 * 2);
        EXPECT_NEAR(movie.seconds, 1.5, 1e-3);
        ASSERT_EQ(movie.luma.size(), 30U);
        for (int i = 0; i < 30; ++i) {
            // Video levels: black is 16, white 235.
            const scene::Picture expected = Frame(width, height, i);
            double squares = 0.0;
            for (int y = 0; y < height; ++y) {
                for (int x = 0; x < width; ++x) {
                    const double level = 16.0 + 219.0 / 255.0 * (expected.At(x, y) & 255U);
                    const double found =
                        movie.luma[static_cast<std::size_t>(i)][static_cast<std::size_t>(y * movie.width + x)];
                    squares += (level - found) * (level - found);
                }
            }
            EXPECT_LT(std::sqrt(squares / (width * height)), 4.0) << "frame " << i;
        }
        const std::string bytes = Bytes(path);
        EXPECT_LT(bytes.find("moov"), bytes.find("mdat")) << "cannot be played while it arrives";
    }
}

TEST(MovieWriter, AppearsWholeOrNotAtAll) {
    const Folder folder;
    {
        scene::MovieWriter abandoned(folder / "a.mp4", 64, 64, 25);
        abandoned.Add(Frame(64, 64, 0));
        EXPECT_THROW(abandoned.Add(Frame(32, 64, 0)), scene::Error);
    }
    EXPECT_THROW(scene::MovieWriter(folder / "b.mp4", 0, 64, 25), scene::Error);
    EXPECT_THROW(scene::MovieWriter(folder / "missing/c.mp4", 64, 64, 25), scene::Error);
    EXPECT_TRUE(folder.IsEmpty());

    // A short one, shorter than what the encoder holds back.
    scene::MovieWriter single(folder / "d.mp4", 64, 64, 25);
    single.Add(Frame(64, 64, 3));
    single.Finish();
    EXPECT_EQ(Decode(folder / "d.mp4").luma.size(), 1U);
}

}  // namespace
