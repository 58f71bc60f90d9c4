#include "storage/recordsweep.h"

#include <dirent.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/board.h"
#include "storage/recordindex.h"
#include "storage/sdcard.h"

namespace {

// Largest index read: far above a card's worth of events (5 bytes each).
constexpr long kMaxIndexBytes = 64L << 20;

bool AllOf(const std::string& s, size_t n, int (*pred)(int)) {
  if (s.size() != n) return false;
  for (unsigned char c : s) {
    if (!pred(c)) return false;
  }
  return true;
}

std::vector<std::string> Entries(const std::string& dir) {
  std::vector<std::string> names;
  DIR* d = opendir(dir.c_str());
  if (d == nullptr) return names;
  while (struct dirent* e = readdir(d)) {
    if (std::strcmp(e->d_name, ".") != 0 && std::strcmp(e->d_name, "..") != 0) {
      names.emplace_back(e->d_name);
    }
  }
  closedir(d);
  return names;
}

bool IsDir(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

// The name the recorder gives the event starting at t in the hour folder, without extension.
std::string EventName(uint32_t t, std::string* hour) {
  const time_t tt = static_cast<time_t>(t);
  struct tm local;
  localtime_r(&tt, &local);
  char h[16];
  char base[48];
  std::strftime(h, sizeof(h), "%Y%m%d%H", &local);
  std::strftime(base, sizeof(base), "%MM%SS_", &local);
  *hour = h;
  return std::string(base) + std::to_string(t);
}

// The start time named by an event file ("mmMssS_T.mp4" / ".jpeg"), or false.
bool ParseEventFile(const std::string& name, uint32_t* t) {
  size_t dot = name.rfind('.');
  if (dot == std::string::npos) return false;
  const std::string ext = name.substr(dot + 1);
  if (ext != "mp4" && ext != "jpeg") return false;
  const std::string stem = name.substr(0, dot);
  if (stem.size() < 8 || stem[2] != 'M' || stem[5] != 'S' || stem[6] != '_') return false;
  const std::string digits = stem.substr(7);
  if (digits.empty() || digits.size() > 10 || !AllOf(digits, digits.size(), isdigit)) return false;
  const unsigned long long v = std::strtoull(digits.c_str(), nullptr, 10);
  if (v > 0xFFFFFFFFull) return false;
  *t = static_cast<uint32_t>(v);
  return true;
}

// The start times of the camera's index; false when it exists and cannot be read.
bool IndexTimes(const std::string& mac, std::set<uint32_t>* times) {
  char path[kRecordPathMax] = {0};
  if (GetTimestampPath(path, mac.c_str()) != 0) return false;
  const long size = recordindex::FileSize(path);
  if (size < 0) return true;  // no index: no event
  if (size < static_cast<long>(kTimestampRecordSize)) return true;
  if (size > kMaxIndexBytes) return false;
  std::vector<unsigned char> buffer(static_cast<size_t>(size));
  const int got = recordindex::ReadRecords(path, buffer.data(), buffer.size());
  if (got < 0) return false;
  for (const recordindex::Record& r :
       recordindex::ParseRecords(buffer.data(), static_cast<size_t>(got))) {
    times->insert(r.start);
  }
  return true;
}

}  // namespace

int SweepUnindexedRecords() {
  if (GetSdCardStatus() != SDCARD_STATUS_NORMAL) {
    TLOG(LOG_DEBUG) << "Record sweep: no usable sdcard";
    return -1;
  }
  // The record root is not made here: a card without one has nothing to sweep.
  const std::string root = platform::BoardPath(std::string(kSdCardMountPoint) + kSdCardRecordDir);
  if (!IsDir(root)) {
    TLOG(LOG_DEBUG) << "Record sweep: no record folder";
    return 0;
  }
  int removed = 0;
  for (const std::string& mac : Entries(root)) {
    const std::string camera_dir = root + "/" + mac;
    if (!AllOf(mac, 12, isxdigit) || !IsDir(camera_dir)) continue;
    std::set<uint32_t> times;
    if (!IndexTimes(mac, &times)) {
      TLOG(LOG_DEBUG) << "Record sweep: index of " << mac << " unreadable, folder left alone";
      continue;
    }
    for (const std::string& hour : Entries(camera_dir)) {
      const std::string hour_dir = camera_dir + "/" + hour;
      if (!AllOf(hour, 10, isdigit) || !IsDir(hour_dir)) continue;
      for (const std::string& name : Entries(hour_dir)) {
        const std::string path = hour_dir + "/" + name;
        if (IsDir(path)) continue;
        uint32_t t = 0;
        std::string event_hour;
        if (ParseEventFile(name, &t) && times.count(t) != 0 &&
            name.compare(0, name.rfind('.'), EventName(t, &event_hour)) == 0 &&
            event_hour == hour) {
          continue;
        }
        if (unlink(path.c_str()) == 0) {
          removed++;
          TLOG(LOG_DEBUG) << "Remove unindexed record file " << path;
        } else {
          TLOG(LOG_DEBUG) << "Remove " << path << " error: " << std::strerror(errno);
        }
      }
      if (Entries(hour_dir).empty() && rmdir(hour_dir.c_str()) == 0) {
        TLOG(LOG_DEBUG) << "Remove empty record folder " << hour_dir;
      }
    }
  }
  TLOG(LOG_DEBUG) << "Record sweep done, " << removed << " unindexed files removed";
  return removed;
}
