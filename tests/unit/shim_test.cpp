// The board's shims, reached the way the hub's code reaches them: shell commands through the
// platform's runner, with board paths.
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <filesystem>
#include <string>
#include <vector>

#include "platform/board.h"
#include "platform/boardmaker.h"
#include "platform/hwlib.h"
#include "platform/nvram.h"
#include "support/boardfixture.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WriteFile;

struct Result {
  int status = -1;  // exit status, or -1
  std::string output;
};

class ShimTest : public testsupport::BoardFixture {
 protected:
  platform::BoardOptions Options() const override {
    platform::BoardOptions options;
    options.shim = testsupport::BinPath("tarvo-shim");
    return options;
  }
  void SetUp() override {
    ASSERT_TRUE(FileExists(testsupport::BinPath("tarvo-shim")))
        << "build tarvo-shim first (ninja tarvo-shim)";
    BoardFixture::SetUp();
    root_ = root();
  }

  // Runs a shell command through the platform, standard error folded into the output.
  Result Run(const std::string& command) {
    Result result;
    FILE* stream = platform::Popen(command + " 2>&1", "r");
    if (stream == nullptr) return result;
    char buf[512];
    size_t n;
    while ((n = std::fread(buf, 1, sizeof(buf), stream)) > 0) result.output.append(buf, n);
    const int status = platform::Pclose(stream);
    if (WIFEXITED(status)) result.status = WEXITSTATUS(status);
    return result;
  }
  std::string B(const std::string& path) { return platform::BoardPath(path); }

  std::string root_;
};

TEST_F(ShimTest, NvramToolAndLibraryShareOneStore) {
  Result r = Run("nvram set p2p uid 'VIA SHIM' && nvram commit");
  ASSERT_EQ(r.status, 0) << r.output;
  ASSERT_EQ(nvram_filecache(), 0);
  ASSERT_EQ(nvram_parse(), 0);
  char value[32];
  ASSERT_EQ(nvram_get("p2p", "uid", value, sizeof(value)), 0);
  EXPECT_STREQ(value, "VIA SHIM");

  ASSERT_EQ(nvram_set("p2p", "legalstatus", "1"), 0);  // set, not committed
  EXPECT_EQ(Run("nvram get p2p legalstatus").output, "1\n");
  EXPECT_EQ(Run("nvram show").output,
            "p2p.did=1000000001\np2p.key=TarvoDeviceKey01\np2p.legalstatus=1\n"
            "p2p.mac=021A2B3C4D5E\np2p.uid=VIA SHIM\n");
  EXPECT_EQ(Run("nvram get p2p nothing").status, 1);

  EXPECT_EQ(Run("nvram set p2p 'u id' x").status, 1);
  EXPECT_EQ(Run("nvram set p2p uid").status, 1);
  EXPECT_EQ(Run("nvram set p2p uid \"$(printf 'a\\nb')\"").status, 1);
  EXPECT_EQ(Run("nvram frobnicate").status, 1);
  EXPECT_EQ(Run("nvram get p2p uid").output, "VIA SHIM\n");
}

TEST_F(ShimTest, CardMountFormatAndUnmountAsTheHubRunsThem) {
  const std::string mounted = "cat " + B("/proc/mounts") + " | grep 'dev/mmcblk0p1'";
  const std::string readonly = mounted + " | grep 'ro,relatime'";
  const std::string mount = "mkdir -p " + B("/mnt/mmcblk0p1") + " & mount -t auto " +
                            B("/dev/mmcblk0p1") + " " + B("/mnt/mmcblk0p1");
  const std::string format = "mkfs.vfat " + B("/dev/mmcblk0p1");
  const std::string unmount =
      "umount " + B("/mnt/mmcblk0p1") + " && rm -rf " + B("/mnt/mmcblk0p1") + "/*";
  const std::string card = root_ + "/mnt/mmcblk0p1";

  EXPECT_EQ(Run(mounted).output, "");
  EXPECT_NE(Run(mount).output, "");  // no card: the device node is missing
  platform::InjectCardEvent(true);
  EXPECT_NE(Run(mount).output, "");  // a card, but no driver to make its node

  // Loading the driver makes the node, and the hot-plug mounts the card.
  EXPECT_EQ(Run("insmod mtk_sd.ko").status, 0);
  EXPECT_TRUE(FileExists(root_ + "/dev/mmcblk0p1"));
  EXPECT_NE(Run(mounted).output, "");
  EXPECT_NE(ReadFile(root_ + "/var/log/shims.log").find("hot-plug mounted"), std::string::npos);
  EXPECT_NE(Run(mount).output, "");  // already mounted
  EXPECT_EQ(Run(readonly).output, "");
  EXPECT_EQ(Run("insmod mtk_sd.ko").status, 1);

  EXPECT_EQ(Run("mount -o remount,ro " + B("/dev/mmcblk0p1") + " " + B("/mnt/mmcblk0p1")).status,
            0);
  EXPECT_NE(Run(readonly).output, "");
  // the hub's remount names a device that does not exist; the mount point decides
  EXPECT_EQ(Run("mount -o remount,rw " + B("/dev/mmcblkc0p1") + " " + B("/mnt/mmcblk0p1")).status,
            0);
  EXPECT_EQ(Run(readonly).output, "");

  // The card keeps its files across unmount and mount; the bare folder's stay apart.
  WriteFile(card + "/record/a.mp4", "clip");
  EXPECT_NE(Run(format).output, "");         // refused while mounted
  EXPECT_NE(Run("rmmod mtk_sd").status, 0);  // busy while mounted
  EXPECT_EQ(Run(unmount).output, "");
  EXPECT_EQ(Run(mounted).output, "");
  EXPECT_TRUE(std::filesystem::is_empty(card));
  EXPECT_NE(Run("umount " + B("/mnt/mmcblk0p1")).output, "");  // not mounted
  WriteFile(card + "/bare.txt", "x");
  EXPECT_EQ(Run(mount).output, "");
  EXPECT_EQ(ReadFile(card + "/record/a.mp4"), "clip");
  EXPECT_FALSE(FileExists(card + "/bare.txt"));
  EXPECT_EQ(Run("umount " + B("/dev/mmcblk0p1")).status, 0);
  EXPECT_TRUE(FileExists(card + "/bare.txt"));
  EXPECT_FALSE(FileExists(card + "/record"));

  // mkfs.vfat empties the card, not the bare folder.
  EXPECT_EQ(Run(format).output, "");
  EXPECT_EQ(ReadFile(root_ + "/var/log/mkfs.vfat.log"), "mkfs.vfat /dev/mmcblk0p1\n");
  EXPECT_EQ(Run(mount).output, "");
  EXPECT_TRUE(std::filesystem::is_empty(card));
  EXPECT_EQ(Run(unmount).output, "");

  // A write-protected card cannot be formatted and mounts read-only for good.
  platform::SetCardWriteProtect(true);
  const Result locked = Run(format);
  EXPECT_EQ(locked.status, 1);
  EXPECT_NE(locked.output.find("Read-only file system"), std::string::npos);
  EXPECT_EQ(Run(mount).output, "");
  EXPECT_NE(Run(readonly).output, "");
  const Result remount =
      Run("mount -o remount,rw " + B("/dev/mmcblkc0p1") + " " + B("/mnt/mmcblk0p1"));
  EXPECT_EQ(remount.status, 32);
  EXPECT_NE(remount.output.find("write-protected"), std::string::npos);
  platform::SetCardWriteProtect(false);

  // Unloading the driver takes the node; with the slot empty, loading it makes none.
  EXPECT_EQ(Run("umount " + B("/mnt/mmcblk0p1")).status, 0);
  EXPECT_EQ(Run("rmmod mtk_sd").status, 0);
  EXPECT_EQ(ReadFile(root_ + "/proc/modules"), "");
  EXPECT_FALSE(FileExists(root_ + "/dev/mmcblk0p1"));
  platform::InjectCardEvent(false);
  EXPECT_EQ(Run("insmod mtk_sd").status, 0);
  EXPECT_FALSE(FileExists(root_ + "/dev/mmcblk0p1"));
  EXPECT_EQ(Run(mounted).output, "");
}

TEST_F(ShimTest, UpgradeRebootAndInterfacesAreOnlyRecorded) {
  EXPECT_EQ(Run("sysupgrade " + B("/tmp/hub_upgrade.bin")).status, 0);
  EXPECT_EQ(Run("echo error reboot > " + B("/dev/ttyS1") + "; reboot").status, 0);
  EXPECT_EQ(ReadFile(root_ + "/var/log/sysupgrade.log"), "sysupgrade /tmp/hub_upgrade.bin\n");
  EXPECT_EQ(ReadFile(root_ + "/var/log/reboot.log"), "reboot\n");

  EXPECT_EQ(Run("ifconfig ra1 up").status, 0);
  EXPECT_EQ(ReadFile(root_ + "/sys/class/net/ra1/operstate"), "up\n");
  EXPECT_EQ(Run("ifconfig ra0 down").status, 0);
  EXPECT_EQ(ReadFile(root_ + "/sys/class/net/ra0/operstate"), "down\n");
  EXPECT_NE(Run("ifconfig eth0").output.find("HWaddr 02:1A:2B:3C:4D:5E"), std::string::npos);
  EXPECT_EQ(Run("ifconfig wlan7 up").status, 1);
  EXPECT_EQ(Run("ifconfig ../x up").status, 1);

  const std::string log = ReadFile(root_ + "/var/log/shims.log");
  EXPECT_NE(log.find(" sysupgrade " + B("/tmp/hub_upgrade.bin") + " => 0\n"), std::string::npos);
  EXPECT_NE(log.find(" reboot => 0\n"), std::string::npos);
  EXPECT_NE(log.find(" ifconfig wlan7 up => 1 (wlan7: "), std::string::npos);
}

TEST_F(ShimTest, PathsOutsideTheBoardAreRefused) {
  std::filesystem::create_directory_symlink("/etc", root_ + "/tmp/link");
  const std::string before = ReadFile(root_ + "/proc/mounts");
  platform::InjectCardEvent(true);
  for (const std::string& command : std::vector<std::string>{
           "mount -t auto /dev/sda1 " + B("/mnt/mmcblk0p1"),
           "mount -t auto " + B("/dev/mmcblk0p1") + " /mnt", "umount /mnt", "mkfs.vfat /dev/sda1",
           "sysupgrade /tmp/hub_upgrade.bin", "reboot /etc", "sysupgrade " + B("/tmp/link/passwd"),
           "sysupgrade " + B("/tmp/../../etc/passwd")}) {
    Result r = Run(command);
    EXPECT_EQ(r.status, 1) << command;
    EXPECT_NE(r.output.find("lies outside the board root"), std::string::npos) << r.output;
  }
  EXPECT_EQ(ReadFile(root_ + "/proc/mounts"), before);
  EXPECT_FALSE(FileExists(root_ + "/var/log/sysupgrade.log"));
  EXPECT_FALSE(FileExists(root_ + "/var/log/reboot.log"));
  EXPECT_FALSE(FileExists(root_ + "/var/log/mkfs.vfat.log"));

  // a shim that is not in a board's bin/ has no board to act on
  testsupport::Process stray({testsupport::BinPath("tarvo-shim"), "reboot"}, {});
  const int status = stray.Wait();
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 1);
  EXPECT_TRUE(stray.HasLine("runs only from a board root's bin/ folder"));
}

}  // namespace
