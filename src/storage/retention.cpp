#include "storage/retention.h"

#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <memory>
#include <new>
#include <string>

#include "base/log.h"
#include "core/utils.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "storage/recordindex.h"
#include "storage/sdcard.h"

namespace {

// More sections than a hub keeps, so that a hand-edited store is still walked whole.
constexpr int kMaxCameras = 32;
constexpr useconds_t kPassPauseMicros = 10 * 1000;

// The local hour of t, "YYYYMMDDHH", or "" when it cannot be formed.
std::string HourKey(long t) {
  const time_t when = static_cast<time_t>(t);
  struct tm local;
  char key[16] = {0};
  if (localtime_r(&when, &local) == nullptr ||
      std::strftime(key, sizeof(key), "%Y%m%d%H", &local) == 0) {
    return "";
  }
  return key;
}

// Removes the events of the camera's oldest hour; returns the count removed, or -1 when the
// index buffer could not be allocated.
int DeleteOldestHour(char* mac) {
  char path[kRecordPathMax] = {0};
  if (GetTimestampPath(path, mac) != 0) {
    TLOG(LOG_DEBUG) << mac << " time stamp path error";
    return 0;
  }
  long size = recordindex::FileSize(path);
  if (size < 0) size = 0;
  std::unique_ptr<unsigned char[]> buffer(
      new (std::nothrow) unsigned char[static_cast<size_t>(size) + 1]);
  if (!buffer) {
    TLOG(LOG_DEBUG) << "new malloc space error";
    return -1;
  }
  int buffer_size = size > 0 ? static_cast<int>(size) : 1;
  if (FreadTimestamp(buffer.get(), &buffer_size, mac) != 0) {
    TLOG(LOG_DEBUG) << "read mac: " << mac << " timestamp file error";
    return 0;
  }
  TLOG(LOG_DEBUG) << "read .timestamp ok buffer_size: " << buffer_size << ", mac: " << mac;

  int removed = 0;
  std::string first_hour;
  long first_start = 0;
  bool have_first = false;
  for (const recordindex::Record& record :
       recordindex::ParseRecords(buffer.get(), static_cast<size_t>(buffer_size))) {
    const long t = static_cast<long>(record.start);
    TLOG(LOG_DEBUG) << "read item timestamp: " << t;
    const long now = static_cast<long>(platform::NowSeconds());
    if (now - t < kRetentionMinAgeSeconds) {
      TLOG(LOG_DEBUG) << "maybe recording file, don't rm: " << t;
      if (have_first && HourKey(t) != first_hour) CheckAndDelEmptyDir(&first_start, mac);
      break;
    }
    if (!have_first) {
      TLOG(LOG_DEBUG) << "start_timestamp don't set";
      have_first = true;
      first_start = t;
      first_hour = HourKey(t);
    } else {
      TLOG(LOG_DEBUG) << "start_timestamp had set";
      if (HourKey(t) != first_hour) {
        CheckAndDelEmptyDir(&first_start, mac);
        break;
      }
    }
    if (RomoveTimestampAndFile(t, mac) == 0) removed++;
  }
  return removed;
}

}  // namespace

int IsSdcardFull() {
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "sdcard is not exist";
    return 0;
  }
  unsigned long long total = 0, free = 0;
  GetSdCardCapability(&total, &free);
  TLOG(LOG_DEBUG) << "Sd card can used size: " << free;
  if (free < kSdCardFullMiB) {
    TLOG(LOG_DEBUG) << "sdcard is full!";
    return 1;
  }
  return 0;
}

int LoopDeleteEvent(int* removed) {
  if (removed != nullptr) *removed = 0;
  char cameras[kMaxCameras][kUciSectionNameLen] = {};
  const int n = zcfg_uci_get_section_list("p2p", cameras, kMaxCameras);
  for (int i = 0; i < n; i++) {
    const int count = DeleteOldestHour(cameras[i]);
    if (count < 0) return -1;
    if (removed != nullptr) *removed += count;
  }
  return 0;
}

int LoopDeleteEvent() {
  return LoopDeleteEvent(nullptr);
}

void CheckAndDelEmptyDir(long* timestamp, char* mac) {
  if (timestamp == nullptr || mac == nullptr) return;
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "sdcard not exist";
    return;
  }
  char dir[kRecordPathMax] = {0};
  if (GetSdCardRecordPath(dir, sizeof(dir)) != 0) {
    TLOG(LOG_DEBUG) << "get sdcard path fail";
    return;
  }
  const std::string hour = HourKey(*timestamp);
  if (std::strlen(mac) != 12 || hour.empty()) return;
  for (int i = 0; i < 12; i++) {
    if (utils::HexToInt8(mac[i]) < 0) return;
  }
  const std::string folder = std::string(dir) + "/" + mac + "/" + hour;
  if (utils::IsDirectoryEmpty(folder.c_str()) != 1) return;
  FILE* out = platform::Popen("rmdir " + folder + " 2>&1", "r");
  if (out == nullptr) {
    TLOG(LOG_DEBUG) << "popen to rm dir fail";
    std::perror("popen to rm dir fail");
    return;
  }
  char line[64];
  while (std::fgets(line, sizeof(line), out) != nullptr) {
  }
  platform::Pclose(out);
  TLOG(LOG_DEBUG) << "rm " << folder << " ok";
}

void CheckSdcardCapability() {
  while (IsSdcardFull() == 1) {
    int removed = 0;
    if (LoopDeleteEvent(&removed) < 0) return;
    if (removed == 0) {
      TLOG(LOG_DEBUG) << "sdcard is full and no event can be removed now";
      return;
    }
    usleep(kPassPauseMicros);
  }
}
