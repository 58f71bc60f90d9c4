// Key agreement and viewer credentials: the hub's X25519 key pair (new at every start), the
// check of a viewer's signed login text and the per-slot stream keys derived from it, and the
// P2P password. Their report to the cloud and the credentials thread are cloud/credreport.h.
//
// The secret key and the device token never reach a log.
#pragma once

#include <cstddef>
#include <cstdint>
#include <mutex>
#include <string>

constexpr int kClientKeySlots = 4;
constexpr size_t kShareKeyBytes = 32;
// Longest viewer login text accepted; longer ones are refused unread.
constexpr size_t kMaxLoginTextLen = 1024;
// Characters of the login text's "account" kept.
constexpr size_t kLoginAccountKept = 15;

// Starts libsodium, makes the key pair and the stream-encryption work buffers. 0, or -1 when
// libsodium cannot start ("libsodium init error!!"). Ends the process (status 0) when the work
// buffers cannot be made.
int libsodium_init();

// Makes a new key pair, replacing the one before; logs "public key is: " with the public key.
void generate_new_key();
// The public key as 64 lower-case hexadecimal digits ("" before the first key pair).
std::string get_dev_pub_key();
// crypto_box_beforenm of the app's 32-byte public key and the hub's secret key into share_key
// (32 bytes). 0, or -1 (logged) for null arguments, no key pair, or a weak app key.
int calculate_share_key(const unsigned char* app_public_key, unsigned char* share_key);
// 1 when sign (32 bytes) is the login sign of the app's public key under this hub's device key,
// device token and public key (viewerlogin.h); 0 otherwise. Compared in constant time.
int check_sign_hmacsha256(const unsigned char* app_public_key, const unsigned char* sign);

// The stream keys of the four session slots, one per viewer login. Written by the login checks
// (each its own slot), read by the frame forwarding for every frame.
class ClientKeyTable {
 public:
  // Stores the key of a slot (0..3). 0, or -1 for a slot out of range.
  int Set(int slot, const unsigned char* key);
  // Copies the key of a slot into out (32 bytes). 0, or -1 when the slot is out of range or no
  // viewer has logged in there yet.
  int Get(int slot, unsigned char* out) const;
  void Clear(int slot);

 private:
  struct Slot {
    mutable std::mutex mutex;
    unsigned char key[kShareKeyBytes] = {};
    bool valid = false;
  };
  Slot slots_[kClientKeySlots];
};
extern ClientKeyTable client_encrypt_info;

// The fields of a viewer's login text {"public_key":"<64 hex>","sign":"<64 hex>","account":".."}.
struct login_text_fields {
  unsigned char public_key[32];
  unsigned char sign[32];
  char account[kLoginAccountKept + 1];  // cut to kLoginAccountKept characters
};
// Parses a login text (at most kMaxLoginTextLen bytes, one JSON object). 0, or -1 with the
// reason logged.
int parse_login_text(const char* text, login_text_fields* out);

// The login check of session slot `slot`: 1 accepts (the slot's stream key is then set), 0
// refuses. account is the P2P library's, text the viewer's login text.
int AuthCallBackFn(int slot, const char* account, const char* text);
// The login checks given to the P2P library for session slots 0 to 3.
int AuthCallBackFn0(char* account, char* text);
int AuthCallBackFn1(char* account, char* text);
int AuthCallBackFn2(char* account, char* text);
int AuthCallBackFn3(char* account, char* text);

// The device token (first line of its file, at most 64 bytes). The caller wipes it after use.
bool ReadDeviceToken(std::string* token);

// Six decimal digits of value modulo 1,000,000, leading zeros kept.
std::string FormatAvPass(uint32_t value);
// A new uniformly drawn six-digit P2P password; it becomes the configuration's P2P password.
std::string MakeNewAvPass();
