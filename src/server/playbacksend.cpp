#include "server/playbacksend.h"

#include <mutex>

#include "base/log.h"
#include "camera/channel.h"
#include "camera/frameinfo.h"
#include "camera/mediaframe.h"
#include "crypto/stream_encrypt.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "server/mediaserver.h"

namespace server {
namespace {

client::Client* ClientOf(int sid) {
  MediaServer* server = server_play.load();
  return server != nullptr ? server->GetClient(sid) : nullptr;
}

int Result(int ret) {
  if (ret >= 0) return playback::kSent;
  if (ret == AV_ER_EXCEED_MAX_SIZE) return playback::kBusy;
  return ret;
}

}  // namespace

int InitPlaybackSenders() {
  return playback_mgr_init(&PlaybackSendCommand, &PlaybackSendVideo, &PlaybackSendAudio);
}

int PlaybackSendCommand(int sid, uint32_t type, const uint8_t* data, size_t len) {
  client::Client* client = ClientOf(sid);
  if (client == nullptr) return AV_ER_INVALID_SID;
  const int av = client->avIndex();
  if (av < 0) return AV_ER_INVALID_SID;
  return Result(avSendIOCtrl(av, type, reinterpret_cast<const char*>(data), static_cast<int>(len)));
}

int PlaybackSendVideo(int sid, const playback::Frame& frame) {
  client::Client* client = ClientOf(sid);
  if (client == nullptr || frame.data == nullptr || frame.size == 0) return AV_ER_INVALID_ARG;
  if (frame.size > kVideoWorkCapacity) {
    TLOG(LOG_DEBUG) << "Playback frame of " << frame.size << " bytes is too large";
    return AV_ER_INVALID_ARG;
  }
  frameinfo::VideoFields fields;
  fields.key = frame.size >= 5 && video::IsKeyNalType(frame.data[4] & 0x1F);
  fields.viewers = 1;
  fields.frame_index = frame.index;
  fields.width = frame.width;
  fields.height = frame.height;
  fields.milliseconds = frame.milliseconds;
  fields.seconds = frame.seconds;
  _FRAMEINFO info;
  frameinfo::SetVideoFrameInfo(&info, fields);

  std::lock_guard<std::mutex> hold(encrypto_video.mutex);
  std::unique_lock<std::mutex> send(client->sendLock(), std::try_to_lock);
  if (!send.owns_lock()) return playback::kBusy;
  const int av = client->avIndex();
  if (av < 0) return AV_ER_INVALID_SID;
  const uint32_t len = static_cast<uint32_t>(frame.size);
  if (get_nalu_info(frame.data, len, &encrypto_video.nalu) != 0) {
    TLOG(LOG_DEBUG) << "playback: get nalu info before encrypto fail!";
  }
  return Result(channel::SendVideoLocked(frame.data, len, *client, av, &info));
}

int PlaybackSendAudio(int sid, const playback::Frame& frame) {
  client::Client* client = ClientOf(sid);
  if (client == nullptr || frame.data == nullptr || frame.size == 0) return AV_ER_INVALID_ARG;
  if (frame.size > kAudioWorkCapacity) return AV_ER_INVALID_ARG;
  _FRAMEINFO info;
  frameinfo::SetAudioFrameInfo(&info, frame.milliseconds);

  std::lock_guard<std::mutex> hold(encrypto_audio.mutex);
  std::unique_lock<std::mutex> send(client->sendLock(), std::try_to_lock);
  if (!send.owns_lock()) return playback::kBusy;
  const int av = client->avIndex();
  if (av < 0) return AV_ER_INVALID_SID;
  return Result(
      channel::SendAudioLocked(frame.data, static_cast<int>(frame.size), *client, av, &info));
}

}  // namespace server
