// Firmware update end to end: the real daemon on a board, a real broker with the cloud agent
// simulator sending "zeLO.ota", nginx serving the package over HTTPS (its test CA in the board's
// CA folder) and the board's tmp/camera over HTTP as the hub's camera-image server, and two
// simulated cameras that fetch the image, restart and log in with its version. The sysupgrade
// shim records what the hub would have flashed.
#include <gtest/gtest.h>
#include <sodium.h>

#include <chrono>
#include <filesystem>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "camsim/camsim.h"
#include "camsim/camsimimage.h"
#include "cloud/otapackage.h"
#include "cloudsim/cloudsim.h"
#include "core/zelojson.h"
#include "support/broker.h"
#include "support/hubcamera.h"
#include "support/testsupport.h"
#include "support/webserver.h"

namespace {

using namespace std::chrono_literals;
using testsupport::FileExists;
using testsupport::ReadFile;
using testsupport::WaitFor;

constexpr char kCamA[] = "0A0000000001";
constexpr char kCamB[] = "0A0000000002";
constexpr int kOldVersion = 100;
constexpr int kNewVersion = 205;
// A camera upgrade is looked at every 5 s; a whole update fits well within this.
constexpr auto kUpdateTime = 60s;

std::string HubImage() {
  std::string image = "TARVO HUB IMAGE\n";
  for (int i = 0; i < 300000; i++) image += static_cast<char>(i * 131 + 17);
  return image;
}

class OtaEndToEnd : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_GE(sodium_init(), 0);
    ASSERT_TRUE(broker_.Start());
    testsupport::MakeBoard(board_.path(), {"--force", "--camera", std::string(kCamA) + ",127.0.0.2",
                                           "--camera", std::string(kCamB) + ",127.0.0.3"});
    // an optional provisioning file, moved into /etc/zelo at the daemon's start
    testsupport::WriteFile(Board("/etc/config/device.country"), "FI\n");
    std::filesystem::create_directories(Board("/tmp/camera"));
    testsupport::WebServerOptions camera_site;
    camera_site.root = Board("/tmp/camera");
    camera_site.tls = false;
    camera_web_ = std::make_unique<testsupport::WebServer>(camera_site);
    ASSERT_TRUE(camera_web_->Start());
    ASSERT_TRUE(packages_.Start());
  }

  void StartHub(bool trust_package_server = true, bool fail_camera_b = false) {
    if (trust_package_server) {
      ASSERT_NE(packages_.InstallCa(Board("/etc/ssl/certs")), "");
    }
    env_ = testsupport::HubEnv(board_.path(), broker_.Env());
    env_["TARVO_CAMERA_HTTP_PORT"] = std::to_string(camera_web_->port());
    ASSERT_TRUE(testsupport::StartHub(env_, &daemon_));
    agent_ = broker_.StartAgent();
    const camsim::HubEndpoint hub = testsupport::CameraEndpoint(env_);
    int n = 2;
    for (const char* mac : {kCamA, kCamB}) {
      camsim::CameraConfig config;
      config.mac = mac;
      config.ip = "127.0.0." + std::to_string(n++);
      config.soft_ver = kOldVersion;
      camsim::Behaviour behaviour;
      behaviour.reboot = 300ms;
      behaviour.fail_upgrade = fail_camera_b && std::string(mac) == kCamB;
      auto camera = std::make_unique<camsim::Camera>(config, hub, behaviour);
      std::string error;
      ASSERT_EQ(camera->Start(&error), 0) << error;
      ASSERT_EQ(camera->Connect(&error), 0) << error;
      cameras_.push_back(std::move(camera));
    }
    ASSERT_TRUE(daemon_->WaitForLines("login hardver: .*version: 100", 2));
  }

  void TearDown() override {
    for (auto& c : cameras_) c->Stop();
    if (HasFailure() && daemon_ != nullptr) daemon_->PrintLines("hub: ");
  }

  std::string Board(const std::string& path) const { return board_.path() + path; }

  // Puts a package on the package server; returns its URL.
  std::string Serve(const std::string& name, const std::string& package) {
    testsupport::WriteFile(packages_.root() + "/" + name, package);
    return packages_.Url("/" + name);
  }
  std::string Package(const uint8_t* secret_key = nullptr) {
    return ota::BuildPackage(HubImage(), camsim::MakeImage(kNewVersion), 1, 2, secret_key);
  }

  // Sends "zeLO.ota" and checks that it is acknowledged.
  void Ota(const std::string& url) {
    const int id = agent_->SendCommand(
        "zeLO.ota", "{\"app_url\":\"" + url + "\",\"file_md5\":\"ignored\",\"install\":\"1\"}");
    std::string reply;
    ASSERT_TRUE(agent_->WaitReply(id, &reply)) << "no reply to zeLO.ota";
    EXPECT_EQ(reply, "{\"id\":" + std::to_string(id) + ",\"result\":[\"ok\"]}");
  }

  // The states reported so far, in order (the idle reports of the start left out).
  std::vector<std::string> States() {
    std::vector<std::string> states;
    for (const auto& m : agent_->Messages()) {
      if (m.topic != "zelo/report" || m.payload.find("\"prop.ota_state\"") == std::string::npos)
        continue;
      const size_t at = m.payload.find("\"params\":[\"");
      if (at == std::string::npos) continue;
      const std::string state = m.payload.substr(at + 11, m.payload.find('"', at + 11) - at - 11);
      if (state != "idle") states.push_back(state);
    }
    return states;
  }
  // Waits until the update ends (installed or failed); returns the states.
  std::vector<std::string> WaitForEnd(size_t updates = 1) {
    WaitFor(
        [&] {
          size_t ends = 0;
          for (const auto& s : States()) ends += s == "installed" || s == "failed";
          return ends >= updates;
        },
        kUpdateTime);
    return States();
  }

  // Nothing was installed: no flash, no camera told, no provisioning file put back.
  void ExpectNothingInstalled(bool cameras_asked = false) {
    EXPECT_FALSE(FileExists(Board("/var/log/sysupgrade.log")));
    EXPECT_FALSE(FileExists(Board("/etc/config/wifi.conf")));
    for (auto& c : cameras_) {
      const camsim::Stats s = c->GetStats();
      EXPECT_EQ(s.upgrades_done, 0);
      EXPECT_EQ(s.soft_ver, kOldVersion);
      if (!cameras_asked) {
        EXPECT_EQ(s.upgrades, 0);
      }
    }
  }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  testsupport::WebServer packages_;
  std::unique_ptr<testsupport::WebServer> camera_web_;
  std::map<std::string, std::string> env_;
  std::unique_ptr<testsupport::Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
  std::vector<std::unique_ptr<camsim::Camera>> cameras_;
};

const std::vector<std::string> kInstalled = {"downloading", "downloaded", "installing",
                                             "installed"};
const std::vector<std::string> kDownloadFailed = {"downloading", "failed"};

TEST_F(OtaEndToEnd, PackageFromTheToolUpdatesCamerasAndHandsTheHubImageToSysupgrade) {
  StartHub();
  // the package tool, as a person would run it
  testsupport::TempDir work;
  const std::string hub_image = work.path() + "/hub.bin";
  testsupport::WriteFile(hub_image, HubImage());
  testsupport::Process tool(
      {testsupport::BinPath("tarvo-mkota"), "--hub", hub_image, "--camsim-version",
       std::to_string(kNewVersion), packages_.root() + "/update.pkg"},
      {});
  ASSERT_EQ(tool.Wait(), 0);
  Ota(packages_.Url("/update.pkg"));

  EXPECT_EQ(WaitForEnd(), kInstalled);
  for (auto& c : cameras_) {
    ASSERT_TRUE(c->WaitUntil([](const camsim::Stats& s) { return s.logins >= 2; }));
    EXPECT_EQ(c->GetStats().soft_ver, kNewVersion);
    EXPECT_EQ(c->GetStats().upgrades_done, 1);
  }
  EXPECT_EQ(camera_web_->CountRequests([](const testsupport::WebRequest& r) {
    return r.method == "GET" && r.path == "/camera.muz" && r.status == 200;
  }),
            2);
  EXPECT_TRUE(daemon_->HasLine("all camera upgrade ok!"));
  EXPECT_NE(ReadFile(Board("/etc/config/p2p")).find("option version '205'"), std::string::npos);
  // the provisioning files back in /etc/config, then the flash
  for (const char* name : {"wifi.conf", "device.token", "device.country"}) {
    EXPECT_EQ(ReadFile(Board(std::string("/etc/config/") + name)),
              ReadFile(Board(std::string("/etc/zelo/") + name)))
        << name;
  }
  EXPECT_FALSE(FileExists(Board("/etc/config/device.uid")));  // the hub has none
  ASSERT_TRUE(WaitFor([&] { return FileExists(Board("/var/log/sysupgrade.log")); }));
  EXPECT_EQ(ReadFile(Board("/var/log/sysupgrade.log")), "sysupgrade /tmp/hub_upgrade.bin\n");
  EXPECT_EQ(ReadFile(Board("/tmp/hub_upgrade.bin")), HubImage());
  EXPECT_EQ(camsim::ImageVersion(ReadFile(Board("/tmp/camera/camera.muz"))), kNewVersion);

  const int id = agent_->SendCommand("zeLO.get_ota_progress", "");
  std::string reply;
  ASSERT_TRUE(agent_->WaitReply(id, &reply));
  EXPECT_EQ(reply, "{\"id\":" + std::to_string(id) + ",\"result\":[100]}");
}

TEST_F(OtaEndToEnd, DigestTruncationAndServerFaultsInstallNothing) {
  StartHub();
  std::string package = Package();
  std::string hub_digest = package;
  hub_digest[144 + 1000] ^= 1;  // a hub image byte: its digest no longer matches
  std::string camera_digest = package;
  camera_digest[package.size() - 10] ^= 1;
  const std::vector<std::pair<std::string, std::string>> bad = {
      {"hub-digest", hub_digest},
      {"camera-digest", camera_digest},
      {"truncated", package.substr(0, package.size() - 1)},
      {"header-only", package.substr(0, 100)},
  };
  size_t updates = 0;
  for (const auto& [name, bytes] : bad) {
    Ota(Serve(name, bytes));
    updates++;
    ASSERT_EQ(WaitForEnd(updates).back(), "failed") << name;
  }
  packages_.FailPath("/server-error", true);
  Ota(Serve("server-error", package));
  EXPECT_EQ(WaitForEnd(++updates).back(), "failed");
  std::vector<std::string> expected;
  for (size_t i = 0; i < updates; i++) expected.insert(expected.end(), {"downloading", "failed"});
  EXPECT_EQ(States(), expected);
  EXPECT_EQ(daemon_->CountLines("check file md5 error!!!"), 2);
  EXPECT_EQ(daemon_->CountLines("download file failed!!!"), 3);
  ExpectNothingInstalled();
  EXPECT_FALSE(FileExists(Board("/tmp/hub_upgrade.bin")));
}

TEST_F(OtaEndToEnd, UnknownCertificateAuthorityIsRefused) {
  StartHub(/*trust_package_server=*/false);
  Ota(Serve("update.pkg", Package()));
  EXPECT_EQ(WaitForEnd(), kDownloadFailed);
  EXPECT_TRUE(daemon_->HasLine("curl error: .*(certificate|SSL)"));
  ExpectNothingInstalled();
}

TEST_F(OtaEndToEnd, ACameraThatFailsFailsTheUpdate) {
  StartHub(true, /*fail_camera_b=*/true);
  Ota(Serve("update.pkg", Package()));
  EXPECT_EQ(WaitForEnd(),
            (std::vector<std::string>{"downloading", "downloaded", "installing", "failed"}));
  EXPECT_TRUE(daemon_->HasLine("camera upgrade error!!! " + std::string(kCamB) + " refused"));
  EXPECT_FALSE(FileExists(Board("/var/log/sysupgrade.log")));
  EXPECT_FALSE(FileExists(Board("/etc/config/wifi.conf")));
}

TEST_F(OtaEndToEnd, WithASigningKeyOnlyAPackageSignedByItIsInstalled) {
  uint8_t pk[ota::kPublicKeySize], sk[ota::kSecretKeySize], other_pk[32], other_sk[64];
  crypto_sign_keypair(pk, sk);
  crypto_sign_keypair(other_pk, other_sk);
  char hex[2 * ota::kPublicKeySize + 1];
  sodium_bin2hex(hex, sizeof(hex), pk, sizeof(pk));
  testsupport::WriteFile(Board("/etc/zelo/ota_sign.pub"), std::string(hex) + "\n");
  StartHub();

  Ota(Serve("unsigned.pkg", Package()));
  ASSERT_EQ(WaitForEnd(1).back(), "failed");
  EXPECT_TRUE(daemon_->HasLine("check package signature error!!! package carries no signature"));
  Ota(Serve("other.pkg", Package(other_sk)));
  ASSERT_EQ(WaitForEnd(2).back(), "failed");
  EXPECT_TRUE(daemon_->HasLine("package signature does not verify"));
  ExpectNothingInstalled();

  // a failed update may be started again
  Ota(Serve("signed.pkg", Package(sk)));
  std::vector<std::string> expected = {"downloading", "failed", "downloading", "failed"};
  expected.insert(expected.end(), kInstalled.begin(), kInstalled.end());
  EXPECT_EQ(WaitForEnd(3), expected);
  EXPECT_TRUE(daemon_->HasLine("package signature ok"));
  ASSERT_TRUE(WaitFor([&] { return FileExists(Board("/var/log/sysupgrade.log")); }));
}

TEST_F(OtaEndToEnd, ASecondUpdateDuringADownloadIsAcknowledgedAndIgnored) {
  StartHub();
  const std::string url = Serve("update.pkg", Package());
  packages_.StallPath("/update.pkg", true);
  Ota(url);
  ASSERT_TRUE(WaitFor([&] { return States().size() == 1; }));
  Ota(url);
  ASSERT_FALSE(
      daemon_->WaitForLine("System in updateing, the zelo_ota commond is ommitted").empty());
  // the server goes away mid-transfer: the download fails
  packages_.Stop();
  EXPECT_EQ(WaitForEnd(), kDownloadFailed);
  ExpectNothingInstalled();

  // and the update is started again
  packages_.StallPath("/update.pkg", false);
  ASSERT_TRUE(packages_.Start());
  Ota(url);
  std::vector<std::string> expected = kDownloadFailed;
  expected.insert(expected.end(), kInstalled.begin(), kInstalled.end());
  EXPECT_EQ(WaitForEnd(2), expected);
}

TEST_F(OtaEndToEnd, MalformedCommandsAreNotAnswered) {
  StartHub();
  std::vector<int> ids;
  for (const std::string& params :
       {std::string("{\"app_url\":\"https://127.0.0.1/x\",\"file_md5\":\"m\"}"),  // no install
        std::string("[]"), std::string("\"text\"")}) {
    ids.push_back(agent_->SendCommand("zeLO.ota", params));
  }
  // URLs the hub will not fetch are acknowledged and fail at once
  for (const std::string& url :
       {std::string("file:///etc/passwd"), std::string("ftp://127.0.0.1/u"),
        std::string("https://127.0.0.1/a b"), "https://127.0.0.1/" + std::string(500, 'x')}) {
    Ota(url);
  }
  EXPECT_EQ(WaitForEnd(4), std::vector<std::string>(4, "failed"));
  EXPECT_EQ(daemon_->CountLines("Refused firmware url"), 4);
  testsupport::Barrier(*agent_);
  for (int id : ids) EXPECT_EQ(testsupport::RepliesTo(*agent_, id), 0);
  EXPECT_EQ(daemon_->CountLines("ProcMsgzeloOta, wrong format of zelo_ota command"), 3);
  // progress without an id gets nothing; the state query only logs
  agent_->Publish("zelo/command", "{\"method\":\"zeLO.get_ota_progress\"}");
  const int state = agent_->SendCommand("zeLO.get_ota_state", "");
  testsupport::Barrier(*agent_);
  EXPECT_EQ(testsupport::RepliesTo(*agent_, state), 0);
  EXPECT_TRUE(daemon_->HasLine("\\[abnormal\\] msg without id"));
  ExpectNothingInstalled();
}

}  // namespace
