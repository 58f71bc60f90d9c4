// The credentials thread of this process against a real mosquitto broker with the cloud agent
// simulator: the uid request and its answer, the password renewed every unanswered period until
// the agent acknowledges a report, the time and firmware-state steps; then viewers reach the
// open P2P transport with what the agent handed on, and only a correctly signed login gets an AV
// channel whose frames the viewer can decrypt.
#include <gtest/gtest.h>
#include <sodium.h>

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstring>
#include <future>
#include <mutex>
#include <regex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cloud/cloudcmd.h"
#include "cloud/mqttclient.h"
#include "cloudsim/cloudsim.h"
#include "cloudsim/credentials.h"
#include "core/configuration.h"
#include "core/log.h"
#include "crypto/hubauth.h"
#include "crypto/stream_decrypt.h"
#include "crypto/stream_encrypt.h"
#include "crypto/viewerlogin.h"
#include "p2p/iotc.h"
#include "p2p/viewer.h"
#include "platform/board.h"
#include "platform/nvram.h"
#include "support/broker.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

const char kSimUid[] = "TARVOSIMUID000000042";
// The board maker's device token "tarvo-device-token-0001" in hexadecimal.
const char kTokenHex[] = "746172766f2d6465766963652d746f6b656e2d30303031";
constexpr int kWait = 10000;

std::mutex g_log_mutex;
std::vector<std::string> g_log;

// A polling period that can be cut short: the credentials thread's wait in this test.
class Poll {
 public:
  bool Wait() {
    std::unique_lock<std::mutex> lock(mutex_);
    waits_++;
    changed_.notify_all();
    return !changed_.wait_for(lock, 100ms, [this] { return stop_; });
  }
  void Stop() {
    std::lock_guard<std::mutex> lock(mutex_);
    stop_ = true;
    changed_.notify_all();
  }
  int waits() {
    std::lock_guard<std::mutex> lock(mutex_);
    return waits_;
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool stop_ = false;
  int waits_ = 0;
};

class Credentials : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    broker_ = new testsupport::Broker();
    ASSERT_TRUE(broker_->Start());
    board_ = new testsupport::TempDir();
    testsupport::MakeBoard(board_->path(), {"--force"});
    setenv("TARVO_MQTT_HOST", "127.0.0.1", 1);
    setenv("TARVO_MQTT_PORT", std::to_string(broker_->port()).c_str(), 1);
    platform::SetRootForTest(board_->path());
    tlog::SetCaptureSink([](int, const std::string& line) {
      std::lock_guard<std::mutex> lock(g_log_mutex);
      g_log.push_back(line);
    });
    ASSERT_EQ(0, InitWifiConf());
    Configuration::getInstance().Init();
    ASSERT_EQ(0, libsodium_init());
    InitMqtt();
    ASSERT_TRUE(WaitFor([] { return IsMqttConnected(); }, 20s));
  }

  static testsupport::Broker* broker_;
  static testsupport::TempDir* board_;
};
testsupport::Broker* Credentials::broker_ = nullptr;
testsupport::TempDir* Credentials::board_ = nullptr;

std::vector<std::string> Reports(cloudsim::CloudAgent& agent, const std::string& method) {
  std::vector<std::string> out;
  const std::string tag = "\"method\":\"" + method + "\"";
  for (const auto& m : agent.Messages()) {
    if (m.topic == "zelo/report" && m.payload.find(tag) != std::string::npos) {
      out.push_back(m.payload);
    }
  }
  return out;
}

// The hub's side of one session: listen, then serve AV channel 0 with the slot's login check.
struct HubSession {
  int sid = -1;
  int av = -1;
};
HubSession Serve() {
  HubSession s;
  for (int i = 0; i < 100 && s.sid < 0; i++) s.sid = IOTC_Listen(100);
  if (s.sid < 0) return s;
  static authFn const kChecks[] = {AuthCallBackFn0, AuthCallBackFn1, AuthCallBackFn2,
                                   AuthCallBackFn3};
  int resend = -1;
  s.av = avServStart3(s.sid, kChecks[s.sid], 15, 0, 0, &resend);
  return s;
}

TEST_F(Credentials, ReportedUntilAcknowledgedThenOnlyASignedViewerGetsAKey) {
  const std::string file = board_->path() + "/tmp/credentials.txt";
  cloudsim::Options options;
  options.host = "127.0.0.1";
  options.port = broker_->port();
  options.uid = kSimUid;
  options.board = board_->path();
  options.credentials_file = file;
  options.ignore_credentials = 2;
  cloudsim::CloudAgent agent(options);
  std::string error;
  ASSERT_EQ(0, agent.Start(10s, &error)) << error;

  // The hub starts without a uid; the thread polls every 100 ms instead of every second.
  Configuration::getInstance().SetP2pUid("");
  Poll poll;
  UidPwdHooks hooks;
  hooks.wait = [&poll] { return poll.Wait(); };
  std::atomic<bool> done{false};
  std::thread credentials([&] {
    UidPwdFunc(&hooks);
    done = true;
  });
  struct Joiner {
    Poll& poll;
    std::thread& thread;
    ~Joiner() {
      poll.Stop();
      if (thread.joinable()) thread.join();
    }
  } joiner{poll, credentials};

  // Step 1: nothing is asked before the agent reports the cloud connected.
  ASSERT_TRUE(WaitFor([&] { return poll.waits() >= 3; }));
  EXPECT_TRUE(Reports(agent, "_sync.get_p2p_id").empty());
  agent.SendLocalStatus("cloud_connected");

  // Step 2: the uid answer lands in nvram and the configuration.
  ASSERT_TRUE(WaitFor([] { return Configuration::getInstance().GetP2pUid() == kSimUid; }));
  std::string nvram_uid;
  ASSERT_TRUE(WaitFor([&] {
    return platform::NvramLookup("p2p", "uid", &nvram_uid) == 0 && nvram_uid == kSimUid;
  }));

  // Step 3: a new password each unanswered period, in the short form (no "lockregion").
  ASSERT_TRUE(WaitFor([] { return IsFirstP2pInfoReportAcked(); }));
  const std::vector<std::string> reports = Reports(agent, "props");
  ASSERT_GE(reports.size(), 3u);
  const std::regex form("\\{\"id\":[0-9]+,\"method\":\"props\",\"params\":\\{\"p2p_id\":\"" +
                        std::string(kSimUid) +
                        "\",\"p2p_password\":\"([0-9]{6})\",\"p2p_checktoken\":\"" + kTokenHex +
                        "\",\"p2p_dev_public_key\":\"" + get_dev_pub_key() + "\"\\}\\}");
  std::set<std::string> passwords;
  for (const std::string& report : reports) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(report, m, form)) << report;
    passwords.insert(m[1]);
  }
  EXPECT_EQ(reports.size(), passwords.size());
  cloudsim::Credentials creds;
  ASSERT_TRUE(WaitFor([&] { return cloudsim::ReadCredentialsFile(file, &creds) == 0; }));
  const std::string password = Configuration::getInstance().GetP2pPassword();
  EXPECT_EQ(password, creds.password);
  EXPECT_EQ(kSimUid, creds.uid);
  EXPECT_EQ(get_dev_pub_key(), creds.public_key);

  // Steps 4 and 5: the clock, then the idle firmware state until answered; the thread ends.
  EXPECT_FALSE(done.load());
  agent.SendLocalTime(1700000000);
  ASSERT_TRUE(WaitFor([&] { return done.load(); }));
  credentials.join();
  const std::vector<std::string> ota = Reports(agent, "prop.ota_state");
  ASSERT_FALSE(ota.empty());
  EXPECT_TRUE(std::regex_match(
      ota[0],
      std::regex("\\{\"id\":[0-9]+,\"method\":\"prop.ota_state\",\"params\":\\[\"idle\"\\]\\}")));
  EXPECT_TRUE(IsFirstOtaStateReportAcked());
  // No report was made after the acknowledged one.
  EXPECT_EQ(reports.size(), Reports(agent, "props").size());

  // Viewers on the open P2P transport with what the agent handed on.
  const uint16_t port = testsupport::FreePort();
  ASSERT_EQ(IOTC_ER_NoERROR, IOTC_Initialize2(port));
  ASSERT_EQ(IOTC_ER_NoERROR, IOTC_Device_Login(creds.uid.c_str(), nullptr, nullptr));
  ASSERT_EQ(12, avInitialize(12));

  // A password the cloud never acknowledged opens no session.
  for (const std::string& old : passwords) {
    if (old == password) continue;
    p2p::Viewer stale;
    EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, stale.Connect("127.0.0.1", port, creds.uid, old, kWait));
  }

  // A login signed with another token gets no AV channel.
  {
    auto hub = std::async(std::launch::async, Serve);
    p2p::Viewer intruder;
    ASSERT_EQ(0, intruder.Connect("127.0.0.1", port, creds.uid, creds.password, kWait));
    app_key_pair app;
    make_app_key_pair(&app);
    EXPECT_EQ(AV_ER_WRONG_VIEWACCorPWD,
              intruder.Login("viewer",
                             make_login_text("viewer", creds.device_key, "another-token",
                                             creds.public_key, app),
                             kWait));
    const HubSession s = hub.get();
    EXPECT_GE(s.sid, 0);
    EXPECT_EQ(AV_ER_WRONG_VIEWACCorPWD, s.av);
    IOTC_Session_Close(s.sid);
  }

  // The signed login: both ends hold the same key, and a frame encrypted with the slot's key
  // arrives and decrypts to the frame sent.
  auto hub = std::async(std::launch::async, Serve);
  p2p::Viewer viewer;
  ASSERT_EQ(0, viewer.Connect("127.0.0.1", port, creds.uid, creds.password, kWait));
  app_key_pair app;
  make_app_key_pair(&app);
  ASSERT_EQ(0, viewer.Login("viewer",
                            make_login_text("viewer", creds.device_key, creds.device_token,
                                            creds.public_key, app),
                            kWait));
  const HubSession s = hub.get();
  ASSERT_GE(s.av, 0);
  unsigned char hub_key[kShareKeyBytes];
  unsigned char app_key[kShareKeyBytes];
  ASSERT_EQ(0, client_encrypt_info.Get(s.sid, hub_key));
  ASSERT_EQ(0, app_share_key(creds.public_key, app, app_key));
  EXPECT_EQ(0, std::memcmp(hub_key, app_key, kShareKeyBytes));

  std::vector<unsigned char> frame = {0, 0, 0, 1, 0x67, 0x42, 0, 0, 0, 1, 0x65};
  for (int i = 0; i < 5000; i++) frame.push_back(static_cast<unsigned char>(0x80 | i));
  {
    std::lock_guard<std::mutex> hold(encrypto_video.mutex);
    ASSERT_EQ(
        0, get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &encrypto_video.nalu));
    unsigned len = 0;
    ASSERT_EQ(0, video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), hub_key,
                                        &len, &encrypto_video.nalu, encrypto_video.data,
                                        encrypto_video.capacity));
    const unsigned char info[28] = {0x4E};
    ASSERT_EQ(0, avSendFrameData(s.av, reinterpret_cast<const char*>(encrypto_video.data),
                                 static_cast<int>(len), info, sizeof(info)));
  }
  p2p::ViewerFrame got;
  ASSERT_GT(viewer.RecvFrame(&got, kWait), 0);
  std::vector<unsigned char> plain(got.data.size());
  ASSERT_EQ(static_cast<int>(frame.size()),
            video_chacha20_decrypt(got.data.data(), got.data.size(), app_key, plain.data(),
                                   plain.size()));
  plain.resize(frame.size());
  EXPECT_EQ(frame, plain);
  EXPECT_NE(0, std::memcmp(got.data.data() + 17, frame.data(), frame.size()));

  // The device token, in any form, and the stream key never reached the log.
  char key_hex[2 * kShareKeyBytes + 1];
  sodium_bin2hex(key_hex, sizeof(key_hex), hub_key, kShareKeyBytes);
  {
    std::lock_guard<std::mutex> lock(g_log_mutex);
    EXPECT_GT(g_log.size(), 20u);
    for (const std::string& line : g_log) {
      EXPECT_EQ(std::string::npos, line.find(kTokenHex)) << line;
      EXPECT_EQ(std::string::npos, line.find("tarvo-device-token-0001")) << line;
      EXPECT_EQ(std::string::npos, line.find(key_hex)) << line;
    }
  }

  viewer.Close();
  avServStop(s.av);
  IOTC_Session_Close(s.sid);
  avDeInitialize();
  IOTC_DeInitialize();
  agent.Stop();
}

}  // namespace
