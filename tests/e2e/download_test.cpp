// Download of stored events end to end: the real daemon on a board with an SD card, a real
// broker with the cloud agent simulator (for the app's credentials), a simulated camera whose
// motion event the hub records, and viewers (the viewer tool as a process, the viewer library
// in the test) fetching clip and snapshot over the session's reliable transfer. Then refusals of
// bad requests, a second request during a running download, and sessions that end mid-transfer.
#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "camsim/camsim.h"
#include "p2p/iotc.h"
#include "platform/board.h"
#include "server/iotypes.h"
#include "support/mediaprobe.h"
#include "support/recordtree.h"
#include "support/testsupport.h"
#include "support/viewerhub.h"
#include "support/viewers.h"
#include "viewer/viewerdownload.h"
#include "viewer/viewersession.h"

namespace {

using namespace std::chrono_literals;
using testsupport::ExitCode;
using testsupport::FileExists;
using testsupport::Process;
using testsupport::ReadFile;

constexpr char kCam[] = "0A00000000D7";
constexpr char kIp[] = "127.0.0.127";
constexpr char kRecordRoot[] = "/mnt/mmcblk0p1/KELDA_RECORD_VIDEO";
constexpr int kWait = 10000;

TEST(DownloadTool, HelpNamesTheOptionsAndBadArgumentsAreUsageErrors) {
  auto run = [](std::vector<std::string> args) {
    auto p = testsupport::ViewerTool(args);
    const int code = ExitCode(p->Wait());
    std::string text;
    for (const auto& line : p->Lines()) text += line + "\n";
    return std::make_pair(code, text);
  };
  const auto help = run({"--help"});
  EXPECT_EQ(0, help.first);
  EXPECT_NE(std::string::npos, help.second.find("--download MAC START DIR"));
  EXPECT_NE(std::string::npos, help.second.find("--rdt-channel N"));
  for (const auto& bad : std::vector<std::vector<std::string>>{
           {"--credentials", "x", "--download", "0A00000000D7", "1700000000"},
           {"--credentials", "x", "--download", "0A00000000D", "1700000000", "/tmp"},
           {"--credentials", "x", "--download", "0A00000000D7", "-5", "/tmp"},
           {"--credentials", "x", "--download", "0A00000000D7", "1700000000", "/tmp",
            "--rdt-channel", "0"}}) {
    EXPECT_EQ(2, run(bad).first) << bad[3];
  }
}

class Download : public testsupport::ViewerHubTest {
 protected:
  void SetUp() override {
    MakeBoard({"--card", "--force", "--camera", std::string(kCam) + "," + kIp});
    platform::SetRootForTest(board_.path());
    StartHub();
    options_.port = p2p_port_;
  }

  std::string Root() { return board_.path() + kRecordRoot; }

  // A viewer session, logged in.
  void Open(viewer::Session* s) {
    ASSERT_EQ(0, s->Connect(creds_, options_));
    ASSERT_EQ(0, s->Login(creds_, options_));
  }

  // The hub's answer to a download request.
  std::string Ask(viewer::Session& s, const std::string& request) {
    EXPECT_EQ(0, s.SendIoCtrl(server::IOTYPE_USER_IPCAM_RECORD_DOWNLOAD, request));
    p2p::ViewerIoCtrl io;
    while (s.transport().RecvIoCtrl(&io, kWait) >= 0) {
      if (io.type == server::IOTYPE_USER_IPCAM_RECORD_DOWNLOAD_RESP)
        return std::string(io.data.begin(), io.data.end());
    }
    return "";
  }

  static std::string Request(const std::string& mac, long t, const std::string& file, int ch) {
    return "{\"mac\":\"" + mac + "\",\"start\":" + std::to_string(t) + ",\"file\":\"" + file +
           "\",\"channel\":" + std::to_string(ch) + "}";
  }

  // A planted clip of random bytes, with its snapshot and index record.
  std::string Plant(long t, size_t bytes) {
    testsupport::StoreEvent(Root(), kCam, t);
    std::string content(bytes, '\0');
    std::mt19937 random(static_cast<unsigned>(t));
    for (auto& c : content) c = static_cast<char>(random());
    const std::string clip = testsupport::EventPath(Root(), kCam, t, "mp4");
    testsupport::WriteFile(clip, content);
    return clip;
  }

  testsupport::TempDir out_;
  viewer::SessionOptions options_;
};

TEST_F(Download, ARecordedEventComesByteIdenticalThroughTheViewerTool) {
  camsim::Behaviour behaviour;
  behaviour.pir_stream = 60s;
  camsim::Camera& camera = NewCamera(testsupport::TestMediaCamera(kCam, kIp), behaviour);
  ASSERT_EQ(0, camera.RaisePir());
  ASSERT_NE("", daemon_->WaitForLine("Found a PIR event camera: ", 30s));
  const long t =
      std::atol(daemon_->LastMatch("Found a PIR event camera: \\w+ time: ([0-9]+)").c_str());
  ASSERT_GT(t, 0);
  ASSERT_NE(
      "", daemon_->WaitForLine("Copy " + std::string(kCam) + " jpeg file to SD card succeed", 60s));
  const std::string clip = testsupport::EventPath(Root(), kCam, t, "mp4");
  const std::string jpeg = testsupport::EventPath(Root(), kCam, t, "jpeg");
  ASSERT_TRUE(FileExists(clip) && FileExists(jpeg));

  auto tool = Viewer({"--download", kCam, std::to_string(t), out_.path()});
  EXPECT_EQ(0, ExitCode(tool->Wait()));
  const std::string clip_name = clip.substr(clip.rfind('/') + 1);
  const std::string jpeg_name = jpeg.substr(jpeg.rfind('/') + 1);
  const std::string on_card = ReadFile(clip);
  const std::string snapshot = ReadFile(jpeg);
  EXPECT_TRUE(tool->HasLine("^download mp4 " + clip_name + " bytes " +
                            std::to_string(on_card.size()) + "$"));
  EXPECT_TRUE(tool->HasLine("^download jpg " + jpeg_name + " bytes " +
                            std::to_string(snapshot.size()) + "$"));
  EXPECT_TRUE(ReadFile(out_.path() + "/" + clip_name) == on_card);
  EXPECT_TRUE(ReadFile(out_.path() + "/" + jpeg_name) == snapshot);
  EXPECT_GT(on_card.size(), 10000u);
  EXPECT_NE("", daemon_->WaitForLine("download for session [0-9]+ of .*" + jpeg_name + " done, " +
                                         std::to_string(snapshot.size()) + " bytes",
                                     5s));
  // An event that is not on the card: the tool says so and exits 1.
  auto missing = Viewer({"--download", kCam, std::to_string(t + 1), out_.path()});
  EXPECT_EQ(1, ExitCode(missing->Wait()));
  EXPECT_TRUE(missing->HasLine("^error download: refused mp4 result -3$"));
}

TEST_F(Download, BadRequestsAreRefusedWithALogLineAndNothingIsOpened) {
  const long t = 1700000000;
  Plant(t, 1000);
  viewer::Session s;
  Open(&s);
  struct Case {
    std::string payload;
    int result;
    std::string log;
  };
  const Case cases[] = {
      {"", -1, "refused: not JSON"},
      {"{\"mac\":\"" + std::string(kCam) + "\"", -1, "refused: not JSON"},
      {Request("../../../etc", t, "mp4", 2), -1, "refused: \"mac\" must be twelve hexadecimal"},
      {Request(kCam, 0, "mp4", 2), -1, "refused: \"start\" out of range"},
      {"{\"mac\":\"" + std::string(kCam) + "\",\"start\":\"1700000000\",\"file\":\"mp4\"," +
           "\"channel\":2}",
       -1, "refused: \"start\" must be an integer"},
      {Request(kCam, t, "../mp4", 2), -1, "refused: \"file\" must be"},
      {Request(kCam, t, "mp4", 0), -1, "refused: \"channel\" must be 1\\.\\.31"},
      {Request(kCam, t, "mp4", 32), -1, "refused: \"channel\" must be 1\\.\\.31"},
      {Request("0A00000000EE", t, "mp4", 2), -2, "refused: unknown camera 0A00000000EE"},
      {Request(kCam, t + 60, "mp4", 2), -3, "refused: .* is not on the card"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.payload);
    const int before = daemon_->CountLines("download request of session [0-9]+ " + c.log);
    const std::string answer = Ask(s, c.payload);
    EXPECT_NE(std::string::npos, answer.find("\"result\":" + std::to_string(c.result) + ","))
        << answer;
    EXPECT_EQ(std::string::npos, answer.find("\"size\"")) << answer;
    EXPECT_TRUE(
        daemon_->WaitForLines("download request of session [0-9]+ " + c.log, before + 1, 5s));
  }
  EXPECT_EQ(0, daemon_->CountLines("download: cannot open"));
  // The session is still good for a download after all that.
  viewer::DownloadOptions o;
  o.camera_mac = kCam;
  o.start = t;
  o.dir = out_.path();
  viewer::DownloadResult r;
  ASSERT_EQ(0, viewer::Download(s, o, &r)) << r.error;
  ASSERT_EQ(2u, r.files.size());
  EXPECT_EQ(ReadFile(testsupport::EventPath(Root(), kCam, t, "mp4")), ReadFile(r.files[0].path));
  EXPECT_EQ(ReadFile(testsupport::EventPath(Root(), kCam, t, "jpeg")), ReadFile(r.files[1].path));
}

TEST_F(Download, ASecondRequestIsRefusedAndASessionEndingMidTransferEndsItCleanly) {
  const long t = 1700000100;
  const std::string clip = Plant(t, 24 * 1024 * 1024);
  {
    viewer::Session s;
    Open(&s);
    const std::string answer = Ask(s, Request(kCam, t, "mp4", 3));
    ASSERT_NE(std::string::npos,
              answer.find("\"result\":0,\"mac\":\"" + std::string(kCam) +
                          "\",\"start\":" + std::to_string(t) +
                          ",\"file\":\"mp4\",\"size\":" + std::to_string(24 * 1024 * 1024)))
        << answer;
    // While it runs, another request of the session is refused.
    EXPECT_NE(std::string::npos, Ask(s, Request(kCam, t, "jpg", 4)).find("\"result\":-5,"));
    ASSERT_EQ(3, s.transport().RdtCreate(3, kWait));
    std::vector<char> buf(100000);
    ASSERT_GT(s.transport().RdtRead(3, buf.data(), buf.size(), kWait), 0);
    // The viewer leaves with the transfer under way; the hub's write waits for credit.
    s.Close();
  }
  EXPECT_NE("", daemon_->WaitForLine("download for session [0-9]+ of .* ended after [0-9]+ of " +
                                         std::to_string(24 * 1024 * 1024) + " bytes",
                                     10s));
  {
    viewer::Session s;
    Open(&s);
    ASSERT_NE(std::string::npos, Ask(s, Request(kCam, t, "mp4", 3)).find("\"result\":0,"));
    ASSERT_EQ(3, s.transport().RdtCreate(3, kWait));
    std::vector<char> buf(100000);
    ASSERT_GT(s.transport().RdtRead(3, buf.data(), buf.size(), kWait), 0);
    // A viewer that vanishes.
    s.Abort();
  }
  EXPECT_NE(
      "", daemon_->WaitForLine("download for session [0-9]+ of .* ended after .*code: -1001", 10s));
  {
    // Accepted, and the viewer leaves before it opens its RDT end: the hub's wait for it ends
    // with the session, well before its 10 s.
    viewer::Session s;
    Open(&s);
    ASSERT_NE(std::string::npos, Ask(s, Request(kCam, t, "mp4", 5)).find("\"result\":0,"));
    s.Close();
  }
  EXPECT_NE("", daemon_->WaitForLine(
                    "download for session [0-9]+: no RDT channel 5, code: -1001[678]", 5s));
  // The hub serves the whole file to the next viewer.
  viewer::Session s;
  Open(&s);
  viewer::DownloadOptions o;
  o.camera_mac = kCam;
  o.start = t;
  o.dir = out_.path();
  o.files = {"mp4"};
  viewer::DownloadResult r;
  ASSERT_EQ(0, viewer::Download(s, o, &r)) << r.error;
  EXPECT_TRUE(ReadFile(clip) == ReadFile(r.files.at(0).path));
  EXPECT_FALSE(FileExists(r.files.at(0).path + ".part"));
}

}  // namespace
