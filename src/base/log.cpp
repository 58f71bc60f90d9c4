#include "base/log.h"

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>

namespace tlog {
namespace {

std::atomic<int> g_mask{0xff};

bool MirrorToStderr() {
  static const bool mirror = [] {
    const char* v = std::getenv("TARVO_LOG_STDERR");
    return v != nullptr && std::strcmp(v, "1") == 0;
  }();
  return mirror;
}

std::mutex& SinkMutex() {
  static std::mutex m;
  return m;
}
Sink& CaptureSink() {
  static Sink sink;
  return sink;
}
std::atomic<bool> g_has_sink{false};

void Emit(int priority, const char* unit, size_t unit_len, const char* function, size_t line,
          const std::string& text) {
  std::string u(unit, unit_len);
  syslog(priority, "%s %s:%zu: %s", u.c_str(), function, line, text.c_str());
  if (MirrorToStderr() || g_has_sink.load(std::memory_order_acquire)) {
    char head[256];
    std::snprintf(head, sizeof(head), "%s %s:%zu: ", u.c_str(), function, line);
    std::string full = head + text;
    if (MirrorToStderr()) {
      full.push_back('\n');
      // one write per record keeps records from different threads whole
      std::fwrite(full.data(), 1, full.size(), stderr);
      full.pop_back();
    }
    if (g_has_sink.load(std::memory_order_acquire)) {
      std::lock_guard<std::mutex> lock(SinkMutex());
      if (CaptureSink()) CaptureSink()(priority, full);
    }
  }
}

}  // namespace

int MaskForLevel(int level) {
  if (level < 0) return 0;
  if (level >= 31) return -1;  // every bit
  return static_cast<int>((1u << (level + 1)) - 1u);
}

void OpenSyslog() {
  // On a board root the console is the development machine's own: records that syslog cannot
  // deliver are dropped there instead of being written to the machine's console.
  // The board root is named by the environment (the log sits below the platform layer).
  const char* root = std::getenv("TARVO_ROOT");
  const bool on_board = root != nullptr && root[0] != '\0';
  const int options = on_board ? LOG_PID : (LOG_CONS | LOG_PID);
  openlog("tarvo-p2p", options, LOG_KERN);
  SetLevel(31);
}

void SetLevel(int level) {
  const int mask = MaskForLevel(level);
  setlogmask(mask);
  g_mask.store(mask);
}

void Open(int level) {
  OpenSyslog();
  SetLevel(level);
}

bool Enabled(int priority) {
  return priority >= 0 && priority < 31 && (g_mask.load(std::memory_order_relaxed) >> priority) & 1;
}

void SetCaptureSink(Sink sink) {
  std::lock_guard<std::mutex> lock(SinkMutex());
  CaptureSink() = std::move(sink);
  g_has_sink.store(static_cast<bool>(CaptureSink()), std::memory_order_release);
}

Record::Record(int priority, size_t line, const char* function, const char* file)
    : priority_(priority), line_(line), function_(function), enabled_(Enabled(priority)) {
  // the unit is the source file's base name without its extension: ".../core/main.cpp" -> "main"
  const char* base = std::strrchr(file, '/');
  base = base ? base + 1 : file;
  const char* dot = std::strchr(base, '.');
  unit_begin_ = base;
  unit_len_ = dot ? static_cast<size_t>(dot - base) : std::strlen(base);
}

Record::~Record() {
  if (enabled_) Emit(priority_, unit_begin_, unit_len_, function_, line_, stream_.str());
}

}  // namespace tlog
