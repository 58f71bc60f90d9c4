#include "camera/frame.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace command {
namespace {

int HexValue(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

void PutText(const std::string& text, uint8_t* out, size_t size) {
  std::memset(out, 0, size);
  std::memcpy(out, text.data(), text.size() < size ? text.size() : size);
}

}  // namespace

std::string AddressText(const uint8_t addr[6]) {
  char text[13];
  std::snprintf(text, sizeof(text), "%02X%02X%02X%02X%02X%02X", addr[0], addr[1], addr[2], addr[3],
                addr[4], addr[5]);
  return text;
}

int AddressFromText(const std::string& text, uint8_t out[6]) {
  if (text.size() != 12) return -1;
  uint8_t bytes[6];
  for (size_t i = 0; i < 6; i++) {
    const int hi = HexValue(text[i * 2]);
    const int lo = HexValue(text[i * 2 + 1]);
    if (hi < 0 || lo < 0) return -1;
    bytes[i] = static_cast<uint8_t>(hi * 16 + lo);
  }
  std::memcpy(out, bytes, sizeof(bytes));
  return 0;
}

std::string MacDigits(const std::string& mac) {
  std::string digits;
  digits.reserve(12);
  for (char c : mac) {
    if (c == ':' || c == '-') continue;
    digits.push_back(c >= 'a' && c <= 'z' ? static_cast<char>(c - 'a' + 'A') : c);
  }
  return digits;
}

void AckIdAddress(uint32_t id, uint8_t out[6]) {
  out[0] = 0x88;
  out[1] = 0x88;
  PutLe32(out + 2, id);
}

bool IsAckIdAddress(const uint8_t addr[6], uint32_t* id) {
  if (addr[0] != 0x88 || addr[1] != 0x88) return false;
  if (id != nullptr) *id = GetLe32(addr + 2);
  return true;
}

uint16_t Checksum(const uint8_t* payload, size_t n) {
  uint32_t sum = 0;
  for (size_t i = 0; i < n; i++) sum += payload[i];
  return static_cast<uint16_t>(sum);
}

void ClearHeader(uint8_t* frame) {
  std::memset(frame, 0, kHeaderSize);
  _net_cmd_type* h = AsFrame(frame);
  h->head_magic[0] = h->head_magic[1] = kMagic;
  h->mid_magic[0] = h->mid_magic[1] = kMagic;
}

int CloseFrame(uint8_t* frame) {
  _net_cmd_type* h = AsFrame(frame);
  const size_t n = h->Length();
  frame[kHeaderSize + n] = kTail;
  frame[kHeaderSize + n + 1] = kTail;
  PutLe16(h->checksum, Checksum(frame + kHeaderSize, n));
  return static_cast<int>(n + kFrameOverhead);
}

int CheckCommand(const uint8_t* buf, uint16_t count) {
  if (count < kFrameOverhead) return 0;
  const uint16_t head = GetLe16(buf);
  if (head != 0x6868 || GetLe16(buf + 24) != head) return -1;
  const size_t n = AsFrame(buf)->Length();
  if (count < n + kFrameOverhead) return 0;
  if (buf[kHeaderSize + n] != kTail || buf[kHeaderSize + n + 1] != kTail) return -1;
  return 1;
}

int BuildFrame(uint8_t* out, size_t cap, const FrameFields& fields, const uint8_t* payload,
               size_t n) {
  if (n > 0xFFFF || cap < n + kFrameOverhead) return -1;
  ClearHeader(out);
  _net_cmd_type* h = AsFrame(out);
  static const uint8_t kZero[6] = {0};
  std::memcpy(h->src_addr, fields.src != nullptr ? fields.src : kZero, 6);
  std::memcpy(h->dst_addr, fields.dst != nullptr ? fields.dst : kZero, 6);
  h->mark1 = fields.mark1;
  h->mark2 = fields.mark2;
  h->SetSeq(fields.seq);
  h->SetTimestamp(fields.timestamp);
  h->SetLength(static_cast<uint16_t>(n));
  h->type = fields.type;
  h->subtype = fields.subtype;
  if (n > 0) std::memmove(h->Payload(), payload, n);
  return CloseFrame(out);
}

int VersionNumber(uint32_t raw) {
  char text[16];
  std::snprintf(text, sizeof(text), "%06X", raw);
  return std::atoi(text);
}

void EncodePairingReply(const std::string& ssid, const std::string& key,
                        uint8_t out[kPairReplySize]) {
  out[0] = 1;
  PutText(ssid, out + 1, kPairTextSize);
  PutText(key, out + 1 + kPairTextSize, kPairTextSize);
}

void EncodeStartStream(uint32_t local_time, uint8_t out[kStartStreamSize]) {
  PutLe32(out, local_time);
}

void EncodeUpgrade(const std::string& url, uint8_t out[kUpgradeSize]) {
  out[0] = 0;
  PutText(url, out + 1, kUpgradeUrlSize);
}

void QualitySize(int quality, uint16_t* width, uint16_t* height) {
  *width = quality == 1 ? 1280 : 1920;
  *height = quality == 1 ? 720 : 1080;
}

void EncodeVideoQuality(int quality, uint8_t out[kVideoQualitySize]) {
  uint16_t width, height;
  QualitySize(quality, &width, &height);
  // Bit rate 500 for qualities 1 and 2, 800 otherwise: quality 2 streams 1080p at the low rate.
  const uint32_t bitrate = (quality == 1 || quality == 2) ? 500 : 800;
  PutLe32(out, 2641);
  PutLe32(out + 4, width);
  PutLe32(out + 8, height);
  PutLe32(out + 12, 15);
  PutLe32(out + 16, bitrate);
}

}  // namespace command

void _net_cmd_login_type::Encode(uint8_t out[kWireSize]) const {
  command::PutLe32(out, hard_ver);
  command::PutLe32(out + 4, soft_ver);
}

int _net_cmd_login_type::Decode(const uint8_t* in, size_t n, _net_cmd_login_type* out) {
  if (in == nullptr || n < kWireSize) return -1;
  out->hard_ver = command::GetLe32(in);
  out->soft_ver = command::GetLe32(in + 4);
  return 0;
}

void _net_cmd_get_info_type::Encode(uint8_t out[kWireSize]) const {
  std::memset(out, 0, kWireSize);
  std::memcpy(out, mac, 6);
  std::memcpy(out + 6, ip, 4);
  command::PutLe32(out + 10, hard_ver);
  command::PutLe32(out + 14, soft_ver);
  out[18] = battery_status;
  out[19] = pir;
  out[20] = power;
  out[21] = night;
  command::PutLe32(out + 22, vbat);
  command::PutLe16(out + 26, pir_interval);
  out[28] = static_cast<uint8_t>(rssi);
}

int _net_cmd_get_info_type::Decode(const uint8_t* in, size_t n, _net_cmd_get_info_type* out) {
  if (in == nullptr || n < kWireSize) return -1;
  std::memcpy(out->mac, in, 6);
  std::memcpy(out->ip, in + 6, 4);
  out->hard_ver = command::GetLe32(in + 10);
  out->soft_ver = command::GetLe32(in + 14);
  out->battery_status = in[18];
  out->pir = in[19];
  out->power = in[20];
  out->night = in[21];
  out->vbat = command::GetLe32(in + 22);
  out->pir_interval = command::GetLe16(in + 26);
  out->rssi = static_cast<int8_t>(in[28]);
  return 0;
}
