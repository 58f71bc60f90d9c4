// Periodic supervision: one timer thread performs the hub's periodic duties on a 10-second tick;
// a second thread checks the SD card's capacity every 600 s; a third manages the P2P
// credentials (hubauth.h).
//
// Every tick the timer checks the network, keeps the LED on "connecting" while a provisioned hub
// is not cloud connected, and runs each duty whose tick counter has reached its limit:
//
//   duty                            every        counter limit
//   SD card mount check             60 s         6
//   alarm schedules (edges)         60 s         6
//   low-battery check               5 min        30 (acts once a day, 09:50..10:10 local time)
//   time request to the agent       15 min       90
//   camera properties               4 h          1440
//   P2P password renewal            2 h          720, counted only while the first credential
//                                                report has been acknowledged
//
// Counters start at 0, so no counted duty runs in the first ticks. They belong to the timer's
// thread. The duties themselves are free functions that any thread may call; the state they keep
// between runs (the day of the last battery check, each camera's last schedule side, the last
// network reachability) is guarded.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

// Starts the timer, capability and credentials threads ("thread_timer", "thread_capability",
// "thread_uidpwd"). A thread that cannot be created ends the process by an assertion failure.
int InitSystemCtrl();
// Thread bodies.
void* TimerFunc(void* arg);
void* CapabilityFunc(void* arg);

// Network reachability through the board: the hub counts as reachable while one of its uplinks
// (uci network.wan.ifname, network.wwan.ifname) is up in "ifconfig". Changes are logged.
// 1 reachable, 0 not, -1 when ifconfig cannot run.
int CheckNetConnect();
// The result of the last CheckNetConnect (true before the first).
bool IsNetConnected();

// Alarm schedules: a camera's motion detection follows its schedule (p2p.CAM.starthour ..
// stopmin). When the local minute of day crosses a connected camera's schedule edge since the
// last check, the camera is told to switch motion detection on (entering) or off (leaving,
// or when p2p.CAM.power is 0). The first check of a camera only records its side. Returns the
// number of cameras told.
int CheckScheduleFunc();
int CheckScheduleFunc(int64_t local_now);

// Once a day, within 600 s of 10:00 local time: CheckCameraBattery and, when a camera is below
// the threshold, PowerLowerAlarm. 1 when the warning went out, 0 otherwise.
int CheckBatteryLower();
int CheckBatteryLower(int64_t local_now);
// True when any camera of uci "p2p" has a battery (p2p.CAM.battery) below
// hub_config.power.threshold.
bool CheckCameraBattery();
// Reports {"id":N,"method":"event.low_battery","params":{}}. The publisher's result.
int PowerLowerAlarm();
// Asks the local agent for the time: {"id":N,"method":"local.query_time"} on
// "local/zelo_client_in". The publisher's result.
int SyncLocalTime();
// Asks every connected camera for its properties. Number of cameras asked.
int SyncCameraListInfo();

// The hub's local time in seconds (wall clock minus the zone's offset).
int64_t LocalNow();
// Tests: forget the day of the last battery check and every camera's schedule side.
void ResetSupervisionState();

namespace systemctrl {

constexpr int kTickSeconds = 10;
constexpr int kSdCheckTicks = 6;
constexpr int kScheduleTicks = 6;
constexpr int kBatteryTicks = 30;
constexpr int kTimeSyncTicks = 90;
constexpr int kCameraInfoTicks = 1440;
constexpr int kPasswordTicks = 720;

// What one tick looks at and does; DefaultDuties() wires the hub's own.
struct Duties {
  std::function<void()> check_net;
  std::function<bool()> provisioned;    // "/etc/zelo/wifi.conf" exists
  std::function<int()> connect_status;  // 5: cloud connected
  std::function<void(int)> set_led;
  std::function<void()> check_sd_mount;
  std::function<void()> check_schedule;
  std::function<void()> check_battery;
  std::function<void()> sync_time;
  std::function<void()> sync_cameras;
  std::function<bool()> password_flag;   // the first credential report was acknowledged
  std::function<void()> renew_password;  // new password, reported
};
Duties DefaultDuties();

// The timer's counters and one tick of work. TimerFunc runs RunDuties, sleeps 10 s and Advances,
// forever; tests drive ticks themselves.
class Timer {
 public:
  explicit Timer(Duties duties) : duties_(std::move(duties)) {}
  // Network check, LED, then every duty that is due, in the table's order.
  void RunDuties();
  // After the sleep: every counter but the password's grows by one.
  void Advance();
  void Tick() {
    RunDuties();
    Advance();
  }

 private:
  Duties duties_;
  int sd_ = 0;
  int schedule_ = 0;
  int battery_ = 0;
  int time_ = 0;
  int cameras_ = 0;
  int password_ = 0;
};

}  // namespace systemctrl
