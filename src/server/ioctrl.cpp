#include "server/ioctrl.h"

#include <chrono>
#include <cstring>
#include <memory>
#include <stdexcept>
#include <string>
#include <system_error>
#include <thread>

#include "base/log.h"
#include "camera/frame.h"
#include "camera/livechannel.h"
#include "core/utils.h"
#include "core/zelojson.h"
#include "media/filetransfer.h"
#include "media/orump4playlist.h"
#include "media/playback.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "server/mediaserver.h"

namespace server {
namespace {

constexpr size_t kMacField = 32;  // "mac": at most 31 characters
constexpr unsigned kTalkStartTimeoutS = 10;
constexpr int kTalkBufferBytes = 2048;
constexpr int kTalkInfoBytes = 28;
constexpr unsigned kTalkDropEvery = 10;
constexpr auto kTalkIdle = std::chrono::milliseconds(40);

// The camera's MAC of a message, upper case. False (logged) when it is missing or too long.
bool ReadMac(const char* payload, std::string* mac) {
  char text[kMacField] = {0};
  if (json_get_string_value(payload, "mac", text, sizeof(text)) != 0) {
    TLOG(LOG_DEBUG) << "Error param: mac is needed";
    return false;
  }
  *mac = utils::ConvertToUppercase(std::string(text));
  return true;
}

bool ReadQuality(const char* payload, int* quality) {
  int value = 0;
  if (json_get_int_value(payload, "videoquality", &value) != 0) {
    TLOG(LOG_DEBUG) << "Error param: videoquality is needed";
    return false;
  }
  *quality = value;
  return true;
}

}  // namespace

void MediaServer::Handle_IOCTRL_Cmd(int sid, int avIndex, char* payload, int type) {
  client::Client* client = GetClient(sid);
  if (client == nullptr) return;
  switch (static_cast<uint32_t>(type)) {
    case IOTYPE_USER_IPCAM_START:
      TLOG(LOG_DEBUG) << "this is IOTYPE_USER_IPCAM_START live_start......";
      IpCameraLiveStart(*this, sid, avIndex, payload, client);
      break;
    case IOTYPE_USER_IPCAM_SEND_META_START:
      TLOG(LOG_DEBUG) << "This is IOTYPE_USER_IPCAM_SEND_META_START start play list";
      playlist_start_play(sid, avIndex, payload);
      break;
    case IOTYPE_USER_IPCAM_STOP:
      TLOG(LOG_DEBUG) << "this is IOTYPE_USER_IPCAM_STOP live_stop......";
      IpCameraLiveStop(*this, sid, avIndex, payload, client);
      break;
    case IOTYPE_USER_IPCAM_AUDIOSTART:
      TLOG(LOG_DEBUG) << "This is audio start.......";
      break;
    case IOTYPE_USER_IPCAM_AUDIOSTOP:
      TLOG(LOG_DEBUG) << "This is audio stop.......";
      break;
    case IOTYPE_USER_IPCAM_SETSTREAMCTRL_REQ:
      TLOG(LOG_DEBUG) << "This is IOTYPE_USER_IPCAM_SETSTREAMCTRL_REQ";
      IpCameraVideoQualityCtrl(*this, payload);
      break;
    case IOTYPE_USER_IPCAM_SPEAKERSTART:
      TLOG(LOG_DEBUG) << "This is IOTYPE_USER_IPCAM_SPEAKERSTART";
      IpCameraRecvAudio(*this, sid, payload, client);
      break;
    case IOTYPE_USER_IPCAM_SPEAKERSTOP:
      TLOG(LOG_DEBUG) << "This is IOTYPE_USER_IPCAM_SPEAKERSTOP";
      IpCameraStopAudio(payload, client);
      break;
    case IOTYPE_USER_IPCAM_RECORD_SEEKTIME:
      TLOG(LOG_DEBUG) << "This is IOTYPE_USER_IPCAM_RECORD_SEEKTIME";
      HandlePlayback(sid, avIndex, payload);
      break;
    case IOTYPE_USER_IPCAM_RECORD_DOWNLOAD:
      TLOG(LOG_DEBUG) << "This is IOTYPE_USER_IPCAM_RECORD_DOWNLOAD";
      filetransfer_request(sid, avIndex, payload);
      break;
    default:
      break;
  }
}

int IpCameraLiveStart(MediaServer& server, int sid, int /*avIndex*/, const char* payload,
                      client::Client* client) {
  TLOG(LOG_DEBUG) << "Receive a msg: " << payload;
  std::string mac;
  if (!ReadMac(payload, &mac)) return -1;
  int quality = kDefaultVideoQuality;
  ReadQuality(payload, &quality);
  TLOG(LOG_DEBUG) << "live start cam mac: " << mac << ", videoquality: " << quality;
  client->SetCamera(mac);
  // Live view takes the viewer's AV channel over from a stored clip.
  if (playback_stop(sid, playback::StopReason::kStopped) == 0) {
    TLOG(LOG_DEBUG) << "Playback of session " << sid << " ends for live view";
  }

  // A viewer watches one camera at a time.
  for (const std::string& other : server.LiveChannelMacs()) {
    if (other == mac) continue;
    const std::shared_ptr<channel::LiveChannel> ch = server.FindLiveChannel(other);
    if (ch != nullptr && ch->IsClientExist(client)) ch->UnRegisteVideoForLiveClient(client);
  }
  try {
    const std::shared_ptr<channel::LiveChannel> ch = server.GetLiveChannel(mac);
    ch->RegisteVideoForLiveClient(client);
    ch->RegisteAudioForLiveClient(client);
    ch->StartAVStream();
    ch->SetVideoQuality(quality);
  } catch (const std::out_of_range& e) {
    TLOG(LOG_DEBUG) << "Msg Out of Range error: " << e.what();
    return -1;
  }
  return 0;
}

int IpCameraLiveStop(MediaServer& server, int sid, int avIndex, const char* payload,
                     client::Client* client) {
  TLOG(LOG_DEBUG) << "Receive a msg: " << payload;
  std::string mac;
  if (!ReadMac(payload, &mac)) return -1;
  TLOG(LOG_DEBUG) << "target live stop camera mac: " << mac;
  if (playback_stop(sid, playback::StopReason::kStopped) == 0) {
    TLOG(LOG_DEBUG) << "Playback of session " << sid << " ends with live view";
  }
  try {
    const std::shared_ptr<channel::LiveChannel> ch = server.GetLiveChannel(mac);
    ch->UnRegisteVideoForLiveClient(client);
    std::lock_guard<std::mutex> send(client->sendLock());
    avServResetBuffer(avIndex, RESET_ALL, 0);
  } catch (const std::out_of_range& e) {
    TLOG(LOG_DEBUG) << "Msg Out of Range error: " << e.what();
    return -1;
  }
  return 0;
}

int IpCameraVideoQualityCtrl(MediaServer& server, const char* payload) {
  TLOG(LOG_DEBUG) << "Receive set video quailtty msg: " << payload;
  std::string mac;
  if (!ReadMac(payload, &mac)) return -1;
  int quality = 0;
  if (!ReadQuality(payload, &quality)) return -1;
  TLOG(LOG_DEBUG) << "set mac: " << mac << ", videoquality: " << quality;
  try {
    server.GetLiveChannel(mac)->SetVideoQuality(quality);
  } catch (const std::out_of_range& e) {
    TLOG(LOG_DEBUG) << "Msg Out of Range error: " << e.what();
    return -1;
  }
  return 0;
}

int IpCameraRecvAudio(MediaServer& server, int sid, const char* payload, client::Client* client) {
  const int32_t channel =
      static_cast<int32_t>(command::GetLe32(reinterpret_cast<const uint8_t*>(payload)));
  TLOG(LOG_DEBUG) << "channel_id: " << channel;
  client->SetTalkChannel(channel);
  client->SetTalking(1);
  try {
    std::thread(&ReceiveAudio, sid, client, &server).detach();
  } catch (const std::system_error& e) {
    TLOG(LOG_DEBUG) << "Start talkback thread failed: " << e.what();
    return -1;
  }
  return 0;
}

int IpCameraStopAudio(const char* payload, client::Client* client) {
  TLOG(LOG_DEBUG) << "Receive a msg: " << payload;
  std::string mac;
  if (!ReadMac(payload, &mac)) return -1;
  client->SetTalking(0);
  return 0;
}

void ReceiveAudio(int sid, client::Client* client, MediaServer* server) {
  TLOG(LOG_DEBUG) << "ReceiveAudio sessionID: " << sid;
  const int channel = client->talkChannel();
  unsigned int serv_type = 0;
  int resend = 0;
  const int index = avClientStart2(sid, nullptr, nullptr, kTalkStartTimeoutS, &serv_type,
                                   static_cast<unsigned char>(channel & 0xFF), &resend);
  if (index < 0) {
    TLOG(LOG_DEBUG) << "[thread_ReceiveAudio] start failed sid: " << sid
                    << ", speakerCh: " << channel << ", code: " << index;
    return;
  }
  TLOG(LOG_DEBUG) << "[thread_ReceiveAudio] start ok sid: " << sid << ", idx: " << index
                  << ", speakerCh: " << channel;
  avClientCleanAudioBuf(index);

  char buffer[kTalkBufferBytes];
  char info[kTalkInfoBytes];
  while (client->talking() != 0) {
    std::memset(buffer, 0, sizeof(buffer));
    unsigned int frame_no = 0;
    const int ret = avRecvAudioData(index, buffer, sizeof(buffer), info, sizeof(info), &frame_no);
    if (ret == AV_ER_DATA_NOREADY) {
      std::this_thread::sleep_for(kTalkIdle);
      continue;
    }
    if (ret == AV_ER_LOSED_THIS_FRAME) {
      TLOG(LOG_DEBUG) << "Audio LOST ";
      continue;
    }
    if (ret < 0) {
      switch (ret) {
        case AV_ER_SESSION_CLOSE_BY_REMOTE:
          TLOG(LOG_DEBUG) << "avRecvAudioData AV_ER_SESSION_CLOSE_BY_REMOTE";
          break;
        case AV_ER_IOTC_SESSION_CLOSED:
          TLOG(LOG_DEBUG) << "avRecvAudioData AV_ER_IOTC_SESSION_CLOSED";
          break;
        case AV_ER_REMOTE_TIMEOUT_DISCONNECT:
          TLOG(LOG_DEBUG) << "avRecvAudioData AV_ER_REMOTE_TIMEOUT_DISCONNECT";
          break;
        case IOTC_ER_INVALID_SID:
          TLOG(LOG_DEBUG) << "avRecvAudioData Session " << sid << " can't be used anymore";
          break;
        default:
          TLOG(LOG_DEBUG) << "Other error: " << ret;
          break;
      }
      break;
    }
    // Every tenth talkback frame is left out on purpose.
    if (frame_no % kTalkDropEvery == 0) {
      std::this_thread::sleep_for(kTalkIdle);
      continue;
    }
    try {
      server->GetLiveChannel(client->camera())
          ->SendAudio(reinterpret_cast<const uint8_t*>(buffer), static_cast<uint16_t>(ret));
    } catch (const std::out_of_range& e) {
      TLOG(LOG_DEBUG) << "Msg Out of Range error: " << e.what();
    }
  }
  TLOG(LOG_DEBUG) << "[thread_ReceiveAudio] exit sid: " << sid << ", avindex: " << index;
  avClientStop(index);
}

}  // namespace server
