// The play and list threads of recording playback on their own, with a record store over a temp
// folder and senders that stand for the viewer: the play is paced by the clip, a viewer that is
// busy gets its frame again, a removal of the clip waits until the reader has closed it, one that
// has left ends the play without a word, stops from other threads meet a play that is starting,
// and a list waits while the control queue is full.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "media/mp4mux.h"
#include "media/orump4playlist.h"
#include "media/playback.h"
#include "media/playbackmsg.h"
#include "support/cameraclip.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using playbackmsg::PlayState;

constexpr char kMac[] = "0A00000000D1";
constexpr char kCamWithoutIndex[] = "0A00000000B2";  // a camera whose index cannot be read
constexpr uint32_t kStart = 1700000000;
constexpr int kFrames = 30;  // 2 s

// What the senders saw, and how they answer.
struct Viewer {
  std::mutex mu;
  std::condition_variable changed;
  std::vector<PlayState> states;
  std::vector<uint8_t> chunk_flags;
  std::vector<uint32_t> chunk_ids;
  size_t chunk_events = 0;
  int video = 0;
  int audio = 0;
  std::vector<size_t> audio_sizes;
  std::vector<playback::Frame> video_frames;  // what each video frame said (data not kept)
  std::atomic<int> busy_left{0};              // answers kBusy this many times first
  std::atomic<bool> gone{false};              // answers as a viewer that has left
  std::atomic<bool> reading{false};           // a sender call is under way
  std::atomic<bool> clip_removed{false};
  std::atomic<bool> sent_after_removal{false};

  int Answer() {
    if (gone.load()) return -20015;
    if (busy_left.load() > 0) {
      busy_left--;
      return playback::kBusy;
    }
    return playback::kSent;
  }
  template <typename P>
  bool Wait(P pred, std::chrono::milliseconds timeout = 10s) {
    std::unique_lock<std::mutex> lock(mu);
    return changed.wait_for(lock, timeout, pred);
  }
  bool WaitState(PlayState s) {
    return Wait([&] {
      for (PlayState x : states) {
        if (x == s) return true;
      }
      return false;
    });
  }
};
Viewer* g_viewer = nullptr;

int Command(int, uint32_t type, const uint8_t* data, size_t len) {
  const int answer = g_viewer->Answer();
  if (answer != playback::kSent) return answer;
  std::lock_guard<std::mutex> lock(g_viewer->mu);
  if (type == playbackmsg::kTypePlayState) {
    playbackmsg::StateMessage m;
    if (playbackmsg::DecodeState(data, len, &m)) g_viewer->states.push_back(m.state);
  } else if (type == playbackmsg::kTypePlaylist) {
    playbackmsg::ListChunk c;
    if (playbackmsg::DecodeListChunk(data, len, &c)) {
      g_viewer->chunk_flags.push_back(c.flags);
      g_viewer->chunk_ids.push_back(c.id);
      g_viewer->chunk_events += c.events.size();
    }
  }
  g_viewer->changed.notify_all();
  return playback::kSent;
}

int Frame(int, const playback::Frame& f, bool video) {
  if (g_viewer->clip_removed.load()) g_viewer->sent_after_removal = true;
  const int answer = g_viewer->Answer();
  if (answer != playback::kSent) return answer;
  std::lock_guard<std::mutex> lock(g_viewer->mu);
  (video ? g_viewer->video : g_viewer->audio)++;
  if (!video) g_viewer->audio_sizes.push_back(f.size);
  if (video) g_viewer->video_frames.push_back(f);
  g_viewer->changed.notify_all();
  return playback::kSent;
}
int Video(int sid, const playback::Frame& f) {
  return Frame(sid, f, true);
}
int Audio(int sid, const playback::Frame& f) {
  return Frame(sid, f, false);
}

class PlayThreads : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string error;
    testsupport::CameraMedia media;
    ASSERT_TRUE(media.Load(&error)) << error;
    clip_ = dir_.path() + "/clip.mp4";
    ORU_MP4_HANDLE h = nullptr;
    ASSERT_EQ(0, testsupport::CreateClip(clip_, &h));
    ASSERT_EQ(0, testsupport::WriteFrames(h, media, 0, kFrames));
    ASSERT_EQ(0, orump4_close_file_for_create(h));

    playlist::RecordStore store;
    store.cameras = [] { return std::vector<std::string>{kMac, kCamWithoutIndex}; };
    store.read_index = [this](const std::string& mac, std::vector<playlist::IndexRecord>* out) {
      out->clear();
      if (mac == kCamWithoutIndex) return -1;
      if (mac == kMac) {
        for (uint32_t i = 0; i < records_; i++) out->push_back({kStart + i * 60, 10});
      }
      return 0;
    };
    store.locate_clip = [this](const std::string&, uint32_t, std::string* path) {
      *path = clip_;
      return 0;
    };
    store.card_ready = [this] { return card_ready_.load(); };
    playlist_mgr_init(store);
    g_viewer = &viewer_;
    ASSERT_EQ(0, playback_mgr_init(Command, Video, Audio));
  }
  void TearDown() override {
    for (int sid = 0; sid < 4; sid++) playlist_stop_play(sid);
    g_viewer = nullptr;
  }

  static bool WaitForStop(int sid) {
    return testsupport::WaitFor([sid] { return !playback_running(sid); });
  }
  static std::string Play(uint32_t start, int offset = 0) {
    return "{\"mac\":\"" + std::string(kMac) + "\",\"start\":" + std::to_string(start) +
           ",\"offset\":" + std::to_string(offset) + "}";
  }

  testsupport::TempDir dir_;
  std::string clip_;
  uint32_t records_ = 1;
  std::atomic<bool> card_ready_{true};
  Viewer viewer_;
};

TEST_F(PlayThreads, PlaysAtTheClipsPaceGivesBusyFramesAgainAndEndsWithTheEnd) {
  viewer_.busy_left = 20;  // the first frames meet a busy viewer
  const auto t0 = std::chrono::steady_clock::now();
  ASSERT_EQ(0, HandlePlayback(0, 0, Play(kStart).c_str()));
  ASSERT_TRUE(viewer_.WaitState(PlayState::kEnd));
  const auto took = std::chrono::steady_clock::now() - t0;
  EXPECT_GE(took, 1800ms);  // 30 frames at 15 a second, the first at once
  std::lock_guard<std::mutex> lock(viewer_.mu);
  EXPECT_EQ(kFrames, viewer_.video);  // none lost to the busy answers
  EXPECT_GT(viewer_.audio, 0);
  // The audio is the clip's A-law bytes, every one, and no video among them.
  size_t audio_bytes = 0;
  for (size_t size : viewer_.audio_sizes) audio_bytes += size;
  EXPECT_EQ(kFrames * testsupport::kAlawPerFrame, audio_bytes);
  // Each video frame tells its place in the play, the clip's size and its time in the event.
  ASSERT_EQ(static_cast<size_t>(kFrames), viewer_.video_frames.size());
  for (size_t i = 0; i < viewer_.video_frames.size(); i++) {
    const playback::Frame& f = viewer_.video_frames[i];
    EXPECT_EQ(i, f.index);
    EXPECT_EQ(1920, f.width);
    EXPECT_EQ(1080, f.height);
    const int64_t ms = int64_t{f.seconds} * 1000 + f.milliseconds;
    const int64_t due = int64_t{kStart} * 1000 + static_cast<int64_t>(i) * 1000 / 15;
    EXPECT_NEAR(due, ms, 1) << i;  // 15 frames a second, within the clip's rounding
  }
  EXPECT_TRUE(viewer_.video_frames[0].key);
  EXPECT_EQ((std::vector<PlayState>{PlayState::kStarted, PlayState::kEnd}), viewer_.states);
  EXPECT_TRUE(WaitForStop(0));  // the thread ends right after its last word
}

TEST_F(PlayThreads, ARemovalReturnsOnlyOnceTheReaderIsClosedAndAGoneViewerHearsNothing) {
  ASSERT_EQ(0, HandlePlayback(1, 0, Play(kStart).c_str()));
  ASSERT_TRUE(viewer_.Wait([&] { return viewer_.video >= 3; }));
  playback_release_clip(kMac, kStart);
  viewer_.clip_removed = true;  // what the removal would do now
  EXPECT_FALSE(playback_running(1));
  EXPECT_TRUE(viewer_.WaitState(PlayState::kDeleted));
  std::this_thread::sleep_for(100ms);
  EXPECT_FALSE(viewer_.sent_after_removal.load());
  playback_release_clip(kMac, kStart + 1);  // nothing plays it: returns at once

  viewer_.clip_removed = false;
  {
    std::lock_guard<std::mutex> lock(viewer_.mu);
    viewer_.states.clear();
  }
  ASSERT_EQ(0, HandlePlayback(1, 0, Play(kStart).c_str()));
  ASSERT_TRUE(viewer_.Wait([&] { return !viewer_.states.empty(); }));
  viewer_.gone = true;
  EXPECT_TRUE(WaitForStop(1));
  std::lock_guard<std::mutex> lock(viewer_.mu);
  EXPECT_EQ((std::vector<PlayState>{PlayState::kStarted}), viewer_.states);
}

TEST_F(PlayThreads, StopsFromManyThreadsMeetStartingPlaysAndPauseHoldsThePlay) {
  std::atomic<bool> run{true};
  std::vector<std::thread> stoppers;
  stoppers.emplace_back([&] {
    while (run) playback_release_clip(kMac, kStart);
  });
  stoppers.emplace_back([&] {
    while (run) playback_card_gone();
  });
  for (int i = 0; i < 20; i++) {
    HandlePlayback(2, 0, Play(kStart, i % 3).c_str());
    HandlePlayback(3, 0, Play(kStart).c_str());
    if (i % 5 == 0) playlist_stop_play(3);
  }
  run = false;
  for (auto& t : stoppers) t.join();
  playback_stop(2, playback::StopReason::kStopped);
  playback_stop(3, playback::StopReason::kStopped);
  EXPECT_FALSE(playback_running(2));
  EXPECT_FALSE(playback_running(3));

  ASSERT_EQ(0, HandlePlayback(2, 0, Play(kStart).c_str()));
  ASSERT_TRUE(viewer_.Wait([&] { return viewer_.video >= 2; }));
  ASSERT_EQ(0, HandlePlayback(2, 0, "{\"cmd\":\"pause\"}"));
  // a frame under way when the pause came may still arrive; then nothing for half a second
  const long paused = testsupport::WaitUntilSettled(
      [&] {
        std::lock_guard<std::mutex> lock(viewer_.mu);
        return static_cast<long>(viewer_.video);
      },
      500ms);
  ASSERT_GE(paused, 0) << "the play went on through the pause";
  ASSERT_EQ(0, HandlePlayback(2, 0, "{\"cmd\":\"resume\"}"));
  EXPECT_TRUE(viewer_.Wait([&] { return viewer_.video > paused; }));
  ASSERT_EQ(0, HandlePlayback(2, 0, "{\"cmd\":\"stop\"}"));
  EXPECT_FALSE(playback_running(2));
}

TEST_F(PlayThreads, AListWaitsForRoomInTheControlQueueAndComesWhole) {
  records_ = 130;  // three chunks
  viewer_.busy_left = 5;
  ASSERT_EQ(0, playlist_start_play(0, 0, "{\"id\":4}"));
  ASSERT_TRUE(viewer_.Wait([&] { return viewer_.chunk_flags.size() == 3; }));
  std::lock_guard<std::mutex> lock(viewer_.mu);
  EXPECT_EQ(130u, viewer_.chunk_events);
  EXPECT_EQ(0, viewer_.chunk_flags[0] & playbackmsg::kChunkLast);
  EXPECT_NE(0, viewer_.chunk_flags[2] & playbackmsg::kChunkLast);
}

// A list names one camera of the hub or every camera, from a card that is ready; anything else
// is answered without events. Each of the four sessions' lists ends with its session's stop.
TEST_F(PlayThreads, ListsGiveOnlyKnownCamerasOfAReadyCardAndEverySessionsStopEndsItsList) {
  testsupport::LogCapture log;
  records_ = 3;
  auto chunks = [&](size_t n) {
    return viewer_.Wait([&] { return viewer_.chunk_flags.size() == n; });
  };
  ASSERT_EQ(0, playlist_start_play(1, 0, "{\"id\":5,\"mac\":\"0A00000000D1\"}"));
  ASSERT_TRUE(chunks(1));
  EXPECT_EQ(-1, playlist_start_play(1, 0, "{\"id\":6,\"mac\":\"0A00000000E9\"}"));
  ASSERT_TRUE(chunks(2));
  EXPECT_EQ(-1, playlist_start_play(-1, 0, "{\"id\":7}"));
  EXPECT_EQ(-1, playlist_start_play(4, 0, "{\"id\":7}"));
  card_ready_ = false;  // the index can still be read, but the card is not to be trusted
  ASSERT_EQ(0, playlist_start_play(2, 0, "{\"id\":8}"));
  ASSERT_TRUE(chunks(3));
  {
    std::lock_guard<std::mutex> lock(viewer_.mu);
    EXPECT_EQ(3u, viewer_.chunk_events);  // only the first list had events
    EXPECT_EQ((std::vector<uint32_t>{5, 6, 8}), viewer_.chunk_ids);
    EXPECT_EQ(0, viewer_.chunk_flags[0] & playbackmsg::kChunkRefused);
    EXPECT_NE(0, viewer_.chunk_flags[1] & playbackmsg::kChunkRefused);
    EXPECT_NE(0, viewer_.chunk_flags[2] & playbackmsg::kChunkNoCard);
  }

  // The last session's list waits for a viewer whose queue stays full; its stop ends it, and
  // nothing of it comes once the viewer has room again.
  card_ready_ = true;
  viewer_.busy_left = 1 << 30;
  ASSERT_EQ(0, playlist_start_play(3, 0, "{\"id\":9}"));
  const size_t mark = log.Mark();
  playlist_stop_play(3);
  EXPECT_FALSE(log.Has("No playlist to stop for session 3", mark));
  viewer_.busy_left = 0;
  ASSERT_EQ(0, playlist_start_play(0, 0, "{\"id\":10}"));
  ASSERT_TRUE(chunks(4));
  std::lock_guard<std::mutex> lock(viewer_.mu);
  EXPECT_EQ(10u, viewer_.chunk_ids.back());
}

TEST_F(PlayThreads, PlaysOfAnUnknownCameraOrEventOrOfAnUnreadableIndexAreRefused) {
  auto play = [](const std::string& mac, uint32_t start) {
    return "{\"mac\":\"" + mac + "\",\"start\":" + std::to_string(start) + ",\"offset\":0}";
  };
  for (const std::string& request :
       {play(kCamWithoutIndex, kStart), play("0A00000000E9", kStart), play(kMac, kStart + 1)}) {
    {
      std::lock_guard<std::mutex> lock(viewer_.mu);
      viewer_.states.clear();
    }
    EXPECT_EQ(-1, HandlePlayback(0, 0, request.c_str())) << request;
    ASSERT_TRUE(viewer_.WaitState(PlayState::kRefused)) << request;
    EXPECT_FALSE(playback_running(0));
  }
  std::lock_guard<std::mutex> lock(viewer_.mu);
  EXPECT_EQ(0, viewer_.video);
}

}  // namespace
