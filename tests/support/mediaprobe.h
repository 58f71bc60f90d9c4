// Test media and what Debian's ffprobe says about a file: the generated camera clip, and the
// streams, frame counts and box layout of clips and snapshots the hub writes.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace testsupport {

// A file of scripts/make-test-media.sh (made once into the build folder):
// "camera-1080p15.h264" (4 s, a key frame every 15 frames) or "camera-8k.alaw". "" on failure.
std::string TestMedia(const std::string& name);

struct ProbedStream {
  std::string codec;  // "h264", "pcm_alaw", "mjpeg"
  std::string tag;    // "avc1", "alaw"
  int width = 0;
  int height = 0;
  std::string sample_aspect_ratio;  // "1:1"; "0:1" or "" when unspecified
  int sample_rate = 0;
  int64_t packets = 0;   // packets read (video: frames)
  int64_t duration = 0;  // in the stream's time base units (audio: samples)
};

struct Probe {
  bool ok = false;  // ffprobe read the file without an error
  std::string errors;
  std::vector<ProbedStream> streams;
  const ProbedStream* Find(const std::string& codec) const;
};

// Runs ffprobe (counting packets) on the file.
Probe ProbeFile(const std::string& path);

// True when ffmpeg decodes every packet of the file without an error.
bool DecodesCleanly(const std::string& path, std::string* errors = nullptr);

// The four-character types of the file's top-level boxes, in order ("ftyp", "moov", "mdat").
std::vector<std::string> TopLevelBoxes(const std::string& path);

}  // namespace testsupport
