#include "media/oru_mp4_demux.h"

extern "C" {
#include <libavformat/avformat.h>
#include <libavutil/error.h>
}

#include <algorithm>
#include <cstdint>
#include <deque>

namespace oru_mp4_demux {
namespace {

std::string AvError(int code) {
  char text[AV_ERROR_MAX_STRING_SIZE] = {0};
  av_strerror(code, text, sizeof(text));
  return text;
}

constexpr uint8_t kStartCode[4] = {0, 0, 0, 1};
// Audio read while looking for the key frame after a seek; more is not kept.
constexpr size_t kMaxHeldAudio = 256;

}  // namespace

int SampleToAnnexB(const uint8_t* data, size_t size, int length_size, std::vector<uint8_t>* out) {
  if (length_size < 1 || length_size > 4 || (data == nullptr && size > 0)) return -1;
  out->clear();
  out->reserve(size + (4 - static_cast<size_t>(length_size)) * 8);
  size_t at = 0;
  while (at < size) {
    if (size - at < static_cast<size_t>(length_size)) return -1;
    size_t n = 0;
    for (int i = 0; i < length_size; i++) n = (n << 8) | data[at + static_cast<size_t>(i)];
    at += static_cast<size_t>(length_size);
    if (n == 0 || n > size - at) return -1;
    out->insert(out->end(), kStartCode, kStartCode + 4);
    out->insert(out->end(), data + at, data + at + n);
    at += n;
  }
  return size == 0 ? -1 : 0;
}

struct Reader::State {
  AVFormatContext* ctx = nullptr;
  AVPacket* packet = nullptr;
  int video = -1;
  int audio = -1;
  int length_size = 0;  // 0: the samples are Annex B already
  bool need_key = false;
  int64_t key_ms = INT64_MIN;  // after a seek: the key frame's time, audio before it goes
  std::deque<Packet> held;     // audio read before the key frame after a seek
  std::deque<Packet> ready;

  ~State() {
    av_packet_free(&packet);
    if (ctx != nullptr) avformat_close_input(&ctx);
  }

  int64_t Ms(const AVPacket* p) const {
    const AVStream* st = ctx->streams[p->stream_index];
    int64_t t = p->pts != AV_NOPTS_VALUE ? p->pts : p->dts;
    if (t == AV_NOPTS_VALUE) t = 0;
    return av_rescale_q(t, st->time_base, AVRational{1, 1000});
  }
};

Reader::Reader() = default;
Reader::~Reader() = default;

void Reader::Close() {
  s_.reset();
}

int Reader::Open(const std::string& path, std::string* why) {
  Close();
  auto s = std::make_unique<State>();
  const AVInputFormat* mov = av_find_input_format("mov");
  int rc = avformat_open_input(&s->ctx, path.c_str(), mov, nullptr);
  if (rc < 0) {
    *why = "cannot open as MP4: " + AvError(rc);
    return -1;
  }
  rc = avformat_find_stream_info(s->ctx, nullptr);
  if (rc < 0) {
    *why = "no stream information: " + AvError(rc);
    return -1;
  }
  for (unsigned i = 0; i < s->ctx->nb_streams; i++) {
    const AVCodecParameters* par = s->ctx->streams[i]->codecpar;
    if (par->codec_id == AV_CODEC_ID_H264 && s->video < 0) s->video = static_cast<int>(i);
    if (par->codec_id == AV_CODEC_ID_PCM_ALAW && s->audio < 0) s->audio = static_cast<int>(i);
  }
  if (s->video < 0) {
    *why = "no H.264 track";
    return -1;
  }
  const AVCodecParameters* vpar = s->ctx->streams[s->video]->codecpar;
  if (vpar->extradata_size >= 7 && vpar->extradata[0] == 1) {
    s->length_size = (vpar->extradata[4] & 3) + 1;
  } else if (vpar->extradata_size >= 4 && vpar->extradata[0] == 0 && vpar->extradata[1] == 0) {
    s->length_size = 0;
  } else {
    *why = "no H.264 decoder configuration";
    return -1;
  }
  // A copy cut short keeps its index: samples past the end of the file show it.
  const int64_t file_size = s->ctx->pb != nullptr ? avio_size(s->ctx->pb) : -1;
  for (int idx : {s->video, s->audio}) {
    if (idx < 0) continue;
    AVStream* st = s->ctx->streams[idx];
    const int n = avformat_index_get_entries_count(st);
    if (idx == s->video && n == 0) {
      *why = "no video samples";
      return -1;
    }
    for (int k = 0; k < n; k++) {
      const AVIndexEntry* e = avformat_index_get_entry(st, k);
      if (e != nullptr && file_size >= 0 && e->pos + e->size > file_size) {
        *why = "truncated: samples end past the file's " + std::to_string(file_size) + " bytes";
        return -1;
      }
    }
  }
  s->packet = av_packet_alloc();
  if (s->packet == nullptr) {
    *why = "out of memory";
    return -1;
  }
  s_ = std::move(s);
  return 0;
}

int Reader::Seek(int64_t offset_ms, std::string* why) {
  if (s_ == nullptr) {
    *why = "not open";
    return -1;
  }
  AVStream* st = s_->ctx->streams[s_->video];
  const int64_t ts =
      av_rescale_q(std::max<int64_t>(offset_ms, 0), AVRational{1, 1000}, st->time_base);
  int rc = av_seek_frame(s_->ctx, s_->video, ts, AVSEEK_FLAG_BACKWARD);
  if (rc < 0) {
    // Past the last key frame's time some demuxers refuse: take the last key frame then.
    rc = av_seek_frame(s_->ctx, s_->video, INT64_MAX, AVSEEK_FLAG_BACKWARD);
  }
  if (rc < 0) {
    *why = "seek failed: " + AvError(rc);
    return -1;
  }
  s_->need_key = true;
  s_->held.clear();
  s_->ready.clear();
  return 0;
}

int Reader::Read(Packet* out, std::string* why) {
  if (s_ == nullptr) {
    *why = "not open";
    return -1;
  }
  for (;;) {
    if (!s_->ready.empty()) {
      *out = std::move(s_->ready.front());
      s_->ready.pop_front();
      return 1;
    }
    AVPacket* p = s_->packet;
    const int rc = av_read_frame(s_->ctx, p);
    if (rc == AVERROR_EOF) return 0;
    if (rc < 0) {
      *why = "read failed: " + AvError(rc);
      return -1;
    }
    struct Unref {
      AVPacket* p;
      ~Unref() { av_packet_unref(p); }
    } unref{p};
    if (p->stream_index != s_->video && p->stream_index != s_->audio) continue;
    if ((p->flags & AV_PKT_FLAG_CORRUPT) != 0 || p->size <= 0) {
      *why = "short or corrupt sample";
      return -1;
    }
    Packet packet;
    packet.video = p->stream_index == s_->video;
    packet.key = packet.video && (p->flags & AV_PKT_FLAG_KEY) != 0;
    packet.time_ms = s_->Ms(p);
    if (packet.video) {
      if (s_->length_size == 0) {
        packet.data.assign(p->data, p->data + p->size);
      } else if (SampleToAnnexB(p->data, static_cast<size_t>(p->size), s_->length_size,
                                &packet.data) != 0) {
        *why = "video sample whose unit lengths do not add up";
        return -1;
      }
    } else {
      packet.data.assign(p->data, p->data + p->size);
    }
    if (!s_->need_key) {
      if (!packet.video && packet.time_ms < s_->key_ms) continue;
      *out = std::move(packet);
      return 1;
    }
    // After a seek: audio waits for the key frame's time, video before the key frame goes.
    if (!packet.video) {
      if (s_->held.size() < kMaxHeldAudio) s_->held.push_back(std::move(packet));
      continue;
    }
    if (!packet.key) continue;
    s_->need_key = false;
    s_->key_ms = packet.time_ms;
    s_->ready.push_back(std::move(packet));
    for (Packet& a : s_->held) {
      if (a.time_ms >= s_->key_ms) s_->ready.push_back(std::move(a));
    }
    s_->held.clear();
  }
}

int Reader::width() const {
  return s_ != nullptr ? s_->ctx->streams[s_->video]->codecpar->width : 0;
}

int Reader::height() const {
  return s_ != nullptr ? s_->ctx->streams[s_->video]->codecpar->height : 0;
}

bool Reader::has_audio() const {
  return s_ != nullptr && s_->audio >= 0;
}

int64_t Reader::duration_ms() const {
  if (s_ == nullptr || s_->ctx->duration == AV_NOPTS_VALUE) return 0;
  return av_rescale(s_->ctx->duration, 1000, AV_TIME_BASE);
}

}  // namespace oru_mp4_demux
