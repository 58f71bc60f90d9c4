// Hub housekeeping in the real daemon on a board: the LED at start and after the cloud's status,
// the set-up access point of an unprovisioned hub, and the button held through the board's event
// fifo in real seconds, handing the reset to a process running from the board.
#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "support/broker.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WaitFor;

class Housekeeping : public ::testing::Test {
 protected:
  void Start(const std::vector<std::string>& board_options = {}) {
    ASSERT_TRUE(broker_.Start());
    std::vector<std::string> options = {"--force"};
    options.insert(options.end(), board_options.begin(), board_options.end());
    testsupport::MakeBoard(board_.path(), options);
    ASSERT_TRUE(testsupport::StartHub(testsupport::HubEnv(board_.path(), broker_.Env()), &daemon_));
    agent_ = broker_.StartAgent();
  }
  void TearDown() override {
    if (HasFailure() && daemon_ != nullptr) daemon_->PrintLines("hub: ");
  }
  std::string Board(const std::string& path) const { return board_.path() + path; }
  bool LedShows(const std::string& pattern) {
    return WaitFor([&] { return ReadFile(Board("/sys/hub/led")) == pattern + "\n"; });
  }
  void Event(const std::string& line) {
    testsupport::WriteFile(Board("/sys/hub/events"), line + "\n");
  }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  std::unique_ptr<testsupport::Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
};

TEST_F(Housekeeping, LedFollowsTheCloudStatus) {
  Start();
  ASSERT_TRUE(LedShows("5"));
  EXPECT_FALSE(FileExists(Board("/var/log/wifi_start.log")));
  agent_->SendLocalStatus("cloud_connected");
  ASSERT_TRUE(LedShows("4"));
  agent_->SendLocalStatus("wifi_connecting");
  ASSERT_TRUE(LedShows("5"));
}

TEST_F(Housekeeping, UnprovisionedHubStartsTheSetUpAccessPoint) {
  Start({"--no-wifi-conf"});
  ASSERT_TRUE(LedShows("3"));
  EXPECT_EQ(ReadFile(Board("/var/log/wifi_start.log")), "wifi_start.sh \n");
  EXPECT_EQ(ReadFile(Board("/sys/class/net/ra0/operstate")), "down\n");
  // the access point comes up before the hub reaches the broker
  const auto lines = daemon_->Lines();
  size_t ap = lines.size(), mqtt = lines.size();
  for (size_t i = 0; i < lines.size(); i++) {
    if (ap == lines.size() && lines[i].find("start ap mode") != std::string::npos) ap = i;
    if (mqtt == lines.size() && lines[i].find("Subscribed") != std::string::npos) mqtt = i;
  }
  EXPECT_LT(ap, mqtt);
}

TEST_F(Housekeeping, ButtonHeldSevenSecondsHandsTheResetOverOnce) {
  Start();
  const std::string script = Board("/bin/ipcamera-daemon");
  testsupport::WriteFile(script,
                         "#!/bin/sh\n"
                         "trap 'echo 42 >> \"$0.signals\"' 42\n"
                         "echo ready\n"
                         "while :; do sleep 0.05; done\n");
  ASSERT_EQ(chmod(script.c_str(), 0755), 0);
  testsupport::Process reset_daemon({script}, {});
  ASSERT_FALSE(reset_daemon.WaitForLine("ready").empty());

  // a press released after about 6 seconds does nothing
  Event("key 1 2");
  ASSERT_TRUE(daemon_->WaitForLines("btn\\.+value: 1", 6, 10s));
  Event("key 1 1");
  ASSERT_FALSE(daemon_->WaitForLine("exit reset_thread_function", 5s).empty());
  EXPECT_FALSE(daemon_->HasLine("doing reset"));

  // held: after 7 seconds the reset goes to the process, once
  Event("key 1 2");
  ASSERT_FALSE(daemon_->WaitForLine("Sleep 7 seconds, doing reset", 15s).empty());
  ASSERT_TRUE(WaitFor([&] { return ReadFile(script + ".signals") == "42\n"; }));
  ASSERT_TRUE(daemon_->WaitForLines("exit reset_thread_function", 2, 5s));
  Event("key 1 1");
  EXPECT_EQ(daemon_->CountLines("doing reset"), 1);
  EXPECT_FALSE(FileExists(Board("/var/log/reboot.log")));
}

}  // namespace
