#include "cloud/cloudinput.h"

#include <cctype>

namespace cloudinput {

bool ParseMac(const std::string& text, std::string* canonical) {
  if (text.size() != 12) return false;
  std::string upper;
  upper.reserve(12);
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
    upper.push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  }
  if (canonical != nullptr) *canonical = upper;
  return true;
}

bool IsValidUid(const std::string& text) {
  if (text.empty() || text.size() > kMaxUidLen) return false;
  for (char c : text) {
    bool ascii_alnum = (c >= '0' && c <= '9') || (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z');
    if (!ascii_alnum) return false;
  }
  return true;
}

bool IsValidName(const std::string& text) {
  if (text.empty() || text.size() > kMaxNameLen) return false;
  for (char c : text) {
    unsigned char u = static_cast<unsigned char>(c);
    if (u < 0x20 || u == 0x7F || c == '"' || c == '\'' || c == '\\') return false;
  }
  return true;
}

}  // namespace cloudinput
