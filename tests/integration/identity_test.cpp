// The daemon's identity at start-up on boards made by tarvo-mkboard: device.conf written once,
// the exit paths of a hub without a usable identity, and an unprovisioned hub.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <string>
#include <vector>

#include "support/testsupport.h"

using namespace testsupport;

namespace {

int ExitCode(int status) {
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1000 - status;
}

class IdentityOnBoard : public ::testing::Test {
 protected:
  std::string root() const { return dir_.path() + "/root"; }
  std::map<std::string, std::string> Env() {
    // no broker needed here
    return HubEnv(root(), {{"TARVO_MQTT_PORT", std::to_string(FreePort())}});
  }
  // Runs the board's nvram tool, as provisioning would.
  void Nvram(const std::vector<std::string>& words) {
    std::vector<std::string> argv{root() + "/bin/nvram"};
    argv.insert(argv.end(), words.begin(), words.end());
    Process tool(argv, BoardEnv(root()));
    ASSERT_EQ(ExitCode(tool.Wait()), 0) << ::testing::PrintToString(tool.Lines());
  }
  // Starts the daemon and expects it to end with status 0 after the given log text.
  void ExpectExitZeroAfter(const std::string& text) {
    Process hub({BinPath("tarvo-p2p")}, Env());
    EXPECT_EQ(ExitCode(hub.Wait(std::chrono::seconds(30))), 0)
        << ::testing::PrintToString(hub.Lines());
    EXPECT_TRUE(hub.HasLine("^configuration InitDeviceConfig:[0-9]+: " + text + "$"))
        << ::testing::PrintToString(hub.Lines());
    EXPECT_FALSE(hub.HasLine("Hub tutk uid"));
  }
  TempDir dir_;
};

TEST_F(IdentityOnBoard, WithoutIdentityTheHubExitsWithStatusZero) {
  MakeBoard(root(), {"--no-identity"});
  ExpectExitZeroAfter("Nvram config don't setting, exit");
  EXPECT_FALSE(FileExists(root() + "/etc/zelo/device.conf"));
}

TEST_F(IdentityOnBoard, AMalformedNvramMacIsNoIdentity) {
  MakeBoard(root());
  for (const std::string mac : {"021A2B3C4D", "021A2B3C4DZZ"}) {
    Nvram({"set", "p2p", "mac", mac});
    Nvram({"commit"});
    ExpectExitZeroAfter("Nvram config don't setting, exit");
    EXPECT_FALSE(FileExists(root() + "/etc/zelo/device.conf")) << mac;
  }
}

TEST_F(IdentityOnBoard, DeviceConfIsWrittenOnceAndSurvivesNewNvramValues) {
  MakeBoard(root(), {"--did", "1234567", "--key", "KeyOfTheHub0001", "--mac", "0a1b2c3d4e5f"});
  const std::string expected =
      "did=1234567\nkey=KeyOfTheHub0001\nvendor=brovalin\nmac=0A:1B:2C:3D:4E:5F\n"
      "model=brovalin.gateway.hbx011\n";
  {
    Process hub({BinPath("tarvo-p2p")}, Env());
    ASSERT_NE(hub.WaitForLine("Hub mac: ", std::chrono::seconds(30)), "")
        << ::testing::PrintToString(hub.Lines());
    EXPECT_TRUE(hub.HasLine("Generate device.conf by nvram config"));
    EXPECT_TRUE(hub.HasLine("^configuration InitHubMac:[0-9]+: Hub mac: 0A:1B:2C:3D:4E:5F$"));
  }
  EXPECT_EQ(ReadFile(root() + "/etc/zelo/device.conf"), expected);

  Nvram({"set", "p2p", "did", "7654321"});
  Nvram({"set", "p2p", "key", "AnotherKey00001"});
  Nvram({"commit"});
  Process hub({BinPath("tarvo-p2p")}, Env());
  ASSERT_NE(hub.WaitForLine("Hub tutk uid: TARVOHUB000000000001$", std::chrono::seconds(30)), "")
      << ::testing::PrintToString(hub.Lines());
  EXPECT_FALSE(hub.HasLine("Generate device.conf"));
  EXPECT_EQ(ReadFile(root() + "/etc/zelo/device.conf"), expected);
}

TEST_F(IdentityOnBoard, AnUnprovisionedHubLeavesTheTokenAlone) {
  MakeBoard(root(), {"--no-wifi-conf"});
  Process hub({BinPath("tarvo-p2p")}, Env());
  ASSERT_NE(hub.WaitForLine("Hub tutk uid: ", std::chrono::seconds(30)), "")
      << ::testing::PrintToString(hub.Lines());
  EXPECT_FALSE(hub.HasLine("InitWifiConf"));
  EXPECT_TRUE(FileExists(root() + "/etc/config/device.token"));
  EXPECT_FALSE(FileExists(root() + "/etc/zelo/device.token"));
}

TEST_F(IdentityOnBoard, WifiConfWithoutTokenEndsStartUp) {
  MakeBoard(root());
  ASSERT_EQ(std::remove((root() + "/etc/config/device.token").c_str()), 0);
  Process hub({BinPath("tarvo-p2p")}, Env());
  EXPECT_EQ(ExitCode(hub.Wait(std::chrono::seconds(30))), 0);
  EXPECT_TRUE(hub.HasLine(
      "^configuration InitWifiConf:[0-9]+: Copy /etc/config/device.token to /etc/zelo fail!!!$"));
  EXPECT_TRUE(hub.HasLine("^main [A-Za-z]+:[0-9]+: InitWifiConf failed, exit$"))
      << ::testing::PrintToString(hub.Lines());
}

}  // namespace
