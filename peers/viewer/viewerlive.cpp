#include "viewer/viewerlive.h"

#include <cerrno>
#include <cstring>
#include <vector>

#include "viewer/viewerframe.h"
#include "viewer/viewermp4.h"

namespace viewer {
namespace {

constexpr uint32_t kVideoIndexRange = 65536;  // the frame information keeps 16 bits
constexpr uint64_t kAudioNumberRange = 1ull << 32;

std::FILE* OpenFile(const std::string& path, std::string* error) {
  if (path.empty()) return nullptr;
  std::FILE* f = std::fopen(path.c_str(), "wbe");
  if (f == nullptr) *error = "cannot write " + path + ": " + std::strerror(errno);
  return f;
}

void CloseFile(std::FILE** f, std::string* error, const std::string& path) {
  if (*f == nullptr) return;
  if (std::fclose(*f) != 0 && error->empty()) {
    *error = "cannot finish " + path + ": " + std::strerror(errno);
  }
  *f = nullptr;
}

}  // namespace

LiveRecorder::LiveRecorder() = default;

LiveRecorder::~LiveRecorder() {
  std::string ignored;
  Finish(&ignored);
}

int LiveRecorder::Open(const RecordOptions& options, std::string* error) {
  options_ = options;
  h264_ = OpenFile(options.h264_path, error);
  if (!options.h264_path.empty() && h264_ == nullptr) return -1;
  alaw_ = OpenFile(options.alaw_path, error);
  if (!options.alaw_path.empty() && alaw_ == nullptr) return -1;
  log_ = OpenFile(options.frame_log_path, error);
  if (!options.frame_log_path.empty() && log_ == nullptr) return -1;
  if (log_ != nullptr) {
    std::fputs(
        "kind,number,index,key,bytes,encrypted,seconds,milliseconds,first_byte_ns,"
        "last_byte_ns\n",
        log_);
  }
  if (!options.mp4_path.empty()) mp4_ = std::make_unique<Mp4Remux>(options.mp4_path, options.fps);
  return 0;
}

void LiveRecorder::Count(StreamStats* stats, int64_t* last, uint32_t number, uint32_t range) {
  if (*last >= 0) {
    const uint64_t r = range == 0 ? kAudioNumberRange : range;
    const uint64_t expected = (static_cast<uint64_t>(*last) + 1) % r;
    if (number != expected) {
      const uint64_t ahead = (number + r - expected) % r;
      if (ahead >= r / 2) {
        stats->restarts++;
      } else {
        stats->gaps++;
        stats->missing += static_cast<int64_t>(ahead);
      }
    }
  }
  *last = number;
}

bool LiveRecorder::Write(std::FILE* file, const std::vector<uint8_t>& bytes) {
  if (file == nullptr || bytes.empty()) return true;
  if (std::fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size()) return true;
  if (write_error_.empty()) write_error_ = std::string("write failed: ") + std::strerror(errno);
  return false;
}

void LiveRecorder::Add(const p2p::ViewerFrame& frame, const unsigned char* key) {
  StreamStats& stats = frame.video ? video_ : audio_;
  FrameInfo info;
  std::vector<uint8_t> plain;
  if (ParseFrameInfo(frame.info, &info) != 0 || DecryptFrame(frame, key, &plain) != 0) {
    stats.undecodable++;
    return;
  }
  stats.frames++;
  stats.bytes += static_cast<int64_t>(plain.size());
  if (frame.video) {
    if (info.key_frame) stats.key_frames++;
    const int64_t before = last_video_;
    Count(&stats, &last_video_, info.frame_index, kVideoIndexRange);
    // The MP4's timestamps follow the index, unwrapped; a new stream goes on from the last.
    if (video_number_ < 0) {
      video_number_ = 0;
    } else {
      const int64_t step = (info.frame_index - before + kVideoIndexRange) % kVideoIndexRange;
      video_number_ += step == 0 || step >= kVideoIndexRange / 2 ? 1 : step;
    }
    Write(h264_, plain);
    if (mp4_ != nullptr) {
      mp4_->Write(plain.data(), plain.size(), info.key_frame, info.width, info.height,
                  video_number_);
    }
  } else {
    Count(&stats, &last_audio_, frame.number, 0);
    Write(alaw_, plain);
  }
  if (log_ != nullptr) {
    std::fprintf(log_, "%s,%u,%u,%d,%zu,%d,%u,%u,%lld,%lld\n", frame.video ? "video" : "audio",
                 frame.number, frame.video ? info.frame_index : 0u, info.key_frame ? 1 : 0,
                 plain.size(), info.encrypted ? 1 : 0, info.seconds, info.milliseconds,
                 static_cast<long long>(frame.first_byte_ns),
                 static_cast<long long>(frame.last_byte_ns));
  }
}

int LiveRecorder::Finish(std::string* error) {
  std::string first = write_error_;
  CloseFile(&h264_, &first, options_.h264_path);
  CloseFile(&alaw_, &first, options_.alaw_path);
  CloseFile(&log_, &first, options_.frame_log_path);
  if (mp4_ != nullptr && mp4_->Finish() != 0 && first.empty()) first = mp4_->error();
  *error = first;
  return first.empty() ? 0 : -1;
}

int64_t LiveRecorder::mp4_frames() const {
  return mp4_ != nullptr ? mp4_->frames() : 0;
}

std::string VideoLine(const StreamStats& s) {
  std::string line = "video frames " + std::to_string(s.frames) + " key " +
                     std::to_string(s.key_frames) + " bytes " + std::to_string(s.bytes) + " gaps " +
                     std::to_string(s.gaps) + " missing " + std::to_string(s.missing);
  if (s.restarts > 0) line += " restarts " + std::to_string(s.restarts);
  if (s.undecodable > 0) line += " undecodable " + std::to_string(s.undecodable);
  return line;
}

std::string AudioLine(const StreamStats& s) {
  std::string line = "audio frames " + std::to_string(s.frames) + " bytes " +
                     std::to_string(s.bytes) + " gaps " + std::to_string(s.gaps) + " missing " +
                     std::to_string(s.missing);
  if (s.restarts > 0) line += " restarts " + std::to_string(s.restarts);
  if (s.undecodable > 0) line += " undecodable " + std::to_string(s.undecodable);
  return line;
}

}  // namespace viewer
