// The firmware download in this process, against nginx over HTTPS with the test CA in the
// board's CA folder: a stalled server ends at the (shortened) time limit, the percentage only
// grows while another thread reads it, and concurrent starts run one update. No broker: the
// state reports go nowhere.
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <string>
#include <thread>
#include <vector>

#include "cloud/ota.h"
#include "cloud/otapackage.h"
#include "core/configuration.h"
#include "support/boardfixture.h"
#include "support/logcapture.h"
#include "support/testsupport.h"
#include "support/webserver.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WaitFor;

class OtaDownload : public testsupport::BoardFixture {
 protected:
  platform::BoardOptions Options() const override {
    platform::BoardOptions options;
    options.shim = testsupport::BinPath("tarvo-shim");
    return options;
  }
  void SetUp() override {
    BoardFixture::SetUp();
    ASSERT_EQ(InitWifiConf(), 0);
    ASSERT_TRUE(server_.Start());
    ASSERT_NE(server_.InstallCa(Board("/etc/ssl/certs")), "");
    ota::Timing timing;
    timing.download_timeout_seconds = 3;
    timing.camera_poll_ms = 10;
    timing.sysupgrade_delay_ms = 0;
    ota::SetTiming(timing);
  }
  void TearDown() override {
    // every download thread has ended before the board goes; an update that reached sysupgrade
    // keeps the flag (the hub restarts), the next test starts from a hub that is not updating
    EXPECT_TRUE(WaitFor(
        [&] { return log_.Count("exit download thread") == log_.Count("download thread started"); },
        20s));
    SetSystemUpdating(false);
    ota::SetTiming(ota::Timing());
    BoardFixture::TearDown();
  }

  std::string Serve(const std::string& name, const std::string& package) {
    testsupport::WriteFile(server_.root() + "/" + name, package);
    return server_.Url("/" + name);
  }
  bool WaitUntilIdle() { return log_.Wait("exit download thread", 0, 20s) && !IsSystemUpdating(); }

  testsupport::WebServer server_;
  testsupport::LogCapture log_;
};

TEST_F(OtaDownload, StalledServerEndsAtTheTimeLimit) {
  const std::string url = Serve("update.pkg", ota::BuildPackage("hub", "camera"));
  server_.StallPath("/update.pkg", true);
  ASSERT_EQ(UpgradeSystem(url.c_str(), "", ""), 0);
  EXPECT_TRUE(IsSystemUpdating());
  ASSERT_TRUE(WaitUntilIdle());
  EXPECT_TRUE(log_.Has("curl error: Timeout"));
  EXPECT_TRUE(log_.Has("download file failed!!!"));
  EXPECT_FALSE(FileExists(Board("/tmp/hub_upgrade.bin")));
  EXPECT_FALSE(FileExists(Board("/var/log/sysupgrade.log")));
}

TEST_F(OtaDownload, PercentageOnlyGrowsAndTheUpdateGoesThrough) {
  std::string hub(6 << 20, '\0');
  for (size_t i = 0; i < hub.size(); i++) hub[i] = static_cast<char>(i * 2654435761u >> 13);
  const std::string url = Serve("big.pkg", ota::BuildPackage(hub, "camera image"));
  std::atomic<bool> done{false};
  std::vector<int> seen;
  std::thread reader([&] {
    while (!done.load()) {
      seen.push_back(GetOtaPercent());
      std::this_thread::sleep_for(1ms);
    }
  });
  ASSERT_EQ(UpgradeSystem(url.c_str(), "", ""), 0);
  ASSERT_TRUE(log_.Wait("exit download thread", 0, 30s));
  done.store(true);
  reader.join();
  ASSERT_FALSE(seen.empty());
  for (size_t i = 1; i < seen.size(); i++) ASSERT_LE(seen[i - 1], seen[i]);
  EXPECT_EQ(GetOtaPercent(), 100);
  EXPECT_EQ(ReadFile(Board("/var/log/sysupgrade.log")), "sysupgrade /tmp/hub_upgrade.bin\n");
  EXPECT_EQ(ReadFile(Board("/tmp/hub_upgrade.bin")), hub);
  EXPECT_EQ(ReadFile(Board("/tmp/camera/camera.muz")), "camera image");
  EXPECT_TRUE(log_.Has("all camera upgrade ok!"));  // no camera connected
  EXPECT_FALSE(IsCameraUpdating());
  EXPECT_TRUE(IsSystemUpdating());  // flashed: further commands are ignored until the restart
}

TEST_F(OtaDownload, ConcurrentStartsRunOneUpdate) {
  const std::string url = Serve("update.pkg", ota::BuildPackage("hub", "camera"));
  server_.StallPath("/update.pkg", true);
  std::atomic<int> started{0}, ignored{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; i++) {
    threads.emplace_back([&] {
      const int r = UpgradeSystem(url.c_str(), "", "");
      (r == 0 ? started : ignored)++;
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(started.load(), 1);
  EXPECT_EQ(ignored.load(), 7);
  EXPECT_EQ(log_.Count("System in updateing, the zelo_ota commond is ommitted"), 7);
  server_.Stop();  // cuts the stalled transfer
  ASSERT_TRUE(WaitUntilIdle());
  EXPECT_EQ(log_.Count("download file failed!!!"), 1);
}

}  // namespace
