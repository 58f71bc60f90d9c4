#include "platform/boardcard.h"

#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>

#include "platform/board.h"
#include "platform/boardfs.h"

namespace fs = std::filesystem;

namespace platform {
namespace boardcard {
namespace {

bool Exists(const std::string& path) {
  struct stat st;
  return lstat(path.c_str(), &st) == 0;
}

uint64_t Blocks(uint64_t bytes) {
  return (bytes + kBlockSize - 1) / kBlockSize;
}

bool Move(const std::string& from, const std::string& to, std::string* why) {
  if (rename(from.c_str(), to.c_str()) == 0) return true;
  *why = "cannot move " + from + " to " + to + ": " + std::strerror(errno);
  return false;
}

bool MakeDir(const std::string& dir, std::string* why) {
  if (mkdir(dir.c_str(), 0755) == 0) return true;
  *why = "cannot create " + dir + ": " + std::strerror(errno);
  return false;
}

}  // namespace

bool ReadRegisterFile(const std::string& path, uint32_t* value) {
  std::string text;
  if (!boardfs::ReadFile(path, &text, 64)) return false;
  char* end = nullptr;
  errno = 0;
  const unsigned long v = std::strtoul(text.c_str(), &end, 0);
  while (end != nullptr && (*end == '\n' || *end == ' ')) end++;
  if (errno != 0 || end == text.c_str() || *end != '\0' || v > 0xffffffffUL) return false;
  *value = static_cast<uint32_t>(v);
  return true;
}

bool InSlot(const std::string& root) {
  uint32_t value = 0;
  return ReadRegisterFile(root + kDetectRegister, &value) && (value & kDetectBit) == 0;
}

bool DriverLoaded(const std::string& root) {
  std::string text;
  if (!boardfs::ReadFile(root + "/proc/modules", &text)) return false;
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    if (line.compare(0, sizeof(kDriver), std::string(kDriver) + " ") == 0) return true;
  }
  return false;
}

bool Locked(const std::string& root) {
  return Exists(root + kLockFile);
}

uint64_t SizeMiB(const std::string& root) {
  std::string text;
  if (!boardfs::ReadFile(root + kSizeFile, &text, 64)) return kDefaultSizeMiB;
  char* end = nullptr;
  errno = 0;
  const unsigned long long v = std::strtoull(text.c_str(), &end, 10);
  while (end != nullptr && (*end == '\n' || *end == ' ')) end++;
  if (errno != 0 || end == text.c_str() || *end != '\0' || v == 0 || v > kMaxSizeMiB) {
    return kDefaultSizeMiB;
  }
  return v;
}

std::string MountDir(const std::string& root) {
  std::string text;
  if (!boardfs::ReadFile(root + "/proc/mounts", &text)) return "";
  std::istringstream in(text);
  std::string line;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string device, dir;
    if (fields >> device >> dir && device == kDevice) return dir;
  }
  return "";
}

uint64_t UsedBytes(const std::string& dir) {
  std::error_code ec;
  uint64_t blocks = 0;
  for (fs::recursive_directory_iterator it(dir, fs::directory_options::skip_permission_denied, ec),
       end;
       !ec && it != end; it.increment(ec)) {
    struct stat st;
    if (lstat(it->path().c_str(), &st) != 0) continue;
    blocks += S_ISREG(st.st_mode) ? Blocks(static_cast<uint64_t>(st.st_size)) : 1;
  }
  return blocks * kBlockSize;
}

int Attach(const std::string& root, const std::string& dir, std::string* why) {
  const std::string data = root + kDataDir, under = root + kUnderDir;
  if (Exists(under)) {
    *why = under + " exists: the card is already on a mount point";
    return -1;
  }
  if (boardfs::MakeDirs(root + kCardDir) != 0) {
    *why = "cannot create " + root + kCardDir;
    return -1;
  }
  if (!Move(dir, under, why)) return -1;
  const bool blank = !Exists(data);
  if (blank ? !MakeDir(dir, why) : !Move(data, dir, why)) {
    std::string ignored;
    Move(under, dir, &ignored);
    return -1;
  }
  return 0;
}

int Detach(const std::string& root, const std::string& dir, std::string* why) {
  const std::string data = root + kDataDir, under = root + kUnderDir;
  if (Exists(data)) {
    *why = data + " exists: the card is not on the mount point";
    return -1;
  }
  if (boardfs::MakeDirs(root + kCardDir) != 0) {
    *why = "cannot create " + root + kCardDir;
    return -1;
  }
  if (!Move(dir, data, why)) return -1;
  const bool bare = !Exists(under);
  if (bare ? !MakeDir(dir, why) : !Move(under, dir, why)) {
    std::string ignored;
    Move(data, dir, &ignored);
    return -1;
  }
  return 0;
}

int Erase(const std::string& root, std::string* why) {
  std::error_code ec;
  fs::remove_all(root + kDataDir, ec);
  if (ec) {
    *why = "cannot empty the card: " + ec.message();
    return -1;
  }
  return 0;
}

}  // namespace boardcard

namespace {
constexpr uint64_t kMiB = 1024 * 1024;
constexpr long kMsdosMagic = 0x4d44;
}  // namespace

int Statfs(const std::string& path, struct statfs* out) {
  if (out == nullptr) return -1;
  const std::string& root = Root();
  const std::string dir = root.empty() ? "" : boardcard::MountDir(root);
  if (dir.empty() || boardfs::ResolvedPath(path) != boardfs::ResolvedPath(BoardPath(dir))) {
    return ::statfs(path.c_str(), out);
  }
  const uint64_t blocks = boardcard::SizeMiB(root) * kMiB / boardcard::kBlockSize;
  const uint64_t used = boardcard::UsedBytes(BoardPath(dir)) / boardcard::kBlockSize;
  std::memset(out, 0, sizeof(*out));
  out->f_type = kMsdosMagic;
  out->f_bsize = static_cast<long>(boardcard::kBlockSize);
  out->f_frsize = static_cast<long>(boardcard::kBlockSize);
  out->f_blocks = blocks;
  out->f_bfree = used < blocks ? blocks - used : 0;
  out->f_bavail = out->f_bfree;
  out->f_namelen = 255;
  return 0;
}

}  // namespace platform
