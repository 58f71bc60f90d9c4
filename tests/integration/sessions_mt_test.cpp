// Viewer sessions on the real daemon: a board from tarvo-mkboard, a real mosquitto broker, the
// cloud agent simulator in this process acknowledging the hub's credential report and writing
// the credentials file, and viewers of the viewer library logging in with what the app would get
// from the cloud. Every wait is on a log line of the hub or an answer of the transport.
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdlib>
#include <memory>
#include <regex>
#include <set>
#include <string>
#include <vector>

#include "cloudsim/cloudsim.h"
#include "crypto/viewerlogin.h"
#include "p2p/iotc.h"
#include "server/mediaserver.h"
#include "support/broker.h"
#include "support/testsupport.h"
#include "viewer/viewersession.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

const char kBoardUid[] = "TARVOHUB000000000001";
const char kToken[] = "tarvo-device-token-0001";
const char kTokenHex[] = "746172766f2d6465766963652d746f6b656e2d30303031";

class Sessions : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(broker_.Start());
    testsupport::MakeBoard(board_.path(), {"--force"});
    file_ = board_.path() + "/tmp/app-credentials";
    p2p_port_ = testsupport::FreePort();
  }

  void TearDown() override {
    if (daemon_ == nullptr) return;
    // A sanitizer build of the daemon reports on its standard error.
    EXPECT_EQ(0, Lines("Sanitizer|runtime error:"));
    if (HasFailure()) daemon_->PrintLines("hub: ");
  }

  // Starts (or starts again) the daemon on the board and waits for its MQTT subscriptions.
  void StartHub() {
    std::map<std::string, std::string> env = testsupport::HubEnv(board_.path(), broker_.Env());
    env["TARVO_P2P_PORT"] = std::to_string(p2p_port_);
    ASSERT_TRUE(testsupport::StartHub(env, &daemon_));
  }

  void StopHub() {
    daemon_->Signal(SIGKILL);
    daemon_->Wait(20s);
  }

  void StartAgent(cloudsim::Options options = cloudsim::Options()) {
    options.board = board_.path();
    options.credentials_file = file_;
    agent_ = broker_.StartAgent(options);
  }

  // The hub and the agent up; the cloud connected, the credential report acknowledged and the
  // credentials file holding the hub's current password and public key.
  void Start(viewer::AppCredentials* credentials) {
    StartHub();
    if (agent_ == nullptr) StartAgent();
    agent_->SendLocalStatus("cloud_connected");
    WaitCredentials(credentials);
  }

  void WaitCredentials(viewer::AppCredentials* out) {
    ASSERT_TRUE(WaitLines("first report tutk info ok$", 1, 30s));
    std::string error;
    ASSERT_TRUE(WaitFor([&] {
      return viewer::LoadCredentials(file_, out, &error) == 0 &&
             out->password == daemon_->LastMatch("MakeNewAvPass: ([0-9]{6})$") &&
             out->public_key == daemon_->LastMatch("public key is: ([0-9a-f]{64})$");
    })) << error;
  }

  viewer::SessionOptions Options() {
    viewer::SessionOptions o;
    o.port = p2p_port_;
    return o;
  }

  int Lines(const std::string& pattern) { return daemon_->CountLines(pattern); }
  bool WaitLines(const std::string& pattern, int count, std::chrono::milliseconds timeout = 10s) {
    return daemon_->WaitForLines(pattern, count, timeout);
  }

  void AppendNvram(const std::string& lines) {
    const std::string store = board_.path() + "/etc/nvram/store";
    testsupport::WriteFile(store, testsupport::ReadFile(store) + lines);
  }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  std::string file_;
  uint16_t p2p_port_ = 0;
  std::unique_ptr<testsupport::Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
};

TEST_F(Sessions, FourViewersAtOnceTheFifthIsRefusedAndFreedSlotsServeTheNext) {
  viewer::AppCredentials creds;
  ASSERT_NO_FATAL_FAILURE(Start(&creds));
  std::array<std::unique_ptr<viewer::Session>, 4> viewers;
  std::set<int> sids;
  for (auto& v : viewers) {
    v = std::make_unique<viewer::Session>();
    ASSERT_EQ(0, v->Connect(creds, Options()));
    ASSERT_EQ(0, v->Login(creds, Options()));
    sids.insert(v->sid());
  }
  EXPECT_EQ((std::set<int>{0, 1, 2, 3}), sids);
  ASSERT_TRUE(WaitLines("avServStart3 OK, avIndex: [0-9]+, Resend: 0$", 4));
  EXPECT_EQ(4, Lines("Client is from\\[IP:127\\.0\\.0\\.1, Port:[0-9]+\\] Mode\\[LAN\\] "
                     "VPG\\[0:0:0\\] VER\\[1\\.0\\.0\\.0\\]$"));

  // The fifth is refused by the transport; the listen loop reports it and pauses.
  viewer::Session fifth;
  EXPECT_EQ(IOTC_ER_EXCEED_MAX_SESSION, fifth.Connect(creds, Options()));
  ASSERT_TRUE(WaitLines("IOTC Listen got IOTC_ER_EXCEED_MAX_SESSION$", 1));
  for (auto& v : viewers) EXPECT_EQ(0, v->status());

  // A viewer that vanishes: its session thread sees the lost link, closes the session (with
  // the playback stop), and the slot serves the next viewer.
  const std::string vanished = std::to_string(viewers[1]->sid());
  viewers[1]->Abort();
  ASSERT_TRUE(WaitLines("P2P session " + vanished + " closed$", 1));
  EXPECT_EQ(1, Lines("SID: " + vanished + ", avIndex: [0-9]+ avRecvIOCtrl error, code: -20016$"));
  EXPECT_EQ(1, Lines("Close client sessionID: " + vanished + ", avIndex: [0-9]+, time: [0-9]+$"));
  EXPECT_EQ(1, Lines("No playlist to stop for session " + vanished + "$"));
  viewer::Session next;
  ASSERT_EQ(0, next.Connect(creds, Options()));
  EXPECT_EQ(vanished, std::to_string(next.sid()));
  EXPECT_EQ(0, next.Login(creds, Options()));

  // One that says goodbye frees its slot the same way.
  const std::string left = std::to_string(viewers[2]->sid());
  viewers[2]->Close();
  ASSERT_TRUE(WaitLines("P2P session " + left + " closed$", 1));
  EXPECT_EQ(1, Lines("SID: " + left + ", avIndex: [0-9]+ avRecvIOCtrl error, code: -20015$"));
  viewer::Session after;
  ASSERT_EQ(0, after.Connect(creds, Options()));
  EXPECT_EQ(left, std::to_string(after.sid()));
  EXPECT_EQ(0, after.Login(creds, Options()));
  ASSERT_TRUE(WaitLines("avServStart3 OK, avIndex: [0-9]+, Resend: 0$", 6));
  EXPECT_EQ(0, viewers[0]->status());
  EXPECT_EQ(0, viewers[3]->status());
}

TEST_F(Sessions, RefusedLoginsGetNoAvChannelAndSecretsStayOutOfTheLog) {
  viewer::AppCredentials creds;
  ASSERT_NO_FATAL_FAILURE(Start(&creds));
  int refusals = 0;
  // A login text the hub refuses: the session opens, the login does not, the hub closes it.
  auto refused_login = [&](const std::function<int(viewer::Session&)>& login,
                           const std::string& reason) {
    viewer::Session v;
    ASSERT_EQ(0, v.Connect(creds, Options()));
    const std::string sid = std::to_string(v.sid());
    EXPECT_EQ(AV_ER_WRONG_VIEWACCorPWD, login(v)) << reason;
    ++refusals;
    ASSERT_TRUE(WaitLines("P2P session " + sid + " closed$", refusals)) << reason;
    EXPECT_EQ(refusals, Lines("avServStart3 failed!! SID: [0-3], code: -20009$")) << reason;
    EXPECT_EQ(refusals, Lines("thread_ForAVServerStart: exit!! SID: [0-3]$")) << reason;
    EXPECT_GE(Lines(reason), 1) << reason;
    EXPECT_TRUE(WaitFor([&] { return v.status() == AV_ER_SESSION_CLOSE_BY_REMOTE; })) << reason;
  };

  viewer::AppCredentials other_token = creds;
  other_token.device_token = "another-device-token";
  refused_login([&](viewer::Session& v) { return v.Login(other_token, Options()); },
                "!!!!!SIGN VERIFY FAIL!!!!!");

  // Signed for another hub's key pair.
  app_key_pair other_hub;
  make_app_key_pair(&other_hub);
  char other_hex[2 * kLoginKeyBytes + 1];
  sodium_bin2hex(other_hex, sizeof(other_hex), other_hub.public_key, kLoginKeyBytes);
  viewer::AppCredentials other_key = creds;
  other_key.public_key = other_hex;
  refused_login([&](viewer::Session& v) { return v.Login(other_key, Options()); },
                "!!!!!SIGN VERIFY FAIL!!!!!");

  const std::string no_sign =
      "{\"public_key\":\"" + std::string(other_hex) + "\",\"account\":\"viewer\"}";
  refused_login([&](viewer::Session& v) { return v.LoginWithText("viewer", no_sign, 10000); },
                "get sign error$");

  EXPECT_EQ(refusals, Lines("Found a client sessionID: "));
  EXPECT_EQ(0, Lines("avServStart3 OK"));

  // The hub still serves a correctly signed viewer.
  viewer::Session good;
  ASSERT_EQ(0, good.Connect(creds, Options()));
  ASSERT_EQ(0, good.Login(creds, Options()));
  ASSERT_TRUE(good.has_key());
  ASSERT_TRUE(WaitLines("avServStart3 OK", 1));

  char key_hex[2 * kLoginKeyBytes + 1];
  sodium_bin2hex(key_hex, sizeof(key_hex), good.key(), kLoginKeyBytes);
  for (const std::string& line : daemon_->Lines()) {
    EXPECT_EQ(std::string::npos, line.find(kToken)) << line;
    EXPECT_EQ(std::string::npos, line.find(kTokenHex)) << line;
    EXPECT_EQ(std::string::npos, line.find(key_hex)) << line;
  }
}

TEST_F(Sessions, ASilentViewerKeepsItsSessionAcrossReceiveTimeOuts) {
  viewer::AppCredentials creds;
  ASSERT_NO_FATAL_FAILURE(Start(&creds));
  viewer::Session v;
  ASSERT_EQ(0, v.Connect(creds, Options()));
  ASSERT_EQ(0, v.Login(creds, Options()));
  // Waiting for messages that never come, past a dozen of the hub's 500 ms receive time-outs
  // and past the link's ping interval.
  std::atomic<bool> stop{false};
  EXPECT_EQ(0, v.Hold(std::chrono::steady_clock::now() + 6s, stop, viewer::Handlers()));
  EXPECT_EQ(0, Lines("avRecvIOCtrl error"));
  EXPECT_EQ(0, Lines("Close client sessionID"));
  // The session thread still reads the viewer's messages.
  ASSERT_EQ(0, v.SendIoCtrl(0x300, ""));
  ASSERT_TRUE(WaitLines("This is audio start\\.\\.\\.\\.\\.\\.\\.$", 1));
  ASSERT_EQ(0, v.SendIoCtrl(0x301, ""));
  ASSERT_TRUE(WaitLines("This is audio stop\\.\\.\\.\\.\\.\\.\\.$", 1));
  EXPECT_EQ(0, v.status());
}

TEST_F(Sessions, AfterARestartOfTheHubAnOldSignatureFails) {
  viewer::AppCredentials before;
  ASSERT_NO_FATAL_FAILURE(Start(&before));
  app_key_pair app;
  make_app_key_pair(&app);
  const std::string old_text =
      make_login_text("viewer", before.device_key, before.device_token, before.public_key, app);
  {
    viewer::Session v;
    ASSERT_EQ(0, v.Connect(before, Options()));
    ASSERT_EQ(0, v.LoginWithText("viewer", old_text, 10000));
  }

  StopHub();
  viewer::AppCredentials after;
  ASSERT_NO_FATAL_FAILURE(Start(&after));
  EXPECT_NE(before.public_key, after.public_key);
  if (before.password != after.password) {
    viewer::Session stale;
    EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, stale.Connect(before, Options()));
  }
  viewer::Session v;
  ASSERT_EQ(0, v.Connect(after, Options()));
  EXPECT_EQ(AV_ER_WRONG_VIEWACCorPWD, v.LoginWithText("viewer", old_text, 10000));
  ASSERT_TRUE(WaitLines("!!!!!SIGN VERIFY FAIL!!!!!", 1));
  ASSERT_TRUE(WaitLines("P2P session [0-3] closed$", 1));
  viewer::Session fresh;
  ASSERT_EQ(0, fresh.Connect(after, Options()));
  EXPECT_EQ(0, fresh.Login(after, Options()));
}

TEST_F(Sessions, ReportInItsLongFormRenewedEachUnansweredPeriodUntilAcknowledged) {
  AppendNvram("p2p.lockregion=EU\np2p.legalstatus=1\n");
  cloudsim::Options options;
  options.ignore_credentials = 2;
  StartAgent(options);
  viewer::AppCredentials creds;
  ASSERT_NO_FATAL_FAILURE(Start(&creds));

  const std::regex form("\\{\"id\":[0-9]+,\"method\":\"props\",\"params\":\\{\"p2p_id\":\"" +
                        std::string(kBoardUid) +
                        "\",\"p2p_password\":\"([0-9]{6})\", \"p2p_checktoken\":\"" + kTokenHex +
                        "\", \"p2p_dev_public_key\":\"" + creds.public_key +
                        "\", \"lock_region\":\"EU\", \"s_legal_status\":\"1\"\\}\\}");
  std::vector<std::string> passwords;
  for (const auto& m : agent_->Messages()) {
    if (m.topic != "zelo/report" || m.payload.find("\"p2p_id\"") == std::string::npos) continue;
    std::smatch match;
    ASSERT_TRUE(std::regex_match(m.payload, match, form)) << m.payload;
    passwords.push_back(match[1]);
  }
  ASSERT_GE(passwords.size(), 3u);
  EXPECT_EQ(passwords.size(), std::set<std::string>(passwords.begin(), passwords.end()).size());
  // The first two went unanswered; the file holds an acknowledged one.
  EXPECT_NE(passwords.end(), std::find(passwords.begin() + 2, passwords.end(), creds.password));

  // Only the acknowledged password opens a session.
  viewer::AppCredentials unanswered = creds;
  unanswered.password = passwords[0];
  viewer::Session refused;
  EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, refused.Connect(unanswered, Options()));
  viewer::Session v;
  ASSERT_EQ(0, v.Connect(creds, Options()));
  EXPECT_EQ(0, v.Login(creds, Options()));

  // Once the agent has set the clock, the idle firmware state.
  EXPECT_EQ(0, Lines("\"prop.ota_state\""));
  agent_->SendLocalTime(1700000000);
  std::string ota;
  ASSERT_TRUE(agent_->WaitReport("prop.ota_state", &ota, 20s));
  EXPECT_TRUE(std::regex_match(
      ota,
      std::regex("\\{\"id\":[0-9]+,\"method\":\"prop.ota_state\",\"params\":\\[\"idle\"\\]\\}")))
      << ota;
}

TEST_F(Sessions, WithoutAUidTheLoginWaitsForTheCloudsAnswer) {
  const std::string store = board_.path() + "/etc/nvram/store";
  testsupport::WriteFile(store, std::regex_replace(testsupport::ReadFile(store),
                                                   std::regex("p2p\\.uid=[^\n]*\n"), ""));
  const char kCloudUid[] = "TARVOSIMUID000000077";
  cloudsim::Options options;
  options.uid = kCloudUid;
  StartAgent(options);
  StartHub();

  // No uid: the transport refuses every viewer and the login thread says nothing.
  ASSERT_TRUE(WaitLines("Tutk listen server started$", 1));
  viewer::AppCredentials guess;
  guess.uid = kBoardUid;
  guess.password = "123456";
  viewer::Session early;
  EXPECT_EQ(IOTC_ER_DEVICE_NOT_LOGGED_IN, early.Connect(guess, Options()));
  EXPECT_EQ(0, Lines("Login to Tutk platform"));

  agent_->SendLocalStatus("cloud_connected");
  ASSERT_TRUE(WaitLines("Login to Tutk platform succeed$", 1, 20s));
  EXPECT_EQ(0, Lines("Login to Tutk platform failed"));

  viewer::AppCredentials creds;
  ASSERT_NO_FATAL_FAILURE(WaitCredentials(&creds));
  EXPECT_EQ(kCloudUid, creds.uid);
  viewer::Session v;
  ASSERT_EQ(0, v.Connect(creds, Options()));
  EXPECT_EQ(0, v.Login(creds, Options()));
  guess.password = creds.password;
  viewer::Session old_uid;
  EXPECT_EQ(IOTC_ER_UNKNOWN_DEVICE, old_uid.Connect(guess, Options()));
}

TEST_F(Sessions, ABusyP2pPortLeavesTheRestOfTheHubRunning) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(p2p_port_);
  addr.sin_addr.s_addr = htonl(INADDR_ANY);
  ASSERT_EQ(0, bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)));
  ASSERT_EQ(0, listen(fd, 1));
  StartHub();
  EXPECT_EQ(1, Lines("Initialize tutk platform error: -6$"));
  EXPECT_EQ(0, Lines("Tutk listen server started"));
  EXPECT_TRUE(daemon_->Running());
  close(fd);
}

// Clearing the running flag tears the P2P libraries down and ends the process with status 0.
TEST(SessionsShutdown, ClearingRunningEndsTheProcessWithStatusZero) {
  GTEST_FLAG_SET(death_test_style, testsupport::FreshChildDeathTestStyle());
  setenv("TARVO_LOG_STDERR", "1", 1);
  setenv("TARVO_P2P_PORT", std::to_string(testsupport::FreePort()).c_str(), 1);
  EXPECT_EXIT(
      {
        auto* server = new server::MediaServer();
        if (server->StartTutk() != 0) std::exit(3);
        server->StopTutk();
        for (;;) pause();
      },
      ::testing::ExitedWithCode(0), "Tutk listen thread unexpected exit\\.\\.\\.");
}

}  // namespace
