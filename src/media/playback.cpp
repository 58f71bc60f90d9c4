#include "media/playback.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>

#include "base/log.h"
#include "media/oru_mp4_demux.h"
#include "media/orump4playlist.h"

namespace {

using Clock = std::chrono::steady_clock;
using playback::StopReason;
using playbackmsg::PlayState;

constexpr int kSlots = 4;
constexpr uint64_t kAlawBytesPerMs = 8;  // 8000 Hz, a byte a sample
// A frame the viewer cannot take yet is offered again after this long...
constexpr auto kRetryWait = std::chrono::milliseconds(5);
// ...until this long has passed without progress.
constexpr auto kGiveUp = std::chrono::seconds(5);

std::atomic<playback::CommandSender> g_command{nullptr};
std::atomic<playback::FrameSender> g_video{nullptr};
std::atomic<playback::FrameSender> g_audio{nullptr};

struct Slot {
  std::mutex control;  // start, stop and join of `thread`; never taken by the play thread
  std::thread thread;

  std::mutex mu;  // guards the fields below
  std::condition_variable cv;
  bool running = false;
  bool stop = false;
  StopReason reason = StopReason::kStopped;
  bool paused = false;
  std::string mac;
  uint32_t start = 0;
};
// Never freed: a play thread may still run when the process exits.
Slot* const g_slots = new Slot[kSlots];

bool ValidSid(int sid) {
  return sid >= 0 && sid < kSlots;
}

void SendState(int sid, const std::string& mac, uint32_t start, PlayState state, uint32_t frames) {
  playbackmsg::StateMessage m;
  m.mac = mac;
  m.start = start;
  m.state = state;
  m.frames = frames;
  const std::vector<uint8_t> bytes = playbackmsg::EncodeState(m);
  // A full control queue gets a few more chances; the state is small.
  for (int i = 0; i < 100; i++) {
    const int rc =
        playback_send_command(sid, playbackmsg::kTypePlayState, bytes.data(), bytes.size());
    if (rc != playback::kBusy) break;
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

PlayState StateOf(StopReason reason) {
  switch (reason) {
    case StopReason::kReplaced:
      return PlayState::kReplaced;
    case StopReason::kDeleted:
      return PlayState::kDeleted;
    default:
      return PlayState::kStopped;
  }
}

// Asks the slot's thread to end (the first reason wins). Slot.mu not held.
void RequestStop(Slot& slot, StopReason reason) {
  std::lock_guard<std::mutex> lock(slot.mu);
  if (!slot.stop) {
    slot.stop = true;
    slot.reason = reason;
  }
  slot.cv.notify_all();
}

// Stops and joins the slot's thread. Hold slot.control. True when a play was running.
bool StopLocked(Slot& slot, StopReason reason) {
  bool was_running = false;
  {
    std::lock_guard<std::mutex> lock(slot.mu);
    was_running = slot.running;
  }
  if (was_running) RequestStop(slot, reason);
  // A play thread never stops itself; should it ever, it must not wait for itself.
  if (slot.thread.joinable() && slot.thread.get_id() != std::this_thread::get_id()) {
    slot.thread.join();
  }
  return was_running;
}

// The play thread: waits until `due` or a stop; keeps the pause. False when it must end.
bool WaitUntil(Slot& slot, Clock::time_point* base, Clock::time_point due) {
  std::unique_lock<std::mutex> lock(slot.mu);
  for (;;) {
    if (slot.stop) return false;
    if (slot.paused) {
      const Clock::time_point paused_at = Clock::now();
      slot.cv.wait(lock, [&] { return slot.stop || !slot.paused; });
      const auto pause = Clock::now() - paused_at;
      *base += pause;
      due += pause;
      continue;
    }
    if (Clock::now() >= due) return true;
    slot.cv.wait_until(lock, due);
  }
}

bool Stopping(Slot& slot, StopReason* reason) {
  std::lock_guard<std::mutex> lock(slot.mu);
  *reason = slot.reason;
  return slot.stop;
}

// Offers one frame until the viewer takes it. 1 sent, 0 stop asked, -1 the viewer is gone or
// took nothing for kGiveUp.
int Offer(Slot& slot, int sid, bool video, const playback::Frame& frame) {
  const playback::FrameSender send = video ? g_video.load() : g_audio.load();
  if (send == nullptr) return -1;
  const Clock::time_point limit = Clock::now() + kGiveUp;
  for (;;) {
    const int rc = send(sid, frame);
    if (rc == playback::kSent) return 1;
    if (rc != playback::kBusy) return -1;
    if (Clock::now() >= limit) return -1;
    std::unique_lock<std::mutex> lock(slot.mu);
    if (slot.cv.wait_for(lock, kRetryWait, [&] { return slot.stop; })) return 0;
  }
}

void PlayThread(int sid, std::string path, std::string mac, uint32_t start, uint32_t offset) {
  Slot& slot = g_slots[sid];
  oru_mp4_demux::Reader reader;
  std::string why;
  uint32_t frames = 0;
  PlayState end = PlayState::kEnd;
  bool tell = true;
  bool gone = false;  // the transport says the viewer has left

  if (reader.Open(path, &why) != 0 || (offset > 0 && reader.Seek(offset * 1000LL, &why) != 0)) {
    TLOG(LOG_DEBUG) << "Playback " << mac << " " << start << " session " << sid
                    << " cannot play the clip: " << why;
    end = PlayState::kError;
  } else {
    TLOG(LOG_DEBUG) << "Playback " << mac << " " << start << " session " << sid << " from "
                    << offset << " s: " << path;
    SendState(sid, mac, start, PlayState::kStarted, 0);
    Clock::time_point base;
    int64_t base_ms = 0;
    bool first = true;
    for (;;) {
      StopReason reason;
      if (Stopping(slot, &reason)) {
        end = StateOf(reason);
        tell = reason != StopReason::kClosed;
        break;
      }
      oru_mp4_demux::Packet packet;
      const int rc = reader.Read(&packet, &why);
      if (rc == 0) break;
      if (rc < 0) {
        TLOG(LOG_DEBUG) << "Playback " << mac << " " << start << " session " << sid
                        << " read error: " << why;
        end = PlayState::kError;
        break;
      }
      if (first) {
        base = Clock::now();
        base_ms = packet.time_ms;
        first = false;
      }
      const Clock::time_point due =
          base + std::chrono::milliseconds(std::max<int64_t>(0, packet.time_ms - base_ms));
      if (!WaitUntil(slot, &base, due)) continue;  // the stop is taken at the loop's top

      playback::Frame frame;
      frame.data = packet.data.data();
      frame.size = packet.data.size();
      const uint64_t clip_ms = static_cast<uint64_t>(start) * 1000 +
                               static_cast<uint64_t>(std::max<int64_t>(0, packet.time_ms));
      if (packet.video) {
        frame.key = packet.key;
        frame.index = frames;
        frame.width = static_cast<uint16_t>(reader.width());
        frame.height = static_cast<uint16_t>(reader.height());
        frame.seconds = static_cast<uint32_t>(clip_ms / 1000);
        frame.milliseconds = static_cast<uint32_t>(clip_ms % 1000);
      } else {
        frame.milliseconds = static_cast<uint32_t>(clip_ms);
      }
      int offered = 1;
      if (packet.video) {
        offered = Offer(slot, sid, true, frame);
      } else {
        // Audio goes in pieces the live road's buffers take; each piece its own time.
        for (size_t at = 0; at < packet.data.size() && offered > 0;
             at += playback::kMaxAudioPiece) {
          playback::Frame piece = frame;
          piece.data = packet.data.data() + at;
          piece.size = std::min(playback::kMaxAudioPiece, packet.data.size() - at);
          piece.milliseconds = static_cast<uint32_t>(clip_ms + at / kAlawBytesPerMs);
          offered = Offer(slot, sid, false, piece);
        }
      }
      if (offered == 0) continue;
      if (offered < 0) {
        TLOG(LOG_DEBUG) << "Playback " << mac << " " << start << " session " << sid
                        << ": the viewer takes no more frames";
        tell = false;
        gone = true;
        break;
      }
      if (packet.video) frames++;
    }
  }
  reader.Close();  // the clip is closed before anyone learns that the play ended
  TLOG(LOG_DEBUG) << "Playback " << mac << " " << start << " session " << sid << " ends ("
                  << (gone ? "viewer gone" : playbackmsg::PlayStateName(end)) << ") after "
                  << frames << " video frames";
  if (tell) SendState(sid, mac, start, end, frames);
  std::lock_guard<std::mutex> lock(slot.mu);
  slot.running = false;
}

void Refuse(int sid, const std::string& mac, uint32_t start, const std::string& why) {
  TLOG(LOG_DEBUG) << "Playback request of session " << sid << " refused: " << why;
  SendState(sid, mac, start, PlayState::kRefused, 0);
}

bool IsConfigured(const std::string& mac) {
  const playlist::RecordStore& store = playlist::Store();
  if (!store.cameras) return false;
  const std::vector<std::string> cams = store.cameras();
  return std::find(cams.begin(), cams.end(), mac) != cams.end();
}

}  // namespace

int playback_mgr_init(playback::CommandSender command, playback::FrameSender video,
                      playback::FrameSender audio) {
  if (command == nullptr || video == nullptr || audio == nullptr) {
    TLOG(LOG_DEBUG) << "Playback manager needs its three senders";
    return -1;
  }
  g_command.store(command);
  g_video.store(video);
  g_audio.store(audio);
  TLOG(LOG_DEBUG) << "Playback manager ready";
  return 0;
}

int playback_send_command(int sid, uint32_t type, const uint8_t* data, size_t len) {
  const playback::CommandSender send = g_command.load();
  return send != nullptr ? send(sid, type, data, len) : -1;
}

int HandlePlayback(int sid, int avIndex, const char* payload) {
  if (!ValidSid(sid)) return -1;
  playbackmsg::PlayRequest request;
  std::string why;
  if (!playbackmsg::ParsePlayRequest(payload, playbackmsg::kMaxRequestBytes, &request, &why)) {
    Refuse(sid, "", 0, why);
    return -1;
  }
  Slot& slot = g_slots[sid];
  switch (request.cmd) {
    case playbackmsg::PlayCommand::kStop:
      TLOG(LOG_DEBUG) << "Playback stop of session " << sid;
      playback_stop(sid, StopReason::kStopped);
      return 0;
    case playbackmsg::PlayCommand::kPause:
    case playbackmsg::PlayCommand::kResume: {
      const bool pause = request.cmd == playbackmsg::PlayCommand::kPause;
      TLOG(LOG_DEBUG) << "Playback " << (pause ? "pause" : "resume") << " of session " << sid;
      std::lock_guard<std::mutex> lock(slot.mu);
      slot.paused = pause;
      slot.cv.notify_all();
      return slot.running ? 0 : -1;
    }
    case playbackmsg::PlayCommand::kPlay:
      break;
  }

  TLOG(LOG_DEBUG) << "Playback request of session " << sid << ", avIndex " << avIndex << ": camera "
                  << request.mac << ", event " << request.start << ", offset " << request.offset;
  // Checked and started under the slot's control lock: a removal of the clip waits for it.
  std::lock_guard<std::mutex> control(slot.control);
  const playlist::RecordStore& store = playlist::Store();
  if (!IsConfigured(request.mac)) {
    Refuse(sid, request.mac, request.start, "unknown camera " + request.mac);
    return -1;
  }
  std::vector<playlist::IndexRecord> records;
  if (!store.read_index || store.read_index(request.mac, &records) != 0) {
    Refuse(sid, request.mac, request.start, "no index of camera " + request.mac);
    return -1;
  }
  const bool known =
      std::any_of(records.begin(), records.end(),
                  [&](const playlist::IndexRecord& r) { return r.start == request.start; });
  if (!known) {
    Refuse(sid, request.mac, request.start,
           "event " + std::to_string(request.start) + " is not in the index of " + request.mac);
    return -1;
  }
  std::string path;
  if (!store.locate_clip || store.locate_clip(request.mac, request.start, &path) != 0) {
    Refuse(sid, request.mac, request.start,
           "clip of event " + std::to_string(request.start) + " is not on the card");
    return -1;
  }
  StopLocked(slot, StopReason::kReplaced);
  {
    std::lock_guard<std::mutex> lock(slot.mu);
    slot.running = true;
    slot.stop = false;
    slot.paused = false;
    slot.reason = StopReason::kStopped;
    slot.mac = request.mac;
    slot.start = request.start;
  }
  try {
    slot.thread = std::thread(PlayThread, sid, path, request.mac, request.start, request.offset);
  } catch (const std::system_error& e) {
    TLOG(LOG_DEBUG) << "Start playback thread failed: " << e.what();
    std::lock_guard<std::mutex> lock(slot.mu);
    slot.running = false;
    return -1;
  }
  return 0;
}

int playback_stop(int sid, StopReason reason) {
  if (!ValidSid(sid)) return -1;
  Slot& slot = g_slots[sid];
  std::lock_guard<std::mutex> control(slot.control);
  return StopLocked(slot, reason) ? 0 : -1;
}

void playback_release_clip(const char* mac, long start) {
  if (mac == nullptr) return;
  for (int sid = 0; sid < kSlots; sid++) {
    Slot& slot = g_slots[sid];
    std::lock_guard<std::mutex> control(slot.control);
    bool match = false;
    {
      std::lock_guard<std::mutex> lock(slot.mu);
      match = slot.running && slot.mac == mac && static_cast<long>(slot.start) == start;
    }
    if (match) {
      TLOG(LOG_DEBUG) << "Playback of session " << sid << " ends: clip " << mac << " " << start
                      << " is removed";
      StopLocked(slot, StopReason::kDeleted);
    }
  }
}

void playback_card_gone() {
  for (int sid = 0; sid < kSlots; sid++) {
    Slot& slot = g_slots[sid];
    std::lock_guard<std::mutex> control(slot.control);
    if (StopLocked(slot, StopReason::kDeleted)) {
      TLOG(LOG_DEBUG) << "Playback of session " << sid << " ends: the card is gone";
    }
  }
}

bool playback_running(int sid) {
  if (!ValidSid(sid)) return false;
  std::lock_guard<std::mutex> lock(g_slots[sid].mu);
  return g_slots[sid].running;
}
