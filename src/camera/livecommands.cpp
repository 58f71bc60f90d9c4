// The live channel's commands to its camera and the camera's answers: sleep and streaming,
// settings, firmware upgrade, talkback audio, properties, PIR and night-mode acknowledgements,
// battery events, the login and the replay of queued commands, and the alarm schedule kept in
// the configuration. The connection, routing, sends and viewers are in livechannel.cpp.
#include <cstdio>
#include <cstring>
#include <string>

#include "base/log.h"
#include "camera/cloudrequest.h"
#include "camera/command.h"
#include "camera/livechannel.h"
#include "core/utils.h"
#include "p2p/client.h"
#include "platform/uci.h"

namespace channel {
namespace {

std::string Key(const std::string& mac, const char* option) {
  return "p2p." + mac + "." + option;
}

void SetTextConfig(const std::string& mac, const char* option, int value) {
  const std::string text = std::to_string(value);
  zcfg_uci_set(Key(mac, option).c_str(), text.c_str());
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Commands

int LiveChannel::ActionSleep() {
  return SendCommand(command::kTypeControl, command::kSubSleep, nullptr, 0);
}

int LiveChannel::StartAVStream() {
  EventSink* events = event_sink();
  if (events != nullptr && events->IsRecording()) {
    events->StopEvent(events->EventStartTime(), 1);
  }
  const uint32_t now = utils::GetTimestamp();
  const double offset = utils::GetTimeOffset();
  TLOG(LOG_DEBUG) << "StartAVStream timestamp: " << now << ", offset: " << offset;
  uint8_t payload[command::kStartStreamSize];
  command::EncodeStartStream(static_cast<uint32_t>(static_cast<int64_t>(now - offset)), payload);
  stream_wait_.store(1);
  return SendCommand(command::kTypeControl, command::kSubStartStream, payload, sizeof(payload));
}

int LiveChannel::StopAVStream() {
  stream_wait_.store(1);
  return SendCommand(command::kTypeControl, command::kSubStopStream, nullptr, 0);
}

int LiveChannel::UpgradeCamera(const std::string& url) {
  uint8_t payload[command::kUpgradeSize];
  command::EncodeUpgrade(url, payload);
  return SendCommand(command::kTypeControl, command::kSubUpgrade, payload, sizeof(payload));
}

int LiveChannel::SetCameraPir(int pir) {
  if (pir < 0 || pir > 255) {
    TLOG(LOG_DEBUG) << "Invalid pir setting " << pir << " for camera " << mac();
    return -1;
  }
  pending_pir_.store(pir);
  const uint8_t payload[1] = {static_cast<uint8_t>(pir)};
  return SendCommand(command::kTypePir, command::kSubPirMain, payload, sizeof(payload));
}

int LiveChannel::SetCameraPirNew(int pir) {
  if (pir < 0 || pir > 255) {
    TLOG(LOG_DEBUG) << "Invalid pir setting " << pir << " for camera " << mac();
    return -1;
  }
  int interval = camera_->NewAlarmInterval();
  if (interval > 60) interval = 60;
  if (interval < 0) interval = 0;
  pending_pir_.store(pir);
  const uint8_t payload[2] = {static_cast<uint8_t>(pir), static_cast<uint8_t>(interval + 10)};
  return SendCommand(command::kTypePir, command::kSubPirNew, payload, sizeof(payload));
}

int LiveChannel::GetCameraInfo() {
  return SendCommand(command::kTypeProp, 0, nullptr, 0);
}

int LiveChannel::GetCameraProp(uint32_t id) {
  uint8_t src[6];
  command::AckIdAddress(id, src);
  return SendCommand(command::kTypeProp, 0, nullptr, 0, src);
}

int LiveChannel::SetVideoQuality(int quality) {
  pending_quality_.store(quality);
  uint8_t payload[command::kVideoQualitySize];
  command::EncodeVideoQuality(quality, payload);
  return SendCommand(command::kTypeSetting, command::kSubVideoQuality, payload, sizeof(payload));
}

int LiveChannel::ResetCamera() {
  return SendCommand(command::kTypeSetting, command::kSubReset, nullptr, 0);
}

int LiveChannel::SetCameraNightMode(uint32_t id, int mode) {
  if (mode < 0 || mode > 255) {
    TLOG(LOG_DEBUG) << "Invalid night mode " << mode << " for camera " << mac();
    return -1;
  }
  pending_night_.store(mode);
  uint8_t src[6];
  command::AckIdAddress(id, src);
  const uint8_t payload[1] = {static_cast<uint8_t>(mode)};
  return SendCommand(command::kTypeSetting, command::kSubNight, payload, sizeof(payload), src);
}

int LiveChannel::SendAudio(const uint8_t* data, size_t length) {
  if (length > kMaxCommandPayload) {
    TLOG(LOG_DEBUG) << "Talk-back audio to camera " << mac() << " too long: " << length;
    return -1;
  }
  if (!CanSend(GetConnection())) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " tcp can't connected";
    return -1;
  }
  uint8_t frame[kCommandBufferSize];
  const int count = command::BuildCommand(command::Command(mac(), hub_mac_), frame, sizeof(frame),
                                          command::kTypeTalk, 0x01, data, length);
  if (count < 0) return -1;
  return SendCommand(frame, static_cast<size_t>(count));
}

// ---------------------------------------------------------------------------------------------
// Camera answers

void LiveChannel::StoreInfo(const _net_cmd_get_info_type& info) {
  camera_->ApplyInfo(info);
  const camera::Status s = camera_->GetStatus();
  TLOG(LOG_DEBUG) << "Camera " << mac() << " prop battery: " << s.battery << ", wifi: " << s.wifi
                  << ", pir: " << s.pir << ", power: " << s.power << ", night: " << s.night
                  << ", hardver: " << s.hard_ver << ", version: " << s.soft_ver;
  // Measurements go to the configuration; the settings there stay the cloud's.
  utils::SetIntConfig(Key(mac(), "battery").c_str(), s.battery);
  utils::SetIntConfig(Key(mac(), "battery_status").c_str(), s.battery_status);
  utils::SetIntConfig(Key(mac(), "wifi").c_str(), s.wifi);
  SetTextConfig(mac(), "hardver", s.hard_ver);
  SetTextConfig(mac(), "version", s.soft_ver);
}

void LiveChannel::AnswerCloud(uint32_t id, uint8_t type, const uint8_t* ack, int result) {
  cloudrequest::Answer answer;
  answer.mac = mac();
  answer.type = type;
  if (ack != nullptr) {
    answer.acked_type = ack[0];
    answer.acked_subtype = ack[1];
  }
  answer.result = result;
  answer.status = camera_->GetStatus();
  cloudrequest::CloudRequests().Complete(id, answer);
}

void LiveChannel::HandleAckProp(const uint8_t* payload, size_t n) {
  _net_cmd_get_info_type info;
  if (_net_cmd_get_info_type::Decode(payload, n, &info) < 0) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " prop len is error: " << n;
    return;
  }
  StoreInfo(info);
}

void LiveChannel::HandleAckProp(const uint8_t* payload, size_t n, uint32_t id) {
  _net_cmd_get_info_type info;
  if (_net_cmd_get_info_type::Decode(payload, n, &info) < 0) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " prop len is error: " << n << ", ACK ID: " << id;
    return;
  }
  StoreInfo(info);
  AnswerCloud(id, command::kTypeProp, nullptr, 1);
}

namespace {

// Takes an acknowledged PIR setting into the record and the configuration.
void CommitPir(camera::Camera& camera, int pir, const char* form, int result) {
  if (result != 1) {
    TLOG(LOG_DEBUG) << "Set camera " << camera.mac() << " pir " << form << " failed";
    return;
  }
  camera.SetPir(pir);
  utils::SetIntConfig(Key(camera.mac(), "pir").c_str(), pir);
  TLOG(LOG_DEBUG) << "Set camera " << camera.mac() << " pir " << form << " to " << pir
                  << " success";
}

}  // namespace

void LiveChannel::HandleAckPir(const _net_cmd_type* frame, uint32_t id) {
  const uint8_t* ack = frame->Payload();
  CommitPir(*camera_, pending_pir_.load(), "main", ack[2]);
  AnswerCloud(id, command::kTypeAck, ack, ack[2]);
}

void LiveChannel::HandleAckPirMain(const _net_cmd_type* frame) {
  CommitPir(*camera_, pending_pir_.load(), "main", frame->Payload()[2]);
}

void LiveChannel::HandleAckPirMain1(const _net_cmd_type* frame) {
  CommitPir(*camera_, pending_pir_.load(), "main1", frame->Payload()[2]);
}

void LiveChannel::HandleAckPirNew(const _net_cmd_type* frame) {
  CommitPir(*camera_, pending_pir_.load(), "new", frame->Payload()[2]);
}

void LiveChannel::HandleAckNight(const _net_cmd_type* frame, uint32_t id) {
  const uint8_t* ack = frame->Payload();
  const int night = pending_night_.load();
  if (ack[2] == 1) {
    camera_->SetNight(night);
    utils::SetIntConfig(Key(mac(), "night").c_str(), night);
    TLOG(LOG_DEBUG) << "Set camera " << mac() << " night mode to " << night << " success";
  } else {
    TLOG(LOG_DEBUG) << "Set camera " << mac() << " night mode failed";
  }
  AnswerCloud(id, command::kTypeAck, ack, ack[2]);
}

void LiveChannel::HandleBatteryEvent(const uint8_t* payload) {
  _net_cmd_get_info_type info;
  _net_cmd_get_info_type::Decode(payload, _net_cmd_get_info_type::kWireSize, &info);
  camera_->ApplyBattery(info);
  const camera::Status s = camera_->GetStatus();
  TLOG(LOG_DEBUG) << "Camera " << mac() << " battery event, vbat: " << s.vbat
                  << ", battery: " << s.battery << ", rssi: " << s.rssi << ", wifi: " << s.wifi;
  utils::SetIntConfig(Key(mac(), "battery").c_str(), s.battery);
  utils::SetIntConfig(Key(mac(), "battery_status").c_str(), s.battery_status);
  utils::SetIntConfig(Key(mac(), "wifi").c_str(), s.wifi);
}

void LiveChannel::RecvLoginPackage(const uint8_t* payload, size_t n) {
  _net_cmd_login_type login;
  if (_net_cmd_login_type::Decode(payload, n, &login) < 0) {
    TLOG(LOG_DEBUG) << "Camera " << mac() << " login len is error: " << n;
    return;
  }
  const int hard_ver = command::VersionNumber(login.hard_ver);
  const int soft_ver = command::VersionNumber(login.soft_ver);
  TLOG(LOG_DEBUG) << "Camera " << mac() << " login hardver: " << hard_ver
                  << ", version: " << soft_ver;
  const camera::Status before = camera_->GetStatus();
  if (before.hard_ver != hard_ver) SetTextConfig(mac(), "hardver", hard_ver);
  if (before.soft_ver != soft_ver) SetTextConfig(mac(), "version", soft_ver);
  camera_->SetState(camera::kStateLoggedIn);
  camera_->SetVersions(hard_ver, soft_ver);
  wake_replacements_.store(0);
  ReplayCommands();
}

void LiveChannel::ReplayCommands() {
  std::vector<std::unique_ptr<uint8_t[]>> frames;
  {
    std::lock_guard<std::mutex> lock(queue_mutex_);
    frames.swap(queue_);
  }
  if (frames.empty()) {
    TLOG(LOG_DEBUG) << "command vector is empty";
    return;
  }
  TLOG(LOG_DEBUG) << "command vector have " << frames.size() << " command";
  for (const auto& frame : frames) {
    const size_t count = command::AsFrame(frame.get())->FrameSize();
    const int res = SendCommand(frame.get(), count);
    if (res < 0) {
      TLOG(LOG_WARNING) << "Send vector command to camera mac: " << mac()
                        << " failed, res = " << res;
    }
  }
}

void LiveChannel::CheckVideoEnough() {
  EventSink* events = event_sink();
  if (events == nullptr) return;
  const int seconds = camera_->RecordLength();
  const uint32_t limit = seconds > 0 ? static_cast<uint32_t>(seconds) * 15 : 150;
  if (events->LastFrameIndex() < limit) return;
  TLOG(LOG_DEBUG) << "Pir frame count > " << limit << " mac: " << mac();
  events->StopEvent(events->EventStartTime(), 0);
  if (!HasLiveClient()) {
    StopAVStream();
    ActionSleep();
  }
}

int LiveChannel::GetLocalSchedule(Schedule* schedule) const {
  schedule->start_hour = utils::GetIntConfig(Key(mac(), "starthour").c_str());
  schedule->start_min = utils::GetIntConfig(Key(mac(), "startmin").c_str());
  schedule->stop_hour = utils::GetIntConfig(Key(mac(), "stophour").c_str());
  schedule->stop_min = utils::GetIntConfig(Key(mac(), "stopmin").c_str());
  schedule->push_alarm = utils::GetIntConfig(Key(mac(), "pushalarm").c_str());
  return 0;
}

}  // namespace channel
