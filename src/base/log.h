// Log records: opened with a priority, the source line, the function and the source unit,
// filled like a stream, and written with one syslog call in the format "%s %s:%zu: %s"
// (unit, function, line, text) when the record goes out of scope.
//
//   TLOG(LOG_DEBUG) << "Hub mac: " << mac;
#pragma once

#include <syslog.h>

#include <functional>
#include <sstream>
#include <string>

namespace tlog {

// Opens the system log ("tarvo-p2p", LOG_CONS | LOG_PID, LOG_KERN) with every priority let
// through.
void OpenSyslog();
// Sets the mask to priorities 0..level. Levels above 31 let everything through.
void SetLevel(int level);
// OpenSyslog, then SetLevel: for programs other than the daemon.
void Open(int level);

// Mask of priorities 0..level, as given to setlogmask: 2^(level+1) - 1, saturating at all bits.
int MaskForLevel(int level);

// True when a record of this priority passes the current mask.
bool Enabled(int priority);

// Receives every record that passes the mask, formatted as the syslog text, for tests.
using Sink = std::function<void(int priority, const std::string& text)>;
void SetCaptureSink(Sink sink);  // an empty function removes it

class Record {
 public:
  Record(int priority, size_t line, const char* function, const char* file);
  ~Record();
  Record(const Record&) = delete;
  Record& operator=(const Record&) = delete;

  template <typename T>
  Record& operator<<(const T& value) {
    if (enabled_) stream_ << value;
    return *this;
  }

 private:
  int priority_;
  size_t line_;
  const char* function_;
  const char* unit_begin_;
  size_t unit_len_;
  bool enabled_;
  std::ostringstream stream_;
};

}  // namespace tlog

#define TLOG(priority) ::tlog::Record((priority), __LINE__, __func__, __FILE__)
// A record that names a function other than the one it is written in: the start-up sequence runs
// in RunHub, but its records name the process's main function as the hub's tools expect.
#define TLOG_AS(priority, function) ::tlog::Record((priority), __LINE__, (function), __FILE__)
