#include "cloud/cmdargs.h"

#include <cstdio>

#include "cloud/cloudinput.h"
#include "core/log.h"
#include "platform/uci.h"

namespace cmdargs {

namespace {
// More than the hub keeps, so that a hand-edited store is still read whole.
constexpr int kMaxSections = 32;
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

std::string Reply(int id, const std::string& result) {
  return "{\"id\":" + std::to_string(id) + ",\"result\":" + result + "}";
}

std::string OkReply(int id) {
  return Reply(id, "[\"ok\"]");
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

}  // namespace cmdargs
