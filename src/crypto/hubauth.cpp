#include "crypto/hubauth.h"

#include <json-c/json.h>
#include <sodium.h>

#include <atomic>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <thread>
#include <vector>

#include "cloud/cloudcmd.h"
#include "cloud/mqttclient.h"
#include "cloud/ota.h"
#include "core/configuration.h"
#include "core/log.h"
#include "core/utils.h"
#include "crypto/stream_encrypt.h"
#include "crypto/viewerlogin.h"
#include "platform/nvram.h"

ClientKeyTable client_encrypt_info;

namespace {

constexpr uint32_t kPasswordRange = 1000000;
constexpr int kIdleOtaState = 241;
// Room for the device token read from its file (at most 64 bytes).
constexpr size_t kTokenBuffer = 65;
// Characters of a refused login text shown in the log.
constexpr size_t kLoggedTextMax = 256;

// The key pair; replaced only by generate_new_key.
std::mutex g_key_mutex;
unsigned char g_public_key[crypto_box_PUBLICKEYBYTES];
unsigned char g_secret_key[crypto_box_SECRETKEYBYTES];
char g_public_hex[2 * crypto_box_PUBLICKEYBYTES + 1];
bool g_have_keys = false;

std::atomic<int (*)(const char*)> g_publish{nullptr};
std::atomic<int (*)(int)> g_ota_reporter{nullptr};

static_assert(crypto_box_PUBLICKEYBYTES == kLoginKeyBytes, "32-byte public keys");
static_assert(crypto_box_BEFORENMBYTES == kShareKeyBytes, "32-byte stream keys");
static_assert(kShareKeyBytes == kChachaKeyBytes, "the stream key is the ChaCha20 key");

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

// A text from a viewer for the log: bounded, non-printable bytes shown as '?'.
std::string Printable(const char* text, size_t max) {
  if (text == nullptr) return "(null)";
  std::string out;
  size_t i = 0;
  for (; i < max && text[i] != '\0'; i++) {
    const unsigned char c = static_cast<unsigned char>(text[i]);
    out += std::isprint(c) ? static_cast<char>(c) : '?';
  }
  if (i == max && text[i] != '\0') out += "...";
  return out;
}

bool ReadToken(std::string* token) {
  char buffer[kTokenBuffer];
  if (utils::get_device_token(buffer, sizeof(buffer)) != 0) return false;
  token->assign(buffer);
  sodium_memzero(buffer, sizeof(buffer));
  return true;
}

// A top-level string member.
bool GetString(json_object* root, const char* key, const char** text, size_t* len) {
  json_object* value = nullptr;
  if (!json_object_object_get_ex(root, key, &value) ||
      !json_object_is_type(value, json_type_string))
    return false;
  *text = json_object_get_string(value);
  *len = static_cast<size_t>(json_object_get_string_len(value));
  return *text != nullptr;
}

int ReportOtaStateBuiltIn(int code) {
  const int id = utils::generate_random_id();
  SetOtaStateReportId(id);
  return Publish(OtaStateReport(id, code).c_str());
}

int ReportIdleState(int code) {
  int (*report)(int) = g_ota_reporter.load();
  return report != nullptr ? report(code) : ReportOtaStateBuiltIn(code);
}

}  // namespace

int libsodium_init() {
  if (sodium_init() < 0) {
    TLOG(LOG_ERR) << "libsodium init error!!";
    return -1;
  }
  generate_new_key();
  const int buffers = init_work_buffers();
  if (buffers < 0) {
    TLOG(LOG_ERR) << (buffers == -1 ? "init audio data buf fail!" : "init video data buf fail!");
    std::exit(0);
  }
  return 0;
}

void generate_new_key() {
  std::string hex;
  {
    std::lock_guard<std::mutex> lock(g_key_mutex);
    sodium_memzero(g_secret_key, sizeof(g_secret_key));
    crypto_box_keypair(g_public_key, g_secret_key);
    sodium_bin2hex(g_public_hex, sizeof(g_public_hex), g_public_key, sizeof(g_public_key));
    g_have_keys = true;
    hex = g_public_hex;
  }
  TLOG(LOG_DEBUG) << "public key is: " << hex;
}

std::string get_dev_pub_key() {
  std::lock_guard<std::mutex> lock(g_key_mutex);
  return g_have_keys ? std::string(g_public_hex) : std::string();
}

int calculate_share_key(const unsigned char* app_public_key, unsigned char* share_key) {
  if (app_public_key == nullptr || share_key == nullptr) {
    TLOG(LOG_DEBUG) << "app public key or share key buf error! (NULL)";
    return -1;
  }
  int rc;
  {
    std::lock_guard<std::mutex> lock(g_key_mutex);
    if (!g_have_keys) {
      TLOG(LOG_DEBUG) << "calculate share key: the hub has no key pair";
      return -1;
    }
    rc = crypto_box_beforenm(share_key, app_public_key, g_secret_key);
  }
  if (rc != 0) {
    TLOG(LOG_DEBUG) << "calculate share key fail: weak app public key";
    sodium_memzero(share_key, kShareKeyBytes);
    return -1;
  }
  return 0;
}

int check_sign_hmacsha256(const unsigned char* app_public_key, const unsigned char* sign) {
  if (app_public_key == nullptr || sign == nullptr) {
    TLOG(LOG_DEBUG) << "app public key or app sign error! (NULL)";
    return 0;
  }
  const std::string device_key = Configuration::getInstance().GetDeviceKey();
  std::string token;
  if (device_key.empty() || !ReadToken(&token)) {
    TLOG(LOG_DEBUG) << "check sign: device key or device token missing";
    return 0;
  }
  unsigned char hub_key[crypto_box_PUBLICKEYBYTES];
  {
    std::lock_guard<std::mutex> lock(g_key_mutex);
    if (!g_have_keys) {
      TLOG(LOG_DEBUG) << "check sign: the hub has no key pair";
      return 0;
    }
    std::memcpy(hub_key, g_public_key, sizeof(hub_key));
  }
  unsigned char expected[crypto_auth_hmacsha256_BYTES];
  login_sign_hmacsha256(device_key, token, hub_key, app_public_key, expected);
  sodium_memzero(&token[0], token.size());
  const int verify = crypto_verify_32(expected, sign);
  const int compare = sodium_memcmp(expected, sign, sizeof(expected));
  sodium_memzero(expected, sizeof(expected));
  if (verify == 0 && compare == 0) return 1;
  TLOG(LOG_DEBUG) << "!!!!!SIGN VERIFY FAIL!!!!! " << verify << " " << compare;
  return 0;
}

int ClientKeyTable::Set(int slot, const unsigned char* key) {
  if (slot < 0 || slot >= kClientKeySlots || key == nullptr) return -1;
  Slot& s = slots_[slot];
  std::lock_guard<std::mutex> lock(s.mutex);
  std::memcpy(s.key, key, kShareKeyBytes);
  s.valid = true;
  return 0;
}

int ClientKeyTable::Get(int slot, unsigned char* out) const {
  if (slot < 0 || slot >= kClientKeySlots || out == nullptr) return -1;
  const Slot& s = slots_[slot];
  std::lock_guard<std::mutex> lock(s.mutex);
  if (!s.valid) return -1;
  std::memcpy(out, s.key, kShareKeyBytes);
  return 0;
}

void ClientKeyTable::Clear(int slot) {
  if (slot < 0 || slot >= kClientKeySlots) return;
  Slot& s = slots_[slot];
  std::lock_guard<std::mutex> lock(s.mutex);
  sodium_memzero(s.key, sizeof(s.key));
  s.valid = false;
}

int parse_login_text(const char* text, login_text_fields* out) {
  if (text == nullptr || out == nullptr) {
    TLOG(LOG_DEBUG) << "Not in json format";
    return -1;
  }
  const size_t len = strnlen(text, kMaxLoginTextLen + 1);
  if (len > kMaxLoginTextLen) {
    TLOG(LOG_DEBUG) << "Not in json format: login text longer than " << kMaxLoginTextLen
                    << " bytes";
    return -1;
  }
  json_tokener* tokener = json_tokener_new();
  if (tokener == nullptr) return -1;
  json_object* root = json_tokener_parse_ex(tokener, text, static_cast<int>(len));
  bool whole = root != nullptr && json_tokener_get_error(tokener) == json_tokener_success;
  for (size_t i = whole ? json_tokener_get_parse_end(tokener) : len; i < len; i++) {
    if (!std::isspace(static_cast<unsigned char>(text[i]))) whole = false;
  }
  json_tokener_free(tokener);
  if (!whole || !json_object_is_type(root, json_type_object)) {
    json_object_put(root);
    TLOG(LOG_DEBUG) << "Not in json format";
    return -1;
  }
  const char* public_key = nullptr;
  const char* sign = nullptr;
  const char* account = nullptr;
  size_t public_key_len = 0;
  size_t sign_len = 0;
  size_t account_len = 0;
  int rc = -1;
  if (!GetString(root, "public_key", &public_key, &public_key_len)) {
    TLOG(LOG_DEBUG) << "get public_key error";
  } else if (!GetString(root, "sign", &sign, &sign_len)) {
    TLOG(LOG_DEBUG) << "get sign error";
  } else if (!GetString(root, "account", &account, &account_len)) {
    TLOG(LOG_DEBUG) << "get account_name error";
  } else if (decode_hex32(public_key, public_key_len, out->public_key) != 0 ||
             decode_hex32(sign, sign_len, out->sign) != 0) {
    TLOG(LOG_DEBUG) << "login text: public_key and sign must be 64 hexadecimal digits each";
  } else {
    const size_t kept = account_len < kLoginAccountKept ? account_len : kLoginAccountKept;
    std::memcpy(out->account, account, kept);
    out->account[kept] = '\0';
    rc = 0;
  }
  json_object_put(root);
  return rc;
}

int AuthCallBackFn(int slot, const char* account, const char* text) {
  if (slot < 0 || slot >= kClientKeySlots) {
    TLOG(LOG_DEBUG) << "AuthCallBackFn: no session slot " << slot;
    return 0;
  }
  login_text_fields fields;
  if (parse_login_text(text, &fields) != 0) {
    TLOG(LOG_DEBUG) << "parse encrypt params error!";
    return 0;
  }
  unsigned char key[kShareKeyBytes];
  if (check_sign_hmacsha256(fields.public_key, fields.sign) != 1 ||
      calculate_share_key(fields.public_key, key) != 0) {
    TLOG(LOG_DEBUG) << "AuthCallBackFn failed. Password: " << Printable(text, kLoggedTextMax);
    return 0;
  }
  client_encrypt_info.Set(slot, key);
  sodium_memzero(key, sizeof(key));
  TLOG(LOG_DEBUG) << "AuthCallBackFn ok, slot: " << slot
                  << ", account: " << Printable(account, kLoginAccountKept)
                  << ", app account: " << Printable(fields.account, kLoginAccountKept);
  return 1;
}

int AuthCallBackFn0(char* account, char* text) {
  TLOG(LOG_DEBUG) << "tutk Auth 0......";
  return AuthCallBackFn(0, account, text);
}

int AuthCallBackFn1(char* account, char* text) {
  TLOG(LOG_DEBUG) << "tutk Auth 1......";
  return AuthCallBackFn(1, account, text);
}

int AuthCallBackFn2(char* account, char* text) {
  TLOG(LOG_DEBUG) << "tutk Auth 2......";
  return AuthCallBackFn(2, account, text);
}

int AuthCallBackFn3(char* account, char* text) {
  TLOG(LOG_DEBUG) << "tutk Auth 3......";
  return AuthCallBackFn(3, account, text);
}

std::string FormatAvPass(uint32_t value) {
  char password[8];
  std::snprintf(password, sizeof(password), "%06u", value % kPasswordRange);
  return password;
}

std::string MakeNewAvPass() {
  // randombytes_uniform draws without modulo bias.
  const std::string password = FormatAvPass(randombytes_uniform(kPasswordRange));
  Configuration::getInstance().SetP2pPassword(password);
  TLOG(LOG_DEBUG) << "MakeNewAvPass: " << password;
  return password;
}

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
  if (!ReadToken(&token)) {
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
  hooks.report_ota_state = ReportIdleState;
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
