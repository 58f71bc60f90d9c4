#include "media/snapshot.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/error.h>
#include <libavutil/frame.h>
#include <libavutil/imgutils.h>
#include <libswscale/swscale.h>
}

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "base/log.h"

namespace {

constexpr uint32_t kMaxFrame = 8u << 20;
constexpr int kMinSide = 16;
constexpr int kMaxSide = 4096;
// MJPEG quantiser scale (2 best .. 31 worst).
constexpr int kJpegQuality = 4;

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

// One conversion's FFmpeg objects, all freed when it ends. The stages run one after the other
// and each frees what the next does not need: the 1080p decoder and its picture (about 4 MiB)
// are gone before the JPEG encoder (about 3 MiB at 640x360) is made, so a conversion never holds
// both, and nothing stays resident between events. Making a decoder and an encoder costs far
// less than decoding the picture.
class Converter {
 public:
  ~Converter() {
    FreeDecoder();
    avcodec_free_context(&encoder_);
    sws_freeContext(scaler_);
    av_frame_free(&scaled_);
    av_packet_free(&packet_);
  }

  // Decodes one access unit into picture_. 0 or an FFmpeg error.
  int Decode(const uint8_t* data, uint32_t size) {
    int rc = OpenDecoder();
    if (rc < 0) return rc;
    rc = av_new_packet(packet_, static_cast<int>(size));
    if (rc < 0) return rc;
    std::memcpy(packet_->data, data, size);
    packet_->flags |= AV_PKT_FLAG_KEY;
    rc = avcodec_send_packet(decoder_, packet_);
    av_packet_unref(packet_);
    // Drain: the one picture comes out now, whatever the decoder's delay.
    if (rc >= 0) rc = avcodec_send_packet(decoder_, nullptr);
    if (rc < 0) return rc;
    return avcodec_receive_frame(decoder_, picture_);
  }

  int Convert(const char* path, const uint8_t* data, uint32_t size, int width, int height) {
    int rc = Decode(data, size);
    if (rc < 0) {
      TLOG(LOG_DEBUG) << "Decode key frame of " << size << " bytes error: " << AvError(rc);
      return -1;
    }
    if (picture_->width <= 0 || picture_->height <= 0) return -1;
    scaled_ = av_frame_alloc();
    if (scaled_ == nullptr) return -1;
    scaled_->format = AV_PIX_FMT_YUVJ420P;
    scaled_->width = width;
    scaled_->height = height;
    if (av_frame_get_buffer(scaled_, 0) < 0) return -1;
    scaler_ = sws_getContext(picture_->width, picture_->height,
                             static_cast<AVPixelFormat>(picture_->format), width, height,
                             AV_PIX_FMT_YUVJ420P, SWS_BILINEAR, nullptr, nullptr, nullptr);
    if (scaler_ == nullptr) {
      TLOG(LOG_DEBUG) << "No scaler from " << picture_->width << "x" << picture_->height;
      return -1;
    }
    sws_scale(scaler_, picture_->data, picture_->linesize, 0, picture_->height, scaled_->data,
              scaled_->linesize);
    sws_freeContext(scaler_);
    scaler_ = nullptr;
    FreeDecoder();
    rc = OpenEncoder(width, height);
    if (rc < 0) {
      TLOG(LOG_DEBUG) << "JPEG encoder error: " << AvError(rc);
      return -1;
    }
    scaled_->pts = 0;
    scaled_->quality = encoder_->global_quality;
    rc = avcodec_send_frame(encoder_, scaled_);
    if (rc >= 0) rc = avcodec_receive_packet(encoder_, packet_);
    if (rc < 0) {
      TLOG(LOG_DEBUG) << "JPEG encode error: " << AvError(rc);
      return -1;
    }
    return WriteWhole(path, packet_->data, static_cast<size_t>(packet_->size));
  }

 private:
  int OpenDecoder() {
    const AVCodec* codec = avcodec_find_decoder(AV_CODEC_ID_H264);
    if (codec == nullptr) return AVERROR_DECODER_NOT_FOUND;
    decoder_ = avcodec_alloc_context3(codec);
    picture_ = av_frame_alloc();
    packet_ = av_packet_alloc();
    if (decoder_ == nullptr || picture_ == nullptr || packet_ == nullptr) return AVERROR(ENOMEM);
    decoder_->thread_count = 1;  // one picture: threads would only cost memory
    decoder_->flags |= AV_CODEC_FLAG_LOW_DELAY;
    return avcodec_open2(decoder_, codec, nullptr);
  }

  void FreeDecoder() {
    av_frame_free(&picture_);
    avcodec_free_context(&decoder_);
  }

  int OpenEncoder(int width, int height) {
    const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
    if (codec == nullptr) return AVERROR_ENCODER_NOT_FOUND;
    encoder_ = avcodec_alloc_context3(codec);
    if (encoder_ == nullptr) return AVERROR(ENOMEM);
    encoder_->width = width;
    encoder_->height = height;
    encoder_->pix_fmt = AV_PIX_FMT_YUVJ420P;
    encoder_->time_base = AVRational{1, 15};
    encoder_->flags |= AV_CODEC_FLAG_QSCALE;
    encoder_->global_quality = FF_QP2LAMBDA * kJpegQuality;
    return avcodec_open2(encoder_, codec, nullptr);
  }

  // Writes the JPEG under a temporary name and renames it, so path holds a whole picture or
  // nothing new.
  static int WriteWhole(const char* path, const uint8_t* data, size_t n) {
    const std::string tmp = std::string(path) + ".part";
    const int fd = open(tmp.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
      TLOG(LOG_DEBUG) << "Open " << tmp << " error: " << std::strerror(errno);
      return -1;
    }
    size_t done = 0;
    while (done < n) {
      const ssize_t put = write(fd, data + done, n - done);
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) break;
      done += static_cast<size_t>(put);
    }
    const bool ok = close(fd) == 0 && done == n;
    if (!ok || std::rename(tmp.c_str(), path) != 0) {
      TLOG(LOG_DEBUG) << "Write " << path << " error: " << std::strerror(errno);
      unlink(tmp.c_str());
      return -1;
    }
    return 0;
  }

  AVCodecContext* decoder_ = nullptr;
  AVCodecContext* encoder_ = nullptr;
  SwsContext* scaler_ = nullptr;
  AVFrame* picture_ = nullptr;
  AVFrame* scaled_ = nullptr;
  AVPacket* packet_ = nullptr;
};

// Conversions one at a time, whichever camera's recorder asks: their memory never adds up.
std::mutex g_mutex;

bool ValidFrame(const uint8_t* data, uint32_t size) {
  return data != nullptr && size > 0 && size <= kMaxFrame;
}

}  // namespace

int ConvertH264FrameToJpeg(const char* path, const uint8_t* data, uint32_t size, int width,
                           int height) {
  if (path == nullptr || path[0] == '\0' || !ValidFrame(data, size) || width < kMinSide ||
      width > kMaxSide || height < kMinSide || height > kMaxSide || width % 2 != 0 ||
      height % 2 != 0) {
    TLOG(LOG_DEBUG) << "ConvertH264FrameToJpeg: bad arguments";
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_mutex);
  return Converter().Convert(path, data, size, width, height);
}

namespace snapshot {

int DecodeOnly(const uint8_t* data, uint32_t size) {
  if (!ValidFrame(data, size)) return -1;
  std::lock_guard<std::mutex> lock(g_mutex);
  return Converter().Decode(data, size) < 0 ? -1 : 0;
}

}  // namespace snapshot
