#include "cloud/storagecmd.h"

#include <cstdint>
#include <cstdio>

#include "base/log.h"
#include "cloud/cmdargs.h"
#include "cloud/mqttclient.h"
#include "core/zelojson.h"
#include "storage/recordindex.h"
#include "storage/sdcard.h"

namespace {

// How much of a refused message is logged.
constexpr size_t kLoggedParams = 128;

const char* StatusName(int status) {
  switch (status) {
    case SDCARD_STATUS_OFF:
      return "SDCARD_STATUS_OFF";
    case SDCARD_STATUS_NORMAL:
      return "SDCARD_STATUS_NORMAL";
    case SDCARD_STATUS_ABNORMAL:
      return "SDCARD_STATUS_ABNORMAL";
    case SDCARD_STATUS_FORMAT:
      return "SDCARD_STATUS_FORMAT";
    case SDCARD_STATUS_UNMOUNT:
      return "SDCARD_STATUS_UNMOUNT";
    default:
      return "SDCARD_STATUS_UNKNOWN";
  }
}

int AckOk(int id) {
  char reply[64];
  std::snprintf(reply, sizeof(reply), "{\"id\":%d,\"result\":[\"OK\"]}", id);
  return MqttCommandAck(reply) == 1 ? 0 : -1;
}

}  // namespace

namespace storagecmd {

bool ParseDeleteRequest(const char* msg, DeleteRequest* request) {
  if (request == nullptr || !cmdargs::GetId(msg, &request->id)) return false;
  zelojson::Doc doc(msg);
  json_object* params = doc.Get("params");
  const size_t n = params != nullptr && json_object_is_type(params, json_type_array)
                       ? json_object_array_length(params)
                       : 0;
  if (n < 2 || n > kMaxDeleteTimes + 1) {
    TLOG(LOG_DEBUG) << "deleteVideo params must be [mac, time, ...] with 1 to " << kMaxDeleteTimes
                    << " times: "
                    << (params != nullptr ? zelojson::ToText(params).substr(0, kLoggedParams)
                                          : std::string("(none)"));
    return false;
  }
  if (!cmdargs::GetMac(json_object_array_get_idx(params, 0), &request->mac)) return false;
  request->times.clear();
  request->times.reserve(n - 1);
  for (size_t i = 1; i < n; i++) {
    json_object* item = json_object_array_get_idx(params, i);
    int64_t t = 0;
    if (!json_object_is_type(item, json_type_int) || !zelojson::GetInt64(item, &t) ||
        !IsEventStartTime(t)) {
      TLOG(LOG_DEBUG) << "deleteVideo time is not an event time: "
                      << (item != nullptr ? zelojson::ToText(item).substr(0, kLoggedParams)
                                          : std::string("null"));
      return false;
    }
    request->times.push_back(static_cast<long>(t));
  }
  return true;
}

}  // namespace storagecmd

int ProcMsgSdCardFormat(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  StartFormatSdCard();
  return AckOk(id);
}

int ProcMsgSdCardUmount(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  TLOG(LOG_DEBUG) << "Proc sd_card umount";
  if (UmountSdCard() != 0) {
    TLOG(LOG_DEBUG) << "UmountSdCard failed";
    return -1;
  }
  return AckOk(id);
}

int ProcMsgGetSdCardStorage(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  const int status = GetSdCardStatus();
  TLOG(LOG_DEBUG) << StatusName(status) << ", " << StatusName(status);
  char result[96];
  char reply[160];
  if (status == SDCARD_STATUS_NORMAL) {
    unsigned long long total = 0, free = 0;
    GetSdCardCapability(&total, &free);
    std::snprintf(result, sizeof(result), "[%d, %llu, %llu]", 0, total, free);
    std::snprintf(reply, sizeof(reply), "{\"id\":%d,\"result\":%s}", id, result);
    TLOG(LOG_DEBUG) << "Get sdcard storage Ack: " << reply;
  } else {
    int code = 1;  // off, unmounted and anything else
    if (status == SDCARD_STATUS_ABNORMAL) code = 3;
    if (status == SDCARD_STATUS_FORMAT) code = 4;
    std::snprintf(result, sizeof(result), "[%d, %d, %d]", code, 0, 0);
    std::snprintf(reply, sizeof(reply), "{\"id\":%d,\"result\":%s}", id, result);
    TLOG(LOG_DEBUG) << "Get camera prop Ack: " << reply;
  }
  return MqttCommandAck(reply) == 1 ? 0 : -1;
}

int ProcMsgDeleteVideo(const char* msg) {
  TLOG(LOG_DEBUG) << "Delete camera pir video";
  storagecmd::DeleteRequest request;
  if (!storagecmd::ParseDeleteRequest(msg, &request) || !cmdargs::IsKnownCamera(request.mac)) {
    return -1;
  }
  for (long t : request.times) {
    TLOG(LOG_DEBUG) << "delete item: " << t;
    if (RomoveTimestampAndFile(t, request.mac.c_str()) != 0) {
      TLOG(LOG_DEBUG) << "Rm timestamp: " << t << " failed!";
      return -1;
    }
    TLOG(LOG_DEBUG) << "Rm timestamp: " << t << " succeed!";
  }
  return AckOk(request.id);
}
