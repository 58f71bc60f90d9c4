// The hub's identity on a board: provisioning files, nvram to device.conf, the hub MAC, and the
// per-camera records kept in the configuration store.
#include "core/configuration.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <regex>
#include <sstream>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/board.h"
#include "platform/hwlib.h"
#include "platform/nvram.h"
#include "platform/uci.h"
#include "support/boardfixture.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

using namespace testsupport;

namespace {

class Identity : public BoardFixture {
 protected:
  // The texts logged by one function of the configuration unit since from, in order.
  std::vector<std::string> LogsOf(const std::string& function, size_t from = 0) {
    const std::vector<std::string> lines = log_.Lines();
    std::vector<std::string> texts;
    const std::regex head("^configuration " + function + ":[0-9]+: (.*)$");
    std::smatch m;
    for (size_t i = from; i < lines.size(); i++)
      if (std::regex_match(lines[i], m, head)) texts.push_back(m[1]);
    return texts;
  }
  bool Logged(const std::string& fragment, size_t from = 0) {
    const std::vector<std::string> lines = log_.Lines();
    for (size_t i = from; i < lines.size(); i++)
      if (lines[i].find(fragment) != std::string::npos) return true;
    return false;
  }

  LogCapture log_;
};

// ---- provisioning files

class WifiConf : public Identity {
 protected:
  void Provision(const std::vector<std::string>& names) {
    for (const char* name : {"wifi.conf", "device.token", "device.country", "device.uid"}) {
      std::remove(Board(std::string("/etc/config/") + name).c_str());
      std::remove(Board(std::string("/etc/zelo/") + name).c_str());
    }
    for (const auto& name : names) WriteFile(Board("/etc/config/" + name), "new " + name);
  }
};

TEST_F(WifiConf, EveryProvisioningFileMovesIntoTheAgentDirectory) {
  Provision({"wifi.conf", "device.token", "device.country", "device.uid"});
  ASSERT_EQ(InitWifiConf(), 0);
  for (const std::string name : {"wifi.conf", "device.token", "device.country", "device.uid"}) {
    EXPECT_EQ(ReadFile(Board("/etc/zelo/" + name)), "new " + name);
    EXPECT_FALSE(FileExists(Board("/etc/config/" + name))) << name;
  }
  EXPECT_EQ(LogsOf("InitWifiConf"), (std::vector<std::string>{
                                        "Copy /etc/config/wifi.conf to /etc/zelo succeed",
                                        "Delete /etc/config/wifi.conf succeed",
                                        "Copy /etc/config/device.token to /etc/zelo succeed",
                                        "Delete /etc/config/device.token succeed",
                                        "copy /etc/config/device.country to /etc/zelo succeed!",
                                        "delete /etc/config/device.country succeed!",
                                        "copy /etc/config/device.uid to /etc/zelo succeed!",
                                        "delete /etc/config/device.uid succeed!",
                                    }));
}

TEST_F(WifiConf, WithoutWifiConfTheTokenStaysWhereItIs) {
  Provision({"device.token", "device.uid"});
  WriteFile(Board("/etc/zelo/device.token"), "agent token");
  ASSERT_EQ(InitWifiConf(), 0);
  EXPECT_EQ(ReadFile(Board("/etc/config/device.token")), "new device.token");
  EXPECT_EQ(ReadFile(Board("/etc/zelo/device.token")), "agent token");
  EXPECT_FALSE(FileExists(Board("/etc/zelo/wifi.conf")));
  // the optional files move regardless
  EXPECT_EQ(ReadFile(Board("/etc/zelo/device.uid")), "new device.uid");
  EXPECT_EQ(LogsOf("InitWifiConf"),
            (std::vector<std::string>{"copy /etc/config/device.uid to /etc/zelo succeed!",
                                      "delete /etc/config/device.uid succeed!"}));
}

TEST_F(WifiConf, WifiConfWithoutTokenFails) {
  Provision({"wifi.conf", "device.country"});
  EXPECT_EQ(InitWifiConf(), -1);
  EXPECT_EQ(LogsOf("InitWifiConf").back(), "Copy /etc/config/device.token to /etc/zelo fail!!!");
  EXPECT_EQ(ReadFile(Board("/etc/zelo/wifi.conf")), "new wifi.conf");
  // it stops there: the country file is left for the next start
  EXPECT_TRUE(FileExists(Board("/etc/config/device.country")));
}

// ---- nvram identity

constexpr char kExpectedConf[] =
    "did=123456789\nkey=AbCdEf0123456789\nvendor=brovalin\nmac=0A:1B:2C:3D:4E:5F\n"
    "model=brovalin.gateway.hbx011\n";

class DeviceConfig : public Identity {
 protected:
  void SetUp() override {
    Identity::SetUp();
    std::remove(Board("/etc/zelo/device.conf").c_str());
    SetNvram({{"did", "123456789"},
              {"key", "AbCdEf0123456789"},
              {"mac", "0a1b2c3d4e5f"},
              {"uid", "TARVOUID0123456789AB"}});
  }
  void SetNvram(const std::vector<std::pair<std::string, std::string>>& values) {
    for (const auto& [key, value] : values)
      ASSERT_EQ(nvram_set("p2p", key.c_str(), value.c_str()), 0);
    ASSERT_EQ(nvram_commit(), 0);
  }
  // Runs InitDeviceConfig in a death-test child: its records go to the child's stderr.
  [[noreturn]] static void InitInChild() {
    tlog::SetCaptureSink(
        [](int, const std::string& text) { std::fprintf(stderr, "%s\n", text.c_str()); });
    Configuration::getInstance().InitDeviceConfig();
    std::exit(3);
  }
};

TEST_F(DeviceConfig, WrittenOnceFromNvramAndNeverRewritten) {
  Configuration& config = Configuration::getInstance();
  config.InitDeviceConfig();
  EXPECT_EQ(ReadFile(Board("/etc/zelo/device.conf")), kExpectedConf);
  EXPECT_EQ(config.GetP2pUid(), "TARVOUID0123456789AB");
  EXPECT_EQ(config.GetDeviceKey(), "AbCdEf0123456789");
  EXPECT_EQ(
      LogsOf("InitDeviceConfig"),
      (std::vector<std::string>{"Nvram config has setted", "Generate device.conf by nvram config",
                                "Hub tutk uid: TARVOUID0123456789AB"}));

  // nvram changes later; the file the agent reads stays as it was
  SetNvram({{"did", "999"}, {"key", "OtherKey"}, {"mac", "FFEEDDCCBBAA"}, {"uid", "UID2"}});
  const size_t mark = log_.Mark();
  config.InitDeviceConfig();
  EXPECT_EQ(ReadFile(Board("/etc/zelo/device.conf")), kExpectedConf);
  EXPECT_EQ(config.GetP2pUid(), "UID2");
  EXPECT_EQ(config.GetDeviceKey(), "OtherKey");
  EXPECT_FALSE(Logged("Generate device.conf", mark));
}

TEST_F(DeviceConfig, AnOverlongUidIsDroppedNotCut) {
  SetNvram({{"uid", std::string(40, 'U')}});
  Configuration& config = Configuration::getInstance();
  config.SetP2pUid("previous");
  config.InitDeviceConfig();
  EXPECT_EQ(config.GetP2pUid(), "");
  EXPECT_TRUE(Logged("Nvram p2p uid too long, ignored"));
  EXPECT_EQ(ReadFile(Board("/etc/zelo/device.conf")), kExpectedConf);
}

TEST_F(DeviceConfig, BadIdentityEndsTheProcessWithoutWritingTheFile) {
  GTEST_FLAG_SET(death_test_style, "fast");  // the child works on this test's board
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"mac", "0A1B2C"},              // short
      {"mac", "0A1B2C3D4E5G"},        // not hexadecimal
      {"mac", "0A1B2C3D4E5F00"},      // long
      {"key", std::string(32, 'k')},  // does not fit the 32-byte buffer
      {"did", "12 34"},               // would break the file's lines
  };
  for (const auto& [key, value] : bad) {
    SetNvram({{"did", "123456789"}, {"key", "AbCdEf0123456789"}, {"mac", "0a1b2c3d4e5f"}});
    SetNvram({{key, value}});
    EXPECT_EXIT(InitInChild(), ::testing::ExitedWithCode(0), "Nvram config don't setting, exit")
        << key << "=" << value;
    EXPECT_FALSE(FileExists(Board("/etc/zelo/device.conf"))) << key << "=" << value;
  }
}

TEST_F(DeviceConfig, AnUnwritableAgentDirectoryEndsTheProcess) {
  GTEST_FLAG_SET(death_test_style, "fast");
  std::remove(Board("/etc/zelo/device.token").c_str());
  std::string zelo = Board("/etc/zelo");
  ASSERT_EQ(std::system(("rm -rf '" + zelo + "' && touch '" + zelo + "'").c_str()), 0);
  EXPECT_EXIT(InitInChild(), ::testing::ExitedWithCode(0),
              "Open device.conf for write config fail!!!");
}

TEST_F(Identity, HubMacIsUpperCaseWithColons) {
  char raw[32];
  ASSERT_EQ(get_hub_mac("eth0", raw, sizeof(raw)), 0);
  Configuration& config = Configuration::getInstance();
  config.InitHubMac();
  std::string expected(raw);
  for (char& c : expected) c = static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  EXPECT_EQ(config.GetMac(), expected);
  EXPECT_TRUE(std::regex_match(config.GetMac(), std::regex("([0-9A-F]{2}:){5}[0-9A-F]{2}")));
  EXPECT_EQ(LogsOf("InitHubMac"), (std::vector<std::string>{"Hub mac: " + expected}));
}

// ---- cameras

class Cameras : public Identity {
 protected:
  void SetUp() override {
    Identity::SetUp();
    // start from a hub without cameras
    char list[32][kUciSectionNameLen];
    const int n = zcfg_uci_get_section_list("p2p", list, 32);
    for (int i = 0; i < n; i++) zcfg_uci_delete((std::string("p2p.") + list[i]).c_str());
  }
  static std::string Get(const std::string& key) {
    char value[128] = {0};
    if (zcfg_uci_get(key.c_str(), value, sizeof(value)) < 0) return "<absent>";
    return value;
  }
  static int Save(const char* mac, int vbat = 3800, int rssi = -60) {
    return SaveInfoToConfig(mac, "HW1", "V1.2.3", 1, 1, 0, vbat, rssi);
  }
  // The option names of one section of a package file, in file order.
  std::vector<std::string> OptionsInFile(const std::string& package, const std::string& section) {
    std::istringstream in(ReadFile(Board("/etc/config/" + package)));
    std::vector<std::string> names;
    bool inside = false;
    std::string line;
    const std::regex config("^\\s*config\\s+(\\S+)\\s+'?([^'\\s]*)'?\\s*$");
    const std::regex option("^\\s*option\\s+(\\S+)\\s");
    std::smatch m;
    while (std::getline(in, line)) {
      if (std::regex_match(line, m, config)) {
        inside = m[1] == "p2p" && m[2] == section;
      } else if (inside && std::regex_search(line, m, option)) {
        names.push_back(m[1]);
      }
    }
    return names;
  }
};

TEST_F(Cameras, ANewCameraGetsEveryKeyInOrderWithItsDefaults) {
  ASSERT_EQ(SaveInfoToConfig("0a1b2c3d4e5f", "HW1", "V1.2.3", 1, 0, 1, 4019, -50), 0);
  const std::string cam = "p2p.0A1B2C3D4E5F.";
  EXPECT_EQ(Get("p2p.0A1B2C3D4E5F"), "p2p");
  const std::vector<std::pair<std::string, std::string>> expected = {
      {"name", "Tarvo Camera"}, {"battery", "100"},    {"wifi", "1"},     {"pir", "1"},
      {"hardver", "HW1"},       {"version", "V1.2.3"}, {"night", "1"},    {"power", "0"},
      {"event", "motion"},      {"starthour", "0"},    {"startmin", "0"}, {"stophour", "24"},
      {"stopmin", "0"},         {"pushalarm", "1"},    {"interval", "0"}, {"new_interval", "60"},
      {"pir_duration", "10"}};
  std::vector<std::string> order;
  for (const auto& [key, value] : expected) {
    EXPECT_EQ(Get(cam + key), value) << key;
    order.push_back(key);
  }
  EXPECT_EQ(OptionsInFile("p2p", "0A1B2C3D4E5F"), order);
  EXPECT_EQ(LogsOf("SaveInfoToConfig").front(),
            "hardver: HW1, version: V1.2.3, pir: 1, power: 0, night: 1, vbat: 4019, rssi: -50");
  EXPECT_TRUE(Logged("Hub had sync with 0 camera"));
  EXPECT_TRUE(Logged("Event motion don't used, can use it"));
  EXPECT_TRUE(Logged("camera_event: motion"));
}

TEST_F(Cameras, FourCamerasTakeFourEventsAndAFifthIsRefused) {
  const char* macs[] = {"000000000001", "000000000002", "000000000003", "000000000004"};
  for (const char* mac : macs) ASSERT_EQ(Save(mac), 0) << mac;
  EXPECT_EQ(Get("p2p.000000000001.event"), "motion");
  EXPECT_EQ(Get("p2p.000000000002.event"), "motion1");
  EXPECT_EQ(Get("p2p.000000000003.event"), "motion2");
  EXPECT_EQ(Get("p2p.000000000004.event"), "motion3");

  const std::string before = ReadFile(Board("/etc/config/p2p"));
  EXPECT_EQ(Save("000000000005"), -1);
  EXPECT_TRUE(Logged("Hub had sync with 4 camera"));
  EXPECT_TRUE(Logged("Camera list have 4 camera, sync new camera error!!!"));
  EXPECT_EQ(Get("p2p.000000000005"), "<absent>");
  EXPECT_EQ(ReadFile(Board("/etc/config/p2p")), before);
}

TEST_F(Cameras, AKnownCameraIsUpdatedAndKeepsWhatTheUserChose) {
  const char* macs[] = {"000000000001", "000000000002", "000000000003", "000000000004"};
  for (const char* mac : macs) ASSERT_EQ(Save(mac), 0);
  ASSERT_EQ(zcfg_uci_set("p2p.000000000002.name", "Garden"), 0);
  ASSERT_EQ(zcfg_uci_set("p2p.000000000002.pushalarm", "0"), 0);
  ASSERT_EQ(zcfg_uci_set("p2p.000000000002.new_interval", "300"), 0);

  // a fifth camera is refused, but one of the four may come back at any time
  ASSERT_EQ(SaveInfoToConfig("000000000002", "HW2", "V2.0", 0, 0, 1, 2966, -71), 0);
  EXPECT_EQ(Get("p2p.000000000002.battery"), "0");
  EXPECT_EQ(Get("p2p.000000000002.wifi"), "3");
  EXPECT_EQ(Get("p2p.000000000002.version"), "V2.0");
  EXPECT_EQ(Get("p2p.000000000002.hardver"), "HW2");
  EXPECT_EQ(Get("p2p.000000000002.night"), "1");
  EXPECT_EQ(Get("p2p.000000000002.event"), "motion1");
  EXPECT_EQ(Get("p2p.000000000002.name"), "Garden");
  EXPECT_EQ(Get("p2p.000000000002.pushalarm"), "0");
  EXPECT_EQ(Get("p2p.000000000002.new_interval"), "300");
  EXPECT_EQ(Get("p2p.000000000002.pir_duration"), "10");
}

TEST_F(Cameras, EventNamesAreReusedAndNeverShared) {
  ASSERT_EQ(Save("000000000001"), 0);
  ASSERT_EQ(Save("000000000002"), 0);
  ASSERT_EQ(Save("000000000003"), 0);
  ASSERT_EQ(zcfg_uci_delete("p2p.000000000002"), 0);
  // the freed name goes to the next camera
  ASSERT_EQ(Save("00000000000A"), 0);
  EXPECT_EQ(Get("p2p.00000000000A.event"), "motion1");

  // a camera whose event another camera already uses gets a free one
  ASSERT_EQ(zcfg_uci_set("p2p.000000000003.event", "motion"), 0);
  ASSERT_EQ(Save("000000000003"), 0);
  EXPECT_EQ(Get("p2p.000000000003.event"), "motion2");
  EXPECT_EQ(Get("p2p.000000000001.event"), "motion");
}

TEST_F(Cameras, BadReportsAreRefusedAndChangeNothing) {
  ASSERT_EQ(Save("000000000001"), 0);
  const std::string before = ReadFile(Board("/etc/config/p2p"));
  EXPECT_EQ(Save("00000000001"), -1);
  EXPECT_EQ(Save("0000000000012"), -1);
  EXPECT_EQ(Save("00000000000G"), -1);
  EXPECT_EQ(Save("000000000001.name"), -1);
  EXPECT_EQ(Save(nullptr), -1);
  EXPECT_EQ(SaveInfoToConfig("000000000002", "HW\n1", "V1", 0, 0, 0, 0, 0), -1);
  EXPECT_EQ(SaveInfoToConfig("000000000002", "HW1", "V1'x", 0, 0, 0, 0, 0), -1);
  EXPECT_EQ(SaveInfoToConfig("000000000002", "HW1", std::string(32, 'v').c_str(), 0, 0, 0, 0, 0),
            -1);
  EXPECT_EQ(SaveInfoToConfig("000000000002", nullptr, "V1", 0, 0, 0, 0, 0), -1);
  EXPECT_EQ(ReadFile(Board("/etc/config/p2p")), before);
  EXPECT_TRUE(Logged("Invalid camera mac, don't save"));
  EXPECT_TRUE(Logged("Invalid camera version text, don't save"));
}

TEST_F(Cameras, AMalformedPackageIsLeftAlone) {
  const std::string broken = "config p2p '000000000001'\n\toption name 'unterminated\n";
  WriteFile(Board("/etc/config/p2p"), broken);
  EXPECT_EQ(Save("000000000002"), -1);
  EXPECT_EQ(ReadFile(Board("/etc/config/p2p")), broken);
}

}  // namespace
