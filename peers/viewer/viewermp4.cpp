#include "viewer/viewermp4.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavformat/avformat.h>
#include <libavutil/error.h>
#include <libavutil/mathematics.h>
#include <libavutil/mem.h>
}

#include <cstring>
#include <utility>

#include "media/h264units.h"

namespace viewer {
namespace {

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

}  // namespace

Mp4Remux::Mp4Remux(std::string path, int fps) : path_(std::move(path)), fps_(fps > 0 ? fps : 15) {}

Mp4Remux::~Mp4Remux() {
  Finish();
  av_packet_free(&packet_);
}

int Mp4Remux::Fail(const std::string& what, int code) {
  error_ = path_ + ": " + what + (code < 0 ? ": " + AvError(code) : std::string());
  failed_ = true;
  return -1;
}

int Mp4Remux::Start(const uint8_t* data, size_t n, uint16_t width, uint16_t height) {
  const std::string sets = h264::ParameterSets(data, n);
  if (sets.empty()) return 1;
  int rc = avformat_alloc_output_context2(&out_, nullptr, "mp4", path_.c_str());
  if (rc < 0 || out_ == nullptr) return Fail("cannot make an MP4 muxer", rc);
  AVStream* st = avformat_new_stream(out_, nullptr);
  if (st == nullptr) return Fail("cannot add the video track", 0);
  st->time_base = AVRational{1, fps_};
  st->avg_frame_rate = AVRational{fps_, 1};
  AVCodecParameters* par = st->codecpar;
  par->codec_type = AVMEDIA_TYPE_VIDEO;
  par->codec_id = AV_CODEC_ID_H264;
  par->width = width;
  par->height = height;
  par->extradata = static_cast<uint8_t*>(av_mallocz(sets.size() + AV_INPUT_BUFFER_PADDING_SIZE));
  if (par->extradata == nullptr) return Fail("out of memory", 0);
  std::memcpy(par->extradata, sets.data(), sets.size());
  par->extradata_size = static_cast<int>(sets.size());
  rc = avio_open(&out_->pb, path_.c_str(), AVIO_FLAG_WRITE);
  if (rc < 0) return Fail("cannot open", rc);
  rc = avformat_write_header(out_, nullptr);
  if (rc < 0) return Fail("cannot write the MP4 header", rc);
  packet_ = av_packet_alloc();
  if (packet_ == nullptr) return Fail("out of memory", 0);
  return 0;
}

int Mp4Remux::Write(const uint8_t* data, size_t n, bool key, uint16_t width, uint16_t height,
                    int64_t number) {
  if (failed_ || finished_) return -1;
  if (n == 0 || n > static_cast<size_t>(INT32_MAX - AV_INPUT_BUFFER_PADDING_SIZE)) return 1;
  if (out_ == nullptr) {
    if (!key) return 1;
    const int rc = Start(data, n, width, height);
    if (rc != 0) return rc;
    first_ = number;
  } else if (number <= last_) {
    return 1;
  }
  int rc = av_new_packet(packet_, static_cast<int>(n));
  if (rc < 0) return Fail("out of memory", rc);
  std::memcpy(packet_->data, data, n);
  AVStream* st = out_->streams[0];
  const AVRational frame_time{1, fps_};
  packet_->pts = av_rescale_q(number - first_, frame_time, st->time_base);
  packet_->dts = packet_->pts;
  packet_->duration = av_rescale_q(1, frame_time, st->time_base);
  packet_->stream_index = 0;
  if (key) packet_->flags |= AV_PKT_FLAG_KEY;
  rc = av_write_frame(out_, packet_);
  av_packet_unref(packet_);
  if (rc < 0) return Fail("cannot write a frame", rc);
  last_ = number;
  frames_++;
  return 0;
}

int Mp4Remux::Finish() {
  if (finished_) return finish_result_;
  finished_ = true;
  finish_result_ = -1;
  if (out_ == nullptr) {
    if (error_.empty()) error_ = path_ + ": no key frame with parameter sets came";
    return -1;
  }
  int result = 0;
  if (!failed_ && out_->pb != nullptr) {
    const int rc = av_write_trailer(out_);
    if (rc < 0) result = Fail("cannot write the MP4 index", rc);
  }
  if (out_->pb != nullptr) avio_closep(&out_->pb);
  avformat_free_context(out_);
  out_ = nullptr;
  finish_result_ = failed_ ? -1 : result;
  return finish_result_;
}

}  // namespace viewer
