// SnapshotEncoder on libavcodec (H.264 decoder, PNG encoder) and libswscale (to RGB).
#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <memory>

#include "SnapshotEncoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

namespace {

struct CodecContextDeleter {
    void operator()(AVCodecContext* context) const { avcodec_free_context(&context); }
};
struct FrameDeleter {
    void operator()(AVFrame* frame) const { av_frame_free(&frame); }
};
struct PacketDeleter {
    void operator()(AVPacket* packet) const { av_packet_free(&packet); }
};
struct ScaleDeleter {
    void operator()(SwsContext* context) const { sws_freeContext(context); }
};
using CodecContext = std::unique_ptr<AVCodecContext, CodecContextDeleter>;
using Frame = std::unique_ptr<AVFrame, FrameDeleter>;
using Packet = std::unique_ptr<AVPacket, PacketDeleter>;
using Scaler = std::unique_ptr<SwsContext, ScaleDeleter>;

std::string avError(const char* what, int code) {
    char text[AV_ERROR_MAX_STRING_SIZE] = {};
    av_strerror(code, text, sizeof(text));
    return std::string(what) + ": " + text;
}

// Decodes the one picture in annexB into `picture`.
bool decodePicture(const unsigned char* annexB, size_t size, AVFrame* picture, std::string* error) {
    const AVCodec* decoder = avcodec_find_decoder(AV_CODEC_ID_H264);
    if (decoder == nullptr) {
        *error = "this libavcodec has no H.264 decoder";
        return false;
    }
    CodecContext context(avcodec_alloc_context3(decoder));
    Packet packet(av_packet_alloc());
    if (!context || !packet) {
        *error = "out of memory";
        return false;
    }
    int result = avcodec_open2(context.get(), decoder, nullptr);
    if (result < 0) {
        *error = avError("opening the H.264 decoder", result);
        return false;
    }
    result = av_new_packet(packet.get(), static_cast<int>(size));
    if (result < 0) {
        *error = avError("packet", result);
        return false;
    }
    memcpy(packet->data, annexB, size);
    result = avcodec_send_packet(context.get(), packet.get());
    if (result < 0) {
        *error = avError("decoding the picture", result);
        return false;
    }
    avcodec_send_packet(context.get(), nullptr);  // drain: the picture is complete
    result = avcodec_receive_frame(context.get(), picture);
    if (result < 0) {
        *error = avError("decoding the picture", result);
        return false;
    }
    return true;
}

bool writeAll(int fd, const unsigned char* bytes, size_t size, std::string* error) {
    while (size > 0) {
        ssize_t written = write(fd, bytes, size);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            *error = std::string("writing the snapshot: ") +
                     (written < 0 ? strerror(errno) : "no progress");
            return false;
        }
        bytes += written;
        size -= static_cast<size_t>(written);
    }
    return true;
}

}  // namespace

bool SnapshotEncoder::available() {
    return true;
}

bool SnapshotEncoder::encode(const unsigned char* annexB, size_t size, int fd, std::string* error) {
    Frame picture(av_frame_alloc());
    Frame rgb(av_frame_alloc());
    Packet image(av_packet_alloc());
    if (!picture || !rgb || !image) {
        *error = "out of memory";
        return false;
    }
    if (!decodePicture(annexB, size, picture.get(), error))
        return false;

    int width = picture->width;
    int height = picture->height;
    Scaler scaler(sws_getContext(width, height, static_cast<AVPixelFormat>(picture->format), width,
                                 height, AV_PIX_FMT_RGB24, SWS_BILINEAR, nullptr, nullptr,
                                 nullptr));
    if (!scaler) {
        *error = "no conversion from the decoded pixel format to RGB";
        return false;
    }
    rgb->format = AV_PIX_FMT_RGB24;
    rgb->width = width;
    rgb->height = height;
    int result = av_frame_get_buffer(rgb.get(), 0);
    if (result < 0) {
        *error = avError("picture buffer", result);
        return false;
    }
    sws_scale(scaler.get(), picture->data, picture->linesize, 0, height, rgb->data, rgb->linesize);

    const AVCodec* pngEncoder = avcodec_find_encoder(AV_CODEC_ID_PNG);
    if (pngEncoder == nullptr) {
        *error = "this libavcodec has no PNG encoder";
        return false;
    }
    CodecContext encoder(avcodec_alloc_context3(pngEncoder));
    if (!encoder) {
        *error = "out of memory";
        return false;
    }
    encoder->width = width;
    encoder->height = height;
    encoder->pix_fmt = AV_PIX_FMT_RGB24;
    encoder->time_base = AVRational{1, 25};
    result = avcodec_open2(encoder.get(), pngEncoder, nullptr);
    if (result < 0) {
        *error = avError("opening the PNG encoder", result);
        return false;
    }
    result = avcodec_send_frame(encoder.get(), rgb.get());
    if (result >= 0)
        result = avcodec_receive_packet(encoder.get(), image.get());
    if (result < 0) {
        *error = avError("encoding the PNG image", result);
        return false;
    }
    return writeAll(fd, image->data, static_cast<size_t>(image->size), error);
}
