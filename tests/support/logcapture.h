// Every log record of this process while the object lives (through tlog's capture sink), for
// waiting on what leaves no other trace. Patterns are regular expressions searched in each
// record; from is a Mark() taken earlier, so that only later records count.
#pragma once

#include <chrono>
#include <cstddef>
#include <functional>
#include <mutex>
#include <string>
#include <vector>

namespace testsupport {

class LogCapture {
 public:
  LogCapture();   // installs the capture sink
  ~LogCapture();  // removes it
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  size_t Mark();
  bool Has(const std::string& pattern, size_t from = 0);
  int Count(const std::string& pattern, size_t from = 0);
  bool Wait(const std::string& pattern, size_t from = 0,
            std::chrono::milliseconds timeout = std::chrono::seconds(10));
  std::vector<std::string> Lines();
  // Runs action once, on the thread that logs, as soon as a record matching pattern is logged
  // (records from now on): a test can act between two steps of another thread. The action runs
  // under the log's capture lock and must not log.
  void OnceOn(const std::string& pattern, std::function<void()> action);

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
  std::string trigger_pattern_;
  std::function<void()> trigger_;
};

}  // namespace testsupport
