// The motion-event recorder on arbitrary camera media: the input is cut into video pieces and
// audio packets as the camera frames them (any marks, lengths, frame headers and indices), and
// the recorder gathers frames, writes the clip and makes snapshots from them. Runs on a board
// root of its own in a temporary folder; each input is one event, abandoned at its end (a forced
// stop stores and uploads nothing).
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "camera/camera.h"
#include "camera/frame.h"
#include "platform/board.h"
#include "storage/pirevent.h"

namespace {

// One camera frame from the input: 1 byte kind (bit 0: audio), marks, 2 bytes payload length
// (cut to what is left), then the payload.
size_t NextFrame(const uint8_t* data, size_t size, std::vector<uint8_t>* frame, bool* audio) {
  if (size < 5) return size;
  *audio = (data[0] & 1) != 0;
  const uint8_t mark1 = data[1];
  const uint8_t mark2 = data[2];
  size_t n = static_cast<size_t>(data[3]) | (static_cast<size_t>(data[4]) << 8);
  if (n > size - 5) n = size - 5;
  frame->assign(command::kHeaderSize + n + command::kTailSize, 0);
  _net_cmd_type* head = command::AsFrame(frame->data());
  head->mark1 = mark1;
  head->mark2 = mark2;
  head->SetLength(static_cast<uint16_t>(n));
  head->type = command::kTypeMedia;
  head->subtype = *audio ? command::kSubAudio : command::kSubVideo;
  std::memcpy(frame->data() + command::kHeaderSize, data + 5, n);
  return 5 + n;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  static pirevent::PirEvent* recorder = [] {
    static char tmpl[] = "/tmp/tarvo-fuzz-XXXXXX";
    if (mkdtemp(tmpl) == nullptr) std::abort();
    std::atexit([] { std::filesystem::remove_all(tmpl); });
    platform::SetRootForTest(tmpl);
    return new pirevent::PirEvent(std::make_shared<camera::Camera>("0A0000000001"));
  }();
  if (recorder->HappenEvent() != 0) return 0;
  std::vector<uint8_t> frame;
  size_t at = 0;
  while (at < size) {
    bool audio = false;
    const size_t used = NextFrame(data + at, size - at, &frame, &audio);
    at += used;
    if (frame.empty()) break;
    const auto* f = command::AsFrame(frame.data());
    if (audio) {
      recorder->RecvEventAudio(f);
    } else {
      recorder->RecvEventVideo(f);
    }
    frame.clear();
  }
  recorder->StopEvent(recorder->EventStartTime(), 1);
  return 0;
}
