#include "camera/command.h"

#include <sys/socket.h>

#include <atomic>
#include <cstring>

#include "base/log.h"
#include "core/configuration.h"
#include "core/utils.h"

namespace command {
namespace {

std::atomic<uint16_t> g_seq{0};
std::atomic<uint16_t> g_cmd_tx_seq{0};

// Six bytes of a MAC text, or zeros (logged) when the text is not twelve hexadecimal digits.
void MacBytes(const std::string& mac, uint8_t out[6]) {
  if (utils::ConverToUint8(mac.c_str(), out) < 0) {
    TLOG(LOG_DEBUG) << "Invalid mac address text: " << mac;
    std::memset(out, 0, 6);
  }
}

}  // namespace

uint16_t NextSeq() {
  return g_seq.fetch_add(1);
}
uint16_t NextCmdTxSeq() {
  return g_cmd_tx_seq.fetch_add(1);
}

Command::Command(std::string camera_mac, std::string hub_mac)
    : camera_mac_(MacDigits(camera_mac)), hub_mac_(MacDigits(hub_mac)) {}

void Command::InitCommand(uint8_t* frame) const {
  uint8_t hub[6];
  MacBytes(hub_mac_, hub);
  InitCommand(frame, hub);
}

void Command::InitCommand(uint8_t* frame, const uint8_t src[6]) const {
  ClearHeader(frame);
  _net_cmd_type* h = AsFrame(frame);
  std::memcpy(h->src_addr, src, 6);
  MacBytes(camera_mac_, h->dst_addr);
}

int Command::DoneCommand(uint8_t* frame) const {
  return CloseFrame(frame);
}

int Command::CheckCommand(const uint8_t* buf, uint16_t count) const {
  return command::CheckCommand(buf, count);
}

int Command::InitAuthCommand(const _net_cmd_type* request, uint8_t* reply) {
  ClearHeader(reply);
  _net_cmd_type* h = AsFrame(reply);
  h->SetTimestamp(utils::GetTimestamp());
  h->mark1 = 1;
  h->mark2 = 1;
  std::memset(h->src_addr, 0xFF, 6);
  if (request == nullptr) {
    h->SetSeq(NextCmdTxSeq());
  } else {
    std::memcpy(h->dst_addr, request->src_addr, 6);
    h->SetSeq(request->Seq());
  }
  return 0;
}

int BuildCommand(const Command& cmd, uint8_t* out, size_t cap, uint8_t type, uint8_t subtype,
                 const uint8_t* payload, size_t n, const uint8_t* src) {
  if (n > 0xFFFF || cap < n + kFrameOverhead) {
    TLOG(LOG_DEBUG) << "Command payload too long: " << n;
    return -1;
  }
  if (src != nullptr) {
    cmd.InitCommand(out, src);
  } else {
    cmd.InitCommand(out);
  }
  _net_cmd_type* h = AsFrame(out);
  h->mark1 = 1;
  h->mark2 = 1;
  h->SetSeq(NextSeq());
  h->SetTimestamp(utils::GetTimestamp());
  h->SetLength(static_cast<uint16_t>(n));
  h->type = type;
  h->subtype = subtype;
  if (n > 0) std::memmove(h->Payload(), payload, n);
  return cmd.DoneCommand(out);
}

int BuildWakeFrame(const Command& cmd, uint8_t out[kWakeFrameSize]) {
  cmd.InitCommand(out);
  _net_cmd_type* h = AsFrame(out);
  h->mark1 = 1;
  h->mark2 = 1;
  h->type = kTypeWake;
  h->subtype = 0;
  return cmd.DoneCommand(out);
}

void InitCommandNew(const std::string& camera_mac, uint8_t* frame) {
  const std::string hub_mac = MacDigits(Configuration::getInstance().GetMac());
  ClearHeader(frame);
  _net_cmd_type* h = AsFrame(frame);
  MacBytes(hub_mac, h->src_addr);
  MacBytes(MacDigits(camera_mac), h->dst_addr);
  TLOG(LOG_DEBUG) << "c_cam_mac: " << camera_mac << ", c_hub_mac: " << hub_mac;
}

int DoneCommandNew(uint8_t* frame) {
  return CloseFrame(frame);
}

}  // namespace command

int RestoreCamera(int sockfd, const std::string& camera_mac) {
  TLOG(LOG_DEBUG) << "send restore camera: " << camera_mac;
  uint8_t frame[command::kFrameOverhead];
  command::InitCommandNew(camera_mac, frame);
  _net_cmd_type* h = command::AsFrame(frame);
  h->mark1 = 1;
  h->mark2 = 1;
  h->SetSeq(1);
  h->SetTimestamp(utils::GetTimestamp());
  h->type = command::kTypeSetting;
  h->subtype = command::kSubReset;
  // Empty payload: checksum 0 and the tail right after the header.
  frame[32] = command::kTail;
  frame[33] = command::kTail;
  if (sockfd < 0) return -1;
  const ssize_t sent = send(sockfd, frame, sizeof(frame), MSG_NOSIGNAL);
  if (sent < 0) {
    TLOG(LOG_DEBUG) << "send restore camera failed: " << camera_mac;
    return -1;
  }
  return static_cast<int>(sent);
}
