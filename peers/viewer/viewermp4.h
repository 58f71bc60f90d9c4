// The viewer's MP4 file: the H.264 access units of a live view remuxed into an MP4 container with
// FFmpeg's libavformat, as they are (no decoding, no re-encoding). The file starts at the first
// key frame that carries the sequence and picture parameter sets, which become the track's
// decoder configuration; frames before it are skipped. Timestamps follow the frames' numbers at
// the stream's frame rate, so a gap in the numbers stays a gap in time.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

struct AVFormatContext;
struct AVPacket;

namespace viewer {

class Mp4Remux {
 public:
  explicit Mp4Remux(std::string path, int fps = 15);
  ~Mp4Remux();  // finishes the file
  Mp4Remux(const Mp4Remux&) = delete;
  Mp4Remux& operator=(const Mp4Remux&) = delete;

  // One Annex B access unit with its number in the stream (increasing) and the stream's size.
  // 0 when written, 1 when skipped (no key frame with parameter sets yet, or a number not
  // above the last one written), -1 on an error (error() tells; later calls fail too).
  int Write(const uint8_t* data, size_t n, bool key, uint16_t width, uint16_t height,
            int64_t number);
  // Writes the MP4 index and closes the file. 0, or -1 when the file could not be finished
  // (or was never started: no key frame came).
  int Finish();

  int64_t frames() const { return frames_; }
  const std::string& error() const { return error_; }

 private:
  int Start(const uint8_t* data, size_t n, uint16_t width, uint16_t height);
  int Fail(const std::string& what, int code);

  const std::string path_;
  const int fps_;
  AVFormatContext* out_ = nullptr;
  AVPacket* packet_ = nullptr;
  int64_t first_ = 0;
  int64_t last_ = -1;
  int64_t frames_ = 0;
  bool failed_ = false;
  bool finished_ = false;
  int finish_result_ = -1;
  std::string error_;
};

}  // namespace viewer
