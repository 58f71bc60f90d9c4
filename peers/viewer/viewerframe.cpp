#include "viewer/viewerframe.h"

#include "crypto/stream_decrypt.h"

namespace viewer {

namespace {

uint16_t U16(const std::vector<uint8_t>& b, size_t at) {
  return static_cast<uint16_t>(b[at] | (b[at + 1] << 8));
}

uint32_t U32(const std::vector<uint8_t>& b, size_t at) {
  return static_cast<uint32_t>(b[at]) | (static_cast<uint32_t>(b[at + 1]) << 8) |
         (static_cast<uint32_t>(b[at + 2]) << 16) | (static_cast<uint32_t>(b[at + 3]) << 24);
}

}  // namespace

int ParseFrameInfo(const std::vector<uint8_t>& info, FrameInfo* out) {
  if (info.size() < kFrameInfoBytes) return -1;
  out->codec = U16(info, 0);
  out->key_frame = info[2] != 0;
  out->viewers = info[4];
  out->frame_index = U16(info, 6);
  out->width = U16(info, 8);
  out->height = U16(info, 10);
  out->milliseconds = U32(info, 12);
  out->encrypted = info[18] != 0;
  out->seconds = U32(info, 20);
  return 0;
}

int DecryptFrame(const p2p::ViewerFrame& frame, const unsigned char* key,
                 std::vector<uint8_t>* out) {
  FrameInfo info;
  if (ParseFrameInfo(frame.info, &info) != 0) return -1;
  if (!info.encrypted) {
    *out = frame.data;
    return 0;
  }
  if (key == nullptr) return -1;
  // Decryption only removes the header, so the plain payload is never longer than the input.
  out->resize(frame.data.size());
  const int n = frame.video ? video_chacha20_decrypt(frame.data.data(), frame.data.size(), key,
                                                     out->data(), out->size())
                            : audio_chacha20_decrypt(frame.data.data(), frame.data.size(), key,
                                                     out->data(), out->size());
  if (n < 0) {
    out->clear();
    return -1;
  }
  out->resize(static_cast<size_t>(n));
  return 0;
}

}  // namespace viewer
