// The viewer tool end to end: the daemon on a board, a real broker, tarvo-cloudsim as a process
// writing the credentials file, and tarvo-viewer as a process opening, holding and closing a
// session with what the app would get from the cloud.
#include <gtest/gtest.h>

#include <csignal>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/broker.h"
#include "support/testsupport.h"
#include "support/viewers.h"

namespace {

using namespace std::chrono_literals;
using testsupport::ExitCode;
using testsupport::Process;

using testsupport::ViewerTool;

TEST(ViewerTool, HelpDocumentsEveryOptionAndUsageErrorsExitTwo) {
  auto help = ViewerTool({"--help"});
  EXPECT_EQ(0, ExitCode(help->Wait()));
  std::string text;
  for (const auto& line : help->Lines()) text += line + "\n";
  for (const char* option :
       {"--credentials FILE", "--host HOST", "--port PORT", "--account NAME", "--timeout SECONDS",
        "--hold SECONDS", "--abort", "--uid UID", "--password PASSWORD", "--sign-token TOKEN",
        "--sign-hub-key HEX", "--login-text TEXT", "-q, --quiet", "-h, --help", "Example:"}) {
    EXPECT_NE(std::string::npos, text.find(option)) << option;
  }
  EXPECT_EQ(2, ExitCode(ViewerTool({})->Wait()));
  EXPECT_EQ(2, ExitCode(ViewerTool({"--credentials", "/nonexistent/creds"})->Wait()));
  EXPECT_EQ(2, ExitCode(ViewerTool({"--credentials", "x", "--port", "70000"})->Wait()));
  EXPECT_EQ(2, ExitCode(ViewerTool({"--credentials", "x", "--frobnicate", "1"})->Wait()));
}

class ViewerToolOnHub : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(broker_.Start());
    testsupport::MakeBoard(board_.path(), {"--force"});
    file_ = board_.path() + "/tmp/app-credentials";
    const auto env = testsupport::HubEnv(board_.path(), broker_.Env());
    port_ = env.at("TARVO_P2P_PORT");
    ASSERT_TRUE(testsupport::StartHub(env, &hub_));
    agent_ = std::make_unique<Process>(
        std::vector<std::string>{testsupport::BinPath("tarvo-cloudsim"), "--host", "127.0.0.1",
                                 "--port", std::to_string(broker_.port()), "--board", board_.path(),
                                 "--credentials", file_, "--status", "cloud_connected", "--stay"},
        std::map<std::string, std::string>{});
    // The file holds the password the hub uses now.
    viewer::AppCredentials creds;
    ASSERT_TRUE(testsupport::WaitForAppCredentials(*hub_, file_, &creds));
  }

  void TearDown() override {
    if (HasFailure() && hub_ != nullptr) hub_->PrintLines("hub: ");
  }

  std::vector<std::string> Args(std::vector<std::string> extra) {
    std::vector<std::string> args = {"--credentials", file_, "--port", port_};
    args.insert(args.end(), extra.begin(), extra.end());
    return args;
  }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  std::string file_;
  std::string port_;
  std::unique_ptr<Process> hub_;
  std::unique_ptr<Process> agent_;
};

TEST_F(ViewerToolOnHub, OpensLogsInHoldsUntilToldAndCloses) {
  auto viewer = ViewerTool(Args({}));
  ASSERT_NE("", viewer->WaitForLine("^login ok$"));
  EXPECT_NE("", viewer->WaitForLine("^session 0 open on 127\\.0\\.0\\.1:" + port_ + "$", 1s));
  ASSERT_NE("", hub_->WaitForLine("avServStart3 OK, avIndex: [0-9]+, Resend: 0$"));
  viewer->Signal(SIGTERM);
  EXPECT_EQ(0, ExitCode(viewer->Wait()));
  EXPECT_TRUE(viewer->HasLine("^closed$"));
  EXPECT_NE("", hub_->WaitForLine("SID: 0, avIndex: [0-9]+ avRecvIOCtrl error, code: -20015$"));
  for (const auto& line : viewer->Lines()) {
    EXPECT_EQ(std::string::npos, line.find("tarvo-device-token-0001")) << line;
  }

  // --hold ends by itself; --abort leaves as a vanished viewer would.
  auto held = ViewerTool(Args({"--hold", "1", "--abort"}));
  EXPECT_EQ(0, ExitCode(held->Wait()));
  EXPECT_TRUE(held->HasLine("^aborted$"));
  EXPECT_NE("", hub_->WaitForLine("avRecvIOCtrl error, code: -20016$"));
}

TEST_F(ViewerToolOnHub, RefusalsExitOneWithTheirCode) {
  auto token = ViewerTool(Args({"--sign-token", "another-token", "--hold", "1"}));
  EXPECT_EQ(1, ExitCode(token->Wait()));
  EXPECT_TRUE(token->HasLine("^refused login AV_ER_WRONG_VIEWACCorPWD \\(-20009\\)$"));
  auto text = ViewerTool(Args({"--login-text", "{\"account\":\"viewer\"}"}));
  EXPECT_EQ(1, ExitCode(text->Wait()));
  EXPECT_TRUE(text->HasLine("^refused login AV_ER_WRONG_VIEWACCorPWD \\(-20009\\)$"));
  auto uid = ViewerTool(Args({"--uid", "TARVOHUB000000000999"}));
  EXPECT_EQ(1, ExitCode(uid->Wait()));
  EXPECT_TRUE(uid->HasLine("^refused session IOTC_ER_UNKNOWN_DEVICE \\(-28\\)$"));
  auto closed = ViewerTool({"--credentials", file_, "--port",
                            std::to_string(testsupport::FreePort()), "--timeout", "2"});
  EXPECT_EQ(1, ExitCode(closed->Wait()));
  EXPECT_TRUE(closed->HasLine("^refused session IOTC_ER_CONNECT_FAILED \\(-80\\)$"));
  EXPECT_FALSE(hub_->HasLine("avServStart3 OK"));
}

}  // namespace
