// The IOTC, AV and RDT calls of iotc.h over the session and AV channel tables of the open
// transport. The network side lives in hubio.cpp.
#include "p2p/iotc.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "base/log.h"
#include "p2p/hubstate.h"

namespace p2p {

namespace {

std::mutex g_timing_mu;
LinkTimeouts g_timing;

bool ValidUid(const char* uid) {
  if (uid == nullptr) return false;
  const size_t n = strnlen(uid, wire::kMaxUid + 1);
  if (n == 0 || n > wire::kMaxUid) return false;
  for (size_t i = 0; i < n; ++i) {
    const unsigned char c = static_cast<unsigned char>(uid[i]);
    if (c <= ' ' || c >= 0x7f) return false;
  }
  return true;
}

// Deadline of a wait; a year away when the time-out is 0 (no limit).
Clock::time_point DeadlineAfter(std::chrono::milliseconds timeout) {
  if (timeout.count() == 0) return Clock::now() + std::chrono::hours(24 * 365);
  return Clock::now() + timeout;
}

}  // namespace

void SetLinkTimeouts(const LinkTimeouts& timeouts) {
  std::lock_guard<std::mutex> lock(g_timing_mu);
  g_timing = timeouts;
}

LinkTimeouts GetLinkTimeouts() {
  std::lock_guard<std::mutex> lock(g_timing_mu);
  return g_timing;
}

HubTransport::HubTransport() {
  for (auto& s : sessions_) ResetSession(s);
}

HubTransport& HubTransport::Get() {
  // Never destroyed: detached hub threads may still be inside a call when the process exits.
  static HubTransport* hub = new HubTransport();
  return *hub;
}

void HubTransport::ResetSession(Session& s) {
  s.state = Session::kFree;
  ++s.gen;
  s.conn_id = 0;
  s.remote_bye = false;
  s.control.clear();
  s.media.clear();
  s.control_bytes = s.media_bytes = 0;
  for (auto& l : s.logins) l = Session::PendingLogin();
  s.bound.fill(-1);
  s.serving.fill(false);
  s.rdt.clear();
  s.rdt_bound.fill(-1);
  s.rdt_offer.fill(wire::RdtOpen());
  s.rdt_queued.fill(0);
  s.uid.clear();
  s.ip.clear();
  s.port = 0;
  s.viewer_version = 0;
  s.tx = s.rx = 0;
}

void HubTransport::Wake() {
  // One wake-up until the network thread has taken it: it looks at every queue after that.
  if (wake_fd_ < 0 || wake_pending_.exchange(true)) return;
  const uint64_t one = 1;
  ssize_t n = write(wake_fd_, &one, sizeof one);
  (void)n;
}

void HubTransport::PushControl(Session& s, const std::vector<uint8_t>& bytes, uint8_t channel) {
  s.control_bytes += bytes.size();
  s.control.push_back(OutMsg{ToOut(bytes), OutKind::kControl, channel});
  Wake();
}

void HubTransport::DropMedia(Session& s, uint8_t channel, bool video, bool audio) {
  auto drop = [&](const OutMsg& m) {
    if (m.channel != channel) return false;
    if (!(m.kind == OutKind::kVideo ? video : audio)) return false;
    s.media_bytes -= m.bytes.size();
    return true;
  };
  s.media.erase(std::remove_if(s.media.begin(), s.media.end(), drop), s.media.end());
}

// ---- IOTC --------------------------------------------------------------------------------------

void HubTransport::SetMaxSessions(unsigned n) {
  std::lock_guard<std::mutex> lock(mu_);
  max_sessions_ = std::clamp(n, 1u, kSessionCapacity);
  TLOG(LOG_DEBUG) << "P2P sessions at most: " << max_sessions_;
}

void HubTransport::SetLoginCallback(loginInfoCB cb) {
  std::lock_guard<std::mutex> lock(mu_);
  login_cb_ = cb;
}

int HubTransport::DeviceLogin(const char* uid, const char* password) {
  if (!ValidUid(uid)) {
    TLOG(LOG_WARNING) << "P2P device login refused: the uid must be 1 to " << wire::kMaxUid
                      << " printable characters";
    return IOTC_ER_INVALID_ARG;
  }
  loginInfoCB cb = nullptr;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!initialized_) return IOTC_ER_NOT_INITIALIZED;
    uid_ = uid;
    fixed_password_.clear();
    if (password != nullptr)
      fixed_password_.assign(password, strnlen(password, wire::kMaxPassword));
    cb = login_cb_;
  }
  TLOG(LOG_DEBUG) << "P2P device logged in as " << uid;
  if (cb != nullptr) cb(IOTC_LOGIN_LISTENING | IOTC_LOGIN_ACCEPTING);
  return IOTC_ER_NoERROR;
}

int HubTransport::Listen(unsigned timeout_ms) {
  std::unique_lock<std::mutex> lock(mu_);
  if (!initialized_) return IOTC_ER_NOT_INITIALIZED;
  if (listening_) return IOTC_ER_LISTEN_ALREADY_CALLED;
  listening_ = true;
  const uint64_t gen = init_gen_;
  const auto deadline = DeadlineAfter(std::chrono::milliseconds(timeout_ms));
  int result = IOTC_ER_TIMEOUT;
  for (;;) {
    if (init_gen_ != gen) {
      // The transport went down under this call: listening_ belongs to the next start now.
      return IOTC_ER_EXIT_LISTEN;
    }
    if (!accepted_.empty()) {
      result = accepted_.front();
      accepted_.pop_front();
      break;
    }
    if (refused_ > 0) {
      refused_ = 0;
      result = IOTC_ER_EXCEED_MAX_SESSION;
      break;
    }
    if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline) {
      if (init_gen_ != gen) return IOTC_ER_EXIT_LISTEN;
      if (accepted_.empty() && refused_ == 0) break;
    }
  }
  listening_ = false;
  return result;
}

int HubTransport::SessionCheck(int sid, st_SInfo* info) {
  if (info == nullptr) return IOTC_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (!initialized_) return IOTC_ER_NOT_INITIALIZED;
  if (sid < 0 || sid >= static_cast<int>(kSessionCapacity)) return IOTC_ER_INVALID_SID;
  const Session& s = sessions_[sid];
  if (s.state == Session::kFree) return IOTC_ER_INVALID_SID;
  std::memset(info, 0, sizeof *info);
  // Private, link-local and loopback addresses are the local network; there is no relay.
  unsigned a = 0, b = 0, c = 0, d = 0;
  info->Mode = IOTC_MODE_P2P;
  if (sscanf(s.ip.c_str(), "%u.%u.%u.%u", &a, &b, &c, &d) == 4) {
    if (a == 10 || a == 127 || (a == 172 && b >= 16 && b <= 31) || (a == 192 && b == 168) ||
        (a == 169 && b == 254))
      info->Mode = IOTC_MODE_LAN;
  }
  info->CorD = 1;
  snprintf(info->UID, sizeof info->UID, "%s", s.uid.c_str());
  snprintf(info->RemoteIP, sizeof info->RemoteIP, "%s", s.ip.c_str());
  info->RemotePort = s.port;
  info->TX_Packetcount = s.tx;
  info->RX_Packetcount = s.rx;
  info->IOTCVersion = s.viewer_version;
  if (s.state == Session::kGone)
    return s.remote_bye ? IOTC_ER_SESSION_CLOSE_BY_REMOTE : IOTC_ER_REMOTE_TIMEOUT_DISCONNECT;
  return IOTC_ER_NoERROR;
}

int HubTransport::SessionClose(int sid) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!initialized_) return IOTC_ER_NOT_INITIALIZED;
  if (sid < 0 || sid >= static_cast<int>(kSessionCapacity)) return IOTC_ER_INVALID_SID;
  Session& s = sessions_[sid];
  if (s.state == Session::kFree) return IOTC_ER_INVALID_SID;
  if (s.state == Session::kOpen) {
    // The answers already queued (a refused login, say) still reach the viewer, then goodbye.
    std::vector<uint8_t> last;
    for (const auto& m : s.control) last.insert(last.end(), m.bytes.begin(), m.bytes.end());
    const auto bye = wire::EncodeEmpty(wire::MsgType::kBye, 0);
    last.insert(last.end(), bye.begin(), bye.end());
    close_orders_.emplace_back(s.conn_id, std::move(last));
    Wake();
  }
  accepted_.erase(std::remove(accepted_.begin(), accepted_.end(), sid), accepted_.end());
  TLOG(LOG_DEBUG) << "P2P session " << sid << " closed";
  ResetSession(s);
  cv_.notify_all();
  return IOTC_ER_NoERROR;
}

// ---- AV ----------------------------------------------------------------------------------------

int HubTransport::AvInitialize(int channels) {
  if (channels < 1 || channels > kAvCapacity) return AV_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (!av_initialized_) {
    av_initialized_ = true;
    av_capacity_ = channels;
    av_next_ = 0;
  }
  return av_capacity_;
}

int HubTransport::AvDeInitialize() {
  std::lock_guard<std::mutex> lock(mu_);
  for (int i = 0; i < av_capacity_; ++i)
    if (av_[i].state != AvChannel::kFree) FreeAv(i);
  av_initialized_ = false;
  av_capacity_ = 0;
  cv_.notify_all();
  return AV_ER_NoERROR;
}

int HubTransport::AllocAv() {
  // Round robin: an index just given up is the last to be handed out again, so a stale index
  // kept by a caller keeps reporting its channel closed for as long as possible.
  for (int k = 0; k < av_capacity_; ++k) {
    const int i = (av_next_ + k) % av_capacity_;
    if (av_[i].state == AvChannel::kFree) {
      av_next_ = (i + 1) % av_capacity_;
      AvChannel& a = av_[i];
      const uint64_t gen = a.gen + 1;
      a = AvChannel();
      a.gen = gen;
      return i;
    }
  }
  return -1;
}

void HubTransport::FreeAv(int idx) {
  AvChannel& a = av_[idx];
  if (a.sid >= 0) {
    Session& s = sessions_[a.sid];
    if (s.gen == a.session_gen && s.bound[a.channel] == idx) s.bound[a.channel] = -1;
  }
  const uint64_t gen = a.gen + 1;
  a = AvChannel();
  a.gen = gen;
}

int HubTransport::SessionStatus(int sid, uint64_t gen) const {
  const Session& s = sessions_[sid];
  if (s.state == Session::kFree || s.gen != gen) return AV_ER_INVALID_SID;
  if (s.state == Session::kGone)
    return s.remote_bye ? AV_ER_SESSION_CLOSE_BY_REMOTE : AV_ER_REMOTE_TIMEOUT_DISCONNECT;
  return 0;
}

int HubTransport::ChannelFree(int sid, unsigned ch, uint64_t* gen) const {
  if (!av_initialized_) return AV_ER_NOT_INITIALIZED;
  if (sid < 0 || sid >= static_cast<int>(kSessionCapacity)) return AV_ER_INVALID_SID;
  const Session& s = sessions_[sid];
  *gen = s.gen;
  if (int st = SessionStatus(sid, s.gen)) return st;
  if (s.bound[ch] >= 0 || s.serving[ch]) return AV_ER_INVALID_ARG;
  return 0;
}

int HubTransport::AvStatus(int idx, bool sending) const {
  if (!av_initialized_) return AV_ER_NOT_INITIALIZED;
  if (idx < 0 || idx >= av_capacity_) return AV_ER_INVALID_ARG;
  const AvChannel& a = av_[idx];
  if (a.state == AvChannel::kFree || a.state == AvChannel::kConnecting) return AV_ER_INVALID_SID;
  const int st = SessionStatus(a.sid, a.session_gen);
  if (st == AV_ER_INVALID_SID) return sending ? AV_ER_INVALID_SID : AV_ER_IOTC_SESSION_CLOSED;
  if (st != 0) return st;
  if (a.state == AvChannel::kStopped) {
    if (!a.server) return AV_ER_SERVER_EXIT;
    return sending ? AV_ER_CLIENT_NO_AVLOGIN : AV_ER_CLIENT_EXIT;
  }
  return 0;
}

int HubTransport::ServStart(int sid, authFn fn, unsigned timeout_s, unsigned serv_type, unsigned ch,
                            int* resend) {
  if (fn == nullptr || ch >= wire::kMaxChannels) return AV_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  uint64_t gen = 0;
  if (int st = ChannelFree(sid, ch, &gen)) return st;
  Session& s = sessions_[sid];
  s.serving[ch] = true;
  const auto deadline = DeadlineAfter(std::chrono::seconds(timeout_s));
  for (;;) {
    if (!av_initialized_) {
      if (s.gen == gen) s.serving[ch] = false;
      return AV_ER_NOT_INITIALIZED;
    }
    if (int st = SessionStatus(sid, gen)) {
      if (s.gen == gen) s.serving[ch] = false;
      return st;
    }
    if (s.logins[ch].present) break;
    if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline &&
        !s.logins[ch].present) {
      s.serving[ch] = false;
      TLOG(LOG_DEBUG) << "P2P session " << sid << ": no AV login on channel " << ch << " in "
                      << timeout_s << " s";
      return AV_ER_TIMEOUT;
    }
  }
  Session::PendingLogin login = std::move(s.logins[ch]);
  s.logins[ch] = Session::PendingLogin();
  lock.unlock();

  // The callback may keep or alter what it is given: hand it writable copies.
  std::vector<char> account(login.account.begin(), login.account.end());
  account.push_back('\0');
  std::vector<char> text(login.text.begin(), login.text.end());
  text.push_back('\0');
  const int verdict = fn(account.data(), text.data());

  lock.lock();
  if (s.gen == gen) s.serving[ch] = false;
  if (!av_initialized_) return AV_ER_NOT_INITIALIZED;
  if (int st = SessionStatus(sid, gen)) return st;
  wire::LoginResult answer;
  answer.service_type = serv_type;
  if (verdict != 1) {
    TLOG(LOG_WARNING) << "P2P session " << sid << ": AV login on channel " << ch << " refused";
    answer.result = AV_ER_WRONG_VIEWACCorPWD;
    PushControl(s, wire::EncodeLoginResult(wire::MsgType::kAvLoginResult, ch, answer), ch);
    return AV_ER_WRONG_VIEWACCorPWD;
  }
  const int idx = AllocAv();
  if (idx < 0) {
    TLOG(LOG_WARNING) << "P2P session " << sid << ": every AV channel is in use";
    answer.result = AV_ER_EXCEED_MAX_CHANNEL;
    PushControl(s, wire::EncodeLoginResult(wire::MsgType::kAvLoginResult, ch, answer), ch);
    return AV_ER_EXCEED_MAX_CHANNEL;
  }
  AvChannel& a = av_[idx];
  a.state = AvChannel::kOpen;
  a.server = true;
  a.sid = sid;
  a.session_gen = gen;
  a.channel = static_cast<uint8_t>(ch);
  s.bound[ch] = idx;
  answer.result = 0;
  PushControl(s, wire::EncodeLoginResult(wire::MsgType::kAvLoginResult, ch, answer), ch);
  if (resend != nullptr) *resend = 0;
  TLOG(LOG_DEBUG) << "P2P session " << sid << ": AV server on channel " << ch << " is index "
                  << idx;
  return idx;
}

int HubTransport::ClientStart(int sid, const char* account, const char* password,
                              unsigned timeout_s, unsigned* serv_type, unsigned ch, int* resend) {
  if (ch >= wire::kMaxChannels) return AV_ER_INVALID_ARG;
  const std::string acc = account != nullptr ? account : "";
  const std::string pw = password != nullptr ? password : "";
  if (acc.size() > wire::kMaxAccount || pw.size() > wire::kMaxLoginText) return AV_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  uint64_t gen = 0;
  if (int st = ChannelFree(sid, ch, &gen)) return st;
  Session& s = sessions_[sid];
  const int idx = AllocAv();
  if (idx < 0) return AV_ER_EXCEED_MAX_CHANNEL;
  AvChannel& a = av_[idx];
  const uint64_t av_gen = a.gen;
  a.state = AvChannel::kConnecting;
  a.server = false;
  a.sid = sid;
  a.session_gen = gen;
  a.channel = static_cast<uint8_t>(ch);
  s.bound[ch] = idx;
  PushControl(s, wire::EncodeLogin(wire::MsgType::kClientLogin, ch, acc, pw), ch);
  const auto deadline = DeadlineAfter(std::chrono::seconds(timeout_s));
  int result = AV_ER_TIMEOUT;
  for (;;) {
    if (!av_initialized_ || a.gen != av_gen) return AV_ER_NOT_INITIALIZED;
    if (int st = SessionStatus(sid, gen)) {
      FreeAv(idx);
      return st;
    }
    if (a.answered) {
      result = a.answer;
      break;
    }
    if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline &&
        !a.answered) {
      // Tell the viewer, in case its answer is still on the way.
      PushControl(s, wire::EncodeEmpty(wire::MsgType::kChannelStop, static_cast<uint8_t>(ch)),
                  static_cast<uint8_t>(ch));
      break;
    }
  }
  if (result != 0) {
    TLOG(LOG_WARNING) << "P2P session " << sid << ": joining channel " << ch
                      << " failed, code: " << result;
    FreeAv(idx);
    return result;
  }
  a.state = AvChannel::kOpen;
  if (serv_type != nullptr) *serv_type = a.service_type;
  if (resend != nullptr) *resend = 0;
  TLOG(LOG_DEBUG) << "P2P session " << sid << ": AV client on channel " << ch << " is index "
                  << idx;
  return idx;
}

void HubTransport::StopChannel(int idx) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!av_initialized_ || idx < 0 || idx >= av_capacity_) return;
  AvChannel& a = av_[idx];
  if (a.state == AvChannel::kFree) return;
  Session& s = sessions_[a.sid];
  if (s.gen == a.session_gen && s.state == Session::kOpen) {
    DropMedia(s, a.channel, true, true);
    PushControl(s, wire::EncodeEmpty(wire::MsgType::kChannelStop, a.channel), a.channel);
  }
  TLOG(LOG_DEBUG) << "P2P AV channel " << idx << " stopped";
  FreeAv(idx);
  cv_.notify_all();
}

OutBytes HubTransport::TakeBuffer(size_t size) {
  // The smallest spare that holds the message, else a new buffer.
  size_t best = spare_.size();
  for (size_t i = 0; i < spare_.size(); ++i) {
    const size_t have = spare_[i].capacity();
    if (have >= size && (best == spare_.size() || have < spare_[best].capacity())) best = i;
  }
  OutBytes out;
  if (best < spare_.size()) {
    out = std::move(spare_[best]);
    spare_[best] = std::move(spare_.back());
    spare_.pop_back();
    spare_bytes_ -= out.capacity();
  }
  out.resize(size);
  return out;
}

void HubTransport::KeepBuffer(OutBytes buffer) {
  // Small buffers cost little to make; a spare never grows the kept total past its limit.
  if (buffer.capacity() < 4096 || spare_.size() >= kSpareBuffers ||
      spare_bytes_ + buffer.capacity() > kSpareBytes)
    return;
  spare_bytes_ += buffer.capacity();
  spare_.push_back(std::move(buffer));
}

int HubTransport::SendFrame(int idx, OutKind kind, int size, const void* info, int info_size,
                            avFrameFillFn fill, void* ctx) {
  const size_t max = kind == OutKind::kVideo ? wire::kMaxVideoData : wire::kMaxAudioData;
  if (fill == nullptr || size <= 0 || static_cast<size_t>(size) > max) return AV_ER_INVALID_ARG;
  if (info_size < 0 || static_cast<size_t>(info_size) > wire::kMaxFrameInfo ||
      (info == nullptr && info_size > 0))
    return AV_ER_INVALID_ARG;
  const size_t head = wire::FrameHeadBytes(static_cast<size_t>(info_size));
  const size_t need = head + static_cast<size_t>(size);
  // The frame is written without the tables' lock, into a spare buffer when there is one; the
  // head (channel and number) is written when the frame is queued. A frame refused then (full
  // queue, channel gone) was written in vain, which is rare and costs the caller only.
  OutBytes bytes;
  {
    std::lock_guard<std::mutex> lock(spare_mu_);
    bytes = TakeBuffer(need);
  }
  int result = AV_ER_INVALID_ARG;
  if (fill(ctx, bytes.data() + head, size) == 0) {
    std::lock_guard<std::mutex> lock(mu_);
    result = AvStatus(idx, true);
    if (result == 0) {
      AvChannel& a = av_[idx];
      Session& s = sessions_[a.sid];
      if (s.media.size() < kMediaQueueFrames && s.media_bytes + need <= kMediaQueueBytes) {
        const uint32_t number = kind == OutKind::kVideo ? a.video_no++ : a.audio_no++;
        const auto type = kind == OutKind::kVideo ? wire::MsgType::kVideo : wire::MsgType::kAudio;
        wire::PutFrameHead(bytes.data(), type, a.channel, number, info,
                           static_cast<size_t>(info_size), static_cast<size_t>(size));
        // The network thread looks at a queue again as long as it is not empty; only an empty
        // one needs the wake-up.
        const bool idle = s.media.empty() && s.control.empty();
        s.media_bytes += need;
        s.media.push_back(OutMsg{std::move(bytes), kind, a.channel});
        if (idle) Wake();
        return AV_ER_NoERROR;
      }
      result = AV_ER_EXCEED_MAX_SIZE;
    }
  }
  std::lock_guard<std::mutex> lock(spare_mu_);
  KeepBuffer(std::move(bytes));
  return result;
}

int HubTransport::SendIoCtrl(int idx, unsigned type, const char* data, int size) {
  if (size < 0 || static_cast<size_t>(size) > wire::kMaxIoCtrl || (data == nullptr && size > 0))
    return AV_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (int st = AvStatus(idx, true)) return st;
  const AvChannel& a = av_[idx];
  Session& s = sessions_[a.sid];
  const size_t need = wire::kHeaderSize + 4 + size;
  if (s.control.size() >= kControlQueueMessages || s.control_bytes + need > kControlQueueBytes)
    return AV_ER_EXCEED_MAX_SIZE;
  PushControl(s, wire::EncodeIoCtrl(a.channel, type, data, size), a.channel);
  return AV_ER_NoERROR;
}

int HubTransport::RecvIoCtrl(int idx, unsigned* type, char* buf, int size, unsigned timeout_ms) {
  if (type == nullptr || buf == nullptr || size < 0) return AV_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (!av_initialized_) return AV_ER_NOT_INITIALIZED;
  if (idx < 0 || idx >= av_capacity_) return AV_ER_INVALID_ARG;
  const uint64_t av_gen = av_[idx].gen;
  const auto deadline = DeadlineAfter(std::chrono::milliseconds(timeout_ms));
  for (;;) {
    AvChannel& a = av_[idx];
    if (!av_initialized_ || a.gen != av_gen) return AvStatus(idx, false);
    // What arrived is read before the channel's end is reported.
    if (a.state != AvChannel::kFree && !a.ioctrl.empty()) {
      wire::IoCtrl m = std::move(a.ioctrl.front());
      a.ioctrl.pop_front();
      if (m.data.size() > static_cast<size_t>(size)) return AV_ER_BUFPARA_MAXSIZE_INSUFF;
      *type = m.type;
      if (!m.data.empty()) std::memcpy(buf, m.data.data(), m.data.size());
      return static_cast<int>(m.data.size());
    }
    if (int st = AvStatus(idx, false)) return st;
    if (timeout_ms == 0) return AV_ER_TIMEOUT;
    if (cv_.wait_until(lock, deadline) == std::cv_status::timeout && Clock::now() >= deadline &&
        a.ioctrl.empty() && a.gen == av_gen && AvStatus(idx, false) == 0)
      return AV_ER_TIMEOUT;
  }
}

int HubTransport::RecvAudio(int idx, char* buf, int size, char* info, int info_size,
                            unsigned* frame_no) {
  if (buf == nullptr || size < 0 || info_size < 0 || (info == nullptr && info_size > 0))
    return AV_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (!av_initialized_) return AV_ER_NOT_INITIALIZED;
  if (idx < 0 || idx >= av_capacity_) return AV_ER_INVALID_ARG;
  AvChannel& a = av_[idx];
  if (a.state != AvChannel::kFree && a.state != AvChannel::kConnecting) {
    if (a.lost) {
      a.lost = false;
      return AV_ER_LOSED_THIS_FRAME;
    }
    if (!a.audio.empty()) {
      wire::Frame f = std::move(a.audio.front());
      a.audio.pop_front();
      a.audio_bytes -= f.data.size();
      if (f.data.size() > static_cast<size_t>(size)) return AV_ER_BUFPARA_MAXSIZE_INSUFF;
      if (!f.data.empty()) std::memcpy(buf, f.data.data(), f.data.size());
      if (info_size > 0) {
        std::memset(info, 0, info_size);
        std::memcpy(info, f.info.data(), std::min(f.info.size(), static_cast<size_t>(info_size)));
      }
      if (frame_no != nullptr) *frame_no = f.number;
      return static_cast<int>(f.data.size());
    }
  }
  if (int st = AvStatus(idx, false)) return st;
  return AV_ER_DATA_NOREADY;
}

int HubTransport::ResetBuffer(int idx, AV_RESET_TARGET target) {
  if (target != RESET_VIDEO && target != RESET_AUDIO && target != RESET_ALL)
    return AV_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (int st = AvStatus(idx, true)) return st;
  const AvChannel& a = av_[idx];
  DropMedia(sessions_[a.sid], a.channel, target != RESET_AUDIO, target != RESET_VIDEO);
  return AV_ER_NoERROR;
}

void HubTransport::CleanAudio(int idx) {
  std::lock_guard<std::mutex> lock(mu_);
  if (!av_initialized_ || idx < 0 || idx >= av_capacity_) return;
  AvChannel& a = av_[idx];
  a.audio.clear();
  a.audio_bytes = 0;
  a.lost = false;
}

}  // namespace p2p

// ---- the C interface ---------------------------------------------------------------------------

using p2p::HubTransport;

extern "C" {

void IOTC_Set_Max_Session_Number(unsigned int nMaxSessionNum) {
  HubTransport::Get().SetMaxSessions(nMaxSessionNum);
}

int IOTC_Initialize2(unsigned short nUDPPort) {
  return HubTransport::Get().Initialize(nUDPPort);
}

int IOTC_DeInitialize(void) {
  return HubTransport::Get().DeInitialize();
}

void IOTC_Get_Version(unsigned int* pnVersion) {
  if (pnVersion != nullptr) *pnVersion = p2p::kLibraryVersion;
}

void IOTC_Get_Login_Info_ByCallBackFn(loginInfoCB pfxLoginInfoFn) {
  HubTransport::Get().SetLoginCallback(pfxLoginInfoFn);
}

int IOTC_Device_Login(const char* cszUID, const char* /*cszDeviceName*/, const char* cszPassword) {
  return HubTransport::Get().DeviceLogin(cszUID, cszPassword);
}

int IOTC_Listen(unsigned int nTimeout) {
  return HubTransport::Get().Listen(nTimeout);
}

int IOTC_Session_Check(int nIOTCSessionID, struct st_SInfo* psSessionInfo) {
  return HubTransport::Get().SessionCheck(nIOTCSessionID, psSessionInfo);
}

int IOTC_Session_Close(int nIOTCSessionID) {
  return HubTransport::Get().SessionClose(nIOTCSessionID);
}

int avInitialize(int nMaxChannelNum) {
  return HubTransport::Get().AvInitialize(nMaxChannelNum);
}

int avDeInitialize(void) {
  return HubTransport::Get().AvDeInitialize();
}

int avGetAVApiVer(void) {
  return static_cast<int>(p2p::kLibraryVersion);
}

int avServStart3(int nIOTCSessionID, authFn pfxAuthFn, unsigned int nTimeout,
                 unsigned int nServType, unsigned char nIOTCChannelID, int* pnResend) {
  return HubTransport::Get().ServStart(nIOTCSessionID, pfxAuthFn, nTimeout, nServType,
                                       nIOTCChannelID, pnResend);
}

void avServStop(int nAVChannelID) {
  HubTransport::Get().StopChannel(nAVChannelID);
}

namespace {
int CopyFrame(void* ctx, unsigned char* dst, int size) {
  std::memcpy(dst, ctx, static_cast<size_t>(size));
  return 0;
}
}  // namespace

int avSendFrameData(int nAVChannelID, const char* cabFrameData, int nFrameDataSize,
                    const void* cabFrameInfo, int nFrameInfoSize) {
  if (cabFrameData == nullptr) return AV_ER_INVALID_ARG;
  return HubTransport::Get().SendFrame(nAVChannelID, p2p::OutKind::kVideo, nFrameDataSize,
                                       cabFrameInfo, nFrameInfoSize, CopyFrame,
                                       const_cast<char*>(cabFrameData));
}

int avSendFrameDataFill(int nAVChannelID, int nFrameDataSize, const void* cabFrameInfo,
                        int nFrameInfoSize, avFrameFillFn pfxFill, void* pContext) {
  return HubTransport::Get().SendFrame(nAVChannelID, p2p::OutKind::kVideo, nFrameDataSize,
                                       cabFrameInfo, nFrameInfoSize, pfxFill, pContext);
}

int avSendAudioData(int nAVChannelID, const char* cabAudioData, int nAudioDataSize,
                    const void* cabFrameInfo, int nFrameInfoSize) {
  if (cabAudioData == nullptr) return AV_ER_INVALID_ARG;
  return HubTransport::Get().SendFrame(nAVChannelID, p2p::OutKind::kAudio, nAudioDataSize,
                                       cabFrameInfo, nFrameInfoSize, CopyFrame,
                                       const_cast<char*>(cabAudioData));
}

int avSendIOCtrl(int nAVChannelID, unsigned int nIOCtrlType, const char* cabIOCtrlData,
                 int nIOCtrlDataSize) {
  return HubTransport::Get().SendIoCtrl(nAVChannelID, nIOCtrlType, cabIOCtrlData, nIOCtrlDataSize);
}

int avRecvIOCtrl(int nAVChannelID, unsigned int* pnIOCtrlType, char* abIOCtrlData,
                 int nIOCtrlMaxDataSize, unsigned int nTimeout) {
  return HubTransport::Get().RecvIoCtrl(nAVChannelID, pnIOCtrlType, abIOCtrlData,
                                        nIOCtrlMaxDataSize, nTimeout);
}

int avServResetBuffer(int nAVChannelID, AV_RESET_TARGET eTarget, unsigned int /*nTimeout_ms*/) {
  return HubTransport::Get().ResetBuffer(nAVChannelID, eTarget);
}

int avClientStart2(int nIOTCSessionID, const char* cszViewAccount, const char* cszViewPassword,
                   unsigned int nTimeout, unsigned int* pnServType, unsigned char nIOTCChannelID,
                   int* pnResend) {
  return HubTransport::Get().ClientStart(nIOTCSessionID, cszViewAccount, cszViewPassword, nTimeout,
                                         pnServType, nIOTCChannelID, pnResend);
}

void avClientCleanAudioBuf(int nAVChannelID) {
  HubTransport::Get().CleanAudio(nAVChannelID);
}

int avRecvAudioData(int nAVChannelID, char* abAudioData, int nAudioDataMaxSize, char* abFrameInfo,
                    int nFrameInfoMaxSize, unsigned int* pnFrameIdx) {
  return HubTransport::Get().RecvAudio(nAVChannelID, abAudioData, nAudioDataMaxSize, abFrameInfo,
                                       nFrameInfoMaxSize, pnFrameIdx);
}

void avClientStop(int nAVChannelID) {
  HubTransport::Get().StopChannel(nAVChannelID);
}

}  // extern "C"
