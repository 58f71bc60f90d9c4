// Checks on values that arrive from the cloud before they reach the configuration store, a shell
// command or a file path.
#pragma once

#include <string>

namespace cloudinput {

// Longest camera name accepted, in bytes.
constexpr size_t kMaxNameLen = 64;
// Longest P2P uid accepted.
constexpr size_t kMaxUidLen = 32;

// A camera MAC: exactly twelve hexadecimal digits. On success *canonical is the upper-case form
// used as the registry and configuration key.
bool ParseMac(const std::string& text, std::string* canonical);

// A P2P uid: one to 32 ASCII letters and digits, nothing else.
bool IsValidUid(const std::string& text);

// A camera name: one to kMaxNameLen bytes, no quote, backslash, apostrophe or control
// character (newlines included). Other UTF-8 text is allowed.
bool IsValidName(const std::string& text);

}  // namespace cloudinput
