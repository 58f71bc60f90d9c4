// Playback of stored event clips to viewers (0xF001): one play thread per P2P session at most,
// reading the clip with oru_mp4_demux and sending its frames, paced at the clip's timing, to that
// session's viewer through the senders start-up gives playback_mgr_init. The media code knows
// neither viewers nor the transport: the senders encrypt and send as live view does
// (server/playbacksend.h).
//
// Threads. HandlePlayback runs on the viewer's session thread: it parses and checks the request
// (the index read under the store's lock), then hands the clip to a new play thread; the card is
// read only there. A slot's control mutex serialises starting, stopping and joining its thread;
// the play thread never takes it, and waits (pacing, pause, a busy viewer) on a condition
// variable that every stop signals. Layouts and decisions: docs/playback.md.
#pragma once

#include <cstddef>
#include <cstdint>

#include "media/playbackmsg.h"

namespace playback {

// Largest audio frame handed to the audio sender; longer stored packets go in pieces.
constexpr size_t kMaxAudioPiece = 1024;

// Results of the senders.
constexpr int kSent = 0;
constexpr int kBusy = 1;  // the send lock was busy or the queue full: try again later
// Any negative value: the viewer is gone (the play ends without a state message).

struct Frame {
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool key = false;           // video
  uint32_t index = 0;         // video: frames sent in this play
  uint16_t width = 0;         // video
  uint16_t height = 0;        // video
  uint32_t seconds = 0;       // video: event start + frame time, whole seconds
  uint32_t milliseconds = 0;  // video: within its second; audio: 32-bit wrapping clip time
};

// An I/O-control message to the viewer of session sid.
using CommandSender = int (*)(int sid, uint32_t type, const uint8_t* data, size_t len);
// One frame to the viewer of session sid.
using FrameSender = int (*)(int sid, const Frame& frame);

// Why a play ends; the viewer is told the matching state.
enum class StopReason {
  kStopped,   // the viewer's stop, a live start or stop
  kReplaced,  // a new play of the session
  kDeleted,   // the clip is being removed, or the card went away
  kClosed,    // the session closed: nobody to tell
};

}  // namespace playback

// Takes the three senders. 0, or -1 when one is null.
int playback_mgr_init(playback::CommandSender command, playback::FrameSender video,
                      playback::FrameSender audio);

// A viewer's playback request (the raw, NUL-terminated payload of the seek-time message) on AV
// channel avIndex of session sid: play (replacing the running play), pause, resume or stop.
// 0, or -1 when it is refused (logged, the viewer told, nothing opened).
int HandlePlayback(int sid, int avIndex, const char* payload);

// Ends the play of session sid, if any, and waits for its thread. 0 when one ran, -1 otherwise.
int playback_stop(int sid, playback::StopReason reason);
// Ends every play of this clip and returns once no thread has the file open.
void playback_release_clip(const char* mac, long start);
// The card is no longer usable: every play ends (state "deleted").
void playback_card_gone();
// Sends an I/O-control message through the command sender. Its result, -1 before init.
int playback_send_command(int sid, uint32_t type, const uint8_t* data, size_t len);
// Whether session sid has a play running (tests, logs).
bool playback_running(int sid);
