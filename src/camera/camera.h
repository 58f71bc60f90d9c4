// The hub's record of one camera: its identity, where it is, whether it is connected, the
// settings the channel needs, and the latest values the camera reported. Shared by the camera's
// live channel, the cloud commands and supervision; every accessor may be called from any thread.
#pragma once

#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>

struct _net_cmd_get_info_type;

namespace camera {

// Connection state: commands go out only at kConnected or above.
enum ConnectState : int {
  kStateNone = 0,       // never connected since the hub started
  kStateLost = 1,       // the connection was lost or replaced by nothing
  kStateConnected = 2,  // a connection is attached
  kStateLoggedIn = 3,   // the camera logged in on this connection
};

// The latest values reported by the camera (property reply, battery event, login, acks).
struct Status {
  int battery = 0;         // percent
  int battery_status = 0;  // 0 discharging, 1 charging, 2 full
  int vbat = 0;            // battery voltage, mV
  int wifi = 0;            // signal class 1 (strong) .. 3 (weak), 0 unknown
  int rssi = 0;            // dBm
  int pir = 0;
  int power = 0;
  int night = 0;
  int hard_ver = 0;      // decimal version number
  int soft_ver = 0;      // decimal version number
  uint32_t updated = 0;  // hub time of the last report, seconds
};

class Camera {
 public:
  // mac: twelve upper-case hexadecimal digits.
  explicit Camera(std::string mac);

  const std::string& mac() const { return mac_; }

  std::string ip() const;
  void SetIp(const std::string& ip);

  int state() const { return state_.load(); }
  void SetState(int state) { state_.store(state); }

  // Alarm interval in minutes (p2p.MAC.interval), newer interval in seconds
  // (p2p.MAC.new_interval) and motion record length in seconds (p2p.MAC.pir_duration).
  int AlarmInterval() const { return alarm_interval_.load(); }
  int NewAlarmInterval() const { return new_interval_.load(); }
  int RecordLength() const { return record_length_.load(); }
  void SetAlarmInterval(int minutes) { alarm_interval_.store(minutes); }
  void SetNewAlarmInterval(int seconds) { new_interval_.store(seconds); }
  void SetRecordLength(int seconds) { record_length_.store(seconds); }

  // Reads the settings and the last stored values from the camera's uci section.
  void LoadConfig();

  Status GetStatus() const;
  // Takes a property reply or battery event: battery, Wi-Fi, PIR, power, night, versions.
  void ApplyInfo(const _net_cmd_get_info_type& info);
  // Takes the battery and Wi-Fi values of a battery event.
  void ApplyBattery(const _net_cmd_get_info_type& info);
  void SetVersions(int hard_ver, int soft_ver);
  void SetPir(int pir);
  void SetNight(int night);

 private:
  const std::string mac_;
  std::atomic<int> state_{kStateNone};
  std::atomic<int> alarm_interval_{0};
  std::atomic<int> new_interval_{60};
  std::atomic<int> record_length_{10};
  mutable std::mutex mutex_;  // guards ip_ and status_
  std::string ip_;
  Status status_;
};

}  // namespace camera
