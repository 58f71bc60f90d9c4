// The LED thread, the AP mode at start and the long-press reset, on a board with shims. The
// reset thread's one-second waits are replaced by a gate the test opens one step at a time.
#include "led/hubled.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <chrono>
#include <condition_variable>
#include <memory>
#include <mutex>
#include <string>

#include "platform/board.h"
#include "platform/hwlib.h"
#include "support/boardfixture.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

namespace {

using testsupport::FileExists;
using testsupport::ReadFile;

// The reset thread's seconds: each wait takes one step the test has released.
struct Gate {
  std::mutex mutex;
  std::condition_variable changed;
  int steps = 0;
  bool open = false;
};
Gate* g_gate = new Gate;  // outlives every reset thread

void GateSleep() {
  std::unique_lock<std::mutex> lock(g_gate->mutex);
  g_gate->changed.wait(lock, [] { return g_gate->open || g_gate->steps > 0; });
  if (!g_gate->open) g_gate->steps--;
}

class LedTest : public testsupport::BoardFixture {
 protected:
  platform::BoardOptions Options() const override {
    platform::BoardOptions options;
    options.shim = testsupport::BinPath("tarvo-shim");
    options.wifi_conf = provisioned_;
    return options;
  }
  void SetUp() override {
    BoardFixture::SetUp();
    // what the daemon's start does with the provisioning file before the LED starts
    if (provisioned_) {
      testsupport::WriteFile(Board("/etc/zelo/wifi.conf"),
                             ReadFile(Board("/etc/config/wifi.conf")));
    }
  }
  void TearDown() override {
    StopLed();
    BoardFixture::TearDown();
  }
  bool LedShows(int pattern) {
    return testsupport::WaitFor(
        [&] { return ReadFile(Board("/sys/hub/led")) == std::to_string(pattern) + "\n"; });
  }

  bool provisioned_ = true;
  testsupport::LogCapture log_;
};

TEST_F(LedTest, ProvisionedHubStartsConnectingAndFollowsTheState) {
  ASSERT_EQ(InitLed(), 0);
  EXPECT_EQ(GetLedState(), kLedConnecting);
  ASSERT_TRUE(LedShows(5));
  EXPECT_FALSE(FileExists(Board("/var/log/wifi_start.log")));
  EXPECT_EQ(ReadFile(Board("/sys/class/net/ra0/operstate")), "up\n");

  SetupLed(kLedReady);
  ASSERT_TRUE(LedShows(4));
  SetupLed(kLedSetup);
  ASSERT_TRUE(LedShows(3));
  SetupLed(9);  // no such state
  EXPECT_EQ(GetLedState(), kLedSetup);
}

TEST_F(LedTest, SameStateTwiceDrivesTheLedOnceUnlessForgotten) {
  ASSERT_EQ(InitLed(), 0);
  ASSERT_TRUE(log_.Wait("led pattern: 5"));
  const size_t mark = log_.Mark();
  SetupLed(kLedReady);
  ASSERT_TRUE(log_.Wait("led pattern: 4", mark));
  SetupLed(kLedReady);
  // a later change shows the thread has looked at the state again since
  SetupLed(kLedSetup);
  ASSERT_TRUE(log_.Wait("led pattern: 3", mark));
  SetupLed(kLedSetup);
  SetupLed(kLedReady);
  ASSERT_TRUE(log_.Wait("led pattern: 4", log_.Mark()));
  EXPECT_EQ(log_.Count("led pattern: ", mark), 3);

  // the pairing server's stop: the same state is driven again once forgotten
  testsupport::WriteFile(Board("/sys/hub/led"), "0\n");
  const size_t before = log_.Mark();
  ForgetLedState();
  SetupLed(kLedReady);
  ASSERT_TRUE(log_.Wait("led pattern: 4", before));
  EXPECT_TRUE(LedShows(4));
}

class UnprovisionedLedTest : public LedTest {
 protected:
  UnprovisionedLedTest() { provisioned_ = false; }
};

TEST_F(UnprovisionedLedTest, StartsTheAccessPointAndShowsSetUp) {
  ASSERT_EQ(InitLed(), 0);
  EXPECT_EQ(GetLedState(), kLedSetup);
  EXPECT_EQ(ReadFile(Board("/var/log/wifi_start.log")), "wifi_start.sh \n");
  EXPECT_EQ(ReadFile(Board("/sys/class/net/ra0/operstate")), "down\n");
  EXPECT_TRUE(log_.Has("/etc/zelo/wifi.conf don't exist, start ap mode"));
  ASSERT_TRUE(LedShows(3));
}

class ResetTest : public LedTest {
 protected:
  void SetUp() override {
    LedTest::SetUp();
    {
      std::lock_guard<std::mutex> lock(g_gate->mutex);
      g_gate->steps = 0;
      g_gate->open = false;
    }
    SetResetSleep(GateSleep);
    ASSERT_EQ(InitSyncAndReset(), 0);
  }
  void TearDown() override {
    {
      std::lock_guard<std::mutex> lock(g_gate->mutex);
      g_gate->open = true;
    }
    g_gate->changed.notify_all();
    // every reset thread leaves once its press is over
    platform::InjectKeyEvent(1, 1);
    log_.Wait("reset hub code: 1 type: 1", release_mark_);
    for (int i = 0; i < 100 && log_.Count("exit reset_thread_function") < presses_; i++) {
      log_.Wait("exit reset_thread_function", log_.Mark(), std::chrono::milliseconds(100));
    }
    SetResetSleep(nullptr);
    daemon_.reset();
    LedTest::TearDown();
  }

  void Press() {
    const size_t mark = log_.Mark();
    presses_++;
    platform::InjectKeyEvent(1, 2);
    ASSERT_TRUE(log_.Wait("reset hub code: 1 type: 2", mark));
  }
  void Release() {
    release_mark_ = log_.Mark();
    platform::InjectKeyEvent(1, 1);
    ASSERT_TRUE(log_.Wait("reset hub code: 1 type: 1", release_mark_));
  }
  // Lets the reset threads through one wait each and waits until `threads` have read the button.
  void Second(int threads = 1) {
    const size_t mark = log_.Mark();
    {
      std::lock_guard<std::mutex> lock(g_gate->mutex);
      g_gate->steps += threads;
    }
    g_gate->changed.notify_all();
    for (int i = 0; i < 200 && log_.Count("btn\\.+value: |exit reset_thread", mark) < threads;
         i++) {
      log_.Wait("btn\\.+value: |exit reset_thread", log_.Mark(), std::chrono::milliseconds(50));
    }
  }
  // The stand-in for the hub's reset process: a script from the board that notes signal 42.
  void StartResetDaemon() {
    const std::string script = Board("/bin/ipcamera-daemon");
    testsupport::WriteFile(script,
                           "#!/bin/sh\n"
                           "trap 'echo 42 >> \"$0.signals\"' 42\n"
                           "echo ready\n"
                           "while :; do sleep 0.05; done\n");
    ASSERT_EQ(chmod(script.c_str(), 0755), 0);
    daemon_ = std::make_unique<testsupport::Process>(std::vector<std::string>{script},
                                                     std::map<std::string, std::string>{});
    ASSERT_FALSE(daemon_->WaitForLine("ready").empty());
    ASSERT_TRUE(testsupport::WaitFor([] { return platform::FindProcess("ipcamera-daemon") > 0; }));
  }
  std::string Signals() { return ReadFile(Board("/bin/ipcamera-daemon.signals")); }

  int presses_ = 0;
  size_t release_mark_ = 0;
  std::unique_ptr<testsupport::Process> daemon_;
};

TEST_F(ResetTest, ReleasedAfterSixSecondsDoesNothing) {
  StartResetDaemon();
  Press();
  for (int i = 0; i < 6; i++) Second();
  EXPECT_EQ(log_.Count("btn\\.+value: 1"), 6);
  Release();
  Second();
  ASSERT_TRUE(log_.Wait("exit reset_thread_function"));
  EXPECT_FALSE(log_.Has("doing reset"));
  EXPECT_EQ(Signals(), "");
  EXPECT_FALSE(FileExists(Board("/var/log/reboot.log")));
}

TEST_F(ResetTest, HeldSevenSecondsSignalsTheResetProcessOnce) {
#ifdef TARVO_PROGRAM_EMULATOR
  // A user-mode emulator renumbers real-time signals between guest and host, so signal 42 sent
  // by the emulated hub reaches the host's process as another number. Not so on the hub.
  GTEST_SKIP() << "real-time signal numbers differ under the emulator";
#endif
  StartResetDaemon();
  Press();
  for (int i = 0; i < 6; i++) Second();
  EXPECT_FALSE(log_.Has("doing reset"));
  Second();
  ASSERT_TRUE(log_.Wait("exit reset_thread_function"));
  EXPECT_TRUE(log_.Has("Sleep 7 seconds, doing reset"));
  EXPECT_TRUE(log_.Has("ipcamera-daemon pid: [1-9]"));
  ASSERT_TRUE(testsupport::WaitFor([&] { return Signals() == "42\n"; })) << Signals();
  // the press stays held, but its thread has ended: nothing more happens for it
  EXPECT_EQ(log_.Count("exit reset_thread_function"), 1);
  EXPECT_EQ(log_.Count("doing reset"), 1);
  EXPECT_FALSE(FileExists(Board("/var/log/reboot.log")));
  EXPECT_EQ(Signals(), "42\n");
}

TEST_F(ResetTest, HeldSevenSecondsRebootsThroughTheShimWithoutTheResetProcess) {
  Press();
  for (int i = 0; i < 7; i++) Second();
  ASSERT_TRUE(log_.Wait("exit reset_thread_function"));
  EXPECT_TRUE(log_.Has("ipcamera-daemon don't exist, doing reboot"));
  EXPECT_EQ(ReadFile(Board("/var/log/reboot.log")), "reboot\n");
  EXPECT_EQ(ReadFile(Board("/dev/ttyS1")), "error reboot\n");
}

TEST_F(ResetTest, APressAfterAReleaseStartsTheCountAgain) {
#ifdef TARVO_PROGRAM_EMULATOR
  // A user-mode emulator renumbers real-time signals between guest and host, so signal 42 sent
  // by the emulated hub reaches the host's process as another number. Not so on the hub.
  GTEST_SKIP() << "real-time signal numbers differ under the emulator";
#endif
  StartResetDaemon();
  Press();
  for (int i = 0; i < 5; i++) Second();
  Release();
  Press();
  // the first press's thread ends at its next second; the new one counts from 7
  Second(2);
  for (int i = 0; i < 5; i++) Second();
  EXPECT_FALSE(log_.Has("doing reset"));
  Second();
  ASSERT_TRUE(log_.Wait("doing reset"));
  ASSERT_TRUE(testsupport::WaitFor([&] { return Signals() == "42\n"; }));
  EXPECT_EQ(log_.Count("doing reset"), 1);
}

}  // namespace
