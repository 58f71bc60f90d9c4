#include "core/utils.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <openssl/evp.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <memory>
#include <mutex>
#include <string>

#include "base/log.h"
#include "platform/board.h"
#include "platform/uci.h"

namespace utils {
namespace {

constexpr char kDeviceConf[] = "/etc/zelo/device.conf";
constexpr char kDeviceToken[] = "/etc/zelo/device.token";
constexpr char kArpTable[] = "/proc/net/arp";

// Longest value read from device.conf or the token file, as the agent writes them.
constexpr size_t kConfigValueMax = 64;
// Longest key accepted by GetDeviceConfig.
constexpr size_t kConfigKeyMax = 31;

constexpr char kUpperDigits[] = "0123456789ABCDEF";

bool IsConfigKey(const char* key) {
  if (key == nullptr || key[0] == '\0') return false;
  size_t len = 0;
  for (const char* p = key; *p != '\0'; ++p, ++len) {
    const char c = *p;
    const bool ok =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    if (!ok || len >= kConfigKeyMax) return false;
  }
  return true;
}

// Reads the first line of a command's output (at most max bytes, without its newline) into
// out (at most outlen - 1 bytes). Returns the length, or -1 when the command cannot run.
int ReadFirstLine(const std::string& command, size_t max, char* out, size_t outlen) {
  FILE* stream = platform::Popen(command, "r");
  if (stream == nullptr) return -1;
  char line[kConfigValueMax + 2] = {0};
  const size_t want = max + 1 < sizeof(line) ? max + 1 : sizeof(line);
  const bool got = std::fgets(line, static_cast<int>(want), stream) != nullptr;
  // Drain the rest so the writer never sees a broken pipe.
  char sink[256];
  while (std::fread(sink, 1, sizeof(sink), stream) > 0) {
  }
  platform::Pclose(stream);
  if (!got) line[0] = '\0';
  line[std::strcspn(line, "\r\n")] = '\0';
  size_t len = std::strlen(line);
  if (len > max) len = max;
  if (len >= outlen) len = outlen - 1;
  std::memcpy(out, line, len);
  out[len] = '\0';
  return static_cast<int>(len);
}

bool IsDottedIpv4(const char* ip) {
  if (ip == nullptr) return false;
  int parts = 0;
  const char* p = ip;
  while (true) {
    int digits = 0;
    int value = 0;
    while (*p >= '0' && *p <= '9') {
      value = value * 10 + (*p - '0');
      if (++digits > 3) return false;
      ++p;
    }
    if (digits == 0 || value > 255) return false;
    ++parts;
    if (*p == '\0') break;
    if (*p != '.' || parts == 4) return false;
    ++p;
  }
  return parts == 4;
}

// "aa:bb:cc:dd:ee:ff" to twelve upper-case hex digits; false for anything else or all zeros
// (an incomplete ARP entry).
bool ArpMacToText(const std::string& field, char out[13]) {
  if (field.size() != 17) return false;
  bool nonzero = false;
  for (int i = 0; i < 6; i++) {
    const int hi = HexToInt8(field[i * 3]);
    const int lo = HexToInt8(field[i * 3 + 1]);
    if (hi < 0 || lo < 0) return false;
    if (i < 5 && field[i * 3 + 2] != ':') return false;
    if (hi != 0 || lo != 0) nonzero = true;
    out[i * 2] = kUpperDigits[hi];
    out[i * 2 + 1] = kUpperDigits[lo];
  }
  out[12] = '\0';
  return nonzero;
}

}  // namespace

int GetIntConfig(const char* key) {
  if (key == nullptr) return 0;
  char value[64] = {0};
  if (zcfg_uci_get(key, value, sizeof(value)) < 0) value[0] = '\0';
  return std::atoi(value);
}

int SetIntConfig(const char* key, int value) {
  if (key == nullptr) return -1;
  char text[32] = {0};
  std::snprintf(text, sizeof(text), "%d", value);
  return zcfg_uci_set(key, text);
}

int GetDeviceConfig(const char* key, char* out, size_t outlen) {
  if (out == nullptr || outlen == 0) return -1;
  out[0] = '\0';
  // The key goes into a shell command: only a plain word may pass.
  if (!IsConfigKey(key)) {
    TLOG(LOG_DEBUG) << "Invalid device config key";
    return -1;
  }
  const std::string file = platform::BoardPath(kDeviceConf);
  if (access(file.c_str(), R_OK) != 0) {
    TLOG(LOG_DEBUG) << kDeviceConf << " can't read";
    return -1;
  }
  char command[512];
  const int n = std::snprintf(command, sizeof(command), "cat %s | grep '%s=' | cut -c %d-",
                              file.c_str(), key, static_cast<int>(std::strlen(key) + 2));
  if (n < 0 || static_cast<size_t>(n) >= sizeof(command)) {
    TLOG(LOG_DEBUG) << "Device config command too long";
    return -1;
  }
  const int len = ReadFirstLine(command, kConfigValueMax, out, outlen);
  if (len < 0) {
    TLOG(LOG_DEBUG) << "popen process get device config failed";
    return -1;
  }
  return len > 0 ? 0 : -1;
}

int get_device_token(char* out, size_t outlen) {
  if (out == nullptr || outlen == 0) return -1;
  out[0] = '\0';
  const std::string file = platform::BoardPath(kDeviceToken);
  if (access(file.c_str(), R_OK) != 0) {
    TLOG(LOG_DEBUG) << "Read device token failed";
    return -1;
  }
  const int len = ReadFirstLine("cat " + file, kConfigValueMax, out, outlen);
  if (len <= 0) {
    TLOG(LOG_DEBUG) << "Read device token failed";
    return -1;
  }
  TLOG(LOG_DEBUG) << "device_token: *";
  return 0;
}

int GetBatteryPercent(int millivolts) {
  static constexpr struct {
    int millivolts;
    int percent;
  } kSteps[] = {{4019, 100}, {3963, 95}, {3900, 90}, {3848, 85}, {3788, 80}, {3738, 75}, {3686, 70},
                {3650, 65},  {3621, 60}, {3600, 55}, {3585, 50}, {3570, 45}, {3556, 40}, {3537, 35},
                {3512, 30},  {3462, 25}, {3416, 20}, {3361, 15}, {2967, 10}};
  for (const auto& step : kSteps) {
    if (millivolts >= step.millivolts) return step.percent;
  }
  return 0;
}

int GetWifiStrength(int rssi) {
  if (rssi > -51) return 1;
  if (rssi >= -70) return 2;
  return 3;
}

int CopyFile(const char* from, const char* to) {
  if (from == nullptr || to == nullptr) return -1;
  const int in = open(from, O_RDONLY | O_CLOEXEC);
  if (in < 0) {
    TLOG(LOG_DEBUG) << "Open " << from << " error: " << std::strerror(errno);
    return -1;
  }
  struct stat st;
  if (fstat(in, &st) != 0 || !S_ISREG(st.st_mode)) {
    TLOG(LOG_DEBUG) << from << " is not a regular file";
    close(in);
    return -1;
  }
  // The copy is written beside the destination and renamed over it, so a reader never sees a
  // half-written file and an interrupted copy leaves the old one in place.
  std::string tmp = std::string(to) + "." + std::string(6, 'X');  // mkostemp's template
  const int out = mkostemp(tmp.data(), O_CLOEXEC);
  if (out < 0) {
    TLOG(LOG_DEBUG) << "Create " << tmp << " error: " << std::strerror(errno);
    close(in);
    return -1;
  }
  bool ok = fchmod(out, st.st_mode & 0777) == 0;
  char buffer[16384];
  while (ok) {
    const ssize_t got = read(in, buffer, sizeof(buffer));
    if (got < 0 && errno == EINTR) continue;
    if (got < 0) {
      ok = false;
      break;
    }
    if (got == 0) break;
    ssize_t done = 0;
    while (done < got) {
      const ssize_t put = write(out, buffer + done, static_cast<size_t>(got - done));
      if (put < 0 && errno == EINTR) continue;
      if (put <= 0) {
        ok = false;
        break;
      }
      done += put;
    }
  }
  if (ok && fsync(out) != 0) ok = false;
  if (close(out) != 0) ok = false;
  close(in);
  if (ok && rename(tmp.c_str(), to) != 0) ok = false;
  if (!ok) {
    TLOG(LOG_DEBUG) << "Copy " << from << " to " << to << " error: " << std::strerror(errno);
    unlink(tmp.c_str());
    return -1;
  }
  return 0;
}

int CheckDirExist(const char* dir) {
  if (dir == nullptr || dir[0] == '\0') return -1;
  struct stat st;
  if (stat(dir, &st) == 0) return S_ISDIR(st.st_mode) ? 0 : -1;
  std::string path(dir);
  // Create each missing level from the top.
  for (size_t pos = 1; pos <= path.size(); pos++) {
    if (pos != path.size() && path[pos] != '/') continue;
    const std::string part = path.substr(0, pos);
    if (mkdir(part.c_str(), 0755) != 0 && errno != EEXIST) {
      TLOG(LOG_DEBUG) << "Create dir " << part << " error: " << std::strerror(errno);
      return -1;
    }
  }
  return (stat(dir, &st) == 0 && S_ISDIR(st.st_mode)) ? 0 : -1;
}

int IsDirectoryEmpty(const char* dir) {
  if (dir == nullptr) return -1;
  DIR* d = opendir(dir);
  if (d == nullptr) return -1;
  int empty = 1;
  while (struct dirent* entry = readdir(d)) {
    if (std::strcmp(entry->d_name, ".") != 0 && std::strcmp(entry->d_name, "..") != 0) {
      empty = 0;
      break;
    }
  }
  closedir(d);
  return empty;
}

int HexToInt8(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  return -1;
}

int ConverToUint8(const char* mac_text, uint8_t out[6]) {
  if (mac_text == nullptr || out == nullptr) return -1;
  uint8_t bytes[6];
  for (int i = 0; i < 6; i++) {
    // A terminator inside the twelve digits fails HexToInt8 before anything past it is read.
    const int hi = HexToInt8(mac_text[i * 2]);
    if (hi < 0) return -1;
    const int lo = HexToInt8(mac_text[i * 2 + 1]);
    if (lo < 0) return -1;
    bytes[i] = static_cast<uint8_t>(hi * 16 + lo);
  }
  if (mac_text[12] != '\0') return -1;
  std::memcpy(out, bytes, sizeof(bytes));
  return 0;
}

char* ConvertToUppercase(char* text) {
  if (text == nullptr) return nullptr;
  for (char* p = text; *p != '\0'; ++p) {
    if (*p >= 'a' && *p <= 'z') *p = static_cast<char>(*p - 'a' + 'A');
  }
  return text;
}

std::string ConvertToUppercase(std::string text) {
  for (char& c : text) {
    if (c >= 'a' && c <= 'z') c = static_cast<char>(c - 'a' + 'A');
  }
  return text;
}

uint32_t GetTimestamp() {
  return static_cast<uint32_t>(platform::NowSeconds());
}

int64_t GetTimestampUS() {
  return platform::NowMicros();
}

uint32_t GetTimestampUS1() {
  const int64_t us = platform::NowMicros() % 1000000;
  return static_cast<uint32_t>((us < 0 ? us + 1000000 : us) / 1000);
}

double GetTimeOffset() {
  // tzset() fills the C library's `timezone`: seconds west of UTC for the zone's standard time
  // (TZ, else /etc/localtime). It is read once, before any thread could race on it.
  static std::once_flag once;
  static double offset = 0;
  std::call_once(once, [] {
    tzset();
    offset = static_cast<double>(timezone);
  });
  return offset;
}

int generate_random_id() {
  // Report ids come from the C library generator, reseeded from the monotonic clock on each
  // call; the lock keeps seeding and drawing of concurrent callers together.
  static std::mutex mutex;
  std::lock_guard<std::mutex> lock(mutex);
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const unsigned long long seed =
      static_cast<unsigned long long>(ts.tv_sec) * 1000000ull + ts.tv_nsec / 1000;
  srand(static_cast<unsigned>(seed));
  int value;
  do {
    value = rand() / 214;
  } while (value >= 10000000);
  return value + 1;
}

std::string str2hex(const std::string& bytes) {
  static constexpr char kDigits[] = "0123456789abcdef";
  std::string hex;
  hex.reserve(bytes.size() * 2);
  for (unsigned char c : bytes) {
    hex.push_back(kDigits[c >> 4]);
    hex.push_back(kDigits[c & 0x0f]);
  }
  return hex;
}

int ComputeFileMd5(const char* path, char out[33]) {
  if (path == nullptr || out == nullptr) return -1;
  out[0] = '\0';
  FILE* file = std::fopen(path, "rb");
  if (file == nullptr) {
    TLOG(LOG_DEBUG) << "Open " << path << " for md5 error: " << std::strerror(errno);
    return -1;
  }
  std::unique_ptr<EVP_MD_CTX, decltype(&EVP_MD_CTX_free)> ctx(EVP_MD_CTX_new(), EVP_MD_CTX_free);
  bool ok = ctx != nullptr && EVP_DigestInit_ex(ctx.get(), EVP_md5(), nullptr) == 1;
  char buffer[16384];
  while (ok) {
    const size_t got = std::fread(buffer, 1, sizeof(buffer), file);
    if (got > 0 && EVP_DigestUpdate(ctx.get(), buffer, got) != 1) ok = false;
    if (got < sizeof(buffer)) {
      if (std::ferror(file)) ok = false;
      break;
    }
  }
  std::fclose(file);
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int digest_len = 0;
  if (ok && EVP_DigestFinal_ex(ctx.get(), digest, &digest_len) != 1) ok = false;
  if (!ok || digest_len != 16) {
    TLOG(LOG_DEBUG) << "Compute md5 of " << path << " failed";
    return -1;
  }
  const std::string hex = str2hex(std::string(reinterpret_cast<char*>(digest), digest_len));
  std::memcpy(out, hex.c_str(), 33);
  return 0;
}

pid_t GetProcessPid(const char* name) {
  if (name == nullptr || name[0] == '\0') return -1;
  return platform::FindProcess(name);
}

int GetConnectMacFromArp(const char* ip, char* mac_out, size_t outlen) {
  if (mac_out == nullptr || outlen < 13) return -1;
  mac_out[0] = '\0';
  if (!IsDottedIpv4(ip)) {
    TLOG(LOG_DEBUG) << "Invalid ip address for arp lookup";
    return -1;
  }
  FILE* stream = platform::Popen("cat " + platform::BoardPath(kArpTable), "r");
  if (stream == nullptr) {
    TLOG(LOG_DEBUG) << "popen process get arp failed";
    return -1;
  }
  // Columns: IP address, HW type, Flags, HW address, Mask, Device. The first line is the
  // heading; an entry whose address is all zeros is still unresolved.
  bool found = false;
  char line[512];
  while (std::fgets(line, sizeof(line), stream) != nullptr) {
    const size_t len = std::strlen(line);
    if (len > 0 && line[len - 1] != '\n' && !std::feof(stream)) {
      // An over-long line is no ARP entry: skip the rest of it.
      int c;
      while ((c = std::fgetc(stream)) != EOF && c != '\n') {
      }
      continue;
    }
    if (found) continue;
    char addr[64], hwtype[64], flags[64], hwaddr[64];
    if (std::sscanf(line, "%63s %63s %63s %63s", addr, hwtype, flags, hwaddr) != 4) continue;
    if (std::strcmp(addr, ip) != 0) continue;
    char text[13];
    if (ArpMacToText(hwaddr, text)) {
      std::memcpy(mac_out, text, sizeof(text));
      found = true;
    }
  }
  platform::Pclose(stream);
  if (!found) {
    TLOG(LOG_DEBUG) << "Can't find mac of " << ip << " in arp table";
    return -1;
  }
  return 0;
}

int GetCameraEventByMac(const char* mac, char* out, size_t outlen) {
  if (out == nullptr || outlen == 0) return -1;
  out[0] = '\0';
  uint8_t bytes[6];
  if (ConverToUint8(mac, bytes) < 0) {
    TLOG(LOG_DEBUG) << "Invalid camera mac for event lookup";
    return -1;
  }
  const std::string key = std::string("p2p.") + mac + ".event";
  if (zcfg_uci_get(key.c_str(), out, outlen) < 0) {
    out[0] = '\0';
    return -1;
  }
  return out[0] != '\0' ? 0 : -1;
}

}  // namespace utils
