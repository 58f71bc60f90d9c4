// The generated camera media (mediaprobe.h) as the simulated camera reads it, and clips the
// hub's own clip writer makes of it, for tests of the hub's media code.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "camsim/camsimmedia.h"
#include "media/mp4mux.h"

namespace testsupport {

// Audio bytes (8 kHz A-law) that go with one video frame at 15 frames a second.
constexpr size_t kAlawPerFrame = 8000 / 15;

struct CameraMedia {
  std::shared_ptr<const camsim::VideoClip> video;  // 60 frames, a key frame every 15
  std::shared_ptr<const camsim::AudioClip> audio;
  // Loads both files; false with *error set.
  bool Load(std::string* error);
};

// A new clip as the hub records events: H.264 1920x1080 at 15 frames a second, 8 kHz A-law.
// 0, or the writer's code.
int CreateClip(const std::string& path, ORU_MP4_HANDLE* handle);

// Frames from..to-1 of the media (wrapping), each followed by its audio, as a camera sends them;
// the audio also appended to *audio when given. 0, or the code of the first write that failed.
int WriteFrames(ORU_MP4_HANDLE h, const CameraMedia& media, size_t from, size_t to,
                std::vector<uint8_t>* audio = nullptr);

}  // namespace testsupport
