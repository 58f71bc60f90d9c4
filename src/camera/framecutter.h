// Cutting frames out of a camera's byte stream.
//
// A fixed buffer receives the bytes as they arrive; whole frames are cut from its front in
// place and handed on without copying or allocating. Bytes that are not a frame cost the whole
// buffer: there is no resynchronisation, the next frame must start a fresh receive. A frame that
// announces more bytes than the buffer holds can never complete and is discarded at once.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

#include "camera/frame.h"

namespace command {

class FrameCutter {
 public:
  // The buffer is allocated once here.
  explicit FrameCutter(size_t capacity);
  FrameCutter(const FrameCutter&) = delete;
  FrameCutter& operator=(const FrameCutter&) = delete;

  // Where the next received bytes go, and how many fit.
  uint8_t* WritePtr() { return buf_.get() + held_; }
  size_t Space() const { return capacity_ - held_; }
  // Adds n received bytes (at most Space()).
  void Commit(size_t n);

  size_t Held() const { return held_ - pos_; }
  size_t Capacity() const { return capacity_; }
  const uint8_t* Data() const { return buf_.get() + pos_; }
  // Number of times the held bytes were thrown away.
  uint64_t Discards() const { return discards_; }

  // Zeroes the buffer and forgets what it held.
  void Clear();

  // The next whole frame at the front: 1 (*frame set; valid until Compact), 0 when more bytes
  // are needed, -1 when the held bytes were discarded.
  int Next(const _net_cmd_type** frame);
  // Moves what follows the frames taken by Next to the front of the buffer.
  void Compact();

  // Hands every whole frame to on_frame(const _net_cmd_type*) in order, then compacts.
  // Returns the number of frames handed on.
  template <typename F>
  int Cut(F&& on_frame) {
    int count = 0;
    const _net_cmd_type* frame = nullptr;
    while (Next(&frame) == 1) {
      on_frame(frame);
      count++;
    }
    Compact();
    return count;
  }

 private:
  void Discard(const char* why);

  std::unique_ptr<uint8_t[]> buf_;
  size_t capacity_;
  size_t held_ = 0;  // bytes in the buffer
  size_t pos_ = 0;   // start of the bytes not yet cut
  uint64_t discards_ = 0;
};

}  // namespace command
