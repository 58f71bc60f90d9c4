#include "cloud/cloudcmd.h"

#include <signal.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>

#include "base/log.h"
#include "cloud/cmdargs.h"
#include "cloud/mqttclient.h"
#include "core/utils.h"
#include "core/zelojson.h"
#include "led/hubled.h"
#include "platform/board.h"

namespace {

std::atomic<int> g_wifi_status{kStatusUnknown};
std::atomic<bool> g_time_synced{false};

// The supervisor restarts the daemon. Other threads are still running, so the process ends
// without running static destructors under them.
void ExitNow(int status) {
  std::fflush(nullptr);
  _exit(status);
}
std::atomic<void (*)(int)> g_fault_exit{ExitNow};

std::mutex g_local_status_mutex;
std::string g_last_local_status;

constexpr char kThresholdKey[] = "hub_config.power.threshold";
// The factory reset belongs to this process; it performs the reset when it gets this signal.
constexpr char kResetDaemon[] = "ipcamera-daemon";
constexpr int kResetSignal = 42;

struct LocalStatus {
  const char* text;
  int status;  // -1: logged only
};

const LocalStatus kLocalStatuses[] = {
    {"wifi_failed", kStatusWifiFailed},
    {"wifi_wrong_password", kStatusWifiFailed},
    {"wifi_connecting", kStatusWifiConnecting},
    {"wifi_connected", kStatusWifiConnected},
    {"cloud_connected", kStatusCloudConnected},
    {"cloud_retry", -1},
    {"wifi_ap_mode", kStatusApMode},
    {"wifi_ap_mode_2", kStatusApMode2},
};

// The LED follows the connection: 4 when the cloud is reached, 3 while the set-up access point
// is up, 5 while the hub is on its way.
int LedForStatus(int status) {
  switch (status) {
    case kStatusCloudConnected:
      return 4;
    case kStatusApMode:
    case kStatusApMode2:
      return 3;
    default:
      return 5;
  }
}

}  // namespace

void SetWifiConnectStatus(int status) {
  TLOG(LOG_DEBUG) << "Set wifi connect status: " << status;
  g_wifi_status.store(status);
}

int GetWifiConnectStatus() {
  return g_wifi_status.load();
}

bool IsCloudConnected() {
  return g_wifi_status.load() == kStatusCloudConnected;
}

bool IsFirstTimeSynced() {
  return g_time_synced.load();
}

void SetFaultExit(void (*exit_fn)(int status)) {
  g_fault_exit.store(exit_fn != nullptr ? exit_fn : ExitNow);
}

int ProcMsgLocalStatus(const char* msg) {
  char text[64];
  if (json_get_string_value(msg, "params", text, sizeof(text)) != 0) {
    TLOG(LOG_DEBUG) << "Wrong local.status, msg: " << msg;
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_local_status_mutex);
  if (g_last_local_status == text) {
    TLOG(LOG_DEBUG) << "[repeated msg] ommitted";
    return 0;
  }
  for (const LocalStatus& entry : kLocalStatuses) {
    if (std::strcmp(entry.text, text) != 0) continue;
    g_last_local_status = text;
    TLOG(LOG_DEBUG) << "local.status: " << text;
    if (entry.status < 0) return 0;
    SetWifiConnectStatus(entry.status);
    SetupLed(LedForStatus(entry.status));
    return 0;
  }
  TLOG(LOG_DEBUG) << "unknown msg: " << text;
  return -1;
}

int ProcMsgSyncLocalTime(const char* msg) {
  zelojson::Doc doc(msg);
  json_object* params = cmdargs::GetParams(doc);
  if (params == nullptr) return -1;
  int64_t seconds = 0;
  if (!zelojson::GetInt64(params, &seconds)) {
    TLOG(LOG_DEBUG) << "Ignore system time: " << zelojson::ToText(params) << " (not an integer)";
    return -1;
  }
  if (seconds < kMinSaneTime || seconds >= kMaxSaneTime) {
    TLOG(LOG_DEBUG) << "Ignore system time: " << seconds << " (outside " << kMinSaneTime << ".."
                    << kMaxSaneTime << ")";
    return -1;
  }
  if (platform::SetClock(seconds) != 0) {
    TLOG(LOG_DEBUG) << "Set system time fail: " << std::strerror(errno);
    return -1;
  }
  TLOG(LOG_DEBUG) << "Set system time success: " << seconds;
  if (!g_time_synced.exchange(true)) TLOG(LOG_DEBUG) << "first sync local time ok";
  return 0;
}

int ProcMsgRestore(const char* msg) {
  TLOG(LOG_DEBUG) << "processing msg Restore";
  // The reset goes ahead even when the reply cannot go out: the person pressed reset in the app.
  if (MqttMsgAckOK(msg) < 0) TLOG(LOG_DEBUG) << "Restore: the ok reply was not published";
  pid_t pid = utils::GetProcessPid(kResetDaemon);
  if (pid > 0) {
    if (kill(pid, kResetSignal) != 0) {
      TLOG(LOG_DEBUG) << "kill " << kResetDaemon << " failed: " << std::strerror(errno);
      return -1;
    }
    TLOG(LOG_DEBUG) << "Finish kill daemon signal";
    return 0;
  }
  TLOG(LOG_DEBUG) << "ipcamera-daemon don't exist, doing reboot";
  platform::System("echo error reboot > " + platform::BoardPath("/dev/ttyS1"));
  platform::System("reboot");
  return 0;
}

int ProcMsgEvent(const char* msg) {
  zelojson::Doc doc(msg);
  json_object* params = doc.Get("params");
  // "params" is an object, or the text of one.
  std::string params_text;
  zelojson::Doc inner(zelojson::GetString(params, &params_text) ? params_text.c_str() : nullptr);
  if (inner.root() != nullptr) params = inner.root();
  if (params == nullptr || !json_object_is_type(params, json_type_object)) {
    TLOG(LOG_DEBUG) << "get params error!!!";
    return -1;
  }
  json_object* value = nullptr;
  int code = 0;
  int ts = 0;
  if (!json_object_object_get_ex(params, "code", &value)) {
    TLOG(LOG_DEBUG) << "get code error!!!";
    return -1;
  }
  if (!zelojson::GetInt(value, &code)) {
    TLOG(LOG_DEBUG) << "code not int";
    return -1;
  }
  if (!json_object_object_get_ex(params, "ts", &value)) {
    TLOG(LOG_DEBUG) << "get ts error";
    return -1;
  }
  if (!zelojson::GetInt(value, &ts)) {
    TLOG(LOG_DEBUG) << "ts not int";
    return -1;
  }
  TLOG(LOG_DEBUG) << "zeLO.event code: " << code << ", ts: " << ts;
  if (code == -90) {
    TLOG(LOG_DEBUG) << "TUTK bug: -90, exit";
    g_fault_exit.load()(-1);
  }
  return 0;
}

int ProcMsgSetLegalStatus(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  char value[16];
  if (json_verify_get_array(msg, "params", value, sizeof(value)) != 0) {
    TLOG(LOG_DEBUG) << "get legal status params error!!!\n";
    return -1;
  }
  if (std::strcmp(value, "1") != 0) {
    TLOG(LOG_DEBUG) << "set legal status must 1, error!!!\n";
    return -1;
  }
  char command[64];
  std::snprintf(command, sizeof(command), "nvram set p2p legalstatus '%s'", value);
  if (platform::System(command) != 0) {
    TLOG(LOG_DEBUG) << "Save legal status failed";
    return -1;
  }
  return MqttCommandAck(cmdargs::OkReply(id).c_str()) == 1 ? 0 : -1;
}

int ProcMsgGetThreshold(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  return cmdargs::SendReply(
      "Get power threshold Ack: ",
      cmdargs::Reply(id, "[" + std::to_string(utils::GetIntConfig(kThresholdKey)) + "]"));
}

int ProcMsgSetThreshold(const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  zelojson::Doc doc(msg);
  json_object* params = cmdargs::GetParams(doc);
  if (params == nullptr) return -1;
  int threshold = 0;
  if (!json_object_is_type(params, json_type_array) || json_object_array_length(params) != 1 ||
      !zelojson::GetInt(json_object_array_get_idx(params, 0), &threshold)) {
    TLOG(LOG_DEBUG) << "Set power threshold params error: " << zelojson::ToText(params);
    return -1;
  }
  if (threshold < 0 || threshold > 100) {
    TLOG(LOG_DEBUG) << "Set power threshold out of range 0..100: " << threshold;
    return -1;
  }
  if (utils::SetIntConfig(kThresholdKey, threshold) != 0) {
    TLOG(LOG_DEBUG) << "Save power threshold failed";
    return -1;
  }
  return cmdargs::SendReply("Set power threshold Ack: ", cmdargs::OkReply(id));
}
