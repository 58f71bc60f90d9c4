// The RDT calls of iotc.h: reliable byte streams over a session, with credit flow control.
//
// Each end announces its receive window (RDT_OPEN); the other end sends data chunks only while
// it has credit, and the reader gives credit back (RDT_CREDIT) as the application reads. So the
// hub never holds more than one window per channel in its send queue or its receive buffer,
// however slowly or badly the viewer behaves: a viewer that sends beyond the window, gives more
// credit than it was owed, or opens twice breaks the protocol and loses its session.
//
// Chunks wait in the session's own RDT part of the send queue; the network thread (hubio.cpp)
// takes them after control and media, one at least per write batch (TakeRdt), so a transfer
// neither starves nor delays a frame by more than one chunk. RDT_Write waits for credit on the
// caller's thread, never on the network thread. Everything here runs under mu_.
#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "p2p/hubstate.h"

namespace p2p {

namespace {

// The read bytes credited back at once: an eighth of the window keeps the writer going while
// the reader is still busy with the rest.
constexpr uint32_t kCreditStep = kRdtWindow / 8;

bool IsRdtData(const OutMsg& m) {
  return m.bytes.size() > 2 && m.bytes[2] == static_cast<uint8_t>(wire::MsgType::kRdtData);
}

}  // namespace

int RdtCodeOfSession(int av_status) {
  switch (av_status) {
    case 0:
      return 0;
    case AV_ER_SESSION_CLOSE_BY_REMOTE:
      return RDT_ER_SESSION_CLOSE_BY_REMOTE;
    case AV_ER_REMOTE_TIMEOUT_DISCONNECT:
      return RDT_ER_REMOTE_TIMEOUT_DISCONNECT;
    default:
      return RDT_ER_SESSION_CLOSED;
  }
}

int HubTransport::RdtState(int id, uint64_t gen) const {
  if (!rdt_initialized_) return RDT_ER_NOT_INITIALIZED;
  const RdtChannel& r = rdt_[id];
  if (r.gen != gen || r.state == RdtChannel::kFree) return RDT_ER_LOCAL_ABORT;
  if (int st = RdtCodeOfSession(SessionStatus(r.sid, r.session_gen))) return st;
  return r.remote_end;
}

void HubTransport::FreeRdt(int id) {
  RdtChannel& r = rdt_[id];
  if (r.sid >= 0) {
    Session& s = sessions_[r.sid];
    if (s.gen == r.session_gen && s.rdt_bound[r.channel] == id) s.rdt_bound[r.channel] = -1;
  }
  const uint64_t gen = r.gen + 1;
  r = RdtChannel();
  r.gen = gen;
}

int HubTransport::RdtInitialize() {
  std::lock_guard<std::mutex> lock(mu_);
  rdt_initialized_ = true;
  return 1;
}

int HubTransport::RdtDeInitialize() {
  std::lock_guard<std::mutex> lock(mu_);
  for (int id = 0; id < kRdtCapacity; ++id) {
    RdtChannel& r = rdt_[id];
    if (r.state == RdtChannel::kFree) continue;
    Session& s = sessions_[r.sid];
    if (s.gen == r.session_gen && s.state == Session::kOpen)
      PushControl(s, wire::EncodeRdtClose(r.channel, {wire::kRdtCloseAbort, r.token}), r.channel);
    FreeRdt(id);
  }
  rdt_initialized_ = false;
  cv_.notify_all();
  return 0;
}

int HubTransport::RdtCreate(int sid, int timeout_ms, int ch) {
  if (ch < 0 || ch >= static_cast<int>(wire::kMaxChannels) || timeout_ms < 0 || sid < 0 ||
      sid >= static_cast<int>(kSessionCapacity))
    return RDT_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (!rdt_initialized_) return RDT_ER_NOT_INITIALIZED;
  Session& s = sessions_[sid];
  const uint64_t session_gen = s.gen;
  if (int st = RdtCodeOfSession(SessionStatus(sid, session_gen))) return st;
  // A channel is taken while an RDT end is bound to it or the last one's bytes are still queued.
  const bool draining =
      std::any_of(s.rdt.begin(), s.rdt.end(), [&](const OutMsg& m) { return m.channel == ch; });
  if (s.rdt_bound[ch] >= 0 || draining) return RDT_ER_CHANNEL_OCCUPIED;
  int id = -1;
  for (int i = 0; i < kRdtCapacity; ++i) {
    if (rdt_[i].state == RdtChannel::kFree) {
      id = i;
      break;
    }
  }
  if (id < 0) {
    TLOG(LOG_WARNING) << "P2P session " << sid << ": every RDT channel is in use";
    return RDT_ER_EXCEED_MAX_CHANNEL;
  }
  RdtChannel& r = rdt_[id];
  const uint64_t gen = r.gen + 1;
  r = RdtChannel();
  r.gen = gen;
  r.state = RdtChannel::kConnecting;
  r.sid = sid;
  r.session_gen = session_gen;
  r.channel = static_cast<uint8_t>(ch);
  if (++next_rdt_token_ == 0) ++next_rdt_token_;
  r.token = next_rdt_token_;
  s.rdt_bound[ch] = id;
  // A viewer's end already waiting is met at once; else the viewer's open pairs the two.
  wire::RdtOpen open{kRdtWindow, r.token, 0};
  if (s.rdt_offer[ch].token != 0) {
    r.peer = open.answer = s.rdt_offer[ch].token;
    r.window = std::min(s.rdt_offer[ch].window, kRdtWindow);
    r.credit = r.window;
    r.state = RdtChannel::kOpen;
    s.rdt_offer[ch] = wire::RdtOpen();
  }
  PushControl(s, wire::EncodeRdtOpen(r.channel, open), r.channel);
  const auto deadline = timeout_ms == 0 ? Clock::now() + std::chrono::hours(24 * 365)
                                        : Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    // Opened: the viewer may already have written and ended its end; the reads give its bytes
    // first and the end's code after them.
    if (r.gen == gen && r.state == RdtChannel::kOpen) break;
    if (int st = RdtState(id, gen)) {
      if (r.gen == gen) FreeRdt(id);
      return st;
    }
    if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline &&
        r.gen == gen && r.state != RdtChannel::kOpen) {
      if (s.gen == session_gen && s.state == Session::kOpen)
        PushControl(s, wire::EncodeRdtClose(r.channel, {wire::kRdtCloseAbort, r.token}), r.channel);
      FreeRdt(id);
      TLOG(LOG_DEBUG) << "P2P session " << sid << ": no RDT open on channel " << ch << " in "
                      << timeout_ms << " ms";
      return RDT_ER_TIMEOUT;
    }
  }
  TLOG(LOG_DEBUG) << "P2P session " << sid << ": RDT on channel " << ch << " is ID " << id
                  << ", viewer window " << r.window;
  return id;
}

int HubTransport::RdtWrite(int id, const char* data, int size) {
  if (data == nullptr || size <= 0) return RDT_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (!rdt_initialized_) return RDT_ER_NOT_INITIALIZED;
  if (id < 0 || id >= kRdtCapacity || rdt_[id].state != RdtChannel::kOpen)
    return RDT_ER_INVALID_RDT_ID;
  const uint64_t gen = rdt_[id].gen;
  size_t done = 0;
  const size_t total = static_cast<size_t>(size);
  for (;;) {
    if (int st = RdtState(id, gen)) return st;
    RdtChannel& r = rdt_[id];
    Session& s = sessions_[r.sid];
    bool queued = false;
    while (r.credit > 0 && done < total) {
      const size_t n = std::min({static_cast<size_t>(r.credit), wire::kMaxRdtData, total - done});
      s.rdt.push_back(
          OutMsg{ToOut(wire::EncodeRdtData(r.channel, data + done, n)), OutKind::kRdt, r.channel});
      s.rdt_queued[r.channel] += static_cast<uint32_t>(n);
      r.credit -= static_cast<uint32_t>(n);
      done += n;
      queued = true;
    }
    if (queued) Wake();
    if (done == total) return size;
    // Every end of the wait notifies; the period only bounds the cost of a missed one.
    cv_.wait_for(lock, std::chrono::seconds(1));
  }
}

int HubTransport::RdtRead(int id, char* buf, int size, int timeout_ms) {
  if (buf == nullptr || size <= 0 || timeout_ms < 0) return RDT_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (!rdt_initialized_) return RDT_ER_NOT_INITIALIZED;
  if (id < 0 || id >= kRdtCapacity || rdt_[id].state != RdtChannel::kOpen)
    return RDT_ER_INVALID_RDT_ID;
  const uint64_t gen = rdt_[id].gen;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  for (;;) {
    RdtChannel& r = rdt_[id];
    if (r.gen != gen) return RdtState(id, gen);
    if (r.remote_end == RDT_ER_REMOTE_ABORT) return RDT_ER_REMOTE_ABORT;
    if (r.in_bytes > 0) {
      size_t got = 0;
      while (got < static_cast<size_t>(size) && !r.in.empty()) {
        auto& front = r.in.front();
        const size_t n = std::min(front.size() - r.in_pos, static_cast<size_t>(size) - got);
        std::memcpy(buf + got, front.data() + r.in_pos, n);
        got += n;
        r.in_pos += n;
        if (r.in_pos == front.size()) {
          r.in.pop_front();
          r.in_pos = 0;
        }
      }
      r.in_bytes -= got;
      r.unacked += static_cast<uint32_t>(got);
      Session& s = sessions_[r.sid];
      if (r.unacked >= kCreditStep && r.remote_end == 0 && s.gen == r.session_gen &&
          s.state == Session::kOpen) {
        PushControl(s, wire::EncodeRdtCredit(r.channel, r.unacked), r.channel);
        r.unacked = 0;
      }
      return static_cast<int>(got);
    }
    if (int st = RdtState(id, gen)) return st;
    if (timeout_ms == 0) return RDT_ER_TIMEOUT;
    if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline &&
        r.gen == gen && r.in_bytes == 0 && RdtState(id, gen) == 0)
      return RDT_ER_TIMEOUT;
  }
}

int HubTransport::RdtEnd(int id, bool abort) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!rdt_initialized_) return RDT_ER_NOT_INITIALIZED;
  if (id < 0 || id >= kRdtCapacity || rdt_[id].state == RdtChannel::kFree)
    return RDT_ER_INVALID_RDT_ID;
  RdtChannel& r = rdt_[id];
  Session& s = sessions_[r.sid];
  const uint8_t ch = r.channel;
  if (s.gen == r.session_gen && s.state == Session::kOpen) {
    if (abort || r.remote_end == RDT_ER_REMOTE_ABORT) {
      s.rdt.erase(std::remove_if(s.rdt.begin(), s.rdt.end(),
                                 [&](const OutMsg& m) { return m.channel == ch; }),
                  s.rdt.end());
      s.rdt_queued[ch] = 0;
      PushControl(s, wire::EncodeRdtClose(ch, {wire::kRdtCloseAbort, r.token}), ch);
    } else {
      // Behind the channel's data, so the viewer reads all of it before the end.
      s.rdt.push_back(OutMsg{ToOut(wire::EncodeRdtClose(ch, {wire::kRdtCloseExit, r.token})),
                             OutKind::kRdt, ch});
      Wake();
    }
  }
  TLOG(LOG_DEBUG) << "P2P session " << r.sid << ": RDT ID " << id << " on channel "
                  << static_cast<int>(ch) << (abort ? " aborted" : " destroyed");
  FreeRdt(id);
  cv_.notify_all();
  return RDT_ER_NoERROR;
}

int HubTransport::RdtStatus(int id, st_RDT_Status* status) {
  if (status == nullptr) return RDT_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (!rdt_initialized_) return RDT_ER_NOT_INITIALIZED;
  if (id < 0 || id >= kRdtCapacity || rdt_[id].state != RdtChannel::kOpen)
    return RDT_ER_INVALID_RDT_ID;
  const RdtChannel& r = rdt_[id];
  const Session& s = sessions_[r.sid];
  std::memset(status, 0, sizeof *status);
  if (s.gen == r.session_gen) status->BufSizeInSendQueue = s.rdt_queued[r.channel];
  status->BufSizeInRecvQueue = static_cast<unsigned>(r.in_bytes);
  return RdtState(id, r.gen);
}

bool HubTransport::DeliverRdt(Session& s, const wire::Message& m, std::string* violation) {
  using wire::MsgType;
  const uint8_t ch = m.channel;
  const int id = s.rdt_bound[ch];
  RdtChannel* r = id >= 0 ? &rdt_[id] : nullptr;
  const std::string where = " on channel " + std::to_string(ch);
  switch (static_cast<MsgType>(m.type)) {
    case MsgType::kRdtOpen: {
      wire::RdtOpen o;
      if (!wire::ParseRdtOpen(m.payload, &o)) {
        *violation = "malformed RDT open";
      } else if (o.answer != 0 && (r == nullptr || r->token != o.answer)) {
        // It meets an end of this side that has gone (a create that timed out): stale.
      } else if (r != nullptr && r->state == RdtChannel::kConnecting) {
        // RDT_Create waits for it: the channel opens here, before data that may follow.
        r->peer = o.token;
        r->window = std::min(o.window, kRdtWindow);
        r->credit = r->window;
        r->state = RdtChannel::kOpen;
        cv_.notify_all();
      } else if (r != nullptr && r->remote_end == 0) {
        *violation = "second RDT open" + where;
      } else {
        // No end here, or only one the viewer has already ended: kept for the next create.
        s.rdt_offer[ch] = o;
        cv_.notify_all();
      }
      break;
    }
    case MsgType::kRdtData:
      if (m.payload.empty()) {
        *violation = "empty RDT data" + where;
      } else if (r != nullptr && r->state == RdtChannel::kOpen && r->remote_end == 0) {
        if (r->in_bytes + m.payload.size() > kRdtWindow) {
          *violation = "RDT data beyond the window" + where;
        } else {
          r->in_bytes += m.payload.size();
          r->in.push_back(m.payload);
          cv_.notify_all();
        }
      }
      // Otherwise it belongs to an end that has gone on either side and was on its way: dropped.
      break;
    case MsgType::kRdtCredit: {
      uint32_t bytes = 0;
      if (!wire::ParseRdtCredit(m.payload, &bytes)) {
        *violation = "malformed RDT credit";
      } else if (r != nullptr && r->state == RdtChannel::kOpen) {
        if (bytes > r->window - r->credit) {
          *violation = "RDT credit beyond the window" + where;
        } else {
          r->credit += bytes;
          cv_.notify_all();
        }
      }
      break;
    }
    case MsgType::kRdtClose: {
      wire::RdtClose c;
      if (!wire::ParseRdtClose(m.payload, &c)) {
        *violation = "malformed RDT close";
      } else if (r != nullptr && r->state == RdtChannel::kOpen && r->peer == c.token) {
        if (r->remote_end == 0)
          r->remote_end =
              c.reason == wire::kRdtCloseExit ? RDT_ER_REMOTE_EXIT : RDT_ER_REMOTE_ABORT;
        if (c.reason == wire::kRdtCloseAbort) {
          r->in.clear();
          r->in_bytes = r->in_pos = 0;
        }
        // Nobody will read what is still queued for the viewer.
        s.rdt.erase(std::remove_if(s.rdt.begin(), s.rdt.end(),
                                   [&](const OutMsg& o) { return o.channel == ch; }),
                    s.rdt.end());
        s.rdt_queued[ch] = 0;
        cv_.notify_all();
      } else if (s.rdt_offer[ch].token == c.token) {
        s.rdt_offer[ch] = wire::RdtOpen();
      }
      break;
    }
    default:
      break;
  }
  return violation->empty();
}

void HubTransport::TakeRdt(Session& s, OutBytes* out, size_t batch) {
  bool first = true;
  while (!s.rdt.empty()) {
    OutMsg& m = s.rdt.front();
    if (!first && (out->size() + m.bytes.size() > batch || !s.control.empty() || !s.media.empty()))
      break;
    if (IsRdtData(m))
      s.rdt_queued[m.channel] -= static_cast<uint32_t>(m.bytes.size() - wire::kHeaderSize);
    Append(out, m.bytes.data(), m.bytes.size());
    s.rdt.pop_front();
    ++s.tx;
    first = false;
  }
}

}  // namespace p2p

using p2p::HubTransport;

extern "C" {

int RDT_Initialize(void) {
  return HubTransport::Get().RdtInitialize();
}

int RDT_DeInitialize(void) {
  return HubTransport::Get().RdtDeInitialize();
}

int RDT_Create(int nIOTCSessionID, int nTimeout_ms, int nIOTCChannelID) {
  return HubTransport::Get().RdtCreate(nIOTCSessionID, nTimeout_ms, nIOTCChannelID);
}

int RDT_Write(int nRDTChannelID, const char* cabData, int nDataSize) {
  return HubTransport::Get().RdtWrite(nRDTChannelID, cabData, nDataSize);
}

int RDT_Read(int nRDTChannelID, char* abBuf, int nBufSize, int nTimeout_ms) {
  return HubTransport::Get().RdtRead(nRDTChannelID, abBuf, nBufSize, nTimeout_ms);
}

int RDT_Destroy(int nRDTChannelID) {
  return HubTransport::Get().RdtEnd(nRDTChannelID, false);
}

int RDT_Abort(int nRDTChannelID) {
  return HubTransport::Get().RdtEnd(nRDTChannelID, true);
}

int RDT_Status_Check(int nRDTChannelID, struct st_RDT_Status* psRDT_Status) {
  return HubTransport::Get().RdtStatus(nRDTChannelID, psRDT_Status);
}

}  // extern "C"
