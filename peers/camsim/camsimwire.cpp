#include "camsim/camsimwire.h"

#include <cstdio>
#include <cstring>

namespace camsim {
namespace {

const uint8_t kAllOnes[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};

std::string PaddedText(const uint8_t* p, size_t n) {
  size_t len = 0;
  while (len < n && p[len] != 0) len++;
  return std::string(reinterpret_cast<const char*>(p), len);
}

}  // namespace

void KeepAliveFrame(uint8_t out[kKeepAliveSize]) {
  std::memset(out, 0, kKeepAliveSize);
  std::memset(out, kHeartbeatByte, kMaxHeartbeats);
  // length, type, subtype and checksum stay 0
  out[kKeepAliveSize - 2] = command::kTail;
  out[kKeepAliveSize - 1] = command::kTail;
}

int BuildCameraFrame(uint8_t* out, size_t cap, const Origin& origin, const uint8_t* dst,
                     uint8_t type, uint8_t subtype, const uint8_t* payload, size_t n) {
  command::FrameFields fields;
  fields.src = origin.camera;
  fields.dst = dst;
  fields.seq = origin.seq;
  fields.timestamp = origin.timestamp;
  fields.type = type;
  fields.subtype = subtype;
  return command::BuildFrame(out, cap, fields, payload, n);
}

int BuildAck(uint8_t* out, size_t cap, const Origin& origin, const _net_cmd_type* command,
             uint8_t result) {
  const uint8_t ack[3] = {command->type, command->subtype, result};
  return BuildCameraFrame(out, cap, origin, command->src_addr, command::kTypeAck, 0, ack,
                          sizeof(ack));
}

int BuildPairingRequest(uint8_t* out, size_t cap, const Origin& origin,
                        const _net_cmd_get_info_type& info) {
  uint8_t payload[_net_cmd_get_info_type::kWireSize];
  info.Encode(payload);
  return BuildCameraFrame(out, cap, origin, nullptr, command::kTypePairRequest, 0, payload,
                          sizeof(payload));
}

int ParsePairingReply(const uint8_t* buf, size_t n, const Origin& origin, std::string* ssid,
                      std::string* key, std::string* why) {
  const uint16_t count = static_cast<uint16_t>(n > 0xFFFF ? 0xFFFF : n);
  const int check = command::CheckCommand(buf, count);
  if (check == 0) return 0;
  auto refuse = [why](const std::string& text) {
    if (why != nullptr) *why = text;
    return -1;
  };
  if (check < 0) return refuse("not a frame");
  const _net_cmd_type* reply = command::AsFrame(buf);
  if (reply->type != command::kTypePairReply || reply->subtype != 0) {
    return refuse("not a pairing reply: " + FrameName(reply->type, reply->subtype));
  }
  if (reply->Length() != command::kPairReplySize) {
    return refuse("pairing reply length " + std::to_string(reply->Length()));
  }
  if (std::memcmp(reply->src_addr, kAllOnes, 6) != 0) {
    return refuse("pairing reply from " + command::AddressText(reply->src_addr));
  }
  if (origin.camera != nullptr && std::memcmp(reply->dst_addr, origin.camera, 6) != 0) {
    return refuse("pairing reply for " + command::AddressText(reply->dst_addr));
  }
  if (reply->Seq() != origin.seq) {
    return refuse("pairing reply seq " + std::to_string(reply->Seq()) + ", request seq " +
                  std::to_string(origin.seq));
  }
  const uint8_t* p = reply->Payload();
  if (p[0] != 1) return refuse("pairing refused: " + std::to_string(p[0]));
  if (ssid != nullptr) *ssid = PaddedText(p + 1, command::kPairTextSize);
  if (key != nullptr) *key = PaddedText(p + 1 + command::kPairTextSize, command::kPairTextSize);
  return 1;
}

int PieceCount(size_t frame_length) {
  if (frame_length == 0 || frame_length > kMaxVideoFrame) return -1;
  return static_cast<int>((frame_length + command::kVideoPieceData - 1) / command::kVideoPieceData);
}

int BuildVideoPiece(uint8_t* out, size_t cap, const Origin& origin, const VideoFrameHeader& header,
                    const uint8_t* frame, int piece, int total) {
  if (cap < kMaxCameraFrame || total < 1 || total > 255 || piece < 1 || piece > total ||
      PieceCount(header.length) != total) {
    return -1;
  }
  const int size = BuildCameraFrame(out, cap, origin, nullptr, command::kTypeMedia,
                                    command::kSubVideo, nullptr, 0);
  if (size < 0) return -1;
  _net_cmd_type* h = command::AsFrame(out);
  h->mark1 = static_cast<uint8_t>(total);
  h->mark2 = static_cast<uint8_t>(piece);
  h->SetLength(static_cast<uint16_t>(kVideoPiecePayload));
  uint8_t* p = h->Payload();
  command::PutLe32(p, header.length);
  command::PutLe32(p + 4, header.word1);
  command::PutLe32(p + 8, header.word2);
  command::PutLe32(p + 12, header.index);
  const size_t offset = static_cast<size_t>(piece - 1) * command::kVideoPieceData;
  const size_t take = header.length - offset < command::kVideoPieceData ? header.length - offset
                                                                        : command::kVideoPieceData;
  std::memcpy(p + command::kVideoPieceHeader, frame + offset, take);
  std::memset(p + command::kVideoPieceHeader + take, 0, command::kVideoPieceData - take);
  return command::CloseFrame(out);
}

int BuildAudioPacket(uint8_t* out, size_t cap, const Origin& origin, uint32_t index,
                     uint32_t time_ms, const uint8_t* alaw, size_t n) {
  if (n > kMaxAudioData || cap < n + command::kAudioPrefix + command::kFrameOverhead) return -1;
  const int size = BuildCameraFrame(out, cap, origin, nullptr, command::kTypeMedia,
                                    command::kSubAudio, nullptr, 0);
  if (size < 0) return -1;
  _net_cmd_type* h = command::AsFrame(out);
  h->SetLength(static_cast<uint16_t>(n + command::kAudioPrefix));
  uint8_t* p = h->Payload();
  command::PutLe32(p, index);
  command::PutLe32(p + 4, time_ms);
  if (n > 0) std::memcpy(p + command::kAudioPrefix, alaw, n);
  return command::CloseFrame(out);
}

bool NormalizeMac(const std::string& text, std::string* digits) {
  std::string out;
  if (text.size() == 17) {
    for (size_t i = 0; i < 17; i++) {
      if (i % 3 == 2) {
        if (text[i] != ':' && text[i] != '-') return false;
        if (text[i] != text[2]) return false;
      } else {
        out += text[i];
      }
    }
  } else if (text.size() == 12) {
    out = text;
  } else {
    return false;
  }
  for (char& c : out) {
    if (c >= 'a' && c <= 'f') c = static_cast<char>(c - 'a' + 'A');
    if (!((c >= '0' && c <= '9') || (c >= 'A' && c <= 'F'))) return false;
  }
  if (digits != nullptr) *digits = out;
  return true;
}

std::string FrameName(uint8_t type, uint8_t subtype) {
  using namespace command;
  switch (type) {
    case kTypeControl:
      if (subtype == kSubSleep) return "sleep";
      if (subtype == kSubStartStream) return "start stream";
      if (subtype == kSubStopStream) return "stop stream";
      if (subtype == kSubUpgrade) return "upgrade";
      break;
    case kTypePir:
      if (subtype == kSubPirMain) return "set pir";
      if (subtype == kSubPirMain1) return "set pir 0x13";
      if (subtype == kSubPirNew) return "set pir new";
      break;
    case kTypeProp:
      if (subtype == 0) return "property";
      break;
    case kTypeTalk:
      if (subtype == 1) return "talk-back audio";
      break;
    case kTypePairReply:
      if (subtype == 0) return "pairing reply";
      break;
    case kTypeSetting:
      if (subtype == kSubVideoQuality) return "video quality";
      if (subtype == kSubReset) return "reset";
      if (subtype == kSubNight) return "night mode";
      break;
    case kTypeWake:
      if (subtype == 0) return "wake";
      break;
    case kTypeAck:
      return "ack";
    case kTypePirEvent:
      return "pir event";
    case kTypeBatteryEvent:
      return "battery event";
    case kTypeMedia:
      if (subtype == kSubVideo) return "video";
      if (subtype == kSubAudio) return "audio";
      break;
    case kTypePairRequest:
      return "pairing request";
    case kTypeLogin:
      return "login";
    default:
      break;
  }
  char text[8];
  std::snprintf(text, sizeof(text), "%02X/%02X", type, subtype);
  return text;
}

}  // namespace camsim
