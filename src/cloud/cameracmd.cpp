#include "cloud/cameracmd.h"

#include <string>
#include <utility>
#include <vector>

#include "base/log.h"
#include "camera/livechannel.h"
#include "cloud/cloudinput.h"
#include "cloud/cmdargs.h"
#include "core/utils.h"
#include "core/zelojson.h"
#include "platform/uci.h"
#include "server/mediaserver.h"

namespace {

std::shared_ptr<channel::LiveChannel> FindChannel(const std::string& mac) {
  server::MediaServer* server = server::MediaServer::Current();
  return server != nullptr ? server->FindLiveChannel(mac) : nullptr;
}

std::string Key(const std::string& mac, const char* setting) {
  return cmdargs::CameraKey(mac, setting);
}

int GetInt(const std::string& mac, const char* setting) {
  return cmdargs::CameraInt(mac, setting);
}

struct AlarmField {
  const char* name;
  int min;
  int max;
};

const AlarmField kSchedule[] = {
    {"starthour", 0, 23}, {"startmin", 0, 59}, {"stophour", 0, 24},
    {"stopmin", 0, 59},   {"pushalarm", 0, 1},
};
const AlarmField kFirstForm[] = {{"interval", 0, 1440}};
const AlarmField kSecondForm[] = {{"new_interval", 0, 3600}, {"pir_duration", 5, 60}};

std::vector<AlarmField> FormFields(bool second) {
  std::vector<AlarmField> fields(std::begin(kSchedule), std::end(kSchedule));
  if (second) {
    fields.insert(fields.end(), std::begin(kSecondForm), std::end(kSecondForm));
  } else {
    fields.insert(fields.end(), std::begin(kFirstForm), std::end(kFirstForm));
  }
  return fields;
}

int GetAlarmConfig(const char* msg, bool second) {
  int id = 0;
  std::string mac;
  if (!cmdargs::GetIdAndCameraMac(msg, &id, &mac) || !cmdargs::IsKnownCamera(mac)) return -1;
  std::string result = "{\"mac\":" + zelojson::Quote(mac);
  for (const AlarmField& field : FormFields(second)) {
    result += ",\"" + std::string(field.name) + "\":" + std::to_string(GetInt(mac, field.name));
  }
  result += "}";
  return cmdargs::SendReply("Get alarm config Ack: ", cmdargs::Reply(id, result));
}

int SetAlarmConfig(const char* msg, bool second) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  zelojson::Doc doc(msg);
  json_object* params = cmdargs::GetParams(doc);
  if (params == nullptr) return -1;
  if (!json_object_is_type(params, json_type_object)) {
    TLOG(LOG_DEBUG) << "Alarm config params is not an object: " << zelojson::ToText(params);
    return -1;
  }
  json_object* mac_value = nullptr;
  std::string mac;
  if (!json_object_object_get_ex(params, "mac", &mac_value) || !cmdargs::GetMac(mac_value, &mac)) {
    return -1;
  }
  if (!cmdargs::IsKnownCamera(mac)) return -1;

  const std::vector<AlarmField> fields = FormFields(second);
  std::vector<std::pair<const char*, int>> values;
  json_object_object_foreach(params, key, value) {
    if (std::string(key) == "mac") continue;
    const AlarmField* field = nullptr;
    for (const AlarmField& f : fields) {
      if (std::string(key) == f.name) field = &f;
    }
    if (field == nullptr) {
      TLOG(LOG_DEBUG) << "Unknown alarm config field: " << zelojson::Quote(key);
      return -1;
    }
    int v = 0;
    if (!zelojson::GetInt(value, &v)) {
      TLOG(LOG_DEBUG) << "Alarm config " << field->name << " not int: " << zelojson::ToText(value);
      return -1;
    }
    if (v < field->min || v > field->max) {
      TLOG(LOG_DEBUG) << "Alarm config " << field->name << " out of range " << field->min << ".."
                      << field->max << ": " << v;
      return -1;
    }
    values.emplace_back(field->name, v);
  }
  if (values.empty()) {
    TLOG(LOG_DEBUG) << "Alarm config without any field";
    return -1;
  }
  // 24:00 is the end of the day; nothing lies beyond it.
  int stophour = GetInt(mac, "stophour");
  int stopmin = GetInt(mac, "stopmin");
  for (const auto& v : values) {
    if (std::string(v.first) == "stophour") stophour = v.second;
    if (std::string(v.first) == "stopmin") stopmin = v.second;
  }
  if (stophour == 24 && stopmin != 0) {
    TLOG(LOG_DEBUG) << "Alarm config stop time after 24:00 refused";
    return -1;
  }
  for (const auto& v : values) {
    if (utils::SetIntConfig(Key(mac, v.first).c_str(), v.second) != 0) {
      TLOG(LOG_DEBUG) << "Save alarm config of camera " << mac << " failed";
      return -1;
    }
  }
  // The camera's channel applies intervals and record length from its record.
  if (auto channel = FindChannel(mac)) {
    for (const auto& v : values) {
      const std::string name = v.first;
      if (name == "interval") channel->camera().SetAlarmInterval(v.second);
      if (name == "new_interval") channel->camera().SetNewAlarmInterval(v.second);
      if (name == "pir_duration") channel->camera().SetRecordLength(v.second);
    }
  }
  return cmdargs::SendReply("Set alarm config Ack: ", cmdargs::OkReply(id));
}

}  // namespace

int ProcMsgGetCameraList(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  std::vector<std::string> cameras = cmdargs::CameraList();
  TLOG(LOG_DEBUG) << "Camera list have: " << cameras.size();
  std::string result = "[";
  for (size_t i = 0; i < cameras.size(); i++) {
    if (i > 0) result += ",";
    result += cmdargs::CameraRecord(cameras[i]);
    // The reply carries what the store holds now; the camera's answer refreshes the store.
    if (auto channel = FindChannel(cameras[i])) {
      int res = channel->GetCameraInfo();
      if (res < 0) {
        TLOG(LOG_DEBUG) << "Send command to camera mac: " << cameras[i] << " failed, res = " << res;
      }
    }
  }
  result += "]";
  return cmdargs::SendReply("Get camera list ack: ", cmdargs::Reply(id, result));
}

int ProcMsgCameraRename(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  zelojson::Doc doc(msg);
  json_object* params = cmdargs::GetPairParams(doc, "Rename camera params length not equal ");
  if (params == nullptr) return -1;
  std::string mac;
  if (!cmdargs::GetMac(json_object_array_get_idx(params, 0), &mac)) return -1;
  std::string name;
  json_object* name_value = json_object_array_get_idx(params, 1);
  if (!zelojson::GetString(name_value, &name) || !cloudinput::IsValidName(name)) {
    TLOG(LOG_DEBUG) << "Invalid camera name (1 to " << cloudinput::kMaxNameLen
                    << " bytes, no quotes, backslash or control characters): "
                    << zelojson::ToText(name_value);
    return -1;
  }
  if (!cmdargs::IsKnownCamera(mac)) return -1;
  if (zcfg_uci_set(Key(mac, "name").c_str(), name.c_str()) != 0) {
    TLOG(LOG_DEBUG) << "Save camera " << mac << " name in uci config failed";
    return -1;
  }
  return cmdargs::SendReply("Rename camera: " + mac + " ack: ", cmdargs::OkReply(id));
}

int ProcMsgSetCameraPower(const char* msg) {
  TLOG(LOG_DEBUG) << "Proc set camera power";
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  zelojson::Doc doc(msg);
  json_object* params = cmdargs::GetParams(doc);
  if (params == nullptr) return -1;
  if (json_object_is_type(params, json_type_array)) {
    TLOG(LOG_DEBUG) << "array_length: " << json_object_array_length(params);
  }
  params = cmdargs::GetPairParams(doc, "Set camera power params length not equal ");
  if (params == nullptr) return -1;
  std::string mac;
  if (!cmdargs::GetMac(json_object_array_get_idx(params, 0), &mac)) return -1;
  int power = 0;
  json_object* power_value = json_object_array_get_idx(params, 1);
  if (!zelojson::GetInt(power_value, &power) || (power != 0 && power != 1)) {
    TLOG(LOG_DEBUG) << "Camera power must be 0 or 1: " << zelojson::ToText(power_value);
    return -1;
  }
  if (!cmdargs::IsKnownCamera(mac)) return -1;
  if (utils::SetIntConfig(Key(mac, "power").c_str(), power) != 0) {
    TLOG(LOG_DEBUG) << "Save camera " << mac << " power in uci config failed";
    return -1;
  }
  return cmdargs::SendReply("Set camera power mode Ack: ", cmdargs::OkReply(id));
}

int ProcMsgGetAlarmConfig(const char* msg) {
  return GetAlarmConfig(msg, false);
}
int ProcMsgSetAlarmConfig(const char* msg) {
  return SetAlarmConfig(msg, false);
}
int ProcMsgGetAlarmConfigNew(const char* msg) {
  return GetAlarmConfig(msg, true);
}
int ProcMsgSetAlarmConfigNew(const char* msg) {
  return SetAlarmConfig(msg, true);
}
