#include "housekeeping/systemctrl.h"

#include <pthread.h>
#include <sys/stat.h>

#include <atomic>
#include <cassert>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "camera/livechannel.h"
#include "cloud/cloudcmd.h"
#include "cloud/credreport.h"
#include "cloud/mqttclient.h"
#include "core/utils.h"
#include "crypto/hubauth.h"
#include "led/hubled.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "server/mediaserver.h"
#include "storage/retention.h"
#include "storage/sdcard.h"

namespace {

constexpr char kWifiConf[] = "/etc/zelo/wifi.conf";
constexpr int kCapabilitySeconds = 600;
constexpr int kMaxCameras = 16;
// The daily battery check: within this many seconds of 10:00 local time.
constexpr int64_t kBatteryCheckTime = 10 * 3600;
constexpr int64_t kBatteryCheckHalfSpan = 600;
constexpr int64_t kDay = 86400;

std::atomic<bool> g_net_connected{true};
std::atomic<int64_t> g_last_battery_day{-1};

std::mutex g_schedule_mutex;
std::map<std::string, bool> g_schedule_side;  // camera MAC -> motion detection was on

int64_t FloorDiv(int64_t a, int64_t b) {
  return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0);
}

bool BoardFileExists(const char* path) {
  struct stat st;
  return stat(platform::BoardPath(path).c_str(), &st) == 0;
}

std::string UciText(const char* key) {
  char value[64] = {0};
  if (zcfg_uci_get(key, value, sizeof(value)) < 0) return "";
  return value;
}

// The channels of the registry whose camera is connected.
std::vector<std::shared_ptr<channel::LiveChannel>> ConnectedChannels() {
  std::vector<std::shared_ptr<channel::LiveChannel>> channels;
  server::MediaServer* server = server_play.load();
  if (server == nullptr) return channels;
  for (const std::string& mac : server->LiveChannelMacs()) {
    std::shared_ptr<channel::LiveChannel> ch = server->FindLiveChannel(mac);
    if (ch != nullptr && ch->IsConnected()) channels.push_back(std::move(ch));
  }
  return channels;
}

void* StartThread(const char* name, void* (*body)(void*)) {
  pthread_t thread;
  const int ret = pthread_create(&thread, nullptr, body, nullptr);
  if (ret != 0) {
    TLOG(LOG_ERR) << "thread " << name << " create ret: " << ret;
    assert(ret == 0);
    return nullptr;
  }
  pthread_detach(thread);
  return reinterpret_cast<void*>(1);
}

}  // namespace

int InitSystemCtrl() {
  if (StartThread("thread_timer", TimerFunc) == nullptr) return -1;
  if (StartThread("thread_capability", CapabilityFunc) == nullptr) return -1;
  if (StartThread("thread_uidpwd", UidPwdFunc) == nullptr) return -1;
  return 0;
}

void* TimerFunc(void*) {
  TLOG(LOG_DEBUG) << "Create timer thread success";
  systemctrl::Timer timer(systemctrl::DefaultDuties());
  for (;;) {
    timer.RunDuties();
    std::this_thread::sleep_for(std::chrono::seconds(systemctrl::kTickSeconds));
    timer.Advance();
  }
  return nullptr;
}

void* CapabilityFunc(void*) {
  TLOG(LOG_DEBUG) << "Create check sdcard capability thread success";
  for (;;) {
    CheckSdcardCapability();
    std::this_thread::sleep_for(std::chrono::seconds(kCapabilitySeconds));
  }
  return nullptr;
}

int CheckNetConnect() {
  std::vector<std::string> uplinks;
  for (const char* key : {"network.wan.ifname", "network.wwan.ifname"}) {
    std::string name = UciText(key);
    if (!name.empty()) uplinks.push_back(name);
  }
  FILE* out = platform::Popen("ifconfig", "r");
  if (out == nullptr) {
    TLOG(LOG_DEBUG) << "popen ifconfig failed";
    return -1;
  }
  // ifconfig without arguments lists the interfaces that are up, each block opened by its name
  // at the start of a line.
  bool up = false;
  char line[256];
  while (std::fgets(line, sizeof(line), out) != nullptr) {
    if (line[0] == ' ' || line[0] == '\n' || line[0] == '\0') continue;
    const size_t len = std::strcspn(line, " \t\n");
    for (const std::string& name : uplinks) {
      if (name.size() == len && std::strncmp(line, name.c_str(), len) == 0) up = true;
    }
  }
  if (platform::Pclose(out) != 0) {
    TLOG(LOG_DEBUG) << "ifconfig failed";
    return -1;
  }
  if (g_net_connected.exchange(up) != up) {
    TLOG(LOG_DEBUG) << "Network connect changed: " << (up ? "up" : "down");
  }
  return up ? 1 : 0;
}

bool IsNetConnected() {
  return g_net_connected.load();
}

int64_t LocalNow() {
  return static_cast<int64_t>(utils::GetTimestamp()) - static_cast<int64_t>(utils::GetTimeOffset());
}

int CheckScheduleFunc() {
  return CheckScheduleFunc(LocalNow());
}

int CheckScheduleFunc(int64_t local_now) {
  const int minute = static_cast<int>((local_now - FloorDiv(local_now, kDay) * kDay) / 60);
  int told = 0;
  for (const auto& ch : ConnectedChannels()) {
    channel::Schedule schedule;
    ch->GetLocalSchedule(&schedule);
    const std::string power_key = "p2p." + ch->mac() + ".power";
    const bool powered = UciText(power_key.c_str()) != "0";
    const bool on = powered && schedule.Covers(minute);
    bool changed = false;
    {
      std::lock_guard<std::mutex> lock(g_schedule_mutex);
      auto it = g_schedule_side.find(ch->mac());
      if (it == g_schedule_side.end()) {
        g_schedule_side.emplace(ch->mac(), on);
      } else if (it->second != on) {
        it->second = on;
        changed = true;
      }
    }
    if (!changed) continue;
    TLOG(LOG_DEBUG) << "Camera " << ch->mac() << " alarm schedule "
                    << (on ? "starts, motion detection on" : "ends, motion detection off");
    if (ch->SetCameraPirNew(on ? 1 : 0) < 0) {
      TLOG(LOG_DEBUG) << "Set camera " << ch->mac() << " pir failed";
    }
    told++;
  }
  return told;
}

int CheckBatteryLower() {
  return CheckBatteryLower(LocalNow());
}

int CheckBatteryLower(int64_t local_now) {
  const int64_t day = FloorDiv(local_now, kDay);
  const int64_t offset = local_now - day * kDay - kBatteryCheckTime;
  if (offset < -kBatteryCheckHalfSpan || offset >= kBatteryCheckHalfSpan) return 0;
  if (g_last_battery_day.exchange(day) == day) return 0;
  TLOG(LOG_DEBUG) << "everyday 10 clock check battery";
  if (!CheckCameraBattery()) return 0;
  TLOG(LOG_DEBUG) << "Push a battery lower warning";
  PowerLowerAlarm();
  return 1;
}

bool CheckCameraBattery() {
  const int threshold = utils::GetIntConfig("hub_config.power.threshold");
  char list[kMaxCameras][kUciSectionNameLen];
  const int count = zcfg_uci_get_section_list("p2p", list, kMaxCameras);
  bool low = false;
  for (int i = 0; i < count; i++) {
    const std::string key = std::string("p2p.") + list[i] + ".battery";
    const std::string text = UciText(key.c_str());
    if (text.empty()) continue;  // never reported: no reading to judge
    const int battery = std::atoi(text.c_str());
    TLOG(LOG_DEBUG) << "threashold: " << threshold << ", true bat: " << battery;
    if (battery < threshold) low = true;
  }
  return low;
}

int PowerLowerAlarm() {
  char report[96];
  std::snprintf(report, sizeof(report),
                "{\"id\":%d,\"method\":\"event.low_battery\",\"params\":{}}",
                utils::generate_random_id());
  return MqttReport(report);
}

int SyncLocalTime() {
  char request[64];
  std::snprintf(request, sizeof(request), "{\"id\":%d,\"method\":\"local.query_time\"}",
                utils::generate_random_id());
  return MqttLocalRequest(request);
}

int SyncCameraListInfo() {
  TLOG(LOG_DEBUG) << "Time sync camera prop info command";
  int asked = 0;
  for (const auto& ch : ConnectedChannels()) {
    const int res = ch->GetCameraInfo();
    if (res < 0) {
      TLOG(LOG_DEBUG) << "Send command to camera mac: " << ch->mac() << " failed, res = " << res;
      continue;
    }
    asked++;
  }
  return asked;
}

void ResetSupervisionState() {
  g_last_battery_day.store(-1);
  g_net_connected.store(true);
  std::lock_guard<std::mutex> lock(g_schedule_mutex);
  g_schedule_side.clear();
}

namespace systemctrl {

Duties DefaultDuties() {
  Duties d;
  d.check_net = [] { CheckNetConnect(); };
  d.provisioned = [] { return BoardFileExists(kWifiConf); };
  d.connect_status = GetWifiConnectStatus;
  d.set_led = SetupLed;
  d.check_sd_mount = [] { CheckSdcardMount(); };
  d.check_schedule = [] { CheckScheduleFunc(); };
  d.check_battery = [] { CheckBatteryLower(); };
  d.sync_time = [] { SyncLocalTime(); };
  d.sync_cameras = [] { SyncCameraListInfo(); };
  d.password_flag = IsFirstP2pInfoReportAcked;
  d.renew_password = [] {
    MakeNewAvPass();
    ReportNewPasswordToCloud();
  };
  return d;
}

void Timer::RunDuties() {
  duties_.check_net();
  if (duties_.provisioned() && duties_.connect_status() != kStatusCloudConnected) {
    duties_.set_led(kLedConnecting);
  }
  if (sd_ >= kSdCheckTicks) {
    duties_.check_sd_mount();
    sd_ = 0;
  }
  if (schedule_ >= kScheduleTicks) {
    duties_.check_schedule();
    schedule_ = 0;
  }
  if (battery_ >= kBatteryTicks) {
    duties_.check_battery();
    battery_ = 0;
  }
  if (time_ >= kTimeSyncTicks) {
    duties_.sync_time();
    time_ = 0;
  }
  if (cameras_ >= kCameraInfoTicks) {
    duties_.sync_cameras();
    cameras_ = 0;
  }
  if (duties_.password_flag()) {
    if (password_ >= kPasswordTicks) {
      duties_.renew_password();
      password_ = 1;
    } else {
      password_++;
    }
  }
}

void Timer::Advance() {
  sd_++;
  schedule_++;
  battery_++;
  time_++;
  cameras_++;
}

}  // namespace systemctrl
