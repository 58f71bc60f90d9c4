// The hub-camera wire frame `_net_cmd_type` and the payloads carried in it.
//
// One frame format carries every exchange with a camera: its TCP connection, the pairing
// connection and the UDP wake datagram. A frame is a 32-byte header, n payload bytes and the
// two tail bytes 0x16 0x16; every multi-byte integer is little-endian whatever the host's order.
// This module holds no state: both the hub and the camera simulator build and read frames with
// it. The layout is documented in docs/camera-protocol.md.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace command {

constexpr size_t kHeaderSize = 32;
constexpr size_t kTailSize = 2;
constexpr size_t kFrameOverhead = kHeaderSize + kTailSize;  // 34
constexpr uint8_t kMagic = 0x68;
constexpr uint8_t kTail = 0x16;

// Frame types and subtypes.
constexpr uint8_t kTypeControl = 0x01;  // H->C: 1 sleep, 2 start stream, 3 stop stream, 6 upgrade
constexpr uint8_t kSubSleep = 0x01;
constexpr uint8_t kSubStartStream = 0x02;
constexpr uint8_t kSubStopStream = 0x03;
constexpr uint8_t kSubUpgrade = 0x06;
constexpr uint8_t kTypePir = 0x02;  // H->C: 0x11 older form, 0x13, 0x30 newer form
constexpr uint8_t kSubPirMain = 0x11;
constexpr uint8_t kSubPirMain1 = 0x13;
constexpr uint8_t kSubPirNew = 0x30;
constexpr uint8_t kTypeProp = 0x03;       // H->C query, C->H reply (subtype 0)
constexpr uint8_t kTypeTalk = 0x0A;       // H->C talk-back audio, subtype 1
constexpr uint8_t kTypePairReply = 0x0B;  // H->C pairing reply, subtype 0
constexpr uint8_t kTypeSetting = 0x11;    // H->C: 2 video quality, 4 reset, 6 night mode
constexpr uint8_t kSubVideoQuality = 0x02;
constexpr uint8_t kSubReset = 0x04;
constexpr uint8_t kSubNight = 0x06;
constexpr uint8_t kTypeWake = 0xF0;          // H->C wake, subtype 0
constexpr uint8_t kTypeAck = 0x80;           // C->H acknowledgement, subtype 0
constexpr uint8_t kTypePirEvent = 0x81;      // C->H motion event
constexpr uint8_t kTypeBatteryEvent = 0x82;  // C->H battery report
constexpr uint8_t kTypeMedia = 0x8A;         // C->H: 0 video piece, 1 audio
constexpr uint8_t kSubVideo = 0x00;
constexpr uint8_t kSubAudio = 0x01;
constexpr uint8_t kTypePairRequest = 0x8B;  // C->H pairing request, subtype 0
constexpr uint8_t kTypeLogin = 0xF1;        // C->H login, subtype 0

// Little-endian access to unaligned bytes.
inline uint16_t GetLe16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (static_cast<uint16_t>(p[1]) << 8));
}
inline uint32_t GetLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}
inline void PutLe16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
inline void PutLe32(uint8_t* p, uint32_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
  p[2] = static_cast<uint8_t>(v >> 16);
  p[3] = static_cast<uint8_t>(v >> 24);
}

}  // namespace command

// The 32-byte frame header as it lies in a buffer. Every field is a byte or a byte array, so the
// record has alignment 1 and can be laid over any received bytes; the accessors decode the
// little-endian fields. The payload follows the header in the same buffer.
struct _net_cmd_type {
  uint8_t head_magic[2];  // 0x68 0x68
  uint8_t src_addr[6];
  uint8_t dst_addr[6];
  uint8_t mark1;  // 1 on frames the hub builds; total pieces of a video frame
  uint8_t mark2;  // 1 on frames the hub builds; number of a video piece
  uint8_t seq[2];
  uint8_t timestamp[4];
  uint8_t reserved[2];
  uint8_t mid_magic[2];  // a second copy of head_magic
  uint8_t length[2];     // payload length n
  uint8_t type;
  uint8_t subtype;
  uint8_t checksum[2];  // sum of the payload bytes modulo 65536

  uint16_t Seq() const { return command::GetLe16(seq); }
  uint32_t Timestamp() const { return command::GetLe32(timestamp); }
  uint16_t Length() const { return command::GetLe16(length); }
  uint16_t Checksum() const { return command::GetLe16(checksum); }
  void SetSeq(uint16_t v) { command::PutLe16(seq, v); }
  void SetTimestamp(uint32_t v) { command::PutLe32(timestamp, v); }
  void SetLength(uint16_t v) { command::PutLe16(length, v); }
  // Whole frame size: header, payload and tail.
  size_t FrameSize() const { return command::kFrameOverhead + Length(); }
  const uint8_t* Bytes() const { return reinterpret_cast<const uint8_t*>(this); }
  uint8_t* Bytes() { return reinterpret_cast<uint8_t*>(this); }
  const uint8_t* Payload() const { return Bytes() + command::kHeaderSize; }
  uint8_t* Payload() { return Bytes() + command::kHeaderSize; }
};
static_assert(sizeof(_net_cmd_type) == 32, "the frame header is 32 bytes");
static_assert(alignof(_net_cmd_type) == 1, "the frame header must lie over any bytes");

namespace command {

inline const _net_cmd_type* AsFrame(const uint8_t* bytes) {
  return reinterpret_cast<const _net_cmd_type*>(bytes);
}
inline _net_cmd_type* AsFrame(uint8_t* bytes) {
  return reinterpret_cast<_net_cmd_type*>(bytes);
}

// A six-byte address and its text form, twelve upper-case hexadecimal digits.
using Address = uint8_t[6];
std::string AddressText(const uint8_t addr[6]);
// Twelve hexadecimal digits (either case) to six bytes. 0, or -1 when the text is malformed.
int AddressFromText(const std::string& text, uint8_t out[6]);
// The hub's MAC as held by the configuration ("AA:BB:...") as twelve upper-case digits.
std::string MacDigits(const std::string& mac);
// The ACK ID address: 0x88 0x88 and the request identifier, little-endian.
void AckIdAddress(uint32_t id, uint8_t out[6]);
// True when dst holds an ACK ID address; the identifier is then stored in *id.
bool IsAckIdAddress(const uint8_t addr[6], uint32_t* id);

// Sum of the bytes, each unsigned, modulo 65536.
uint16_t Checksum(const uint8_t* payload, size_t n);

// Zeroes the 32 header bytes and sets both magics. The buffer must hold 32 bytes.
void ClearHeader(uint8_t* frame);
// Closes a frame whose header is filled: writes the tail after the `length` payload bytes and
// the checksum over them. The buffer must hold length + 34 bytes. Returns length + 34.
int CloseFrame(uint8_t* frame);

// Validates received bytes: 1 when a whole valid frame starts at buf, 0 when more bytes are
// needed, -1 when the bytes are not a frame (wrong magic or tail). The checksum, marks,
// sequence number and timestamp are not examined, nor any byte after the first frame.
int CheckCommand(const uint8_t* buf, uint16_t count);

// What a built frame carries besides its payload.
struct FrameFields {
  const uint8_t* src = nullptr;  // six bytes
  const uint8_t* dst = nullptr;  // six bytes
  uint8_t mark1 = 1;
  uint8_t mark2 = 1;
  uint16_t seq = 0;
  uint32_t timestamp = 0;
  uint8_t type = 0;
  uint8_t subtype = 0;
};
// Builds a whole frame into out (capacity cap). Returns its size n + 34, or -1 when it does
// not fit (or n exceeds 65535).
int BuildFrame(uint8_t* out, size_t cap, const FrameFields& fields, const uint8_t* payload,
               size_t n);

// Version numbers travel as numbers whose hexadecimal digits spell the decimal version: the
// value is printed "%06X" and that text read as a decimal number (0x123 is version 123).
int VersionNumber(uint32_t raw);

}  // namespace command

// Payload of the login frame (0xF1/0x00): 8 bytes.
struct _net_cmd_login_type {
  static constexpr size_t kWireSize = 8;
  uint32_t hard_ver = 0;  // offset 0
  uint32_t soft_ver = 0;  // offset 4

  void Encode(uint8_t out[kWireSize]) const;
  // 0, or -1 when fewer than kWireSize bytes are given.
  static int Decode(const uint8_t* in, size_t n, _net_cmd_login_type* out);
};

// The camera's property record: the payload of the property reply (0x03/0x00), of the battery
// event (0x82/0x00) and of the pairing request (0x8B/0x00), 34 bytes:
//   0  6  camera MAC            18 1  battery status (0 discharging, 1 charging, 2 full)
//   6  4  camera IPv4 address   19 1  PIR setting
//  10  4  hardware version      20 1  power switch (0 off, 1 on)
//  14  4  firmware version      21 1  night mode
//  22  4  battery voltage, mV   26 2  PIR re-trigger interval in seconds
//  28  1  Wi-Fi RSSI, dBm, signed   29 5  zero
// Integers little-endian; the address in network order (10.17.1.2 is 0A 11 01 02).
struct _net_cmd_get_info_type {
  static constexpr size_t kWireSize = 34;
  uint8_t mac[6] = {0};
  uint8_t ip[4] = {0};
  uint32_t hard_ver = 0;
  uint32_t soft_ver = 0;
  uint8_t battery_status = 0;
  uint8_t pir = 0;
  uint8_t power = 0;
  uint8_t night = 0;
  uint32_t vbat = 0;
  uint16_t pir_interval = 0;
  int8_t rssi = 0;

  void Encode(uint8_t out[kWireSize]) const;
  // 0, or -1 when fewer than kWireSize bytes are given.
  static int Decode(const uint8_t* in, size_t n, _net_cmd_get_info_type* out);
};

namespace command {

// Payload of the pairing reply (0x0B/0x00): 1, then SSID and passphrase of the camera network,
// each zero-padded (and cut) to 32 bytes.
constexpr size_t kPairReplySize = 65;
constexpr size_t kPairTextSize = 32;
void EncodePairingReply(const std::string& ssid, const std::string& key,
                        uint8_t out[kPairReplySize]);

// Hub-to-camera payloads.
constexpr size_t kStartStreamSize = 4;  // unsigned 32-bit local time
constexpr size_t kUpgradeSize = 65;     // 0, then the image location cut at 64, zero-padded
constexpr size_t kUpgradeUrlSize = 64;
constexpr size_t kVideoQualitySize = 20;  // encoder 2641, width, height, 15, bit rate
void EncodeStartStream(uint32_t local_time, uint8_t out[kStartStreamSize]);
void EncodeUpgrade(const std::string& url, uint8_t out[kUpgradeSize]);
void EncodeVideoQuality(int quality, uint8_t out[kVideoQualitySize]);
// Stream size of a quality: 1 gives 1280 x 720, any other 1920 x 1080.
void QualitySize(int quality, uint16_t* width, uint16_t* height);

// Video piece carried in a 0x8A/0x00 frame: mark1 = total pieces, mark2 = piece number from 1,
// payload = 16-byte frame header (length, word 1, word 2, frame index) and 16384 data bytes.
constexpr size_t kVideoPieceHeader = 16;
constexpr size_t kVideoPieceData = 16384;
// Audio packet carried in a 0x8A/0x01 frame: 8 bytes, then the A-law bytes.
constexpr size_t kAudioPrefix = 8;

}  // namespace command
