#include "platform/uci.h"

#include <cstdlib>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/board.h"
#include "platform/boardfs.h"
#include "platform/ucifile.h"

namespace {

using platform::uci::Option;
using platform::uci::Package;
using platform::uci::Section;

constexpr char kConfigDir[] = "/etc/config/";
constexpr size_t kKeyMax = 255;
constexpr size_t kPackageFileMax = 1 << 20;

// Writers of every package take this lock for the whole read-change-replace.
std::mutex g_write_mutex;

// "package.section[.option]" where section is a name or "@type[index]".
struct Key {
  std::string package;
  std::string section;  // a name, or empty when addressed by type and index
  std::string type;
  int index = 0;
  std::string option;  // empty for the section itself
};

bool ParseIndexed(const std::string& text, Key* key) {
  // "@type[index]"
  const size_t open = text.find('[');
  if (text.size() < 4 || text[0] != '@' || open == std::string::npos || text.back() != ']') {
    return false;
  }
  key->type = text.substr(1, open - 1);
  const std::string number = text.substr(open + 1, text.size() - open - 2);
  if (!platform::uci::ValidType(key->type) || number.empty() || number.size() > 6) return false;
  size_t i = number[0] == '-' ? 1 : 0;
  if (i == number.size()) return false;
  for (; i < number.size(); i++) {
    if (number[i] < '0' || number[i] > '9') return false;
  }
  key->index = std::atoi(number.c_str());
  return true;
}

bool ParseKey(const char* text, Key* key) {
  if (text == nullptr) return false;
  const std::string s(text);
  if (s.empty() || s.size() > kKeyMax) return false;
  std::vector<std::string> parts;
  size_t start = 0;
  while (true) {
    const size_t dot = s.find('.', start);
    parts.push_back(s.substr(start, dot == std::string::npos ? std::string::npos : dot - start));
    if (dot == std::string::npos) break;
    start = dot + 1;
  }
  if (parts.size() < 2 || parts.size() > 3) return false;
  if (!platform::uci::ValidPackageName(parts[0])) return false;
  key->package = parts[0];
  if (!parts[1].empty() && parts[1][0] == '@') {
    if (!ParseIndexed(parts[1], key)) return false;
  } else if (platform::uci::ValidName(parts[1])) {
    key->section = parts[1];
  } else {
    return false;
  }
  if (parts.size() == 3) {
    if (!platform::uci::ValidName(parts[2])) return false;
    key->option = parts[2];
  }
  return true;
}

std::string PackagePath(const std::string& package) {
  return platform::BoardPath(std::string(kConfigDir) + package);
}

// Reads and parses a package. A missing or malformed package fails with a log line.
bool LoadPackage(const std::string& name, Package* package) {
  const std::string path = PackagePath(name);
  std::string text;
  if (!platform::boardfs::ReadFile(path, &text, kPackageFileMax)) {
    TLOG(LOG_ERR) << "uci: cannot read package " << name << " (" << path << ")";
    return false;
  }
  std::string error;
  if (!platform::uci::Parse(text, package, &error)) {
    TLOG(LOG_ERR) << "uci: malformed package " << name << " (" << path << ") " << error;
    return false;
  }
  return true;
}

bool SavePackage(const std::string& name, const Package& package) {
  return platform::boardfs::WriteFileAtomic(PackagePath(name), platform::uci::Serialize(package)) ==
         0;
}

Section* Resolve(Package* package, const Key& key) {
  if (!key.section.empty()) return package->FindNamed(key.section);
  return package->FindByType(key.type, key.index);
}

int CopyOut(const std::string& value, char* out, size_t outlen) {
  const size_t n = value.size() < outlen - 1 ? value.size() : outlen - 1;
  std::memcpy(out, value.data(), n);
  out[n] = '\0';
  return 0;
}

}  // namespace

extern "C" int zcfg_uci_get(const char* key, char* out, size_t outlen) {
  if (out == nullptr || outlen == 0) return -1;
  out[0] = '\0';
  Key k;
  if (!ParseKey(key, &k)) {
    TLOG(LOG_ERR) << "uci get: invalid key";
    return -1;
  }
  Package package;
  if (!LoadPackage(k.package, &package)) return -1;
  Section* section = Resolve(&package, k);
  if (section == nullptr) return -1;
  if (k.option.empty()) return CopyOut(section->type, out, outlen);
  Option* option = section->FindOption(k.option);
  if (option == nullptr) return -1;
  std::string value;
  for (size_t i = 0; i < option->values.size(); i++) {
    if (i > 0) value.push_back(' ');
    value += option->values[i];
  }
  return CopyOut(value, out, outlen);
}

extern "C" int zcfg_uci_set(const char* key, const char* value) {
  Key k;
  if (!ParseKey(key, &k)) {
    TLOG(LOG_ERR) << "uci set: invalid key";
    return -1;
  }
  if (value == nullptr || !platform::uci::ValidValue(value)) {
    TLOG(LOG_ERR) << "uci set " << key << ": refusing value (line break or longer than "
                  << platform::uci::kValueMax << " bytes)";
    return -1;
  }
  if (k.option.empty() && !platform::uci::ValidType(value)) {
    TLOG(LOG_ERR) << "uci set " << key << ": invalid section type";
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_write_mutex);
  Package package;
  if (!LoadPackage(k.package, &package)) return -1;
  Section* section = Resolve(&package, k);
  if (k.option.empty()) {
    if (section != nullptr) {
      if (section->type == value) return 0;
      section->type = value;
    } else if (!k.section.empty()) {
      package.sections.push_back(Section{value, k.section, {}});
    } else {
      TLOG(LOG_ERR) << "uci set " << key << ": no such section";
      return -1;
    }
  } else {
    if (section == nullptr) {
      TLOG(LOG_ERR) << "uci set " << key << ": no such section";
      return -1;
    }
    Option* option = section->FindOption(k.option);
    if (option == nullptr) {
      section->options.push_back(Option{k.option, false, {value}});
    } else {
      if (!option->is_list && option->values.size() == 1 && option->values[0] == value) return 0;
      option->is_list = false;
      option->values = {value};
    }
  }
  return SavePackage(k.package, package) ? 0 : -1;
}

extern "C" int zcfg_uci_delete(const char* key) {
  Key k;
  if (!ParseKey(key, &k)) {
    TLOG(LOG_ERR) << "uci delete: invalid key";
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_write_mutex);
  Package package;
  if (!LoadPackage(k.package, &package)) return -1;
  Section* section = Resolve(&package, k);
  if (section == nullptr) return -1;
  if (k.option.empty()) {
    package.sections.erase(package.sections.begin() + (section - package.sections.data()));
  } else {
    Option* option = section->FindOption(k.option);
    if (option == nullptr) return -1;
    section->options.erase(section->options.begin() + (option - section->options.data()));
  }
  return SavePackage(k.package, package) ? 0 : -1;
}

extern "C" int zcfg_uci_get_section_list(const char* package_name, char (*list)[kUciSectionNameLen],
                                         int max) {
  if (package_name == nullptr || !platform::uci::ValidPackageName(package_name) ||
      (list == nullptr && max > 0) || max < 0) {
    TLOG(LOG_ERR) << "uci section list: invalid arguments";
    return -1;
  }
  Package package;
  if (!LoadPackage(package_name, &package)) return -1;
  int count = 0;
  for (const auto& section : package.sections) {
    if (section.name.empty()) continue;
    if (section.name.size() >= kUciSectionNameLen) {
      TLOG(LOG_DEBUG) << "uci section list: skipping section " << section.name << " of "
                      << package_name << " (name longer than " << kUciSectionNameLen - 1 << ")";
      continue;
    }
    if (count == max) {
      TLOG(LOG_DEBUG) << "uci section list: " << package_name << " has more than " << max
                      << " sections, the rest are left out";
      break;
    }
    std::memset(list[count], 0, kUciSectionNameLen);
    std::memcpy(list[count], section.name.data(), section.name.size());
    count++;
  }
  return count;
}
