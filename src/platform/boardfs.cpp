#include "platform/boardfs.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <vector>

#include "base/log.h"

namespace fs = std::filesystem;

namespace platform {
namespace boardfs {
namespace {

std::atomic<BeforeRenameHook> g_before_rename{nullptr};

bool WriteAll(int fd, const char* data, size_t len) {
  while (len > 0) {
    ssize_t n = write(fd, data, len);
    if (n < 0) {
      if (errno == EINTR) continue;
      return false;
    }
    data += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

void SyncFolder(const std::string& dir) {
  int fd = open(dir.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
  if (fd < 0) return;
  fsync(fd);
  close(fd);
}

}  // namespace

bool ReadFile(const std::string& path, std::string* out, size_t max) {
  out->clear();
  int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  char buf[4096];
  while (true) {
    ssize_t n = read(fd, buf, sizeof(buf));
    if (n < 0) {
      if (errno == EINTR) continue;
      close(fd);
      return false;
    }
    if (n == 0) break;
    if (out->size() + static_cast<size_t>(n) > max) {
      close(fd);
      out->clear();
      return false;
    }
    out->append(buf, static_cast<size_t>(n));
  }
  close(fd);
  return true;
}

int WriteFileAtomic(const std::string& path, const std::string& content, mode_t mode, bool sync) {
  const size_t slash = path.rfind('/');
  const std::string dir =
      slash == std::string::npos ? "." : (slash == 0 ? "/" : path.substr(0, slash));
  const std::string base = slash == std::string::npos ? path : path.substr(slash + 1);
  // mkostemp replaces the six trailing X with random characters
  std::string tmpl = dir + "/." + base + "." + std::string(6, 'X');
  std::vector<char> name(tmpl.begin(), tmpl.end());
  name.push_back('\0');
  int fd = mkostemp(name.data(), O_CLOEXEC);
  if (fd < 0) {
    TLOG(LOG_ERR) << "Create temporary file for " << path << " failed: " << std::strerror(errno);
    return -1;
  }
  const std::string tmp(name.data());
  bool ok = fchmod(fd, mode) == 0 && WriteAll(fd, content.data(), content.size()) &&
            (!sync || fsync(fd) == 0);
  ok = (close(fd) == 0) && ok;
  if (!ok) {
    TLOG(LOG_ERR) << "Write " << path << " failed: " << std::strerror(errno);
    unlink(tmp.c_str());
    return -1;
  }
  if (BeforeRenameHook hook = g_before_rename.load()) hook(tmp.c_str());
  if (rename(tmp.c_str(), path.c_str()) != 0) {
    TLOG(LOG_ERR) << "Replace " << path << " failed: " << std::strerror(errno);
    unlink(tmp.c_str());
    return -1;
  }
  if (sync) SyncFolder(dir);
  return 0;
}

int AppendLine(const std::string& path, const std::string& line) {
  int fd = open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0644);
  if (fd < 0) {
    TLOG(LOG_ERR) << "Open " << path << " for append failed: " << std::strerror(errno);
    return -1;
  }
  const std::string text = line + "\n";
  const bool ok = WriteAll(fd, text.data(), text.size());
  close(fd);
  return ok ? 0 : -1;
}

int MakeDirs(const std::string& dir) {
  std::error_code ec;
  fs::create_directories(dir, ec);
  if (ec || !fs::is_directory(dir, ec)) {
    TLOG(LOG_ERR) << "Create folder " << dir << " failed";
    return -1;
  }
  return 0;
}

bool PathInside(const std::string& path, const std::string& folder) {
  if (folder.empty() || path.size() < folder.size()) return false;
  if (path.compare(0, folder.size(), folder) != 0) return false;
  if (path.size() == folder.size()) return true;
  return folder.back() == '/' || path[folder.size()] == '/';
}

std::string ResolvedPath(const std::string& path) {
  std::error_code ec;
  fs::path resolved = fs::weakly_canonical(fs::path(path), ec);
  if (ec) return fs::path(path).lexically_normal().string();
  std::string text = resolved.string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

void SetBeforeRenameHookForTest(BeforeRenameHook hook) {
  g_before_rename.store(hook);
}

}  // namespace boardfs
}  // namespace platform
