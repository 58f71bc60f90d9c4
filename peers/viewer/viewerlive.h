// What the viewer does with the frames of a live view: decrypts each with the session's stream
// key, counts it, and writes it to the files asked for: the decrypted H.264 elementary stream,
// the same frames remuxed into MP4, the decrypted A-law audio, and one line per frame.
//
// Gaps: video frames carry the camera's frame index (low 16 bits) in their frame information,
// audio frames only the transport's number. A frame whose index (number) is not the last one
// plus one opens a gap; the frames missing in between are counted too. A jump back of more
// than half the number range is the camera starting a new stream, not a gap.
#pragma once

#include <cstdint>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "viewer/p2pviewer.h"

namespace viewer {

class Mp4Remux;

struct StreamStats {
  int64_t frames = 0;
  int64_t key_frames = 0;  // video only
  int64_t bytes = 0;       // decrypted payload bytes
  int64_t gaps = 0;
  int64_t missing = 0;
  int64_t restarts = 0;     // the numbering started again
  int64_t undecodable = 0;  // not counted in frames and bytes, not written
};

struct RecordOptions {
  std::string h264_path;       // decrypted H.264 elementary stream
  std::string mp4_path;        // the same frames in MP4
  std::string alaw_path;       // decrypted A-law
  std::string frame_log_path;  // a line per frame
  int fps = 15;
};

class LiveRecorder {
 public:
  LiveRecorder();
  ~LiveRecorder();
  LiveRecorder(const LiveRecorder&) = delete;
  LiveRecorder& operator=(const LiveRecorder&) = delete;

  // Creates the files asked for. 0, or -1 with the reason in *error.
  int Open(const RecordOptions& options, std::string* error);
  // One frame from the hub; key is the session's stream key (null: only clear frames decode).
  void Add(const p2p::ViewerFrame& frame, const unsigned char* key);
  // Closes the files and finishes the MP4. 0, or -1 with the reason in *error (the statistics
  // stay valid).
  int Finish(std::string* error);

  const StreamStats& video() const { return video_; }
  const StreamStats& audio() const { return audio_; }
  int64_t mp4_frames() const;

 private:
  // Counts a frame numbered `number` (modulo `range`) into stats.
  static void Count(StreamStats* stats, int64_t* last, uint32_t number, uint32_t range);
  bool Write(std::FILE* file, const std::vector<uint8_t>& bytes);

  RecordOptions options_;
  std::FILE* h264_ = nullptr;
  std::FILE* alaw_ = nullptr;
  std::FILE* log_ = nullptr;
  std::unique_ptr<Mp4Remux> mp4_;
  StreamStats video_;
  StreamStats audio_;
  int64_t last_video_ = -1;  // last index seen, -1 before the first
  int64_t last_audio_ = -1;
  int64_t video_number_ = -1;  // the video index unwrapped, for the MP4's timestamps
  std::string write_error_;
};

// The statistics as the tool prints them:
// "video frames N key K bytes B gaps G missing M" and "audio frames N bytes B gaps G missing M".
std::string VideoLine(const StreamStats& s);
std::string AudioLine(const StreamStats& s);

}  // namespace viewer
