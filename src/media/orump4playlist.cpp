#include "media/orump4playlist.h"

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <system_error>
#include <thread>
#include <utility>

#include "base/log.h"
#include "media/filetransfer.h"
#include "media/playback.h"
#include "media/playbackmsg.h"

namespace playlist {
namespace {

constexpr int kSlots = 4;
constexpr auto kBackOff = std::chrono::milliseconds(10);
constexpr auto kGiveUp = std::chrono::seconds(5);

std::mutex g_store_mutex;
RecordStore* g_store = new RecordStore();  // replaced once at start, never freed

struct ListSlot {
  std::mutex control;  // start, stop and join of `thread`
  std::thread thread;
  std::mutex mu;
  std::condition_variable cv;
  bool stop = false;
  bool running = false;  // the thread has not finished
};
ListSlot* const g_slots = new ListSlot[kSlots];

// Sends the chunks; ends early when asked to stop, when the viewer is gone, or when its control
// queue stays full for kGiveUp.
void SendList(int sid, ListSlot& slot, const std::vector<std::vector<uint8_t>>& chunks) {
  size_t sent = 0;
  for (const auto& chunk : chunks) {
    const auto limit = std::chrono::steady_clock::now() + kGiveUp;
    for (;;) {
      const int rc =
          playback_send_command(sid, playbackmsg::kTypePlaylist, chunk.data(), chunk.size());
      if (rc == playback::kSent) break;
      if (rc != playback::kBusy || std::chrono::steady_clock::now() >= limit) {
        TLOG(LOG_DEBUG) << "Event list of session " << sid << " ends after " << sent << " of "
                        << chunks.size() << " chunks, send result " << rc;
        return;
      }
      std::unique_lock<std::mutex> lock(slot.mu);
      if (slot.cv.wait_for(lock, kBackOff, [&] { return slot.stop; })) return;
    }
    sent++;
    std::lock_guard<std::mutex> lock(slot.mu);
    if (slot.stop) return;
  }
}

void ListThread(int sid, playbackmsg::ListRequest request) {
  ListSlot& slot = g_slots[sid];
  const RecordStore& store = Store();
  std::vector<std::string> cameras;
  if (request.all) {
    if (store.cameras) cameras = store.cameras();
  } else {
    cameras.push_back(request.mac);
  }
  std::vector<playbackmsg::EventEntry> events;
  uint8_t flags = 0;
  if (!store.card_ready || !store.card_ready()) {
    TLOG(LOG_DEBUG) << "Event list of session " << sid << ": no card";
    flags = playbackmsg::kChunkNoCard;
    cameras.clear();
  }
  for (const std::string& mac : cameras) {
    std::vector<IndexRecord> records;
    if (!store.read_index || store.read_index(mac, &records) != 0) {
      TLOG(LOG_DEBUG) << "Event list of session " << sid << ": index of " << mac
                      << " cannot be read";
      if (!request.all) flags = playbackmsg::kChunkNoCard;
      continue;
    }
    for (const IndexRecord& r : records) events.push_back({mac, r.start, r.length});
  }
  TLOG(LOG_DEBUG) << "Event list of session " << sid << ": " << events.size() << " events of "
                  << cameras.size() << " cameras";
  SendList(sid, slot, playbackmsg::EncodeList(request.id, events, flags));
  std::lock_guard<std::mutex> lock(slot.mu);
  slot.running = false;
}

}  // namespace

const RecordStore& Store() {
  std::lock_guard<std::mutex> lock(g_store_mutex);
  return *g_store;
}

}  // namespace playlist

int playlist_mgr_init(const playlist::RecordStore& store) {
  std::lock_guard<std::mutex> lock(playlist::g_store_mutex);
  *playlist::g_store = store;
  TLOG(LOG_DEBUG) << "Playlist manager ready";
  return 0;
}

namespace {

// Ends the slot's list thread. True when it was still sending.
bool StopList(playlist::ListSlot& slot) {
  bool was_running = false;
  {
    std::lock_guard<std::mutex> lock(slot.mu);
    was_running = slot.running;
    slot.stop = true;
    slot.cv.notify_all();
  }
  if (slot.thread.joinable()) slot.thread.join();
  return was_running;
}

}  // namespace

int playlist_stop_play(int sid) {
  bool stopped = filetransfer_stop(sid) == 0;
  if (sid < 0 || sid >= playlist::kSlots) return 0;
  {
    playlist::ListSlot& slot = playlist::g_slots[sid];
    std::lock_guard<std::mutex> control(slot.control);
    stopped = StopList(slot) || stopped;
  }
  stopped = playback_stop(sid, playback::StopReason::kClosed) == 0 || stopped;
  if (!stopped) TLOG(LOG_DEBUG) << "No playlist to stop for session " << sid;
  return 0;
}

int playlist_start_play(int sid, int avIndex, const char* payload) {
  if (sid < 0 || sid >= playlist::kSlots) return -1;
  playbackmsg::ListRequest request;
  std::string why;
  if (!playbackmsg::ParseListRequest(payload, playbackmsg::kMaxRequestBytes, &request, &why)) {
    TLOG(LOG_DEBUG) << "Event list request of session " << sid << " refused: " << why;
    const auto chunks = playbackmsg::EncodeList(0, {}, playbackmsg::kChunkRefused);
    playback_send_command(sid, playbackmsg::kTypePlaylist, chunks[0].data(), chunks[0].size());
    return -1;
  }
  const playlist::RecordStore& store = playlist::Store();
  if (!request.all) {
    const std::vector<std::string> cams =
        store.cameras ? store.cameras() : std::vector<std::string>();
    if (std::find(cams.begin(), cams.end(), request.mac) == cams.end()) {
      TLOG(LOG_DEBUG) << "Event list request of session " << sid << " refused: unknown camera "
                      << request.mac;
      const auto chunks = playbackmsg::EncodeList(request.id, {}, playbackmsg::kChunkRefused);
      playback_send_command(sid, playbackmsg::kTypePlaylist, chunks[0].data(), chunks[0].size());
      return -1;
    }
  }
  TLOG(LOG_DEBUG) << "Event list request of session " << sid << ", avIndex " << avIndex << ": "
                  << (request.all ? std::string("every camera") : request.mac) << ", id "
                  << request.id;
  playlist::ListSlot& slot = playlist::g_slots[sid];
  std::lock_guard<std::mutex> control(slot.control);
  StopList(slot);
  {
    std::lock_guard<std::mutex> lock(slot.mu);
    slot.stop = false;
    slot.running = true;
  }
  try {
    slot.thread = std::thread(playlist::ListThread, sid, request);
  } catch (const std::system_error& e) {
    TLOG(LOG_DEBUG) << "Start event list thread failed: " << e.what();
    std::lock_guard<std::mutex> lock(slot.mu);
    slot.running = false;
    return -1;
  }
  return 0;
}
