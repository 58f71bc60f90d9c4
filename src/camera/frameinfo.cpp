#include "camera/frameinfo.h"

#include <cstring>

#include "camera/frame.h"

namespace frameinfo {

void SetVideoFrameInfo(_FRAMEINFO* info, const VideoFields& fields) {
  std::memset(info, 0, sizeof(*info));
  command::PutLe16(info->codec_id, kCodecH264);
  info->flags = fields.key ? 1 : 0;
  info->onlineNum = fields.viewers;
  command::PutLe16(info->frame_index, static_cast<uint16_t>(fields.frame_index));
  command::PutLe16(info->width, fields.width);
  command::PutLe16(info->height, fields.height);
  command::PutLe32(info->timestamp_ms, fields.milliseconds);
  info->flag2 = 0;
  info->flag3 = 1;
  command::PutLe32(info->timestamp, fields.seconds);
}

void SetAudioFrameInfo(_FRAMEINFO* info, uint32_t receive_ms) {
  std::memset(info, 0, sizeof(*info));
  command::PutLe16(info->codec_id, kCodecAudio);
  command::PutLe32(info->timestamp_ms, receive_ms);
}

}  // namespace frameinfo
