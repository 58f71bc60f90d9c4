// The frames a simulated camera sends and the hub frames it reads, built and checked with the
// shared frame code (camera/frame.h).
//
// Heartbeats and the keep-alive frame. A sleeping camera sends single bytes 0x68 as heartbeats.
// The hub keeps such a byte at the front of its receive buffer instead of dropping it, so a real
// frame sent right after it would be thrown away together with it. The camera therefore never
// lets heartbeat bytes stand before a frame: it first sends the rest of the keep-alive frame, a
// 34-byte frame whose first 26 bytes are all 0x68 (both magics, an address nobody owns, the
// marks, sequence number, time and reserved bytes) followed by length 0, type 0, subtype 0,
// checksum 0 and the tail. Up to 26 heartbeat bytes are thus always the start of a valid frame
// that the hub routes nowhere, and the camera's next frame starts on a clean buffer. An awake
// camera sends the whole keep-alive frame now and then, so the hub sees it as awake.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "camera/frame.h"

namespace camsim {

constexpr uint8_t kHeartbeatByte = 0x68;
// Heartbeat bytes that may stand in the hub's buffer: the keep-alive frame's 0x68 prefix.
constexpr size_t kMaxHeartbeats = 26;
constexpr size_t kKeepAliveSize = command::kFrameOverhead;

// The whole keep-alive frame.
void KeepAliveFrame(uint8_t out[kKeepAliveSize]);

// Largest frame a camera sends: a video piece, 16-byte frame header and 16384 data bytes.
constexpr size_t kVideoPiecePayload = command::kVideoPieceHeader + command::kVideoPieceData;
constexpr size_t kMaxCameraFrame = kVideoPiecePayload + command::kFrameOverhead;
// Longest video frame: 255 pieces.
constexpr size_t kMaxVideoFrame = 255 * command::kVideoPieceData;
// Largest audio packet the hub takes (its audio frame buffer).
constexpr size_t kMaxAudioData = 1024;

// What goes into the header of a camera frame besides type and subtype.
struct Origin {
  const uint8_t* camera = nullptr;  // six bytes: src_addr
  uint16_t seq = 0;
  uint32_t timestamp = 0;
};

// A camera frame addressed to dst (six bytes; nullptr: unaddressed). Returns its size or -1.
int BuildCameraFrame(uint8_t* out, size_t cap, const Origin& origin, const uint8_t* dst,
                     uint8_t type, uint8_t subtype, const uint8_t* payload, size_t n);

// Acknowledgement (0x80/0x00) of a hub command: acknowledged type, subtype and result, sent back
// to the command's src_addr (the hub's address or an ACK ID).
int BuildAck(uint8_t* out, size_t cap, const Origin& origin, const _net_cmd_type* command,
             uint8_t result);

// Pairing request (0x8B/0x00): the property record, unaddressed. Returns its size or -1.
int BuildPairingRequest(uint8_t* out, size_t cap, const Origin& origin,
                        const _net_cmd_get_info_type& info);

// Checks the hub's answer to a pairing request sent with origin: a whole frame of type 0x0B,
// subtype 0, length 65, from the all-ones address, to the camera, echoing the request's
// sequence number, payload byte 0 = 1. 1 with the SSID and passphrase set, 0 when more bytes
// are needed, -1 (reason in *why) otherwise.
int ParsePairingReply(const uint8_t* buf, size_t n, const Origin& origin, std::string* ssid,
                      std::string* key, std::string* why);

// One piece of a video frame (0x8A/0x00, unaddressed): mark1 = total pieces, mark2 = piece
// number from 1, payload = the 16-byte frame header (frame length, word 1, word 2, frame index)
// and 16384 bytes of the frame from (piece - 1) x 16384 on, zero-padded. out must hold
// kMaxCameraFrame bytes. Returns the frame size or -1.
struct VideoFrameHeader {
  uint32_t length = 0;
  uint32_t word1 = 0;  // 1 for a key frame, 0 otherwise
  uint32_t word2 = 0;  // capture time, milliseconds (wraps)
  uint32_t index = 0;  // frame index from 0 at the start of a stream
};
int PieceCount(size_t frame_length);
int BuildVideoPiece(uint8_t* out, size_t cap, const Origin& origin, const VideoFrameHeader& header,
                    const uint8_t* frame, int piece, int total);

// One audio packet (0x8A/0x01, unaddressed): 8 bytes (packet index, capture time in
// milliseconds), then the A-law bytes (at most kMaxAudioData). Returns the frame size or -1.
int BuildAudioPacket(uint8_t* out, size_t cap, const Origin& origin, uint32_t index,
                     uint32_t time_ms, const uint8_t* alaw, size_t n);

// A MAC in any common spelling (twelve hexadecimal digits, or six pairs separated by ':' or
// '-') as twelve upper-case digits. False when it is none.
bool NormalizeMac(const std::string& text, std::string* digits);

// A readable name of a frame type and subtype ("start stream", "wake", "01/09").
std::string FrameName(uint8_t type, uint8_t subtype);

}  // namespace camsim
