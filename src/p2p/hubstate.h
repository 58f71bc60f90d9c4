// The hub side of the open P2P transport: the session, AV channel and RDT channel tables behind
// iotc.h and the network thread that moves their bytes. Only iotc.cpp, rdt.cpp and hubio.cpp
// include this.
//
// One mutex guards every table. API calls queue outgoing messages and wait on received ones;
// the network thread alone owns the sockets, reads, parses and delivers, and writes what the
// queues hold without ever making a caller wait for the network.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstring>
#include <deque>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "p2p/iotc.h"
#include "p2p/transport.h"
#include "p2p/wire.h"

namespace p2p {

using Clock = std::chrono::steady_clock;

enum class OutKind : uint8_t { kControl, kVideo, kAudio, kRdt };

// Bytes of outgoing messages. Growing a buffer leaves the new bytes unset (whoever grows it
// writes them next), so a frame's bytes are written once, not zeroed first.
template <class T>
struct UnsetAllocator : std::allocator<T> {
  template <class U>
  struct rebind {
    using other = UnsetAllocator<U>;
  };
  UnsetAllocator() = default;
  template <class U>
  UnsetAllocator(const UnsetAllocator<U>&) noexcept {}
  template <class U>
  void construct(U* p) noexcept {
    ::new (static_cast<void*>(p)) U;
  }
  template <class U, class... Args>
  void construct(U* p, Args&&... args) {
    ::new (static_cast<void*>(p)) U(std::forward<Args>(args)...);
  }
};
using OutBytes = std::vector<uint8_t, UnsetAllocator<uint8_t>>;

// Appends n bytes (one copy; the element-wise copy of a range insert is avoided).
inline void Append(OutBytes* out, const uint8_t* bytes, size_t n) {
  const size_t at = out->size();
  out->resize(at + n);
  if (n > 0) std::memcpy(out->data() + at, bytes, n);
}
inline OutBytes ToOut(const std::vector<uint8_t>& bytes) {
  OutBytes out;
  Append(&out, bytes.data(), bytes.size());
  return out;
}

struct OutMsg {
  OutBytes bytes;
  OutKind kind = OutKind::kControl;
  uint8_t channel = 0;
};

struct Session {
  enum State { kFree, kOpen, kGone };
  State state = kFree;
  uint64_t gen = 0;  // changes whenever the slot is taken or freed
  uint64_t conn_id = 0;
  bool remote_bye = false;  // kGone: said goodbye (true) or the link was lost (false)
  std::deque<OutMsg> control, media;
  size_t control_bytes = 0, media_bytes = 0;
  struct PendingLogin {
    bool present = false;
    std::string account, text;
  };
  std::array<PendingLogin, wire::kMaxChannels> logins;  // viewer AV logins not yet served
  std::array<int, wire::kMaxChannels> bound;            // AV channel index per IOTC channel
  std::array<bool, wire::kMaxChannels> serving;         // avServStart3 waiting on the channel
  // Reliable transfer: its own part of the send queue (chunks and the closes that follow them),
  // bounded by the viewer's window per channel.
  std::deque<OutMsg> rdt;
  std::array<int, wire::kMaxChannels> rdt_bound;  // RDT ID per IOTC channel, -1: none
  std::array<wire::RdtOpen, wire::kMaxChannels>
      rdt_offer;  // a viewer's open not yet met (token 0: none)
  std::array<uint32_t, wire::kMaxChannels> rdt_queued;  // data bytes per channel in rdt
  std::string uid, ip;
  uint16_t port = 0;
  uint32_t viewer_version = 0;
  unsigned long tx = 0, rx = 0;
};

struct AvChannel {
  enum State { kFree, kConnecting, kOpen, kStopped };
  State state = kFree;
  bool server = true;
  int sid = -1;
  uint64_t session_gen = 0;
  uint8_t channel = 0;
  uint64_t gen = 0;  // changes whenever the slot is taken or freed
  std::deque<wire::IoCtrl> ioctrl;
  std::deque<wire::Frame> audio;
  size_t audio_bytes = 0;
  bool lost = false;
  bool answered = false;  // kConnecting: the viewer answered the join
  int32_t answer = 0;
  uint32_t service_type = 0;
  uint32_t video_no = 0, audio_no = 0;
};

// One end of an RDT channel on the hub.
struct RdtChannel {
  enum State { kFree, kConnecting, kOpen };
  State state = kFree;
  int sid = -1;
  uint64_t session_gen = 0;
  uint8_t channel = 0;
  uint64_t gen = 0;                     // changes whenever the slot is taken or freed
  uint32_t token = 0;                   // this end, as named in its messages
  uint32_t peer = 0;                    // the viewer's end it is paired with
  uint32_t window = 0;                  // the viewer's window
  uint32_t credit = 0;                  // bytes that may still be sent
  std::deque<std::vector<uint8_t>> in;  // received chunks not yet read
  size_t in_bytes = 0;
  size_t in_pos = 0;     // bytes of in.front() already read
  uint32_t unacked = 0;  // bytes read and not yet credited back
  int remote_end = 0;    // 0, RDT_ER_REMOTE_EXIT or RDT_ER_REMOTE_ABORT
};

// A socket of the network thread: waiting for its session request, carrying a session, or
// lingering to deliver its last messages.
struct Conn {
  enum Phase { kHello, kSession, kLinger };
  int fd = -1;
  uint64_t id = 0;
  Phase phase = kHello;
  int sid = -1;
  uint64_t session_gen = 0;
  wire::Decoder decoder{wire::Reader::kHub};
  OutBytes out;
  size_t out_pos = 0;
  bool shut = false;  // kLinger: write side already shut down
  Clock::time_point last_rx, last_tx, deadline;
  std::string ip;
  uint16_t port = 0;
};

class HubTransport {
 public:
  static HubTransport& Get();

  void SetMaxSessions(unsigned n);
  int Initialize(uint16_t port);
  int DeInitialize();
  void SetLoginCallback(loginInfoCB cb);
  int DeviceLogin(const char* uid, const char* password);
  int Listen(unsigned timeout_ms);
  int SessionCheck(int sid, st_SInfo* info);
  int SessionClose(int sid);

  int AvInitialize(int channels);
  int AvDeInitialize();
  int ServStart(int sid, authFn fn, unsigned timeout_s, unsigned serv_type, unsigned ch,
                int* resend);
  int ClientStart(int sid, const char* account, const char* password, unsigned timeout_s,
                  unsigned* serv_type, unsigned ch, int* resend);
  void StopChannel(int idx);
  int SendFrame(int idx, OutKind kind, int size, const void* info, int info_size,
                avFrameFillFn fill, void* ctx);
  int SendIoCtrl(int idx, unsigned type, const char* data, int size);
  int RecvIoCtrl(int idx, unsigned* type, char* buf, int size, unsigned timeout_ms);
  int RecvAudio(int idx, char* buf, int size, char* info, int info_size, unsigned* frame_no);
  int ResetBuffer(int idx, AV_RESET_TARGET target);
  void CleanAudio(int idx);

  // Reliable transfer (rdt.cpp).
  int RdtInitialize();
  int RdtDeInitialize();
  int RdtCreate(int sid, int timeout_ms, int ch);
  int RdtWrite(int id, const char* data, int size);
  int RdtRead(int id, char* buf, int size, int timeout_ms);
  int RdtEnd(int id, bool abort);
  int RdtStatus(int id, st_RDT_Status* status);

 private:
  HubTransport();

  // All of these expect mu_ to be held.
  int AvStatus(int idx, bool sending) const;
  int SessionStatus(int sid, uint64_t gen) const;  // 0 or the AV code of a closed session
  // 0 when AV is up, the session open and its channel ch neither bound nor being served; gen is
  // then the session's generation. Else the AV code.
  int ChannelFree(int sid, unsigned ch, uint64_t* gen) const;
  int AllocAv();
  void FreeAv(int idx);
  void PushControl(Session& s, const std::vector<uint8_t>& bytes, uint8_t channel);
  void DropMedia(Session& s, uint8_t channel, bool video, bool audio);
  // Message buffers that went out, kept for the next frames so that a frame costs no allocation
  // and touches no fresh page. Both under spare_mu_.
  OutBytes TakeBuffer(size_t size);
  void KeepBuffer(OutBytes buffer);
  void ResetSession(Session& s);
  void Wake();
  // RDT, with mu_ held (rdt.cpp).
  int RdtState(int id, uint64_t gen) const;  // 0 or the channel's end code for a send
  void FreeRdt(int id);
  // A viewer's RDT message on the session; false with *violation set when it breaks the rules.
  bool DeliverRdt(Session& s, const wire::Message& m, std::string* violation);
  // Moves RDT chunks into a write batch: one always, more while no media or control waits and
  // the batch has room.
  void TakeRdt(Session& s, OutBytes* out, size_t batch);

  // Network thread (hubio.cpp).
  void Run();
  void AcceptAll(Clock::time_point now);
  bool ReadConn(Conn& c, Clock::time_point now);
  bool WriteConn(Conn& c, Clock::time_point now);
  bool HandleHello(Conn& c, const wire::Message& m, Clock::time_point now);
  bool Deliver(Conn& c, const std::vector<wire::Message>& msgs);
  void Lose(Conn& c, const std::string& why);
  void StartLinger(Conn& c, Clock::time_point now);
  void CloseConn(Conn& c);

  std::mutex lifecycle_mu_;  // serialises Initialize and DeInitialize
  mutable std::mutex mu_;
  std::condition_variable cv_;

  // IOTC state.
  bool initialized_ = false;
  unsigned max_sessions_ = kDefaultMaxSessions;
  uint64_t init_gen_ = 0;  // changes at every IOTC_DeInitialize
  bool listening_ = false;
  std::deque<int> accepted_;  // sessions opened and not yet returned by IOTC_Listen
  unsigned refused_ = 0;      // viewers refused for lack of room since the last IOTC_Listen
  std::string uid_;
  std::string fixed_password_;
  loginInfoCB login_cb_ = nullptr;
  std::array<Session, kSessionCapacity> sessions_;
  LinkTimeouts timing_;
  uint64_t next_conn_id_ = 1;
  std::vector<std::pair<uint64_t, std::vector<uint8_t>>> close_orders_;

  // AV state.
  bool av_initialized_ = false;
  int av_capacity_ = 0;
  int av_next_ = 0;
  std::array<AvChannel, kAvCapacity> av_;
  std::mutex spare_mu_;  // never held together with mu_
  std::vector<OutBytes> spare_;
  size_t spare_bytes_ = 0;

  // RDT state.
  bool rdt_initialized_ = false;
  std::array<RdtChannel, kRdtCapacity> rdt_;
  uint32_t next_rdt_token_ = 0;

  // Network thread and what only it touches.
  std::thread thread_;
  bool stop_ = false;  // guarded by mu_
  int listen_fd_ = -1;
  int wake_fd_ = -1;
  std::atomic<bool> wake_pending_{false};  // wake_fd_ written and not yet read
  std::vector<std::unique_ptr<Conn>> conns_;
};

}  // namespace p2p
