// Cloud requests waiting on a camera's answer, keyed by the ACK ID that travels with the camera
// command (the cloud request's id). Each request is answered at most once: by the camera's
// answer, or dropped when the time-out passes first. Any thread may add, answer or expire.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <mutex>
#include <string>

#include "camera/camera.h"

namespace cloudrequest {

// What a camera answered to a request.
struct Answer {
  std::string mac;
  uint8_t type = 0;     // frame type of the answer: 0x03 property reply, 0x80 acknowledgement
  uint8_t subtype = 0;  // for an acknowledgement: the acknowledged type and subtype
  uint8_t acked_type = 0;
  uint8_t acked_subtype = 0;
  int result = 0;         // 1 = success
  camera::Status status;  // the camera's values once the answer was taken
};

using Handler = std::function<void(const Answer&)>;
using Clock = std::chrono::steady_clock;

class PendingRequests {
 public:
  static constexpr size_t kMaxPending = 256;

  explicit PendingRequests(std::chrono::milliseconds timeout,
                           std::function<Clock::time_point()> now = Clock::now);

  // Registers a request. False (and nothing changes) when the id is already waiting or too many
  // requests wait.
  bool Add(uint32_t id, Handler handler);
  // Answers the request with this id: its handler runs once, on the calling thread, outside the
  // registry's lock. False when no request waits under the id (never added, answered already,
  // or timed out).
  bool Complete(uint32_t id, const Answer& answer);
  // Forgets a request without answering it. False when none waits under the id.
  bool Cancel(uint32_t id);
  // Drops the requests whose time-out has passed; returns how many.
  size_t Expire();
  size_t Size();

 private:
  struct Entry {
    Clock::time_point deadline;
    Handler handler;
  };
  size_t ExpireLocked(Clock::time_point now);

  const std::chrono::milliseconds timeout_;
  const std::function<Clock::time_point()> now_;
  std::mutex mutex_;
  std::map<uint32_t, Entry> entries_;
};

// The hub's registry, with a time-out of 30 seconds (long enough to wake a sleeping camera).
PendingRequests& CloudRequests();

}  // namespace cloudrequest
