#include "viewer/p2pviewer.h"

#include <fcntl.h>
#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "p2p/iotc.h"
#include "p2p/transport.h"

namespace p2p {

namespace {

using Clock = std::chrono::steady_clock;

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

int Remaining(Clock::time_point deadline) {
  const auto left =
      std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
  return left > 0 ? static_cast<int>(left) : 0;
}

// A TCP connection to host:port within the time-out; the socket is left blocking. -1 when the
// address is unknown or the connection fails, -2 on time-out.
int ConnectTcp(const std::string& host, uint16_t port, Clock::time_point deadline) {
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = SOCK_STREAM;
  addrinfo* res = nullptr;
  if (getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &res) != 0 || !res) {
    TLOG(LOG_WARNING) << "viewer: unknown host " << host;
    return -1;
  }
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  int result = fd;
  if (fd >= 0 && connect(fd, res->ai_addr, res->ai_addrlen) != 0) {
    if (errno != EINPROGRESS) {
      result = -1;
    } else {
      pollfd p{fd, POLLOUT, 0};
      const int n = poll(&p, 1, Remaining(deadline));
      int err = 0;
      socklen_t len = sizeof err;
      if (n == 0) {
        result = -2;
      } else if (n < 0 || getsockopt(fd, SOL_SOCKET, SO_ERROR, &err, &len) != 0 || err != 0) {
        result = -1;
      }
    }
  }
  freeaddrinfo(res);
  if (result < 0) {
    if (fd >= 0) close(fd);
    return result;
  }
  fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) & ~O_NONBLOCK);
  const int one = 1;
  setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
  // A hub that stops reading for the idle time counts as gone.
  timeval tv{};
  const int idle = GetLinkTimeouts().idle_ms;
  tv.tv_sec = idle / 1000;
  tv.tv_usec = (idle % 1000) * 1000;
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof tv);
  return fd;
}

}  // namespace

Viewer::~Viewer() {
  Close();
}

int Viewer::status() const {
  std::lock_guard<std::mutex> lock(mu_);
  return status_;
}

void Viewer::End(int code) {
  if (status_ == 0) status_ = code;
  cv_.notify_all();
}

int Viewer::Send(const std::vector<uint8_t>& bytes) {
  std::lock_guard<std::mutex> lock(write_mu_);
  if (fd_ < 0) return AV_ER_INVALID_SID;
  size_t done = 0;
  while (done < bytes.size()) {
    const ssize_t n = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) {
      TLOG(LOG_WARNING) << "viewer: send to the hub failed: " << strerror(errno);
      {
        std::lock_guard<std::mutex> state(mu_);
        End(AV_ER_REMOTE_TIMEOUT_DISCONNECT);
      }
      shutdown(fd_, SHUT_RDWR);
      return AV_ER_REMOTE_TIMEOUT_DISCONNECT;
    }
    done += static_cast<size_t>(n);
  }
  last_tx_ = Clock::now();
  return 0;
}

int Viewer::Connect(const std::string& host, uint16_t port, const std::string& uid,
                    const std::string& password, int timeout_ms) {
  if (fd_ >= 0 || uid.size() > wire::kMaxUid || password.size() > wire::kMaxPassword)
    return IOTC_ER_INVALID_ARG;
  const auto deadline = Clock::now() + std::chrono::milliseconds(timeout_ms);
  const int fd = ConnectTcp(host, port, deadline);
  if (fd == -2) return IOTC_ER_TIMEOUT;
  if (fd < 0) {
    TLOG(LOG_WARNING) << "viewer: no connection to " << host << ":" << port;
    return IOTC_ER_CONNECT_FAILED;
  }
  {
    std::lock_guard<std::mutex> lock(write_mu_);
    fd_ = fd;
  }
  wire::Hello hello;
  hello.uid = uid;
  hello.password = password;
  hello.library_version = kLibraryVersion;
  int result = Send(wire::EncodeHello(hello)) == 0 ? IOTC_ER_TIMEOUT : IOTC_ER_CONNECT_FAILED;
  wire::HelloResult answer;
  uint8_t buf[4096];
  while (result == IOTC_ER_TIMEOUT) {
    wire::Message m;
    const auto r = decoder_.Next(&m);
    if (r == wire::Decoder::kMessage) {
      if (m.type != static_cast<uint8_t>(wire::MsgType::kHelloResult) ||
          !wire::ParseHelloResult(m.payload, &answer)) {
        result = IOTC_ER_PROTOCOL;
      } else {
        result = answer.result;
      }
      break;
    }
    if (r == wire::Decoder::kError) {
      result = IOTC_ER_PROTOCOL;
      break;
    }
    pollfd p{fd, POLLIN, 0};
    const int left = Remaining(deadline);
    if (left == 0 || poll(&p, 1, left) <= 0) break;
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) {
      result = IOTC_ER_CONNECT_FAILED;
      break;
    }
    decoder_.Feed(buf, static_cast<size_t>(n));
  }
  if (result != IOTC_ER_NoERROR) {
    TLOG(LOG_DEBUG) << "viewer: session request to " << host << ":" << port
                    << " failed, code: " << result;
    std::lock_guard<std::mutex> lock(write_mu_);
    close(fd_);
    fd_ = -1;
    decoder_ = wire::Decoder(wire::Reader::kViewer);
    return result;
  }
  sid_ = answer.sid;
  {
    std::lock_guard<std::mutex> lock(mu_);
    status_ = 0;
    stop_ = false;
    login_result_.fill(0);
    login_answered_.fill(false);
    server_stopped_.fill(false);
    talk_.fill(Talk::kNone);
    talk_no_.fill(0);
    ioctrl_.clear();
    frames_.clear();
    frame_bytes_ = 0;
    for (auto& r : rdt_) {
      const uint64_t gen = r.gen + 1;
      r = RdtEnd();
      r.gen = gen;
    }
  }
  reader_ = std::thread(&Viewer::Reader, this);
  TLOG(LOG_DEBUG) << "viewer: session " << sid_ << " open on " << host << ":" << port;
  return 0;
}

bool Viewer::Handle(const wire::Message& m) {
  using wire::MsgType;
  const uint8_t ch = m.channel;
  switch (static_cast<MsgType>(m.type)) {
    case MsgType::kPing:
      return true;
    case MsgType::kBye: {
      std::lock_guard<std::mutex> lock(mu_);
      End(AV_ER_SESSION_CLOSE_BY_REMOTE);
      return false;
    }
    case MsgType::kAvLoginResult: {
      wire::LoginResult r;
      if (!wire::ParseLoginResult(m.payload, &r)) break;
      std::lock_guard<std::mutex> lock(mu_);
      login_result_[ch] = r.result;
      login_answered_[ch] = true;
      cv_.notify_all();
      return true;
    }
    case MsgType::kClientLogin: {
      wire::Login l;
      if (!wire::ParseLogin(m.payload, &l)) break;
      wire::LoginResult answer;
      {
        std::lock_guard<std::mutex> lock(mu_);
        if (talk_[ch] != Talk::kNone) {
          talk_[ch] = Talk::kJoined;
          talk_no_[ch] = 0;
          cv_.notify_all();
        } else {
          answer.result = AV_ER_SERV_NO_RESPONSE;
        }
      }
      Send(wire::EncodeLoginResult(MsgType::kClientLoginResult, ch, answer));
      return true;
    }
    case MsgType::kChannelStop: {
      std::lock_guard<std::mutex> lock(mu_);
      if (talk_[ch] == Talk::kJoined) {
        talk_[ch] = Talk::kWaiting;
      } else if (talk_[ch] == Talk::kNone) {
        server_stopped_[ch] = true;
      }
      cv_.notify_all();
      return true;
    }
    case MsgType::kIoCtrl: {
      wire::IoCtrl io;
      if (!wire::ParseIoCtrl(m.payload, &io)) break;
      std::lock_guard<std::mutex> lock(mu_);
      ioctrl_.push_back(ViewerIoCtrl{ch, io.type, std::move(io.data)});
      cv_.notify_all();
      return true;
    }
    case MsgType::kVideo:
    case MsgType::kAudio: {
      const bool video = m.type == static_cast<uint8_t>(MsgType::kVideo);
      wire::Frame f;
      if (!wire::ParseFrame(m.payload, video ? wire::kMaxVideoData : wire::kMaxAudioData, &f))
        break;
      std::lock_guard<std::mutex> lock(mu_);
      frame_bytes_ += f.data.size();
      frames_.push_back(ViewerFrame{video, ch, f.number, std::move(f.info), std::move(f.data),
                                    rx_first_ns_, rx_last_ns_});
      cv_.notify_all();
      return true;
    }
    case MsgType::kRdtOpen:
    case MsgType::kRdtData:
    case MsgType::kRdtCredit:
    case MsgType::kRdtClose:
      if (HandleRdt(m)) return true;
      break;
    default:
      break;
  }
  TLOG(LOG_WARNING) << "viewer: malformed message of type " << static_cast<int>(m.type)
                    << " from the hub, session dropped";
  std::lock_guard<std::mutex> lock(mu_);
  End(AV_ER_REMOTE_TIMEOUT_DISCONNECT);
  return false;
}

bool Viewer::HandleRdt(const wire::Message& m) {
  using wire::MsgType;
  std::lock_guard<std::mutex> lock(mu_);
  RdtEnd& r = rdt_[m.channel];
  switch (static_cast<MsgType>(m.type)) {
    case MsgType::kRdtOpen: {
      wire::RdtOpen o;
      if (!wire::ParseRdtOpen(m.payload, &o)) return false;
      if (o.answer != 0 && (r.state == RdtEnd::kNone || r.token != o.answer)) {
        // It meets an end of this side that has gone: stale.
      } else if (r.state == RdtEnd::kConnecting) {
        r.peer = o.token;
        r.window = std::min(o.window, kRdtWindow);
        r.credit = r.window;
        r.state = RdtEnd::kOpen;
      } else if (r.state == RdtEnd::kOpen && r.remote_end == 0) {
        return false;  // a second open of the paired end
      } else {
        r.offer = o;
      }
      break;
    }
    case MsgType::kRdtData:
      if (m.payload.empty()) return false;
      if (r.state == RdtEnd::kOpen && r.remote_end == 0) {
        if (r.in_bytes + m.payload.size() > kRdtWindow) return false;
        r.in_bytes += m.payload.size();
        r.in.push_back(m.payload);
      }
      break;
    case MsgType::kRdtCredit: {
      uint32_t bytes = 0;
      if (!wire::ParseRdtCredit(m.payload, &bytes)) return false;
      if (r.state == RdtEnd::kOpen) {
        if (bytes > r.window - r.credit) return false;
        r.credit += bytes;
      }
      break;
    }
    case MsgType::kRdtClose: {
      wire::RdtClose c;
      if (!wire::ParseRdtClose(m.payload, &c)) return false;
      if (r.state == RdtEnd::kOpen && r.peer == c.token) {
        if (r.remote_end == 0)
          r.remote_end = c.reason == wire::kRdtCloseExit ? RDT_ER_REMOTE_EXIT : RDT_ER_REMOTE_ABORT;
        if (c.reason == wire::kRdtCloseAbort) {
          r.in.clear();
          r.in_bytes = r.in_pos = 0;
        }
      } else if (r.offer.token == c.token) {
        r.offer = wire::RdtOpen();
      }
      break;
    }
    default:
      return false;
  }
  cv_.notify_all();
  return true;
}

int Viewer::RdtCode(int id, uint64_t gen) const {
  const RdtEnd& r = rdt_[id];
  if (r.gen != gen || r.state == RdtEnd::kNone) return RDT_ER_LOCAL_ABORT;
  return status_ == 0 ? r.remote_end : RdtCodeOfSession(status_);
}

int Viewer::RdtCreate(uint8_t channel, int timeout_ms) {
  if (channel >= wire::kMaxChannels || timeout_ms < 0) return RDT_ER_INVALID_ARG;
  uint64_t gen = 0;
  wire::RdtOpen open{kRdtWindow, 0, 0};
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (status_ != 0) return RdtCodeOfSession(status_);
    RdtEnd& r = rdt_[channel];
    if (r.state != RdtEnd::kNone) return RDT_ER_CHANNEL_OCCUPIED;
    r.state = RdtEnd::kConnecting;
    gen = ++r.gen;
    if (++next_rdt_token_ == 0) ++next_rdt_token_;
    r.token = next_rdt_token_;
    open.token = r.token;
    if (r.offer.token != 0) {
      r.peer = open.answer = r.offer.token;
      r.window = std::min(r.offer.window, kRdtWindow);
      r.credit = r.window;
      r.offer = wire::RdtOpen();
      r.state = RdtEnd::kOpen;
    }
  }
  if (Send(wire::EncodeRdtOpen(channel, open)) != 0) {
    std::lock_guard<std::mutex> lock(mu_);
    return RdtCode(channel, gen);
  }
  std::unique_lock<std::mutex> lock(mu_);
  RdtEnd& r = rdt_[channel];
  const bool done = cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms), [&] {
    return r.gen != gen || r.state == RdtEnd::kOpen || RdtCode(channel, gen) != 0;
  });
  // Opened: a short transfer may already have come whole and its end with it; the reads give
  // the bytes first and the end's code after them.
  if (r.gen == gen && r.state == RdtEnd::kOpen) return channel;
  if (int code = RdtCode(channel, gen)) {
    if (r.gen == gen) {
      r = RdtEnd();
      r.gen = gen + 1;
    }
    return code;
  }
  if (!done) {
    r = RdtEnd();
    r.gen = gen + 1;
    lock.unlock();
    Send(wire::EncodeRdtClose(channel, {wire::kRdtCloseAbort, open.token}));
    return RDT_ER_TIMEOUT;
  }
  return channel;
}

int Viewer::RdtWrite(int id, const void* data, size_t len) {
  if (id < 0 || id >= static_cast<int>(wire::kMaxChannels)) return RDT_ER_INVALID_RDT_ID;
  if (data == nullptr || len == 0 || len > 0x7fffffff) return RDT_ER_INVALID_ARG;
  const uint8_t* bytes = static_cast<const uint8_t*>(data);
  std::unique_lock<std::mutex> lock(mu_);
  RdtEnd& r = rdt_[id];
  if (r.state != RdtEnd::kOpen) return RDT_ER_INVALID_RDT_ID;
  const uint64_t gen = r.gen;
  size_t done = 0;
  while (done < len) {
    if (int code = RdtCode(id, gen)) return code;
    if (r.credit == 0) {
      cv_.wait_for(lock, std::chrono::seconds(1));
      continue;
    }
    const size_t n = std::min({static_cast<size_t>(r.credit), wire::kMaxRdtData, len - done});
    r.credit -= static_cast<uint32_t>(n);
    lock.unlock();
    const int sent = Send(wire::EncodeRdtData(static_cast<uint8_t>(id), bytes + done, n));
    lock.lock();
    if (sent != 0)
      return RdtCode(id, gen) != 0 ? RdtCode(id, gen) : RDT_ER_REMOTE_TIMEOUT_DISCONNECT;
    done += n;
  }
  return static_cast<int>(len);
}

int Viewer::RdtRead(int id, void* buf, size_t size, int timeout_ms) {
  if (id < 0 || id >= static_cast<int>(wire::kMaxChannels)) return RDT_ER_INVALID_RDT_ID;
  if (buf == nullptr || size == 0 || timeout_ms < 0) return RDT_ER_INVALID_ARG;
  size = std::min(size, static_cast<size_t>(0x7fffffff));
  uint8_t* out = static_cast<uint8_t*>(buf);
  std::unique_lock<std::mutex> lock(mu_);
  RdtEnd& r = rdt_[id];
  if (r.state != RdtEnd::kOpen) return RDT_ER_INVALID_RDT_ID;
  const uint64_t gen = r.gen;
  cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
               [&] { return r.gen != gen || r.in_bytes > 0 || RdtCode(id, gen) != 0; });
  if (r.gen != gen) return RDT_ER_LOCAL_ABORT;
  if (r.remote_end == RDT_ER_REMOTE_ABORT) return RDT_ER_REMOTE_ABORT;
  if (r.in_bytes == 0) {
    const int code = RdtCode(id, gen);
    return code != 0 ? code : RDT_ER_TIMEOUT;
  }
  size_t got = 0;
  while (got < size && !r.in.empty()) {
    auto& front = r.in.front();
    const size_t n = std::min(front.size() - r.in_pos, size - got);
    std::memcpy(out + got, front.data() + r.in_pos, n);
    got += n;
    r.in_pos += n;
    if (r.in_pos == front.size()) {
      r.in.pop_front();
      r.in_pos = 0;
    }
  }
  r.in_bytes -= got;
  r.unacked += static_cast<uint32_t>(got);
  uint32_t credit = 0;
  if (r.unacked >= kRdtWindow / 8 && r.remote_end == 0 && status_ == 0) {
    credit = r.unacked;
    r.unacked = 0;
  }
  lock.unlock();
  if (credit > 0) Send(wire::EncodeRdtCredit(static_cast<uint8_t>(id), credit));
  return static_cast<int>(got);
}

int Viewer::RdtEndSide(int id, bool abort) {
  if (id < 0 || id >= static_cast<int>(wire::kMaxChannels)) return RDT_ER_INVALID_RDT_ID;
  wire::RdtClose close{abort ? wire::kRdtCloseAbort : wire::kRdtCloseExit, 0};
  {
    std::lock_guard<std::mutex> lock(mu_);
    RdtEnd& r = rdt_[id];
    if (r.state == RdtEnd::kNone) return RDT_ER_INVALID_RDT_ID;
    close.token = r.token;
    const uint64_t gen = r.gen + 1;
    r = RdtEnd();
    r.gen = gen;
    cv_.notify_all();
    if (status_ != 0) return 0;
  }
  Send(wire::EncodeRdtClose(static_cast<uint8_t>(id), close));
  return 0;
}

int Viewer::RdtDestroy(int id) {
  return RdtEndSide(id, false);
}

int Viewer::RdtAbort(int id) {
  return RdtEndSide(id, true);
}

int Viewer::RdtPending(int id) const {
  if (id < 0 || id >= static_cast<int>(wire::kMaxChannels)) return RDT_ER_INVALID_RDT_ID;
  std::lock_guard<std::mutex> lock(mu_);
  const RdtEnd& r = rdt_[id];
  if (r.state != RdtEnd::kOpen) return RDT_ER_INVALID_RDT_ID;
  if (r.in_bytes > 0) return static_cast<int>(r.in_bytes);
  return RdtCode(id, r.gen);
}

void Viewer::Reader() {
  const LinkTimeouts timing = GetLinkTimeouts();
  const auto ping = std::chrono::milliseconds(timing.ping_ms);
  const auto idle = std::chrono::milliseconds(timing.idle_ms);
  const auto tick = std::chrono::milliseconds(std::clamp(timing.ping_ms / 2, 10, 250));
  auto ping_due = [&] {
    std::lock_guard<std::mutex> lock(write_mu_);
    return Clock::now() - last_tx_ >= ping;
  };
  auto last_rx = Clock::now();
  std::vector<uint8_t> buf(65536);
  bool running = true;
  // Messages that arrived with the session answer.
  rx_first_ns_ = rx_last_ns_ = MonotonicNs();
  int64_t partial_since = rx_first_ns_;  // the read that brought the first buffered byte
  for (;;) {
    wire::Message m;
    const auto r = decoder_.Next(&m);
    if (r != wire::Decoder::kMessage) break;
    if (!Handle(m)) running = false;
  }
  while (running) {
    {
      std::unique_lock<std::mutex> lock(mu_);
      bool waited = false;
      while (!stop_ && status_ == 0 &&
             (frames_.size() >= kFrameQueueFrames || frame_bytes_ >= kFrameQueueBytes ||
              ioctrl_.size() >= kViewerIoCtrlQueue)) {
        // The application is behind: leave the hub's bytes in the socket until it catches up.
        waited = true;
        cv_.wait_for(lock, tick);
        lock.unlock();
        if (ping_due()) Send(wire::EncodeEmpty(wire::MsgType::kPing, 0));
        lock.lock();
      }
      if (stop_ || status_ != 0) break;
      if (waited) last_rx = Clock::now();
    }
    pollfd p{fd_, POLLIN, 0};
    const int n = poll(&p, 1, static_cast<int>(tick.count()));
    const auto now = Clock::now();
    if (n > 0) {
      const ssize_t got = recv(fd_, buf.data(), buf.size(), 0);
      if (got < 0 && errno == EINTR) continue;
      if (got <= 0) {
        std::lock_guard<std::mutex> lock(mu_);
        if (!stop_) TLOG(LOG_WARNING) << "viewer: the hub's connection ended without goodbye";
        End(AV_ER_REMOTE_TIMEOUT_DISCONNECT);
        break;
      }
      last_rx = now;
      const int64_t at = MonotonicNs();
      const bool continued = decoder_.buffered() > 0;  // a message begun in an earlier read
      decoder_.Feed(buf.data(), static_cast<size_t>(got));
      bool first = true;
      for (;;) {
        wire::Message m;
        const auto r = decoder_.Next(&m);
        if (r == wire::Decoder::kNeedMore) break;
        if (r == wire::Decoder::kError) {
          TLOG(LOG_WARNING) << "viewer: bad input from the hub: " << decoder_.error();
          std::lock_guard<std::mutex> lock(mu_);
          End(AV_ER_REMOTE_TIMEOUT_DISCONNECT);
          running = false;
          break;
        }
        rx_first_ns_ = first && continued ? partial_since : at;
        rx_last_ns_ = at;
        first = false;
        if (!Handle(m)) {
          running = false;
          break;
        }
      }
      // What is left is the start of a message: it came with this read unless this read only
      // added to the message already begun.
      if (decoder_.buffered() > 0 && !(continued && first)) partial_since = at;
    } else if (now - last_rx >= idle) {
      TLOG(LOG_WARNING) << "viewer: nothing from the hub for " << timing.idle_ms << " ms";
      std::lock_guard<std::mutex> lock(mu_);
      End(AV_ER_REMOTE_TIMEOUT_DISCONNECT);
      break;
    }
    if (running && ping_due()) Send(wire::EncodeEmpty(wire::MsgType::kPing, 0));
  }
  std::lock_guard<std::mutex> lock(mu_);
  cv_.notify_all();
}

int Viewer::Login(const std::string& account, const std::string& login_text, int timeout_ms,
                  uint8_t channel) {
  if (channel >= wire::kMaxChannels || account.size() > wire::kMaxAccount ||
      login_text.size() > wire::kMaxLoginText)
    return AV_ER_INVALID_ARG;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (status_ != 0) return status_;
    if (login_answered_[channel] || talk_[channel] != Talk::kNone) return AV_ER_INVALID_ARG;
  }
  if (int r = Send(wire::EncodeLogin(wire::MsgType::kAvLogin, channel, account, login_text)))
    return r;
  std::unique_lock<std::mutex> lock(mu_);
  if (!cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                    [&] { return login_answered_[channel] || status_ != 0; }))
    return AV_ER_TIMEOUT;
  return login_answered_[channel] ? login_result_[channel] : status_;
}

int Viewer::SendIoCtrl(uint32_t type, const void* data, size_t len, uint8_t channel) {
  if (channel >= wire::kMaxChannels || len > wire::kMaxIoCtrl || (data == nullptr && len > 0))
    return AV_ER_INVALID_ARG;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (status_ != 0) return status_;
    if (server_stopped_[channel]) return AV_ER_SERVER_EXIT;
    const bool logged_in = login_answered_[channel] && login_result_[channel] == 0;
    if (!logged_in && talk_[channel] != Talk::kJoined) return AV_ER_CLIENT_NO_AVLOGIN;
  }
  return Send(wire::EncodeIoCtrl(channel, type, data, len));
}

int Viewer::RecvIoCtrl(ViewerIoCtrl* out, int timeout_ms) {
  if (out == nullptr) return AV_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (!cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                    [&] { return !ioctrl_.empty() || status_ != 0; }))
    return AV_ER_TIMEOUT;
  if (ioctrl_.empty()) return status_;
  *out = std::move(ioctrl_.front());
  ioctrl_.pop_front();
  cv_.notify_all();
  return static_cast<int>(out->data.size());
}

int Viewer::RecvFrame(ViewerFrame* out, int timeout_ms) {
  if (out == nullptr) return AV_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (!cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                    [&] { return !frames_.empty() || status_ != 0; }))
    return AV_ER_TIMEOUT;
  if (frames_.empty()) return status_;
  *out = std::move(frames_.front());
  frames_.pop_front();
  frame_bytes_ -= out->data.size();
  cv_.notify_all();
  return static_cast<int>(out->data.size());
}

int Viewer::OpenTalkback(uint8_t channel) {
  if (channel == 0 || channel >= wire::kMaxChannels) return AV_ER_INVALID_ARG;
  std::lock_guard<std::mutex> lock(mu_);
  if (status_ != 0) return status_;
  if (login_answered_[channel]) return AV_ER_INVALID_ARG;
  if (talk_[channel] == Talk::kNone) talk_[channel] = Talk::kWaiting;
  return 0;
}

int Viewer::WaitTalkback(uint8_t channel, int timeout_ms) {
  if (channel >= wire::kMaxChannels) return AV_ER_INVALID_ARG;
  std::unique_lock<std::mutex> lock(mu_);
  if (talk_[channel] == Talk::kNone) return AV_ER_INVALID_ARG;
  if (!cv_.wait_for(lock, std::chrono::milliseconds(timeout_ms),
                    [&] { return talk_[channel] == Talk::kJoined || status_ != 0; }))
    return AV_ER_TIMEOUT;
  return status_;
}

int Viewer::SendAudio(uint8_t channel, const void* info, size_t info_len, const void* data,
                      size_t len) {
  if (channel >= wire::kMaxChannels || info_len > wire::kMaxFrameInfo ||
      (info == nullptr && info_len > 0) || data == nullptr || len == 0 || len > wire::kMaxAudioData)
    return AV_ER_INVALID_ARG;
  uint32_t number = 0;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (status_ != 0) return status_;
    if (talk_[channel] != Talk::kJoined) return AV_ER_CLIENT_NO_AVLOGIN;
    number = talk_no_[channel]++;
  }
  return Send(wire::EncodeFrame(wire::MsgType::kAudio, channel, number, info, info_len, data, len));
}

int Viewer::CloseTalkback(uint8_t channel) {
  if (channel == 0 || channel >= wire::kMaxChannels) return AV_ER_INVALID_ARG;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (talk_[channel] == Talk::kNone) return AV_ER_INVALID_ARG;
    talk_[channel] = Talk::kNone;
    if (status_ != 0) return status_;
  }
  return Send(wire::EncodeEmpty(wire::MsgType::kChannelStop, channel));
}

void Viewer::Shutdown(bool goodbye) {
  int fd;
  {
    std::lock_guard<std::mutex> lock(write_mu_);
    fd = fd_;
  }
  if (fd < 0) return;
  if (goodbye && status() == 0) Send(wire::EncodeEmpty(wire::MsgType::kBye, 0));
  {
    std::lock_guard<std::mutex> lock(mu_);
    stop_ = true;
    status_ = AV_ER_INVALID_SID;
    cv_.notify_all();
  }
  shutdown(fd, SHUT_RDWR);
  if (reader_.joinable()) reader_.join();
  std::lock_guard<std::mutex> lock(write_mu_);
  close(fd_);
  fd_ = -1;
}

void Viewer::Close() {
  Shutdown(true);
}

void Viewer::Abort() {
  Shutdown(false);
}

}  // namespace p2p
