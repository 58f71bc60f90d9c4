// What the viewer does with a frame the hub sends: read its 28-byte frame information and turn
// the encrypted payload back into the plain H.264 frame or G.711 A-law audio with the session's
// stream key. Every length is checked against the bytes received.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "viewer/p2pviewer.h"

namespace viewer {

constexpr size_t kFrameInfoBytes = 28;
constexpr uint16_t kCodecH264 = 0x004E;

// The fields of the frame information the viewer uses (little-endian on the wire).
struct FrameInfo {
  uint16_t codec = 0;         // bytes 0..1: 0x4E H.264, 1 audio
  bool key_frame = false;     // byte 2
  uint8_t viewers = 0;        // byte 4: viewers of the camera when the frame went out
  uint16_t frame_index = 0;   // bytes 6..7
  uint16_t width = 0;         // bytes 8..9
  uint16_t height = 0;        // bytes 10..11
  uint32_t milliseconds = 0;  // bytes 12..15
  bool encrypted = false;     // byte 18
  uint32_t seconds = 0;       // bytes 20..23
};

// 0, or -1 when the information is shorter than kFrameInfoBytes.
int ParseFrameInfo(const std::vector<uint8_t>& info, FrameInfo* out);

// The plain payload of a frame into *out: copied when the frame information says it went out
// clear, else decrypted with the 32-byte key (video or audio layout by the frame's kind). 0, or
// -1 for a missing or short frame information, no key for an encrypted frame, or a payload whose
// layout does not add up.
int DecryptFrame(const p2p::ViewerFrame& frame, const unsigned char* key,
                 std::vector<uint8_t>* out);

}  // namespace viewer
