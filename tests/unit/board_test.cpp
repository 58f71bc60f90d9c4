#include "platform/board.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <filesystem>
#include <string>
#include <vector>

#include "base/log.h"
#include "platform/boardmaker.h"
#include "support/boardfixture.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

// A board whose shims are small scripts that say which tool ran, so the tests see which
// program a command reached without the real shim.
class BoardTest : public testsupport::BoardFixture {
 protected:
  void SetUp() override {
    BoardFixture::SetUp();
    for (const auto& name : platform::ShimNames()) FakeShim(name);
    tlog::SetCaptureSink([this](int, const std::string& text) { logged_.push_back(text); });
  }
  void TearDown() override {
    tlog::SetCaptureSink(nullptr);
    BoardFixture::TearDown();
  }

  void FakeShim(const std::string& name) {
    const std::string path = root() + "/bin/" + name;
    WriteFile(path, "#!/bin/sh\necho \"board " + name + " $*\"\n");
    chmod(path.c_str(), 0755);
  }

  // Output of a command run through Popen, or "<refused>".
  std::string Output(const std::string& command) {
    FILE* stream = platform::Popen(command, "r");
    if (stream == nullptr) return "<refused>";
    std::string out;
    char buf[256];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), stream)) > 0) out.append(buf, n);
    platform::Pclose(stream);
    return out;
  }

  bool Logged(const std::string& piece) {
    for (const auto& line : logged_) {
      if (line.find(piece) != std::string::npos) return true;
    }
    return false;
  }

  std::vector<std::string> logged_;
};

TEST_F(BoardTest, RootIsAbsoluteAndPathsArePrefixed) {
  const std::string cwd = std::filesystem::current_path().string();
  std::filesystem::current_path(root());
  platform::SetRootForTest("./sub/../.");
  std::filesystem::current_path("/");
  EXPECT_EQ(platform::Root(), root());  // a later chdir does not move it
  std::filesystem::current_path(cwd);
  EXPECT_EQ(platform::BoardPath("/etc/config/p2p"), root() + "/etc/config/p2p");
  EXPECT_EQ(platform::BoardPath("relative/x"), "relative/x");
}

TEST_F(BoardTest, CheckBoardNeedsARootAndEveryShim) {
  EXPECT_EQ(platform::CheckBoard(), 0);

  unlink((root() + "/bin/mkfs.vfat").c_str());
  chmod((root() + "/bin/reboot").c_str(), 0644);
  EXPECT_EQ(platform::CheckBoard(), -1);
  EXPECT_TRUE(Logged("bin/mkfs.vfat missing"));
  EXPECT_TRUE(Logged("bin/reboot not executable"));

  // a link to the machine's own tool is no shim
  FakeShim("mkfs.vfat");
  FakeShim("reboot");
  unlink((root() + "/bin/umount").c_str());
  ASSERT_EQ(symlink("/bin/true", (root() + "/bin/umount").c_str()), 0);
  EXPECT_EQ(platform::CheckBoard(), -1);
  EXPECT_TRUE(Logged("bin/umount leads out of the board root"));

  platform::SetRootForTest("");
  EXPECT_EQ(platform::CheckBoard(), -1);
  EXPECT_TRUE(Logged("TARVO_ROOT is not set"));
  platform::SetRootForTest(root() + "/etc/config/p2p");
  EXPECT_EQ(platform::CheckBoard(), -1);
  EXPECT_TRUE(Logged("is not a folder"));

  // The root goes unquoted into shell commands ("rm -rf ROOT/mnt/mmcblk0p1/*"): a root with a
  // blank would split them, so such a board is refused and runs nothing.
  const std::string spaced = root() + "/my board";
  std::filesystem::create_directories(spaced + "/tmp");
  platform::SetRootForTest(spaced);
  EXPECT_EQ(platform::CheckBoard(), -1);
  EXPECT_TRUE(Logged("holds blanks or shell characters"));
  EXPECT_EQ(platform::System("touch " + spaced + "/tmp/ran"), -1);
  EXPECT_FALSE(FileExists(spaced + "/tmp/ran"));
}

TEST_F(BoardTest, CommandsReachTheBoardsShimsWithTheBoardEnvironment) {
  EXPECT_EQ(Output("reboot now"), "board reboot now\n");
  EXPECT_EQ(Output("nvram set p2p uid 'X Y' && nvram commit"),
            "board nvram set p2p uid X Y\nboard nvram commit\n");
  EXPECT_EQ(Output("mkfs.vfat " + platform::BoardPath("/dev/mmcblk0p1") + " 2>&1"),
            "board mkfs.vfat " + root() + "/dev/mmcblk0p1\n");
  EXPECT_EQ(Output("echo $TARVO_ROOT; echo $PATH"),
            root() + "\n" + root() + "/bin:/usr/local/bin:/usr/bin:/bin\n");
  EXPECT_EQ(Output("cat " + platform::BoardPath("/proc/net/arp") + " | head -c 10"), "IP address");
  // a board file that shares a tool's name is no tool
  WriteFile(root() + "/var/log/reboot", "recorded\n");
  EXPECT_EQ(Output("cat " + platform::BoardPath("/var/log/reboot")), "recorded\n");

  // descriptors of the daemon without close-on-exec stay behind
  const int leaked = open(root().c_str(), O_RDONLY);
  ASSERT_GE(leaked, 3);
  EXPECT_EQ(Output("test -e /proc/$$/fd/" + std::to_string(leaked) + " && echo inherited"), "");
  close(leaked);

  const int status = platform::System("exit 3");
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 3);

  FILE* in = platform::Popen("cat > " + platform::BoardPath("/tmp/written"), "w");
  ASSERT_NE(in, nullptr);
  std::fputs("through the pipe\n", in);
  EXPECT_EQ(platform::Pclose(in), 0);
  EXPECT_EQ(ReadFile(root() + "/tmp/written"), "through the pipe\n");
}

TEST_F(BoardTest, CommandsNamingAMissingShimOrTheMachinesToolAreRefused) {
  const std::string marker = root() + "/tmp/ran";
  unlink((root() + "/bin/mount").c_str());
  // nothing of the command runs, not even the part before the tool
  EXPECT_EQ(platform::System("touch " + marker + "; mount -t auto /dev/x /mnt/x"), -1);
  EXPECT_EQ(Output("touch " + marker + " & mount -o remount,rw /x /y 2>&1"), "<refused>");
  EXPECT_TRUE(Logged("shim " + root() + "/bin/mount missing"));
  EXPECT_FALSE(FileExists(marker));

  for (const char* command :
       {"/sbin/reboot", "/usr/sbin/sysupgrade /tmp/x", "x=1 /bin/mount", "echo $(/sbin/ifconfig)",
        "sh -c '/sbin/rmmod mtk_sd'", "PATH=/sbin:/bin reboot"}) {
    EXPECT_EQ(platform::System(std::string("touch ") + marker + "; " + command), -1) << command;
  }
  EXPECT_FALSE(FileExists(marker));
  EXPECT_EQ(Output(root() + "/bin/reboot"), "board reboot \n");

  platform::SetRootForTest("");
  EXPECT_EQ(platform::System("touch " + marker), -1);
  EXPECT_EQ(platform::Popen("echo hi", "r"), nullptr);
  EXPECT_FALSE(FileExists(marker));
}

TEST_F(BoardTest, ClockIsTheMachinesPlusTheBoardsOffset) {
  const int64_t machine = static_cast<int64_t>(std::time(nullptr));
  EXPECT_NEAR(static_cast<double>(platform::NowSeconds()), static_cast<double>(machine), 5);

  ASSERT_EQ(platform::SetClock(1500000000), 0);
  EXPECT_NEAR(static_cast<double>(platform::NowSeconds()), 1500000000.0, 5);
  EXPECT_NEAR(static_cast<double>(platform::NowMicros() / 1000000), 1500000000.0, 5);
  EXPECT_GT(static_cast<int64_t>(std::time(nullptr)), 1600000000);  // the machine is untouched
  const std::string offset = ReadFile(root() + "/etc/clock_offset");
  EXPECT_NEAR(std::stod(offset), 1500000000.0 - static_cast<double>(machine), 5);

  // a new process on the same board (here: the same root read again) keeps the offset
  platform::SetRootForTest(root());
  EXPECT_NEAR(static_cast<double>(platform::NowSeconds()), 1500000000.0, 5);

  EXPECT_EQ(platform::SetClock(-1), -1);
  EXPECT_EQ(platform::SetClock(5000000000LL), -1);

  // a board made to start before 2018
  testsupport::TempDir early;
  platform::BoardOptions options;
  options.set_clock = true;
  options.clock = 1400000000;
  testsupport::UseBoard(early.path(), options);
  EXPECT_NEAR(static_cast<double>(platform::NowSeconds()), 1400000000.0, 5);
}

TEST_F(BoardTest, FindProcessSeesOnlyProgramsOfTheBoard) {
  // a machine program with the name does not count
  testsupport::Process outside({"/bin/sleep", "30"}, {});
  EXPECT_EQ(platform::FindProcess("sleep"), -1);

  // a copy of it under the board does, by executable
  const std::string daemon = root() + "/bin/ipcamera-daemon";
  std::filesystem::copy_file("/bin/sleep", daemon);
  chmod(daemon.c_str(), 0755);
  testsupport::Process inside({daemon, "30"}, {});
  EXPECT_TRUE(testsupport::WaitFor(
      [&] { return platform::FindProcess("ipcamera-daemon") == inside.pid(); }));

  // and a script of the board, by its path on the command line
  const std::string script = root() + "/bin/helper-daemon";
  WriteFile(script, "#!/bin/sh\nsleep 30\n");
  chmod(script.c_str(), 0755);
  testsupport::Process scripted({script}, {});
  EXPECT_TRUE(testsupport::WaitFor(
      [&] { return platform::FindProcess("helper-daemon") == scripted.pid(); }));

  EXPECT_EQ(platform::FindProcess("no-such-daemon"), -1);
  EXPECT_EQ(platform::FindProcess("bin/ipcamera-daemon"), -1);
  EXPECT_EQ(platform::FindProcess(""), -1);
}

TEST(BoardSettings, DefaultsOfTheHub) {
  if (std::getenv("TARVO_HUB_IP") == nullptr) {
    EXPECT_EQ(platform::HubIp(), "10.17.1.1");
  }
  if (std::getenv("TARVO_PAIRING_PORT") == nullptr) {
    EXPECT_EQ(platform::PairingPort(), 6788);
  }
  if (std::getenv("TARVO_MQTT_HOST") == nullptr) {
    EXPECT_EQ(platform::MqttHost(), "localhost");
  }
  if (std::getenv("TARVO_P2P_PORT") == nullptr) {
    EXPECT_EQ(platform::P2pPort(4321), 4321);
  }
  EXPECT_EQ(platform::ShimNames().size(), 9u);
}

}  // namespace
