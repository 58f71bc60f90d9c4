#include "viewer/viewertalk.h"

#include <chrono>
#include <fstream>
#include <iterator>
#include <thread>

#include "camera/frame.h"
#include "camera/frameinfo.h"
#include "server/iotypes.h"
#include "viewer/viewersession.h"

namespace viewer {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kAfterJoin = std::chrono::milliseconds(500);
constexpr auto kBeforeStop = std::chrono::seconds(1);
constexpr int kSamplesPerSecond = 8000;

// Sleeps until t or until stop; false when stopped.
bool SleepUntil(Clock::time_point t, const std::atomic<bool>& stop) {
  while (!stop.load()) {
    const auto now = Clock::now();
    if (now >= t) return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(t - now, std::chrono::milliseconds(50)));
  }
  return false;
}

}  // namespace

int ReadTalkFrames(const std::string& path, size_t frame_bytes,
                   std::vector<std::vector<uint8_t>>* frames, std::string* error) {
  if (frame_bytes == 0 || frame_bytes > kMaxTalkFrameBytes) {
    *error = "talkback frames are 1.." + std::to_string(kMaxTalkFrameBytes) + " bytes";
    return -1;
  }
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    *error = "cannot read " + path;
    return -1;
  }
  std::vector<uint8_t> all;
  char chunk[65536];
  while (in.read(chunk, sizeof(chunk)) || in.gcount() > 0) {
    all.insert(all.end(), chunk, chunk + in.gcount());
    if (all.size() > kMaxTalkFileBytes) {
      *error = path + " is longer than " + std::to_string(kMaxTalkFileBytes) + " bytes";
      return -1;
    }
  }
  if (all.empty()) {
    *error = path + " is empty";
    return -1;
  }
  frames->clear();
  for (size_t at = 0; at < all.size(); at += frame_bytes) {
    const size_t n = std::min(frame_bytes, all.size() - at);
    frames->emplace_back(all.begin() + static_cast<std::ptrdiff_t>(at),
                         all.begin() + static_cast<std::ptrdiff_t>(at + n));
  }
  return 0;
}

int Talk(Session& session, const TalkOptions& options, const std::atomic<bool>& stop,
         TalkResult* result) {
  std::vector<std::vector<uint8_t>> frames;
  if (ReadTalkFrames(options.alaw_path, options.frame_bytes, &frames, &result->error) != 0) {
    return -1;
  }
  const uint8_t ch = options.channel;
  int rc = session.OpenTalkback(ch);
  if (rc != 0) {
    result->error = "cannot serve talkback channel " + std::to_string(ch) + ": " + CodeName(rc);
    return -1;
  }
  uint8_t start[4];
  command::PutLe32(start, ch);
  rc = session.SendIoCtrl(server::IOTYPE_USER_IPCAM_SPEAKERSTART,
                          std::string(reinterpret_cast<const char*>(start), sizeof(start)));
  if (rc == 0) rc = session.WaitTalkback(ch, options.join_timeout_ms);
  if (rc != 0) {
    result->error =
        "the hub did not join talkback channel " + std::to_string(ch) + ": " + CodeName(rc);
    session.CloseTalkback(ch);
    return -1;
  }

  const auto frame_time = std::chrono::microseconds(static_cast<int64_t>(options.frame_bytes) *
                                                    1000000 / kSamplesPerSecond);
  const Clock::time_point begin = Clock::now() + kAfterJoin;
  for (size_t k = 0; k < frames.size(); k++) {
    if (!SleepUntil(begin + frame_time * static_cast<int64_t>(k), stop)) break;
    _FRAMEINFO info;
    frameinfo::SetAudioFrameInfo(&info, static_cast<uint32_t>(k * frame_time.count() / 1000));
    rc = session.SendTalkAudio(ch, &info, sizeof(info), frames[k].data(), frames[k].size());
    if (rc != 0) {
      result->error = "talkback frame " + std::to_string(k) + " not sent: " + CodeName(rc);
      break;
    }
    result->frames++;
    result->bytes += static_cast<int64_t>(frames[k].size());
  }
  if (result->error.empty() && !stop.load()) SleepUntil(Clock::now() + kBeforeStop, stop);
  const std::string stop_request = "{\"mac\":\"" + options.camera_mac + "\"}";
  const int stopped = session.SendIoCtrl(server::IOTYPE_USER_IPCAM_SPEAKERSTOP, stop_request);
  session.CloseTalkback(ch);
  if (result->error.empty() && result->frames < static_cast<int64_t>(frames.size())) {
    result->error = "stopped after " + std::to_string(result->frames) + " of " +
                    std::to_string(frames.size()) + " frames";
  }
  if (result->error.empty() && stopped != 0) {
    result->error = "speaker stop not sent: " + CodeName(stopped);
  }
  return result->error.empty() ? 0 : -1;
}

}  // namespace viewer
