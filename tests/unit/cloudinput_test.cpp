// Checks on cloud values and the message de-duplication ring.
#include <gtest/gtest.h>

#include <string>

#include "cloud/cloudinput.h"
#include "cloud/msgring.h"

namespace {

TEST(CloudInput, MacIsTwelveHexDigitsMadeUpperCase) {
  std::string mac;
  EXPECT_TRUE(cloudinput::ParseMac("a1b2c3d4e5f6", &mac));
  EXPECT_EQ("A1B2C3D4E5F6", mac);
  for (const char* bad : {"", "A1B2C3D4E5F", "A1B2C3D4E5F60", "A1:B2:C3:D4:E5", "G1B2C3D4E5F6",
                          "A1B2C3D4E5F'", "A1B2C3 4E5F6", "../../etc/pw"}) {
    EXPECT_FALSE(cloudinput::ParseMac(bad, &mac)) << bad;
  }
  EXPECT_FALSE(cloudinput::ParseMac(std::string("A1B2C3D4E5F\0", 12), &mac));
}

TEST(CloudInput, UidIsAPlainTokenOfAtMost32) {
  EXPECT_TRUE(cloudinput::IsValidUid("ABCD1234efgh5678IJKL"));
  EXPECT_TRUE(cloudinput::IsValidUid(std::string(32, 'Z')));
  EXPECT_FALSE(cloudinput::IsValidUid(std::string(33, 'Z')));
  EXPECT_FALSE(cloudinput::IsValidUid(""));
  // Anything that could leave the quotes of the nvram command, or change it, is refused.
  for (const char* bad :
       {"A'; reboot; '", "A B", "A$(id)", "A`id`", "A\nB", "A-B", "A_B", "\xc3\xa9t\xc3\xa9"}) {
    EXPECT_FALSE(cloudinput::IsValidUid(bad)) << bad;
  }
}

TEST(CloudInput, NameWithoutQuotesOrControlsAndBounded) {
  EXPECT_TRUE(cloudinput::IsValidName("Front door"));
  EXPECT_TRUE(cloudinput::IsValidName("Caf\xc3\xa9 #2 (yard)"));
  EXPECT_TRUE(cloudinput::IsValidName(std::string(cloudinput::kMaxNameLen, 'n')));
  EXPECT_FALSE(cloudinput::IsValidName(std::string(cloudinput::kMaxNameLen + 1, 'n')));
  for (const char* bad : {"", "a\"b", "a'b", "a\\b", "a\nb", "a\rb", "a\tb", "\x7f"}) {
    EXPECT_FALSE(cloudinput::IsValidName(bad)) << bad;
  }
}

TEST(MsgRing, SameIdWithinWindowIsARepeat) {
  msgring::MsgRing ring;
  int slot = -1;
  EXPECT_FALSE(ring.CheckAndRecord(77, 1000));
  EXPECT_TRUE(ring.CheckAndRecord(77, 1004, &slot));  // 4 s later
  EXPECT_EQ(0, slot);
  EXPECT_FALSE(ring.CheckAndRecord(77, 1005));  // 5 s after the first: new again
  EXPECT_TRUE(ring.CheckAndRecord(77, 1006, &slot));
  EXPECT_EQ(1, slot);                           // the second recording
  EXPECT_FALSE(ring.CheckAndRecord(78, 1006));  // another id
}

TEST(MsgRing, ThirtyOtherIdsPushAnIdOut) {
  msgring::MsgRing ring;
  EXPECT_FALSE(ring.CheckAndRecord(5, 100));
  for (int i = 0; i < 29; i++) EXPECT_FALSE(ring.CheckAndRecord(1000 + i, 100));
  EXPECT_TRUE(ring.CheckAndRecord(5, 100));      // still among the last 30
  EXPECT_FALSE(ring.CheckAndRecord(2000, 100));  // the 31st overwrites entry 0
  EXPECT_FALSE(ring.CheckAndRecord(5, 100));
}

TEST(MsgRing, ClockGoingBackDoesNotMakeOldEntriesRecent) {
  msgring::MsgRing ring;
  EXPECT_FALSE(ring.CheckAndRecord(9, 2000000000));
  EXPECT_FALSE(ring.CheckAndRecord(9, 1600000000));  // clock set back by the cloud
}

TEST(MsgRing, WindowCanBeChanged) {
  msgring::MsgRing ring(1);
  EXPECT_FALSE(ring.CheckAndRecord(3, 10));
  EXPECT_FALSE(ring.CheckAndRecord(3, 11));
  ring.SetWindow(5);
  EXPECT_TRUE(ring.CheckAndRecord(3, 12));
  ring.Clear();
  EXPECT_FALSE(ring.CheckAndRecord(3, 12));
}

}  // namespace
