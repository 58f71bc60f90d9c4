#include "platform/nvram.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mutex>

#include "base/log.h"
#include "platform/board.h"
#include "platform/boardfs.h"
#include "platform/internal.h"

namespace platform {
namespace {

using Entries = std::map<std::string, std::string>;  // "section.key" -> value

constexpr char kStoreDir[] = "/etc/nvram";
constexpr char kStoreFile[] = "/etc/nvram/store";
constexpr char kLockFile[] = "/etc/nvram/.lock";
constexpr char kPendingFile[] = "/tmp/.nvram.pending";
constexpr char kCacheFile[] = "/tmp/.nvramcache";
constexpr size_t kFileMax = 1 << 20;

std::mutex g_store_mutex;  // this process's store updates; the lock file covers other processes
std::mutex g_view_mutex;
Entries& View() {
  static auto* view = new Entries();
  return *view;
}

// Serialises store updates between threads and processes (the shim and the daemon).
class StoreLock {
 public:
  StoreLock() : guard_(g_store_mutex) {
    boardfs::MakeDirs(BoardPath(kStoreDir));
    fd_ = open(BoardPath(kLockFile).c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ >= 0) {
      while (flock(fd_, LOCK_EX) != 0 && errno == EINTR) {
      }
    }
  }
  ~StoreLock() {
    if (fd_ >= 0) close(fd_);
  }
  StoreLock(const StoreLock&) = delete;
  StoreLock& operator=(const StoreLock&) = delete;

 private:
  std::lock_guard<std::mutex> guard_;
  int fd_ = -1;
};

bool ValidEntryKey(const std::string& entry_key) {
  const size_t dot = entry_key.find('.');
  return dot != std::string::npos && NvramValidName(entry_key.substr(0, dot)) &&
         NvramValidName(entry_key.substr(dot + 1));
}

// Parses lines "section.key=value". A missing file is an empty store; a malformed one fails.
bool ReadEntries(const std::string& path, Entries* entries) {
  entries->clear();
  if (access(path.c_str(), F_OK) != 0) return true;
  std::string text;
  if (!boardfs::ReadFile(path, &text, kFileMax)) {
    TLOG(LOG_ERR) << "nvram: cannot read " << path;
    return false;
  }
  size_t start = 0, line_no = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    const std::string line = text.substr(start, end - start);
    start = end + 1;
    line_no++;
    if (line.empty()) continue;
    const size_t eq = line.find('=');
    if (eq == std::string::npos || !ValidEntryKey(line.substr(0, eq)) ||
        !NvramValidValue(line.substr(eq + 1))) {
      TLOG(LOG_ERR) << "nvram: malformed line " << line_no << " in " << path;
      return false;
    }
    (*entries)[line.substr(0, eq)] = line.substr(eq + 1);
  }
  return true;
}

std::string Serialize(const Entries& entries) {
  std::string text;
  for (const auto& [key, value] : entries) text += key + "=" + value + "\n";
  return text;
}

// The committed store with the pending values over it.
bool ReadCurrent(Entries* entries) {
  Entries pending;
  if (!ReadEntries(BoardPath(kStoreFile), entries) ||
      !ReadEntries(BoardPath(kPendingFile), &pending)) {
    return false;
  }
  for (auto& [key, value] : pending) (*entries)[key] = value;
  return true;
}

bool HaveRoot() {
  if (!Root().empty()) return true;
  TLOG(LOG_ERR) << "nvram: no board root";
  return false;
}

}  // namespace

bool NvramValidName(const std::string& name) {
  if (name.empty() || name.size() > kNvramNameMax) return false;
  for (char c : name) {
    const bool ok =
        (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
    if (!ok) return false;
  }
  return true;
}

bool NvramValidValue(const std::string& value) {
  if (value.size() > kNvramValueMax) return false;
  for (char c : value) {
    if (c == '\n' || c == '\r' || c == '\0') return false;
  }
  return true;
}

int NvramLookup(const std::string& section, const std::string& key, std::string* value) {
  if (!HaveRoot() || !NvramValidName(section) || !NvramValidName(key)) return -1;
  Entries entries;
  {
    StoreLock lock;
    if (!ReadCurrent(&entries)) return -1;
  }
  auto it = entries.find(section + "." + key);
  if (it == entries.end()) return -1;
  *value = it->second;
  return 0;
}

bool NvramEntries(std::vector<std::pair<std::string, std::string>>* out) {
  out->clear();
  if (!HaveRoot()) return false;
  Entries entries;
  {
    StoreLock lock;
    if (!ReadCurrent(&entries)) return false;
  }
  out->assign(entries.begin(), entries.end());
  return true;
}

namespace internal {
void ResetNvramView() {
  std::lock_guard<std::mutex> lock(g_view_mutex);
  View().clear();
}
}  // namespace internal

}  // namespace platform

using namespace platform;

extern "C" int nvram_filecache(void) {
  if (!HaveRoot()) return -1;
  Entries entries;
  StoreLock lock;
  if (!ReadCurrent(&entries)) return -1;
  if (boardfs::MakeDirs(BoardPath("/tmp")) < 0) return -1;
  return boardfs::WriteFileAtomic(BoardPath(kCacheFile), Serialize(entries));
}

extern "C" int nvram_parse(void) {
  if (!HaveRoot()) return -1;
  const std::string path = BoardPath(kCacheFile);
  if (access(path.c_str(), R_OK) != 0) {
    TLOG(LOG_ERR) << "nvram: no cache " << path;
    return -1;
  }
  Entries entries;
  if (!ReadEntries(path, &entries)) return -1;
  std::lock_guard<std::mutex> lock(g_view_mutex);
  View().swap(entries);
  return 0;
}

extern "C" int nvram_get(const char* section, const char* key, char* out, size_t outlen) {
  if (out == nullptr || outlen == 0) return -1;
  out[0] = '\0';
  if (section == nullptr || key == nullptr || !NvramValidName(section) || !NvramValidName(key)) {
    TLOG(LOG_ERR) << "nvram_get: invalid section or key";
    return -1;
  }
  std::lock_guard<std::mutex> lock(g_view_mutex);
  auto it = View().find(std::string(section) + "." + key);
  if (it == View().end()) return -1;
  const size_t n = std::min(it->second.size(), outlen - 1);
  std::memcpy(out, it->second.data(), n);
  out[n] = '\0';
  return 0;
}

extern "C" int nvram_set(const char* section, const char* key, const char* value) {
  if (section == nullptr || key == nullptr || value == nullptr || !NvramValidName(section) ||
      !NvramValidName(key)) {
    TLOG(LOG_ERR) << "nvram_set: invalid section or key";
    return -1;
  }
  if (!NvramValidValue(value)) {
    TLOG(LOG_ERR) << "nvram_set: refusing value of " << section << "." << key
                  << " (line break or longer than " << kNvramValueMax << " bytes)";
    return -1;
  }
  if (!HaveRoot()) return -1;
  StoreLock lock;
  Entries pending;
  if (!ReadEntries(BoardPath(kPendingFile), &pending)) return -1;
  pending[std::string(section) + "." + key] = value;
  if (boardfs::MakeDirs(BoardPath("/tmp")) < 0) return -1;
  return boardfs::WriteFileAtomic(BoardPath(kPendingFile), Serialize(pending), 0600);
}

extern "C" int nvram_commit(void) {
  if (!HaveRoot()) return -1;
  StoreLock lock;
  Entries entries;
  if (!ReadCurrent(&entries)) return -1;
  if (boardfs::WriteFileAtomic(BoardPath(kStoreFile), Serialize(entries), 0600) < 0) return -1;
  unlink(BoardPath(kPendingFile).c_str());
  return 0;
}
