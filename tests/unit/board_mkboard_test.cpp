// tarvo-mkboard, run as a program, and its board read back through the platform library.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <cstring>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/board.h"
#include "platform/hwlib.h"
#include "platform/nvram.h"
#include "platform/uci.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;

struct ToolRun {
  int status = -1;
  std::vector<std::string> lines;
  bool Has(const std::string& piece) const {
    for (const auto& l : lines) {
      if (l.find(piece) != std::string::npos) return true;
    }
    return false;
  }
};

ToolRun Mkboard(std::vector<std::string> args) {
  args.insert(args.begin(), testsupport::BinPath("tarvo-mkboard"));
  testsupport::Process p(args, {});
  ToolRun run;
  const int status = p.Wait(std::chrono::seconds(30));
  run.status = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  run.lines = p.Lines();
  return run;
}

std::string Uci(const std::string& key) {
  char out[128];
  return zcfg_uci_get(key.c_str(), out, sizeof(out)) == 0 ? out : "<absent>";
}

std::string Nvram(const char* key) {
  char out[64];
  return nvram_get("p2p", key, out, sizeof(out)) == 0 ? out : "<absent>";
}

class MkboardTest : public ::testing::Test {
 protected:
  void Use(const std::string& root) {
    platform::SetRootForTest(root);
    ASSERT_EQ(nvram_filecache(), 0);
    ASSERT_EQ(nvram_parse(), 0);
  }
  void TearDown() override { platform::SetRootForTest(""); }
  testsupport::TempDir dir_;
};

TEST_F(MkboardTest, DefaultBoardIsCompleteAndReadable) {
  const std::string root = dir_.path() + "/board";
  testsupport::MakeBoard(root);
  Use(root);
  EXPECT_EQ(platform::CheckBoard(), 0);

  EXPECT_EQ(Nvram("did"), "1000000001");
  EXPECT_EQ(Nvram("key"), "TarvoDeviceKey01");
  EXPECT_EQ(Nvram("mac"), "021A2B3C4D5E");
  EXPECT_EQ(Nvram("uid"), "TARVOHUB000000000001");
  char mac[18];
  ASSERT_EQ(get_hub_mac("eth0", mac, sizeof(mac)), 0);
  EXPECT_STREQ(mac, "02:1a:2b:3c:4d:5e");

  EXPECT_EQ(Uci("wireless.@wifi-iface[2].ssid"), "tarvo-cam-ap");
  EXPECT_EQ(Uci("wireless.@wifi-iface[2].key"), "tarvo-cam-secret");
  EXPECT_EQ(Uci("hub_config.power.threshold"), "20");
  EXPECT_EQ(Uci("network.wan.ifname"), "eth0");
  char list[4][kUciSectionNameLen];
  EXPECT_EQ(zcfg_uci_get_section_list("p2p", list, 4), 0);

  EXPECT_EQ(ReadFile(root + "/etc/config/device.token"), "tarvo-device-token-0001\n");
  EXPECT_TRUE(FileExists(root + "/etc/config/wifi.conf"));
  EXPECT_TRUE(std::filesystem::is_directory(root + "/etc/zelo"));
  EXPECT_TRUE(std::filesystem::is_directory(root + "/etc/ssl/certs"));
  EXPECT_TRUE(std::filesystem::is_directory(root + "/mnt/mmcblk0p1"));
  EXPECT_FALSE(FileExists(root + "/dev/mmcblk0p1"));
  EXPECT_EQ(ReadFile(root + "/proc/net/arp"),
            "IP address       HW type     Flags       HW address            Mask     Device\n");
  EXPECT_EQ(ReadFile(root + "/proc/mounts").find("mmcblk0p1"), std::string::npos);
  EXPECT_EQ((reg_read(kRegGpioData) >> kGpioCardDetect) & 1, 1u);  // no card
  EXPECT_EQ((reg_read(kRegKeys) >> 6) & 1, 0u);                    // button up
  EXPECT_EQ(ReadFile(root + "/sys/hub/card/size_mib"), "8192\n");  // of a card inserted later
  struct stat st;
  ASSERT_EQ(stat((root + "/sys/hub/events").c_str(), &st), 0);
  EXPECT_TRUE(S_ISFIFO(st.st_mode));
  EXPECT_FALSE(FileExists(root + "/etc/clock_offset"));
  EXPECT_NEAR(static_cast<double>(platform::NowSeconds()), static_cast<double>(std::time(nullptr)),
              5);
}

TEST_F(MkboardTest, OptionsShapeTheBoard) {
  const std::string root = dir_.path() + "/board";
  testsupport::MakeBoard(
      root,
      {"--mac",    "a0b1c2d3e4f5",   "--did",   "D9",         "--key=K9", "--uid",
       "UID9",     "--token",        "tok en",  "--ssid",     "cams",     "--wifi-key",
       "12345678", "--no-wifi-conf", "--clock", "1400000000", "--camera", "0a1b2c3d4e5f,10.17.1.20",
       "--camera", "112233445566",   "--card",  "300"});
  Use(root);
  EXPECT_EQ(Nvram("mac"), "A0B1C2D3E4F5");
  EXPECT_EQ(Nvram("did"), "D9");
  EXPECT_EQ(Nvram("key"), "K9");
  EXPECT_EQ(Nvram("uid"), "UID9");
  EXPECT_EQ(ReadFile(root + "/sys/class/net/eth0/address"), "a0:b1:c2:d3:e4:f5\n");
  EXPECT_EQ(ReadFile(root + "/etc/config/device.token"), "tok en\n");
  EXPECT_EQ(Uci("wireless.@wifi-iface[2].ssid"), "cams");
  EXPECT_EQ(Uci("wireless.@wifi-iface[2].key"), "12345678");
  EXPECT_FALSE(FileExists(root + "/etc/config/wifi.conf"));
  EXPECT_NEAR(static_cast<double>(platform::NowSeconds()), 1400000000.0, 5);

  char list[4][kUciSectionNameLen];
  ASSERT_EQ(zcfg_uci_get_section_list("p2p", list, 4), 2);
  EXPECT_STREQ(list[0], "0A1B2C3D4E5F");
  EXPECT_STREQ(list[1], "112233445566");
  EXPECT_EQ(Uci("p2p.0A1B2C3D4E5F"), "p2p");
  EXPECT_EQ(Uci("p2p.0A1B2C3D4E5F.event"), "motion");
  EXPECT_EQ(Uci("p2p.112233445566.event"), "motion1");
  EXPECT_EQ(Uci("p2p.112233445566.stophour"), "24");
  EXPECT_EQ(Uci("p2p.112233445566.pir_duration"), "10");
  EXPECT_NE(ReadFile(root + "/proc/net/arp")
                .find("10.17.1.20       0x1         0x2         "
                      "0a:1b:2c:3d:4e:5f     *        ra1\n"),
            std::string::npos);
  EXPECT_EQ(ReadFile(root + "/proc/net/arp").find("11:22:33"), std::string::npos);

  EXPECT_TRUE(FileExists(root + "/dev/mmcblk0p1"));
  EXPECT_EQ((reg_read(kRegGpioData) >> kGpioCardDetect) & 1, 0u);
  EXPECT_NE(ReadFile(root + "/proc/mounts").find("/dev/mmcblk0p1 /mnt/mmcblk0p1 vfat rw,relatime"),
            std::string::npos);
  EXPECT_EQ(ReadFile(root + "/proc/modules"), "mtk_sd 40960 0 - Live 0x00000000\n");
  EXPECT_EQ(ReadFile(root + "/sys/hub/card/size_mib"), "300\n");

  testsupport::TempDir other;
  testsupport::MakeBoard(other.path(), {"--no-identity"});
  Use(other.path());
  EXPECT_EQ(Nvram("did"), "<absent>");
  EXPECT_EQ(Nvram("key"), "<absent>");
  EXPECT_EQ(Nvram("mac"), "<absent>");
  EXPECT_EQ(Nvram("uid"), "TARVOHUB000000000001");
}

TEST_F(MkboardTest, InvalidValuesAreRefusedAndNothingIsWritten) {
  const std::string root = dir_.path() + "/board";
  const std::vector<std::vector<std::string>> bad = {
      {"--mac", "0A1B2C3D4E"},
      {"--mac", "0a:1b:2c:3d:4e:5f"},
      {"--ssid", "it's"},
      {"--token", "a\nb"},
      {"--did", "$(reboot)"},
      {"--uid", std::string(32, 'U')},
      {"--wifi-key", "short"},
      {"--camera", "0A1B2C3D4E5G"},
      {"--camera", "0A1B2C3D4E5F,10.17.1.300"},
      {"--camera", "0A1B2C3D4E5F", "--camera", "0a1b2c3d4e5f"},
      {"--camera", "000000000001", "--camera", "000000000002", "--camera", "000000000003",
       "--camera", "000000000004", "--camera", "000000000005"},
      {"--clock", "soon"},
      {"--clock"},
      {"--frobnicate"},
      {"--card=yes"},
      {"--card=0"},
      {"--card", "2000000"},
  };
  for (const auto& args : bad) {
    std::vector<std::string> with_dir = args;
    with_dir.push_back(root);
    const ToolRun run = Mkboard(with_dir);
    EXPECT_NE(run.status, 0) << args[0];
    EXPECT_FALSE(run.lines.empty()) << args[0];
    EXPECT_TRUE(!FileExists(root) || std::filesystem::is_empty(root)) << args[0];
  }
  EXPECT_NE(Mkboard({}).status, 0);
  EXPECT_NE(Mkboard({root, root + "2"}).status, 0);
  EXPECT_NE(Mkboard({"--shim-dir", dir_.path(), root}).status, 0);
}

TEST_F(MkboardTest, NonEmptyFolderNeedsForce) {
  const std::string root = dir_.path() + "/board";
  testsupport::MakeBoard(root);
  const ToolRun again = Mkboard({"--uid", "SECOND", root});
  EXPECT_EQ(again.status, 1);
  EXPECT_TRUE(again.Has("is not empty"));
  testsupport::MakeBoard(root, {"--force", "--uid", "SECOND"});
  Use(root);
  EXPECT_EQ(Nvram("uid"), "SECOND");
  EXPECT_EQ(platform::CheckBoard(), 0);
}

TEST_F(MkboardTest, HelpNamesEveryOptionAndDefault) {
  const ToolRun help = Mkboard({"--help"});
  EXPECT_EQ(help.status, 0);
  for (const char* piece : {"--mac",
                            "--did",
                            "--key",
                            "--uid",
                            "--token",
                            "--ssid",
                            "--wifi-key",
                            "--no-wifi-conf",
                            "--no-identity",
                            "--clock",
                            "--camera",
                            "--card",
                            "--shim-dir",
                            "--force",
                            "021A2B3C4D5E",
                            "1000000001",
                            "TarvoDeviceKey01",
                            "TARVOHUB000000000001",
                            "tarvo-device-token-0001",
                            "tarvo-cam-ap",
                            "tarvo-cam-secret"}) {
    EXPECT_TRUE(help.Has(piece)) << piece;
  }
}

}  // namespace
