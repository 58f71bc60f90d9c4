#include "crypto/hubauth.h"

#include <json-c/json.h>
#include <sodium.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "base/log.h"
#include "core/configuration.h"
#include "core/utils.h"
#include "crypto/stream_encrypt.h"
#include "crypto/viewerlogin.h"
#include "platform/nvram.h"

ClientKeyTable client_encrypt_info;

namespace {

constexpr uint32_t kPasswordRange = 1000000;
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

static_assert(crypto_box_PUBLICKEYBYTES == kLoginKeyBytes, "32-byte public keys");
static_assert(crypto_box_BEFORENMBYTES == kShareKeyBytes, "32-byte stream keys");
static_assert(kShareKeyBytes == kChachaKeyBytes, "the stream key is the ChaCha20 key");

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

}  // namespace

bool ReadDeviceToken(std::string* token) {
  char buffer[kTokenBuffer];
  if (utils::get_device_token(buffer, sizeof(buffer)) != 0) return false;
  token->assign(buffer);
  sodium_memzero(buffer, sizeof(buffer));
  return true;
}

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
  if (device_key.empty() || !ReadDeviceToken(&token)) {
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
