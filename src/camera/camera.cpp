#include "camera/camera.h"

#include <utility>

#include "camera/frame.h"
#include "core/utils.h"

namespace camera {
namespace {

int IntKey(const std::string& mac, const char* option) {
  return utils::GetIntConfig(("p2p." + mac + "." + option).c_str());
}

// The battery and signal part of a camera's report.
void SetBattery(Status* status, const _net_cmd_get_info_type& info) {
  status->vbat = static_cast<int>(info.vbat > 100000 ? 100000 : info.vbat);
  status->battery = utils::GetBatteryPercent(status->vbat);
  status->battery_status = info.battery_status;
  status->rssi = info.rssi;
  status->wifi = utils::GetWifiStrength(info.rssi);
}

}  // namespace

Camera::Camera(std::string mac) : mac_(std::move(mac)) {}

std::string Camera::ip() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return ip_;
}

void Camera::SetIp(const std::string& ip) {
  std::lock_guard<std::mutex> lock(mutex_);
  ip_ = ip;
}

void Camera::LoadConfig() {
  alarm_interval_.store(IntKey(mac_, "interval"));
  new_interval_.store(IntKey(mac_, "new_interval"));
  record_length_.store(IntKey(mac_, "pir_duration"));
  Status s;
  s.battery = IntKey(mac_, "battery");
  s.battery_status = IntKey(mac_, "battery_status");
  s.wifi = IntKey(mac_, "wifi");
  s.pir = IntKey(mac_, "pir");
  s.power = IntKey(mac_, "power");
  s.night = IntKey(mac_, "night");
  s.hard_ver = IntKey(mac_, "hardver");
  s.soft_ver = IntKey(mac_, "version");
  std::lock_guard<std::mutex> lock(mutex_);
  status_ = s;
}

Status Camera::GetStatus() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return status_;
}

void Camera::ApplyInfo(const _net_cmd_get_info_type& info) {
  std::lock_guard<std::mutex> lock(mutex_);
  SetBattery(&status_, info);
  status_.pir = info.pir;
  status_.power = info.power;
  status_.night = info.night;
  status_.hard_ver = command::VersionNumber(info.hard_ver);
  status_.soft_ver = command::VersionNumber(info.soft_ver);
  status_.updated = utils::GetTimestamp();
}

void Camera::ApplyBattery(const _net_cmd_get_info_type& info) {
  std::lock_guard<std::mutex> lock(mutex_);
  SetBattery(&status_, info);
  status_.updated = utils::GetTimestamp();
}

void Camera::SetVersions(int hard_ver, int soft_ver) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_.hard_ver = hard_ver;
  status_.soft_ver = soft_ver;
  status_.updated = utils::GetTimestamp();
}

void Camera::SetPir(int pir) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_.pir = pir;
}

void Camera::SetNight(int night) {
  std::lock_guard<std::mutex> lock(mutex_);
  status_.night = night;
}

}  // namespace camera
