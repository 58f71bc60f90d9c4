#include "camera/cloudrequest.h"

#include <utility>

#include "base/log.h"

namespace cloudrequest {

PendingRequests::PendingRequests(std::chrono::milliseconds timeout,
                                 std::function<Clock::time_point()> now)
    : timeout_(timeout), now_(std::move(now)) {}

size_t PendingRequests::ExpireLocked(Clock::time_point now) {
  size_t dropped = 0;
  for (auto it = entries_.begin(); it != entries_.end();) {
    if (it->second.deadline <= now) {
      TLOG(LOG_DEBUG) << "Cloud request " << it->first << " got no camera answer, dropped";
      it = entries_.erase(it);
      dropped++;
    } else {
      ++it;
    }
  }
  return dropped;
}

bool PendingRequests::Add(uint32_t id, Handler handler) {
  std::lock_guard<std::mutex> lock(mutex_);
  const Clock::time_point now = now_();
  ExpireLocked(now);
  if (entries_.count(id) != 0) {
    TLOG(LOG_DEBUG) << "Cloud request " << id << " is already waiting for a camera";
    return false;
  }
  if (entries_.size() >= kMaxPending) {
    TLOG(LOG_DEBUG) << "Too many cloud requests waiting for cameras, refuse " << id;
    return false;
  }
  entries_.emplace(id, Entry{now + timeout_, std::move(handler)});
  return true;
}

bool PendingRequests::Complete(uint32_t id, const Answer& answer) {
  Handler handler;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ExpireLocked(now_());
    auto it = entries_.find(id);
    if (it == entries_.end()) {
      TLOG(LOG_DEBUG) << "No cloud request waits for ACK ID " << id;
      return false;
    }
    handler = std::move(it->second.handler);
    entries_.erase(it);
  }
  if (handler) handler(answer);
  return true;
}

bool PendingRequests::Cancel(uint32_t id) {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.erase(id) != 0;
}

size_t PendingRequests::Expire() {
  std::lock_guard<std::mutex> lock(mutex_);
  return ExpireLocked(now_());
}

size_t PendingRequests::Size() {
  std::lock_guard<std::mutex> lock(mutex_);
  return entries_.size();
}

PendingRequests& CloudRequests() {
  static PendingRequests* registry = new PendingRequests(std::chrono::seconds(30));
  return *registry;
}

}  // namespace cloudrequest
