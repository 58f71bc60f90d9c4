// Option parsing and log records: the parts of start-up that run before anything else.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "base/log.h"
#include "core/configuration.h"
#include "startup/main.h"

namespace {

struct Parsed {
  Option option;
  std::string mac;
};

Parsed Parse(std::vector<std::string> words) {
  words.insert(words.begin(), "tarvo-p2p");
  std::vector<char*> argv;
  for (auto& w : words) argv.push_back(w.data());
  argv.push_back(nullptr);  // as the C runtime hands it over
  Configuration& config = Configuration::getInstance();
  config.SetMac("unset");
  Parsed p;
  ParseOptions(&p.option, &config, static_cast<int>(words.size()), argv.data());
  p.mac = config.GetMac();
  return p;
}

TEST(ParseOptions, DefaultsAndPlainOptions) {
  Parsed p = Parse({});
  EXPECT_EQ(p.option.daemon, 0);
  EXPECT_EQ(p.option.log_level, 7);

  p = Parse({"-d", "-v", "3", "-s", "SN123", "-m", "AABBCCDDEEFF"});
  EXPECT_EQ(p.option.daemon, 1);
  EXPECT_EQ(p.option.log_level, 3);
  EXPECT_EQ(p.mac, "AABBCCDDEEFF");

  p = Parse({"bogus", "-x", "-v", "15"});  // unknown words are skipped
  EXPECT_EQ(p.option.log_level, 15);
}

TEST(ParseOptions, LevelIsTruncatedToEightBits) {
  EXPECT_EQ(Parse({"-v", "300"}).option.log_level, 300 & 0xff);
  EXPECT_EQ(Parse({"-v", "-1"}).option.log_level, 255);
  EXPECT_EQ(Parse({"-v", "abc"}).option.log_level, 0);
}

TEST(ParseOptions, MissingValueKeepsTheDefault) {
  EXPECT_EQ(Parse({"-v"}).option.log_level, 7);
  EXPECT_EQ(Parse({"-m"}).mac, "unset");
  Parsed p = Parse({"-d", "-s"});
  EXPECT_EQ(p.option.daemon, 1);
}

TEST(ParseOptions, ValueWordIsComparedWithTheRemainingOptions) {
  // after "-v" the value word "-m" is parsed as a level (0) and then taken as "-m" itself
  Parsed p = Parse({"-v", "-m", "112233445566"});
  EXPECT_EQ(p.option.log_level, 0);
  EXPECT_EQ(p.mac, "112233445566");
  // after "-s" the value word is compared with "-m" in the same pass
  EXPECT_EQ(Parse({"-s", "-m", "665544332211"}).mac, "665544332211");
  // but not with "-d", which comes earlier in the walk
  EXPECT_EQ(Parse({"-s", "-d"}).option.daemon, 0);
  // "-v" as the value of "-v": level 0; the value word is not taken as "-v" again, so "5" is
  // an unknown word
  p = Parse({"-v", "-v", "5"});
  EXPECT_EQ(p.option.log_level, 0);
}

TEST(ParseOptionsDeathTest, HelpExitsZeroWherever) {
  EXPECT_EXIT(Parse({"-d", "-v", "3", "-h"}), ::testing::ExitedWithCode(0), "");
  EXPECT_EXIT(Parse({"-h", "-v"}), ::testing::ExitedWithCode(0), "");
}

TEST(LogMask, LevelsToMasks) {
  EXPECT_EQ(tlog::MaskForLevel(0), 0x1);
  EXPECT_EQ(tlog::MaskForLevel(3), 0xf);
  EXPECT_EQ(tlog::MaskForLevel(7), 0xff);
  EXPECT_EQ(tlog::MaskForLevel(15), 0xffff);
  EXPECT_EQ(tlog::MaskForLevel(255), -1);
}

class LogRecords : public ::testing::Test {
 protected:
  void SetUp() override {
    tlog::SetCaptureSink([this](int prio, const std::string& text) {
      records_.push_back(std::to_string(prio) + "|" + text);
    });
  }
  void TearDown() override {
    tlog::SetCaptureSink({});
    tlog::Open(7);
  }
  void InitAt(int level) {
    Option option;
    option.log_level = static_cast<uint8_t>(level);
    InitLogger(&option);
  }
  std::vector<std::string> records_;
};

TEST_F(LogRecords, FormatIsUnitFunctionLineText) {
  tlog::Open(7);
  records_.clear();
  const int line = __LINE__ + 1;
  TLOG(LOG_DEBUG) << "Hub mac: AA:BB" << ' ' << 42;
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_EQ(records_[0], "7|startup_test TestBody:" + std::to_string(line) + ": Hub mac: AA:BB 42");
}

TEST_F(LogRecords, MaskKeepsOnlyPrioritiesUpToTheLevel) {
  InitAt(3);
  ASSERT_FALSE(records_.empty());  // written before the mask, so it passes at any level
  EXPECT_NE(records_.back().find("6|main InitLogger:"), std::string::npos) << records_.back();
  EXPECT_NE(records_.back().find(": Logger init 3."), std::string::npos);
  records_.clear();
  TLOG(LOG_DEBUG) << "dropped";
  TLOG(LOG_WARNING) << "dropped too";
  TLOG(LOG_ERR) << "kept";
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_NE(records_[0].find("kept"), std::string::npos);

  records_.clear();
  InitAt(0);
  ASSERT_EQ(records_.size(), 1u);
  EXPECT_NE(records_[0].find("Logger init 0."), std::string::npos);
  records_.clear();
  TLOG(LOG_ERR) << "dropped";
  TLOG(LOG_EMERG) << "only emergencies";
  EXPECT_EQ(records_.size(), 1u);
}

}  // namespace
