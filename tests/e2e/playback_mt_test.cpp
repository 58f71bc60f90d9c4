// Playback of stored events end to end: the real daemon on a board with an SD card, a real
// broker and the cloud agent simulator, simulated cameras whose motion events the hub records,
// and viewers over the open P2P transport (the viewer library in this process, the tool as a
// process). The list must name the recorded events with their start times and lengths; what a
// viewer decrypts must be the stored clip's samples byte for byte (start codes in place of the
// lengths) from the chosen key frame on, audio likewise; three plays run while a fourth viewer
// watches live and a camera records; and every end of a play (new seek, live start, session close,
// removal by the cloud, card removal, a cut or foreign clip) reaches the viewer while the hub goes
// on.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

extern "C" {
#include <libavformat/avformat.h>
}

#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera/frame.h"
#include "camsim/camsim.h"
#include "cloudsim/cloudsim.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "server/iotypes.h"
#include "support/mediaprobe.h"
#include "support/recordtree.h"
#include "support/testsupport.h"
#include "support/viewerhub.h"
#include "support/viewers.h"
#include "viewer/viewerframe.h"
#include "viewer/viewerplay.h"
#include "viewer/viewersession.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using playbackmsg::PlayState;
using testsupport::ExitCode;
using testsupport::Process;
using testsupport::WaitFor;

const char kCamA[] = "0A00000000A1";
const char kCamB[] = "0A00000000B2";
const char kIpA[] = "127.0.0.131";
const char kIpB[] = "127.0.0.132";
constexpr char kRecordRoot[] = "/mnt/mmcblk0p1/KELDA_RECORD_VIDEO";
constexpr int kEventSeconds = 4;

// The stored clip as read straight from its samples: video with each 4-byte length replaced by a
// start code, audio bytes with their times.
struct Stored {
  struct Sample {
    bool video;
    bool key;
    int64_t ms;
    Bytes data;
  };
  std::vector<Sample> samples;

  static Stored Read(const std::string& path) {
    Stored s;
    AVFormatContext* ctx = nullptr;
    if (avformat_open_input(&ctx, path.c_str(), nullptr, nullptr) < 0) return s;
    avformat_find_stream_info(ctx, nullptr);
    AVPacket* p = av_packet_alloc();
    while (av_read_frame(ctx, p) >= 0) {
      const AVStream* st = ctx->streams[p->stream_index];
      Sample x;
      x.video = st->codecpar->codec_id == AV_CODEC_ID_H264;
      x.key = (p->flags & AV_PKT_FLAG_KEY) != 0;
      x.ms = av_rescale_q(p->pts, st->time_base, AVRational{1, 1000});
      x.data.assign(p->data, p->data + p->size);
      if (x.video) {
        for (size_t at = 0; at + 4 <= x.data.size();) {
          const size_t n = (size_t{x.data[at]} << 24) | (size_t{x.data[at + 1]} << 16) |
                           (size_t{x.data[at + 2]} << 8) | x.data[at + 3];
          x.data[at] = x.data[at + 1] = x.data[at + 2] = 0;
          x.data[at + 3] = 1;
          at += 4 + n;
        }
      }
      s.samples.push_back(std::move(x));
      av_packet_unref(p);
    }
    av_packet_free(&p);
    avformat_close_input(&ctx);
    return s;
  }

  // Video frames from the key frame at or before offset_ms, and the audio bytes of that key
  // frame's time and later.
  void From(int64_t offset_ms, std::vector<Bytes>* video, Bytes* audio) const {
    int64_t key_ms = 0;
    for (const Sample& x : samples) {
      if (x.video && x.key && x.ms <= offset_ms) key_ms = x.ms;
    }
    bool on = false;
    for (const Sample& x : samples) {
      if (x.video && x.ms == key_ms) on = true;
      if (x.video && on) video->push_back(x.data);
      if (!x.video && x.ms >= key_ms) audio->insert(audio->end(), x.data.begin(), x.data.end());
    }
  }
  size_t VideoCount() const {
    size_t n = 0;
    for (const Sample& x : samples) n += x.video ? 1 : 0;
    return n;
  }
};

// A viewer in this process that keeps every frame it decrypts and every playback reply.
class Player {
 public:
  int Open(const viewer::AppCredentials& creds, uint16_t port) {
    const int rc = viewer_.Open(creds, port);
    if (rc != 0) return rc;
    viewer_.Read([this](bool video, const viewer::FrameInfo& info,
                        Bytes plain) { Take(video, info, std::move(plain)); },
                 [this](const p2p::ViewerIoCtrl& m) {
                   std::lock_guard<std::mutex> lock(mu_);
                   messages_.push_back(m);
                   changed_.notify_all();
                 });
    return 0;
  }
  void Close() {
    viewer_.Stop();
    viewer_.session().Close();
  }

  int Send(uint32_t type, const std::string& payload) { return viewer_.Send(type, payload); }
  int Play(const std::string& mac, long start, int offset = 0) {
    Clear();
    return Send(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME,
                viewer::PlayRequest(mac, static_cast<uint32_t>(start), offset));
  }

  // The event list of one camera (empty: all); false when it did not come whole.
  bool List(const std::string& mac, uint32_t id, viewer::EventList* list) {
    if (Send(server::IOTYPE_USER_IPCAM_SEND_META_START, viewer::EventListRequest(mac, id)) != 0) {
      return false;
    }
    std::unique_lock<std::mutex> lock(mu_);
    size_t seen = 0;
    return changed_.wait_for(lock, 10s,
                             [&] {
                               for (; seen < messages_.size(); seen++) list->Add(messages_[seen]);
                               return list->complete() || list->broken();
                             }) &&
           list->complete() && !list->broken();
  }

  // The next play state after `from` states seen; false on time-out.
  bool WaitState(PlayState state, std::chrono::milliseconds timeout = 30s,
                 playbackmsg::StateMessage* out = nullptr) {
    std::unique_lock<std::mutex> lock(mu_);
    return changed_.wait_for(lock, timeout, [&] {
      for (const auto& m : messages_) {
        playbackmsg::StateMessage s;
        if (viewer::ReadPlayState(m, &s) && s.state == state) {
          if (out != nullptr) *out = s;
          return true;
        }
      }
      return false;
    });
  }
  // The end of the clip and every video frame the hub counted in it: the state message goes as
  // control and may overtake the last frames.
  bool WaitEnd(playbackmsg::StateMessage* out = nullptr) {
    playbackmsg::StateMessage end;
    if (!WaitState(PlayState::kEnd, 30s, &end)) return false;
    if (out != nullptr) *out = end;
    return WaitVideo(end.frames);
  }
  std::vector<PlayState> States() {
    std::lock_guard<std::mutex> lock(mu_);
    std::vector<PlayState> states;
    for (const auto& m : messages_) {
      playbackmsg::StateMessage s;
      if (viewer::ReadPlayState(m, &s)) states.push_back(s.state);
    }
    return states;
  }
  bool WaitVideo(size_t n) {
    std::unique_lock<std::mutex> lock(mu_);
    return changed_.wait_for(lock, 20s, [&] { return video_.size() >= n; });
  }
  void Clear() {
    std::lock_guard<std::mutex> lock(mu_);
    messages_.clear();
    video_.clear();
    infos_.clear();
    audio_.clear();
  }
  std::vector<Bytes> Video() {
    std::lock_guard<std::mutex> lock(mu_);
    return video_;
  }
  std::vector<viewer::FrameInfo> Infos() {
    std::lock_guard<std::mutex> lock(mu_);
    return infos_;
  }
  Bytes Audio() {
    std::lock_guard<std::mutex> lock(mu_);
    return audio_;
  }
  int undecodable() const { return viewer_.undecodable(); }

 private:
  void Take(bool video, const viewer::FrameInfo& info, Bytes plain) {
    std::lock_guard<std::mutex> lock(mu_);
    if (video) {
      video_.push_back(std::move(plain));
      infos_.push_back(info);
    } else {
      audio_.insert(audio_.end(), plain.begin(), plain.end());
    }
    changed_.notify_all();
  }

  std::mutex mu_;
  std::condition_variable changed_;
  std::vector<p2p::ViewerIoCtrl> messages_;
  std::vector<Bytes> video_;
  std::vector<viewer::FrameInfo> infos_;
  Bytes audio_;
  testsupport::HeldViewer viewer_;  // last: its thread ends before the rest goes
};

class Playback : public testsupport::ViewerHubTest {
 protected:
  void SetUp() override {
    MakeBoard({"--card", "--force", "--camera", std::string(kCamA) + "," + kIpA, "--camera",
               std::string(kCamB) + "," + kIpB});
    platform::SetRootForTest(board_.path());
    for (const char* mac : {kCamA, kCamB}) {
      ASSERT_EQ(0, zcfg_uci_set(("p2p." + std::string(mac) + ".pir_duration").c_str(),
                                std::to_string(kEventSeconds).c_str()));
    }
    cloudsim::Options options;
    // URLs to a closed port: an event's upload fails at once, so the next event is not held up
    options.upload_base = "http://127.0.0.1:9/uploads";
    StartHub(options);
  }

  camsim::Camera& NewCamera(const std::string& mac, const std::string& ip) {
    camsim::Behaviour behaviour;
    behaviour.pir_stream = 60s;  // the hub ends the stream at the event's length
    return ViewerHubTest::NewCamera(testsupport::TestMediaCamera(mac, ip), behaviour);
  }

  // Both cameras record one motion event each; their start times.
  void RecordEvents() {
    camsim::Camera& a = NewCamera(kCamA, kIpA);
    camsim::Camera& b = NewCamera(kCamB, kIpB);
    ASSERT_EQ(0, a.RaisePir());
    ASSERT_EQ(0, b.RaisePir());
    for (const char* mac : {kCamA, kCamB}) {
      ASSERT_NE("", daemon_->WaitForLine(
                        "Move " + std::string(mac) + " pir event in sdcard succeed", 40s));
      const std::string t =
          daemon_->LastMatch("Found a PIR event camera: " + std::string(mac) + " time: ([0-9]+)");
      ASSERT_FALSE(t.empty());
      start_[mac] = std::atol(t.c_str());
    }
  }

  // The camera has stopped streaming and no further stop command is on its way: a live start
  // now is not ended by the stops of the event that just ended.
  bool Quiet(camsim::Camera& camera) {
    if (!camera.WaitUntil([](const camsim::Stats& s) { return !s.streaming; }, 20s)) return false;
    int last = -1;
    for (int i = 0; i < 40; i++) {
      const int stops = camera.GetStats().Count(command::kTypeControl, command::kSubStopStream);
      if (stops == last) return true;
      last = stops;
      std::this_thread::sleep_for(250ms);
    }
    return false;
  }

  std::unique_ptr<Player> NewPlayer() {
    auto p = std::make_unique<Player>();
    EXPECT_EQ(0, p->Open(creds_, p2p_port_));
    return p;
  }

  std::string Root() { return board_.path() + kRecordRoot; }
  std::string Clip(const std::string& mac) {
    return testsupport::EventPath(Root(), mac, start_[mac], "mp4");
  }

  // The viewer's frames and audio are the stored clip's from the key frame at or before offset.
  void ExpectStoredFrom(Player& p, const std::string& mac, int offset) {
    const Stored stored = Stored::Read(Clip(mac));
    ASSERT_GT(stored.VideoCount(), 0u);
    std::vector<Bytes> video;
    Bytes audio;
    stored.From(offset * 1000LL, &video, &audio);
    const std::vector<Bytes> got = p.Video();
    ASSERT_EQ(video.size(), got.size()) << mac << " from " << offset;
    for (size_t i = 0; i < got.size(); i++) EXPECT_EQ(video[i], got[i]) << "frame " << i;
    EXPECT_EQ(audio, p.Audio());
    const auto infos = p.Infos();
    ASSERT_FALSE(infos.empty());
    EXPECT_TRUE(infos.front().key_frame);
    EXPECT_EQ(0, infos.front().frame_index);
    EXPECT_EQ(1920, infos.front().width);
    EXPECT_GE(infos.front().seconds, static_cast<uint32_t>(start_[mac] + offset - 1));
    EXPECT_EQ(0, p.undecodable());
  }

  std::map<std::string, long> start_;
};

TEST_F(Playback, ListsTheRecordedEventsAndPlaysThemFromZeroAndFromASeekByteForByte) {
  RecordEvents();
  auto p = NewPlayer();
  viewer::EventList all(5);
  ASSERT_TRUE(p->List("", 5, &all));
  ASSERT_EQ(2u, all.events().size());
  EXPECT_EQ(kCamA, all.events()[0].mac);  // configuration order
  EXPECT_EQ(start_[kCamA], all.events()[0].start);
  EXPECT_EQ(kEventSeconds, all.events()[0].length);
  EXPECT_EQ(kCamB, all.events()[1].mac);
  EXPECT_EQ(start_[kCamB], all.events()[1].start);
  viewer::EventList one(6);
  ASSERT_TRUE(p->List(kCamB, 6, &one));
  ASSERT_EQ(1u, one.events().size());
  EXPECT_EQ(start_[kCamB], one.events()[0].start);

  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA]));
  playbackmsg::StateMessage end;
  ASSERT_TRUE(p->WaitEnd(&end));
  EXPECT_EQ((std::vector<PlayState>{PlayState::kStarted, PlayState::kEnd}), p->States());
  ExpectStoredFrom(*p, kCamA, 0);
  EXPECT_EQ(p->Video().size(), end.frames);
  EXPECT_EQ(Stored::Read(Clip(kCamA)).VideoCount(), end.frames);

  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA], 2));
  ASSERT_TRUE(p->WaitEnd());
  ExpectStoredFrom(*p, kCamA, 2);
  EXPECT_LT(p->Video().size(), Stored::Read(Clip(kCamA)).VideoCount());

  // the tool: the list and a play into files
  auto list = Viewer({"--events", "all"});
  EXPECT_EQ(0, ExitCode(list->Wait(20s)));
  EXPECT_TRUE(
      list->HasLine("^event " + std::string(kCamA) + " " + std::to_string(start_[kCamA]) + " 4$"));
  EXPECT_TRUE(list->HasLine("^events 2$"));
  const std::string h264 = board_.path() + "/tmp/play.h264";
  const std::string mp4 = board_.path() + "/tmp/play.mp4";
  auto play = Viewer({"--play", kCamB, std::to_string(start_[kCamB]), "--seek", "1", "--h264", h264,
                      "--mp4", mp4});
  EXPECT_EQ(0, ExitCode(play->Wait(30s)));
  EXPECT_TRUE(play->HasLine("^play state end frames [0-9]+$"));
  std::vector<Bytes> video;
  Bytes audio;
  Stored::Read(Clip(kCamB)).From(1000, &video, &audio);
  Bytes expected;
  for (const Bytes& f : video) expected.insert(expected.end(), f.begin(), f.end());
  const std::string written = testsupport::ReadFile(h264);
  EXPECT_EQ(std::string(expected.begin(), expected.end()), written);
  const testsupport::Probe probe = testsupport::ProbeFile(mp4);
  ASSERT_NE(nullptr, probe.Find("h264")) << probe.errors;
  EXPECT_EQ(static_cast<int64_t>(video.size()), probe.Find("h264")->packets);
}

TEST_F(Playback, ThreeViewersPlayWhileAFourthWatchesLiveAndACameraRecords) {
  RecordEvents();
  auto one = NewPlayer();
  auto two = NewPlayer();
  auto three = NewPlayer();
  auto live = NewPlayer();
  // the live viewer first, so that its camera streams while the clips play
  ASSERT_TRUE(Quiet(*cameras_[0]));
  ASSERT_EQ(0, live->Send(server::IOTYPE_USER_IPCAM_START,
                          "{\"mac\":\"" + std::string(kCamA) + "\",\"videoquality\":2}"));
  ASSERT_TRUE(live->WaitVideo(5));
  const size_t live_before = live->Video().size();
  ASSERT_EQ(0, one->Play(kCamA, start_[kCamA]));
  ASSERT_EQ(0, two->Play(kCamB, start_[kCamB], 1));
  ASSERT_EQ(0, three->Play(kCamA, start_[kCamA], 2));
  // camera B records a new event meanwhile (once the upload of its first has ended)
  ASSERT_TRUE(one->WaitVideo(5));
  ASSERT_NE("",
            daemon_->WaitForLine("Erase report mac " + std::string(kCamB) + " in alarm_list", 30s));
  const int moved =
      daemon_->CountLines("Move " + std::string(kCamB) + " pir event in sdcard succeed");
  ASSERT_EQ(0, cameras_[1]->RaisePir());
  ASSERT_TRUE(one->WaitEnd());
  ASSERT_TRUE(two->WaitEnd());
  ASSERT_TRUE(three->WaitEnd());
  ExpectStoredFrom(*one, kCamA, 0);
  ExpectStoredFrom(*two, kCamB, 1);
  ExpectStoredFrom(*three, kCamA, 2);
  ASSERT_TRUE(daemon_->WaitForLines("Move " + std::string(kCamB) + " pir event in sdcard succeed",
                                    moved + 1, 40s));
  viewer::EventList list(2);
  ASSERT_TRUE(three->List(kCamB, 2, &list));
  EXPECT_EQ(2u, list.events().size());
  EXPECT_TRUE(live->WaitVideo(live_before + 30));  // live frames went on meanwhile
  EXPECT_EQ(0, live->undecodable());

  // a session that closes in the middle of a play ends it without a word to anybody
  ASSERT_EQ(0, one->Play(kCamB, start_[kCamB]));
  ASSERT_TRUE(one->WaitVideo(2));
  one->Close();
  // ended by the close, or by the send that found the viewer gone just before
  EXPECT_TRUE(daemon_->WaitForLines(
      "Playback " + std::string(kCamB) + " [0-9]+ session [0-9] ends \\((stopped|viewer gone)\\)",
      1));
  EXPECT_NE("", daemon_->WaitForLine("Close client sessionID: "));
  ASSERT_EQ(0, two->Play(kCamB, start_[kCamB], 3));  // the hub plays on for the others
  ASSERT_TRUE(two->WaitEnd());
  ExpectStoredFrom(*two, kCamB, 3);
}

TEST_F(Playback, EveryEndReachesTheViewerAndTheHubGoesOn) {
  RecordEvents();
  auto p = NewPlayer();
  // a new seek replaces the play; a live start ends it
  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA]));
  ASSERT_TRUE(p->WaitVideo(3));
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME,
                       viewer::PlayRequest(kCamB, static_cast<uint32_t>(start_[kCamB]), 0)));
  ASSERT_TRUE(p->WaitState(PlayState::kReplaced));
  EXPECT_NE("",
            daemon_->WaitForLine("Playback " + std::string(kCamB) + " [0-9]+ session [0-9] from"));
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_START,
                       "{\"mac\":\"" + std::string(kCamB) + "\",\"videoquality\":2}"));
  ASSERT_TRUE(p->WaitState(PlayState::kStopped));
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_STOP, "{\"mac\":\"" + std::string(kCamB) + "\"}"));

  // pause holds the play, resume goes on, stop ends it
  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA]));
  ASSERT_TRUE(p->WaitVideo(2));
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, viewer::PlayCommand("pause")));
  ASSERT_NE("", daemon_->WaitForLine("Playback pause of session"));
  // what was under way when the pause came arrives, then nothing for a second (15 frames)
  const long paused =
      testsupport::WaitUntilSettled([&] { return static_cast<long>(p->Video().size()); }, 1s);
  ASSERT_GE(paused, 0) << "the play went on through the pause";
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, viewer::PlayCommand("resume")));
  ASSERT_TRUE(p->WaitVideo(static_cast<size_t>(paused) + 3));
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, viewer::PlayCommand("stop")));
  ASSERT_TRUE(p->WaitState(PlayState::kStopped));

  // a live stop ends a play as well
  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA]));
  ASSERT_TRUE(p->WaitVideo(2));
  ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_STOP, "{\"mac\":\"" + std::string(kCamA) + "\"}"));
  ASSERT_TRUE(p->WaitState(PlayState::kStopped));

  // the cloud deletes the clip being played: the play ends first, then the files go
  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA]));
  ASSERT_TRUE(p->WaitVideo(2));
  const int id = agent_->SendCommand(
      "deleteVideo", "[\"" + std::string(kCamA) + "\"," + std::to_string(start_[kCamA]) + "]");
  ASSERT_TRUE(agent_->WaitReply(id, nullptr));
  ASSERT_TRUE(p->WaitState(PlayState::kDeleted));
  EXPECT_FALSE(testsupport::FileExists(Clip(kCamA)));
  ASSERT_EQ(0, p->Play(kCamA, start_[kCamA]));  // gone from the index: refused
  ASSERT_TRUE(p->WaitState(PlayState::kRefused));

  // a cut clip and a foreign file are errors; the hub goes on
  const std::string clip_b = Clip(kCamB);
  const std::string keep = board_.path() + "/tmp/keep.mp4";
  std::filesystem::copy_file(clip_b, keep);
  std::filesystem::resize_file(clip_b, std::filesystem::file_size(keep) / 2);
  ASSERT_EQ(0, p->Play(kCamB, start_[kCamB]));
  ASSERT_TRUE(p->WaitState(PlayState::kError));
  testsupport::StoreEvent(Root(), kCamA, 1700000000);  // a 4-byte "clip" with its record
  ASSERT_EQ(0, p->Play(kCamA, 1700000000));
  ASSERT_TRUE(p->WaitState(PlayState::kError));
  EXPECT_NE("", daemon_->WaitForLine("cannot play the clip: .*truncated"));

  // the card goes during a play
  std::filesystem::remove(clip_b);
  std::filesystem::copy_file(keep, clip_b);
  ASSERT_EQ(0, p->Play(kCamB, start_[kCamB]));
  ASSERT_TRUE(p->WaitVideo(2));
  const int fd = open((board_.path() + "/sys/hub/events").c_str(), O_WRONLY | O_CLOEXEC);
  ASSERT_GE(fd, 0);
  ASSERT_EQ(12, write(fd, "card remove\n", 12));
  close(fd);
  ASSERT_TRUE(p->WaitState(PlayState::kDeleted));
  ASSERT_TRUE(WaitFor([&] { return !testsupport::FileExists(board_.path() + "/dev/mmcblk0p1"); }));
  viewer::EventList none(8);
  ASSERT_TRUE(p->List("", 8, &none));
  EXPECT_NE(0, none.flags() & playbackmsg::kChunkNoCard);
  EXPECT_TRUE(none.events().empty());
}

TEST_F(Playback, BadRequestsAreRefusedWithALogLineAndNothingIsOpened) {
  testsupport::StoreEvent(Root(), kCamA, 1700000000);
  auto p = NewPlayer();
  const int opened = daemon_->CountLines("Playback .* from [0-9]+ s:");
  for (const std::string& bad : {
           std::string(""),
           std::string("{"),
           "{\"mac\":\"" + std::string(kCamA) + "\"}",                         // no start
           std::string("{\"mac\":\"../../../../etc\",\"start\":1700000000}"),  // not a MAC
           std::string("{\"mac\":\"0A00000000FF\",\"start\":1700000000}"),     // unknown camera
           "{\"mac\":\"" + std::string(kCamA) + "\",\"start\":1700000001}",    // unknown time
           "{\"mac\":\"" + std::string(kCamB) + "\",\"start\":1700000000}",    // not its event
           "{\"mac\":\"" + std::string(kCamA) + "\",\"start\":1700000000,\"offset\":-5}",
       }) {
    const int refused = daemon_->CountLines("Playback request of session [0-9] refused: ");
    p->Clear();
    ASSERT_EQ(0, p->Send(server::IOTYPE_USER_IPCAM_RECORD_SEEKTIME, bad));
    ASSERT_TRUE(p->WaitState(PlayState::kRefused, 10s)) << bad;
    EXPECT_TRUE(daemon_->WaitForLines("Playback request of session [0-9] refused: ", refused + 1))
        << bad;
  }
  viewer::EventList refused(3);
  ASSERT_TRUE(p->List("0A00000000FF", 3, &refused));  // one last chunk, flagged refused
  EXPECT_TRUE(refused.events().empty());
  EXPECT_NE(0, refused.flags() & playbackmsg::kChunkRefused);
  EXPECT_EQ(opened, daemon_->CountLines("Playback .* from [0-9]+ s:"));
  // the session and the hub go on: the stored event is listed
  viewer::EventList one(4);
  ASSERT_TRUE(p->List(kCamA, 4, &one));
  ASSERT_EQ(1u, one.events().size());
  EXPECT_EQ(1700000000u, one.events()[0].start);
  p->Close();
  EXPECT_NE("", daemon_->WaitForLine("Close client sessionID: "));

  // the tool: its options documented, usage errors exit 2, a refused play exits 1
  auto help = Viewer({"--help"});
  EXPECT_EQ(0, ExitCode(help->Wait()));
  for (const char* option : {"--events MAC", "--play MAC START", "--seek S"}) {
    EXPECT_TRUE(help->HasLine(option)) << option;
  }
  for (const std::vector<std::string>& bad : {std::vector<std::string>{"--play", kCamA},
                                              {"--play", kCamA, "-1"},
                                              {"--events", "../etc"},
                                              {"--live", kCamA, "--events", "all"},
                                              {"--seek", "86401"},
                                              {"--h264", "/tmp/x.h264"}}) {
    EXPECT_EQ(2, ExitCode(Viewer(bad)->Wait())) << bad[0] << " " << bad[1];
  }
  auto refused_play = Viewer({"--play", kCamA, "1700000001"});
  EXPECT_EQ(1, ExitCode(refused_play->Wait(20s)));
  EXPECT_TRUE(refused_play->HasLine("^play state refused frames 0$"));
}

}  // namespace
