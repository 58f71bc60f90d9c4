#include "cloud/cmdargs.h"

#include <cstdio>

#include "base/log.h"
#include "camera/camera.h"
#include "cloud/cloudinput.h"
#include "cloud/mqttclient.h"
#include "core/utils.h"
#include "platform/uci.h"

namespace cmdargs {

namespace {
// More than the hub keeps, so that a hand-edited store is still read whole.
constexpr int kMaxSections = 32;
// The name SaveInfoToConfig gives a new camera.
constexpr char kDefaultCameraName[] = "Tarvo Camera";
}  // namespace

bool GetId(const char* msg, int* id) {
  if (json_get_int_value(msg, "id", id) == 0) return true;
  TLOG(LOG_DEBUG) << "[abnormal] msg without id";
  return false;
}

json_object* GetParams(const zelojson::Doc& doc) {
  json_object* params = doc.Get("params");
  if (params == nullptr) TLOG(LOG_DEBUG) << "params_obj is null ,return";
  return params;
}

json_object* GetPairParams(const zelojson::Doc& doc, const char* length_message) {
  json_object* params = GetParams(doc);
  if (params == nullptr) return nullptr;
  if (!json_object_is_type(params, json_type_array)) {
    TLOG(LOG_DEBUG) << "params is not an array: " << zelojson::ToText(params);
    return nullptr;
  }
  size_t n = json_object_array_length(params);
  if (n != 2) {
    TLOG(LOG_DEBUG) << length_message << n;
    return nullptr;
  }
  return params;
}

std::string Reply(int id, const std::string& result) {
  return "{\"id\":" + std::to_string(id) + ",\"result\":" + result + "}";
}

std::string OkReply(int id) {
  return Reply(id, "[\"ok\"]");
}

int SendReply(const std::string& what, const std::string& reply) {
  TLOG(LOG_DEBUG) << what << reply;
  return MqttCommandAck(reply.c_str()) == 1 ? 0 : -1;
}

bool GetMac(json_object* value, std::string* mac) {
  std::string text;
  if (zelojson::GetString(value, &text) && cloudinput::ParseMac(text, mac)) return true;
  TLOG(LOG_DEBUG) << "Invalid camera mac: "
                  << (value != nullptr ? zelojson::ToText(value) : std::string("(none)"));
  return false;
}

bool GetCameraMac(json_object* params, std::string* mac) {
  if (params != nullptr && json_object_is_type(params, json_type_array)) {
    if (json_object_array_length(params) < 1) {
      TLOG(LOG_DEBUG) << "Invalid camera mac: empty params";
      return false;
    }
    return GetMac(json_object_array_get_idx(params, 0), mac);
  }
  return GetMac(params, mac);
}

bool GetIdAndCameraMac(const char* msg, int* id, std::string* mac) {
  if (!GetId(msg, id)) return false;
  zelojson::Doc doc(msg);
  json_object* params = GetParams(doc);
  return params != nullptr && GetCameraMac(params, mac);
}

std::vector<std::string> CameraList() {
  char list[kMaxSections][kUciSectionNameLen] = {};
  int n = zcfg_uci_get_section_list("p2p", list, kMaxSections);
  std::vector<std::string> cameras;
  for (int i = 0; i < n; i++) {
    std::string mac;
    // The hub writes camera sections under the upper-case MAC; nothing else is a camera.
    if (cloudinput::ParseMac(list[i], &mac) && mac == list[i]) cameras.push_back(mac);
  }
  return cameras;
}

bool IsKnownCamera(const std::string& mac) {
  for (const std::string& camera : CameraList()) {
    if (camera == mac) return true;
  }
  TLOG(LOG_DEBUG) << "Unknown camera: " << mac;
  return false;
}

std::string CameraKey(const std::string& mac, const char* setting) {
  return "p2p." + mac + "." + setting;
}

std::string CameraText(const std::string& mac, const char* setting, const char* dflt) {
  char value[128];
  if (zcfg_uci_get(CameraKey(mac, setting).c_str(), value, sizeof(value)) != 0) return dflt;
  return value;
}

int CameraInt(const std::string& mac, const char* setting) {
  return utils::GetIntConfig(CameraKey(mac, setting).c_str());
}

std::string CameraRecord(const std::string& mac, const camera::Status* fresh) {
  auto number = [&](const char* key, int fresh_value) {
    return ",\"" + std::string(key) +
           "\":" + std::to_string(fresh != nullptr ? fresh_value : CameraInt(mac, key));
  };
  auto text = [&](const char* key, int fresh_value) {
    return ",\"" + std::string(key) + "\":" +
           zelojson::Quote(fresh != nullptr ? std::to_string(fresh_value)
                                            : CameraText(mac, key, ""));
  };
  const camera::Status none;
  const camera::Status& s = fresh != nullptr ? *fresh : none;
  std::string r = "{\"mac\":" + zelojson::Quote(mac);
  r += ",\"name\":" + zelojson::Quote(CameraText(mac, "name", kDefaultCameraName));
  r += number("battery", s.battery);
  r += number("battery_status", s.battery_status);
  r += number("wifi", s.wifi);
  r += number("pir", s.pir);
  r += text("version", s.soft_ver);
  r += text("hardver", s.hard_ver);
  r += number("power", s.power);
  r += number("night", s.night);
  r += ",\"event\":" + zelojson::Quote(CameraText(mac, "event", ""));
  r += "}";
  return r;
}

}  // namespace cmdargs
