#include "platform/uci.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstring>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/board.h"
#include "platform/boardfs.h"
#include "platform/boardmaker.h"
#include "platform/ucifile.h"
#include "support/boardfixture.h"
#include "support/testsupport.h"

namespace {

using testsupport::ReadFile;
using testsupport::WriteFile;

class UciTest : public testsupport::BoardFixture {
 protected:
  platform::BoardOptions Options() const override {
    platform::BoardOptions options;
    options.cameras = {{"0A1B2C3D4E5F", ""}, {"112233445566", ""}};
    return options;
  }

  std::string Get(const std::string& key) {
    char out[256];
    if (zcfg_uci_get(key.c_str(), out, sizeof(out)) != 0) return "<absent>";
    return out;
  }
  std::string Package(const std::string& name) { return ReadFile(root() + "/etc/config/" + name); }
  void PutPackage(const std::string& name, const std::string& text) {
    WriteFile(root() + "/etc/config/" + name, text);
  }
  std::vector<std::string> Sections(const std::string& package, int max = 16) {
    char list[16][kUciSectionNameLen];
    std::memset(list, 'x', sizeof(list));
    int n = zcfg_uci_get_section_list(package.c_str(), list, max);
    std::vector<std::string> out;
    for (int i = 0; i < n; i++) out.emplace_back(list[i]);
    if (n < 0) out.push_back("<error>");
    return out;
  }
};

TEST_F(UciTest, ReadsTheBoardsPackagesByNameAndByTypeIndex) {
  EXPECT_EQ(Get("wireless.@wifi-iface[2].ssid"), "tarvo-cam-ap");
  EXPECT_EQ(Get("wireless.@wifi-iface[2].key"), "tarvo-cam-secret");
  EXPECT_EQ(Get("wireless.@wifi-iface[-1].ssid"), "tarvo-cam-ap");
  EXPECT_EQ(Get("wireless.@wifi-iface[-3].ifname"), "ra0");
  EXPECT_EQ(Get("wireless.@wifi-iface[3].ssid"), "<absent>");
  EXPECT_EQ(Get("wireless.@wifi-iface[-4].ssid"), "<absent>");
  EXPECT_EQ(Get("wireless.@wifi-device[0]"), "wifi-device");  // a section reads as its type
  EXPECT_EQ(Get("hub_config.power.threshold"), "20");
  EXPECT_EQ(Get("network.wan.ifname"), "eth0");
  EXPECT_EQ(Get("network.wan.missing"), "<absent>");
  EXPECT_EQ(Get("nosuchpackage.a.b"), "<absent>");
  EXPECT_EQ(Get("p2p.0A1B2C3D4E5F.new_interval"), "60");
  EXPECT_EQ(Get("p2p.112233445566.event"), "motion1");

  // A value is cut to the room given, its terminator inside that room: the byte after the
  // room is never written, whether the value is longer than the room or fills it exactly.
  char room[16];
  std::memset(room, '#', sizeof(room));
  ASSERT_EQ(zcfg_uci_get("wireless.@wifi-iface[2].ssid", room, 4), 0);
  EXPECT_STREQ(room, "tar");
  EXPECT_EQ(room[4], '#');
  std::memset(room, '#', sizeof(room));
  ASSERT_EQ(zcfg_uci_get("hub_config.power.threshold", room, 3), 0);  // "20" and its terminator
  EXPECT_STREQ(room, "20");
  EXPECT_EQ(room[3], '#');
  std::memset(room, '#', sizeof(room));
  ASSERT_EQ(zcfg_uci_get("hub_config.power.threshold", room, 2), 0);
  EXPECT_STREQ(room, "2");
  EXPECT_EQ(room[2], '#');
}

TEST_F(UciTest, SetCreatesRetypesAndDeletesSectionsAndKeepsTheRest) {
  PutPackage("p2p",
             "# cameras\n"
             "config p2p 'AAAAAAAAAAAA'\n"
             "\toption name 'front door'\n"
             "\tlist zone 'a'\n"
             "\tlist zone 'b'\n"
             "\n"
             "config extra\n"
             "\toption kind \"anon\"\n");
  ASSERT_EQ(zcfg_uci_set("p2p.BBBBBBBBBBBB", "p2p"), 0);
  ASSERT_EQ(zcfg_uci_set("p2p.BBBBBBBBBBBB.battery", "80"), 0);
  // Setting the value an option already has writes nothing (the flash is not worn for it).
  struct stat before, after;
  ASSERT_EQ(stat((root() + "/etc/config/p2p").c_str(), &before), 0);
  ASSERT_EQ(zcfg_uci_set("p2p.BBBBBBBBBBBB.battery", "80"), 0);
  ASSERT_EQ(stat((root() + "/etc/config/p2p").c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);
  EXPECT_EQ(Get("p2p.BBBBBBBBBBBB"), "p2p");
  EXPECT_EQ(Get("p2p.BBBBBBBBBBBB.battery"), "80");
  // the untouched list survives the rewrite, items in order
  EXPECT_EQ(Get("p2p.AAAAAAAAAAAA.zone"), "a b");
  EXPECT_NE(Package("p2p").find("\tlist zone 'a'\n\tlist zone 'b'\n"), std::string::npos);
  EXPECT_EQ(Get("p2p.@extra[0].kind"), "anon");

  ASSERT_EQ(zcfg_uci_set("p2p.AAAAAAAAAAAA", "camera"), 0);  // retype keeps the options
  EXPECT_EQ(Get("p2p.AAAAAAAAAAAA"), "camera");
  EXPECT_EQ(Get("p2p.AAAAAAAAAAAA.name"), "front door");
  ASSERT_EQ(zcfg_uci_set("p2p.@extra[-1]", "other"), 0);
  EXPECT_EQ(Get("p2p.@other[0].kind"), "anon");

  EXPECT_EQ(zcfg_uci_set("p2p.CCCCCCCCCCCC.name", "x"), -1);  // no such section
  EXPECT_EQ(zcfg_uci_set("p2p.@p2p[5]", "p2p"), -1);

  ASSERT_EQ(zcfg_uci_delete("p2p.AAAAAAAAAAAA.zone"), 0);
  EXPECT_EQ(Get("p2p.AAAAAAAAAAAA.zone"), "<absent>");
  EXPECT_EQ(zcfg_uci_delete("p2p.AAAAAAAAAAAA.zone"), -1);
  ASSERT_EQ(zcfg_uci_delete("p2p.@other[0]"), 0);
  ASSERT_EQ(zcfg_uci_delete("p2p.AAAAAAAAAAAA"), 0);
  EXPECT_EQ(Sections("p2p"), std::vector<std::string>{"BBBBBBBBBBBB"});
  EXPECT_EQ(Package("p2p"), "\nconfig p2p 'BBBBBBBBBBBB'\n\toption battery '80'\n\n");
}

TEST_F(UciTest, QuotingRoundTripsThroughTheFile) {
  const std::vector<std::string> values = {"it's", "a \"b\" c",  "back\\slash", "# not a comment",
                                           "",     "  padded  ", "x'y'z"};
  for (size_t i = 0; i < values.size(); i++) {
    const std::string key = "hub_config.power.v" + std::to_string(i);
    ASSERT_EQ(zcfg_uci_set(key.c_str(), values[i].c_str()), 0) << values[i];
  }
  for (size_t i = 0; i < values.size(); i++) {
    EXPECT_EQ(Get("hub_config.power.v" + std::to_string(i)), values[i]);
  }
  EXPECT_NE(Package("hub_config").find("\toption v0 'it'\\''s'\n"), std::string::npos);

  // the other quoting forms uci accepts
  PutPackage("network",
             "package network\n"
             "config interface wan   # the uplink\n"
             "\toption ifname eth\\ 0\n"
             "\toption a \"x\\\"y\"\n"
             "\toption b 'one'\"two\"three\n");
  EXPECT_EQ(Get("network.wan.ifname"), "eth 0");
  EXPECT_EQ(Get("network.wan.a"), "x\"y");
  EXPECT_EQ(Get("network.wan.b"), "onetwothree");
}

TEST_F(UciTest, SectionListHasNamedSectionsInFileOrder) {
  PutPackage("p2p",
             "config p2p 'CCCCCCCCCCCC'\n"
             "config p2p\n"
             "config p2p 'this_name_is_too_long'\n"
             "config p2p 'AAAAAAAAAAAA'\n"
             "config p2p 'BBBBBBBBBBBB'\n");
  EXPECT_EQ(Sections("p2p"),
            (std::vector<std::string>{"CCCCCCCCCCCC", "AAAAAAAAAAAA", "BBBBBBBBBBBB"}));
  EXPECT_EQ(Sections("p2p", 2), (std::vector<std::string>{"CCCCCCCCCCCC", "AAAAAAAAAAAA"}));
  PutPackage("p2p", "\n");
  EXPECT_TRUE(Sections("p2p").empty());
  EXPECT_EQ(Sections("missing"), std::vector<std::string>{"<error>"});
}

TEST_F(UciTest, MalformedPackageIsRefusedAndNeverOverwritten) {
  const std::vector<std::string> bad = {
      "config p2p 'AAAAAAAAAAAA\n",           // unterminated quote
      "\toption name 'x'\n",                  // option outside a section
      "config p2p 'A'\nwhat is this\n",       // unknown keyword
      "config p2p 'bad/name'\n",              // invalid name
      "config p2p 'A'\n\toption a b c\n",     // too many words
      std::string("config p2p 'A'\n\0", 16),  // NUL byte
  };
  std::vector<std::string> logged;
  tlog::SetCaptureSink([&logged](int, const std::string& line) { logged.push_back(line); });
  for (const auto& text : bad) {
    logged.clear();
    PutPackage("p2p", text);
    EXPECT_EQ(Get("p2p.A.name"), "<absent>");
    EXPECT_EQ(zcfg_uci_set("p2p.BBBBBBBBBBBB", "p2p"), -1);
    EXPECT_EQ(zcfg_uci_delete("p2p.A"), -1);
    EXPECT_EQ(Sections("p2p"), std::vector<std::string>{"<error>"});
    EXPECT_EQ(Package("p2p"), text);
    ASSERT_FALSE(logged.empty());
    EXPECT_NE(logged[0].find("malformed package p2p (" + root() + "/etc/config/p2p) line "),
              std::string::npos)
        << logged[0];
  }
  tlog::SetCaptureSink(nullptr);
}

TEST_F(UciTest, InvalidKeysAndValuesAreRefused) {
  const std::string before = Package("hub_config");
  for (const char* key : {"../etc.power.x", "hub/config.power.x", "hub_config", "hub_config..x",
                          "hub_config.power.x.y", "hub_config.@power[x].a", "hub_config.@power[0.a",
                          ".power.x", "hub_config.po wer.x"}) {
    EXPECT_EQ(zcfg_uci_set(key, "1"), -1) << key;
    char out[8];
    EXPECT_EQ(zcfg_uci_get(key, out, sizeof(out)), -1) << key;
  }
  EXPECT_EQ(zcfg_uci_set("hub_config.power.x", "line\nbreak"), -1);
  EXPECT_EQ(
      zcfg_uci_set("hub_config.power.x", std::string(platform::uci::kValueMax + 1, 'v').c_str()),
      -1);
  EXPECT_EQ(zcfg_uci_set(("hub_config.power." + std::string(64, 'k')).c_str(), "1"), -1);
  EXPECT_EQ(zcfg_uci_set("hub_config.new", "bad type!"), -1);
  EXPECT_EQ(zcfg_uci_set("hub_config.power.x", nullptr), -1);
  EXPECT_EQ(Package("hub_config"), before);
  EXPECT_EQ(zcfg_uci_set("hub_config.power.x", std::string(platform::uci::kValueMax, 'v').c_str()),
            0);
}

void ExitBeforeRename(const char*) {
  _exit(0);
}

TEST_F(UciTest, CrashBetweenWriteAndRenameLeavesTheOldPackage) {
  const std::string before = Package("hub_config");
  pid_t pid = fork();
  ASSERT_GE(pid, 0);
  if (pid == 0) {
    platform::boardfs::SetBeforeRenameHookForTest(ExitBeforeRename);
    zcfg_uci_set("hub_config.power.threshold", "55");
    _exit(1);  // not reached: the hook ends the child first
  }
  int status = 0;
  ASSERT_EQ(waitpid(pid, &status, 0), pid);
  ASSERT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);

  EXPECT_EQ(Package("hub_config"), before);
  std::vector<std::string> stale;
  for (const auto& entry : std::filesystem::directory_iterator(root() + "/etc/config")) {
    const std::string name = entry.path().filename().string();
    if (name.rfind(".hub_config.", 0) == 0) stale.push_back(name);
  }
  ASSERT_EQ(stale.size(), 1u);  // the half-finished write, fully written but never renamed
  EXPECT_NE(ReadFile(root() + "/etc/config/" + stale[0]).find("'55'"), std::string::npos);

  EXPECT_EQ(Get("hub_config.power.threshold"), "20");
  ASSERT_EQ(zcfg_uci_set("hub_config.power.threshold", "30"), 0);
  EXPECT_EQ(Get("hub_config.power.threshold"), "30");
  EXPECT_EQ(Sections("hub_config"), std::vector<std::string>{"power"});
}

TEST(UciFile, SerializeWritesWhatUciCommitWrites) {
  platform::uci::Package package;
  std::string error;
  ASSERT_TRUE(
      platform::uci::Parse("config a\n option x '1'\n list l 'p'\n list l 'q'\n"
                           "config b 'named'\n",
                           &package, &error))
      << error;
  EXPECT_EQ(platform::uci::Serialize(package),
            "\nconfig a\n\toption x '1'\n\tlist l 'p'\n\tlist l 'q'\n\nconfig b 'named'\n\n");
  platform::uci::Package again;
  ASSERT_TRUE(platform::uci::Parse(platform::uci::Serialize(package), &again, &error));
  EXPECT_EQ(platform::uci::Serialize(again), platform::uci::Serialize(package));
  EXPECT_FALSE(platform::uci::Parse("config a\n option x 'open\n", &again, &error));
  EXPECT_EQ(error, "line 2: unterminated single quote");
  EXPECT_TRUE(again.sections.empty());  // a failed parse leaves nothing half read
}

TEST(UciFile, ParseReplacesWhatThePackageHeldAndTakesAnOptionWithoutValue) {
  platform::uci::Package package;
  std::string error;
  ASSERT_TRUE(platform::uci::Parse("config old 'x'\n", &package, &error)) << error;
  ASSERT_TRUE(
      platform::uci::Parse("config new 'y'\n option empty\n option three 'a'\n", &package, &error))
      << error;
  EXPECT_EQ(platform::uci::Serialize(package),
            "\nconfig new 'y'\n\toption empty ''\n\toption three 'a'\n\n");
  EXPECT_FALSE(platform::uci::Parse("config c\n option\n", &package, &error));
  EXPECT_EQ(error, "line 2: option needs a name and a value");
  EXPECT_FALSE(platform::uci::Parse("config c\n option a 'b' 'c'\n", &package, &error));
  EXPECT_EQ(error, "line 2: option needs a name and a value");
}

}  // namespace
