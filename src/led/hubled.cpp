#include "led/hubled.h"

#include <pthread.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cassert>
#include <cerrno>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <thread>

#include "base/log.h"
#include "core/utils.h"
#include "p2p/iotc.h"
#include "platform/board.h"
#include "platform/hwlib.h"

namespace {

constexpr char kWifiConf[] = "/etc/zelo/wifi.conf";
constexpr char kApScript[] = "/etc/zelo/wifi_start.sh";
constexpr char kResetDaemon[] = "ipcamera-daemon";
constexpr int kResetSignal = 42;
constexpr int kResetCountdown = 7;
constexpr int kButtonBit = 6;
constexpr auto kLedPeriod = std::chrono::milliseconds(100);
constexpr int kViewerSessions = 4;

// LED state. The applied state belongs to the LED thread but is reset by ForgetLedState, so both
// live under the LED mutex.
std::mutex g_led_mutex;
int g_led_state = 0;
int g_led_applied = 0;

// LED thread life: running while g_led_run is set; g_led_alive tells StopLed that it ended.
std::mutex g_led_thread_mutex;
std::condition_variable g_led_thread_changed;
bool g_led_alive = false;
std::atomic<bool> g_led_run{false};

// Button: written by the key service's thread, read by the reset threads.
std::atomic<bool> g_pressed{false};
std::atomic<uint32_t> g_press_number{0};
std::atomic<uint32_t> g_press_time{0};
std::atomic<uint32_t> g_release_time{0};

void SleepOneSecond() {
  std::this_thread::sleep_for(std::chrono::seconds(1));
}
std::atomic<void (*)()> g_reset_sleep{SleepOneSecond};

bool FileExists(const char* path) {
  struct stat st;
  return stat(platform::BoardPath(path).c_str(), &st) == 0;
}

// Drives the LED when the state changed since the last pass. Called every 100 ms.
void ApplyLedState() {
  std::lock_guard<std::mutex> lock(g_led_mutex);
  const int state = g_led_state;
  if (state == g_led_applied) return;
  TLOG(LOG_DEBUG) << "led pattern: " << state;
  led_set_pattern(state);
  g_led_applied = state;
}

void* LedFunc(void*) {
  TLOG(LOG_DEBUG) << "Create led thread succeed";
  while (g_led_run.load()) {
    ApplyLedState();
    std::this_thread::sleep_for(kLedPeriod);
  }
  std::lock_guard<std::mutex> lock(g_led_thread_mutex);
  g_led_alive = false;
  g_led_thread_changed.notify_all();
  return nullptr;
}

// Whether a viewer holds a P2P session now (asked of the P2P library, sessions 0..3).
bool ViewerSessionActive() {
  for (int sid = 0; sid < kViewerSessions; sid++) {
    st_SInfo info;
    if (IOTC_Session_Check(sid, &info) == IOTC_ER_NoERROR) return true;
  }
  return false;
}

// The long press has lasted: hand the reset to the process that performs it, or reboot.
void DoReset() {
  TLOG(LOG_DEBUG) << "Sleep 7 seconds, doing reset";
  if (ViewerSessionActive()) TLOG(LOG_DEBUG) << "AAAAAAAAAAAAAAAAAA";
  const pid_t pid = utils::GetProcessPid(kResetDaemon);
  TLOG(LOG_DEBUG) << "ipcamera-daemon pid: " << pid;
  if (pid < 1) {
    TLOG(LOG_DEBUG) << "ipcamera-daemon don't exist, doing reboot";
    platform::System("echo error reboot > " + platform::BoardPath("/dev/ttyS1"));
    platform::System("reboot");
    return;
  }
  if (kill(pid, kResetSignal) != 0) {
    TLOG(LOG_DEBUG) << "kill " << kResetDaemon << " failed: " << std::strerror(errno);
  }
}

// True while the press numbered `press` is still the one held.
bool StillHeld(uint32_t press) {
  return g_pressed.load() && g_press_number.load() == press;
}

}  // namespace

int InitLed() {
  TLOG(LOG_DEBUG) << "Init Led";
  const bool provisioned = FileExists(kWifiConf);
  if (!provisioned) {
    TLOG(LOG_DEBUG) << "/etc/zelo/wifi.conf don't exist, start ap mode";
    platform::System(platform::BoardPath(kApScript));
    platform::System("ifconfig ra0 down");
  }
  SetupLed(provisioned ? kLedConnecting : kLedSetup);

  std::lock_guard<std::mutex> lock(g_led_thread_mutex);
  if (g_led_alive) return 0;  // already running
  g_led_run.store(true);
  pthread_t thread;
  const int ret = pthread_create(&thread, nullptr, LedFunc, nullptr);
  if (ret != 0) {
    TLOG(LOG_ERR) << "thread_led create ret: " << ret;
    assert(ret == 0);
    return -1;
  }
  g_led_alive = true;
  pthread_detach(thread);
  return 0;
}

void SetupLed(int state) {
  TLOG(LOG_DEBUG) << "state: " << state;
  if (state < 1 || state > 5) {
    TLOG(LOG_DEBUG) << "No LED state " << state << ", ignored";
    return;
  }
  std::lock_guard<std::mutex> lock(g_led_mutex);
  g_led_state = state;
}

void ForgetLedState() {
  std::lock_guard<std::mutex> lock(g_led_mutex);
  g_led_applied = 0;
}

int GetLedState() {
  std::lock_guard<std::mutex> lock(g_led_mutex);
  return g_led_state;
}

void StopLed() {
  g_led_run.store(false);
  {
    std::unique_lock<std::mutex> lock(g_led_thread_mutex);
    g_led_thread_changed.wait(lock, [] { return !g_led_alive; });
  }
  std::lock_guard<std::mutex> lock(g_led_mutex);
  g_led_state = 0;
  g_led_applied = 0;
}

int InitSyncAndReset() {
  TLOG(LOG_DEBUG) << "Tarvo auth handle start";
  if (start_key_processor(SyncKeyProcesser) != 0) {
    TLOG(LOG_DEBUG) << "start_key_processor failed";
    return -1;
  }
  return 0;
}

int SyncKeyProcesser(int code, int type) {
  TLOG(LOG_DEBUG) << "reset hub code: " << code << " type: " << type;
  if (type == 2) {
    g_press_time.store(utils::GetTimestamp());
    g_release_time.store(0);
    const uint32_t press = g_press_number.fetch_add(1) + 1;
    g_pressed.store(true);
    pthread_t thread;
    const int ret = pthread_create(&thread, nullptr, reset_thread_function,
                                   reinterpret_cast<void*>(static_cast<uintptr_t>(press)));
    if (ret != 0) {
      TLOG(LOG_ERR) << "reset thread create ret: " << ret;
    } else {
      pthread_detach(thread);
    }
  } else if (type == 1) {
    g_pressed.store(false);
    g_release_time.store(utils::GetTimestamp());
  }
  return 0;
}

int CheckBtn() {
  const int value = static_cast<int>((reg_read(kRegKeys) >> kButtonBit) & 1u);
  TLOG(LOG_DEBUG) << "btn........value: " << value;
  return value;
}

void* reset_thread_function(void* arg) {
  const auto press = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(arg));
  int countdown = kResetCountdown;
  while (StillHeld(press)) {
    g_reset_sleep.load()();
    if (!StillHeld(press)) break;
    if (CheckBtn() == 1 && --countdown == 0) {
      DoReset();
      break;
    }
  }
  TLOG(LOG_DEBUG) << "exit reset_thread_function......";
  return nullptr;
}

void SetResetSleep(void (*sleep_one_second)()) {
  g_reset_sleep.store(sleep_one_second != nullptr ? sleep_one_second : SleepOneSecond);
}
