// Download of stored events through the hub's download code over a real P2P session on
// loopback: the viewer library logs in, the session thread's call (filetransfer_request) is made
// here with files of a temporary folder standing for the card, and the viewer reads the answer
// and the file's bytes from its RDT end.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <tuple>
#include <vector>

#include "media/filetransfer.h"
#include "p2p/iotc.h"
#include "p2p/transport.h"
#include "support/logcapture.h"
#include "support/p2psession.h"
#include "support/testsupport.h"
#include "viewer/p2pviewer.h"

namespace {

using testsupport::WaitFor;

const char kCam[] = "0A00000000A1";
const char kUid[] = "TARVOTESTUID00000004";
const char kPassword[] = "004217";
constexpr long kEvent = 1700000000;
constexpr int kWait = 10000;  // ms: only ever reached when something is wrong
constexpr uint32_t kAnswer = 0xF011;

// The card: (mac, start, extension) -> path. A missing entry is "not on the card"; while
// g_card_error is set every lookup fails as an unreadable card does.
std::mutex g_card_mutex;
std::map<std::tuple<std::string, long, std::string>, std::string> g_card;
bool g_card_error = false;

int Locate(char* path, long* timestamp, char* ext, char* mac) {
  std::lock_guard<std::mutex> lock(g_card_mutex);
  if (g_card_error) return -1;
  auto it = g_card.find({mac, *timestamp, ext});
  if (it == g_card.end()) return -2;
  std::snprintf(path, 256, "%s", it->second.c_str());
  return 0;
}

int Auth(char*, char*) {
  return 1;
}

std::string Bytes(size_t n, unsigned seed) {
  std::string s(n, '\0');
  for (size_t i = 0; i < n; ++i) s[i] = static_cast<char>((i * 131 + seed * 7) ^ (i >> 11));
  return s;
}

class BoardEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    board_ = std::make_unique<testsupport::TempDir>();
    testsupport::MakeBoard(board_->path(), {"--force", "--camera", std::string(kCam)});
    setenv("TARVO_ROOT", board_->path().c_str(), 1);
    filetransfer_set_locator(Locate);
  }

 private:
  std::unique_ptr<testsupport::TempDir> board_;
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new BoardEnvironment);

class FileTransfer : public ::testing::Test {
 protected:
  void SetUp() override {
    port_ = testsupport::StartHubTransport(kUid, kPassword, 8, true);
    ASSERT_NE(0, port_);
    const auto session =
        testsupport::AcceptViewer(viewer_, port_, kUid, kPassword, "v", "x", Auth, kWait);
    sid_ = session.sid;
    av_ = session.av;
    ASSERT_GE(av_, 0);
    std::lock_guard<std::mutex> lock(g_card_mutex);
    g_card.clear();
    g_card_error = false;
  }
  void TearDown() override {
    filetransfer_stop(sid_);
    viewer_.Close();
    testsupport::StopHubTransport(true);
  }

  // A file on the card for (kCam, start, ext); its path.
  std::string Store(long start, const char* ext, const std::string& content) {
    const std::string path = dir_.path() + "/" + std::to_string(start) + "." + ext;
    testsupport::WriteFile(path, content);
    std::lock_guard<std::mutex> lock(g_card_mutex);
    g_card[{kCam, start, ext}] = path;
    return path;
  }
  static std::string Request(const std::string& mac, long long start, const std::string& file,
                             int channel) {
    return "{\"mac\":\"" + mac + "\",\"start\":" + std::to_string(start) + ",\"file\":\"" + file +
           "\",\"channel\":" + std::to_string(channel) + "}";
  }
  // The hub's answer to the last request.
  std::string Answer() {
    p2p::ViewerIoCtrl io;
    if (viewer_.RecvIoCtrl(&io, kWait) < 0) return "(no answer)";
    if (io.type != kAnswer) return "(type " + std::to_string(io.type) + ")";
    return std::string(io.data.begin(), io.data.end());
  }
  // Everything of the viewer's RDT end on the channel until it ends; the end code in *code.
  std::string ReadAll(uint8_t channel, int* code) {
    const int id = viewer_.RdtCreate(channel, kWait);
    if (id < 0) {
      *code = id;
      return "";
    }
    std::string got;
    std::vector<char> buf(50000);
    for (;;) {
      const int n = viewer_.RdtRead(id, buf.data(), buf.size(), kWait);
      if (n < 0) {
        *code = n;
        viewer_.RdtDestroy(id);
        return got;
      }
      got.append(buf.data(), static_cast<size_t>(n));
    }
  }

  testsupport::TempDir dir_;
  testsupport::LogCapture log_;
  uint16_t port_ = 0;
  p2p::Viewer viewer_;
  int sid_ = -1;
  int av_ = -1;
};

TEST_F(FileTransfer, AClipAndASnapshotComeWholeAndTheAnswerNamesThem) {
  const std::string clip = Bytes(3 * 65536 + 1234, 1);  // pieces of 64 KiB and an odd tail
  Store(kEvent, "mp4", clip);
  const std::string snapshot = Bytes(777, 2);
  Store(kEvent, "jpeg", snapshot);

  ASSERT_EQ(0, filetransfer_request(sid_, av_, Request("0a00000000a1", kEvent, "mp4", 2).c_str()));
  EXPECT_EQ(
      "{\"result\":0,\"mac\":\"0A00000000A1\",\"start\":1700000000,\"file\":\"mp4\",\"size\":" +
          std::to_string(clip.size()) + ",\"name\":\"1700000000.mp4\"}",
      Answer());
  int code = 0;
  EXPECT_TRUE(ReadAll(2, &code) == clip);
  EXPECT_EQ(RDT_ER_REMOTE_EXIT, code);  // destroyed after the last byte: the file is whole
  EXPECT_TRUE(log_.Wait("download for session [0-9]+ of .*1700000000\\.mp4 done, " +
                        std::to_string(clip.size()) + " bytes"));

  ASSERT_EQ(0, filetransfer_request(sid_, av_, Request(kCam, kEvent, "jpg", 31).c_str()));
  EXPECT_EQ(
      "{\"result\":0,\"mac\":\"0A00000000A1\",\"start\":1700000000,\"file\":\"jpg\","
      "\"size\":777,\"name\":\"1700000000.jpeg\"}",
      Answer());
  EXPECT_TRUE(ReadAll(31, &code) == snapshot);
  EXPECT_EQ(RDT_ER_REMOTE_EXIT, code);
}

TEST_F(FileTransfer, BadRequestsAreAnsweredWithTheirResultAndNothingIsSent) {
  Store(kEvent, "mp4", "clip");
  std::filesystem::create_directory(dir_.path() + "/folder.mp4");
  std::filesystem::create_symlink(dir_.path() + "/1700000000.mp4", dir_.path() + "/link.mp4");
  {
    std::lock_guard<std::mutex> lock(g_card_mutex);
    g_card[{kCam, kEvent + 1, "mp4"}] = dir_.path() + "/folder.mp4";
    g_card[{kCam, kEvent + 2, "mp4"}] = dir_.path() + "/link.mp4";
  }
  struct Case {
    std::string payload;
    int result;
    const char* why;
  };
  const std::vector<Case> cases = {
      {"{\"mac\":", -1, "not JSON"},
      {Request("0A00000000A", kEvent, "mp4", 2), -1, "\"mac\" must be twelve hexadecimal digits"},
      {Request("0A00000000AG", kEvent, "mp4", 2), -1, "\"mac\" must be twelve"},
      {"{\"mac\":\"0A00000000A1\",\"start\":\"1700000000\",\"file\":\"mp4\",\"channel\":2}", -1,
       "\"start\" must be an integer"},
      {Request(kCam, 0, "mp4", 2), -1, "\"start\" out of range"},
      {Request(kCam, 4294967296LL, "mp4", 2), -1, "\"start\" out of range"},
      {Request(kCam, kEvent, "avi", 2), -1, "\"file\" must be \"mp4\" or \"jpg\""},
      {Request(kCam, kEvent, "mp4", 0), -1, "\"channel\" must be 1..31"},
      {Request(kCam, kEvent, "mp4", 32), -1, "\"channel\" must be 1..31"},
      {Request("0A00000000EE", kEvent, "mp4", 2), -2, "unknown camera 0A00000000EE"},
      {Request(kCam, kEvent + 60, "mp4", 2), -3, "0A00000000A1 1700000060.mp4 is not on the card"},
      {Request(kCam, kEvent + 1, "mp4", 2), -4, ""},  // a folder
      {Request(kCam, kEvent + 2, "mp4", 2), -4, ""},  // a link is never followed
  };
  for (const Case& c : cases) {
    const size_t mark = log_.Mark();
    EXPECT_EQ(-1, filetransfer_request(sid_, av_, c.payload.c_str())) << c.payload;
    const std::string answer = Answer();
    EXPECT_EQ(0u, answer.find("{\"result\":" + std::to_string(c.result) + ","))
        << c.payload << " -> " << answer;
    EXPECT_EQ(std::string::npos, answer.find("\"size\"")) << answer;
    if (c.why[0] != '\0') {
      EXPECT_TRUE(
          log_.Has(": download request of session " + std::to_string(sid_) + " refused: ", mark))
          << c.payload;
      bool found = false;
      for (const std::string& line : log_.Lines()) found |= line.find(c.why) != std::string::npos;
      EXPECT_TRUE(found) << c.why;
    }
  }
  {
    std::lock_guard<std::mutex> lock(g_card_mutex);
    g_card_error = true;
  }
  EXPECT_EQ(-1, filetransfer_request(sid_, av_, Request(kCam, kEvent, "mp4", 2).c_str()));
  EXPECT_EQ(0u, Answer().find("{\"result\":-4,"));
  // Nothing was started: no transfer to stop, no RDT end of the hub to meet.
  EXPECT_EQ(-1, filetransfer_stop(sid_));
  EXPECT_EQ(RDT_ER_TIMEOUT, viewer_.RdtCreate(2, 300));
}

TEST_F(FileTransfer, ABusySessionIsRefusedAndAStoppedOrShortFileNeverEndsLikeAWholeOne) {
  const std::string big = Bytes(4 << 20, 3);
  Store(kEvent, "mp4", big);
  ASSERT_EQ(0, filetransfer_request(sid_, av_, Request(kCam, kEvent, "mp4", 2).c_str()));
  ASSERT_EQ(0u, Answer().find("{\"result\":0,"));
  const int id = viewer_.RdtCreate(2, kWait);
  ASSERT_EQ(2, id);
  std::vector<char> buf(4096);
  ASSERT_GT(viewer_.RdtRead(id, buf.data(), buf.size(), kWait), 0);
  // The viewer reads no more: the hub waits for credit, and a second request is refused.
  EXPECT_EQ(-1, filetransfer_request(sid_, av_, Request(kCam, kEvent, "mp4", 3).c_str()));
  EXPECT_EQ(0u, Answer().find("{\"result\":-5,"));
  EXPECT_TRUE(log_.Has("refused: a download is already running"));
  EXPECT_EQ(0, filetransfer_stop(sid_));
  int n = 0;
  size_t got = 4096;
  while ((n = viewer_.RdtRead(id, buf.data(), buf.size(), kWait)) > 0) got += n;
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, n);
  EXPECT_LT(got, big.size());
  // With the code of the write the stop met: inside it, the abort; after it, the next write finds
  // the channel gone. Between the two, no code.
  EXPECT_TRUE(
      log_.Wait(": download for session [0-9]+ of .*/1700000000\\.mp4 ended after [0-9]+ "
                "of 4194304 bytes \\(session closing\\)(, code: -100(12|08))?$"));
  if (HasFailure())
    for (const std::string& line : log_.Lines())
      if (line.find("download") != std::string::npos) std::printf("%s\n", line.c_str());
  viewer_.RdtDestroy(id);
  EXPECT_EQ(-1, filetransfer_stop(sid_));

  // The file loses its second half between the answer and the transfer.
  const std::string path = Store(kEvent + 60, "mp4", big);
  ASSERT_EQ(0, filetransfer_request(sid_, av_, Request(kCam, kEvent + 60, "mp4", 4).c_str()));
  ASSERT_EQ(0u, Answer().find("{\"result\":0,"));
  ASSERT_EQ(0, truncate(path.c_str(), static_cast<off_t>(big.size() / 2)));
  int code = 0;
  const std::string half = ReadAll(4, &code);
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, code);
  EXPECT_LE(half.size(), big.size() / 2);
  EXPECT_TRUE(
      log_.Wait("download: reading .* failed after " + std::to_string(big.size() / 2) + " bytes"));
  EXPECT_TRUE(
      log_.Wait(": download for session [0-9]+ of .*/1700000060\\.mp4 ended after 2097152 "
                "of 4194304 bytes, code: -1$"));

  // Stopped while the hub still waits for the viewer's RDT end: an end the viewer opens later
  // gets nothing but the abort, and an end never opened is given up with the session.
  ASSERT_EQ(0, filetransfer_request(sid_, av_, Request(kCam, kEvent, "mp4", 5).c_str()));
  ASSERT_EQ(0u, Answer().find("{\"result\":0,"));
  EXPECT_EQ(0, filetransfer_stop(sid_));
  EXPECT_EQ("", ReadAll(5, &code));
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, code);
  EXPECT_TRUE(
      log_.Wait(": download for session [0-9]+ of .*/1700000000\\.mp4 ended after 0 of "
                "4194304 bytes \\(session closing\\)$"));
  EXPECT_EQ(-1, filetransfer_stop(sid_));

  ASSERT_EQ(0, filetransfer_request(sid_, av_, Request(kCam, kEvent, "mp4", 6).c_str()));
  ASSERT_EQ(0u, Answer().find("{\"result\":0,"));
  EXPECT_EQ(0, filetransfer_stop(sid_));
  const size_t mark = log_.Mark();
  viewer_.Close();
  EXPECT_TRUE(log_.Wait("no RDT channel 6", mark));
  // Nothing runs for the session any more; the call joins the ended thread.
  EXPECT_EQ(-1, filetransfer_stop(sid_));
}

}  // namespace
