#include "core/configuration.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "base/log.h"
#include "core/utils.h"
#include "platform/board.h"
#include "platform/hwlib.h"
#include "platform/nvram.h"
#include "platform/uci.h"

namespace {

constexpr char kAgentDir[] = "/etc/zelo";
constexpr char kDeviceConf[] = "/etc/zelo/device.conf";

// The name a camera gets in the app until the user renames it.
constexpr char kDefaultCameraName[] = "Tarvo Camera";
constexpr int kMaxCameras = 4;
// Room for the sections of the "p2p" package: more than the camera limit, so that a package
// that somehow holds more is still counted.
constexpr int kMaxSections = 16;
// Longest version text accepted from a camera.
constexpr size_t kMaxVersionLen = 31;

bool FileExists(const std::string& path) {
  return access(path.c_str(), F_OK) == 0;
}

enum class Moved { kNoSource, kCopyFailed, kMoved, kSourceKept };

// Moves one provisioning file from /etc/config into the agent's directory: copy, then remove
// the source. The caller logs, so the records carry its name.
Moved MoveToAgentDir(const std::string& from, const std::string& to) {
  const std::string source = platform::BoardPath(from);
  if (!FileExists(source)) return Moved::kNoSource;
  if (utils::CopyFile(source.c_str(), platform::BoardPath(to).c_str()) < 0) {
    return Moved::kCopyFailed;
  }
  return std::remove(source.c_str()) == 0 ? Moved::kMoved : Moved::kSourceKept;
}

// An identity value: printable, no blank, quote or backslash, so it can stand in device.conf
// and in the shell commands that later carry it.
bool IsIdentityText(const char* text) {
  for (const char* p = text; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c <= ' ' || c >= 0x7f || c == '\'' || c == '"' || c == '\\') return false;
  }
  return true;
}

// Reads one value of nvram section "p2p" into a zeroed 32-byte buffer. A value that does not
// fit is refused as a whole rather than cut: false, out left empty.
bool ReadNvram(const char* key, char (&out)[32]) {
  std::memset(out, 0, sizeof(out));
  char value[sizeof(out) + 1] = {0};
  if (nvram_get("p2p", key, value, sizeof(value)) < 0) return true;  // absent: empty
  if (std::strlen(value) >= sizeof(out)) {
    TLOG(LOG_DEBUG) << "Nvram p2p " << key << " too long, ignored";
    return false;
  }
  if (!IsIdentityText(value)) {
    TLOG(LOG_DEBUG) << "Nvram p2p " << key << " has invalid characters, ignored";
    return false;
  }
  std::memcpy(out, value, std::strlen(value));
  return true;
}

// A camera's MAC text: twelve hexadecimal digits.
bool IsMacText(const char* mac) {
  uint8_t bytes[6];
  return utils::ConverToUint8(mac, bytes) == 0;
}

// A version text reported by a camera: short and printable, without quotes.
bool IsVersionText(const char* text) {
  if (text == nullptr || std::strlen(text) > kMaxVersionLen) return false;
  for (const char* p = text; *p != '\0'; ++p) {
    const unsigned char c = static_cast<unsigned char>(*p);
    if (c < ' ' || c >= 0x7f || c == '\'' || c == '"' || c == '\\') return false;
  }
  return true;
}

bool HasKey(const std::string& key) {
  char value[64];
  return zcfg_uci_get(key.c_str(), value, sizeof(value)) == 0;
}

}  // namespace

int InitWifiConf() {
  utils::CheckDirExist(platform::BoardPath(kAgentDir).c_str());
  // wifi.conf and device.token come together from set-up: without wifi.conf neither is moved,
  // and once wifi.conf is there a missing device.token is a failed provisioning.
  if (FileExists(platform::BoardPath("/etc/config/wifi.conf"))) {
    for (const char* name : {"wifi.conf", "device.token"}) {
      const std::string from = std::string("/etc/config/") + name;
      const std::string to = std::string(kAgentDir) + "/" + name;
      const Moved moved = MoveToAgentDir(from, to);
      if (moved == Moved::kNoSource || moved == Moved::kCopyFailed) {
        TLOG(LOG_DEBUG) << "Copy " << from << " to " << kAgentDir << " fail!!!";
        return -1;
      }
      TLOG(LOG_DEBUG) << "Copy " << from << " to " << kAgentDir << " succeed";
      TLOG(LOG_DEBUG) << "Delete " << from << (moved == Moved::kMoved ? " succeed" : " failed");
    }
  }
  // Country and uid are optional; failing to move them does not stop the hub.
  for (const char* name : {"device.country", "device.uid"}) {
    const std::string from = std::string("/etc/config/") + name;
    const std::string to = std::string(kAgentDir) + "/" + name;
    const Moved moved = MoveToAgentDir(from, to);
    if (moved == Moved::kNoSource) continue;
    if (moved == Moved::kCopyFailed) {
      TLOG(LOG_DEBUG) << "copy " << from << " to " << kAgentDir << " fail!!!";
      continue;
    }
    TLOG(LOG_DEBUG) << "copy " << from << " to " << kAgentDir << " succeed!";
    TLOG(LOG_DEBUG) << "delete " << from << (moved == Moved::kMoved ? " succeed!" : " failed!!!");
  }
  return 0;
}

Configuration& Configuration::getInstance() {
  static Configuration instance;
  return instance;
}

void Configuration::Init() {
  InitDeviceConfig();
  InitHubMac();
}

void Configuration::InitDeviceConfig() {
  if (nvram_filecache() < 0) {
    TLOG(LOG_DEBUG) << "Nvram file cache error, exit";
    std::exit(0);
  }
  if (nvram_parse() < 0) {
    TLOG(LOG_DEBUG) << "Nvram parse error, exit";
    std::exit(0);
  }
  char did[32];
  char key[32];
  char mac[32];
  char uid[32];
  // A did, key or mac that is over-long or malformed counts as not set: the hub is not
  // provisioned properly and must not publish a garbage identity.
  const bool identity_ok = ReadNvram("did", did) && ReadNvram("key", key) && ReadNvram("mac", mac);
  ReadNvram("uid", uid);  // a bad uid is left empty; the cloud is asked for one later

  if (!identity_ok || did[0] == '\0' || key[0] == '\0' || mac[0] == '\0') {
    TLOG(LOG_DEBUG) << "Nvram config don't setting, exit";
    std::exit(0);
  }
  TLOG(LOG_DEBUG) << "Nvram config has setted";

  uint8_t bytes[6];
  if (utils::ConverToUint8(mac, bytes) < 0) {
    TLOG(LOG_DEBUG) << "Nvram mac is not twelve hex digits";
    TLOG(LOG_DEBUG) << "Nvram config don't setting, exit";
    std::exit(0);
  }
  char mac_text[18];
  std::snprintf(mac_text, sizeof(mac_text), "%02X:%02X:%02X:%02X:%02X:%02X", bytes[0], bytes[1],
                bytes[2], bytes[3], bytes[4], bytes[5]);

  const std::string conf = platform::BoardPath(kDeviceConf);
  if (!FileExists(conf)) {
    TLOG(LOG_DEBUG) << "Generate device.conf by nvram config";
    char text[256];
    std::snprintf(text, sizeof(text),
                  "did=%s\nkey=%s\nvendor=brovalin\nmac=%s\nmodel=brovalin.gateway.hbx011\n", did,
                  key, mac_text);
    FILE* file = std::fopen(conf.c_str(), "w+");
    if (file == nullptr) {
      TLOG(LOG_DEBUG) << "Open device.conf for write config fail!!!";
      std::exit(0);
    }
    const size_t len = std::strlen(text);
    if (std::fwrite(text, 1, len, file) != len) {
      TLOG(LOG_DEBUG) << "Write device.conf error";
    }
    std::fclose(file);
  }
  SetP2pUid(uid);
  SetDeviceKey(key);
  TLOG(LOG_DEBUG) << "Hub tutk uid: " << uid;
}

void Configuration::InitHubMac() {
  char mac[32] = {0};
  if (get_hub_mac("eth0", mac, sizeof(mac)) < 0) {
    TLOG(LOG_DEBUG) << "Get hub mac address failed, exit";
    std::exit(0);
  }
  // Six hexadecimal pairs separated by colons.
  bool ok = std::strlen(mac) == 17;
  for (int i = 0; ok && i < 17; i++) {
    ok = (i % 3 == 2) ? mac[i] == ':' : utils::HexToInt8(mac[i]) >= 0;
  }
  if (!ok) {
    TLOG(LOG_DEBUG) << "Hub mac address malformed";
    TLOG(LOG_DEBUG) << "Get hub mac address failed, exit";
    std::exit(0);
  }
  utils::ConvertToUppercase(mac);
  SetMac(mac);
  TLOG(LOG_DEBUG) << "Hub mac: " << mac;
}

std::string Configuration::GetDeviceKey() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return device_key_;
}

std::string Configuration::GetMac() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return mac_;
}

std::string Configuration::GetP2pUid() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return p2p_uid_;
}

std::string Configuration::GetP2pPassword() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return p2p_password_;
}

void Configuration::SetDeviceKey(const std::string& key) {
  std::lock_guard<std::mutex> lock(mutex_);
  device_key_ = key;
}

void Configuration::SetMac(const std::string& mac) {
  std::lock_guard<std::mutex> lock(mutex_);
  mac_ = mac;
}

void Configuration::SetP2pUid(const std::string& uid) {
  std::lock_guard<std::mutex> lock(mutex_);
  p2p_uid_ = uid;
}

void Configuration::SetP2pPassword(const std::string& password) {
  std::lock_guard<std::mutex> lock(mutex_);
  p2p_password_ = password;
}

int SaveInfoToConfig(const char* mac, const char* hardver, const char* version, int pir, int power,
                     int night, int vbat, int rssi) {
  if (!IsMacText(mac)) {
    TLOG(LOG_DEBUG) << "Invalid camera mac, don't save";
    return -1;
  }
  if (!IsVersionText(hardver) || !IsVersionText(version)) {
    TLOG(LOG_DEBUG) << "Invalid camera version text, don't save";
    return -1;
  }
  const std::string cam = utils::ConvertToUppercase(std::string(mac));
  TLOG(LOG_DEBUG) << "hardver: " << hardver << ", version: " << version << ", pir: " << pir
                  << ", power: " << power << ", night: " << night << ", vbat: " << vbat
                  << ", rssi: " << rssi;

  char sections[kMaxSections][kUciSectionNameLen];
  std::memset(sections, 0, sizeof(sections));
  const int count = zcfg_uci_get_section_list("p2p", sections, kMaxSections);
  if (count < 0) {
    // Writing now could replace a package that only failed to parse.
    TLOG(LOG_DEBUG) << "Read camera list from config failed, don't save";
    return -1;
  }
  TLOG(LOG_DEBUG) << "Hub had sync with " << count << " camera";

  bool known = false;
  for (int i = 0; i < count; i++) {
    if (cam == sections[i]) known = true;
  }
  if (!known && count >= kMaxCameras) {
    TLOG(LOG_DEBUG) << "Camera list have 4 camera, sync new camera error!!!";
    return -1;
  }

  // Event names: "motion" for the first camera, then "motion1", "motion2", "motion3". A camera
  // keeps the event it already has unless another camera uses the same name; otherwise it
  // takes the first name no other camera uses.
  char used[kMaxSections][32];
  int used_count = 0;
  for (int i = 0; i < count; i++) {
    if (cam == sections[i]) continue;
    if (utils::GetCameraEventByMac(sections[i], used[used_count], sizeof(used[0])) == 0) {
      used_count++;
    }
  }
  auto is_used = [&](const std::string& name) {
    for (int i = 0; i < used_count; i++) {
      if (name == used[i]) return true;
    }
    return false;
  };
  std::string camera_event;
  char own[32];
  if (utils::GetCameraEventByMac(cam.c_str(), own, sizeof(own)) == 0 && !is_used(own)) {
    camera_event = own;
  } else {
    for (int n = 0; n <= kMaxSections; n++) {
      const std::string name = n == 0 ? "motion" : "motion" + std::to_string(n);
      if (!is_used(name)) {
        TLOG(LOG_DEBUG) << "Event " << name << " don't used, can use it";
        camera_event = name;
        break;
      }
    }
  }
  TLOG(LOG_DEBUG) << "camera_event: " << camera_event;

  char battery[8];
  char wifi[8];
  std::snprintf(battery, sizeof(battery), "%d", utils::GetBatteryPercent(vbat));
  std::snprintf(wifi, sizeof(wifi), "%d", utils::GetWifiStrength(rssi));
  const std::string pir_text = std::to_string(pir);
  const std::string power_text = std::to_string(power);
  const std::string night_text = std::to_string(night);

  const std::string section = "p2p." + cam;
  if (zcfg_uci_set(section.c_str(), "p2p") < 0) {
    TLOG(LOG_DEBUG) << "Create camera section " << section << " failed";
    return -1;
  }
  // In the order of the camera's settings. A default is written only where the setting is
  // missing, so that a camera seen again keeps what the user chose for it.
  struct Entry {
    const char* key;
    std::string value;
    bool is_default;
  };
  const Entry entries[] = {
      {"name", kDefaultCameraName, true},
      {"battery", battery, false},
      {"wifi", wifi, false},
      {"pir", pir_text, false},
      {"hardver", hardver, false},
      {"version", version, false},
      {"night", night_text, false},
      {"power", power_text, false},
      {"event", camera_event, false},
      {"starthour", "0", true},
      {"startmin", "0", true},
      {"stophour", "24", true},
      {"stopmin", "0", true},
      {"pushalarm", "1", true},
      {"interval", "0", true},
      {"new_interval", "60", true},
      {"pir_duration", "10", true},
  };
  int result = 0;
  for (const Entry& entry : entries) {
    const std::string key = section + "." + entry.key;
    if (entry.is_default && HasKey(key)) continue;
    if (zcfg_uci_set(key.c_str(), entry.value.c_str()) < 0) {
      TLOG(LOG_DEBUG) << "Set " << key << " failed";
      result = -1;
    }
  }
  return result;
}
