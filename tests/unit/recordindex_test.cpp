// The recording index ".timestamp" and the event files beside it, on a board whose card is
// mounted: record layout, duplicates, empty and torn files, a writer killed at random points,
// and the removal of clip and snapshot by start time.
#include "storage/recordindex.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <ctime>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "platform/uci.h"
#include "support/boardfixture.h"
#include "support/logcapture.h"
#include "support/recordtree.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

constexpr char kCam[] = "0A00000000A1";
constexpr long kT0 = 1700000000;  // 0x6553F100

struct Rec {
  uint32_t start;
  uint8_t length;
  bool operator==(const Rec& o) const { return start == o.start && length == o.length; }
};
std::ostream& operator<<(std::ostream& out, const Rec& r) {
  return out << "{" << r.start << "," << int(r.length) << "}";
}

class RecordIndex : public testsupport::BoardFixture {
 protected:
  platform::BoardOptions Options() const override {
    platform::BoardOptions options;
    options.card = true;
    options.cameras.push_back({kCam, ""});
    return options;
  }
  void SetUp() override {
    BoardFixture::SetUp();
    camera_ = Board("/mnt/mmcblk0p1/KELDA_RECORD_VIDEO/") + kCam;
    index_ = camera_ + "/.timestamp";
    std::filesystem::create_directories(camera_);
  }

  std::vector<Rec> Records() {
    const std::string bytes = ReadFile(index_);
    std::vector<Rec> out;
    for (const auto& r : recordindex::ParseRecords(
             reinterpret_cast<const unsigned char*>(bytes.data()), bytes.size())) {
      out.push_back({r.start, r.length});
    }
    return out;
  }
  void Append(long t) {
    long start = t;
    ASSERT_EQ(FwriteTimestamp(&start, 0, kCam), 0);
  }
  std::string EventFile(long t, const char* ext) {
    return testsupport::EventPath(Board("/mnt/mmcblk0p1/KELDA_RECORD_VIDEO"), kCam, t, ext);
  }
  void Unmount() { WriteFile(Board("/proc/mounts"), "rootfs / rootfs rw 0 0\n"); }

  testsupport::LogCapture log_;
  std::string camera_;
  std::string index_;
};

TEST_F(RecordIndex, RecordsAreStartTimeLittleEndianThenTheCamerasDuration) {
  ASSERT_EQ(zcfg_uci_set((std::string("p2p.") + kCam + ".pir_duration").c_str(), "300"), 0);
  Append(kT0);  // 300 s is stored as 44: the length is one byte
  ASSERT_EQ(zcfg_uci_set((std::string("p2p.") + kCam + ".pir_duration").c_str(), "0"), 0);
  Append(kT0 + 1);  // 0 means the default, 10
  ASSERT_EQ(zcfg_uci_set((std::string("p2p.") + kCam + ".pir_duration").c_str(), "25"), 0);
  Append(kT0 + 2);
  EXPECT_EQ(ReadFile(index_), std::string("\x00\xF1\x53\x65\x2C"
                                          "\x01\xF1\x53\x65\x0A"
                                          "\x02\xF1\x53\x65\x19",
                                          15));

  unsigned char buffer[32];
  int size = sizeof(buffer);
  ASSERT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), 0);
  EXPECT_EQ(size, 15);
  // A buffer smaller than the file gets the whole records that fit.
  size = 12;
  ASSERT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), 0);
  EXPECT_EQ(size, 10);
  size = 4;
  EXPECT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), -1);

  long bad = -1;
  EXPECT_EQ(FwriteTimestamp(&bad, 0, kCam), -1);
  if (sizeof(long) > 4) {  // a start time past 32 bits exists only where long is wider
    bad = static_cast<long>(4294967296LL);
    EXPECT_EQ(FwriteTimestamp(&bad, 0, kCam), -1);
  }
  EXPECT_EQ(FwriteTimestamp(nullptr, 0, kCam), -1);
  EXPECT_EQ(Records().size(), 3u);
}

TEST_F(RecordIndex, RemovalTakesTheFirstMatchInPlaceAndEmptyFilesAreErrors) {
  for (long t : {kT0, kT0 + 60, kT0, kT0 + 120}) Append(t);
  std::string bytes = ReadFile(index_);
  bytes[9] = 2;  // the second record's length, to tell the duplicates apart
  bytes[14] = 3;
  WriteFile(index_, bytes);
  struct stat before;
  ASSERT_EQ(stat(index_.c_str(), &before), 0);

  ASSERT_EQ(RomoveTimestamp(kT0, kCam), 0);
  EXPECT_EQ(Records(), (std::vector<Rec>{{kT0 + 60, 2}, {kT0, 3}, {kT0 + 120, 10}}));
  struct stat after;
  ASSERT_EQ(stat(index_.c_str(), &after), 0);
  EXPECT_EQ(before.st_ino, after.st_ino);  // rewritten, not replaced
  EXPECT_TRUE(log_.Has("find delete file: 1700000000"));

  EXPECT_EQ(RomoveTimestamp(kT0 + 1, kCam), -1);
  EXPECT_TRUE(log_.Has("timestamp 1700000001 not in timestamp file"));
  ASSERT_EQ(RomoveTimestamp(kT0 + 120, kCam), 0);
  ASSERT_EQ(RomoveTimestamp(kT0, kCam), 0);
  ASSERT_EQ(RomoveTimestamp(kT0 + 60, kCam), 0);
  EXPECT_EQ(ReadFile(index_), "");

  // An empty index is an error for readers and removal alike; an append starts it again.
  unsigned char buffer[16];
  int size = sizeof(buffer);
  EXPECT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), -1);
  EXPECT_TRUE(log_.Has("timestamp file size zero"));
  EXPECT_EQ(RomoveTimestamp(kT0, kCam), -1);
  EXPECT_TRUE(log_.Has(" timestamp " + index_ + " file size zero"));
  Append(kT0 + 5);
  EXPECT_EQ(Records(), (std::vector<Rec>{{kT0 + 5, 10}}));

  unlink(index_.c_str());
  EXPECT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), -1);
  EXPECT_TRUE(log_.Has("timestamp file no exist"));
  EXPECT_EQ(RomoveTimestamp(kT0, kCam), -1);
  EXPECT_TRUE(log_.Has(".timestamp no exist"));
}

TEST_F(RecordIndex, TornTailIsIgnoredByReadersAndCutByTheNextWrite) {
  Append(kT0);
  Append(kT0 + 1);
  WriteFile(index_, ReadFile(index_) + std::string("\x07\x07\x07", 3));  // a torn append
  unsigned char buffer[32];
  int size = sizeof(buffer);
  ASSERT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), 0);
  EXPECT_EQ(size, 10);

  Append(kT0 + 2);
  EXPECT_EQ(ReadFile(index_).size(), 15u);
  EXPECT_EQ(Records(), (std::vector<Rec>{{kT0, 10}, {kT0 + 1, 10}, {kT0 + 2, 10}}));

  WriteFile(index_, ReadFile(index_) + "\x01");
  ASSERT_EQ(RomoveTimestamp(kT0 + 1, kCam), 0);  // removal drops the torn bytes too
  EXPECT_EQ(ReadFile(index_).size(), 10u);
  EXPECT_EQ(Records(), (std::vector<Rec>{{kT0, 10}, {kT0 + 2, 10}}));

  // A file holding only a torn record has nothing to read.
  WriteFile(index_, "\x01\x02");
  size = sizeof(buffer);
  EXPECT_EQ(FreadTimestamp(buffer, &size, const_cast<char*>(kCam)), -1);
}

// The writer is killed at random points; before each restart the file may also get a torn
// record as a power cut leaves one. Every time, the index must hold an unbroken run of the
// records written so far, and the next writer must continue it on a record boundary.
TEST_F(RecordIndex, WriterKilledAtRandomPointsNeverLosesOrMisalignsRecords) {
  const unsigned seed = static_cast<unsigned>(std::time(nullptr));
  std::mt19937 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  uint32_t next = static_cast<uint32_t>(kT0);
  int torn = 0;
  for (int round = 0; round < 200; round++) {
    const pid_t child = fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      for (uint32_t t = next;; t++) {
        if (recordindex::AppendRecord(index_, t, 7) != 0) _exit(1);
      }
    }
    usleep(std::uniform_int_distribution<useconds_t>(0, 3000)(random));
    kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer failed in round " << round;

    const std::vector<Rec> records = Records();
    for (size_t i = 0; i < records.size(); i++) {
      ASSERT_EQ(records[i], (Rec{static_cast<uint32_t>(kT0 + i), 7})) << "round " << round;
    }
    if (!records.empty()) next = records.back().start + 1;
    if (ReadFile(index_).size() % kTimestampRecordSize == 0 && random() % 2 == 0) {
      const std::string tail(1 + random() % 4, '\xEE');
      WriteFile(index_, ReadFile(index_) + tail);
      torn++;
    }
  }
  EXPECT_GT(torn, 0);
  Append(next);
  const std::vector<Rec> records = Records();
  ASSERT_FALSE(records.empty());
  EXPECT_EQ(records.back(), (Rec{next, 10}));
  EXPECT_EQ(ReadFile(index_).size(), records.size() * kTimestampRecordSize);
}

TEST_F(RecordIndex, EventFilesAreFoundAndRemovedByStartTimeOnly) {
  const long t = kT0;
  const std::string clip = EventFile(t, "mp4"), snapshot = EventFile(t, "jpeg");
  WriteFile(clip, "clip");
  WriteFile(snapshot, "jpeg");
  // Same folder and a start time that begins with the same digits: not the same event.
  const std::string neighbour = clip.substr(0, clip.rfind('_') + 1) + "17000000001.mp4";
  WriteFile(neighbour, "other");
  for (long s : {t, t + 1}) Append(s);

  char path[kRecordPathMax] = {0};
  long start = t;
  char mp4[] = "mp4";
  char mac[] = "0A00000000A1";
  ASSERT_EQ(IsFileExist(path, &start, mp4, mac), 0);
  EXPECT_EQ(std::string(path), clip);
  start = t + 1;
  EXPECT_EQ(IsFileExist(path, &start, mp4, mac), -2);
  EXPECT_TRUE(log_.Has("file not on sdcard ,dir: "));
  // Extensions: lower-case letters and digits, at most eight, all of them at the ends of their
  // ranges allowed (looked for, not found); one more character, or another one, refused.
  char edges[] = "a0z9aaaa";
  EXPECT_EQ(IsFileExist(path, &start, edges, mac), -2);
  char nine[] = "a0z9aaaaa";
  EXPECT_EQ(IsFileExist(path, &start, nine, mac), -1);
  char upper[] = "MP4";
  EXPECT_EQ(IsFileExist(path, &start, upper, mac), -1);
  char hostile_ext[] = "mp4;id";
  char hostile_mac[] = "0A00000000A/";
  EXPECT_EQ(IsFileExist(path, &start, hostile_ext, mac), -1);
  EXPECT_EQ(IsFileExist(path, &start, mp4, hostile_mac), -1);
  EXPECT_EQ(IsFileExist(nullptr, &start, mp4, mac), -1);

  ASSERT_EQ(RomoveTimestampAndFile(t, kCam), 0);
  EXPECT_FALSE(FileExists(clip));
  EXPECT_FALSE(FileExists(snapshot));
  EXPECT_TRUE(FileExists(neighbour));
  EXPECT_EQ(Records(), (std::vector<Rec>{{static_cast<uint32_t>(t + 1), 10}}));
  // No clip: the record goes alone. Neither: a failure.
  ASSERT_EQ(RomoveTimestampAndFile(t + 1, kCam), 0);
  EXPECT_TRUE(Records().empty());
  EXPECT_EQ(RomoveTimestampAndFile(t + 2, kCam), -1);
  EXPECT_EQ(RomoveTimestampAndFile(t, "../../../../x"), -1);

  // Every plain path character, the ends of each range included, reaches rm.
  const std::string plain = Board("/tmp/AZaz09._-+,:@%=~");
  WriteFile(plain, "x");
  std::vector<char> plain_path(plain.begin(), plain.end());
  plain_path.push_back('\0');
  EXPECT_EQ(RemoveFile(plain_path.data()), 0);
  EXPECT_FALSE(FileExists(plain));
  char quoted[] = "/tmp/x'; touch /tmp/y; '";
  EXPECT_EQ(RemoveFile(quoted), -1);
  EXPECT_EQ(RemoveFile(nullptr), -1);
}

TEST_F(RecordIndex, NothingIsTouchedWithoutANormalCard) {
  Append(kT0);
  Unmount();
  char path[kRecordPathMax] = {0};
  EXPECT_EQ(GetTimestampPath(path, kCam), -1);
  EXPECT_TRUE(log_.Has("Get timestamp path error"));
  long t = kT0 + 1;
  EXPECT_EQ(FwriteTimestamp(&t, 0, kCam), -1);
  EXPECT_EQ(RomoveTimestamp(kT0, kCam), -1);
  char mp4[] = "mp4";
  char mac[] = "0A00000000A1";
  EXPECT_EQ(IsFileExist(path, &t, mp4, mac), -1);
  EXPECT_TRUE(log_.Has("sdcard is not exist"));
  EXPECT_EQ(Records(), (std::vector<Rec>{{kT0, 10}}));

  EXPECT_EQ(GetTimestampPath(nullptr, kCam), -1);
  EXPECT_TRUE(log_.Has("timestamp path NULL"));
  EXPECT_EQ(GetTimestampPath(path, "0A00000000A"), -1);
  EXPECT_EQ(GetTimestampPath(path, "0A00000000A1/"), -1);
}

}  // namespace
