// The viewer's login text as the P2P library hands it to a slot's login check. The first byte
// picks the shape: the raw bytes; a login object built from three fuzzed fields; or a login
// object with a correct sign for a fuzzed app key (accepted exactly when that key is not weak)
// or with a fuzzed sign (refused unless it happens to be the right one).
#include <sodium.h>
#include <stdlib.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>

#include "base/log.h"
#include "core/configuration.h"
#include "crypto/hubauth.h"
#include "crypto/viewerlogin.h"
#include "platform/board.h"
#include "platform/boardmaker.h"

namespace {

const std::string kDeviceKey = "FuzzDeviceKey001";
const std::string kToken = "fuzz-device-token";
std::string g_dir;

void RemoveBoard() {
  std::error_code ignored;
  std::filesystem::remove_all(g_dir, ignored);
}

std::string Hex(const unsigned char* bytes, size_t n) {
  char hex[2 * kLoginKeyBytes + 1];
  sodium_bin2hex(hex, sizeof(hex), bytes, n);
  return hex;
}

// A field without the characters that would end its JSON string.
std::string Field(const std::string& text) {
  std::string out;
  for (char c : text) out += (c == '"' || c == '\\') ? ' ' : c;
  return out;
}

// A field that is certainly a valid JSON string: printable ASCII only.
std::string PlainField(const std::string& text) {
  std::string out;
  for (char c : text) out += (c >= 0x20 && c < 0x7f && c != '"' && c != '\\') ? c : '?';
  return out;
}

std::string LoginObject(const std::string& public_key, const std::string& sign,
                        const std::string& account) {
  return "{\"public_key\":\"" + public_key + "\",\"sign\":\"" + sign + "\",\"account\":\"" +
         account + "\"}";
}

void Check(bool condition) {
  if (!condition) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerInitialize(int*, char***) {
  char dir[] = "/tmp/tarvo-login-fuzz-XXXXXX";
  if (mkdtemp(dir) == nullptr) std::abort();
  g_dir = dir;
  std::atexit(RemoveBoard);
  const std::string root = std::string(dir) + "/root";
  std::string error;
  if (platform::MakeBoardRoot(root, platform::BoardOptions(), &error) != 0) std::abort();
  platform::SetRootForTest(root);
  FILE* token = std::fopen((root + "/etc/zelo/device.token").c_str(), "w");
  if (token == nullptr) std::abort();
  std::fputs(kToken.c_str(), token);
  std::fclose(token);
  Configuration::getInstance().SetDeviceKey(kDeviceKey);
  tlog::Open(0);  // only emergencies: the log would dominate the run
  if (libsodium_init() != 0) std::abort();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  const uint8_t mode = data[0] % 4;
  const std::string rest(reinterpret_cast<const char*>(data) + 1, size - 1);
  login_text_fields fields;

  if (mode == 0) {
    // The raw bytes, cut at the first zero as the library would pass them.
    if (parse_login_text(rest.c_str(), &fields) == 0) {
      Check(std::strlen(fields.account) <= kLoginAccountKept);
    }
    AuthCallBackFn(static_cast<int>(size % 6) - 1, "fuzz", rest.c_str());
    return 0;
  }
  if (mode == 1) {
    const size_t a = rest.size() / 3;
    const std::string text =
        LoginObject(Field(rest.substr(0, a)), Field(rest.substr(a, a)), Field(rest.substr(2 * a)));
    if (parse_login_text(text.c_str(), &fields) == 0) {
      Check(std::strlen(fields.account) <= kLoginAccountKept);
    }
    AuthCallBackFn(0, "fuzz", text.c_str());
    return 0;
  }
  if (rest.size() < kLoginKeyBytes) return 0;
  const auto* app_key = reinterpret_cast<const unsigned char*>(rest.data());
  unsigned char hub_key[kLoginKeyBytes];
  const std::string hub_hex = get_dev_pub_key();
  Check(decode_hex32(hub_hex.data(), hub_hex.size(), hub_key) == 0);
  unsigned char sign[kLoginKeyBytes];
  Check(login_sign_hmacsha256(kDeviceKey, kToken, hub_key, app_key, sign) == 0);
  const std::string account = PlainField(rest.substr(kLoginKeyBytes));
  if (mode == 2) {
    // Low-order points give the all-zero result for every clamped scalar, the hub's included.
    unsigned char scalar[crypto_scalarmult_SCALARBYTES] = {9};
    unsigned char product[crypto_scalarmult_BYTES];
    const bool weak = crypto_scalarmult(product, scalar, app_key) != 0;
    const std::string text =
        LoginObject(Hex(app_key, kLoginKeyBytes), Hex(sign, kLoginKeyBytes), account);
    const bool fits = text.size() <= kMaxLoginTextLen;
    const int expected = fits && !weak ? 1 : 0;
    // The check reads the device token through a shell command, which a loaded machine can fail
    // to start now and then; the outcome is otherwise a function of the text, so a refusal that
    // a second try turns round was the machine's, not the login's.
    int got = AuthCallBackFn(1, "fuzz", text.c_str());
    for (int retry = 0; got != expected && expected == 1 && retry < 3; ++retry)
      got = AuthCallBackFn(1, "fuzz", text.c_str());
    Check(got == expected);
    return 0;
  }
  // A sign taken from the input, after the app key.
  if (rest.size() < 2 * kLoginKeyBytes) return 0;
  const auto* fuzzed_sign = app_key + kLoginKeyBytes;
  const std::string text =
      LoginObject(Hex(app_key, kLoginKeyBytes), Hex(fuzzed_sign, kLoginKeyBytes), "fuzz");
  if (std::memcmp(fuzzed_sign, sign, kLoginKeyBytes) != 0) {
    Check(AuthCallBackFn(2, "fuzz", text.c_str()) == 0);
  }
  return 0;
}
