// `_FRAMEINFO`: the 28-byte frame information the hub gives the transport with every live frame,
// and which the viewer reads back. All integers little-endian:
//
//   off size  video                                audio
//    0   2    codec 0x004E (H.264)                 codec 1
//    2   1    key-frame flag                       0
//    3   1    0                                    0
//    4   1    viewers in the camera's list         0
//    5   1    0                                    0
//    6   2    low 16 bits of the frame index       0
//    8   2    video width                          0
//   10   2    video height                         0
//   12   4    milliseconds within the second       receive time in ms (wrapping)
//   16   1    0                                    0
//   17   1    1                                    0
//   18   1    1 when the payload is encrypted      same
//   19   1    0                                    0
//   20   4    time in seconds                      0
//   24   4    0                                    0
#pragma once

#include <cstddef>
#include <cstdint>

struct _FRAMEINFO {
  uint8_t codec_id[2];
  uint8_t flags;  // key-frame flag
  uint8_t cam_index;
  uint8_t onlineNum;  // viewers of the camera
  uint8_t reserve1;
  uint8_t frame_index[2];
  uint8_t width[2];
  uint8_t height[2];
  uint8_t timestamp_ms[4];
  uint8_t flag2;
  uint8_t flag3;
  uint8_t encrypted;
  uint8_t reserve2;
  uint8_t timestamp[4];
  uint8_t reserve3[4];
};
static_assert(sizeof(_FRAMEINFO) == 28, "the frame information is 28 bytes");
static_assert(alignof(_FRAMEINFO) == 1, "the frame information has no padding");

namespace frameinfo {

constexpr size_t kBytes = sizeof(_FRAMEINFO);
constexpr uint16_t kCodecH264 = 0x004E;
constexpr uint16_t kCodecAudio = 1;

// What a video frame's information carries besides the encrypted flag.
struct VideoFields {
  bool key = false;
  uint8_t viewers = 0;
  uint32_t frame_index = 0;  // the low 16 bits are kept
  uint16_t width = 0;
  uint16_t height = 0;
  uint32_t milliseconds = 0;  // within the current second, 0..999
  uint32_t seconds = 0;
};

// The whole header of a video frame, encrypted flag 0.
void SetVideoFrameInfo(_FRAMEINFO* info, const VideoFields& fields);
// The whole header of an audio frame, encrypted flag 0.
void SetAudioFrameInfo(_FRAMEINFO* info, uint32_t receive_ms);
// Marks the payload as encrypted (1) or raw (0).
inline void SetEncrypted(_FRAMEINFO* info, bool encrypted) {
  info->encrypted = encrypted ? 1 : 0;
}

}  // namespace frameinfo
