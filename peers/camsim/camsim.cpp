#include "camsim/camsim.h"

#include "camsim/camsimcamera.h"

namespace camsim {

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
  if (!config_.send_log_file.empty()) {
    send_log_ = std::fopen(config_.send_log_file.c_str(), "we");
    if (send_log_ == nullptr) {
      const std::string why = std::strerror(errno);
      if (talk_out_ != nullptr) std::fclose(talk_out_);
      talk_out_ = nullptr;
      return fail("cannot write the send log " + config_.send_log_file + ": " + why);
    }
    std::setvbuf(send_log_, nullptr, _IOLBF, 0);  // readable while the camera streams
    std::fputs("index,sent_ns\n", send_log_);
  }
  auto close_talk = [this] {
    if (talk_out_ != nullptr) std::fclose(talk_out_);
    talk_out_ = nullptr;
    if (send_log_ != nullptr) std::fclose(send_log_);
    send_log_ = nullptr;
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
  soft_ver_ = config_.soft_ver;
  Update([&](Stats& s) {
    s.soft_ver = soft_ver_;
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
  if (upgrade_thread_.joinable()) upgrade_thread_.join();  // its fetch sees stop_ and ends
  close(event_fd_);
  close(udp_fd_);
  event_fd_ = -1;
  udp_fd_ = -1;
  if (talk_out_ != nullptr) std::fclose(talk_out_);
  talk_out_ = nullptr;
  if (send_log_ != nullptr) std::fclose(send_log_);
  send_log_ = nullptr;
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
  if (rebooting_) consider(reboot_at_);
  if (due <= now) return milliseconds(0);
  return std::chrono::duration_cast<milliseconds>(due - now) + milliseconds(1);
}

void Camera::Impl::OnTimers(Clock::time_point now) {
  if (rebooting_ && now >= reboot_at_) {
    rebooting_ = false;
    soft_ver_ = reboot_version_;
    Log("restarted with firmware version " + std::to_string(soft_ver_));
    Update([&](Stats& s) {
      s.soft_ver = soft_ver_;
      s.upgrades_done++;
    });
    std::string error;
    if (DoConnect(&error) < 0) Log("connect after the upgrade failed: " + error);
  }
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
