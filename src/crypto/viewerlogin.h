// The viewer's side of the login: the sign that the cloud gives the app for its public key, the
// app's key pair, the login text it sends as its "password", and the key it shares with the hub.
// The hub checks the same sign (hubauth.h); both ends derive the same 32-byte stream key.
#pragma once

#include <cstddef>
#include <string>

constexpr size_t kLoginKeyBytes = 32;
constexpr size_t kLoginKeyHex = 2 * kLoginKeyBytes;

struct app_key_pair {
  unsigned char public_key[kLoginKeyBytes];
  unsigned char secret_key[kLoginKeyBytes];
};

// HMAC-SHA256 over the 32 raw bytes of the app's public key, keyed by the device key text, then
// the device token text, then the 32 raw bytes of the hub's public key. 0, or -1 for null keys.
int login_sign_hmacsha256(const std::string& device_key, const std::string& device_token,
                          const unsigned char* hub_public_key, const unsigned char* app_public_key,
                          unsigned char* sign);

// Exactly 64 hexadecimal digits (either case) of len bytes to 32 bytes. 0 or -1.
int decode_hex32(const char* hex, size_t len, unsigned char* out);

// A fresh X25519 key pair for the app.
void make_app_key_pair(app_key_pair* keys);

// {"public_key":"<64 hex>","sign":"<64 hex>","account":"<account>"} for the hub whose public
// key is given in hexadecimal, or "" when that is not 64 hexadecimal digits.
std::string make_login_text(const std::string& account, const std::string& device_key,
                            const std::string& device_token, const std::string& hub_public_key_hex,
                            const app_key_pair& keys);

// The app's stream key with that hub (crypto_box_beforenm). 0, or -1 for a malformed or weak
// hub key.
int app_share_key(const std::string& hub_public_key_hex, const app_key_pair& keys,
                  unsigned char* share_key);
