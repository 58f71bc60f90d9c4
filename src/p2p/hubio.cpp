// The network thread of the open P2P transport: accepts viewers, checks their session request,
// cuts what they send into messages and delivers them to the session and AV channel tables, and
// writes the sessions' send queues without ever blocking on a slow viewer.
#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sodium.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "base/log.h"
#include "core/configuration.h"
#include "p2p/hubstate.h"
#include "platform/board.h"

namespace p2p {

namespace {

constexpr size_t kReadChunk = 65536;
constexpr size_t kWriteBatch = 65536;
constexpr size_t kBatchedMessage = 4096;  // larger messages go out from their own buffer

// Equal texts, compared in time independent of where they differ and of their lengths.
bool SameSecret(const std::string& a, const std::string& b) {
  unsigned char ha[crypto_generichash_BYTES], hb[crypto_generichash_BYTES];
  crypto_generichash(ha, sizeof ha, reinterpret_cast<const unsigned char*>(a.data()), a.size(),
                     nullptr, 0);
  crypto_generichash(hb, sizeof hb, reinterpret_cast<const unsigned char*>(b.data()), b.size(),
                     nullptr, 0);
  return sodium_memcmp(ha, hb, sizeof ha) == 0;
}

void MarkGone(Session& s, bool bye) {
  s.state = Session::kGone;
  s.remote_bye = bye;
  s.control.clear();
  s.media.clear();
  s.control_bytes = s.media_bytes = 0;
  s.rdt.clear();
  s.rdt_queued.fill(0);
}

std::string Peer(const Conn& c) {
  return c.ip + ":" + std::to_string(c.port);
}

}  // namespace

int HubTransport::Initialize(uint16_t port) {
  std::lock_guard<std::mutex> life(lifecycle_mu_);
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (initialized_) return IOTC_ER_ALREADY_INITIALIZED;
  }
  if (sodium_init() < 0) {
    TLOG(LOG_ERR) << "P2P transport: libsodium cannot start";
    return IOTC_ER_FAIL_SETUP_SOCKET;
  }
  const uint16_t p = port != 0 ? port : platform::P2pPort(kDefaultPort);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    TLOG(LOG_ERR) << "P2P transport: no socket: " << strerror(errno);
    return IOTC_ER_FAIL_SETUP_SOCKET;
  }
  const int one = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  addr.sin_port = htons(p);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0 || listen(fd, 16) != 0) {
    TLOG(LOG_ERR) << "P2P transport cannot listen on TCP port " << p << ": " << strerror(errno);
    close(fd);
    return IOTC_ER_FAIL_SETUP_SOCKET;
  }
  const int wfd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
  if (wfd < 0) {
    TLOG(LOG_ERR) << "P2P transport: no eventfd: " << strerror(errno);
    close(fd);
    return IOTC_ER_FAIL_SETUP_SOCKET;
  }
  {
    std::lock_guard<std::mutex> lock(mu_);
    listen_fd_ = fd;
    wake_fd_ = wfd;
    wake_pending_.store(false);
    stop_ = false;
    timing_ = GetLinkTimeouts();
    accepted_.clear();
    refused_ = 0;
    listening_ = false;
    uid_.clear();
    fixed_password_.clear();
    close_orders_.clear();
    initialized_ = true;
  }
  try {
    thread_ = std::thread(&HubTransport::Run, this);
  } catch (const std::system_error& e) {
    TLOG(LOG_ERR) << "P2P transport thread cannot start: " << e.what();
    std::lock_guard<std::mutex> lock(mu_);
    initialized_ = false;
    ++init_gen_;
    close(listen_fd_);
    close(wake_fd_);
    listen_fd_ = wake_fd_ = -1;
    return IOTC_ER_FAIL_CREATE_THREAD;
  }
  TLOG(LOG_DEBUG) << "P2P transport listening on TCP port " << p;
  return IOTC_ER_NoERROR;
}

int HubTransport::DeInitialize() {
  std::lock_guard<std::mutex> life(lifecycle_mu_);
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (!initialized_) return IOTC_ER_NOT_INITIALIZED;
    initialized_ = false;
    stop_ = true;
    ++init_gen_;
    listening_ = false;
    Wake();
  }
  thread_.join();
  std::lock_guard<std::mutex> lock(mu_);
  for (auto& s : sessions_)
    if (s.state != Session::kFree) ResetSession(s);
  accepted_.clear();
  refused_ = 0;
  uid_.clear();
  fixed_password_.clear();
  close_orders_.clear();
  close(listen_fd_);
  close(wake_fd_);
  listen_fd_ = wake_fd_ = -1;
  cv_.notify_all();
  TLOG(LOG_DEBUG) << "P2P transport stopped";
  return IOTC_ER_NoERROR;
}

void HubTransport::CloseConn(Conn& c) {
  if (c.fd >= 0) close(c.fd);
  c.fd = -1;
}

void HubTransport::StartLinger(Conn& c, Clock::time_point now) {
  c.phase = Conn::kLinger;
  c.deadline = now + std::chrono::milliseconds(timing_.linger_ms);
}

void HubTransport::Lose(Conn& c, const std::string& why) {
  {
    std::lock_guard<std::mutex> lock(mu_);
    Session& s = sessions_[c.sid];
    if (s.gen == c.session_gen && s.state == Session::kOpen) {
      MarkGone(s, false);
      cv_.notify_all();
    }
  }
  TLOG(LOG_WARNING) << "P2P session " << c.sid << " from " << Peer(c) << " lost: " << why;
  CloseConn(c);
}

void HubTransport::AcceptAll(Clock::time_point now) {
  for (;;) {
    sockaddr_in addr{};
    socklen_t len = sizeof addr;
    const int fd =
        accept4(listen_fd_, reinterpret_cast<sockaddr*>(&addr), &len, SOCK_NONBLOCK | SOCK_CLOEXEC);
    if (fd < 0) {
      if (errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR && errno != ECONNABORTED)
        TLOG(LOG_WARNING) << "P2P accept failed: " << strerror(errno);
      if (errno == ECONNABORTED || errno == EINTR) continue;
      return;
    }
    char ip[INET_ADDRSTRLEN] = "";
    inet_ntop(AF_INET, &addr.sin_addr, ip, sizeof ip);
    const size_t waiting = std::count_if(conns_.begin(), conns_.end(), [](const auto& c) {
      return c->phase == Conn::kHello && c->fd >= 0;
    });
    if (waiting >= kMaxPendingConnections) {
      TLOG(LOG_WARNING) << "P2P connection from " << ip << " closed: " << waiting
                        << " connections are already waiting to ask for a session";
      close(fd);
      continue;
    }
    const int one = 1;
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    auto c = std::make_unique<Conn>();
    c->fd = fd;
    c->id = next_conn_id_++;
    c->ip = ip;
    c->port = ntohs(addr.sin_port);
    c->last_rx = c->last_tx = now;
    c->deadline = now + std::chrono::milliseconds(timing_.hello_ms);
    conns_.push_back(std::move(c));
  }
}

bool HubTransport::HandleHello(Conn& c, const wire::Message& m, Clock::time_point now) {
  wire::Hello h;
  if (m.type != static_cast<uint8_t>(wire::MsgType::kHello) || !wire::ParseHello(m.payload, &h)) {
    TLOG(LOG_WARNING) << "P2P connection from " << Peer(c)
                      << " closed: its first message is not a valid session request";
    CloseConn(c);
    return false;
  }
  std::string uid, password;
  {
    std::lock_guard<std::mutex> lock(mu_);
    uid = uid_;
    password = fixed_password_;
  }
  if (password.empty()) password = Configuration::getInstance().GetP2pPassword();
  int result = IOTC_ER_NoERROR;
  const char* why = "";
  if (h.version != wire::kProtocolVersion) {
    result = IOTC_ER_PROTOCOL;
    why = "unknown protocol version";
  } else if (uid.empty()) {
    result = IOTC_ER_DEVICE_NOT_LOGGED_IN;
    why = "the device is not logged in yet";
  } else if (!SameSecret(h.uid, uid)) {
    result = IOTC_ER_UNKNOWN_DEVICE;
    why = "wrong uid";
  } else if (password.empty() || !SameSecret(h.password, password)) {
    result = IOTC_ER_WRONG_PASSWORD;
    why = "wrong password";
  }
  int sid = -1;
  {
    std::lock_guard<std::mutex> lock(mu_);
    if (result == IOTC_ER_NoERROR) {
      for (unsigned i = 0; i < max_sessions_; ++i) {
        if (sessions_[i].state == Session::kFree) {
          sid = static_cast<int>(i);
          break;
        }
      }
      if (sid < 0) {
        result = IOTC_ER_EXCEED_MAX_SESSION;
        why = "every session is in use";
        ++refused_;
      } else {
        Session& s = sessions_[sid];
        ResetSession(s);
        s.state = Session::kOpen;
        s.conn_id = c.id;
        s.uid = h.uid;
        s.ip = c.ip;
        s.port = c.port;
        s.viewer_version = h.library_version;
        s.tx = 1;
        s.rx = 1;
        c.sid = sid;
        c.session_gen = s.gen;
        accepted_.push_back(sid);
      }
      cv_.notify_all();
    }
  }
  wire::HelloResult answer;
  answer.result = result;
  answer.sid = sid;
  answer.library_version = kLibraryVersion;
  c.out = ToOut(wire::EncodeHelloResult(answer));
  c.out_pos = 0;
  if (result != IOTC_ER_NoERROR) {
    TLOG(LOG_WARNING) << "P2P session request from " << Peer(c) << " refused (" << result
                      << "): " << why;
    StartLinger(c, now);
    return false;
  }
  TLOG(LOG_DEBUG) << "P2P session " << sid << " opened for " << Peer(c);
  c.phase = Conn::kSession;
  return true;
}

bool HubTransport::Deliver(Conn& c, const std::vector<wire::Message>& msgs) {
  using wire::MsgType;
  std::lock_guard<std::mutex> lock(mu_);
  Session& s = sessions_[c.sid];
  if (s.gen != c.session_gen || s.state != Session::kOpen) return true;
  std::string violation;
  bool bye = false;
  for (const auto& m : msgs) {
    ++s.rx;
    const unsigned ch = m.channel;
    const int idx = s.bound[ch];
    AvChannel* a = idx >= 0 ? &av_[idx] : nullptr;
    switch (static_cast<MsgType>(m.type)) {
      case MsgType::kPing:
        break;
      case MsgType::kBye:
        bye = true;
        break;
      case MsgType::kAvLogin: {
        wire::Login l;
        if (!wire::ParseLogin(m.payload, &l)) {
          violation = "malformed AV login";
        } else if (idx >= 0 || s.logins[ch].present) {
          violation = "second AV login on channel " + std::to_string(ch);
        } else {
          s.logins[ch].present = true;
          s.logins[ch].account = std::move(l.account);
          s.logins[ch].text = std::move(l.secret);
          cv_.notify_all();
        }
        break;
      }
      case MsgType::kClientLoginResult: {
        wire::LoginResult r;
        if (!wire::ParseLoginResult(m.payload, &r)) {
          violation = "malformed channel answer";
        } else if (a != nullptr && a->state == AvChannel::kConnecting && !a->answered) {
          a->answered = true;
          a->answer = r.result == 0 ? 0 : AV_ER_SERV_NO_RESPONSE;
          a->service_type = r.service_type;
          cv_.notify_all();
        } else {
          TLOG(LOG_DEBUG) << "P2P session " << c.sid << ": late channel answer on " << ch;
        }
        break;
      }
      case MsgType::kChannelStop:
        s.logins[ch] = Session::PendingLogin();
        if (a != nullptr && a->state == AvChannel::kConnecting && !a->answered) {
          a->answered = true;
          a->answer = AV_ER_SERV_NO_RESPONSE;
        } else if (a != nullptr && a->state == AvChannel::kOpen) {
          a->state = AvChannel::kStopped;
          DropMedia(s, static_cast<uint8_t>(ch), true, true);
        }
        cv_.notify_all();
        break;
      case MsgType::kIoCtrl: {
        wire::IoCtrl io;
        if (!wire::ParseIoCtrl(m.payload, &io)) {
          violation = "malformed I/O control";
        } else if (a == nullptr || a->state != AvChannel::kOpen) {
          TLOG(LOG_DEBUG) << "P2P session " << c.sid << ": I/O control " << io.type
                          << " on channel " << ch << " without an AV channel, dropped";
        } else if (a->ioctrl.size() >= kIoCtrlQueueMessages) {
          TLOG(LOG_WARNING) << "P2P session " << c.sid << ": I/O control " << io.type
                            << " dropped, " << a->ioctrl.size() << " are waiting to be read";
        } else {
          a->ioctrl.push_back(std::move(io));
          cv_.notify_all();
        }
        break;
      }
      case MsgType::kAudio: {
        wire::Frame f;
        if (!wire::ParseFrame(m.payload, wire::kMaxAudioData, &f)) {
          violation = "malformed audio frame";
        } else if (a != nullptr && a->state == AvChannel::kOpen) {
          a->audio_bytes += f.data.size();
          a->audio.push_back(std::move(f));
          while (a->audio.size() > kAudioQueueFrames || a->audio_bytes > kAudioQueueBytes) {
            a->audio_bytes -= a->audio.front().data.size();
            a->audio.pop_front();
            a->lost = true;
          }
        }
        break;
      }
      case MsgType::kRdtOpen:
      case MsgType::kRdtData:
      case MsgType::kRdtCredit:
      case MsgType::kRdtClose:
        DeliverRdt(s, m, &violation);
        break;
      default:
        violation = "unexpected message type " + std::to_string(m.type);
        break;
    }
    if (bye || !violation.empty()) break;
  }
  if (bye) {
    MarkGone(s, true);
    cv_.notify_all();
    TLOG(LOG_DEBUG) << "P2P session " << c.sid << ": the viewer said goodbye";
    return false;
  }
  if (!violation.empty()) {
    MarkGone(s, false);
    cv_.notify_all();
    TLOG(LOG_WARNING) << "P2P session " << c.sid << " from " << Peer(c)
                      << " closed on bad input: " << violation;
    return false;
  }
  return true;
}

bool HubTransport::ReadConn(Conn& c, Clock::time_point now) {
  uint8_t buf[kReadChunk];
  const ssize_t n = recv(c.fd, buf, sizeof buf, 0);
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return true;
  if (n <= 0) {
    const std::string why = n == 0 ? "closed without goodbye" : strerror(errno);
    if (c.phase == Conn::kSession) {
      Lose(c, why);
    } else {
      if (c.phase == Conn::kHello)
        TLOG(LOG_DEBUG) << "P2P connection from " << Peer(c) << " ended before a session request";
      CloseConn(c);
    }
    return false;
  }
  c.last_rx = now;
  if (c.phase == Conn::kLinger) return true;  // the session is over; what comes is dropped
  c.decoder.Feed(buf, static_cast<size_t>(n));
  std::vector<wire::Message> msgs;
  for (;;) {
    wire::Message m;
    const auto r = c.decoder.Next(&m);
    if (r == wire::Decoder::kNeedMore) break;
    if (r == wire::Decoder::kError) {
      if (c.phase == Conn::kHello) {
        TLOG(LOG_WARNING) << "P2P connection from " << Peer(c)
                          << " closed on bad input: " << c.decoder.error();
        CloseConn(c);
        return false;
      }
      if (!msgs.empty() && !Deliver(c, msgs)) {
        CloseConn(c);
        return false;
      }
      Lose(c, "bad input: " + c.decoder.error());
      return false;
    }
    if (c.phase == Conn::kHello && msgs.empty()) {
      if (!HandleHello(c, m, now)) return c.fd >= 0;
      continue;
    }
    msgs.push_back(std::move(m));
  }
  if (!msgs.empty() && !Deliver(c, msgs)) {
    CloseConn(c);
    return false;
  }
  return true;
}

bool HubTransport::WriteConn(Conn& c, Clock::time_point now) {
  for (;;) {
    if (c.out_pos == c.out.size()) {
      if (c.out.capacity() > 0) {
        std::lock_guard<std::mutex> lock(spare_mu_);
        KeepBuffer(std::move(c.out));
      }
      c.out.clear();
      c.out_pos = 0;
      if (c.phase == Conn::kSession) {
        std::lock_guard<std::mutex> lock(mu_);
        Session& s = sessions_[c.sid];
        if (s.gen == c.session_gen && s.state == Session::kOpen) {
          // Control first; a frame is moved rather than copied, only small messages (audio,
          // control) are batched behind the first.
          while (!s.control.empty() || !s.media.empty()) {
            const bool control = !s.control.empty();
            auto& q = control ? s.control : s.media;
            auto& bytes = q.front().bytes;
            const size_t size = bytes.size();
            if (c.out.empty()) {
              c.out = std::move(bytes);
            } else if (size <= kBatchedMessage && c.out.size() + size <= kWriteBatch) {
              Append(&c.out, bytes.data(), size);
            } else {
              break;
            }
            (control ? s.control_bytes : s.media_bytes) -= size;
            q.pop_front();
            ++s.tx;
            if (c.out.size() >= kWriteBatch) break;
          }
          TakeRdt(s, &c.out, kWriteBatch);
        }
      }
      if (c.out.empty()) {
        if (c.phase == Conn::kLinger && !c.shut) {
          shutdown(c.fd, SHUT_WR);
          c.shut = true;
        }
        return true;
      }
    }
    const ssize_t n = send(c.fd, c.out.data() + c.out_pos, c.out.size() - c.out_pos, MSG_NOSIGNAL);
    if (n < 0) {
      if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return true;
      const std::string why = std::string("send failed: ") + strerror(errno);
      // A viewer that said goodbye and closed with our bytes unread resets the connection: its
      // goodbye is still in the receive queue, so it is read before the session counts as lost.
      for (int i = 0; i < 64 && c.fd >= 0 && c.phase == Conn::kSession; ++i) {
        if (!ReadConn(c, now)) return false;
      }
      if (c.fd < 0) return false;
      if (c.phase == Conn::kSession) {
        Lose(c, why);
      } else {
        CloseConn(c);
      }
      return false;
    }
    c.out_pos += static_cast<size_t>(n);
    c.last_tx = now;
  }
}

void HubTransport::Run() {
  int listen_fd, wake_fd;
  {
    std::lock_guard<std::mutex> lock(mu_);
    listen_fd = listen_fd_;
    wake_fd = wake_fd_;
  }
  const auto ping = std::chrono::milliseconds(timing_.ping_ms);
  const auto idle = std::chrono::milliseconds(timing_.idle_ms);
  const int tick_ms = std::clamp(timing_.ping_ms / 2, 10, 250);
  std::vector<pollfd> fds;
  std::vector<Conn*> polled;
  for (;;) {
    auto now = Clock::now();
    std::vector<std::pair<uint64_t, std::vector<uint8_t>>> orders;
    {
      std::lock_guard<std::mutex> lock(mu_);
      if (stop_) break;
      orders.swap(close_orders_);
    }
    // Sessions the hub closed: their last answers and the goodbye go out, then the socket.
    for (auto& order : orders) {
      for (auto& c : conns_) {
        if (c->id != order.first || c->fd < 0 || c->phase != Conn::kSession) continue;
        if (c->out_pos == c->out.size()) {
          c->out = ToOut(order.second);
          c->out_pos = 0;
        } else {
          Append(&c->out, order.second.data(), order.second.size());
        }
        StartLinger(*c, now);
      }
    }
    for (auto& c : conns_) {
      if (c->fd < 0) continue;
      if (c->phase == Conn::kHello && now >= c->deadline) {
        TLOG(LOG_WARNING) << "P2P connection from " << Peer(*c)
                          << " closed: no session request in time";
        CloseConn(*c);
      } else if (c->phase == Conn::kLinger && now >= c->deadline) {
        CloseConn(*c);
      } else if (c->phase == Conn::kSession && now - c->last_rx >= idle) {
        Lose(*c, "nothing received for " + std::to_string(timing_.idle_ms) + " ms");
      } else if (c->phase == Conn::kSession && now - c->last_tx >= ping &&
                 c->out_pos == c->out.size()) {
        c->out = ToOut(wire::EncodeEmpty(wire::MsgType::kPing, 0));
        c->out_pos = 0;
      }
    }
    conns_.erase(
        std::remove_if(conns_.begin(), conns_.end(), [](const auto& c) { return c->fd < 0; }),
        conns_.end());

    fds.clear();
    polled.clear();
    fds.push_back(pollfd{wake_fd, POLLIN, 0});
    fds.push_back(pollfd{listen_fd, POLLIN, 0});
    {
      std::lock_guard<std::mutex> lock(mu_);
      for (auto& c : conns_) {
        short events = POLLIN;
        bool pending = c->out_pos < c->out.size();
        if (!pending && c->phase == Conn::kSession) {
          const Session& s = sessions_[c->sid];
          pending = s.gen == c->session_gen && s.state == Session::kOpen &&
                    (!s.control.empty() || !s.media.empty() || !s.rdt.empty());
        }
        if (pending || (c->phase == Conn::kLinger && !c->shut)) events |= POLLOUT;
        fds.push_back(pollfd{c->fd, events, 0});
        polled.push_back(c.get());
      }
    }
    if (poll(fds.data(), fds.size(), tick_ms) < 0 && errno != EINTR) {
      TLOG(LOG_ERR) << "P2P transport poll failed: " << strerror(errno);
    }
    now = Clock::now();
    if (fds[0].revents & POLLIN) {
      uint64_t count = 0;
      ssize_t n = read(wake_fd, &count, sizeof count);
      (void)n;
      // After the read (a wake-up written before it is taken by it) and before the queues are
      // looked at again (whatever is queued after this wakes the thread anew).
      wake_pending_.store(false);
    }
    for (size_t i = 0; i < polled.size(); ++i) {
      Conn& c = *polled[i];
      const short ev = fds[i + 2].revents;
      if (c.fd < 0 || ev == 0) continue;
      if ((ev & (POLLIN | POLLHUP | POLLERR)) && !ReadConn(c, now)) continue;
      if (c.fd >= 0 && (ev & POLLOUT)) WriteConn(c, now);
    }
    if (fds[1].revents & POLLIN) AcceptAll(now);
  }
  for (auto& c : conns_) CloseConn(*c);
  conns_.clear();
}

}  // namespace p2p
