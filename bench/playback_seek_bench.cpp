// Seek latency of recording playback: from the moment a viewer hands its play request (a random
// offset into a 10 s clip) to the transport until the first video frame of that play reaches
// it, over 100 seeks. The hub side is the playback code as the daemon runs it: a session thread
// reading the viewer's I/O control and handing it to HandlePlayback, the play thread opening and
// seeking the clip on disk and sending through the live road's per-viewer send (encrypted with
// the viewer's stream key) on the open P2P transport. Only the media server's slot lookup is
// replaced by one slot of this program. Before each seek the running play is stopped and the
// viewer's queue drained, so every measured frame is the new play's first.
#include <benchmark/benchmark.h>
#include <sodium.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "benchsupport.h"
#include "benchtransport.h"
#include "camera/channel.h"
#include "camera/frameinfo.h"
#include "camsim/camsimmedia.h"
#include "crypto/hubauth.h"
#include "crypto/stream_encrypt.h"
#include "media/mp4mux.h"
#include "media/orump4playlist.h"
#include "media/playback.h"
#include "media/playbackmsg.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "server/iotypes.h"
#include "viewer/p2pviewer.h"
#include "viewer/viewerplay.h"

namespace {

using Clock = std::chrono::steady_clock;

constexpr char kUid[] = "TARVOBENCH0000000001";
constexpr char kPassword[] = "123456";
constexpr char kMac[] = "0A00000000D1";
constexpr uint32_t kStart = 1700000000;
constexpr int kClipFrames = 150;  // 10 s at 15 frames a second
constexpr int kSeeks = 100;

client::Client* g_client = nullptr;

std::string Media(const std::string& name) {
  static const std::string dir = std::string(TARVO_BENCH_BIN_DIR) + "/test-media";
  static const int made = std::system(
      (std::string(TARVO_BENCH_SOURCE_DIR) + "/scripts/make-test-media.sh " + dir + " >/dev/null")
          .c_str());
  return made == 0 ? dir + "/" + name : "";
}

int Result(int ret) {
  if (ret >= 0) return playback::kSent;
  return ret == AV_ER_EXCEED_MAX_SIZE ? playback::kBusy : ret;
}

int SendCommand(int, uint32_t type, const uint8_t* data, size_t len) {
  return Result(avSendIOCtrl(g_client->avIndex(), type, reinterpret_cast<const char*>(data),
                             static_cast<int>(len)));
}

int SendVideo(int, const playback::Frame& f) {
  frameinfo::VideoFields fields;
  fields.key = f.key;
  fields.viewers = 1;
  fields.frame_index = f.index;
  fields.width = f.width;
  fields.height = f.height;
  fields.seconds = f.seconds;
  fields.milliseconds = f.milliseconds;
  _FRAMEINFO info;
  frameinfo::SetVideoFrameInfo(&info, fields);
  std::lock_guard<std::mutex> hold(encrypto_video.mutex);
  std::unique_lock<std::mutex> send(g_client->sendLock(), std::try_to_lock);
  if (!send.owns_lock()) return playback::kBusy;
  get_nalu_info(f.data, static_cast<unsigned>(f.size), &encrypto_video.nalu);
  return Result(channel::SendVideoLocked(f.data, static_cast<uint32_t>(f.size), *g_client,
                                         g_client->avIndex(), &info));
}

int SendAudio(int, const playback::Frame& f) {
  _FRAMEINFO info;
  frameinfo::SetAudioFrameInfo(&info, f.milliseconds);
  std::lock_guard<std::mutex> hold(encrypto_audio.mutex);
  std::unique_lock<std::mutex> send(g_client->sendLock(), std::try_to_lock);
  if (!send.owns_lock()) return playback::kBusy;
  return Result(channel::SendAudioLocked(f.data, static_cast<int>(f.size), *g_client,
                                         g_client->avIndex(), &info));
}

// A 10 s clip of the generated camera media, written by the hub's own writer.
std::string MakeClip(const std::string& dir) {
  std::string error;
  auto video = camsim::VideoClip::Load(Media("camera-1080p15.h264"), &error);
  auto audio = camsim::AudioClip::Load(Media("camera-8k.alaw"), &error);
  if (video == nullptr || audio == nullptr) std::abort();
  const std::string path = dir + "/clip.mp4";
  ORU_MP4_HANDLE h = nullptr;
  if (orump4_create_file(path.c_str(), 0, 0, 1, 15, 1920, 1080, 1, 8000, &h) != 0) std::abort();
  std::vector<uint8_t> alaw(8000 / 15);
  for (int i = 0; i < kClipFrames; i++) {
    const auto& f = video->at(i);
    orump4_write_video_frame(h, f.data.data(), static_cast<uint32_t>(f.data.size()), 0);
    audio->Copy(static_cast<size_t>(i) * alaw.size(), alaw.data(), alaw.size());
    orump4_write_audio_frame(h, alaw.data(), static_cast<int>(alaw.size()));
  }
  if (orump4_close_file_for_create(h) != 0) std::abort();
  return path;
}

void BM_SeekToFirstFrame(benchmark::State& state) {
  if (sodium_init() < 0 || init_work_buffers() != 0) std::abort();
  const std::string dir = std::filesystem::temp_directory_path() / "tarvo-seek-bench";
  std::filesystem::create_directories(dir);
  const std::string clip = MakeClip(dir);

  playlist::RecordStore store;
  store.cameras = [] { return std::vector<std::string>{kMac}; };
  store.read_index = [](const std::string&, std::vector<playlist::IndexRecord>* out) {
    *out = {{kStart, 10}};
    return 0;
  };
  store.locate_clip = [clip](const std::string&, uint32_t, std::string* path) {
    *path = clip;
    return 0;
  };
  store.card_ready = [] { return true; };
  playlist_mgr_init(store);
  playback_mgr_init(SendCommand, SendVideo, SendAudio);

  const uint16_t port = benchsupport::StartTransport(1, 4, kUid, kPassword);
  p2p::Viewer viewer;
  if (viewer.Connect("127.0.0.1", port, kUid, kPassword) != 0) std::abort();
  const benchsupport::HubSession hub = benchsupport::AcceptSession([&] {
    viewer.Login("viewer", "{}", 10000);
    return 0;
  });
  const int sid = hub.sid, av = hub.av;
  const auto slot = benchsupport::KeyedClient(hub);
  g_client = slot.get();

  // The session thread, as the daemon's: I/O control handed to playback one at a time.
  std::atomic<bool> stop{false};
  std::thread session([&] {
    char buffer[1025];
    while (!stop.load()) {
      std::fill(buffer, buffer + sizeof(buffer), 0);
      unsigned int type = 0;
      const int n = avRecvIOCtrl(av, &type, buffer, 1024, 100);
      if (n >= 0 && type == server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME) {
        HandlePlayback(sid, av, buffer);
      }
    }
  });

  std::mt19937 random(7);
  std::vector<double> ms;
  for (auto _ : state) {
    for (int i = 0; i < kSeeks; i++) {
      // stop what plays and drain what is queued
      const std::string stop_request = viewer::PlayCommand("stop");
      viewer.SendIoCtrl(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, stop_request.data(),
                        stop_request.size());
      p2p::ViewerFrame f;
      p2p::ViewerIoCtrl m;
      while (viewer.RecvFrame(&f, 50) >= 0 || viewer.RecvIoCtrl(&m, 0) >= 0) {
      }
      const std::string play =
          viewer::PlayRequest(kMac, kStart, static_cast<uint32_t>(random() % 10));
      const Clock::time_point t0 = Clock::now();
      viewer.SendIoCtrl(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, play.data(), play.size());
      for (;;) {
        if (viewer.RecvFrame(&f, 5000) < 0) std::abort();
        if (f.video) break;
      }
      ms.push_back(std::chrono::duration<double, std::milli>(Clock::now() - t0).count());
    }
  }
  stop = true;
  session.join();
  playback_stop(sid, playback::StopReason::kClosed);
  std::sort(ms.begin(), ms.end());
  state.counters["seeks"] = static_cast<double>(ms.size());
  state.counters["p50_ms"] = ms[ms.size() / 2];
  state.counters["p99_ms"] = ms[std::min(ms.size() - 1, ms.size() * 99 / 100)];
  state.counters["max_ms"] = ms.back();
  viewer.Close();
  std::filesystem::remove_all(dir);
}

}  // namespace

BENCHMARK(BM_SeekToFirstFrame)->Iterations(1)->Unit(benchmark::kMillisecond);
