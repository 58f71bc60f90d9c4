#include "camera/framecutter.h"

#include <cstring>

#include "base/log.h"

namespace command {

FrameCutter::FrameCutter(size_t capacity) : buf_(new uint8_t[capacity]()), capacity_(capacity) {}

void FrameCutter::Commit(size_t n) {
  held_ += n <= Space() ? n : Space();
}

void FrameCutter::Clear() {
  std::memset(buf_.get(), 0, held_);
  held_ = 0;
  pos_ = 0;
}

void FrameCutter::Discard(const char* why) {
  TLOG(LOG_DEBUG) << "Discard " << Held() << " received bytes: " << why;
  discards_++;
  Clear();
}

int FrameCutter::Next(const _net_cmd_type** frame) {
  const size_t held = Held();
  if (held < kFrameOverhead) return 0;
  const uint8_t* p = Data();
  if (p[0] != kMagic || p[1] != kMagic || p[24] != p[0] || p[25] != p[1]) {
    Discard("no frame magic");
    return -1;
  }
  const size_t size = AsFrame(p)->FrameSize();
  if (size > capacity_) {
    Discard("frame longer than the receive buffer");
    return -1;
  }
  if (held < size) return 0;
  if (p[size - 2] != kTail || p[size - 1] != kTail) {
    Discard("no frame tail");
    return -1;
  }
  *frame = AsFrame(p);
  pos_ += size;
  return 1;
}

void FrameCutter::Compact() {
  if (pos_ == 0) return;
  const size_t rest = held_ - pos_;
  if (rest > 0) std::memmove(buf_.get(), buf_.get() + pos_, rest);
  held_ = rest;
  pos_ = 0;
}

}  // namespace command
