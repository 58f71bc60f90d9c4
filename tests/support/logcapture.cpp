#include "support/logcapture.h"

#include <regex>

#include "base/log.h"
#include "support/testsupport.h"

namespace testsupport {

LogCapture::LogCapture() {
  tlog::SetCaptureSink([this](int, const std::string& text) {
    std::function<void()> action;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(text);
      if (trigger_ && std::regex_search(text, std::regex(trigger_pattern_))) {
        action = std::move(trigger_);
        trigger_ = nullptr;
      }
    }
    if (action) action();
  });
}

LogCapture::~LogCapture() {
  tlog::SetCaptureSink({});
}

size_t LogCapture::Mark() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_.size();
}

bool LogCapture::Has(const std::string& pattern, size_t from) {
  return Count(pattern, from) > 0;
}

int LogCapture::Count(const std::string& pattern, size_t from) {
  const std::regex re(pattern);
  std::lock_guard<std::mutex> lock(mutex_);
  int n = 0;
  for (size_t i = from; i < lines_.size(); i++) n += std::regex_search(lines_[i], re) ? 1 : 0;
  return n;
}

bool LogCapture::Wait(const std::string& pattern, size_t from, std::chrono::milliseconds timeout) {
  return WaitFor([&] { return Has(pattern, from); }, timeout);
}

void LogCapture::OnceOn(const std::string& pattern, std::function<void()> action) {
  std::lock_guard<std::mutex> lock(mutex_);
  trigger_pattern_ = pattern;
  trigger_ = std::move(action);
}

std::vector<std::string> LogCapture::Lines() {
  std::lock_guard<std::mutex> lock(mutex_);
  return lines_;
}

}  // namespace testsupport
