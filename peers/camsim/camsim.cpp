#include "camsim/camsim.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <deque>
#include <future>
#include <mutex>
#include <thread>

#include "camera/framecutter.h"
#include "camsim/camsimmedia.h"
#include "camsim/camsimpair.h"
#include "camsim/camsimwire.h"
#include "core/log.h"

namespace camsim {
namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

constexpr int kFps = 15;
constexpr auto kTickPeriod = std::chrono::microseconds(1000000 / kFps);
constexpr auto kPollCap = milliseconds(200);
constexpr auto kSendTimeout = std::chrono::seconds(3);
// After the reply the hub keeps the pairing connection open a few seconds, then closes it.
constexpr auto kPairCloseWait = std::chrono::seconds(15);
constexpr size_t kRxCapacity = 8192;
constexpr size_t kDatagramMax = 2048;

const uint8_t kAllOnes[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
const uint8_t kZero[6] = {0};

uint32_t WallMillis() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

uint16_t ParsePort(const char* text, uint16_t fallback) {
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (*end != '\0' || v < 1 || v > 65535) return fallback;
  return static_cast<uint16_t>(v);
}

bool SockAddr(const std::string& ip, uint16_t port, struct sockaddr_in* out) {
  std::memset(out, 0, sizeof(*out));
  out->sin_family = AF_INET;
  out->sin_port = htons(port);
  return inet_pton(AF_INET, ip.c_str(), &out->sin_addr) == 1;
}

std::string PaddedText(const uint8_t* p, size_t n) {
  size_t len = 0;
  while (len < n && p[len] != 0) len++;
  std::string out;
  for (size_t i = 0; i < len; i++) {
    const char c = static_cast<char>(p[i]);
    out += (c >= 0x20 && c < 0x7F) ? c : '?';
  }
  return out;
}

}  // namespace

HubEndpoint HubEndpoint::FromEnvironment() {
  HubEndpoint hub;
  const char* ip = std::getenv("TARVO_HUB_IP");
  if (ip != nullptr && *ip != '\0') hub.ip = ip;
  hub.camera_port = ParsePort(std::getenv("TARVO_CAMERA_PORT"), hub.camera_port);
  hub.pairing_port = ParsePort(std::getenv("TARVO_PAIRING_PORT"), hub.pairing_port);
  hub.wake_port = ParsePort(std::getenv("TARVO_WAKE_PORT"), hub.wake_port);
  return hub;
}

int Stats::Count(uint8_t type, uint8_t subtype) const {
  auto it = counts.find(static_cast<uint16_t>(type << 8 | subtype));
  return it == counts.end() ? 0 : it->second;
}

milliseconds Stats::SinceLastFrame() const {
  return std::chrono::duration_cast<milliseconds>(Clock::now() - last_sent);
}

uint32_t WireVersion(int version) {
  if (version < 0 || version > 999999) return 0;
  return static_cast<uint32_t>(std::strtoul(std::to_string(version).c_str(), nullptr, 16));
}

// ---------------------------------------------------------------------------------------------

class Camera::Impl {
 public:
  Impl(CameraConfig config, HubEndpoint hub, Behaviour behaviour)
      : config_(std::move(config)), hub_(std::move(hub)), behaviour_(behaviour) {
    if (!NormalizeMac(config_.mac, &mac_)) mac_ = config_.mac;
  }
  ~Impl() { Stop(); }

  const std::string& mac() const { return mac_; }
  const std::string& ip() const { return config_.ip; }
  void SetLogger(Logger logger) { logger_ = std::move(logger); }

  int Start(std::string* error);
  void Stop();
  // Runs fn on the camera's thread and returns its result; -1 when the camera does not run.
  int Call(const std::function<int()>& fn);

  Stats GetStats() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return stats_;
  }
  bool WaitUntil(const std::function<bool(const Stats&)>& pred, milliseconds timeout) const {
    const auto deadline = Clock::now() + timeout;
    std::unique_lock<std::mutex> lock(mutex_);
    while (!pred(stats_)) {
      if (Clock::now() >= deadline) return false;
      changed_.wait_for(lock, milliseconds(50));
    }
    return true;
  }

  // --- on the camera's thread ---
  int DoPair(std::string* error);
  int DoConnect(std::string* error);
  void DoDisconnect();
  int DoSleep(const std::string& why);
  int DoWake();
  int DoLogin(bool addressed);
  int DoPir();
  int DoBattery(uint32_t vbat);

 private:
  enum class WakeReason { kTcp, kUdp, kCommand, kSelf };
  struct Task {
    std::function<int()> fn;
    std::promise<int> done;
  };

  void Run();
  void RunTasks();
  void OnTimers(Clock::time_point now);
  milliseconds Timeout(Clock::time_point now) const;
  void ReadTcp();
  void ReadUdp();
  void ReadOld(size_t index);
  void HandleFrame(const _net_cmd_type* frame);
  void Execute(const _net_cmd_type* frame);
  void WakeUp(WakeReason reason);
  void StartStreaming(bool pir);
  void StopStreaming(const std::string& why);
  // Appends a talk-back frame's audio to the talk-back file, when kept.
  void WriteTalk(const _net_cmd_type* frame);
  void SendTick();

  Origin Next();
  int SendBytes(const uint8_t* bytes, size_t n);
  int SendFrame(const uint8_t* frame, int size);
  int SendKeepAlive();
  int SendHeartbeat();
  int SendInfo(uint8_t type, const uint8_t* dst);
  void Ack(const _net_cmd_type* command, bool ok);
  void CloseTcp();
  void Dropped(const std::string& why, bool by_hub);
  _net_cmd_get_info_type Info() const;
  bool Stopping() const { return stop_.load(); }

  void Log(const std::string& text) {
    if (logger_) {
      logger_(mac_, text);
    } else {
      TLOG(LOG_DEBUG) << "camera " << mac_ << " " << text;
    }
  }
  template <typename F>
  void Update(F f) {
    {
      std::lock_guard<std::mutex> lock(mutex_);
      f(stats_);
    }
    changed_.notify_all();
  }

  const CameraConfig config_;
  const HubEndpoint hub_;
  const Behaviour behaviour_;
  std::string mac_;
  uint8_t addr_[6] = {0};
  Logger logger_;
  std::shared_ptr<const VideoClip> video_;
  std::shared_ptr<const AudioClip> audio_;

  std::thread thread_;
  std::atomic<std::thread::id> worker_id_{};
  std::atomic<bool> stop_{false};
  int event_fd_ = -1;
  int udp_fd_ = -1;
  std::mutex task_mutex_;
  std::deque<std::shared_ptr<Task>> tasks_;
  bool accepting_ = false;  // guarded by task_mutex_

  // The connection: written on the camera's thread under fd_mutex_, which Stop also takes to
  // break a blocked send.
  std::mutex fd_mutex_;
  int tcp_fd_ = -1;

  // Camera state, on the camera's thread only.
  std::vector<int> old_fds_;  // replaced connections, until the hub closes them
  std::unique_ptr<command::FrameCutter> rx_;
  std::unique_ptr<uint8_t[]> out_;
  std::FILE* talk_out_ = nullptr;  // the talk-back file, when kept
  bool connected_ = false;
  bool want_connected_ = false;
  bool awake_ = false;
  bool streaming_ = false;
  bool pir_stream_ = false;
  bool hub_known_ = false;
  uint8_t hub_addr_[6] = {0};
  size_t pending_heartbeats_ = 0;
  uint16_t seq_ = 0;
  Clock::time_point last_sent_;
  Clock::time_point last_activity_;
  Clock::time_point next_heartbeat_;
  Clock::time_point next_tick_;
  Clock::time_point stream_end_;
  Clock::time_point reconnect_at_;
  uint64_t tick_ = 0;
  uint32_t frame_index_ = 0;
  int pir_ = 0;
  int pir_interval_ = 0;
  int night_ = 0;
  uint32_t vbat_ = 0;

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Stats stats_;
};

int Camera::Impl::Start(std::string* error) {
  auto fail = [error](const std::string& text) {
    if (error != nullptr) *error = text;
    return -1;
  };
  if (thread_.joinable()) return fail("camera " + mac_ + " already runs");
  if (!NormalizeMac(config_.mac, &mac_) || command::AddressFromText(mac_, addr_) < 0) {
    return fail("not a MAC: " + config_.mac);
  }
  if (std::memcmp(addr_, kZero, 6) == 0 || std::memcmp(addr_, kAllOnes, 6) == 0) {
    return fail("not a camera MAC: " + config_.mac);
  }
  struct sockaddr_in local;
  if (!SockAddr(config_.ip, hub_.wake_port, &local))
    return fail("not an IPv4 address: " + config_.ip);
  if (config_.hard_ver < 0 || config_.hard_ver > 999999 || config_.soft_ver < 0 ||
      config_.soft_ver > 999999) {
    return fail("versions are 0..999999");
  }
  if (config_.rssi < -128 || config_.rssi > 127) return fail("rssi is -128..127");
  for (int v : {config_.battery_status, config_.pir, config_.power, config_.night}) {
    if (v < 0 || v > 255) return fail("battery status, pir, power and night are 0..255");
  }
  if (config_.pir_interval < 0 || config_.pir_interval > 65535) {
    return fail("pir interval is 0..65535");
  }
  std::string media_error;
  video_ = config_.video_file.empty() ? VideoClip::Synthetic()
                                      : VideoClip::Load(config_.video_file, &media_error);
  if (video_ == nullptr) return fail(media_error);
  audio_ = config_.audio_file.empty() ? AudioClip::Silence()
                                      : AudioClip::Load(config_.audio_file, &media_error);
  if (audio_ == nullptr) return fail(media_error);

  if (!config_.talk_file.empty()) {
    talk_out_ = std::fopen(config_.talk_file.c_str(), "wbe");
    if (talk_out_ == nullptr) {
      return fail("cannot write the talk-back file " + config_.talk_file + ": " +
                  std::strerror(errno));
    }
  }
  auto close_talk = [this] {
    if (talk_out_ != nullptr) std::fclose(talk_out_);
    talk_out_ = nullptr;
  };
  udp_fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (udp_fd_ < 0 ||
      bind(udp_fd_, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) != 0) {
    const std::string why = std::strerror(errno);
    if (udp_fd_ >= 0) close(udp_fd_);
    udp_fd_ = -1;
    close_talk();
    return fail("cannot bind the wake port " + config_.ip + ":" + std::to_string(hub_.wake_port) +
                ": " + why);
  }
  event_fd_ = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (event_fd_ < 0) {
    close(udp_fd_);
    udp_fd_ = -1;
    close_talk();
    return fail("eventfd failed");
  }
  rx_.reset(new command::FrameCutter(kRxCapacity));
  out_.reset(new uint8_t[kMaxCameraFrame]);
  pir_ = config_.pir;
  pir_interval_ = config_.pir_interval;
  night_ = config_.night;
  vbat_ = config_.vbat;
  Update([&](Stats& s) {
    s.pir = pir_;
    s.pir_interval = pir_interval_;
    s.night = night_;
    s.vbat = vbat_;
  });
  stop_.store(false);
  {
    std::lock_guard<std::mutex> lock(task_mutex_);
    accepting_ = true;
  }
  thread_ = std::thread(&Impl::Run, this);
  Log("started on " + config_.ip + ", video " + video_->name() + " (" +
      std::to_string(video_->size()) + " frames), audio " + audio_->name());
  return 0;
}

void Camera::Impl::Stop() {
  if (!thread_.joinable()) return;
  stop_.store(true);
  const uint64_t one = 1;
  (void)!write(event_fd_, &one, sizeof(one));
  {
    std::lock_guard<std::mutex> lock(fd_mutex_);
    if (tcp_fd_ >= 0) shutdown(tcp_fd_, SHUT_RDWR);
  }
  thread_.join();
  close(event_fd_);
  close(udp_fd_);
  event_fd_ = -1;
  udp_fd_ = -1;
  if (talk_out_ != nullptr) std::fclose(talk_out_);
  talk_out_ = nullptr;
}

int Camera::Impl::Call(const std::function<int()>& fn) {
  if (std::this_thread::get_id() == worker_id_.load()) return fn();
  auto task = std::make_shared<Task>();
  task->fn = fn;
  std::future<int> result = task->done.get_future();
  {
    std::lock_guard<std::mutex> lock(task_mutex_);
    if (!accepting_) return -1;
    tasks_.push_back(task);
  }
  const uint64_t one = 1;
  (void)!write(event_fd_, &one, sizeof(one));
  return result.get();
}

void Camera::Impl::RunTasks() {
  uint64_t count;
  (void)!read(event_fd_, &count, sizeof(count));
  for (;;) {
    std::shared_ptr<Task> task;
    {
      std::lock_guard<std::mutex> lock(task_mutex_);
      if (tasks_.empty()) return;
      task = tasks_.front();
      tasks_.pop_front();
    }
    task->done.set_value(Stopping() ? -1 : task->fn());
  }
}

void Camera::Impl::Run() {
  worker_id_.store(std::this_thread::get_id());
  std::vector<struct pollfd> fds;
  while (!Stopping()) {
    OnTimers(Clock::now());
    const milliseconds timeout = Timeout(Clock::now());
    fds.clear();
    fds.push_back({event_fd_, POLLIN, 0});
    fds.push_back({udp_fd_, POLLIN, 0});
    const int polled_tcp = tcp_fd_;
    fds.push_back({polled_tcp, POLLIN, 0});  // a negative descriptor is skipped by poll
    const std::vector<int> polled_old = old_fds_;
    for (int fd : polled_old) fds.push_back({fd, POLLIN, 0});
    if (poll(fds.data(), fds.size(), static_cast<int>(timeout.count())) < 0 && errno != EINTR) {
      Log(std::string("poll failed: ") + std::strerror(errno));
      break;
    }
    if (fds[0].revents != 0) RunTasks();
    if (Stopping()) break;
    // The connection first: a wake frame on it and a datagram of the same wake may both wait.
    if (polled_tcp >= 0 && polled_tcp == tcp_fd_ && fds[2].revents != 0) ReadTcp();
    if (fds[1].revents != 0) ReadUdp();
    for (size_t i = 0; i < polled_old.size(); i++) {
      if (fds[3 + i].revents == 0) continue;
      for (size_t j = 0; j < old_fds_.size(); j++) {
        if (old_fds_[j] == polled_old[i]) {
          ReadOld(j);
          break;
        }
      }
    }
  }
  {
    std::lock_guard<std::mutex> lock(task_mutex_);
    accepting_ = false;
  }
  RunTasks();  // answers -1 to what is left
  streaming_ = false;
  CloseTcp();
  for (int fd : old_fds_) close(fd);
  old_fds_.clear();
  Update([](Stats& s) {
    s.connected = false;
    s.streaming = false;
  });
  Log("stopped");
}

milliseconds Camera::Impl::Timeout(Clock::time_point now) const {
  Clock::time_point due = now + kPollCap;
  auto consider = [&due](Clock::time_point t) {
    if (t < due) due = t;
  };
  if (streaming_) consider(next_tick_);
  if (streaming_ && pir_stream_) consider(stream_end_);
  if (connected_ && awake_ && !streaming_) consider(last_sent_ + behaviour_.keepalive);
  if (connected_ && !awake_ && pending_heartbeats_ < kMaxHeartbeats) consider(next_heartbeat_);
  if (awake_ && !streaming_ && behaviour_.awake_time.count() > 0) {
    consider(last_activity_ + behaviour_.awake_time);
  }
  if (!connected_ && want_connected_ && behaviour_.reconnect.count() > 0) consider(reconnect_at_);
  if (due <= now) return milliseconds(0);
  return std::chrono::duration_cast<milliseconds>(due - now) + milliseconds(1);
}

void Camera::Impl::OnTimers(Clock::time_point now) {
  if (!connected_ && want_connected_ && behaviour_.reconnect.count() > 0 && now >= reconnect_at_) {
    std::string error;
    if (DoConnect(&error) < 0) {
      Log("reconnect failed: " + error);
      reconnect_at_ = Clock::now() + behaviour_.reconnect;
    }
  }
  if (streaming_ && pir_stream_ && now >= stream_end_) StopStreaming("motion stream over");
  if (streaming_) {
    int sent = 0;
    while (streaming_ && Clock::now() >= next_tick_ && sent < kFps) {
      SendTick();
      next_tick_ += kTickPeriod;
      sent++;
    }
    // Far behind (a stalled hub): start the pace again from now.
    if (streaming_ && Clock::now() > next_tick_ + std::chrono::seconds(1)) {
      next_tick_ = Clock::now() + kTickPeriod;
    }
  }
  now = Clock::now();
  if (connected_ && awake_ && !streaming_ && now - last_sent_ >= behaviour_.keepalive) {
    SendKeepAlive();
  }
  if (connected_ && !awake_ && pending_heartbeats_ < kMaxHeartbeats && now >= next_heartbeat_) {
    SendHeartbeat();
    next_heartbeat_ = now + behaviour_.heartbeat;
  }
  if (awake_ && !streaming_ && behaviour_.awake_time.count() > 0 &&
      now - last_activity_ >= behaviour_.awake_time) {
    DoSleep("nothing to do");
  }
}

// --- Sending ---------------------------------------------------------------------------------

Origin Camera::Impl::Next() {
  Origin origin;
  origin.camera = addr_;
  origin.seq = seq_++;
  origin.timestamp = static_cast<uint32_t>(std::time(nullptr));
  return origin;
}

int Camera::Impl::SendBytes(const uint8_t* bytes, size_t n) {
  if (tcp_fd_ < 0) return -1;
  size_t done = 0;
  while (done < n) {
    const ssize_t w = send(tcp_fd_, bytes + done, n - done, MSG_NOSIGNAL);
    if (w < 0 && errno == EINTR) continue;
    if (w <= 0) {
      Dropped(std::string("send failed: ") + std::strerror(errno), false);
      return -1;
    }
    done += static_cast<size_t>(w);
  }
  return static_cast<int>(n);
}

int Camera::Impl::SendKeepAlive() {
  uint8_t frame[kKeepAliveSize];
  KeepAliveFrame(frame);
  const size_t skip = pending_heartbeats_;
  if (SendBytes(frame + skip, kKeepAliveSize - skip) < 0) return -1;
  pending_heartbeats_ = 0;
  last_sent_ = Clock::now();
  Update([&](Stats& s) {
    s.keepalives++;
    s.last_sent = last_sent_;
  });
  return 0;
}

int Camera::Impl::SendHeartbeat() {
  const uint8_t beat = kHeartbeatByte;
  if (SendBytes(&beat, 1) < 0) return -1;
  pending_heartbeats_++;
  Update([](Stats& s) { s.heartbeats++; });
  return 0;
}

int Camera::Impl::SendFrame(const uint8_t* frame, int size) {
  if (size < 0 || tcp_fd_ < 0) return -1;
  if (pending_heartbeats_ > 0 && SendKeepAlive() < 0) return -1;
  if (SendBytes(frame, static_cast<size_t>(size)) < 0) return -1;
  last_sent_ = Clock::now();
  Update([&](Stats& s) { s.last_sent = last_sent_; });
  return 0;
}

_net_cmd_get_info_type Camera::Impl::Info() const {
  _net_cmd_get_info_type info;
  std::memcpy(info.mac, addr_, 6);
  struct in_addr ip;
  if (inet_pton(AF_INET, config_.ip.c_str(), &ip) == 1) std::memcpy(info.ip, &ip, 4);
  info.hard_ver = WireVersion(config_.hard_ver);
  info.soft_ver = WireVersion(config_.soft_ver);
  info.battery_status = static_cast<uint8_t>(config_.battery_status);
  info.pir = static_cast<uint8_t>(pir_);
  info.power = static_cast<uint8_t>(config_.power);
  info.night = static_cast<uint8_t>(night_);
  info.vbat = vbat_;
  info.pir_interval = static_cast<uint16_t>(pir_interval_);
  info.rssi = static_cast<int8_t>(config_.rssi);
  return info;
}

int Camera::Impl::SendInfo(uint8_t type, const uint8_t* dst) {
  uint8_t payload[_net_cmd_get_info_type::kWireSize];
  Info().Encode(payload);
  uint8_t frame[_net_cmd_get_info_type::kWireSize + command::kFrameOverhead];
  return SendFrame(frame, BuildCameraFrame(frame, sizeof(frame), Next(), dst, type, 0, payload,
                                           sizeof(payload)));
}

void Camera::Impl::Ack(const _net_cmd_type* command, bool ok) {
  if (!behaviour_.answer) return;
  uint8_t frame[3 + command::kFrameOverhead];
  const uint8_t result = ok ? behaviour_.ack_result : 0;
  SendFrame(frame, BuildAck(frame, sizeof(frame), Next(), command, result));
}

int Camera::Impl::DoLogin(bool addressed) {
  if (!connected_) return -1;
  _net_cmd_login_type login;
  login.hard_ver = WireVersion(config_.hard_ver);
  login.soft_ver = WireVersion(config_.soft_ver);
  uint8_t payload[_net_cmd_login_type::kWireSize];
  login.Encode(payload);
  const uint8_t* dst = addressed && hub_known_ ? hub_addr_ : nullptr;
  uint8_t frame[_net_cmd_login_type::kWireSize + command::kFrameOverhead];
  if (SendFrame(frame, BuildCameraFrame(frame, sizeof(frame), Next(), dst, command::kTypeLogin, 0,
                                        payload, sizeof(payload))) < 0) {
    return -1;
  }
  Log(std::string("login sent") +
      (dst != nullptr ? " to the hub " + command::AddressText(dst) : " unaddressed"));
  Update([](Stats& s) { s.logins++; });
  return 0;
}

// --- Connections -----------------------------------------------------------------------------

void Camera::Impl::CloseTcp() {
  std::lock_guard<std::mutex> lock(fd_mutex_);
  if (tcp_fd_ >= 0) close(tcp_fd_);
  tcp_fd_ = -1;
}

void Camera::Impl::Dropped(const std::string& why, bool by_hub) {
  if (tcp_fd_ < 0) return;
  CloseTcp();
  rx_->Clear();
  connected_ = false;
  pending_heartbeats_ = 0;
  if (streaming_) StopStreaming("connection lost");
  Log("connection lost: " + why);
  if (want_connected_ && behaviour_.reconnect.count() > 0) {
    reconnect_at_ = Clock::now() + behaviour_.reconnect;
  }
  Update([&](Stats& s) {
    s.connected = false;
    if (by_hub) s.hub_closes++;
  });
}

int Camera::Impl::DoConnect(std::string* error) {
  auto fail = [&](const std::string& text) {
    if (error != nullptr) *error = text;
    // A camera that reconnects keeps trying until the hub listens.
    if (behaviour_.reconnect.count() > 0 && !connected_) {
      want_connected_ = true;
      reconnect_at_ = Clock::now() + behaviour_.reconnect;
    }
    return -1;
  };
  struct sockaddr_in local, remote;
  SockAddr(config_.ip, 0, &local);
  if (!SockAddr(hub_.ip, hub_.camera_port, &remote)) return fail("not a hub address: " + hub_.ip);
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return fail(std::string("socket: ") + std::strerror(errno));
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) != 0 ||
      connect(fd, reinterpret_cast<struct sockaddr*>(&remote), sizeof(remote)) != 0) {
    const std::string why = std::strerror(errno);
    close(fd);
    return fail("connect from " + config_.ip + " to " + hub_.ip + ":" +
                std::to_string(hub_.camera_port) + ": " + why);
  }
  struct timeval tv;
  tv.tv_sec = std::chrono::duration_cast<std::chrono::seconds>(kSendTimeout).count();
  tv.tv_usec = 0;
  setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv));
  if (tcp_fd_ >= 0) {
    // The old connection stays open: the hub drops it when it takes the new one.
    old_fds_.push_back(tcp_fd_);
  }
  {
    std::lock_guard<std::mutex> lock(fd_mutex_);
    tcp_fd_ = fd;
  }
  rx_->Clear();
  connected_ = true;
  want_connected_ = true;
  pending_heartbeats_ = 0;
  awake_ = true;
  last_activity_ = Clock::now();
  Log("connected to " + hub_.ip + ":" + std::to_string(hub_.camera_port));
  Update([](Stats& s) {
    s.connects++;
    s.connected = true;
    s.awake = true;
  });
  // The first login of a connection is unaddressed.
  if (DoLogin(false) < 0) return fail("login failed");
  return 0;
}

void Camera::Impl::DoDisconnect() {
  want_connected_ = false;
  if (streaming_) StopStreaming("disconnecting");
  if (tcp_fd_ >= 0) Log("disconnected");
  CloseTcp();
  rx_->Clear();
  for (int fd : old_fds_) close(fd);
  old_fds_.clear();
  connected_ = false;
  pending_heartbeats_ = 0;
  Update([](Stats& s) { s.connected = false; });
}

void Camera::Impl::ReadOld(size_t index) {
  const int fd = old_fds_[index];
  uint8_t sink[4096];
  const ssize_t n = recv(fd, sink, sizeof(sink), MSG_DONTWAIT);
  if (n > 0) return;  // frames on a replaced connection are not for the camera any more
  if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR)) return;
  close(fd);
  old_fds_.erase(old_fds_.begin() + static_cast<std::ptrdiff_t>(index));
  Log("the hub closed the replaced connection");
  Update([](Stats& s) { s.replaced_closes++; });
}

// --- Receiving -------------------------------------------------------------------------------

void Camera::Impl::ReadTcp() {
  if (rx_->Space() == 0) rx_->Clear();
  const ssize_t n = recv(tcp_fd_, rx_->WritePtr(), rx_->Space(), MSG_DONTWAIT);
  if (n == 0) {
    Dropped("the hub closed the connection", true);
    return;
  }
  if (n < 0) {
    if (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR) return;
    Dropped(std::string("receive failed: ") + std::strerror(errno), true);
    return;
  }
  rx_->Commit(static_cast<size_t>(n));
  const uint64_t discards = rx_->Discards();
  rx_->Cut([this](const _net_cmd_type* frame) { HandleFrame(frame); });
  if (rx_->Discards() != discards) {
    Log("received bytes that are no frame, dropped");
    Update([](Stats& s) { s.discards++; });
  }
}

void Camera::Impl::ReadUdp() {
  uint8_t buf[kDatagramMax];
  struct sockaddr_in from;
  socklen_t len = sizeof(from);
  const ssize_t n = recvfrom(udp_fd_, buf, sizeof(buf), MSG_DONTWAIT,
                             reinterpret_cast<struct sockaddr*>(&from), &len);
  if (n <= 0) return;
  const uint16_t count = static_cast<uint16_t>(n);
  const _net_cmd_type* frame = command::AsFrame(buf);
  if (command::CheckCommand(buf, count) != 1 || frame->type != command::kTypeWake ||
      frame->subtype != 0) {
    Log("datagram of " + std::to_string(n) + " bytes is no wake frame, ignored");
    return;
  }
  if (std::memcmp(frame->dst_addr, addr_, 6) != 0) {
    Log("wake datagram for " + command::AddressText(frame->dst_addr) + " ignored");
    return;
  }
  Update([](Stats& s) { s.wake_datagrams++; });
  if (!hub_known_) {
    std::memcpy(hub_addr_, frame->src_addr, 6);
    hub_known_ = true;
  }
  if (awake_) return;
  if (!behaviour_.wake_on_udp) {
    Log("wake datagram ignored while asleep");
    return;
  }
  WakeUp(WakeReason::kUdp);
}

void Camera::Impl::HandleFrame(const _net_cmd_type* frame) {
  if (std::memcmp(frame->dst_addr, addr_, 6) != 0) {
    Log("frame " + FrameName(frame->type, frame->subtype) + " for " +
        command::AddressText(frame->dst_addr) + " ignored");
    Update([](Stats& s) { s.foreign_frames++; });
    return;
  }
  uint32_t ack_id = 0;
  if (!command::IsAckIdAddress(frame->src_addr, &ack_id) &&
      std::memcmp(frame->src_addr, kAllOnes, 6) != 0 &&
      std::memcmp(frame->src_addr, kZero, 6) != 0) {
    std::memcpy(hub_addr_, frame->src_addr, 6);
    hub_known_ = true;
  }
  Received r;
  r.type = frame->type;
  r.subtype = frame->subtype;
  r.src = command::AddressText(frame->src_addr);
  r.seq = frame->Seq();
  r.payload.assign(frame->Payload(), frame->Payload() + frame->Length());
  r.asleep = !awake_;
  const bool wake = frame->type == command::kTypeWake && frame->subtype == 0;
  const bool talk = frame->type == command::kTypeTalk;
  if (!talk) {
    Log("recv " + FrameName(frame->type, frame->subtype) + " seq " + std::to_string(r.seq) +
        " from " + r.src +
        (r.payload.empty() ? "" : ", " + std::to_string(r.payload.size()) + " bytes") +
        (r.asleep ? " (asleep)" : ""));
  }
  Update([&](Stats& s) {
    s.frames++;
    s.counts[static_cast<uint16_t>(frame->type << 8 | frame->subtype)]++;
    if (wake) s.wake_frames++;
    if (talk) {
      s.talk_bytes += static_cast<int>(frame->Length());
      s.talk_frames++;
    }
    if (r.asleep && !wake) s.commands_asleep++;
    if (s.received.size() >= Stats::kKeptFrames) s.received.erase(s.received.begin());
    s.received.push_back(std::move(r));
  });
  if (wake) {
    if (awake_) return;
    if (!behaviour_.wake_on_tcp) {
      Log("wake frame ignored while asleep");
      return;
    }
    WakeUp(WakeReason::kTcp);
    return;
  }
  if (talk) {
    WriteTalk(frame);
    return;
  }
  if (!awake_) WakeUp(WakeReason::kCommand);
  last_activity_ = Clock::now();
  Execute(frame);
}

void Camera::Impl::WriteTalk(const _net_cmd_type* frame) {
  if (talk_out_ == nullptr || frame->Length() == 0) return;
  // Flushed at once, so a reader of the file sees every frame received so far.
  if (std::fwrite(frame->Payload(), 1, frame->Length(), talk_out_) != frame->Length() ||
      std::fflush(talk_out_) != 0) {
    Log("writing the talk-back file failed: " + std::string(std::strerror(errno)));
  }
}

void Camera::Impl::Execute(const _net_cmd_type* frame) {
  using namespace command;
  const uint8_t* p = frame->Payload();
  const size_t n = frame->Length();
  const uint8_t type = frame->type;
  const uint8_t sub = frame->subtype;
  if (type == kTypeControl && sub == kSubSleep) {
    Ack(frame, true);
    DoSleep("asked by the hub");
  } else if (type == kTypeControl && sub == kSubStartStream) {
    if (n < kStartStreamSize) {
      Ack(frame, false);
      return;
    }
    const uint32_t local = GetLe32(p);
    Update([&](Stats& s) { s.stream_time = local; });
    Ack(frame, true);
    StartStreaming(false);
  } else if (type == kTypeControl && sub == kSubStopStream) {
    Ack(frame, true);
    StopStreaming("asked by the hub");
  } else if (type == kTypeControl && sub == kSubUpgrade) {
    Log("upgrade from " + (n > 1 ? PaddedText(p + 1, n - 1) : std::string()) +
        " left alone: this camera does not upgrade");
    Update([](Stats& s) { s.upgrades++; });
  } else if (type == kTypePir && (sub == kSubPirMain || sub == kSubPirMain1 || sub == kSubPirNew)) {
    const size_t need = sub == kSubPirNew ? 2 : 1;
    if (n < need) {
      Ack(frame, false);
      return;
    }
    pir_ = p[0];
    if (sub == kSubPirNew) pir_interval_ = p[1] >= 10 ? p[1] - 10 : 0;
    Update([&](Stats& s) {
      s.pir = pir_;
      s.pir_interval = pir_interval_;
    });
    Ack(frame, true);
  } else if (type == kTypeProp && sub == 0) {
    if (behaviour_.answer) SendInfo(kTypeProp, frame->src_addr);
  } else if (type == kTypeSetting && sub == kSubVideoQuality) {
    if (n < kVideoQualitySize) {
      Ack(frame, false);
      return;
    }
    Update([&](Stats& s) {
      s.width = static_cast<int>(GetLe32(p + 4));
      s.height = static_cast<int>(GetLe32(p + 8));
      s.bitrate = static_cast<int>(GetLe32(p + 16));
    });
    Ack(frame, true);
  } else if (type == kTypeSetting && sub == kSubReset) {
    Update([](Stats& s) { s.resets++; });
    Ack(frame, true);
  } else if (type == kTypeSetting && sub == kSubNight) {
    if (n < 1) {
      Ack(frame, false);
      return;
    }
    night_ = p[0];
    Update([&](Stats& s) { s.night = night_; });
    Ack(frame, true);
  } else {
    Log("command " + FrameName(type, sub) + " unknown to this camera, ignored");
  }
}

// --- Sleep, wake and events ------------------------------------------------------------------

void Camera::Impl::WakeUp(WakeReason reason) {
  if (awake_) return;
  awake_ = true;
  last_activity_ = Clock::now();
  static const char* const kWhy[] = {"TCP wake frame", "UDP wake datagram", "command",
                                     "the camera itself"};
  Log(std::string("woken by ") + kWhy[static_cast<int>(reason)]);
  Update([&](Stats& s) {
    s.awake = true;
    if (reason == WakeReason::kTcp) s.wakes_tcp++;
    if (reason == WakeReason::kUdp) s.wakes_udp++;
    if (reason == WakeReason::kCommand) s.wakes_command++;
    if (reason == WakeReason::kSelf) s.wakes_self++;
  });
  if (connected_) {
    DoLogin(true);
  } else if (want_connected_) {
    std::string error;
    if (DoConnect(&error) < 0) Log("connect after waking failed: " + error);
  }
}

int Camera::Impl::DoSleep(const std::string& why) {
  if (!awake_) return 0;
  if (streaming_) StopStreaming("going to sleep");
  awake_ = false;
  next_heartbeat_ = Clock::now() + behaviour_.heartbeat;
  Log("asleep (" + why + ")");
  Update([](Stats& s) {
    s.awake = false;
    s.sleeps++;
  });
  return 0;
}

int Camera::Impl::DoWake() {
  if (!connected_ && !want_connected_) return -1;
  WakeUp(WakeReason::kSelf);
  return 0;
}

int Camera::Impl::DoPir() {
  if (!connected_) return -1;
  WakeUp(WakeReason::kSelf);
  uint8_t frame[command::kFrameOverhead];
  if (SendFrame(frame, BuildCameraFrame(frame, sizeof(frame), Next(), nullptr,
                                        command::kTypePirEvent, 0, nullptr, 0)) < 0) {
    return -1;
  }
  Log("motion event sent");
  Update([](Stats& s) { s.pir_events++; });
  if (!streaming_) StartStreaming(true);
  return 0;
}

int Camera::Impl::DoBattery(uint32_t vbat) {
  vbat_ = vbat;
  Update([&](Stats& s) { s.vbat = vbat; });
  if (!connected_) return -1;
  WakeUp(WakeReason::kSelf);
  if (SendInfo(command::kTypeBatteryEvent, nullptr) < 0) return -1;
  Log("battery event sent, " + std::to_string(vbat) + " mV");
  Update([](Stats& s) { s.battery_events++; });
  return 0;
}

void Camera::Impl::StartStreaming(bool pir) {
  if (streaming_) {
    pir_stream_ = pir_stream_ && pir;
    return;
  }
  streaming_ = true;
  pir_stream_ = pir;
  tick_ = 0;
  frame_index_ = 0;
  next_tick_ = Clock::now();
  stream_end_ = next_tick_ + behaviour_.pir_stream;
  Log(pir ? "streaming for the motion event" : "streaming");
  Update([](Stats& s) {
    s.streaming = true;
    s.streams++;
  });
}

void Camera::Impl::StopStreaming(const std::string& why) {
  if (!streaming_) return;
  streaming_ = false;
  pir_stream_ = false;
  last_activity_ = Clock::now();
  Log("stream stopped after " + std::to_string(frame_index_) + " frames (" + why + ")");
  Update([](Stats& s) { s.streaming = false; });
}

void Camera::Impl::SendTick() {
  const VideoFrame& f = video_->at(static_cast<size_t>(tick_));
  VideoFrameHeader header;
  header.length = static_cast<uint32_t>(f.data.size());
  header.word1 = f.key ? 1 : 0;
  header.word2 = WallMillis();
  header.index = frame_index_;
  const int total = PieceCount(f.data.size());
  for (int piece = 1; piece <= total; piece++) {
    const int size =
        BuildVideoPiece(out_.get(), kMaxCameraFrame, Next(), header, f.data.data(), piece, total);
    if (SendFrame(out_.get(), size) < 0) return;
  }
  frame_index_++;
  const uint64_t from = AudioPosition(tick_, kFps);
  const size_t n = static_cast<size_t>(AudioPosition(tick_ + 1, kFps) - from);
  uint8_t alaw[kMaxAudioData];
  audio_->Copy(from, alaw, n);
  const int size = BuildAudioPacket(out_.get(), kMaxCameraFrame, Next(),
                                    static_cast<uint32_t>(tick_), header.word2, alaw, n);
  tick_++;
  if (SendFrame(out_.get(), size) < 0) return;
  Update([&](Stats& s) {
    s.video_frames++;
    s.video_pieces += total;
    s.audio_packets++;
  });
}

// --- Pairing ---------------------------------------------------------------------------------

int Camera::Impl::DoPair(std::string* error) {
  PairingAttempt attempt;
  attempt.camera_ip = config_.ip;
  attempt.hub_ip = hub_.ip;
  attempt.port = hub_.pairing_port;
  attempt.origin = Next();
  attempt.info = Info();
  attempt.deadline = Clock::now() + behaviour_.pair_timeout;
  attempt.close_wait = kPairCloseWait;
  attempt.stopping = [this] { return Stopping(); };
  attempt.on_connect_try = [this] { Update([](Stats& s) { s.pair_attempts++; }); };
  Log("pairing with " + hub_.ip + ":" + std::to_string(hub_.pairing_port));
  std::string ssid, key, why;
  if (PairWithHub(attempt, &ssid, &key, &why) == 0) {
    if (!config_.expect_ssid.empty() && ssid != config_.expect_ssid) {
      why = "pairing gave network " + ssid + ", expected " + config_.expect_ssid;
    } else if (!config_.expect_key.empty() && key != config_.expect_key) {
      why = "pairing gave a wrong passphrase for network " + ssid;
    } else {
      Log("paired: network " + ssid);
      Update([&](Stats& s) {
        s.pairings++;
        s.ssid = ssid;
        s.key = key;
        s.pair_error.clear();
      });
      return 0;
    }
  }
  Log("pairing failed: " + why);
  Update([&](Stats& s) { s.pair_error = why; });
  if (error != nullptr) *error = why;
  return -1;
}

// ---------------------------------------------------------------------------------------------

Camera::Camera(CameraConfig config, HubEndpoint hub, Behaviour behaviour)
    : impl_(new Impl(std::move(config), std::move(hub), behaviour)) {}

Camera::~Camera() {
  impl_->Stop();
}

const std::string& Camera::mac() const {
  return impl_->mac();
}
const std::string& Camera::ip() const {
  return impl_->ip();
}
void Camera::SetLogger(Logger logger) {
  impl_->SetLogger(std::move(logger));
}
int Camera::Start(std::string* error) {
  return impl_->Start(error);
}
void Camera::Stop() {
  impl_->Stop();
}

int Camera::Pair(std::string* error) {
  std::string why;
  const int r = impl_->Call([&] { return impl_->DoPair(&why); });
  if (r < 0 && error != nullptr) *error = why.empty() ? "camera not started" : why;
  return r;
}

int Camera::Connect(std::string* error) {
  std::string why;
  const int r = impl_->Call([&] { return impl_->DoConnect(&why); });
  if (r < 0 && error != nullptr) *error = why.empty() ? "camera not started" : why;
  return r;
}

void Camera::Disconnect() {
  impl_->Call([this] {
    impl_->DoDisconnect();
    return 0;
  });
}

int Camera::Sleep() {
  return impl_->Call([this] { return impl_->DoSleep("told to"); });
}
int Camera::Wake() {
  return impl_->Call([this] { return impl_->DoWake(); });
}
int Camera::Login() {
  return impl_->Call([this] { return impl_->DoLogin(true); });
}
int Camera::RaisePir() {
  return impl_->Call([this] { return impl_->DoPir(); });
}
int Camera::RaiseBattery(uint32_t vbat) {
  return impl_->Call([this, vbat] { return impl_->DoBattery(vbat); });
}

Stats Camera::GetStats() const {
  return impl_->GetStats();
}

bool Camera::WaitUntil(const std::function<bool(const Stats&)>& pred,
                       std::chrono::milliseconds timeout) const {
  return impl_->WaitUntil(pred, timeout);
}

}  // namespace camsim
