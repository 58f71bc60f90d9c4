// Inside the camera simulator: the state of one simulated camera (Camera::Impl), its thread's
// timing constants and small helpers. Only the simulator's own units include this header:
// camsim.cpp (life cycle, the camera's thread and timers), camsimlink.cpp (its TCP and UDP link
// to the hub: sending, connecting, receiving and executing commands) and camsimevents.cpp
// (sleep and wake, PIR and battery events, streaming, pairing), camsimupgrade.cpp (firmware
// upgrade: fetching the image, acknowledging, restarting).
#pragma once

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

#include "base/log.h"
#include "camera/framecutter.h"
#include "camsim/camsimmedia.h"
#include "camsim/camsimpair.h"
#include "camsim/camsimwire.h"

namespace camsim {

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
// Firmware upgrade: the longest fetch and the largest image.
constexpr long kUpgradeFetchSeconds = 60;
constexpr size_t kMaxImage = 16u << 20;

inline const uint8_t kAllOnes[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
inline const uint8_t kZero[6] = {0};

inline uint32_t WallMillis() {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<uint32_t>(static_cast<uint64_t>(ts.tv_sec) * 1000u +
                               static_cast<uint64_t>(ts.tv_nsec) / 1000000u);
}

inline uint16_t ParsePort(const char* text, uint16_t fallback) {
  if (text == nullptr || *text == '\0') return fallback;
  char* end = nullptr;
  const long v = std::strtol(text, &end, 10);
  if (*end != '\0' || v < 1 || v > 65535) return fallback;
  return static_cast<uint16_t>(v);
}

inline bool SockAddr(const std::string& ip, uint16_t port, struct sockaddr_in* out) {
  std::memset(out, 0, sizeof(*out));
  out->sin_family = AF_INET;
  out->sin_port = htons(port);
  return inet_pton(AF_INET, ip.c_str(), &out->sin_addr) == 1;
}

inline std::string PaddedText(const uint8_t* p, size_t n) {
  size_t len = 0;
  while (len < n && p[len] != 0) len++;
  std::string out;
  for (size_t i = 0; i < len; i++) {
    const char c = static_cast<char>(p[i]);
    out += (c >= 0x20 && c < 0x7F) ? c : '?';
  }
  return out;
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
  // Firmware upgrade: the fetch runs on upgrade_thread_; its end comes back to the camera's
  // thread as FinishUpgrade.
  void StartUpgrade(const std::string& url, const _net_cmd_type* command);
  void FinishUpgrade(const std::vector<uint8_t>& command, int version, const std::string& why);

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
  std::FILE* send_log_ = nullptr;  // the frames' send times, when kept
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
  int soft_ver_ = 0;  // the firmware version it runs: the configuration's, then an upgrade's
  bool rebooting_ = false;
  int reboot_version_ = 0;
  Clock::time_point reboot_at_;
  std::thread upgrade_thread_;  // started and joined on the camera's thread, and by Stop
  std::atomic<bool> upgrading_{false};

  mutable std::mutex mutex_;
  mutable std::condition_variable changed_;
  Stats stats_;
};

}  // namespace camsim
