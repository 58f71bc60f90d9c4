#include "support/cameraclip.h"

#include "support/mediaprobe.h"

namespace testsupport {

bool CameraMedia::Load(std::string* error) {
  video = camsim::VideoClip::Load(TestMedia("camera-1080p15.h264"), error);
  if (video == nullptr) return false;
  audio = camsim::AudioClip::Load(TestMedia("camera-8k.alaw"), error);
  return audio != nullptr;
}

int CreateClip(const std::string& path, ORU_MP4_HANDLE* handle) {
  return orump4_create_file(path.c_str(), 0, 0, 1, 15, 1920, 1080, 1, 8000, handle);
}

int WriteFrames(ORU_MP4_HANDLE h, const CameraMedia& media, size_t from, size_t to,
                std::vector<uint8_t>* audio) {
  for (size_t i = from; i < to; i++) {
    const camsim::VideoFrame& f = media.video->at(i);
    int rc = orump4_write_video_frame(h, f.data.data(), static_cast<uint32_t>(f.data.size()), 0);
    if (rc != 0) return rc;
    uint8_t alaw[kAlawPerFrame];
    media.audio->Copy(i * kAlawPerFrame, alaw, sizeof(alaw));
    if (audio != nullptr) audio->insert(audio->end(), alaw, alaw + sizeof(alaw));
    rc = orump4_write_audio_frame(h, alaw, sizeof(alaw));
    if (rc != 0) return rc;
  }
  return 0;
}

}  // namespace testsupport
