#include "platform/board.h"

#include <arpa/inet.h>
#include <dirent.h>
#include <fcntl.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <map>
#include <mutex>

#include "base/log.h"
#include "platform/boardfs.h"
#include "platform/internal.h"

extern char** environ;

namespace fs = std::filesystem;

namespace platform {
namespace {

constexpr char kClockOffsetFile[] = "/etc/clock_offset";
// The clock can be set to any time from the epoch to the end of 2099.
constexpr int64_t kLatestEpoch = 4102444799;

std::once_flag g_root_once;
std::string g_root;           // absolute, normalised, without a trailing slash
std::string g_resolved_root;  // the same with symbolic links resolved

std::string AbsoluteRoot(const char* value) {
  if (value == nullptr || value[0] == '\0') return "";
  std::error_code ec;
  fs::path path = fs::absolute(fs::path(value), ec);
  if (ec) return "";
  std::string text = path.lexically_normal().string();
  while (text.size() > 1 && text.back() == '/') text.pop_back();
  return text;
}

void SetRootPath(const std::string& root) {
  g_root = root;
  g_resolved_root = root.empty() ? "" : boardfs::ResolvedPath(root);
}

void LoadRoot() {
  SetRootPath(AbsoluteRoot(std::getenv("TARVO_ROOT")));
}

const std::string& ResolvedRoot() {
  Root();
  return g_resolved_root;
}

// --- environment settings ---------------------------------------------------------------------

int PortFromEnv(const char* name) {
  const char* value = std::getenv(name);
  if (value == nullptr || value[0] == '\0') return -1;
  char* end = nullptr;
  errno = 0;
  long port = std::strtol(value, &end, 10);
  if (errno != 0 || *end != '\0' || port < 1 || port > 65535) {
    TLOG(LOG_WARNING) << "Ignoring " << name << "=" << value << ": not a port number";
    return -1;
  }
  return static_cast<int>(port);
}

uint16_t PortSetting(uint16_t dflt, int cached) {
  return cached > 0 ? static_cast<uint16_t>(cached) : dflt;
}

// --- shims ------------------------------------------------------------------------------------

bool IsShimName(const std::string& name) {
  for (const auto& shim : ShimNames()) {
    if (shim == name) return true;
  }
  return false;
}

// A shim is usable when <root>/bin/<name> is an executable file that stays inside the board
// once its links are followed (a link to the machine's own tool is no shim).
bool ShimUsable(const std::string& name, std::string* why) {
  const std::string path = Root() + "/bin/" + name;
  struct stat st;
  if (stat(path.c_str(), &st) != 0) {
    *why = "missing";
    return false;
  }
  if (!S_ISREG(st.st_mode) || access(path.c_str(), X_OK) != 0) {
    *why = "not executable";
    return false;
  }
  if (!boardfs::PathInside(boardfs::ResolvedPath(path), ResolvedRoot())) {
    *why = "leads out of the board root";
    return false;
  }
  return true;
}

bool IsWordChar(char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') ||
         std::strchr("._/+=,:@%~-", c) != nullptr;
}

// The board root goes unquoted into the hub's shell commands ("umount R/mnt/x && rm -rf
// R/mnt/x/*"): only characters that the shell takes as part of one plain word are allowed.
bool RootIsOneShellWord(const std::string& root) {
  for (char c : root) {
    if (!IsWordChar(c)) return false;
  }
  return !root.empty();
}

// A command may run when every word naming one of the system tools names the board's usable
// shim, and no word names such a tool by a path outside the board.
bool CommandAllowed(const std::string& command) {
  if (Root().empty()) {
    TLOG(LOG_ERR) << "No board root (TARVO_ROOT): refusing to run \"" << command << "\"";
    return false;
  }
  if (!RootIsOneShellWord(Root())) {
    TLOG(LOG_ERR) << "The board root holds blanks or shell characters: refusing to run \""
                  << command << "\"";
    return false;
  }
  if (ResolvedRoot() == "/") {
    TLOG(LOG_ERR) << "The board root is the machine's root folder: refusing to run \"" << command
                  << "\"";
    return false;
  }
  size_t i = 0;
  while (i < command.size()) {
    if (!IsWordChar(command[i])) {
      i++;
      continue;
    }
    size_t start = i;
    while (i < command.size() && IsWordChar(command[i])) i++;
    const std::string word = command.substr(start, i - start);
    if (word.compare(0, 5, "PATH=") == 0) {
      TLOG(LOG_ERR) << "Refusing to run \"" << command << "\": it changes PATH";
      return false;
    }
    const size_t slash = word.rfind('/');
    const std::string base = slash == std::string::npos ? word : word.substr(slash + 1);
    if (!IsShimName(base)) continue;
    if (slash != std::string::npos) {
      const std::string normal = fs::path(word).lexically_normal().string();
      if (word[0] != '/' || !boardfs::PathInside(normal, Root())) {
        TLOG(LOG_ERR) << "Refusing to run \"" << command << "\": " << word
                      << " is not the board's shim";
        return false;
      }
      if (normal != Root() + "/bin/" + base) continue;  // a board file that shares the name
    }
    std::string why;
    if (!ShimUsable(base, &why)) {
      TLOG(LOG_ERR) << "Refusing to run \"" << command << "\": shim " << Root() << "/bin/" << base
                    << " " << why;
      return false;
    }
  }
  return true;
}

// --- child processes --------------------------------------------------------------------------

std::vector<std::string> ChildEnvironment() {
  std::vector<std::string> env;
  for (char** e = environ; e != nullptr && *e != nullptr; ++e) {
    if (std::strncmp(*e, "PATH=", 5) == 0 || std::strncmp(*e, "TARVO_ROOT=", 11) == 0) continue;
    env.emplace_back(*e);
  }
  env.push_back("PATH=" + Root() + "/bin:/usr/local/bin:/usr/bin:/bin");
  env.push_back("TARVO_ROOT=" + Root());
  return env;
}

// Starts /bin/sh -c command. When child_fd is 0 or 1, parent_fd becomes that descriptor of the
// child. Returns the pid or -1.
pid_t Spawn(const std::string& command, int child_fd, int parent_fd) {
  std::vector<std::string> env = ChildEnvironment();
  std::vector<char*> envp;
  for (auto& entry : env) envp.push_back(entry.data());
  envp.push_back(nullptr);
  std::string sh = "/bin/sh", dash_c = "-c", cmd = command;
  char* argv[] = {sh.data(), dash_c.data(), cmd.data(), nullptr};

  posix_spawn_file_actions_t actions;
  posix_spawnattr_t attr;
  posix_spawn_file_actions_init(&actions);
  posix_spawnattr_init(&attr);
  if (child_fd >= 0) posix_spawn_file_actions_adddup2(&actions, parent_fd, child_fd);
  // Only standard input, output and error reach the command: sockets and files of the daemon
  // that lack close-on-exec stay behind.
  posix_spawn_file_actions_addclosefrom_np(&actions, 3);
  // The child starts with default signal actions and nothing blocked, whatever this process
  // ignores (SIGCHLD, SIGPIPE) or blocks.
  sigset_t all, none;
  sigfillset(&all);
  sigemptyset(&none);
  posix_spawnattr_setsigdefault(&attr, &all);
  posix_spawnattr_setsigmask(&attr, &none);
  posix_spawnattr_setflags(&attr, POSIX_SPAWN_SETSIGDEF | POSIX_SPAWN_SETSIGMASK);
  pid_t pid = -1;
  int rc = posix_spawn(&pid, "/bin/sh", &actions, &attr, argv, envp.data());
  posix_spawn_file_actions_destroy(&actions);
  posix_spawnattr_destroy(&attr);
  if (rc != 0) {
    TLOG(LOG_ERR) << "Start of \"" << command << "\" failed: " << std::strerror(rc);
    return -1;
  }
  return pid;
}

int WaitChild(pid_t pid) {
  int status = 0;
  while (waitpid(pid, &status, 0) < 0) {
    if (errno == EINTR) continue;
    // With SIGCHLD ignored the child is reaped by the system and its status is lost.
    return -1;
  }
  return status;
}

std::mutex g_streams_mutex;
std::map<FILE*, pid_t>& Streams() {
  static auto* streams = new std::map<FILE*, pid_t>();
  return *streams;
}

// --- clock ------------------------------------------------------------------------------------

std::mutex g_clock_mutex;
std::atomic<bool> g_clock_loaded{false};
std::atomic<int64_t> g_clock_offset{0};

int64_t MachineMicros() {
  timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return static_cast<int64_t>(ts.tv_sec) * 1000000 + ts.tv_nsec / 1000;
}

int64_t ClockOffset() {
  if (!g_clock_loaded.load(std::memory_order_acquire)) {
    std::lock_guard<std::mutex> lock(g_clock_mutex);
    if (!g_clock_loaded.load(std::memory_order_relaxed)) {
      int64_t offset = 0;
      std::string text;
      if (!Root().empty() && boardfs::ReadFile(BoardPath(kClockOffsetFile), &text, 64)) {
        char* end = nullptr;
        errno = 0;
        long long value = std::strtoll(text.c_str(), &end, 10);
        while (end != nullptr && (*end == '\n' || *end == ' ')) end++;
        if (errno == 0 && end != nullptr && *end == '\0' && end != text.c_str()) {
          offset = value;
        } else {
          TLOG(LOG_WARNING) << "Ignoring malformed clock offset in " << BoardPath(kClockOffsetFile);
        }
      }
      g_clock_offset.store(offset, std::memory_order_relaxed);
      g_clock_loaded.store(true, std::memory_order_release);
    }
  }
  return g_clock_offset.load(std::memory_order_relaxed);
}

// --- processes --------------------------------------------------------------------------------

bool ReadLink(const std::string& path, std::string* out) {
  char buf[4096];
  ssize_t n = readlink(path.c_str(), buf, sizeof(buf) - 1);
  if (n <= 0) return false;
  out->assign(buf, static_cast<size_t>(n));
  return true;
}

std::string BaseName(const std::string& path) {
  const size_t slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

// True when the process runs a program of the board with this name: its executable, or the
// script named by argv[0] or argv[1], lies under the board root and carries the name.
bool BoardProcessNamed(const std::string& pid_dir, const std::string& name) {
  std::vector<std::string> candidates;
  std::string exe;
  if (ReadLink(pid_dir + "/exe", &exe)) candidates.push_back(exe);
  std::string cmdline;
  if (boardfs::ReadFile(pid_dir + "/cmdline", &cmdline, 1 << 16)) {
    size_t start = 0;
    for (int arg = 0; arg < 2 && start < cmdline.size(); arg++) {
      size_t end = cmdline.find('\0', start);
      if (end == std::string::npos) end = cmdline.size();
      std::string word = cmdline.substr(start, end - start);
      if (!word.empty() && word[0] == '/') candidates.push_back(word);
      start = end + 1;
    }
  }
  for (const auto& candidate : candidates) {
    if (BaseName(candidate) != name) continue;
    const std::string normal = fs::path(candidate).lexically_normal().string();
    if (boardfs::PathInside(normal, Root()) || boardfs::PathInside(normal, ResolvedRoot())) {
      return true;
    }
  }
  return false;
}

}  // namespace

const std::string& Root() {
  std::call_once(g_root_once, LoadRoot);
  return g_root;
}

void SetRootForTest(const std::string& path) {
  Root();
  internal::ResetHardware();
  internal::ResetNvramView();
  SetRootPath(AbsoluteRoot(path.c_str()));
  std::lock_guard<std::mutex> lock(g_clock_mutex);
  g_clock_loaded.store(false, std::memory_order_release);
  g_clock_offset.store(0);
}

std::string BoardPath(const std::string& absolute) {
  if (absolute.empty() || absolute[0] != '/') return absolute;
  return Root() + absolute;
}

std::string HubIp() {
  static const std::string ip = [] {
    const char* value = std::getenv("TARVO_HUB_IP");
    if (value == nullptr || value[0] == '\0') return std::string("10.17.1.1");
    in_addr addr;
    if (inet_pton(AF_INET, value, &addr) != 1) {
      TLOG(LOG_WARNING) << "Ignoring TARVO_HUB_IP=" << value << ": not an IPv4 address";
      return std::string("10.17.1.1");
    }
    return std::string(value);
  }();
  return ip;
}

uint16_t CameraPort() {
  static const int port = PortFromEnv("TARVO_CAMERA_PORT");
  return PortSetting(8000, port);
}

uint16_t PairingPort() {
  static const int port = PortFromEnv("TARVO_PAIRING_PORT");
  return PortSetting(6788, port);
}

uint16_t WakePort() {
  static const int port = PortFromEnv("TARVO_WAKE_PORT");
  return PortSetting(8000, port);
}

std::string MqttHost() {
  static const std::string host = [] {
    const char* value = std::getenv("TARVO_MQTT_HOST");
    return std::string(value != nullptr && value[0] != '\0' ? value : "localhost");
  }();
  return host;
}

uint16_t MqttPort() {
  static const int port = PortFromEnv("TARVO_MQTT_PORT");
  return PortSetting(1883, port);
}

uint16_t P2pPort(uint16_t dflt) {
  static const int port = PortFromEnv("TARVO_P2P_PORT");
  return PortSetting(dflt, port);
}

const std::vector<std::string>& ShimNames() {
  static const std::vector<std::string> names{"nvram",     "mount",      "umount",
                                              "mkfs.vfat", "insmod",     "rmmod",
                                              "ifconfig",  "sysupgrade", "reboot"};
  return names;
}

int CheckBoard() {
  const std::string& root = Root();
  if (root.empty()) {
    TLOG(LOG_ERR) << "TARVO_ROOT is not set: the host platform runs only on a board root "
                     "(make one with tarvo-mkboard)";
    return -1;
  }
  if (ResolvedRoot() == "/") {
    TLOG(LOG_ERR) << "The board root must not be the machine's own root folder";
    return -1;
  }
  if (!RootIsOneShellWord(root)) {
    TLOG(LOG_ERR) << "Board root " << root
                  << " holds blanks or shell characters; shell commands carry it unquoted";
    return -1;
  }
  struct stat st;
  if (stat(root.c_str(), &st) != 0 || !S_ISDIR(st.st_mode)) {
    TLOG(LOG_ERR) << "Board root " << root << " is not a folder";
    return -1;
  }
  int missing = 0;
  for (const auto& name : ShimNames()) {
    std::string why;
    if (!ShimUsable(name, &why)) {
      TLOG(LOG_ERR) << "Board shim " << root << "/bin/" << name << " " << why;
      missing++;
    }
  }
  return missing == 0 ? 0 : -1;
}

int System(const std::string& command) {
  if (!CommandAllowed(command)) return -1;
  pid_t pid = Spawn(command, -1, -1);
  if (pid < 0) return -1;
  return WaitChild(pid);
}

FILE* Popen(const std::string& command, const char* mode) {
  if (mode == nullptr || (mode[0] != 'r' && mode[0] != 'w')) {
    TLOG(LOG_ERR) << "Popen: mode must be \"r\" or \"w\"";
    return nullptr;
  }
  if (!CommandAllowed(command)) return nullptr;
  const bool reading = mode[0] == 'r';
  int fds[2];
  if (pipe2(fds, O_CLOEXEC) != 0) {
    TLOG(LOG_ERR) << "Popen: pipe failed: " << std::strerror(errno);
    return nullptr;
  }
  const int ours = reading ? fds[0] : fds[1];
  const int theirs = reading ? fds[1] : fds[0];
  pid_t pid = Spawn(command, reading ? STDOUT_FILENO : STDIN_FILENO, theirs);
  close(theirs);
  if (pid < 0) {
    close(ours);
    return nullptr;
  }
  FILE* stream = fdopen(ours, reading ? "r" : "w");
  if (stream == nullptr) {
    close(ours);
    WaitChild(pid);
    return nullptr;
  }
  std::lock_guard<std::mutex> lock(g_streams_mutex);
  Streams()[stream] = pid;
  return stream;
}

int Pclose(FILE* stream) {
  pid_t pid = -1;
  {
    std::lock_guard<std::mutex> lock(g_streams_mutex);
    auto it = Streams().find(stream);
    if (it == Streams().end()) return -1;
    pid = it->second;
    Streams().erase(it);
  }
  std::fclose(stream);
  return WaitChild(pid);
}

int64_t NowSeconds() {
  const int64_t micros = MachineMicros();
  int64_t seconds = micros / 1000000;
  return seconds + ClockOffset();
}

int64_t NowMicros() {
  return MachineMicros() + ClockOffset() * 1000000;
}

int SetClock(int64_t epoch_seconds) {
  if (epoch_seconds < 0 || epoch_seconds > kLatestEpoch) {
    TLOG(LOG_ERR) << "Refusing to set the clock to " << epoch_seconds;
    return -1;
  }
  if (Root().empty()) {
    TLOG(LOG_ERR) << "No board root: the machine's clock is never changed";
    return -1;
  }
  ClockOffset();
  std::lock_guard<std::mutex> lock(g_clock_mutex);
  const int64_t offset = epoch_seconds - MachineMicros() / 1000000;
  if (boardfs::MakeDirs(BoardPath("/etc")) < 0 ||
      boardfs::WriteFileAtomic(BoardPath(kClockOffsetFile), std::to_string(offset) + "\n") < 0) {
    return -1;
  }
  g_clock_offset.store(offset, std::memory_order_relaxed);
  TLOG(LOG_INFO) << "Board clock set to " << epoch_seconds << " (offset " << offset << " s)";
  return 0;
}

pid_t FindProcess(const std::string& name) {
  if (name.empty() || name.find('/') != std::string::npos || Root().empty()) return -1;
  DIR* proc = opendir("/proc");
  if (proc == nullptr) return -1;
  pid_t found = -1;
  while (dirent* entry = readdir(proc)) {
    const char* p = entry->d_name;
    if (*p == '\0' || std::strspn(p, "0123456789") != std::strlen(p)) continue;
    if (BoardProcessNamed(std::string("/proc/") + p, name)) {
      found = static_cast<pid_t>(std::atol(p));
      break;
    }
  }
  closedir(proc);
  return found;
}

}  // namespace platform
