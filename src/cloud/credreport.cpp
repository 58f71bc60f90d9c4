#include "cloud/credreport.h"

#include <sodium.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "base/log.h"
#include "cloud/cloudcmd.h"
#include "cloud/mqttclient.h"
#include "core/configuration.h"
#include "core/utils.h"
#include "crypto/hubauth.h"
#include "platform/nvram.h"

namespace {

constexpr int kIdleOtaState = 241;

std::atomic<int (*)(const char*)> g_publish{nullptr};
std::atomic<int (*)(int)> g_ota_reporter{nullptr};

int Publish(const char* text) {
  int (*publish)(const char*) = g_publish.load();
  return publish != nullptr ? publish(text) : MqttReport(text);
}

// A value from outside for a JSON string: quotes, backslashes and control characters escaped.
std::string JsonEscape(const std::string& value) {
  std::string out;
  out.reserve(value.size());
  for (unsigned char c : value) {
    if (c == '"' || c == '\\') {
      out += '\\';
      out += static_cast<char>(c);
    } else if (c < 0x20) {
      char escaped[8];
      std::snprintf(escaped, sizeof(escaped), "\\u%04x", c);
      out += escaped;
    } else {
      out += static_cast<char>(c);
    }
  }
  return out;
}

const char* OtaStateText(int code) {
  switch (code) {
    case 242:
      return "downloading";
    case 243:
      return "downloaded";
    case 244:
      return "installing";
    case 245:
      return "installed";
    case 246:
      return "failed";
    default:
      return "idle";
  }
}

int ReportOtaStateBuiltIn(int code) {
  const int id = utils::generate_random_id();
  SetOtaStateReportId(id);
  char report[128];
  std::snprintf(report, sizeof(report),
                "{\"id\":%d,\"method\":\"prop.ota_state\",\"params\":[\"%s\"]}", id,
                OtaStateText(code));
  return Publish(report);
}

int ReportOtaState(int code) {
  int (*report)(int) = g_ota_reporter.load();
  return report != nullptr ? report(code) : ReportOtaStateBuiltIn(code);
}

}  // namespace

std::string BuildCredentialReport(int id, const std::string& uid, const std::string& password,
                                  const std::string& check_token, const std::string& public_key,
                                  const std::string* lock_region, const std::string* legal_status) {
  const std::string u = JsonEscape(uid);
  const std::string p = JsonEscape(password);
  const std::string c = JsonEscape(check_token);
  const std::string k = JsonEscape(public_key);
  std::vector<char> text;
  if (lock_region != nullptr) {
    const std::string r = JsonEscape(*lock_region);
    const std::string s = JsonEscape(legal_status != nullptr ? *legal_status : std::string());
    const char* format =
        "{\"id\":%d,\"method\":\"props\",\"params\":{\"p2p_id\":\"%s\",\"p2p_password\":\"%s\", "
        "\"p2p_checktoken\":\"%s\", \"p2p_dev_public_key\":\"%s\", \"lock_region\":\"%s\", "
        "\"s_legal_status\":\"%s\"}}";
    const int n = std::snprintf(nullptr, 0, format, id, u.c_str(), p.c_str(), c.c_str(), k.c_str(),
                                r.c_str(), s.c_str());
    text.resize(static_cast<size_t>(n) + 1);
    std::snprintf(text.data(), text.size(), format, id, u.c_str(), p.c_str(), c.c_str(), k.c_str(),
                  r.c_str(), s.c_str());
  } else {
    const char* format =
        "{\"id\":%d,\"method\":\"props\",\"params\":{\"p2p_id\":\"%s\",\"p2p_password\":\"%s\","
        "\"p2p_checktoken\":\"%s\",\"p2p_dev_public_key\":\"%s\"}}";
    const int n = std::snprintf(nullptr, 0, format, id, u.c_str(), p.c_str(), c.c_str(), k.c_str());
    text.resize(static_cast<size_t>(n) + 1);
    std::snprintf(text.data(), text.size(), format, id, u.c_str(), p.c_str(), c.c_str(), k.c_str());
  }
  return std::string(text.data());
}

int ReportNewPasswordToCloud() {
  std::string token;
  if (!ReadDeviceToken(&token)) {
    TLOG(LOG_DEBUG) << "Report avpass to cloud: the device token cannot be read, not reported";
    return -1;
  }
  const std::string check_token = utils::str2hex(token);
  sodium_memzero(&token[0], token.size());
  const int id = utils::generate_random_id();
  char lock_region[kNvramValueMax + 1];
  char legal_status[kNvramValueMax + 1];
  const bool has_lock_region =
      nvram_get("p2p", "lockregion", lock_region, sizeof(lock_region)) == 0;
  if (nvram_get("p2p", "legalstatus", legal_status, sizeof(legal_status)) != 0) {
    legal_status[0] = '\0';
  }
  const std::string region = lock_region;
  const std::string legal = legal_status;
  Configuration& config = Configuration::getInstance();
  const std::string uid = config.GetP2pUid();
  const std::string password = config.GetP2pPassword();
  const std::string public_key = get_dev_pub_key();
  const std::string* region_arg = has_lock_region ? &region : nullptr;
  const std::string* legal_arg = has_lock_region ? &legal : nullptr;
  const std::string report =
      BuildCredentialReport(id, uid, password, check_token, public_key, region_arg, legal_arg);
  TLOG(LOG_DEBUG) << "Report avpass to cloud: "
                  << BuildCredentialReport(id, uid, password, "(device token)", public_key,
                                           region_arg, legal_arg);
  SetP2pInfoReportId(id);
  return Publish(report.c_str());
}

int RequestUid() {
  const int id = utils::generate_random_id();
  SetUidRequestId(id);
  char request[96];
  std::snprintf(request, sizeof(request), "{\"id\":%d,\"method\":\"%s\",\"params\":%s}", id,
                "_sync.get_p2p_id", "{}");
  return Publish(request);
}

void SetCredentialPublisher(int (*publish)(const char* text)) {
  g_publish.store(publish);
}

void SetOtaStateReporter(int (*report)(int code)) {
  g_ota_reporter.store(report);
}

UidPwdHooks DefaultUidPwdHooks() {
  UidPwdHooks hooks;
  hooks.wifi_status = GetWifiConnectStatus;
  hooks.report_acked = IsFirstP2pInfoReportAcked;
  hooks.time_synced = IsFirstTimeSynced;
  hooks.idle_report_acked = IsFirstOtaStateReportAcked;
  hooks.report_ota_state = ReportOtaState;
  hooks.wait = [] {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    return true;
  };
  return hooks;
}

void* UidPwdFunc(void* arg) {
  UidPwdHooks hooks = DefaultUidPwdHooks();
  if (arg != nullptr) {
    const UidPwdHooks& given = *static_cast<const UidPwdHooks*>(arg);
    if (given.wifi_status) hooks.wifi_status = given.wifi_status;
    if (given.report_acked) hooks.report_acked = given.report_acked;
    if (given.time_synced) hooks.time_synced = given.time_synced;
    if (given.idle_report_acked) hooks.idle_report_acked = given.idle_report_acked;
    if (given.report_ota_state) hooks.report_ota_state = given.report_ota_state;
    if (given.wait) hooks.wait = given.wait;
  }
  TLOG(LOG_DEBUG) << "Create get tutk uid and timer report pwd thread success";
  Configuration& config = Configuration::getInstance();
  while (hooks.wifi_status() != kStatusCloudConnected) {
    if (!hooks.wait()) return nullptr;
  }
  while (config.GetP2pUid().empty()) {
    TLOG(LOG_DEBUG) << "tutk uid is not exist, get uid from cloud";
    RequestUid();
    if (!hooks.wait()) return nullptr;
  }
  while (!hooks.report_acked()) {
    MakeNewAvPass();
    ReportNewPasswordToCloud();
    if (!hooks.wait()) return nullptr;
  }
  while (!hooks.time_synced()) {
    if (!hooks.wait()) return nullptr;
  }
  while (!hooks.idle_report_acked()) {
    hooks.report_ota_state(kIdleOtaState);
    if (!hooks.wait()) return nullptr;
  }
  TLOG(LOG_DEBUG) << "Credentials reported, firmware state idle acknowledged";
  return nullptr;
}
