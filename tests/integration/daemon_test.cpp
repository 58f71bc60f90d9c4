// The daemon binary on a board root: usage, start-up to the event loop, fatal signals, the end
// of a hub without identity or token, and the refusal to run on anything but a complete board.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

#include "support/testsupport.h"

using namespace testsupport;

namespace {

int ExitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1000 - status;
}

TEST(Daemon, HelpPrintsTheUsageAndExitsZero) {
  for (auto args : {std::vector<std::string>{"-h"}, {"-d", "-v", "3", "-h"}}) {
    std::vector<std::string> argv{BinPath("tarvo-p2p")};
    argv.insert(argv.end(), args.begin(), args.end());
    Process p(argv, {});
    EXPECT_EQ(ExitCode(p.Wait()), 0);
    std::vector<std::string> expected{"Usage: tarvo-p2p [-dsv]", "\t-d\tRun in background",
                                      "\t-s\tSN", "\t-m\tMAC", "\t-v\tLog level"};
    EXPECT_EQ(p.Lines(), expected);
  }
}

class DaemonOnBoard : public ::testing::Test {
 protected:
  void SetUp() override { MakeBoard(board_.path() + "/root"); }
  std::string root() const { return board_.path() + "/root"; }
  std::map<std::string, std::string> Env() {
    // no broker: the hub keeps retrying
    return HubEnv(root(), {{"TARVO_MQTT_PORT", std::to_string(FreePort())}});
  }
  TempDir board_;
};

TEST_F(DaemonOnBoard, ReachesTheEventLoopAndKeepsRunning) {
  Process hub({BinPath("tarvo-p2p")}, Env());
  ASSERT_NE(hub.WaitForLine("Main event loop running", std::chrono::seconds(20)), "")
      << ::testing::PrintToString(hub.Lines());
  EXPECT_TRUE(hub.HasLine("Logger init 7\\."));
  EXPECT_TRUE(hub.HasLine("^configuration InitDeviceConfig:[0-9]+: Hub tutk uid: "));
  // the provisioning files were moved into the agent's directory
  EXPECT_TRUE(FileExists(root() + "/etc/zelo/wifi.conf"));
  EXPECT_FALSE(FileExists(root() + "/etc/config/wifi.conf"));
  // still running once start-up is over
  EXPECT_FALSE(WaitFor([&] { return !hub.Running(); }, std::chrono::milliseconds(500)));
}

TEST_F(DaemonOnBoard, LogLevelThreeKeepsDebugRecordsOut) {
  Process hub({BinPath("tarvo-p2p"), "-v", "3"}, Env());
  ASSERT_NE(hub.WaitForLine("Logger init 3\\."), "");
  // the daemon gets as far as the loop, but its debug records are masked
  ASSERT_TRUE(WaitFor([&] { return FileExists(root() + "/etc/zelo/device.conf"); }));
  EXPECT_FALSE(hub.HasLine("Hub tutk uid"));
}

TEST_F(DaemonOnBoard, FatalSignalsEndWithStatusOne) {
  for (int sig : {SIGSEGV, SIGCONT, SIGURG}) {
    Process hub({BinPath("tarvo-p2p")}, Env());
    ASSERT_NE(hub.WaitForLine("Main event loop running", std::chrono::seconds(20)), "");
    hub.Signal(sig);
    EXPECT_EQ(ExitCode(hub.Wait()), 1) << "signal " << sig;
    EXPECT_TRUE(hub.HasLine("^main handler:[0-9]+: Error: signal " + std::to_string(sig) + "$"))
        << ::testing::PrintToString(hub.Lines());
  }
}

TEST_F(DaemonOnBoard, RefusesABoardWithAMissingShim) {
  ASSERT_EQ(unlink((root() + "/bin/reboot").c_str()), 0);
  Process hub({BinPath("tarvo-p2p")}, Env());
  EXPECT_EQ(ExitCode(hub.Wait()), 1);
  EXPECT_TRUE(hub.HasLine("reboot"));
  EXPECT_TRUE(hub.HasLine("refusing to start"));
  // nothing of the board was touched
  EXPECT_TRUE(FileExists(root() + "/etc/config/wifi.conf"));
}

// A hub provisioned without its device token, or without an identity in nvram, has nothing to
// run as: it ends with status 0 after saying why (the checks themselves are the configuration
// unit tests').
TEST_F(DaemonOnBoard, WithoutTheTokenOrAnIdentityItEndsWithStatusZero) {
  ASSERT_EQ(unlink((root() + "/etc/config/device.token").c_str()), 0);
  {
    Process hub({BinPath("tarvo-p2p")}, Env());
    EXPECT_EQ(ExitCode(hub.Wait(std::chrono::seconds(30))), 0);
    EXPECT_TRUE(hub.HasLine("^main main:[0-9]+: InitWifiConf failed, exit$"))
        << ::testing::PrintToString(hub.Lines());
  }
  TempDir other;
  const std::string bare = other.path() + "/root";
  MakeBoard(bare, {"--no-identity"});
  auto env = Env();
  env["TARVO_ROOT"] = bare;
  Process hub({BinPath("tarvo-p2p")}, env);
  EXPECT_EQ(ExitCode(hub.Wait(std::chrono::seconds(30))), 0);
  EXPECT_TRUE(
      hub.HasLine("^configuration InitDeviceConfig:[0-9]+: Nvram config don't setting, exit$"))
      << ::testing::PrintToString(hub.Lines());
  EXPECT_FALSE(FileExists(bare + "/etc/zelo/device.conf"));
}

TEST(Daemon, RefusesToRunWithoutABoardRoot) {
  Process hub({BinPath("tarvo-p2p")}, {{"TARVO_ROOT", ""}, {"TARVO_LOG_STDERR", "1"}});
  EXPECT_EQ(ExitCode(hub.Wait()), 1);
  EXPECT_TRUE(hub.HasLine("refusing to start"));
}

}  // namespace
