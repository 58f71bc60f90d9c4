// Limits and link timing of the open P2P transport (the hub side of iotc.h). The hub itself uses
// only iotc.h; this header is for the viewer library, the tools and the tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace p2p {

// TCP port when TARVO_P2P_PORT is not set and IOTC_Initialize2 is given 0.
constexpr uint16_t kDefaultPort = 32761;

// Version of the transport, four bytes most significant first: 1.0.0.0.
constexpr uint32_t kLibraryVersion = 0x01000000;

// Sessions the table can hold; IOTC_Set_Max_Session_Number picks 1..kSessionCapacity (4 unless
// told otherwise).
constexpr unsigned kSessionCapacity = 16;
constexpr unsigned kDefaultMaxSessions = 4;
// AV channels avInitialize may ask for.
constexpr int kAvCapacity = 64;

// Send queue of one session. Video and audio frames share the media budget; I/O-control
// messages, login answers and channel notices use the control budget and go out first.
// The media budget holds the largest frame a camera can send (63 pieces of 16 KiB, 1008 KiB,
// encrypted: 1032 KiB as a message), so a key frame always fits, and 512 KiB more: a few
// seconds of a 1080p15 stream (2.5 s at 1.6 Mbit/s). A viewer further behind than that loses its
// queued video and starts again at the next key frame. The frame count bounds the small
// messages (audio packets): 256 are about 8 s of video and audio together.
constexpr size_t kMediaQueueBytes = 1536 * 1024;
constexpr size_t kMediaQueueFrames = 256;
constexpr size_t kControlQueueBytes = 256 * 1024;
// Sent message buffers the transport keeps for the next frames (all sessions together).
constexpr size_t kSpareBuffers = 16;
constexpr size_t kSpareBytes = 2 * 1024 * 1024;
constexpr size_t kControlQueueMessages = 128;

// Receive queues of one AV channel on the hub. I/O-control messages beyond the limit are
// dropped; audio beyond either limit drops the oldest frame and reports a lost frame.
constexpr size_t kIoCtrlQueueMessages = 64;
constexpr size_t kAudioQueueFrames = 128;
constexpr size_t kAudioQueueBytes = 512 * 1024;

// Connections that have not yet named uid and password; more are closed at once.
constexpr size_t kMaxPendingConnections = 8;

// Reliable transfer (RDT). Each end of an RDT channel announces a receive window; the other end
// sends at most that many bytes beyond what has been read, in chunks of at most
// wire::kMaxRdtData bytes. So a channel holds at most kRdtWindow bytes in the hub's send queue
// and kRdtWindow bytes in its receive buffer, whatever the peer does. RDT chunks have their own
// part of the send queue and never delay a media frame by more than one chunk.
constexpr uint32_t kRdtWindow = 256 * 1024;
// RDT channels the hub can hold at once (RDT IDs 0..kRdtCapacity-1).
constexpr int kRdtCapacity = 16;

// Link timing in milliseconds. Both sides send a ping when they have sent nothing for ping_ms;
// a side that has received nothing for idle_ms considers the link lost. A new connection must
// ask for a session within hello_ms. A closed session's last messages get linger_ms to leave.
struct LinkTimeouts {
  int ping_ms = 5000;
  int idle_ms = 20000;
  int hello_ms = 10000;
  int linger_ms = 2000;
};

// The RDT code of a session that has ended with an AV code (0 while it is open); both ends of a
// reliable transfer give the same codes.
int RdtCodeOfSession(int av_status);

// Sets the timing used by the next IOTC_Initialize2 and by viewers connecting afterwards.
void SetLinkTimeouts(const LinkTimeouts& timeouts);
LinkTimeouts GetLinkTimeouts();

}  // namespace p2p
