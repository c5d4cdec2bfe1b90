#include "scene/movie/movie_writer.h"

#include "scene/error.h"
#include "scene/output_file.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/opt.h>
#include <libswscale/swscale.h>
}

#include <algorithm>

namespace scene {

namespace {

// Fixed, because the encoder's choices depend on it.
constexpr int kEncoderThreads = 4;
constexpr const char* kQuality = "18";  // constant rate factor: no difference to be seen

int Even(int size) {
    return (size + 1) / 2 * 2;
}

struct FreeFormat {
    void operator()(AVFormatContext* format) const {
        avio_closep(&format->pb);
        avformat_free_context(format);
    }
};
struct FreeCodec {
    void operator()(AVCodecContext* codec) const { avcodec_free_context(&codec); }
};
struct FreeFrame {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct FreePacket {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct FreeScaler {
    void operator()(SwsContext* scaler) const { sws_freeContext(scaler); }
};

}  // namespace

class MovieWriter::Encoder {
public:
    Encoder(const std::string& path, int width, int height, int frames_per_second)
        : m_Path(path), m_Width(width), m_Height(height), m_File(path) {
        av_log_set_level(AV_LOG_QUIET);  // what matters comes back as an error
        OpenCodec(frames_per_second);
        OpenFile();
        OpenScaler();
    }

    void Add(const Picture& picture) {
        if (picture.width != m_Width || picture.height != m_Height) {
            throw Error(ErrorKind::kFailed, m_Path, "its pictures differ in size", "");
        }
        Check(av_frame_make_writable(m_Frame.get()), "no memory for a frame");
        Convert(picture);
        m_Frame->pts = m_NumFrames++;
        Encode(m_Frame.get());
    }

    void Finish() {
        Encode(nullptr);
        Check(av_write_trailer(m_Format.get()), "cannot be written");
        Check(avio_closep(&m_Format->pb), "cannot be written");
        m_File.Commit();
    }

private:
    [[noreturn]] void Fail(const std::string& what, const std::string& why) const {
        throw Error(ErrorKind::kFailed, m_Path, "the movie: " + what + (why.empty() ? "" : ": " + why),
                    "check size, folder and free space");
    }
    // Negative results are errors of the libraries.
    void Check(int result, const char* what) const {
        if (result < 0) {
            char text[AV_ERROR_MAX_STRING_SIZE] = {};
            av_strerror(result, text, sizeof text);
            Fail(what, text);
        }
    }
    void CheckMemory(const void* pointer) const {
        if (pointer == nullptr) {
            Fail("no memory for its encoder", "");
        }
    }

    void OpenCodec(int frames_per_second) {
        const AVCodec* const encoder = avcodec_find_encoder_by_name("libx264");
        if (encoder == nullptr) {
            throw Error(ErrorKind::kFailed, m_Path, "no H.264 encoder is installed", "write numbered pictures instead");
        }
        m_Codec.reset(avcodec_alloc_context3(encoder));
        CheckMemory(m_Codec.get());
        m_Codec->width = Even(m_Width);
        m_Codec->height = Even(m_Height);
        m_Codec->pix_fmt = AV_PIX_FMT_YUV420P;
        m_Codec->time_base = {1, frames_per_second};
        m_Codec->framerate = {frames_per_second, 1};
        m_Codec->gop_size = frames_per_second;
        m_Codec->thread_count = kEncoderThreads;
        m_Codec->color_range = AVCOL_RANGE_MPEG;
        m_Codec->colorspace = AVCOL_SPC_BT709;
        m_Codec->color_primaries = AVCOL_PRI_BT709;
        m_Codec->color_trc = AVCOL_TRC_BT709;
        m_Codec->flags |= AV_CODEC_FLAG_GLOBAL_HEADER | AV_CODEC_FLAG_BITEXACT;
        av_opt_set(m_Codec->priv_data, "preset", "fast", 0);
        av_opt_set(m_Codec->priv_data, "crf", kQuality, 0);
        Check(avcodec_open2(m_Codec.get(), encoder, nullptr), "its encoder refuses this size or rate");
        m_Packet.reset(av_packet_alloc());
        CheckMemory(m_Packet.get());
    }

    void OpenFile() {
        AVFormatContext* format = nullptr;
        Check(avformat_alloc_output_context2(&format, nullptr, "mp4", m_File.TemporaryPath().c_str()),
              "no writer of MP4 files");
        m_Format.reset(format);
        m_Format->flags |= AVFMT_FLAG_BITEXACT;
        m_Stream = avformat_new_stream(format, nullptr);
        CheckMemory(m_Stream);
        m_Stream->time_base = m_Codec->time_base;
        m_Stream->avg_frame_rate = m_Codec->framerate;
        Check(avcodec_parameters_from_context(m_Stream->codecpar, m_Codec.get()), "its encoder cannot be described");
        Check(avio_open(&m_Format->pb, m_File.TemporaryPath().c_str(), AVIO_FLAG_WRITE), "cannot be written");
        // What players need first comes first in the file.
        AVDictionary* options = nullptr;
        av_dict_set(&options, "movflags", "+faststart", 0);
        const int result = avformat_write_header(m_Format.get(), &options);
        av_dict_free(&options);
        Check(result, "cannot be written");
    }

    void OpenScaler() {
        m_Frame.reset(av_frame_alloc());
        CheckMemory(m_Frame.get());
        m_Frame->format = m_Codec->pix_fmt;
        m_Frame->width = m_Codec->width;
        m_Frame->height = m_Codec->height;
        Check(av_frame_get_buffer(m_Frame.get(), 0), "no memory for a frame");
        m_Scaler.reset(sws_getContext(
            m_Codec->width, m_Codec->height, AV_PIX_FMT_RGB32, m_Codec->width, m_Codec->height, AV_PIX_FMT_YUV420P,
            SWS_AREA | SWS_ACCURATE_RND | SWS_FULL_CHR_H_INP | SWS_BITEXACT, nullptr, nullptr, nullptr));
        CheckMemory(m_Scaler.get());
        const int* const bt709 = sws_getCoefficients(SWS_CS_ITU709);
        sws_setColorspaceDetails(m_Scaler.get(), bt709, 1, bt709, 0, 0, 1 << 16, 1 << 16);
        m_EvenPixels.resize(static_cast<std::size_t>(m_Codec->width) * static_cast<std::size_t>(m_Codec->height));
    }

    // Into the frame. An odd picture's last column and row stand twice.
    void Convert(const Picture& picture) {
        const std::uint32_t* pixels = picture.pixels.data();
        if (m_Codec->width != m_Width || m_Codec->height != m_Height) {
            auto out = m_EvenPixels.begin();
            for (int y = 0; y < m_Codec->height; ++y) {
                for (int x = 0; x < m_Codec->width; ++x) {
                    *out++ = picture.At(std::min(x, m_Width - 1), std::min(y, m_Height - 1));
                }
            }
            pixels = m_EvenPixels.data();
        }
        const std::uint8_t* const planes[1] = {reinterpret_cast<const std::uint8_t*>(pixels)};
        const int strides[1] = {m_Codec->width * 4};
        sws_scale(m_Scaler.get(), planes, strides, 0, m_Codec->height, m_Frame->data, m_Frame->linesize);
    }

    // Gives the encoder a frame (null: there are no more) and writes what it has ready.
    void Encode(const AVFrame* frame) {
        Check(avcodec_send_frame(m_Codec.get(), frame), "its encoder failed");
        for (;;) {
            const int result = avcodec_receive_packet(m_Codec.get(), m_Packet.get());
            if (result == AVERROR(EAGAIN) || result == AVERROR_EOF) {
                return;
            }
            Check(result, "its encoder failed");
            m_Packet->duration = 1;
            m_Packet->stream_index = m_Stream->index;
            av_packet_rescale_ts(m_Packet.get(), m_Codec->time_base, m_Stream->time_base);
            Check(av_interleaved_write_frame(m_Format.get(), m_Packet.get()), "cannot be written");
        }
    }

    std::string m_Path;
    int m_Width, m_Height;
    OutputFile m_File;
    std::unique_ptr<AVCodecContext, FreeCodec> m_Codec;
    std::unique_ptr<AVFormatContext, FreeFormat> m_Format;
    std::unique_ptr<AVFrame, FreeFrame> m_Frame;
    std::unique_ptr<AVPacket, FreePacket> m_Packet;
    std::unique_ptr<SwsContext, FreeScaler> m_Scaler;
    AVStream* m_Stream = nullptr;  // owned by the format
    std::vector<std::uint32_t> m_EvenPixels;
    std::int64_t m_NumFrames = 0;
};

bool CanWriteMovies() {
    return true;
}

MovieWriter::MovieWriter(const std::string& path, int width, int height, int frames_per_second)
    : m_Encoder(std::make_unique<Encoder>(path, width, height, frames_per_second)) {}
MovieWriter::~MovieWriter() = default;

void MovieWriter::Add(const Picture& picture) {
    m_Encoder->Add(picture);
}
void MovieWriter::Finish() {
    m_Encoder->Finish();
}

}  // namespace scene
