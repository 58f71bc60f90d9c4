// The camera's media as the hub handles it: a whole H.264 frame laid over a reassembly buffer,
// and one G.711 A-law audio packet. Neither allocates; both are made on the stack for every frame.
//
// Reassembly buffer layout (little-endian): bytes 0-3 frame length, 4-7 header word 1, 8-11
// header word 2, 12-15 frame index, then the frame's bytes.
#pragma once

#include <cstddef>
#include <cstdint>

#include "camera/frame.h"

namespace video {

constexpr size_t kFrameHeaderBytes = 16;

// NAL unit types that make a frame count as a key frame: IDR slice, SPS, PPS, and 2 (a slice
// data partition, counted as a key frame on purpose).
bool IsKeyNalType(uint8_t nal_type);

class H264Frame {
 public:
  // Over a buffer holding the 16-byte header followed by the frame's bytes. The buffer is
  // borrowed and must outlive the object.
  explicit H264Frame(const uint8_t* buffer);

  const uint8_t* data() const { return data_; }
  uint32_t length() const { return length_; }
  uint32_t word1() const { return word1_; }
  uint32_t word2() const { return word2_; }
  uint32_t frame_index() const { return frame_index_; }

  // 1 for a key frame, else 0: the NAL type of the byte after the 4-byte start code at the front
  // of the frame (byte 4). A frame shorter than 5 bytes is no key frame.
  int GetType() const;

 private:
  const uint8_t* data_;
  uint32_t length_;
  uint32_t word1_;
  uint32_t word2_;
  uint32_t frame_index_;
};

}  // namespace video

namespace audio {

// One audio packet of a camera (0x8A/0x01): 8 bytes the hub does not read, then the A-law
// bytes.
struct G711AFrame {
  static constexpr size_t kCapacity = 1024;
  uint8_t data[kCapacity];
  int32_t length = 0;
  uint32_t time_ms = 0;  // receive time: seconds x 1000 + microseconds / 1000, wrapping

  // Takes the packet's A-law bytes and stamps the receive time. 0, or -1 (logged "audio packet
  // len is error: " with the payload length) when the payload is shorter than its 8-byte prefix
  // or carries more than kCapacity audio bytes.
  int Fill(const _net_cmd_type* frame);
};

}  // namespace audio
