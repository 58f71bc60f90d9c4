// Live view end to end: the daemon on a board with a real broker and the cloud agent simulator,
// simulated cameras streaming the generated 1080p clip (or generated frames) from their own
// loopback addresses, and viewers over the open P2P transport, both the tool as a process and
// the viewer library in this process. What the viewers decrypt is compared with the frames the
// camera sent, the tool's MP4 is read by ffprobe, a viewer moves between cameras, talkback
// reaches a camera, and a viewer that reads nothing never holds up the other.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <memory>
#include <mutex>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "camsim/camsim.h"
#include "camsim/camsimmedia.h"
#include "server/ioctrl.h"
#include "support/mediaprobe.h"
#include "support/testsupport.h"
#include "support/viewerhub.h"
#include "support/viewers.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using testsupport::ExitCode;
using testsupport::Process;
using testsupport::WaitFor;

const char kCamA[] = "0A00000000A1";
const char kCamB[] = "0A00000000B2";
const char kIpA[] = "127.0.0.121";
const char kIpB[] = "127.0.0.122";

Bytes ReadBytes(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  return Bytes(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

std::string LiveStart(const std::string& mac) {
  return "{\"mac\":\"" + mac + "\",\"videoquality\":2}";
}

// A viewer in this process whose every video frame is compared with the clips the cameras
// stream.
class Watcher {
 public:
  struct Frame {
    uint16_t index;
    bool key;
    int clip;  // which clip it is byte for byte (0 or 1), -1: none
  };

  Watcher(std::vector<std::shared_ptr<const camsim::VideoClip>> clips) : clips_(std::move(clips)) {}

  int Open(const viewer::AppCredentials& creds, uint16_t port) { return viewer_.Open(creds, port); }
  int Send(uint32_t type, const std::string& payload) { return viewer_.Send(type, payload); }

  // Starts reading what the hub sends.
  void Read() {
    viewer_.Read([this](bool video, const viewer::FrameInfo& info, Bytes plain) {
      if (!video) {
        audio_++;
        return;
      }
      int clip = -1;
      for (size_t c = 0; c < clips_.size(); c++) {
        if (clips_[c]->at(info.frame_index).data == plain) clip = static_cast<int>(c);
      }
      std::lock_guard<std::mutex> lock(mu_);
      frames_.push_back({info.frame_index, info.key_frame, clip});
    });
  }
  void Stop() { viewer_.Stop(); }

  std::vector<Frame> Frames() {
    std::lock_guard<std::mutex> lock(mu_);
    return frames_;
  }
  size_t Count(int clip) {
    std::lock_guard<std::mutex> lock(mu_);
    size_t n = 0;
    for (const Frame& f : frames_) n += f.clip == clip ? 1 : 0;
    return n;
  }
  int undecodable() const { return viewer_.undecodable(); }
  int audio() const { return audio_.load(); }
  viewer::Session& session() { return viewer_.session(); }

 private:
  std::vector<std::shared_ptr<const camsim::VideoClip>> clips_;
  std::mutex mu_;
  std::vector<Frame> frames_;
  std::atomic<int> audio_{0};
  testsupport::HeldViewer viewer_;  // last: its thread ends before the rest goes
};

class LiveView : public testsupport::ViewerHubTest {
 protected:
  void SetUp() override {
    video_ = testsupport::TestMedia("camera-1080p15.h264");
    audio_ = testsupport::TestMedia("camera-8k.alaw");
    ASSERT_FALSE(video_.empty()) << "scripts/make-test-media.sh failed";
    std::string error;
    clip_ = camsim::VideoClip::Load(video_, &error);
    ASSERT_NE(nullptr, clip_) << error;
    synthetic_ = camsim::VideoClip::Synthetic();
    MakeBoard({"--force", "--camera", std::string(kCamA) + "," + kIpA, "--camera",
               std::string(kCamB) + "," + kIpB});
    StartHub();
  }

  int Lines(const std::string& pattern) { return daemon_->CountLines(pattern); }

  // A camera, connected and logged in. The clip: the generated media, else generated frames.
  camsim::Camera& NewCamera(const std::string& mac, const std::string& ip, bool clip,
                            const std::string& talk_file = "") {
    camsim::CameraConfig config = testsupport::TestMediaCamera(mac, ip);
    if (!clip) config.video_file = config.audio_file = "";
    config.talk_file = talk_file;
    camsim::Behaviour behaviour;
    behaviour.awake_time = 0ms;  // streams and answers until told to sleep
    return ViewerHubTest::NewCamera(config, behaviour);
  }

  std::unique_ptr<Watcher> NewWatcher() {
    auto w = std::make_unique<Watcher>(
        std::vector<std::shared_ptr<const camsim::VideoClip>>{clip_, synthetic_});
    EXPECT_EQ(0, w->Open(creds_, p2p_port_));
    return w;
  }

  static bool Streaming(camsim::Camera& c, bool on) {
    return c.WaitUntil([on](const camsim::Stats& s) { return s.streaming == on; }, 20s);
  }

  std::string video_, audio_;
  std::shared_ptr<const camsim::VideoClip> clip_, synthetic_;
};

// The value after `key ` in a line of the tool's output, or -1.
long long Field(const std::string& line, const std::string& key) {
  std::istringstream in(line);
  std::string word;
  while (in >> word) {
    if (word == key) {
      long long v = -1;
      in >> v;
      return v;
    }
  }
  return -1;
}

std::string LineStarting(Process& p, const std::string& start) {
  for (const auto& line : p.Lines()) {
    if (line.compare(0, start.size(), start) == 0) return line;
  }
  return "";
}

TEST_F(LiveView, TwoViewersDecryptTheCamerasFramesByteForByteAndTheMp4HoldsThemAll) {
  camsim::Camera& cam = NewCamera(kCamA, kIpA, true);
  const std::string dir = board_.path() + "/tmp";
  auto tool = Viewer({"--live", kCamA, "--hold", "6", "--h264", dir + "/v.h264", "--mp4",
                      dir + "/v.mp4", "--frame-log", dir + "/v.csv"});
  auto other = NewWatcher();
  other->Read();
  ASSERT_EQ(0, other->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamA)));
  ASSERT_TRUE(Streaming(cam, true));
  ASSERT_EQ(0, ExitCode(tool->Wait(60s))) << ::testing::PrintToString(tool->Lines());

  // The tool: its stream, cut by the frame log, is the clip frame for frame, with no gap.
  const std::string stats = LineStarting(*tool, "video frames ");
  const long long frames = Field(stats, "frames");
  EXPECT_GE(frames, 45) << stats;
  EXPECT_EQ(0, Field(stats, "gaps")) << stats;
  EXPECT_GE(Field(stats, "key"), 3) << stats;
  const Bytes stream = ReadBytes(dir + "/v.h264");
  std::ifstream log(dir + "/v.csv");
  std::string line;
  std::getline(log, line);  // heading
  size_t at = 0;
  long long rows = 0, first_key = -1, mp4_expected = 0;
  while (std::getline(log, line)) {
    if (line.compare(0, 6, "video,") != 0) continue;
    unsigned number = 0, index = 0, key = 0, encrypted = 0;
    size_t bytes = 0;
    ASSERT_EQ(5, std::sscanf(line.c_str(), "video,%u,%u,%u,%zu,%u", &number, &index, &key, &bytes,
                             &encrypted))
        << line;
    EXPECT_EQ(1u, encrypted);
    const Bytes& sent = clip_->at(index).data;
    ASSERT_EQ(sent.size(), bytes) << "frame " << index;
    ASSERT_LE(at + bytes, stream.size());
    ASSERT_TRUE(std::equal(sent.begin(), sent.end(), stream.begin() + static_cast<long>(at)))
        << "frame " << index;
    at += bytes;
    if (first_key < 0 && key == 1 && clip_->at(index).key) first_key = rows;
    if (first_key >= 0) mp4_expected++;
    rows++;
  }
  EXPECT_EQ(frames, rows);
  EXPECT_EQ(stream.size(), at);

  // Its MP4, as ffprobe reads it: every frame from the first key frame on, 1920x1080.
  const std::string mp4 = LineStarting(*tool, "mp4 ");
  EXPECT_EQ(mp4_expected, Field(mp4, "frames")) << mp4;
  const std::string probe_out = dir + "/probe.txt";
  ASSERT_EQ(0, std::system(("ffprobe -v error -count_frames -select_streams v:0 -show_entries "
                            "stream=codec_name,width,height,nb_read_frames -of default=nw=1 " +
                            dir + "/v.mp4 > " + probe_out)
                               .c_str()));
  const std::string probe = testsupport::ReadFile(probe_out);
  EXPECT_NE(std::string::npos, probe.find("codec_name=h264")) << probe;
  EXPECT_NE(std::string::npos, probe.find("width=1920")) << probe;
  EXPECT_NE(std::string::npos, probe.find("height=1080")) << probe;
  EXPECT_NE(std::string::npos, probe.find("nb_read_frames=" + std::to_string(mp4_expected)))
      << probe;

  // The other viewer: every frame the clip's, consecutive; the camera streams on for it after
  // the tool's live stop, and stops when it leaves too.
  const size_t before = other->Count(0);
  ASSERT_TRUE(WaitFor([&] { return other->Count(0) >= before + 15; }, 20s));
  EXPECT_TRUE(cam.GetStats().streaming);
  ASSERT_EQ(0, other->Send(server::IOTYPE_USER_IPCAM_STOP, "{\"mac\":\"0A00000000A1\"}"));
  ASSERT_TRUE(Streaming(cam, false));
  other->Stop();
  const std::vector<Watcher::Frame> got = other->Frames();
  ASSERT_GE(got.size(), 60u);
  for (size_t i = 0; i < got.size(); i++) {
    EXPECT_EQ(0, got[i].clip) << "frame " << got[i].index;
    if (i > 0) {
      EXPECT_EQ(static_cast<uint16_t>(got[i - 1].index + 1), got[i].index);
    }
  }
  EXPECT_EQ(0, other->undecodable());
  EXPECT_GT(other->audio(), 0);
}

TEST_F(LiveView, AMovedViewerStopsTheCameraItLeftOnlyWhenNobodyElseWatchesAndTalkbackArrives) {
  camsim::Camera& a = NewCamera(kCamA, kIpA, true);
  const std::string talk_file = board_.path() + "/tmp/talk-b.alaw";
  camsim::Camera& b = NewCamera(kCamB, kIpB, false, talk_file);
  auto x = NewWatcher();
  auto y = NewWatcher();
  x->Read();
  y->Read();
  ASSERT_EQ(0, x->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamA)));
  ASSERT_EQ(0, y->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamA)));
  ASSERT_TRUE(WaitFor([&] { return x->Count(0) >= 5 && y->Count(0) >= 5; }, 20s));

  // X moves to B: A keeps streaming for Y.
  ASSERT_EQ(0, x->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamB)));
  ASSERT_TRUE(WaitFor([&] { return x->Count(1) >= 5; }, 20s));
  EXPECT_EQ(0, a.GetStats().Count(0x01, 0x03));
  EXPECT_TRUE(a.GetStats().streaming);
  const size_t y_before = y->Count(0);
  ASSERT_TRUE(WaitFor([&] { return y->Count(0) >= y_before + 5; }, 20s));

  // Y moves too: A has no viewer left and is told to stop.
  ASSERT_EQ(0, y->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamB)));
  ASSERT_TRUE(Streaming(a, false));
  EXPECT_GE(a.GetStats().Count(0x01, 0x03), 1);
  ASSERT_TRUE(WaitFor([&] { return y->Count(1) >= 5; }, 20s));
  EXPECT_TRUE(b.GetStats().streaming);

  // Talkback from the tool to B: 100 frames of 320 bytes; frames 0, 10, ..., 90 are left out.
  const Bytes alaw = ReadBytes(audio_);
  ASSERT_GE(alaw.size(), 32000u);
  const std::string source = board_.path() + "/tmp/talk-source.alaw";
  testsupport::WriteFile(source, std::string(alaw.begin(), alaw.begin() + 32000));
  // It also asks for the smaller picture once its first frame has come.
  auto tool = Viewer({"--live", kCamB, "--talk", source, "--hold", "1", "--set-quality", "1"});
  ASSERT_EQ(0, ExitCode(tool->Wait(60s))) << ::testing::PrintToString(tool->Lines());
  EXPECT_TRUE(tool->HasLine("^talk frames 100 bytes 32000$"));
  EXPECT_TRUE(tool->HasLine("^quality 1$"));
  EXPECT_TRUE(WaitFor([&] { return Lines("Set video quality to 1 success") >= 1; }));
  EXPECT_EQ(1280, b.GetStats().width);
  EXPECT_EQ(720, b.GetStats().height);
  ASSERT_TRUE(b.WaitUntil([](const camsim::Stats& s) { return s.talk_frames >= 90; }, 20s));
  Bytes expected;
  for (size_t k = 0; k < 100; k++) {
    if (k % 10 == 0) continue;
    expected.insert(expected.end(), alaw.begin() + static_cast<long>(k * 320),
                    alaw.begin() + static_cast<long>((k + 1) * 320));
  }
  EXPECT_EQ(90, b.GetStats().talk_frames);
  EXPECT_EQ(expected, ReadBytes(talk_file));
  EXPECT_EQ(1, Lines("\\[thread_ReceiveAudio\\] start ok sid: [0-9]+, idx: [0-9]+, speakerCh: 1$"));
  EXPECT_TRUE(WaitFor([&] { return Lines("\\[thread_ReceiveAudio\\] exit sid: ") == 1; }));

  x->Stop();
  y->Stop();
  EXPECT_EQ(0, x->undecodable());
  for (const Watcher::Frame& f : x->Frames()) EXPECT_NE(-1, f.clip) << f.index;
}

TEST_F(LiveView, AClosedSessionLeavesNoRegistrationForTheSlotsNextViewer) {
  camsim::Camera& a = NewCamera(kCamA, kIpA, true);
  auto x = NewWatcher();
  x->Read();
  ASSERT_EQ(0, x->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamA)));
  ASSERT_TRUE(WaitFor([&] { return x->Count(0) >= 5; }, 20s));
  // The camera falls asleep: no frame passes that could tell the hub the viewer left.
  ASSERT_EQ(0, a.Sleep());
  ASSERT_TRUE(Streaming(a, false));
  x->Stop();
  x->session().Close();
  // The close itself takes the slot off the camera, before any frame and any new login.
  EXPECT_TRUE(WaitFor(
      [&] { return Lines("Remove live client slot [0-9] from camera " + std::string(kCamA)) >= 1; },
      20s));
  auto z = NewWatcher();
  EXPECT_EQ(1, Lines("Remove live client slot [0-9] from camera " + std::string(kCamA)));
}

TEST_F(LiveView, AViewerThatReadsNothingIsResetWhileTheOtherGetsEveryFrame) {
  camsim::Camera& cam = NewCamera(kCamA, kIpA, true);
  auto reader = NewWatcher();
  auto stalled = NewWatcher();  // logged in second, never reads
  const std::regex av_line("avServStart3 OK, avIndex: ([0-9]+),");
  std::vector<std::string> av;
  ASSERT_TRUE(WaitFor([&] {
    av.clear();
    for (const auto& line : daemon_->Lines()) {
      std::smatch m;
      if (std::regex_search(line, m, av_line)) av.push_back(m[1]);
    }
    return av.size() == 2;
  }));
  reader->Read();
  ASSERT_EQ(0, reader->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamA)));
  ASSERT_EQ(0, stalled->Send(server::IOTYPE_USER_IPCAM_START, LiveStart(kCamA)));
  ASSERT_TRUE(Streaming(cam, true));

  // The stalled viewer's queues fill up (its library's, its socket's, then the hub's); from
  // then on its video is reset.
  ASSERT_NE("", daemon_->WaitForLine("AV_ER_EXCEED_MAX_SIZE index: " + av[1] + "$", 120s));
  const size_t at_reset = reader->Count(0);
  ASSERT_TRUE(WaitFor([&] { return reader->Count(0) >= at_reset + 30; }, 20s));
  reader->Stop();
  EXPECT_EQ(0, Lines("AV_ER_EXCEED_MAX_SIZE index: " + av[0] + "$"));
  EXPECT_EQ(0, Lines("stop client "));

  // The reader's frames: all the clip's, one after the other, none missing.
  const std::vector<Watcher::Frame> got = reader->Frames();
  ASSERT_GE(got.size(), 100u);
  for (size_t i = 0; i < got.size(); i++) {
    ASSERT_EQ(0, got[i].clip) << "frame " << got[i].index;
    if (i > 0) {
      ASSERT_EQ(static_cast<uint16_t>(got[i - 1].index + 1), got[i].index);
    }
  }
  EXPECT_EQ(0, reader->undecodable());
}

}  // namespace
