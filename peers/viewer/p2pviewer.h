// The viewer side of the open P2P transport: opens a session on the hub, logs in on the AV
// channel the hub serves, exchanges I/O-control messages, receives video and audio frames with
// their frame information, and serves talkback channels that the hub joins to receive audio.
//
// Results use the codes of iotc.h: IOTC codes for the session request, AV codes for the rest.
// A background thread reads the hub's messages. When the application leaves frames unread
// (kFrameQueueFrames or kFrameQueueBytes held) that thread stops reading the socket, so the
// hub's send queue for this viewer fills up instead of frames being dropped here.
//
// Reliable transfer (RDT) uses the codes and the rules of the hub's RDT calls (iotc.h): an RDT
// channel is one IOTC channel, and its ID here is that channel's number. Received RDT data is
// held up to the window announced to the hub (kRdtWindow) whatever the frame queues hold, and
// writes wait for the hub's credit. One thread at a time may write on a channel.
#pragma once

#include <array>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "p2p/wire.h"

namespace p2p {

constexpr size_t kFrameQueueFrames = 256;
constexpr size_t kFrameQueueBytes = 8 * 1024 * 1024;
constexpr size_t kViewerIoCtrlQueue = 256;

struct ViewerFrame {
  bool video = true;  // a video frame, else an audio frame
  uint8_t channel = 0;
  uint32_t number = 0;  // counted from 0 per channel and kind by the hub
  std::vector<uint8_t> info;
  std::vector<uint8_t> data;
  // CLOCK_MONOTONIC nanoseconds at which the reads that brought the frame's first and last
  // bytes returned (one clock for every process of the machine: compared with a camera's send
  // times, they give the hub's latency).
  int64_t first_byte_ns = 0;
  int64_t last_byte_ns = 0;
};

struct ViewerIoCtrl {
  uint8_t channel = 0;
  uint32_t type = 0;
  std::vector<uint8_t> data;
};

class Viewer {
 public:
  Viewer() = default;
  ~Viewer();
  Viewer(const Viewer&) = delete;
  Viewer& operator=(const Viewer&) = delete;

  // Opens a session on the hub at host:port for the hub's uid and its P2P password. 0, or
  // IOTC_ER_CONNECT_FAILED, IOTC_ER_TIMEOUT, IOTC_ER_PROTOCOL, or the hub's refusal
  // (IOTC_ER_EXCEED_MAX_SESSION, IOTC_ER_UNKNOWN_DEVICE, IOTC_ER_WRONG_PASSWORD,
  // IOTC_ER_DEVICE_NOT_LOGGED_IN).
  int Connect(const std::string& host, uint16_t port, const std::string& uid,
              const std::string& password, int timeout_ms = 10000);
  int sid() const { return sid_; }

  // Logs in on the AV channel the hub serves (channel 0 unless told) with an account and a
  // login text, and waits for the hub's answer: 0, AV_ER_WRONG_VIEWACCorPWD,
  // AV_ER_EXCEED_MAX_CHANNEL, AV_ER_TIMEOUT or the session's end code.
  int Login(const std::string& account, const std::string& login_text, int timeout_ms,
            uint8_t channel = 0);

  // One I/O-control message to the hub (at most 1024 bytes). 0 or a negative code.
  int SendIoCtrl(uint32_t type, const void* data, size_t len, uint8_t channel = 0);
  // The next I/O-control message from the hub: its length, AV_ER_TIMEOUT, or the session's end
  // code once everything received has been read.
  int RecvIoCtrl(ViewerIoCtrl* out, int timeout_ms);
  // The next video or audio frame, in the order the hub sent them: the data length,
  // AV_ER_TIMEOUT, or the end code once everything received has been read.
  int RecvFrame(ViewerFrame* out, int timeout_ms);

  // Serves a talkback channel (1..31) for the hub to join. 0 or AV_ER_INVALID_ARG.
  int OpenTalkback(uint8_t channel);
  // Waits until the hub has joined the channel: 0, AV_ER_TIMEOUT or the end code.
  int WaitTalkback(uint8_t channel, int timeout_ms);
  // One audio frame on a joined talkback channel; frames are numbered from 0 per channel.
  // 0, AV_ER_CLIENT_NO_AVLOGIN when the hub has not joined or has left, or another code.
  int SendAudio(uint8_t channel, const void* info, size_t info_len, const void* data, size_t len);
  // Stops serving the channel and tells the hub.
  int CloseTalkback(uint8_t channel);

  // Opens the RDT end on an IOTC channel (0..31) and waits up to timeout_ms for the hub's end:
  // the RDT ID (the channel), RDT_ER_TIMEOUT (the hub is told), RDT_ER_CHANNEL_OCCUPIED,
  // RDT_ER_INVALID_ARG or the session's end code.
  int RdtCreate(uint8_t channel, int timeout_ms);
  // Sends len bytes, waiting for credit: len, or an RDT code as RDT_Write.
  int RdtWrite(int id, const void* data, size_t len);
  // Up to size bytes within timeout_ms (0: no wait): their count, RDT_ER_TIMEOUT, or the end
  // code once everything received has been read (RDT_ER_REMOTE_ABORT at once).
  int RdtRead(int id, void* buf, size_t size, int timeout_ms);
  // Ends this side as RDT_Destroy / RDT_Abort do. 0 or RDT_ER_INVALID_RDT_ID.
  int RdtDestroy(int id);
  int RdtAbort(int id);
  // Bytes received and not yet read, or the channel's code when it has ended.
  int RdtPending(int id) const;

  // Says goodbye and closes the connection. Later calls return AV_ER_INVALID_SID.
  void Close();
  // Drops the connection without goodbye, as a viewer that vanishes would.
  void Abort();

  // 0 while the session is open, else the AV code of its end (AV_ER_INVALID_SID before
  // Connect and after Close or Abort).
  int status() const;

 private:
  enum class Talk { kNone, kWaiting, kJoined };
  struct RdtEnd {
    enum State { kNone, kConnecting, kOpen };
    State state = kNone;
    uint64_t gen = 0;       // changes whenever this side opens or ends the channel
    wire::RdtOpen offer{};  // the hub's open while this side has none (token 0: none)
    uint32_t token = 0;     // this end
    uint32_t peer = 0;      // the hub's end it is paired with
    uint32_t window = 0;    // the hub's window
    uint32_t credit = 0;
    std::deque<std::vector<uint8_t>> in;
    size_t in_bytes = 0, in_pos = 0;
    uint32_t unacked = 0;
    int remote_end = 0;
  };
  bool HandleRdt(const wire::Message& m);   // false: the hub broke the RDT rules
  int RdtCode(int id, uint64_t gen) const;  // expects mu_; 0 or the end code
  int RdtEndSide(int id, bool abort);
  int Send(const std::vector<uint8_t>& bytes);
  void Reader();
  bool Handle(const wire::Message& m);  // false: the session ended
  void End(int code);                   // expects mu_
  void Shutdown(bool goodbye);

  int fd_ = -1;
  int sid_ = -1;
  wire::Decoder decoder_{wire::Reader::kViewer};
  // Arrival of the message Handle is given (the reader thread's own).
  int64_t rx_first_ns_ = 0;
  int64_t rx_last_ns_ = 0;
  std::thread reader_;

  mutable std::mutex mu_;
  std::condition_variable cv_;
  int status_ = -20010;  // AV_ER_INVALID_SID until a session is open
  bool stop_ = false;
  std::array<int, wire::kMaxChannels> login_result_{};
  std::array<bool, wire::kMaxChannels> login_answered_{};
  std::array<bool, wire::kMaxChannels> server_stopped_{};
  std::array<Talk, wire::kMaxChannels> talk_{};
  std::array<uint32_t, wire::kMaxChannels> talk_no_{};
  std::deque<ViewerIoCtrl> ioctrl_;
  std::deque<ViewerFrame> frames_;
  size_t frame_bytes_ = 0;
  std::array<RdtEnd, wire::kMaxChannels> rdt_{};
  uint32_t next_rdt_token_ = 0;

  std::mutex write_mu_;
  std::chrono::steady_clock::time_point last_tx_;  // guarded by write_mu_
};

}  // namespace p2p
