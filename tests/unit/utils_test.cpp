// Helpers that need no board: conversion tables, hexadecimal text, files and digests.
#include "core/utils.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <set>
#include <string>

#include "support/testsupport.h"

using namespace testsupport;

namespace {

TEST(BatteryPercent, StepsAtTheirBounds) {
  EXPECT_EQ(utils::GetBatteryPercent(4019), 100);
  EXPECT_EQ(utils::GetBatteryPercent(4018), 95);
  EXPECT_EQ(utils::GetBatteryPercent(3963), 95);
  EXPECT_EQ(utils::GetBatteryPercent(3962), 90);
  EXPECT_EQ(utils::GetBatteryPercent(3600), 55);
  EXPECT_EQ(utils::GetBatteryPercent(3599), 50);
  EXPECT_EQ(utils::GetBatteryPercent(3361), 15);
  EXPECT_EQ(utils::GetBatteryPercent(3360), 10);
  EXPECT_EQ(utils::GetBatteryPercent(2967), 10);
  EXPECT_EQ(utils::GetBatteryPercent(2966), 0);
  EXPECT_EQ(utils::GetBatteryPercent(0), 0);
  EXPECT_EQ(utils::GetBatteryPercent(INT_MIN), 0);
  EXPECT_EQ(utils::GetBatteryPercent(INT_MAX), 100);
}

TEST(WifiStrength, ClassesAtTheirBounds) {
  EXPECT_EQ(utils::GetWifiStrength(-50), 1);
  EXPECT_EQ(utils::GetWifiStrength(-51), 2);
  EXPECT_EQ(utils::GetWifiStrength(-70), 2);
  EXPECT_EQ(utils::GetWifiStrength(-71), 3);
  EXPECT_EQ(utils::GetWifiStrength(0), 1);
  EXPECT_EQ(utils::GetWifiStrength(INT_MIN), 3);
}

TEST(Hex, DigitValuesAndEverythingElseRefused) {
  for (int c = 0; c < 256; c++) {
    const char ch = static_cast<char>(c);
    int expected = -1;
    if (c >= '0' && c <= '9') expected = c - '0';
    if (c >= 'A' && c <= 'F') expected = c - 'A' + 10;
    if (c >= 'a' && c <= 'f') expected = c - 'a' + 10;
    EXPECT_EQ(utils::HexToInt8(ch), expected) << "char " << c;
  }
}

TEST(Hex, MacTextToBytes) {
  uint8_t out[6];
  ASSERT_EQ(utils::ConverToUint8("0A1b2C3d4E5F", out), 0);
  const uint8_t expected[6] = {0x0a, 0x1b, 0x2c, 0x3d, 0x4e, 0x5f};
  EXPECT_EQ(std::memcmp(out, expected, 6), 0);
  ASSERT_EQ(utils::ConverToUint8("FFFFFFFFFFFF", out), 0);
  EXPECT_EQ(out[0], 0xff);
  EXPECT_EQ(out[5], 0xff);
}

TEST(Hex, MacTextOfWrongLengthOrDigitsLeavesTheOutputAlone) {
  for (const char* bad : {"", "0A1B2C3D4E5", "0A1B2C3D4E5F0", "0A1B2C3D4E5G", "0A:1B:2C:3D:4E:5F",
                          "0A1B2C 3D4E5F", "-A1B2C3D4E5F", "0x1B2C3D4E5F", "0A1B2C3D4E5\n"}) {
    uint8_t out[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(utils::ConverToUint8(bad, out), -1) << "'" << bad << "'";
    const uint8_t untouched[6] = {1, 2, 3, 4, 5, 6};
    EXPECT_EQ(std::memcmp(out, untouched, 6), 0) << bad;
  }
  uint8_t out[6];
  EXPECT_EQ(utils::ConverToUint8(nullptr, out), -1);
}

TEST(Hex, UppercaseAndHexText) {
  char text[] = "aa:bb:cc:0f:zz\xe9";
  EXPECT_EQ(utils::ConvertToUppercase(text), text);
  EXPECT_STREQ(text, "AA:BB:CC:0F:ZZ\xe9");
  EXPECT_EQ(utils::ConvertToUppercase(std::string("0a1b2c3d4e5f")), "0A1B2C3D4E5F");
  EXPECT_EQ(utils::ConvertToUppercase(static_cast<char*>(nullptr)), nullptr);

  EXPECT_EQ(utils::str2hex(std::string("\x00\xff\x10"
                                       "a",
                                       4)),
            "00ff1061");
  EXPECT_EQ(utils::str2hex(""), "");
}

TEST(RandomId, StaysWithinItsRange) {
  std::set<int> seen;
  for (int i = 0; i < 2000; i++) {
    const int id = utils::generate_random_id();
    ASSERT_GE(id, 1);
    ASSERT_LE(id, 10000000);
    seen.insert(id);
  }
  EXPECT_GT(seen.size(), 1u);
}

// Exits 0 when the offset has the expected value and local time is now minus the offset.
[[noreturn]] void CheckZoneAndExit(const char* zone, double offset) {
  setenv("TZ", zone, 1);
  const time_t now = 1700000000;
  struct tm local, shifted;
  localtime_r(&now, &local);
  const time_t moved = now - static_cast<time_t>(utils::GetTimeOffset());
  gmtime_r(&moved, &shifted);
  const bool same = local.tm_hour == shifted.tm_hour && local.tm_min == shifted.tm_min &&
                    local.tm_mday == shifted.tm_mday;
  std::exit(utils::GetTimeOffset() == offset && same ? 0 : 1);
}

// The offset is read once per process, so each zone is tried in a fresh one.
void ExpectLocalTimeIsNowMinusOffset(const char* zone, double offset) {
  GTEST_FLAG_SET(death_test_style, testsupport::FreshChildDeathTestStyle());
  EXPECT_EXIT(CheckZoneAndExit(zone, offset), ::testing::ExitedWithCode(0), "") << zone;
}

TEST(TimeOffset, IsTheZoneOffsetWestOfUtc) {
  ExpectLocalTimeIsNowMinusOffset("UTC0", 0);
  ExpectLocalTimeIsNowMinusOffset("CST-8", -28800);
  ExpectLocalTimeIsNowMinusOffset("EST5", 18000);
  ExpectLocalTimeIsNowMinusOffset("IST-5:30", -19800);
}

class Files : public ::testing::Test {
 protected:
  std::string Path(const std::string& name) const { return dir_.path() + "/" + name; }
  std::vector<std::string> Names(const std::string& dir) const {
    std::vector<std::string> names;
    for (const auto& e : std::filesystem::directory_iterator(dir))
      names.push_back(e.path().filename().string());
    std::sort(names.begin(), names.end());
    return names;
  }
  TempDir dir_;
};

TEST_F(Files, CopyReplacesTheDestinationWholeAndKeepsTheMode) {
  std::string content(100000, '\0');
  for (size_t i = 0; i < content.size(); i++) content[i] = static_cast<char>(i * 7);
  WriteFile(Path("src"), content);
  chmod(Path("src").c_str(), 0640);
  WriteFile(Path("dst"), "old contents that are longer than nothing");

  ASSERT_EQ(utils::CopyFile(Path("src").c_str(), Path("dst").c_str()), 0);
  EXPECT_EQ(ReadFile(Path("dst")), content);
  struct stat st;
  ASSERT_EQ(stat(Path("dst").c_str(), &st), 0);
  EXPECT_EQ(st.st_mode & 0777, 0640u);
  EXPECT_EQ(Names(dir_.path()), (std::vector<std::string>{"dst", "src"}));  // no temporary left
}

TEST_F(Files, FailedCopyLeavesTheDestinationAsItWas) {
  WriteFile(Path("dst"), "keep");
  EXPECT_EQ(utils::CopyFile(Path("missing").c_str(), Path("dst").c_str()), -1);
  EXPECT_EQ(ReadFile(Path("dst")), "keep");

  std::filesystem::create_directory(Path("folder"));
  EXPECT_EQ(utils::CopyFile(Path("folder").c_str(), Path("dst").c_str()), -1);
  EXPECT_EQ(ReadFile(Path("dst")), "keep");

  WriteFile(Path("src"), "x");
  EXPECT_EQ(utils::CopyFile(Path("src").c_str(), Path("nodir/dst").c_str()), -1);
  EXPECT_EQ(utils::CopyFile(nullptr, Path("dst").c_str()), -1);
  EXPECT_EQ(Names(dir_.path()), (std::vector<std::string>{"dst", "folder", "src"}));
}

TEST_F(Files, CheckDirExistCreatesParents) {
  const std::string deep = Path("a/b/c");
  ASSERT_EQ(utils::CheckDirExist(deep.c_str()), 0);
  EXPECT_TRUE(std::filesystem::is_directory(deep));
  EXPECT_EQ(utils::CheckDirExist(deep.c_str()), 0);
  EXPECT_EQ(utils::CheckDirExist((deep + "/").c_str()), 0);

  WriteFile(Path("file"), "x");
  EXPECT_EQ(utils::CheckDirExist(Path("file").c_str()), -1);
  EXPECT_EQ(utils::CheckDirExist(Path("file/sub").c_str()), -1);
  EXPECT_EQ(utils::CheckDirExist(""), -1);
}

TEST_F(Files, DirectoryEmptiness) {
  std::filesystem::create_directory(Path("d"));
  EXPECT_EQ(utils::IsDirectoryEmpty(Path("d").c_str()), 1);
  WriteFile(Path("d/.hidden"), "");
  EXPECT_EQ(utils::IsDirectoryEmpty(Path("d").c_str()), 0);
  EXPECT_EQ(utils::IsDirectoryEmpty(Path("missing").c_str()), -1);
  EXPECT_EQ(utils::IsDirectoryEmpty(Path("d/.hidden").c_str()), -1);
}

TEST_F(Files, Md5OfKnownTexts) {
  char md5[33];
  WriteFile(Path("empty"), "");
  ASSERT_EQ(utils::ComputeFileMd5(Path("empty").c_str(), md5), 0);
  EXPECT_STREQ(md5, "d41d8cd98f00b204e9800998ecf8427e");

  WriteFile(Path("abc"), "abc");
  ASSERT_EQ(utils::ComputeFileMd5(Path("abc").c_str(), md5), 0);
  EXPECT_STREQ(md5, "900150983cd24fb0d6963f7d28e17f72");

  // many read buffers' worth
  WriteFile(Path("million"), std::string(1000000, 'a'));
  ASSERT_EQ(utils::ComputeFileMd5(Path("million").c_str(), md5), 0);
  EXPECT_STREQ(md5, "7707d6ae4e027c70eea2a935c2296f21");

  EXPECT_EQ(utils::ComputeFileMd5(Path("missing").c_str(), md5), -1);
  EXPECT_STREQ(md5, "");
}

}  // namespace
