// The SD card code and retention in this process on a board with its shims: the read-only
// repair, the status rules, and deletion of the oldest hours on a card that is full by the
// board's size (its clips are sparse files of real length).
#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "platform/board.h"
#include "platform/hwlib.h"
#include "storage/retention.h"
#include "storage/sdcard.h"
#include "support/boardfixture.h"
#include "support/logcapture.h"
#include "support/recordtree.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

constexpr char kCamA[] = "0A00000000A1";
constexpr char kCamB[] = "0A00000000B2";
constexpr char kCamC[] = "0A00000000C3";

class StorageBoard : public testsupport::BoardFixture {
 protected:
  platform::BoardOptions Options() const override {
    platform::BoardOptions options;
    options.shim = testsupport::BinPath("tarvo-shim");
    options.card = true;
    options.card_size_mib = card_mib_;
    for (const char* mac : {kCamA, kCamB, kCamC}) options.cameras.push_back({mac, ""});
    return options;
  }
  void SetUp() override {
    BoardFixture::SetUp();
    SetSdCardStatus(SDCARD_STATUS_OFF);
  }

  std::string Root() const { return Board("/mnt/mmcblk0p1/KELDA_RECORD_VIDEO"); }
  std::string Record(const std::string& mac) const { return Root() + "/" + mac; }
  std::string Clip(const std::string& mac, long t, const char* ext = "mp4") const {
    return testsupport::EventPath(Root(), mac, t, ext);
  }
  void StoreEvent(const std::string& mac, long t, unsigned mib) {
    testsupport::StoreEvent(Root(), mac, t, static_cast<uint64_t>(mib) << 20);
  }
  std::vector<uint32_t> IndexTimes(const std::string& mac) {
    return testsupport::IndexTimes(Record(mac) + "/.timestamp");
  }
  unsigned long long FreeMiB() {
    unsigned long long total = 0, free = 0;
    EXPECT_EQ(GetSdCardCapability(&total, &free), 0);
    EXPECT_EQ(total, card_mib_);
    return free;
  }

  uint64_t card_mib_ = 8192;
  testsupport::LogCapture log_;
};

TEST_F(StorageBoard, ReadOnlyCardCountsAsNormalUntilTheRepairRemountsIt) {
  ASSERT_EQ(GetSdCardStatus(), SDCARD_STATUS_NORMAL);
  ASSERT_EQ(platform::System("mount -o remount,ro " + platform::BoardPath("/mnt/mmcblk0p1")), 0);
  EXPECT_EQ(GetSdCardStatus(), SDCARD_STATUS_NORMAL);
  EXPECT_EQ(CheckSdCardRW(), 0);

  EXPECT_EQ(CheckSdcardMount(), 0);
  EXPECT_TRUE(log_.Has("sdcard is readonly, try remount rw"));
  EXPECT_EQ(ReadFile(Board("/proc/mounts")).find("ro,relatime"), std::string::npos);
  size_t mark = log_.Mark();
  EXPECT_EQ(CheckSdcardMount(), 0);
  EXPECT_FALSE(log_.Has("try remount rw", mark));

  // A write-protected card stays read-only: the remount's failure is not looked at.
  platform::SetCardWriteProtect(true);
  ASSERT_EQ(UmountSdCard(), 0);
  EXPECT_EQ(GetSdCardStatus(), SDCARD_STATUS_UNMOUNT);
  EXPECT_EQ(CheckSdcardMount(), -1);
  ASSERT_EQ(MountSdCard(), 0);
  EXPECT_EQ(CheckSdcardMount(), 0);
  EXPECT_NE(ReadFile(Board("/proc/mounts")).find("ro,relatime"), std::string::npos);
  EXPECT_NE(ReadFile(Board("/var/log/shims.log")).find("is write-protected"), std::string::npos);
}

TEST_F(StorageBoard, StatusFollowsNodeMountAndFormatFlag) {
  char path[256];
  ASSERT_EQ(GetSdCardRecordPath(path, sizeof(path)), 0);
  EXPECT_EQ(std::string(path), Board("/mnt/mmcblk0p1/KELDA_RECORD_VIDEO"));
  EXPECT_TRUE(std::filesystem::is_directory(path));
  char small[8];
  EXPECT_EQ(GetSdCardRecordPath(small, sizeof(small)), -1);
  char none[1] = {'x'};  // a room of no bytes: not even a terminator may be written
  EXPECT_EQ(GetSdCardRecordPath(none, 0), -1);
  EXPECT_EQ(none[0], 'x');
  // Something else where the record folder belongs: refused with the line support reads.
  std::filesystem::rename(path, std::string(path) + ".away");
  WriteFile(path, "not a folder");
  EXPECT_EQ(GetSdCardRecordPath(small, sizeof(small)), -1);
  EXPECT_EQ(GetSdCardRecordPath(path, sizeof(path)), -1);
  EXPECT_TRUE(log_.Has(": Create " + Root() + " dir failed$"));
  std::filesystem::remove(Root());
  std::filesystem::rename(Root() + ".away", Root());

  SetSdCardStatus(SDCARD_STATUS_FORMAT);
  EXPECT_EQ(SdCardIsFormat(), 1);
  EXPECT_EQ(GetSdCardStatus(), SDCARD_STATUS_FORMAT);  // kept while a format runs
  EXPECT_EQ(IsSdcardFull(), 0);
  SetSdCardStatus(SDCARD_STATUS_NORMAL);

  EXPECT_EQ(MountSdCard(), -1);  // already mounted: three attempts, each answered "busy"
  EXPECT_EQ(log_.Count("mount sdcard result is .*Device or resource busy"), 3);
  EXPECT_TRUE(log_.Has("mount fail!!!!"));
  ASSERT_EQ(UmountSdCard(), 0);
  EXPECT_EQ(GetSdCardStatus(), SDCARD_STATUS_UNMOUNT);
  EXPECT_EQ(GetSdCardRecordPath(path, sizeof(path)), 0);  // only "no card" refuses the path
  ASSERT_EQ(platform::System("rmmod mtk_sd"), 0);
  EXPECT_EQ(GetSdCardStatus(), SDCARD_STATUS_OFF);
  EXPECT_EQ(GetSdCardRecordPath(path, sizeof(path)), -1);
  EXPECT_TRUE(log_.Has("sdcard no exist"));
  EXPECT_EQ(IsSdcardFull(), 0);
  EXPECT_TRUE(log_.Has("sdcard is not exist"));
}

// The status is checked every few seconds for as long as the hub runs: each check's command
// must leave no descriptor (and no child) behind.
TEST_F(StorageBoard, RepeatedStatusChecksLeaveNoDescriptorBehind) {
  auto open_fds = [] {
    return std::distance(std::filesystem::directory_iterator("/proc/self/fd"),
                         std::filesystem::directory_iterator());
  };
  ASSERT_EQ(UpdateSdCardStatus(), SDCARD_STATUS_NORMAL);
  const auto before = open_fds();
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(SdCardIsMount(), 0);
    EXPECT_EQ(UpdateSdCardStatus(), SDCARD_STATUS_NORMAL);
  }
  EXPECT_EQ(open_fds(), before);
}

class FullCard : public StorageBoard {
 protected:
  void SetUp() override {
    card_mib_ = 120;
    StorageBoard::SetUp();
    now_ = static_cast<long>(platform::NowSeconds());
    first_ = (now_ / 3600 - 5) * 3600;  // the start of the hour five hours ago
  }
  long now_ = 0;
  long first_ = 0;
};

// 120 MiB card, 60 MiB of clips: camera A has two events in its oldest hour, one in the next
// and one of 30 s ago; camera B only has events younger than 61 s; camera C an empty index.
TEST_F(FullCard, OldestHoursGoUntilOnlyYoungEventsAreLeftThenTheRunEnds) {
  for (long t : {first_ + 60, first_ + 120}) StoreEvent(kCamA, t, 10);
  StoreEvent(kCamA, first_ + 3600 + 60, 10);
  StoreEvent(kCamA, now_ - 30, 10);
  StoreEvent(kCamB, now_ - 20, 10);
  StoreEvent(kCamB, now_ - 10, 10);
  WriteFile(Record(kCamC) + "/.timestamp", "");
  ASSERT_EQ(GetSdCardStatus(), SDCARD_STATUS_NORMAL);
  ASSERT_LT(FreeMiB(), 60u);
  ASSERT_EQ(IsSdcardFull(), 1);

  CheckSdcardCapability();

  EXPECT_EQ(IndexTimes(kCamA), std::vector<uint32_t>{static_cast<uint32_t>(now_ - 30)});
  EXPECT_FALSE(FileExists(Record(kCamA) + "/" + testsupport::HourFolder(first_)));
  EXPECT_FALSE(FileExists(Record(kCamA) + "/" + testsupport::HourFolder(first_ + 3600)));
  EXPECT_TRUE(FileExists(Clip(kCamA, now_ - 30)));
  EXPECT_TRUE(FileExists(Clip(kCamA, now_ - 30, "jpeg")));
  EXPECT_EQ(IndexTimes(kCamB), (std::vector<uint32_t>{static_cast<uint32_t>(now_ - 20),
                                                      static_cast<uint32_t>(now_ - 10)}));
  EXPECT_TRUE(FileExists(Clip(kCamB, now_ - 10)));
  EXPECT_TRUE(log_.Has("maybe recording file, don't rm: "));
  EXPECT_TRUE(log_.Has("timestamp file size zero"));
  EXPECT_TRUE(log_.Has("read mac: 0A00000000C3 timestamp file error"));
  // Three passes: the oldest hour, the next, then one that found nothing to remove.
  EXPECT_EQ(log_.Count("sdcard is full!"), 4);
  EXPECT_EQ(log_.Count("sdcard is full and no event can be removed now"), 1);
  EXPECT_EQ(IsSdcardFull(), 1);  // still full: only young events are left
}

TEST_F(FullCard, TheRunStopsOnceTheCardIsNoLongerFull) {
  for (long t : {first_ + 60, first_ + 120}) StoreEvent(kCamA, t, 15);
  StoreEvent(kCamA, first_ + 3600, 15);
  StoreEvent(kCamB, first_ + 7200, 1);
  ASSERT_EQ(GetSdCardStatus(), SDCARD_STATUS_NORMAL);
  ASSERT_EQ(IsSdcardFull(), 1);  // about 73 MiB free

  CheckSdcardCapability();

  // One pass took A's oldest hour (30 MiB) and B's only event; A's next hour stays.
  EXPECT_EQ(IndexTimes(kCamA), std::vector<uint32_t>{static_cast<uint32_t>(first_ + 3600)});
  EXPECT_TRUE(FileExists(Clip(kCamA, first_ + 3600)));
  EXPECT_TRUE(IndexTimes(kCamB).empty());
  EXPECT_GE(FreeMiB(), 100u);
  EXPECT_EQ(log_.Count("sdcard is full!"), 2);
}

}  // namespace
