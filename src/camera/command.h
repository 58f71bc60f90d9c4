// Building the hub's frames: the `command::Command` that fills a header with the camera's and the
// hub's addresses and closes the frame, the two process-wide sequence counters, the wake frame,
// the pairing reply header and the camera reset sent on a connection of its own.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "camera/frame.h"

namespace command {

// The next value of the command counter (frames of SendCommand and SendAudio) and of the
// pairing counter (pairing replies that answer no request). Both start at 0, wrap at 65536 and
// may be taken from any thread.
uint16_t NextSeq();
uint16_t NextCmdTxSeq();

// A short-lived frame builder for one camera: the camera's MAC and the hub's MAC, each twelve
// hexadecimal digits.
class Command {
 public:
  Command(std::string camera_mac, std::string hub_mac);

  // Zeroes the 32 header bytes, sets both magics, src_addr := hub MAC, dst_addr := camera MAC.
  void InitCommand(uint8_t* frame) const;
  // The same with src_addr := the six bytes given (an ACK ID address).
  void InitCommand(uint8_t* frame, const uint8_t src[6]) const;
  // Writes the tail and the checksum; returns length + 34, the bytes to send.
  int DoneCommand(uint8_t* frame) const;
  // See command::CheckCommand.
  int CheckCommand(const uint8_t* buf, uint16_t count) const;
  // Header of a pairing reply: both magics, timestamp now, marks 1, src_addr all-ones; with a
  // request dst_addr and seq are the request's src_addr and seq, without one dst_addr is zero
  // and seq comes from the pairing counter. Returns 0.
  static int InitAuthCommand(const _net_cmd_type* request, uint8_t* reply);

 private:
  std::string camera_mac_;
  std::string hub_mac_;
};

// Builds an ordinary command into out (capacity cap): header as InitCommand (with src_addr =
// src when given), marks 1, seq from the command counter, timestamp now, then payload and
// tail. Returns the frame size or -1 when it does not fit or a MAC is malformed.
int BuildCommand(const Command& cmd, uint8_t* out, size_t cap, uint8_t type, uint8_t subtype,
                 const uint8_t* payload, size_t n, const uint8_t* src = nullptr);

// The 34-byte wake frame (0xF0/0x00, seq 0, timestamp 0) from hub to camera. Returns 34 or -1.
constexpr size_t kWakeFrameSize = kFrameOverhead;
int BuildWakeFrame(const Command& cmd, uint8_t out[kWakeFrameSize]);

// Reset message helpers: header with the configuration's hub MAC and the camera's MAC.
void InitCommandNew(const std::string& camera_mac, uint8_t* frame);
int DoneCommandNew(uint8_t* frame);

}  // namespace command

// Sends the factory-reset frame (0x11/0x04, seq 1) to the camera on the given socket. Returns
// the bytes sent, or -1.
int RestoreCamera(int sockfd, const std::string& camera_mac);
