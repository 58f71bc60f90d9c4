// The event clip reader over FFmpeg's libavformat: the H.264 track and the A-law track of a clip
// the recorder wrote (mp4mux.h), packet by packet in file order, from the start or from the key
// frame at or before a point in time.
//
// The recorder stores H.264 as MP4 samples: each unit behind a 4-byte big-endian length. The
// reader gives every video sample back as Annex B, a 4-byte start code in place of each length
// (other length sizes are widened), so a sample comes out as many bytes as it was stored and
// holds exactly the units, SPS and PPS included, that the camera sent in that frame.
//
// A clip is refused at open when it is not an MP4 with an H.264 track, or when its index names
// bytes beyond the end of the file (a truncated copy). Reads after that fail on a sample whose
// lengths do not add up or that the file cannot deliver whole.
//
// Threads: one reader is used by one thread at a time; readers are independent. Every call may
// block on the card and must not run on the event-loop thread.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace oru_mp4_demux {

struct Packet {
  bool video = false;
  bool key = false;           // video: the sample is a sync sample
  int64_t time_ms = 0;        // from the clip's start
  std::vector<uint8_t> data;  // video: Annex B; audio: A-law bytes
};

class Reader {
 public:
  Reader();
  ~Reader();
  Reader(const Reader&) = delete;
  Reader& operator=(const Reader&) = delete;

  // Opens a clip. 0, or -1 with the reason in *why (not an MP4, no H.264 track, truncated).
  int Open(const std::string& path, std::string* why);
  // Positions both tracks at the key frame at or before offset_ms (the last key frame when the
  // offset is past the end). The next Read gives that key frame or audio of its time or later;
  // earlier audio is skipped. 0, or -1 with the reason.
  int Seek(int64_t offset_ms, std::string* why);
  // The next packet: 1, 0 at the clip's end, -1 with the reason on a bad or short sample.
  int Read(Packet* packet, std::string* why);
  void Close();

  int width() const;
  int height() const;
  bool has_audio() const;
  // The clip's duration in milliseconds (0 when unknown).
  int64_t duration_ms() const;

 private:
  struct State;
  std::unique_ptr<State> s_;
};

// The MP4 samples of a video track as Annex B: every length (length_size bytes, big-endian)
// replaced by a start code. 0, or -1 when the lengths do not add up to the sample's size.
int SampleToAnnexB(const uint8_t* data, size_t size, int length_size, std::vector<uint8_t>* out);

}  // namespace oru_mp4_demux
