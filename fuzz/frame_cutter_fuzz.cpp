// The camera byte stream: arbitrary bytes, delivered in receives of arbitrary sizes, through the
// hub's receive buffer. Every frame handed on must be whole and valid, and nothing may be read
// or written outside the buffer.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>

#include "camera/frame.h"
#include "camera/framecutter.h"

namespace {

constexpr size_t kHubBuffer = 17408;

void Check(const _net_cmd_type* f) {
  const size_t size = f->FrameSize();
  if (size > kHubBuffer) std::abort();
  if (command::CheckCommand(f->Bytes(), static_cast<uint16_t>(size)) != 1) std::abort();
  // Read the payloads the hub reads, within the frame's own length.
  const size_t n = f->Length();
  _net_cmd_login_type login;
  _net_cmd_get_info_type info;
  _net_cmd_login_type::Decode(f->Payload(), n, &login);
  _net_cmd_get_info_type::Decode(f->Payload(), n, &info);
  volatile uint16_t sum = command::Checksum(f->Payload(), n);
  (void)sum;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static command::FrameCutter* cutter = new command::FrameCutter(kHubBuffer);
  cutter->Clear();
  // The first two bytes choose the receive sizes; the rest is the stream.
  if (size < 2) return 0;
  const size_t step = (static_cast<size_t>(data[0]) << 8 | data[1]) % kHubBuffer + 1;
  data += 2;
  size -= 2;
  size_t off = 0;
  while (off < size) {
    size_t n = size - off;
    if (n > step) n = step;
    if (n > cutter->Space()) n = cutter->Space();
    if (n == 0) std::abort();  // a full buffer must have been discarded
    std::memcpy(cutter->WritePtr(), data + off, n);
    cutter->Commit(n);
    off += n;
    cutter->Cut(Check);
    if (cutter->Held() > kHubBuffer) std::abort();
  }
  return 0;
}
