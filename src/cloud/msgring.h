// The de-duplication ring of cloud messages: the last 30 message ids with the second each was
// received. An id seen again within the window counts as a repeat. Thread-safe.
#pragma once

#include <cstdint>
#include <mutex>

namespace msgring {

constexpr int kEntries = 30;
constexpr int64_t kWindowSeconds = 5;

class MsgRing {
 public:
  explicit MsgRing(int64_t window_seconds = kWindowSeconds) : window_(window_seconds) {}

  // True when id was recorded less than the window before now (index of the entry in *slot);
  // otherwise records {now, id} in the next entry and returns false. A recorded time later than
  // now (the clock went back) does not count as recent.
  bool CheckAndRecord(int id, int64_t now, int* slot = nullptr);

  void SetWindow(int64_t seconds);
  void Clear();

 private:
  struct Entry {
    int64_t time = 0;
    int id = 0;
  };
  std::mutex mutex_;
  int64_t window_;
  Entry entries_[kEntries];
  uint32_t counter_ = 0;
};

}  // namespace msgring
