#include "cloud/msgring.h"

namespace msgring {

bool MsgRing::CheckAndRecord(int id, int64_t now, int* slot) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (int i = 0; i < kEntries; i++) {
    int64_t age = now - entries_[i].time;
    if (entries_[i].id == id && age >= 0 && age < window_) {
      if (slot != nullptr) *slot = i;
      return true;
    }
  }
  Entry& entry = entries_[counter_ % kEntries];
  entry.time = now;
  entry.id = id;
  counter_++;
  return false;
}

void MsgRing::SetWindow(int64_t seconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  window_ = seconds;
}

void MsgRing::Clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (Entry& entry : entries_) entry = Entry();
  counter_ = 0;
}

}  // namespace msgring
