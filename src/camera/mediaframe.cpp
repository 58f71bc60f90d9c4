#include "camera/mediaframe.h"

#include <cstring>

#include "base/log.h"
#include "core/utils.h"

namespace video {

bool IsKeyNalType(uint8_t nal_type) {
  return nal_type == 5 || nal_type == 7 || nal_type == 8 || nal_type == 2;
}

H264Frame::H264Frame(const uint8_t* buffer)
    : data_(buffer + kFrameHeaderBytes),
      length_(command::GetLe32(buffer)),
      word1_(command::GetLe32(buffer + 4)),
      word2_(command::GetLe32(buffer + 8)),
      frame_index_(command::GetLe32(buffer + 12)) {}

int H264Frame::GetType() const {
  if (length_ < 5) return 0;
  return IsKeyNalType(data_[4] & 0x1F) ? 1 : 0;
}

}  // namespace video

namespace audio {

int G711AFrame::Fill(const _net_cmd_type* frame) {
  const size_t n = frame->Length();
  if (n < command::kAudioPrefix || n - command::kAudioPrefix > kCapacity) {
    TLOG(LOG_DEBUG) << "audio packet len is error: " << n;
    return -1;
  }
  length = static_cast<int32_t>(n - command::kAudioPrefix);
  std::memcpy(data, frame->Payload() + command::kAudioPrefix, static_cast<size_t>(length));
  time_ms = static_cast<uint32_t>(utils::GetTimestampUS() / 1000);
  return 0;
}

}  // namespace audio
