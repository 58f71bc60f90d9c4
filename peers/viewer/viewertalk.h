// Talkback from the viewer: raw 8 kHz G.711 A-law from a file, cut into frames and sent at the
// pace it plays, on a talkback channel the hub joins.
//
// Steps: serve the channel; ask the hub to talk (speaker start, the channel number as four
// little-endian bytes); wait for the hub to join; wait half a second, so that the hub has
// emptied its receive buffer as it does after joining; send the frames, one every frame's play
// time; wait a second, so that the hub passes the last frames on; ask the hub to stop (speaker
// stop naming the camera); close the channel. The hub leaves out every frame whose number is a
// multiple of ten, so the camera plays the others.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace viewer {

class Session;

struct TalkOptions {
  std::string camera_mac;  // named in the stop request
  std::string alaw_path;
  uint8_t channel = 1;       // 1..31
  size_t frame_bytes = 320;  // 40 ms at 8000 samples a second
  int join_timeout_ms = 15000;
};

struct TalkResult {
  int64_t frames = 0;  // frames handed to the transport
  int64_t bytes = 0;
  std::string error;  // empty when all went out
};

// The longest talkback file read.
constexpr size_t kMaxTalkFileBytes = 16 * 1024 * 1024;
// Frame sizes accepted: the hub takes at most 2048 bytes a frame.
constexpr size_t kMaxTalkFrameBytes = 2048;

// The frames of an A-law file: frame_bytes each, the last one shorter. 0, or -1 with *error.
int ReadTalkFrames(const std::string& path, size_t frame_bytes,
                   std::vector<std::vector<uint8_t>>* frames, std::string* error);

// Runs a whole talkback; returns when it has ended or stop became true. 0 when every frame went
// out and the hub was asked to stop, else -1 (result->error tells).
int Talk(Session& session, const TalkOptions& options, const std::atomic<bool>& stop,
         TalkResult* result);

}  // namespace viewer
