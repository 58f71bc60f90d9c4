#include "crypto/viewerlogin.h"

#include <json-c/json.h>
#include <sodium.h>

#include <vector>

int login_sign_hmacsha256(const std::string& device_key, const std::string& device_token,
                          const unsigned char* hub_public_key, const unsigned char* app_public_key,
                          unsigned char* sign) {
  if (hub_public_key == nullptr || app_public_key == nullptr || sign == nullptr) return -1;
  std::vector<unsigned char> key(device_key.begin(), device_key.end());
  key.insert(key.end(), device_token.begin(), device_token.end());
  key.insert(key.end(), hub_public_key, hub_public_key + kLoginKeyBytes);
  crypto_auth_hmacsha256_state state;
  crypto_auth_hmacsha256_init(&state, key.data(), key.size());
  crypto_auth_hmacsha256_update(&state, app_public_key, kLoginKeyBytes);
  crypto_auth_hmacsha256_final(&state, sign);
  sodium_memzero(key.data(), key.size());
  sodium_memzero(&state, sizeof(state));
  return 0;
}

int decode_hex32(const char* hex, size_t len, unsigned char* out) {
  if (hex == nullptr || out == nullptr || len != kLoginKeyHex) return -1;
  size_t bin_len = 0;
  const char* end = nullptr;
  if (sodium_hex2bin(out, kLoginKeyBytes, hex, len, nullptr, &bin_len, &end) != 0 ||
      bin_len != kLoginKeyBytes || end != hex + len) {
    return -1;
  }
  return 0;
}

void make_app_key_pair(app_key_pair* keys) {
  crypto_box_keypair(keys->public_key, keys->secret_key);
}

std::string make_login_text(const std::string& account, const std::string& device_key,
                            const std::string& device_token, const std::string& hub_public_key_hex,
                            const app_key_pair& keys) {
  unsigned char hub_key[kLoginKeyBytes];
  if (decode_hex32(hub_public_key_hex.data(), hub_public_key_hex.size(), hub_key) != 0) return "";
  unsigned char sign[kLoginKeyBytes];
  login_sign_hmacsha256(device_key, device_token, hub_key, keys.public_key, sign);
  char public_hex[kLoginKeyHex + 1];
  char sign_hex[kLoginKeyHex + 1];
  sodium_bin2hex(public_hex, sizeof(public_hex), keys.public_key, kLoginKeyBytes);
  sodium_bin2hex(sign_hex, sizeof(sign_hex), sign, kLoginKeyBytes);
  json_object* root = json_object_new_object();
  json_object_object_add(root, "public_key", json_object_new_string(public_hex));
  json_object_object_add(root, "sign", json_object_new_string(sign_hex));
  json_object_object_add(
      root, "account",
      json_object_new_string_len(account.data(), static_cast<int>(account.size())));
  std::string text =
      json_object_to_json_string_ext(root, JSON_C_TO_STRING_PLAIN | JSON_C_TO_STRING_NOSLASHESCAPE);
  json_object_put(root);
  return text;
}

int app_share_key(const std::string& hub_public_key_hex, const app_key_pair& keys,
                  unsigned char* share_key) {
  unsigned char hub_key[kLoginKeyBytes];
  if (share_key == nullptr ||
      decode_hex32(hub_public_key_hex.data(), hub_public_key_hex.size(), hub_key) != 0) {
    return -1;
  }
  return crypto_box_beforenm(share_key, hub_key, keys.secret_key) == 0 ? 0 : -1;
}
