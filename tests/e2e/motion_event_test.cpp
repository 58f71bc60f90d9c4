// A motion event end to end: the real daemon on a board with an SD card, a real broker, the
// cloud agent simulator giving presigned URLs on Debian's nginx (HTTPS, the test CA in the
// board's CA folder), and a simulated camera streaming the generated 1080p clip with its A-law
// track. The clip and snapshot land in the card's tree and index, the uploads decrypt with the
// cloud's passwords to what players read, the event report is acknowledged and the spacing
// rules count from that acknowledgement. Then the failures: no card, a clock before 2018, a
// viewer that takes the camera over, a single key frame, a daemon killed mid-event and what a
// cut copy leaves on the card.
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/wait.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <vector>

#include "camera/frame.h"
#include "camsim/camsim.h"
#include "camsim/camsimmedia.h"
#include "camsim/camsimwire.h"
#include "cloudsim/cloudsim.h"
#include "cloudsim/uploads.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "support/broker.h"
#include "support/hubcamera.h"
#include "support/mediaprobe.h"
#include "support/recordtree.h"
#include "support/testsupport.h"
#include "support/viewers.h"
#include "support/webserver.h"
#include "viewer/viewersession.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FileExists;
using testsupport::ProbeFile;
using testsupport::Process;
using testsupport::ReadFile;
using testsupport::WaitFor;

constexpr char kCam[] = "0A00000000D1";
constexpr char kIp[] = "127.0.0.121";
constexpr char kRecordRoot[] = "/mnt/mmcblk0p1/KELDA_RECORD_VIDEO";

class MotionEvent : public ::testing::Test {
 protected:
  // Options of the board and the uci settings written before the daemon starts.
  void Start(std::vector<std::string> board_options = {"--card"},
             const std::map<std::string, std::string>& settings = {}) {
    ASSERT_TRUE(broker_.Start());
    testsupport::WebServerOptions web_options;
    web_options.put = true;
    web_ = std::make_unique<testsupport::WebServer>(web_options);
    ASSERT_TRUE(web_->Start());
    board_options.insert(board_options.end(),
                         {"--force", "--camera", std::string(kCam) + "," + kIp});
    testsupport::MakeBoard(board_.path(), board_options);
    web_->InstallCa(board_.path() + "/etc/ssl/certs");
    platform::SetRootForTest(board_.path());
    for (const auto& s : settings) {
      ASSERT_EQ(
          0, zcfg_uci_set(("p2p." + std::string(kCam) + "." + s.first).c_str(), s.second.c_str()));
    }
    env_ = testsupport::HubEnv(board_.path(), broker_.Env());
    StartDaemon();
    cloudsim::Options agent;
    agent.upload_base = web_->Url("/uploads");
    agent.board = board_.path();
    agent.credentials_file = board_.path() + "/tmp/app-credentials";
    agent_ = broker_.StartAgent(agent);
  }

  void StartDaemon() { ASSERT_TRUE(testsupport::StartHub(env_, &daemon_)); }

  void TearDown() override {
    if (camera_ != nullptr) camera_->Stop();
    // a sanitizer build's daemon reports what it finds on its standard error
    if (daemon_ != nullptr) {
      EXPECT_FALSE(daemon_->HasLine("ERROR: (Address|Leak|Thread)Sanitizer|runtime error:"));
    }
    if (HasFailure() && daemon_ != nullptr) {
      daemon_->PrintLines("hub: ");
      camera_log_.Print();
    }
  }

  // The camera, connected and logged in, streaming video (the generated clip unless given).
  void Camera(const std::string& video = "") {
    camsim::CameraConfig config = testsupport::TestMediaCamera(kCam, kIp);
    if (!video.empty()) config.video_file = video;
    camsim::Behaviour behaviour;
    behaviour.pir_stream = 60s;  // the hub ends the stream at the event's length
    camera_ = testsupport::ConnectCamera(board_.path(), testsupport::CameraEndpoint(env_), config,
                                         behaviour, *daemon_, &camera_log_);
  }

  // Raises a motion event; the event's start time, or 0 when the hub refused it.
  long Pir() {
    const int found = Lines("Found a PIR event camera: ");
    EXPECT_EQ(0, camera_->RaisePir());
    EXPECT_TRUE(WaitLines("Found a PIR event camera: ", found + 1));
    const std::string t = daemon_->LastMatch("Found a PIR event camera: \\w+ time: ([0-9]+)");
    return t.empty() ? 0 : std::atol(t.c_str());
  }

  // Waits until the alarm upload of the last event ended (handled or dropped).
  bool UploadDone(int count) {
    return WaitLines("(handle alarm succeed\\.\\.\\. |upload retry more than 3)", count, 60s);
  }

  int Lines(const std::string& pattern) { return daemon_->CountLines(pattern); }
  bool WaitLines(const std::string& pattern, int count, std::chrono::milliseconds timeout = 30s) {
    return daemon_->WaitForLines(pattern, count, timeout);
  }

  std::string Root() { return board_.path() + kRecordRoot; }
  std::string Index() { return Root() + "/" + kCam + "/.timestamp"; }

  // An upload decrypted with the password the cloud gave for it.
  std::string Decrypted(const cloudsim::IssuedUpload& u) {
    const std::string out = board_.path() + "/tmp/" + u.object_name;
    std::string error;
    EXPECT_EQ(0,
              cloudsim::DecryptFile(web_->uploads() + "/" + u.object_name, out, u.password, &error))
        << error;
    return out;
  }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  std::unique_ptr<testsupport::WebServer> web_;
  std::map<std::string, std::string> env_;
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
  testsupport::CameraLog camera_log_;
  std::unique_ptr<camsim::Camera> camera_;
};

TEST_F(MotionEvent, ClipAndSnapshotReachTheCardTheIndexAndTheCloudAndTheAckSpacesTheNext) {
  // the newer interval rule: 61 s and more are enforced by the hub
  Start({"--card"}, {{"set_pir_type", "1"}, {"new_interval", "61"}});
  Camera();
  const size_t reports_from = agent_->MessageCount();
  const long t = Pir();
  ASSERT_GT(t, 1514736000);
  ASSERT_TRUE(WaitLines("Pir frame count > 150 mac: " + std::string(kCam), 1));
  ASSERT_TRUE(UploadDone(1));
  EXPECT_EQ(1, Lines("handle alarm succeed\\.\\.\\. " + std::string(kCam)));
  // nobody watches: the camera is told to stop and sleep
  ASSERT_TRUE(camera_->WaitUntil([](const camsim::Stats& s) { return !s.streaming; }, 10s));

  // the card: clip and snapshot under the event's names, the index record with its length byte
  const std::string clip = testsupport::EventPath(Root(), kCam, t, "mp4");
  const std::string jpeg = testsupport::EventPath(Root(), kCam, t, "jpeg");
  ASSERT_TRUE(FileExists(clip)) << clip;
  ASSERT_TRUE(FileExists(jpeg)) << jpeg;
  const std::string index = ReadFile(Index());
  ASSERT_EQ(5u, index.size());
  EXPECT_EQ(std::vector<uint32_t>{static_cast<uint32_t>(t)}, testsupport::IndexTimes(Index()));
  EXPECT_EQ(10, index[4]);
  // the clip: every frame up to the one that reached the limit (indices 0..150), both tracks
  const testsupport::Probe stored = ProbeFile(clip);
  ASSERT_TRUE(stored.ok) << stored.errors;
  ASSERT_NE(nullptr, stored.Find("h264"));
  ASSERT_NE(nullptr, stored.Find("pcm_alaw"));
  EXPECT_EQ(151, stored.Find("h264")->packets);
  EXPECT_TRUE(testsupport::DecodesCleanly(clip));

  // the cloud: two encrypted files that decrypt to the same clip and a 640x360 JPEG
  const std::vector<cloudsim::IssuedUpload> urls = agent_->Uploads();
  ASSERT_EQ(2u, urls.size());
  ASSERT_EQ("jpeg", urls[0].suffix);
  ASSERT_EQ("mp4", urls[1].suffix);
  const std::string picture = Decrypted(urls[0]);
  const testsupport::Probe snapshot = ProbeFile(picture);
  ASSERT_NE(nullptr, snapshot.Find("mjpeg")) << snapshot.errors;
  EXPECT_EQ(640, snapshot.Find("mjpeg")->width);
  EXPECT_EQ(360, snapshot.Find("mjpeg")->height);
  const std::string uploaded = Decrypted(urls[1]);
  const std::string plain = ReadFile(clip);
  EXPECT_EQ(plain + std::string((16 - plain.size() % 16) % 16, '\0'), ReadFile(uploaded));
  const testsupport::Probe up = ProbeFile(uploaded);
  ASSERT_NE(nullptr, up.Find("h264")) << up.errors;
  EXPECT_EQ(151, up.Find("h264")->packets);
  EXPECT_NE(nullptr, up.Find("pcm_alaw"));

  // the event report in its exact form, acknowledged
  std::string report;
  ASSERT_TRUE(agent_->WaitReport("event.motion", &report, 1s, reports_from));
  EXPECT_TRUE(std::regex_match(
      report, std::regex("\\{\"id\":[0-9]+,\"method\":\"event\\.motion\",\"params\":\\[\"" +
                         urls[1].object_name + "\",\"" + urls[1].password + "\",\"" +
                         urls[0].object_name + "\",\"" + urls[0].password + "\",\"\",\"1\"\\]\\}")))
      << report;
  EXPECT_EQ(1, Lines("This is upload motion succeed ack " + std::string(kCam)));

  // the acknowledgement freed the camera and the 61 s now count from it
  const int stops = camera_->GetStats().Count(command::kTypeControl, command::kSubStopStream);
  Pir();
  ASSERT_TRUE(WaitLines("Pir event happen new interval < 61 seconds", 1));
  // The refused event's stream is stopped piece by piece of its first frame, one stop command
  // each: all of them reach the camera before the next event, or a late one would end its stream.
  std::string error;
  const auto clip_frames =
      camsim::VideoClip::Load(testsupport::TestMedia("camera-1080p15.h264"), &error);
  ASSERT_NE(nullptr, clip_frames) << error;
  const int pieces = camsim::PieceCount(clip_frames->at(0).data.size());
  ASSERT_TRUE(camera_->WaitUntil([&](const camsim::Stats& s) {
    return !s.streaming &&
           s.Count(command::kTypeControl, command::kSubStopStream) >= stops + pieces;
  }));
  // 60 s or less: never enforced by the hub
  const int id = agent_->SendCommand("set_alarm_config2",
                                     "{\"mac\":\"" + std::string(kCam) + "\",\"new_interval\":60}");
  ASSERT_TRUE(agent_->WaitReply(id, nullptr));
  const long t2 = Pir();
  ASSERT_TRUE(WaitLines("Move " + std::string(kCam) + " pir event in sdcard succeed", 2));
  // the index record is written just after that line
  EXPECT_TRUE(WaitFor([&] { return testsupport::IndexTimes(Index()).size() == 2u; }));
  EXPECT_TRUE(FileExists(testsupport::EventPath(Root(), kCam, t2, "mp4")));
}

TEST_F(MotionEvent, ClockBefore2018RefusesAndWithoutCardTheEventStillUploads) {
  Start({"--clock", "1500000000"});  // no card
  Camera();
  EXPECT_LT(Pir(), 1514736000);
  ASSERT_TRUE(WaitLines("pir time < 1514736000, system time error!!!", 1));
  // the cloud sets the time; a 5 s event is 75 frames; minutes of spacing
  agent_->SendLocalTime(1700000000);
  ASSERT_TRUE(WaitLines("Set system time success: 1700000000", 1));
  int id = agent_->SendCommand("set_alarm_config2",
                               "{\"mac\":\"" + std::string(kCam) + "\",\"pir_duration\":5}");
  ASSERT_TRUE(agent_->WaitReply(id, nullptr));
  id = agent_->SendCommand("set_alarm_config",
                           "{\"mac\":\"" + std::string(kCam) + "\",\"interval\":1}");
  ASSERT_TRUE(agent_->WaitReply(id, nullptr));
  ASSERT_GE(Pir(), 1700000000);
  ASSERT_TRUE(WaitLines("Pir frame count > 75 mac: ", 1));
  ASSERT_TRUE(UploadDone(1));
  EXPECT_EQ(1, Lines("Sdcard don't exist or popen fail"));
  EXPECT_EQ(1, Lines("Upload motion ok!"));
  const std::vector<cloudsim::IssuedUpload> urls = agent_->Uploads();
  ASSERT_EQ(2u, urls.size());
  const testsupport::Probe clip = ProbeFile(Decrypted(urls[1]));
  ASSERT_NE(nullptr, clip.Find("h264")) << clip.errors;
  EXPECT_EQ(76, clip.Find("h264")->packets);  // indices 0..75
  EXPECT_FALSE(FileExists(Root()));

  // one minute from the acknowledgement
  Pir();
  ASSERT_TRUE(WaitLines("Pir event happen interval < 1min", 1));
}

TEST_F(MotionEvent, AViewerStartingLiveViewForcesTheStopAndNothingIsStoredOrUploaded) {
  Start();
  Camera();
  agent_->SendLocalStatus("cloud_connected");
  viewer::AppCredentials creds;
  ASSERT_TRUE(
      testsupport::WaitForAppCredentials(*daemon_, board_.path() + "/tmp/app-credentials", &creds));
  Pir();
  ASSERT_TRUE(camera_->WaitUntil([](const camsim::Stats& s) { return s.video_frames >= 20; }));
  auto viewer = testsupport::ViewerTool(board_.path() + "/tmp/app-credentials",
                                        testsupport::EnvPort(env_, "TARVO_P2P_PORT"),
                                        {"--live", kCam, "--hold", "1"});
  ASSERT_TRUE(WaitLines("This is force stop pir event", 1));
  EXPECT_EQ(0, viewer->Wait(20s));
  EXPECT_EQ(0, Lines("Pir frame count > "));
  EXPECT_EQ(0, Lines("Move .* pir event in sdcard"));
  EXPECT_EQ(0, Lines("start upload pir: "));
  EXPECT_FALSE(FileExists(Index()));
  EXPECT_TRUE(agent_->Uploads().empty());
  // the camera is free for the next event at once
  EXPECT_GT(Pir(), 0);
  EXPECT_EQ(0, Lines("last event still handling"));
}

TEST_F(MotionEvent, AnEventWithOneKeyFrameHasNoSnapshotNoIndexRecordAndNoReport) {
  // 12 s of 320x240 video with a single key frame: the 151 frames of the event hold one
  const std::string dir = board_.path() + "/media";
  std::filesystem::create_directories(dir);
  const std::string video = dir + "/one-key.h264";
  ASSERT_EQ(0, std::system(("ffmpeg -nostdin -hide_banner -loglevel error -f lavfi -i "
                            "testsrc2=size=320x240:rate=15:duration=12 -c:v libx264 -preset "
                            "ultrafast -bf 0 -x264-params keyint=1000:min-keyint=1000:scenecut=0 "
                            "-f h264 " +
                            video)
                               .c_str()));
  Start();
  Camera(video);
  const long t = Pir();
  ASSERT_TRUE(UploadDone(1));
  EXPECT_EQ(0, Lines("Convert second I frame to jpeg"));
  EXPECT_EQ(1, Lines("Copy " + std::string(kCam) + " mp4 file to SD card succeed"));
  EXPECT_EQ(1, Lines("Copy " + std::string(kCam) + " jpeg file to SD card failed"));
  EXPECT_EQ(1, Lines("Move pir event in sdcard failed"));
  EXPECT_FALSE(FileExists(Index()));
  EXPECT_FALSE(FileExists(testsupport::EventPath(Root(), kCam, t, "jpeg")));
  // the upload starts with the snapshot, which is not there: dropped after three tries
  EXPECT_EQ(1, Lines("upload retry more than 3, but still fail"));
  EXPECT_FALSE(agent_->WaitReport("event.motion", nullptr, 100ms));

  // the clip the card keeps without a record goes at the next start
  const std::string clip = testsupport::EventPath(Root(), kCam, t, "mp4");
  ASSERT_TRUE(FileExists(clip));
  daemon_->Signal(SIGKILL);
  daemon_->Wait();
  StartDaemon();
  EXPECT_EQ(1, Lines("Remove unindexed record file .*" + std::to_string(t) + "\\.mp4"));
  EXPECT_FALSE(FileExists(clip));
}

TEST_F(MotionEvent, KilledMidEventTheScratchClipPlaysAndCutCopiesAreSweptAtStart) {
  Start();
  Camera();
  Pir();
  // 50 frames in: three whole fragments (key frames at 0, 15, 30, 45)
  ASSERT_TRUE(camera_->WaitUntil([](const camsim::Stats& s) { return s.video_frames >= 50; }));
  daemon_->Signal(SIGKILL);
  daemon_->Wait();
  const std::string scratch = board_.path() + "/tmp/" + kCam + "/alarm.mp4";
  const testsupport::Probe cut = ProbeFile(scratch);
  ASSERT_NE(nullptr, cut.Find("h264")) << cut.errors;
  EXPECT_GE(cut.Find("h264")->packets, 30);
  EXPECT_NE(nullptr, cut.Find("pcm_alaw"));
  EXPECT_TRUE(testsupport::DecodesCleanly(scratch));

  // What a cut during a copy or before the index append leaves on the card, beside an indexed
  // event: a temporary copy, a clip and snapshot without their record, a stray file.
  const long kept = 1700000000;
  const long orphan = 1700000100;
  testsupport::StoreEvent(Root(), kCam, kept);
  const std::string orphan_clip = testsupport::EventPath(Root(), kCam, orphan, "mp4");
  const std::string orphan_jpeg = testsupport::EventPath(Root(), kCam, orphan, "jpeg");
  testsupport::WriteFile(orphan_clip, "clip");
  testsupport::WriteFile(orphan_jpeg, "jpeg");
  const std::string temporary = testsupport::EventPath(Root(), kCam, kept, "mp4") + ".a1B2c3";
  testsupport::WriteFile(temporary, "half a clip");
  const long lonely = 1500000000;  // an hour folder of its own
  const std::string lonely_clip = testsupport::EventPath(Root(), kCam, lonely, "mp4");
  testsupport::WriteFile(lonely_clip, "clip");
  StartDaemon();
  ASSERT_TRUE(WaitLines("Record sweep done, 4 unindexed files removed", 1));
  EXPECT_TRUE(FileExists(testsupport::EventPath(Root(), kCam, kept, "mp4")));
  EXPECT_TRUE(FileExists(testsupport::EventPath(Root(), kCam, kept, "jpeg")));
  for (const std::string& gone : {orphan_clip, orphan_jpeg, temporary, lonely_clip}) {
    EXPECT_FALSE(FileExists(gone)) << gone;
  }
  EXPECT_FALSE(FileExists(Root() + "/" + kCam + "/" + testsupport::HourFolder(lonely)));
  EXPECT_EQ(std::vector<uint32_t>{static_cast<uint32_t>(kept)}, testsupport::IndexTimes(Index()));
}

}  // namespace
