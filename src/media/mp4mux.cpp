#include "media/mp4mux.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/channel_layout.h>
#include <libavutil/dict.h>
#include <libavutil/error.h>
#include <libavutil/log.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>

#include "base/log.h"
#include "media/h264sps.h"
#include "media/h264units.h"

namespace {

constexpr const char* kMuxer = "mov";
// Video timestamps in 90 kHz units, audio in samples.
constexpr int kVideoTimeBase = 90000;
// A fragment is cut at every key frame and at the latest after this long.
constexpr const char* kFragmentMicros = "1000000";
constexpr uint32_t kMaxVideoFrame = 8u << 20;
constexpr int kMaxAudioFrame = 64 * 1024;

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

// Copies every packet of the clip at from into an ordinary (unfragmented) file at to, with the
// index in front. 0 or a negative FFmpeg error.
int Defragment(const char* from, const char* to) {
  AVFormatContext* in = nullptr;
  AVFormatContext* out = nullptr;
  AVPacket* packet = av_packet_alloc();
  int rc = packet != nullptr ? 0 : AVERROR(ENOMEM);
  if (rc == 0) rc = avformat_open_input(&in, from, nullptr, nullptr);
  if (rc >= 0) rc = avformat_alloc_output_context2(&out, nullptr, kMuxer, to);
  for (unsigned i = 0; rc >= 0 && i < in->nb_streams; i++) {
    AVStream* st = avformat_new_stream(out, nullptr);
    if (st == nullptr) {
      rc = AVERROR(ENOMEM);
      break;
    }
    rc = avcodec_parameters_copy(st->codecpar, in->streams[i]->codecpar);
    st->codecpar->codec_tag = 0;
    if (st->codecpar->codec_id == AV_CODEC_ID_H264) {
      // What the demuxer cannot know from the fragmented file; read from the stream's own
      // parameter set instead of probing (which decodes pictures: megabytes at 1080p).
      const h264sps::Ratio sar = h264sps::SampleAspectOfConfig(
          st->codecpar->extradata, static_cast<size_t>(std::max(0, st->codecpar->extradata_size)));
      st->codecpar->sample_aspect_ratio = AVRational{sar.num, sar.den};
    }
    st->time_base = in->streams[i]->time_base;
    st->avg_frame_rate = in->streams[i]->avg_frame_rate;
  }
  if (rc >= 0) rc = avio_open(&out->pb, to, AVIO_FLAG_WRITE);
  AVDictionary* options = nullptr;
  av_dict_set(&options, "movflags", "+faststart", 0);
  if (rc >= 0) rc = avformat_write_header(out, &options);
  av_dict_free(&options);
  bool header = rc >= 0;
  while (rc >= 0) {
    rc = av_read_frame(in, packet);
    if (rc == AVERROR_EOF) {
      rc = 0;
      break;
    }
    if (rc < 0) break;
    const int index = packet->stream_index;
    if (index < 0 || static_cast<unsigned>(index) >= out->nb_streams) {
      av_packet_unref(packet);
      continue;
    }
    av_packet_rescale_ts(packet, in->streams[index]->time_base, out->streams[index]->time_base);
    packet->pos = -1;
    rc = av_interleaved_write_frame(out, packet);
    av_packet_unref(packet);
  }
  if (header) {
    const int trailer = av_write_trailer(out);
    if (rc >= 0) rc = trailer;
  }
  if (out != nullptr) {
    if (out->pb != nullptr) avio_closep(&out->pb);
    avformat_free_context(out);
  }
  avformat_close_input(&in);
  av_packet_free(&packet);
  return rc < 0 ? rc : 0;
}

void LogFfmpeg(void* avcl, int level, const char* format, va_list args) {
  if (level > AV_LOG_WARNING) return;
  char line[512];
  int prefix = 1;
  av_log_format_line2(avcl, level, format, args, line, sizeof(line), &prefix);
  size_t n = std::strlen(line);
  while (n > 0 && line[n - 1] == '\n') line[--n] = '\0';
  if (n > 0) TLOG(LOG_DEBUG) << "FFmpeg: " << line;
}

}  // namespace

struct OruMp4Writer {
  std::string path;
  int fps = 15;
  int width = 0;
  int height = 0;
  int sample_rate = 8000;
  AVFormatContext* ctx = nullptr;
  AVPacket* packet = nullptr;
  bool started = false;  // header written
  bool failed = false;
  int64_t video_frames = 0;
  int64_t audio_samples = 0;
  int64_t first_ms = 0;
  int64_t last_video_pts = -1;
  int64_t dropped_video = 0;
  int64_t dropped_audio = 0;

  ~OruMp4Writer() {
    if (ctx != nullptr) {
      if (ctx->pb != nullptr) avio_closep(&ctx->pb);
      avformat_free_context(ctx);
    }
    av_packet_free(&packet);
  }

  int Start(const uint8_t* data, size_t n) {
    const std::string sets = h264::ParameterSets(data, n);
    if (sets.empty() || !h264::HasIdrSlice(data, n)) return 1;
    AVCodecParameters* par = ctx->streams[0]->codecpar;
    par->extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
    if (par->extradata == nullptr) return AVERROR(ENOMEM);
    std::memcpy(par->extradata, sets.data(), sets.size());
    par->extradata_size = static_cast<int>(sets.size());
    AVDictionary* options = nullptr;
    av_dict_set(&options, "movflags", "+frag_keyframe+empty_moov", 0);
    av_dict_set(&options, "frag_duration", kFragmentMicros, 0);
    const int rc = avformat_write_header(ctx, &options);
    av_dict_free(&options);
    if (rc < 0) return rc;
    started = true;
    return 0;
  }

  int Write(AVPacket* p) {
    const int rc = av_write_frame(ctx, p);
    av_packet_unref(p);
    if (rc < 0) {
      failed = true;
      TLOG(LOG_DEBUG) << "Write " << path << " error: " << AvError(rc);
    }
    return rc;
  }
};

void orump4_init_ffmpeg() {
  // FFmpeg's own messages go to the log, not to standard error.
  av_log_set_callback(LogFfmpeg);
  TLOG(LOG_DEBUG) << "FFmpeg " << av_version_info() << " ready, formats self-registered";
}

int orump4_create_file(const char* path, int video_codec, int audio_codec, int video_tracks,
                       int fps, int width, int height, int audio_channels, int sample_rate,
                       ORU_MP4_HANDLE* handle) {
  if (handle == nullptr) return -1;
  *handle = nullptr;
  if (path == nullptr || path[0] == '\0' || video_codec != kOruMp4VideoH264 ||
      audio_codec != kOruMp4AudioG711A || video_tracks != 1 || fps < 1 || fps > 120 || width < 1 ||
      width > 8192 || height < 1 || height > 8192 || audio_channels != 1 || sample_rate != 8000) {
    TLOG(LOG_DEBUG) << "orump4_create_file: unsupported clip parameters";
    return -1;
  }
  auto* w = new OruMp4Writer();
  w->path = path;
  w->fps = fps;
  w->width = width;
  w->height = height;
  w->sample_rate = sample_rate;
  int rc = avformat_alloc_output_context2(&w->ctx, nullptr, kMuxer, path);
  AVStream* video = rc >= 0 ? avformat_new_stream(w->ctx, nullptr) : nullptr;
  AVStream* audio = video != nullptr ? avformat_new_stream(w->ctx, nullptr) : nullptr;
  w->packet = av_packet_alloc();
  if (rc < 0 || audio == nullptr || w->packet == nullptr) {
    TLOG(LOG_DEBUG) << "orump4_create_file: cannot make the muxer for " << path;
    delete w;
    return -1;
  }
  video->time_base = AVRational{1, kVideoTimeBase};
  video->avg_frame_rate = AVRational{fps, 1};
  video->codecpar->codec_type = AVMEDIA_TYPE_VIDEO;
  video->codecpar->codec_id = AV_CODEC_ID_H264;
  video->codecpar->width = width;
  video->codecpar->height = height;
  audio->time_base = AVRational{1, sample_rate};
  audio->codecpar->codec_type = AVMEDIA_TYPE_AUDIO;
  audio->codecpar->codec_id = AV_CODEC_ID_PCM_ALAW;
  audio->codecpar->sample_rate = sample_rate;
  av_channel_layout_default(&audio->codecpar->ch_layout, 1);
  audio->codecpar->bits_per_coded_sample = 8;
  audio->codecpar->block_align = 1;
  // Every fragment reaches the file when it is cut, not when the I/O buffer fills.
  w->ctx->flags |= AVFMT_FLAG_FLUSH_PACKETS;
  rc = avio_open(&w->ctx->pb, path, AVIO_FLAG_WRITE);
  if (rc < 0) {
    TLOG(LOG_DEBUG) << "orump4_create_file: open " << path << " error: " << AvError(rc);
    delete w;
    return -1;
  }
  *handle = w;
  return 0;
}

int orump4_write_video_frame(ORU_MP4_HANDLE w, const uint8_t* data, uint32_t size,
                             int64_t timestamp_ms) {
  if (w == nullptr) return 0;
  if (w->failed) return -1;
  if (data == nullptr || size == 0 || size > kMaxVideoFrame) return -1;
  if (!w->started) {
    const int rc = w->Start(data, size);
    if (rc < 0) {
      w->failed = true;
      TLOG(LOG_DEBUG) << "Write " << w->path << " header error: " << AvError(rc);
      return rc;
    }
    if (rc > 0) {
      if (w->dropped_video++ == 0) {
        TLOG(LOG_DEBUG) << "Clip " << w->path << " waits for a key frame with SPS and PPS";
      }
      return 0;
    }
    w->first_ms = timestamp_ms;
  }
  AVStream* st = w->ctx->streams[0];
  const int64_t frame = kVideoTimeBase / w->fps;
  int64_t pts = w->last_video_pts + frame;
  if (timestamp_ms != 0) pts = av_rescale(timestamp_ms - w->first_ms, kVideoTimeBase, 1000);
  if (w->last_video_pts < 0 && timestamp_ms == 0) pts = 0;
  if (pts <= w->last_video_pts) pts = w->last_video_pts + 1;  // never backwards
  int rc = av_new_packet(w->packet, static_cast<int>(size));
  if (rc < 0) return rc;
  std::memcpy(w->packet->data, data, size);
  w->packet->stream_index = st->index;
  w->packet->pts = av_rescale_q(pts, AVRational{1, kVideoTimeBase}, st->time_base);
  w->packet->dts = w->packet->pts;
  w->packet->duration = av_rescale_q(frame, AVRational{1, kVideoTimeBase}, st->time_base);
  if (h264::HasIdrSlice(data, size)) w->packet->flags |= AV_PKT_FLAG_KEY;
  rc = w->Write(w->packet);
  if (rc < 0) return rc;
  w->last_video_pts = pts;
  w->video_frames++;
  return 0;
}

int orump4_write_audio_frame(ORU_MP4_HANDLE w, const uint8_t* data, int length) {
  if (w == nullptr) return 0;
  if (w->failed) return -1;
  if (data == nullptr || length <= 0 || length > kMaxAudioFrame) return -1;
  if (!w->started) {
    w->dropped_audio += length;
    return 0;
  }
  AVStream* st = w->ctx->streams[1];
  int rc = av_new_packet(w->packet, length);
  if (rc < 0) return rc;
  std::memcpy(w->packet->data, data, static_cast<size_t>(length));
  w->packet->stream_index = st->index;
  w->packet->pts = av_rescale_q(w->audio_samples, AVRational{1, w->sample_rate}, st->time_base);
  w->packet->dts = w->packet->pts;
  w->packet->duration = av_rescale_q(length, AVRational{1, w->sample_rate}, st->time_base);
  w->packet->flags |= AV_PKT_FLAG_KEY;
  rc = w->Write(w->packet);
  if (rc < 0) return rc;
  w->audio_samples += length;
  return 0;
}

int orump4_close_file_for_create(ORU_MP4_HANDLE w) {
  if (w == nullptr) return 0;
  const std::string path = w->path;
  const bool started = w->started;
  int rc = 0;
  if (started && !w->failed) rc = av_write_trailer(w->ctx);
  if (w->ctx->pb != nullptr) {
    const int closed = avio_closep(&w->ctx->pb);
    if (rc >= 0 && closed < 0) rc = closed;
  }
  const bool failed = w->failed || rc < 0;
  TLOG(LOG_DEBUG) << "Close clip " << path << ": " << w->video_frames << " video frames, "
                  << w->audio_samples << " audio samples"
                  << (w->dropped_video > 0
                          ? ", " + std::to_string(w->dropped_video) + " frames before a key frame"
                          : std::string());
  delete w;
  if (!started) {
    unlink(path.c_str());
    TLOG(LOG_DEBUG) << "Clip " << path << " had no key frame, removed";
    return -1;
  }
  if (failed) {
    TLOG(LOG_DEBUG) << "Clip " << path << " not finished: " << AvError(rc < 0 ? rc : -1);
    return -1;
  }
  const std::string plain = path + ".plain";
  rc = Defragment(path.c_str(), plain.c_str());
  if (rc < 0 || std::rename(plain.c_str(), path.c_str()) != 0) {
    TLOG(LOG_DEBUG) << "Clip " << path << " stays fragmented: "
                    << (rc < 0 ? AvError(rc) : std::string(std::strerror(errno)));
    unlink(plain.c_str());
    return -1;
  }
  return 0;
}

int64_t orump4_video_frames(ORU_MP4_HANDLE w) {
  return w != nullptr ? w->video_frames : 0;
}
int64_t orump4_audio_samples(ORU_MP4_HANDLE w) {
  return w != nullptr ? w->audio_samples : 0;
}
