// The SD card and the recording tree through the real daemon on a board: a broker started by
// the test, the cloud agent simulator for "get_sd_storage", "sd_format", "sd_umount" and
// "deleteVideo", the board's shims for mount, unmount, format and the card driver, and card
// events written into the board's event fifo as a person would. The daemon's format thread,
// card-event thread and MQTT thread share the card status: the threaded stages run this program
// with a ThreadSanitizer build of the daemon.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/file.h>
#include <unistd.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "cloudsim/cloudsim.h"
#include "support/broker.h"
#include "support/recordtree.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

constexpr char kCam[] = "0A00000000A1";
constexpr char kOther[] = "112233445566";  // a MAC of twelve digits that is not paired
constexpr long kT0 = 1700000000;

class CardHub : public ::testing::Test {
 protected:
  // The board's card options; none for a hub without a card.
  virtual std::vector<std::string> CardOptions() const { return {"--card", "300"}; }

  void SetUp() override {
    ASSERT_TRUE(broker_.Start());
    std::vector<std::string> options{"--force", "--camera", kCam};
    for (const auto& o : CardOptions()) options.push_back(o);
    testsupport::MakeBoard(board_.path(), options);
    ASSERT_TRUE(testsupport::StartHub(testsupport::HubEnv(board_.path(), broker_.Env()), &hub_));
    agent_ = broker_.StartAgent();
  }
  void TearDown() override {
    if (!hub_) return;
    // A sanitizer build of the daemon reports on its standard error.
    EXPECT_EQ(hub_->CountLines("Sanitizer|runtime error:"), 0);
    if (HasFailure()) hub_->PrintLines("hub: ");
  }

  std::string Board(const std::string& path) const { return board_.path() + path; }
  std::string Card(const std::string& path = "") const { return Board("/mnt/mmcblk0p1") + path; }

  // The command's reply, or "" when none came.
  std::string Command(const std::string& method, const std::string& params = "") {
    const int id = agent_->SendCommand(method, params);
    std::string reply;
    if (!agent_->WaitReply(id, &reply)) return "";
    const std::string head = "{\"id\":" + std::to_string(id) + ",\"result\":";
    EXPECT_EQ(reply.compare(0, head.size(), head), 0) << reply;
    return reply.substr(head.size(), reply.size() - head.size() - 1);
  }
  // A log line of the daemon. Its standard error is read by a thread of its own, so a line
  // written just before a reply may still be on its way when the reply is here.
  bool Logged(const std::string& pattern) { return hub_->WaitForLine(pattern, 5s) != ""; }
  std::string Storage() { return Command("get_sd_storage"); }
  // The format thread logs its end just before it sets the status: ask until it shows.
  bool StorageBecomes(const std::string& expected) {
    std::string last;
    const bool ok = testsupport::WaitFor([&] { return (last = Storage()) == expected; });
    EXPECT_EQ(last, expected);
    return ok;
  }
  // Sends a command that must stay unanswered.
  void Unanswered(const std::string& method, const std::string& params) {
    const int id = agent_->SendCommand(method, params);
    testsupport::Barrier(*agent_);
    EXPECT_EQ(testsupport::RepliesTo(*agent_, id), 0) << method << " " << params;
  }

  void Event(const std::string& line) {
    const int fd = open(Board("/sys/hub/events").c_str(), O_WRONLY | O_CLOEXEC);
    ASSERT_GE(fd, 0);
    const std::string text = line + "\n";
    ASSERT_EQ(write(fd, text.data(), text.size()), static_cast<ssize_t>(text.size()));
    close(fd);
  }
  // Runs one of the board's shims as a person would.
  int Shim(const std::vector<std::string>& argv) {
    std::vector<std::string> full{Board("/bin/" + argv[0])};
    full.insert(full.end(), argv.begin() + 1, argv.end());
    testsupport::Process tool(full, {});
    return tool.Wait();
  }
  bool WaitSdReport(const std::string& status, size_t from) {
    cloudsim::Message m;
    return agent_->WaitMessage(
        [&](const cloudsim::Message& msg) {
          return msg.topic == "zelo/report" &&
                 msg.payload.find("\"sdcard_status\":\"" + status + "\"") != std::string::npos;
        },
        &m, 10s, from);
  }

  std::string Root() const { return Card("/KELDA_RECORD_VIDEO"); }
  std::string EventFile(const std::string& mac, long t, const char* ext) const {
    return testsupport::EventPath(Root(), mac, t, ext);
  }
  void StoreEvent(const std::string& mac, long t) { testsupport::StoreEvent(Root(), mac, t); }
  std::vector<uint32_t> IndexTimes(const std::string& mac) {
    return testsupport::IndexTimes(Root() + "/" + mac + "/.timestamp");
  }
  // Every file below the folder with its size, to see that nothing changed.
  std::map<std::string, uintmax_t> Listing(const std::string& dir) {
    std::map<std::string, uintmax_t> files;
    std::error_code ec;
    for (const auto& e : std::filesystem::recursive_directory_iterator(dir, ec)) {
      files[e.path().string()] = e.is_regular_file() ? e.file_size() : 0;
    }
    return files;
  }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  std::unique_ptr<testsupport::Process> hub_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
};

class NoCardHub : public CardHub {
 protected:
  std::vector<std::string> CardOptions() const override { return {}; }
};

TEST_F(CardHub, StorageFollowsTheCardsFillMountAndUnmount) {
  EXPECT_TRUE(Logged("Init Sdard"));
  EXPECT_EQ(ReadFile(Board("/dev/ttyS1")), "start done\n");
  EXPECT_EQ(Storage(), "[0, 300, 300]");
  // 20 MiB of recordings take 20 MiB of the board's card.
  WriteFile(Card("/clip.bin"), "");
  std::filesystem::resize_file(Card("/clip.bin"), 20u << 20);
  EXPECT_EQ(Storage(), "[0, 300, 280]");

  // Read-only still counts as normal: the write test cannot see it.
  ASSERT_EQ(Shim({"mount", "-o", "remount,ro", Card()}), 0);
  EXPECT_NE(ReadFile(Board("/proc/mounts")).find("ro,relatime"), std::string::npos);
  EXPECT_EQ(Storage(), "[0, 300, 280]");

  EXPECT_EQ(Command("sd_umount"), "[\"OK\"]");
  EXPECT_EQ(Storage(), "[1, 0, 0]");                              // present, not mounted
  EXPECT_TRUE(FileExists(Board("/sys/hub/card/data/clip.bin")));  // the card kept it
  EXPECT_FALSE(FileExists(Card("/clip.bin")));

  Unanswered("sd_umount", "");
  EXPECT_TRUE(Logged("umount dacard failed"));
  EXPECT_TRUE(Logged("UmountSdCard failed"));
  EXPECT_EQ(Command("sd_format"), "[\"OK\"]");  // answered although no format starts
  EXPECT_NE(hub_->WaitForLine("Format error current sdcard_status: 4"), "");
  EXPECT_TRUE(FileExists(Board("/sys/hub/card/data/clip.bin")));
}

TEST_F(CardHub, FormatUnmountsFormatsAndMountsWhileStatusSaysFormat) {
  WriteFile(Card("/KELDA_RECORD_VIDEO/0A00000000A1/.timestamp"), std::string(5, '\1'));
  // Holding the shims' state lock keeps the format thread in its first shim.
  const int lock = open(Board("/var/lock/shims.lock").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  ASSERT_GE(lock, 0);
  ASSERT_EQ(flock(lock, LOCK_EX), 0);
  EXPECT_EQ(Command("sd_format"), "[\"OK\"]");
  ASSERT_NE(hub_->WaitForLine("format sdcard thread start"), "");
  EXPECT_EQ(Storage(), "[4, 0, 0]");
  EXPECT_EQ(Storage(), "[4, 0, 0]");
  close(lock);

  ASSERT_NE(hub_->WaitForLine("format sdcard success"), "");
  StorageBecomes("[0, 300, 300]");
  EXPECT_TRUE(std::filesystem::is_empty(Card()));
  EXPECT_EQ(ReadFile(Board("/var/log/mkfs.vfat.log")), "mkfs.vfat /dev/mmcblk0p1\n");
  const std::string shims = ReadFile(Board("/var/log/shims.log"));
  const size_t umount = shims.find(" umount " + Card() + " => 0");
  const size_t mkfs = shims.find(" mkfs.vfat " + Board("/dev/mmcblk0p1") + " => 0");
  const size_t mount = shims.find(" mount -t auto " + Board("/dev/mmcblk0p1"));
  ASSERT_NE(umount, std::string::npos) << shims;
  EXPECT_LT(umount, mkfs);
  EXPECT_LT(mkfs, mount);
  EXPECT_TRUE(Logged("mkfs.vfat: format SD done"));
}

TEST_F(CardHub, FailedFormatOfAWriteProtectedCardIsOnlyLogged) {
  WriteFile(Card("/keep.bin"), "kept");
  Event("card lock");
  EXPECT_EQ(Command("sd_format"), "[\"OK\"]");
  EXPECT_NE(hub_->WaitForLine("mkfs.vfat: format sdcard result is .*Read-only file system"), "");
  ASSERT_NE(hub_->WaitForLine("format sdcard success"), "");
  EXPECT_EQ(ReadFile(Card("/keep.bin")), "kept");
  EXPECT_NE(ReadFile(Board("/proc/mounts")).find("/mnt/mmcblk0p1 vfat ro,relatime"),
            std::string::npos);
  StorageBecomes("[0, 300, 299]");  // the file takes a whole block
}

TEST_F(NoCardHub, InsertionLoadsTheDriverRemovalUnloadsItBouncesChangeNothing) {
  EXPECT_TRUE(Logged("sdcard don't exist value: 1"));
  EXPECT_EQ(Storage(), "[1, 0, 0]");
  EXPECT_EQ(Command("sd_format"), "[\"OK\"]");
  EXPECT_NE(hub_->WaitForLine("Format error current sdcard_status: 0"), "");

  size_t mark = agent_->MessageCount();
  Event("card insert");
  ASSERT_NE(hub_->WaitForLine("insmod mtk_sd"), "");
  ASSERT_TRUE(WaitSdReport("0", mark));
  EXPECT_TRUE(Logged("sd card in value: 0"));
  EXPECT_EQ(Storage(), "[0, 8192, 8192]");  // the board's hot-plug mounted it
  WriteFile(Card("/clip.bin"), "clip");

  Event("card bounce remove");
  ASSERT_NE(hub_->WaitForLine("sd card out value: 0"), "");
  EXPECT_EQ(Storage(), "[0, 8192, 8191]");

  mark = agent_->MessageCount();
  Event("card remove");
  ASSERT_NE(hub_->WaitForLine("umount sd card and rmmod mtk_sd"), "");
  ASSERT_TRUE(WaitSdReport("1", mark));
  EXPECT_TRUE(Logged("high power, sd card out ok"));
  EXPECT_EQ(Storage(), "[1, 0, 0]");
  EXPECT_FALSE(FileExists(Board("/dev/mmcblk0p1")));
  EXPECT_EQ(ReadFile(Board("/proc/modules")), "");
  EXPECT_FALSE(FileExists(Card("/clip.bin")));

  Event("card bounce insert");
  ASSERT_NE(hub_->WaitForLine("sd card in value: 1"), "");
  EXPECT_EQ(Storage(), "[1, 0, 0]");

  // The same card back in: its files are there again.
  mark = agent_->MessageCount();
  Event("card insert");
  ASSERT_TRUE(WaitSdReport("0", mark));
  EXPECT_EQ(ReadFile(Card("/clip.bin")), "clip");
  EXPECT_TRUE(hub_->WaitForLines("insmod mtk_sd$", 2));
  EXPECT_EQ(hub_->CountLines("insmod mtk_sd$"), 2);
  EXPECT_EQ(hub_->CountLines("umount sd card and rmmod mtk_sd"), 1);
}

TEST_F(CardHub, DeleteVideoRemovesClipSnapshotAndRecordTogether) {
  for (long t : {kT0, kT0 + 60, kT0 + 3600}) StoreEvent(kCam, t);
  EXPECT_EQ(Command("deleteVideo", "[\"0a00000000a1\"," + std::to_string(kT0) + "," +
                                       std::to_string(kT0 + 3600) + "]"),
            "[\"OK\"]");
  for (long t : {kT0, kT0 + 3600}) {
    EXPECT_FALSE(FileExists(EventFile(kCam, t, "mp4")));
    EXPECT_FALSE(FileExists(EventFile(kCam, t, "jpeg")));
  }
  EXPECT_TRUE(FileExists(EventFile(kCam, kT0 + 60, "mp4")));
  EXPECT_TRUE(FileExists(EventFile(kCam, kT0 + 60, "jpeg")));
  EXPECT_EQ(IndexTimes(kCam), std::vector<uint32_t>{kT0 + 60});
  for (long t : {kT0, kT0 + 3600}) {
    EXPECT_TRUE(Logged("delete item: " + std::to_string(t)));
    EXPECT_TRUE(Logged("Rm timestamp: " + std::to_string(t) + " succeed!"));
  }

  // The second event is unknown: the first is gone, the rest is not tried, no reply.
  StoreEvent(kCam, kT0 + 120);
  Unanswered("deleteVideo", "[\"0A00000000A1\"," + std::to_string(kT0 + 60) + ",123," +
                                std::to_string(kT0 + 120) + "]");
  EXPECT_TRUE(Logged("Rm timestamp: 123 failed!"));
  EXPECT_FALSE(FileExists(EventFile(kCam, kT0 + 60, "mp4")));
  EXPECT_TRUE(FileExists(EventFile(kCam, kT0 + 120, "mp4")));
  EXPECT_EQ(IndexTimes(kCam), std::vector<uint32_t>{kT0 + 120});
}

TEST_F(CardHub, HostileDeleteVideoIsRefusedAndTouchesNothing) {
  StoreEvent(kCam, kT0);
  StoreEvent(kOther, kT0);
  WriteFile(Board("/etc/keep"), "keep");
  const std::string t = std::to_string(kT0);
  std::string huge = "[\"0A00000000A1\"";
  for (int i = 0; i < 1001; i++) huge += "," + t;
  huge += "]";
  const std::vector<std::string> hostile{
      "[\"../../../etc\"," + t + "]",
      "[\"0A00000000A1/..\"," + t + "]",
      "[\"0A00000000A1'; rm -rf /; '\"," + t + "]",
      "[\"" + std::string(kOther) + "\"," + t + "]",  // not a paired camera
      "[\"0A00000000A1\",\"" + t + "\"]",
      "[\"0A00000000A1\"," + t + ".0]",
      "[\"0A00000000A1\",1.7e9]",
      "[\"0A00000000A1\",-1]",
      "[\"0A00000000A1\",4294967296]",
      "[\"0A00000000A1\",99999999999999999999999]",
      "[\"0A00000000A1\",true]",
      "[\"0A00000000A1\",null]",
      "[\"0A00000000A1\",[" + t + "]]",
      "[\"0A00000000A1\",{\"t\":" + t + "}]",
      "[\"0A00000000A1\"," + t + ",\"x\"]",  // a bad time after a good one: nothing goes
      "[\"0A00000000A1\"]",
      "[" + t + ",\"0A00000000A1\"]",
      "[]",
      "{}",
      "\"0A00000000A1\"",
      "",
      huge,
  };
  const auto before = Listing(Card());
  for (const auto& params : hostile) Unanswered("deleteVideo", params);
  ASSERT_EQ(agent_->Publish("zelo/command", "{\"method\":\"deleteVideo\",\"params\":[\"" +
                                                std::string(kCam) + "\"," + t + "]}"),
            0);
  testsupport::Barrier(*agent_);
  EXPECT_TRUE(Logged("\\[abnormal\\] msg without id"));
  EXPECT_EQ(Listing(Card()), before);
  EXPECT_EQ(ReadFile(Board("/etc/keep")), "keep");
  EXPECT_TRUE(Logged("deleteVideo time is not an event time: \"1700000000\""));
  EXPECT_TRUE(Logged("Unknown camera: 112233445566"));
  EXPECT_TRUE(Logged("with 1 to 1000 times"));

  // The hub goes on: a proper command still works.
  EXPECT_EQ(Command("deleteVideo", "[\"0A00000000A1\"," + t + "]"), "[\"OK\"]");
  EXPECT_FALSE(FileExists(EventFile(kCam, kT0, "mp4")));
  EXPECT_TRUE(FileExists(EventFile(kOther, kT0, "mp4")));
}

}  // namespace
