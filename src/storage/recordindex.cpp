#include "storage/recordindex.h"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <limits>
#include <memory>
#include <new>

#include "base/log.h"
#include "core/utils.h"
#include "media/playback.h"
#include "platform/board.h"
#include "storage/sdcard.h"

std::mutex timestamp_mutex;

namespace {

constexpr char kIndexName[] = ".timestamp";
// Event length recorded when the camera's "pir_duration" is 0 or absent.
constexpr int kDefaultEventSeconds = 10;
// Start times are 32-bit in the index and must also fit the platform's long.
constexpr long long kMaxStartTime =
    std::numeric_limits<long>::max() < static_cast<long long>(std::numeric_limits<uint32_t>::max())
        ? std::numeric_limits<long>::max()
        : std::numeric_limits<uint32_t>::max();
// Longest extension accepted by IsFileExist ("mp4", "jpeg").
constexpr size_t kMaxExtension = 8;

bool IsMac(const char* mac) {
  if (mac == nullptr) return false;
  for (int i = 0; i < 12; i++) {
    if (utils::HexToInt8(mac[i]) < 0) return false;
  }
  return mac[12] == '\0';
}

bool IsPlainExtension(const char* ext) {
  const size_t len = std::strlen(ext);
  if (len == 0 || len > kMaxExtension) return false;
  for (size_t i = 0; i < len; i++) {
    const char c = ext[i];
    if (!((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9'))) return false;
  }
  return true;
}

}  // namespace

bool IsEventStartTime(long long t) {
  return t >= 0 && t <= kMaxStartTime;
}

namespace {

// The wildcard removal goes through the shell: only plain path characters and a '*' reach it.
bool IsShellSafePath(const char* path) {
  for (const char* p = path; *p != '\0'; p++) {
    const char c = *p;
    const bool ok = (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
                    std::strchr("/._-+,:@%=~*", c) != nullptr;
    if (!ok) return false;
  }
  return path[0] != '\0';
}

void EncodeRecord(unsigned char out[kTimestampRecordSize], uint32_t start, uint8_t length) {
  out[0] = static_cast<unsigned char>(start);
  out[1] = static_cast<unsigned char>(start >> 8);
  out[2] = static_cast<unsigned char>(start >> 16);
  out[3] = static_cast<unsigned char>(start >> 24);
  out[4] = length;
}

uint32_t DecodeStart(const unsigned char* p) {
  return static_cast<uint32_t>(p[0]) | static_cast<uint32_t>(p[1]) << 8 |
         static_cast<uint32_t>(p[2]) << 16 | static_cast<uint32_t>(p[3]) << 24;
}

size_t WholeRecords(size_t bytes) {
  return bytes - bytes % kTimestampRecordSize;
}

// The event length byte of a camera's records.
uint8_t EventLength(const char* mac) {
  char key[64];
  std::snprintf(key, sizeof(key), "p2p.%s.pir_duration", mac);
  int seconds = utils::GetIntConfig(key);
  if (seconds == 0) seconds = kDefaultEventSeconds;
  return static_cast<uint8_t>(seconds);
}

}  // namespace

namespace recordindex {

std::vector<Record> ParseRecords(const unsigned char* data, size_t size) {
  std::vector<Record> records;
  if (data == nullptr) return records;
  records.resize(size / kTimestampRecordSize);
  for (size_t i = 0; i < records.size(); i++) {
    const unsigned char* p = data + i * kTimestampRecordSize;
    records[i] = Record{DecodeStart(p), p[4]};
  }
  return records;
}

long FileSize(const std::string& path) {
  struct stat st;
  if (stat(path.c_str(), &st) != 0) return -1;
  return static_cast<long>(st.st_size);
}

int AppendRecord(const std::string& path, uint32_t start, uint8_t length) {
  unsigned char record[kTimestampRecordSize];
  EncodeRecord(record, start, length);
  std::lock_guard<std::mutex> lock(timestamp_mutex);
  FILE* file = std::fopen(path.c_str(), "a+");
  if (file == nullptr) {
    TLOG(LOG_DEBUG) << "Fopen " << path << " error: " << std::strerror(errno);
    return -1;
  }
  // A record torn by a power cut or a kill is cut off, so the new one starts on a boundary.
  struct stat st;
  if (fstat(fileno(file), &st) == 0 && st.st_size % kTimestampRecordSize != 0) {
    const off_t whole = static_cast<off_t>(WholeRecords(static_cast<size_t>(st.st_size)));
    TLOG(LOG_DEBUG) << "Trim torn record of " << (st.st_size - whole) << " bytes from " << path;
    if (ftruncate(fileno(file), whole) != 0) {
      TLOG(LOG_DEBUG) << "Trim " << path << " error: " << std::strerror(errno);
      std::fclose(file);
      return -1;
    }
  }
  const bool written = std::fwrite(record, 1, sizeof(record), file) == sizeof(record);
  if (std::fclose(file) != 0 || !written) {
    TLOG(LOG_DEBUG) << "Write " << path << " error: " << std::strerror(errno);
    return -1;
  }
  return 0;
}

int ReadRecords(const std::string& path, unsigned char* buffer, size_t capacity) {
  if (access(path.c_str(), F_OK) != 0) {
    TLOG(LOG_DEBUG) << "timestamp file no exist";
    return -1;
  }
  std::lock_guard<std::mutex> lock(timestamp_mutex);
  const long size = FileSize(path);
  if (size <= 0) {
    TLOG(LOG_DEBUG) << "timestamp file size zero";
    return -1;
  }
  size_t want = WholeRecords(static_cast<size_t>(size));
  if (want > WholeRecords(capacity)) want = WholeRecords(capacity);
  if (want == 0) {
    TLOG(LOG_DEBUG) << "timestamp file size zero";
    return -1;
  }
  FILE* file = std::fopen(path.c_str(), "rb");
  if (file == nullptr) {
    TLOG(LOG_DEBUG) << "Fopen " << path << " error, errno: " << errno;
    return -1;
  }
  const size_t got = WholeRecords(std::fread(buffer, 1, want, file));
  std::fclose(file);
  if (got == 0) {
    TLOG(LOG_DEBUG) << "Read " << path << " error: nothing read";
    return -1;
  }
  return static_cast<int>(got);
}

int RemoveRecord(const std::string& path, uint32_t start) {
  if (access(path.c_str(), F_OK) != 0) {
    TLOG(LOG_DEBUG) << ".timestamp no exist";
    return -1;
  }
  std::lock_guard<std::mutex> lock(timestamp_mutex);
  const long size = FileSize(path);
  if (size <= 0) {
    TLOG(LOG_DEBUG) << " timestamp " << path << " file size zero";
    return -1;
  }
  unsigned char* image = new (std::nothrow) unsigned char[static_cast<size_t>(size)];
  if (image == nullptr) {
    TLOG(LOG_DEBUG) << "RomoveTimestamp new " << size << " Bytes fail!";
    return -1;
  }
  std::unique_ptr<unsigned char[]> owner(image);
  FILE* file = std::fopen(path.c_str(), "r+");
  if (file == nullptr) {
    TLOG(LOG_DEBUG) << "can't open the timestamp file!";
    return -1;
  }
  if (std::fread(image, 1, static_cast<size_t>(size), file) != static_cast<size_t>(size)) {
    TLOG(LOG_DEBUG) << "read size no equeal to ret size";
    std::fclose(file);
    return -1;
  }
  const size_t whole = WholeRecords(static_cast<size_t>(size));
  size_t at = 0;
  while (at < whole && DecodeStart(image + at) != start) at += kTimestampRecordSize;
  if (at >= whole) {
    TLOG(LOG_DEBUG) << "timestamp " << start << " not in timestamp file";
    std::fclose(file);
    return -1;
  }
  TLOG(LOG_DEBUG) << "find delete file: " << start;
  if (whole != static_cast<size_t>(size)) {
    TLOG(LOG_DEBUG) << "Drop torn record of " << (static_cast<size_t>(size) - whole)
                    << " bytes from " << path;
  }
  // The records after the removed one move down by one record; the file is rewritten in place
  // and then cut. The rewrite reaches the card before the cut, so a power cut in between leaves
  // the new records followed by a copy of the last one.
  const size_t kept = whole - kTimestampRecordSize;
  std::memmove(image + at, image + at + kTimestampRecordSize, kept - at);
  bool ok = std::fseek(file, 0, SEEK_SET) == 0 && std::fwrite(image, 1, kept, file) == kept &&
            std::fflush(file) == 0;
  if (ok) fdatasync(fileno(file));
  ok = std::fclose(file) == 0 && ok;
  if (!ok) {
    TLOG(LOG_DEBUG) << "Rewrite " << path << " error: " << std::strerror(errno);
    return -1;
  }
  if (truncate(path.c_str(), static_cast<off_t>(kept)) != 0) {
    TLOG(LOG_DEBUG) << "Truncate " << path << " error: " << std::strerror(errno);
    return -1;
  }
  return 0;
}

}  // namespace recordindex

int GetTimestampPath(char* path, const char* mac) {
  if (path == nullptr) {
    TLOG(LOG_DEBUG) << "timestamp path NULL";
    return -1;
  }
  if (!IsMac(mac)) {
    TLOG(LOG_DEBUG) << "Get timestamp path error: not a camera MAC";
    return -1;
  }
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "Get timestamp path error";
    return -1;
  }
  const std::string mount = platform::BoardPath(kSdCardMountPoint);
  const int n = std::snprintf(path, kRecordPathMax, "%s%s/%s/%s", mount.c_str(), kSdCardRecordDir,
                              mac, kIndexName);
  if (n < 0 || static_cast<size_t>(n) >= kRecordPathMax) {
    TLOG(LOG_DEBUG) << "Get timestamp path error: longer than " << kRecordPathMax - 1;
    path[0] = '\0';
    return -1;
  }
  return 0;
}

int FwriteTimestamp(long* timestamp, int, const char* mac) {
  if (timestamp == nullptr) {
    TLOG(LOG_DEBUG) << "timestamp NULL";
    return -1;
  }
  if (!IsEventStartTime(*timestamp)) {
    TLOG(LOG_DEBUG) << "timestamp out of range: " << *timestamp;
    return -1;
  }
  char path[kRecordPathMax] = {0};
  if (GetTimestampPath(path, mac) != 0) {
    TLOG(LOG_DEBUG) << "get timestamp path error";
    return -1;
  }
  return recordindex::AppendRecord(path, static_cast<uint32_t>(*timestamp), EventLength(mac));
}

int FreadTimestamp(unsigned char* buffer, int* size, char* mac) {
  if (buffer == nullptr || size == nullptr || *size <= 0) {
    TLOG(LOG_DEBUG) << "timestamp buffer error";
    return -1;
  }
  char path[kRecordPathMax] = {0};
  if (GetTimestampPath(path, mac) != 0) {
    TLOG(LOG_DEBUG) << "get timestamp path error";
    return -1;
  }
  const int got = recordindex::ReadRecords(path, buffer, static_cast<size_t>(*size));
  if (got < 0) return -1;
  *size = got;
  return 0;
}

int IsFileExist(char* path, long* timestamp, char* ext, char* mac) {
  if (path == nullptr || timestamp == nullptr || ext == nullptr || mac == nullptr) return -1;
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "sdcard is not exist";
    return -1;
  }
  if (!IsMac(mac) || !IsPlainExtension(ext) || !IsEventStartTime(*timestamp)) {
    TLOG(LOG_DEBUG) << "Refuse file name of mac, time or extension";
    return -1;
  }
  char root[kRecordPathMax] = {0};
  if (GetSdCardRecordPath(root, sizeof(root)) != 0) {
    TLOG(LOG_DEBUG) << "get sdcard path fail";
    return -1;
  }
  const time_t start = static_cast<time_t>(*timestamp);
  struct tm local;
  char hour_and_minute[32] = {0};
  if (localtime_r(&start, &local) == nullptr ||
      std::strftime(hour_and_minute, sizeof(hour_and_minute), "/%Y%m%d%H/%MM%SS_", &local) == 0) {
    TLOG(LOG_DEBUG) << "Local time of " << *timestamp << " failed";
    return -1;
  }
  char file[kRecordPathMax] = {0};
  const int n = std::snprintf(file, sizeof(file), "%s/%s%s%lu.%s", root, mac, hour_and_minute,
                              static_cast<unsigned long>(*timestamp), ext);
  if (n < 0 || static_cast<size_t>(n) >= sizeof(file)) {
    TLOG(LOG_DEBUG) << "File path longer than " << kRecordPathMax - 1;
    return -1;
  }
  if (access(file, F_OK) == 0) {
    std::memcpy(path, file, static_cast<size_t>(n) + 1);
    return 0;
  }
  TLOG(LOG_DEBUG) << "file not on sdcard ,dir: " << file;
  return -2;
}

int RemoveFile(char* path) {
  if (path == nullptr) return -1;
  if (!IsShellSafePath(path)) {
    TLOG(LOG_DEBUG) << "Refuse to rm a path with shell characters";
    return -1;
  }
  FILE* out = platform::Popen(std::string("rm ") + path + " 2>&1", "r");
  if (out == nullptr) {
    TLOG(LOG_DEBUG) << "popen to rm file fail";
    std::perror("popen to rm file fail");
    return -1;
  }
  char line[64] = {0};
  if (std::fgets(line, sizeof(line), out) == nullptr) line[0] = '\0';
  platform::Pclose(out);
  line[std::strcspn(line, "\n")] = '\0';
  if (line[0] != '\0') {
    TLOG(LOG_DEBUG) << "rm " << path << " result is " << line;
  } else {
    TLOG(LOG_DEBUG) << "rm " << path << " succeed";
  }
  return 0;
}

int RomoveTimestamp(long timestamp, const char* mac) {
  char path[kRecordPathMax] = {0};
  if (GetTimestampPath(path, mac) != 0) {
    TLOG(LOG_DEBUG) << "timestamp file path error";
    return -1;
  }
  if (!IsEventStartTime(timestamp)) {
    TLOG(LOG_DEBUG) << "timestamp " << timestamp << " not in timestamp file";
    return -1;
  }
  return recordindex::RemoveRecord(path, static_cast<uint32_t>(timestamp));
}

int RomoveTimestampAndFile(long timestamp, const char* mac) {
  if (!IsMac(mac)) {
    TLOG(LOG_DEBUG) << "delete file can't find: not a camera MAC";
    return -1;
  }
  char path[kRecordPathMax] = {0};
  char ext[] = "mp4";
  char mac_text[13] = {0};
  std::memcpy(mac_text, mac, 12);
  const int found = IsFileExist(path, &timestamp, ext, mac_text);
  if (found == -2) return RomoveTimestamp(timestamp, mac);
  if (found != 0) {
    TLOG(LOG_DEBUG) << "delete file can't find: " << path;
    return -1;
  }
  // "....T.mp4" -> "....T.*": clip and snapshot in one removal.
  const size_t len = std::strlen(path);
  path[len - 3] = '*';
  path[len - 2] = '\0';
  const int ret = RomoveTimestamp(timestamp, mac);
  if (ret == 0) {
    // Nobody may be reading the clip when it goes.
    playback_release_clip(mac_text, timestamp);
    RemoveFile(path);
  }
  return ret;
}
