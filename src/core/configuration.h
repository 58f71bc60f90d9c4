// The hub's identity: device key, MAC, P2P uid and P2P password, filled at start from nvram and
// the hardware library, and the provisioning files moved into the agent's directory.
#pragma once

#include <mutex>
#include <string>

// Moves the provisioning files from /etc/config into /etc/zelo. 0, or -1 when wifi.conf or
// device.token cannot be copied.
int InitWifiConf();

class Configuration {
 public:
  static Configuration& getInstance();

  // InitDeviceConfig, then InitHubMac. Ends the process (status 0) when the identity is missing.
  void Init();
  // Reads nvram section "p2p" and writes /etc/zelo/device.conf once. Ends the process when the
  // identity is not set or unusable (a did or key that is over-long or holds blanks or quotes, a
  // mac that is not twelve hex digits).
  void InitDeviceConfig();
  // Takes the MAC of eth0 from the hardware library, upper case with colons.
  void InitHubMac();

  // The fields are read by many threads and replaced by a few (uid from the MQTT thread, the
  // password from the credentials thread); each accessor returns a copy.
  std::string GetDeviceKey() const;
  std::string GetMac() const;
  std::string GetP2pUid() const;
  std::string GetP2pPassword() const;
  void SetDeviceKey(const std::string& key);
  void SetMac(const std::string& mac);
  void SetP2pUid(const std::string& uid);
  void SetP2pPassword(const std::string& password);

 private:
  Configuration() = default;
  mutable std::mutex mutex_;
  std::string device_key_;
  std::string mac_;
  std::string p2p_uid_;
  std::string p2p_password_;  // the fourth text field
};

// Records a camera that has just paired: creates its uci section "p2p.MAC" with its reported
// values and, where a setting is missing, the defaults. At most four cameras are kept. Event
// names are "motion", "motion1", "motion2", "motion3": a camera keeps its own unless another
// camera uses it, else takes the first unused. 0, or -1 when refused (fifth camera, malformed
// MAC or version text, unreadable camera list).
int SaveInfoToConfig(const char* mac, const char* hardver, const char* version, int pir, int power,
                     int night, int vbat, int rssi);
