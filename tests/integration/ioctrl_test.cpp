// The viewer's I/O-control messages on a media server of this process: a board with two
// cameras (not connected, so the commands to them are refused and logged), the four session
// slots, and Handle_IOCTRL_Cmd as a session thread calls it.
#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <regex>
#include <string>
#include <vector>

#include "base/log.h"
#include "camera/livechannel.h"
#include "p2p/client.h"
#include "server/ioctrl.h"
#include "server/mediaserver.h"
#include "support/mediaserverenv.h"
#include "support/testsupport.h"

namespace {

const char kCamA[] = "0A00000000A1";
const char kCamB[] = "0A00000000B2";

// One server for the program: its camera listener keeps its port.
const auto* const g_env =
    ::testing::AddGlobalTestEnvironment(new testsupport::MediaServerEnvironment({kCamA, kCamB}));

class IoCtrl : public ::testing::Test {
 protected:
  void SetUp() override {
    server_ = testsupport::MediaServerEnvironment::server();
    ASSERT_NE(nullptr, server_);
    client_ = server_->GetClient(0);
    ASSERT_NE(nullptr, client_);
    client_->SetAvIndex(0);
    for (const char* mac : {kCamA, kCamB}) {
      server_->GetLiveChannel(mac)->UnRegisteVideoForLiveClient(client_);
    }
    tlog::SetCaptureSink([this](int, const std::string& text) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(text);
    });
  }
  void TearDown() override { tlog::SetCaptureSink({}); }

  void Send(int type, const std::string& payload) {
    char buffer[1025] = {0};
    std::memcpy(buffer, payload.data(), std::min(payload.size(), sizeof(buffer) - 1));
    server_->Handle_IOCTRL_Cmd(0, 0, buffer, type);
  }
  bool Logged(const std::string& piece) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& l : lines_) {
      if (l.find(piece) != std::string::npos) return true;
    }
    return false;
  }
  size_t Count(const std::string& pattern) {
    std::lock_guard<std::mutex> lock(mutex_);
    const std::regex re(pattern);
    size_t n = 0;
    for (const auto& l : lines_) n += std::regex_search(l, re);
    return n;
  }
  size_t LineCount() {
    std::lock_guard<std::mutex> lock(mutex_);
    return lines_.size();
  }
  bool Watches(const char* mac) { return server_->GetLiveChannel(mac)->IsClientExist(client_); }

  server::MediaServer* server_ = nullptr;
  client::Client* client_ = nullptr;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

TEST_F(IoCtrl, LiveStartWithoutQualityStartsAtTwoAndAViewerWatchesOneCameraAtATime) {
  Send(0x1FF, "{\"mac\":\"0a00000000a1\"}");
  EXPECT_TRUE(Logged("this is IOTYPE_USER_IPCAM_START live_start......"));
  EXPECT_TRUE(Logged("Receive a msg: {\"mac\":\"0a00000000a1\"}"));
  EXPECT_TRUE(Logged("Error param: videoquality is needed"));
  EXPECT_TRUE(Logged("live start cam mac: 0A00000000A1, videoquality: 2"));
  EXPECT_TRUE(Logged("StartAVStream timestamp: "));
  EXPECT_EQ(kCamA, client_->camera());
  EXPECT_TRUE(Watches(kCamA));
  EXPECT_EQ(1, client_->videoRegistered());
  EXPECT_EQ(1, client_->audioRegistered());

  Send(0x1FF, "{\"mac\":\"0A00000000B2\",\"videoquality\":1}");
  EXPECT_TRUE(Logged("live start cam mac: 0A00000000B2, videoquality: 1"));
  EXPECT_FALSE(Watches(kCamA));
  EXPECT_TRUE(Watches(kCamB));

  Send(0x2FF, "{\"mac\":\"0A00000000B2\"}");
  EXPECT_TRUE(Logged("this is IOTYPE_USER_IPCAM_STOP live_stop......"));
  EXPECT_TRUE(Logged(": Receive a msg: {\"mac\":\"0A00000000B2\"}"));
  EXPECT_TRUE(Logged("target live stop camera mac: 0A00000000B2"));
  EXPECT_FALSE(Watches(kCamB));
  EXPECT_EQ(0, client_->videoRegistered());
}

TEST_F(IoCtrl, MissingKeysAndUnknownCamerasAreLoggedAndChangeNothing) {
  Send(0x1FF, "{\"videoquality\":2}");
  EXPECT_TRUE(Logged("Error param: mac is needed"));
  Send(0x1FF, "{\"mac\":\"0A0000000099\",\"videoquality\":2}");
  EXPECT_TRUE(Logged("Msg Out of Range error: map::at"));
  Send(0x1FF, "{\"mac\":\"" + std::string(40, 'A') + "\"}");  // longer than 31 characters
  EXPECT_FALSE(Logged("live start cam mac: AAAA"));
  EXPECT_FALSE(Watches(kCamA));
  EXPECT_FALSE(Watches(kCamB));

  Send(0x320, "{\"mac\":\"0A00000000A1\"}");
  EXPECT_TRUE(Logged("This is IOTYPE_USER_IPCAM_SETSTREAMCTRL_REQ"));
  EXPECT_TRUE(Logged("Receive set video quailtty msg: "));
  EXPECT_FALSE(Logged("set mac: "));
  Send(0x320, "{\"mac\":\"0A00000000A1\",\"videoquality\":1}");
  EXPECT_TRUE(Logged("set mac: 0A00000000A1, videoquality: 1"));
  // Each command to a camera the hub does not have is logged as such.
  const size_t unknown = Count(": Msg Out of Range error: map::at$");
  Send(0x320, "{\"mac\":\"0A0000000099\",\"videoquality\":1}");
  EXPECT_EQ(unknown + 1, Count(": Msg Out of Range error: map::at$"));
  Send(0x2FF, "{\"mac\":\"0A0000000099\"}");
  EXPECT_EQ(unknown + 2, Count(": Msg Out of Range error: map::at$"));
  EXPECT_TRUE(Logged("target live stop camera mac: 0A0000000099"));

  // Audio start and stop only log; other types are ignored without a line.
  Send(0x300, "");
  Send(0x301, "");
  EXPECT_TRUE(Logged("This is audio start......."));
  EXPECT_TRUE(Logged("This is audio stop......."));
  const size_t before = LineCount();
  Send(0x12345, "{\"mac\":\"0A00000000A1\"}");
  EXPECT_EQ(before, LineCount());
}

TEST_F(IoCtrl, TalkbackStopNeedsTheCameraAndClearsTheFlag) {
  client_->SetTalking(1);
  Send(0x351, "{}");
  EXPECT_TRUE(Logged("This is IOTYPE_USER_IPCAM_SPEAKERSTOP"));
  EXPECT_TRUE(Logged("Error param: mac is needed"));
  EXPECT_EQ(1, client_->talking());
  Send(0x351, "{\"mac\":\"0A00000000A1\"}");
  EXPECT_TRUE(Logged(": Receive a msg: {\"mac\":\"0A00000000A1\"}"));
  EXPECT_EQ(0, client_->talking());
}

}  // namespace
