#include "platform/nvram.h"

#include <gtest/gtest.h>

#include <filesystem>

#include <cstring>

#include <string>

#include "platform/board.h"
#include "platform/boardmaker.h"
#include "support/boardfixture.h"
#include "support/testsupport.h"

namespace {

using testsupport::ReadFile;

class NvramTest : public ::testing::Test {
 protected:
  void MakeBoard(const platform::BoardOptions& options = {}) {
    testsupport::UseBoard(dir_.path(), options);
  }
  void TearDown() override { platform::SetRootForTest(""); }

  std::string Get(const char* section, const char* key) {
    char out[64];
    if (nvram_get(section, key, out, sizeof(out)) != 0) {
      EXPECT_STREQ(out, "");
      return "<absent>";
    }
    return out;
  }
  void Reload() {
    ASSERT_EQ(nvram_filecache(), 0);
    ASSERT_EQ(nvram_parse(), 0);
  }

  testsupport::TempDir dir_;
};

TEST_F(NvramTest, IdentityOfTheBoardReachesTheViewThroughTheCache) {
  MakeBoard();
  EXPECT_EQ(nvram_parse(), -1);  // no cache yet
  EXPECT_EQ(Get("p2p", "uid"), "<absent>");
  Reload();
  EXPECT_EQ(ReadFile(dir_.path() + "/tmp/.nvramcache"),
            "p2p.did=1000000001\np2p.key=TarvoDeviceKey01\np2p.mac=021A2B3C4D5E\n"
            "p2p.uid=TARVOHUB000000000001\n");
  EXPECT_EQ(Get("p2p", "did"), "1000000001");
  EXPECT_EQ(Get("p2p", "mac"), "021A2B3C4D5E");
  EXPECT_EQ(Get("p2p", "uid"), "TARVOHUB000000000001");
  EXPECT_EQ(Get("p2p", "nothing"), "<absent>");
  // The listing replaces what the vector held.
  std::vector<std::pair<std::string, std::string>> entries = {{"stale.entry", "x"}};
  ASSERT_TRUE(platform::NvramEntries(&entries));
  ASSERT_EQ(entries.size(), 4u);
  EXPECT_EQ(entries[0], (std::pair<std::string, std::string>{"p2p.did", "1000000001"}));

  // Cut to the room given, the terminator inside it; the byte after the room is never written.
  char room[32];
  std::memset(room, '#', sizeof(room));
  ASSERT_EQ(nvram_get("p2p", "uid", room, 5), 0);
  EXPECT_STREQ(room, "TARV");
  EXPECT_EQ(room[5], '#');
  std::memset(room, '#', sizeof(room));
  ASSERT_EQ(nvram_get("p2p", "did", room, 11), 0);  // ten digits fill the room exactly
  EXPECT_STREQ(room, "1000000001");
  EXPECT_EQ(room[11], '#');
}

TEST_F(NvramTest, SetIsSeenAtOnceAndKeptOnlyAfterCommit) {
  platform::BoardOptions options;
  options.identity = false;
  MakeBoard(options);
  Reload();
  EXPECT_EQ(Get("p2p", "did"), "<absent>");

  // The lock that orders the shim's and the daemon's updates is there from the first update on,
  // its folder made for it on a board that has none yet.
  std::filesystem::remove_all(dir_.path() + "/etc/nvram");
  ASSERT_EQ(nvram_set("p2p", "uid", "NEWUID"), 0);
  EXPECT_TRUE(testsupport::FileExists(dir_.path() + "/etc/nvram/.lock"));
  ASSERT_EQ(nvram_set("p2p", "legalstatus", "1"), 0);
  EXPECT_EQ(Get("p2p", "uid"), "TARVOHUB000000000001");  // the view changes only on parse
  Reload();
  EXPECT_EQ(Get("p2p", "uid"), "NEWUID");
  std::string value;
  ASSERT_EQ(platform::NvramLookup("p2p", "legalstatus", &value), 0);
  EXPECT_EQ(value, "1");
  EXPECT_EQ(ReadFile(dir_.path() + "/etc/nvram/store").find("NEWUID"), std::string::npos);

  ASSERT_EQ(nvram_commit(), 0);
  EXPECT_EQ(ReadFile(dir_.path() + "/etc/nvram/store"), "p2p.legalstatus=1\np2p.uid=NEWUID\n");
  EXPECT_FALSE(testsupport::FileExists(dir_.path() + "/tmp/.nvram.pending"));
}

TEST_F(NvramTest, InvalidNamesAndValuesAreRefused) {
  MakeBoard();
  EXPECT_EQ(nvram_set("p2p", "uid", "two\nlines"), -1);
  EXPECT_EQ(nvram_set("p2p", "uid", std::string(kNvramValueMax + 1, 'u').c_str()), -1);
  EXPECT_EQ(nvram_set("p2p", "u.id", "x"), -1);
  EXPECT_EQ(nvram_set("p2p", "uid=", "x"), -1);
  EXPECT_EQ(nvram_set("../p2p", "uid", "x"), -1);
  EXPECT_EQ(nvram_set("", "uid", "x"), -1);
  EXPECT_EQ(nvram_set("p2p", nullptr, "x"), -1);
  char out[8];
  EXPECT_EQ(nvram_get("p2p", "u id", out, sizeof(out)), -1);
  EXPECT_EQ(nvram_get("p2p", "uid", out, 0), -1);
  EXPECT_EQ(nvram_set("p2p", "uid", std::string(kNvramValueMax, 'u').c_str()), 0);
  EXPECT_EQ(nvram_set("p2p", "uid", "it's ok = really"), 0);
  Reload();
  EXPECT_EQ(Get("p2p", "uid"), "it's ok = really");
}

TEST_F(NvramTest, MalformedStoreIsRefused) {
  MakeBoard();
  testsupport::WriteFile(dir_.path() + "/etc/nvram/store", "p2p.uid=X\nnot an entry\n");
  EXPECT_EQ(nvram_filecache(), -1);
  EXPECT_EQ(nvram_commit(), -1);
  EXPECT_EQ(ReadFile(dir_.path() + "/etc/nvram/store"), "p2p.uid=X\nnot an entry\n");
}

}  // namespace
