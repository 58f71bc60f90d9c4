// Periodic supervision in this process: the timer's duty table driven tick by tick, and the
// duties against the real parts they use: the hub's MQTT client on a real broker with the cloud
// agent simulator, the board's shims and uci store, and simulated cameras connected to an
// in-process media server.
#include "housekeeping/systemctrl.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <memory>
#include <regex>
#include <string>
#include <thread>
#include <vector>

#include "camera/frame.h"
#include "camera/livechannel.h"
#include "camsim/camsim.h"
#include "cloud/cloudcmd.h"
#include "cloud/mqttclient.h"
#include "core/configuration.h"
#include "core/eventloop.h"
#include "led/hubled.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "server/mediaserver.h"
#include "support/broker.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

constexpr char kCamA[] = "0A0000000001";
constexpr char kCamB[] = "0A0000000002";
constexpr int64_t kDay = 86400;
constexpr int64_t kMidnight = 19700 * kDay;  // a local midnight

struct World {
  testsupport::LogCapture log;
  testsupport::Broker broker;
  testsupport::TempDir board;
  std::map<std::string, std::string> env;
  server::MediaServer* server = nullptr;
  std::thread loop;
};
World* g_world = nullptr;

class WorldEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_world = new World();
    World& w = *g_world;
    ASSERT_TRUE(w.broker.Start());
    testsupport::MakeBoard(w.board.path(),
                           {"--force", "--camera", std::string(kCamA) + ",127.0.0.2", "--camera",
                            std::string(kCamB) + ",127.0.0.3"});
    w.env = testsupport::HubEnv(w.board.path(), w.broker.Env());
    for (const auto& [name, value] : w.env) {
      if (name != "TARVO_LOG_STDERR") setenv(name.c_str(), value.c_str(), 1);
    }
    platform::SetRootForTest(w.board.path());
    // what the start does before supervision runs: provisioning files in /etc/zelo
    ASSERT_EQ(InitWifiConf(), 0);
    Configuration::getInstance().SetMac("02:1A:2B:3C:4D:5E");
    const size_t mark = w.log.Mark();
    InitMqtt();
    ASSERT_TRUE(w.log.Wait("Subscribed \\(mid: 3\\)", mark, 20s));
    eventloop::Loop();
    w.loop = std::thread([] { eventloop::Run(); });
    w.server = new server::MediaServer();
    ASSERT_EQ(w.server->Init(), 0);
  }
  void TearDown() override {
    eventloop::Stop();
    g_world->loop.join();
    g_world->broker.Stop();
  }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new WorldEnvironment);

std::string Board(const std::string& path) {
  return g_world->board.path() + path;
}

void SetConfig(const std::string& key, const std::string& value) {
  ASSERT_EQ(zcfg_uci_set(key.c_str(), value.c_str()), 0) << key;
}

// --- The duty table, tick by tick ---

struct Counts {
  std::map<std::string, std::vector<int>> runs;  // duty -> ticks it ran at
  int tick = 0;
  bool password_flag = false;
  int status = kStatusUnknown;
  bool provisioned = true;
  std::vector<int> leds;
};

systemctrl::Duties CountingDuties(Counts* c) {
  auto note = [c](const char* duty) { return [c, duty] { c->runs[duty].push_back(c->tick); }; };
  systemctrl::Duties d;
  d.check_net = note("net");
  d.provisioned = [c] { return c->provisioned; };
  d.connect_status = [c] { return c->status; };
  d.set_led = [c](int state) { c->leds.push_back(state); };
  d.check_sd_mount = note("sd");
  d.check_schedule = note("schedule");
  d.check_battery = note("battery");
  d.sync_time = note("time");
  d.sync_cameras = note("cameras");
  d.password_flag = [c] { return c->password_flag; };
  d.renew_password = note("password");
  return d;
}

std::vector<int> Every(int first, int period, int last) {
  std::vector<int> ticks;
  for (int t = first; t <= last; t += period) ticks.push_back(t);
  return ticks;
}

TEST(SupervisionTimer, DutiesRunOnTheirPeriodsAndNotInTheFirstTicks) {
  Counts c;
  systemctrl::Timer timer(CountingDuties(&c));
  for (c.tick = 0; c.tick <= 1440; c.tick++) {
    timer.Tick();
    if (c.tick == 5) {
      // the first minute: only the network check
      EXPECT_EQ(c.runs.size(), 1u);
      EXPECT_EQ(c.runs["net"].size(), 6u);
    }
  }
  // the tick numbered N runs after N sleeps of 10 s
  EXPECT_EQ(c.runs["sd"], Every(6, 6, 1440));
  EXPECT_EQ(c.runs["schedule"], Every(6, 6, 1440));
  EXPECT_EQ(c.runs["battery"], Every(30, 30, 1440));
  EXPECT_EQ(c.runs["time"], Every(90, 90, 1440));
  EXPECT_EQ(c.runs["cameras"], std::vector<int>{1440});
  EXPECT_EQ(c.runs["net"].size(), 1441u);
  EXPECT_EQ(c.runs.count("password"), 0u);  // never while its flag is clear
}

TEST(SupervisionTimer, PasswordRenewalCountsOnlyWhileItsFlagIsSet) {
  Counts c;
  systemctrl::Timer timer(CountingDuties(&c));
  for (c.tick = 0; c.tick < 3000; c.tick++) {
    c.password_flag = c.tick >= 100 && !(c.tick >= 1000 && c.tick < 1100);
    timer.Tick();
  }
  // 720 flagged ticks before the first renewal, then one every 720 ticks (2 h); the 100
  // unflagged ticks from 1000 pause the count
  EXPECT_EQ(c.runs["password"], (std::vector<int>{820, 1540 + 100, 2260 + 100}));
}

TEST(SupervisionTimer, LedIsSetToConnectingOnlyForAProvisionedHubOffTheCloud) {
  Counts c;
  systemctrl::Timer timer(CountingDuties(&c));
  c.status = kStatusWifiConnected;
  timer.Tick();
  c.status = kStatusCloudConnected;
  for (int i = 0; i < 50; i++) timer.Tick();
  c.status = kStatusApMode;
  c.provisioned = false;
  timer.Tick();
  EXPECT_EQ(c.leds, std::vector<int>{kLedConnecting});
}

TEST(SupervisionTimer, HubDutiesLeaveTheLedAloneWhileCloudConnected) {
  // the hub's own status, LED and provisioning file; nothing else
  systemctrl::Duties d = systemctrl::DefaultDuties();
  auto nothing = [] {};
  d.check_net = d.check_sd_mount = d.check_schedule = d.check_battery = d.sync_time =
      d.sync_cameras = d.renew_password = nothing;
  systemctrl::Timer timer(d);
  SetWifiConnectStatus(kStatusCloudConnected);
  SetupLed(kLedReady);
  for (int i = 0; i < 10; i++) timer.Tick();
  EXPECT_EQ(GetLedState(), kLedReady);
  SetWifiConnectStatus(kStatusWifiConnecting);
  timer.Tick();
  EXPECT_EQ(GetLedState(), kLedConnecting);
}

// --- The duties ---

TEST(SupervisionDuties, TimeRequestGoesToTheLocalAgentWhoseAnswerSetsTheClock) {
  cloudsim::Options options;
  options.time = 1800000000;
  auto agent = g_world->broker.StartAgent(options);
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(SyncLocalTime(), 1);
  cloudsim::Message request;
  ASSERT_TRUE(agent->WaitMessage(
      [](const cloudsim::Message& m) { return m.topic == "local/zelo_client_in"; }, &request));
  EXPECT_TRUE(std::regex_match(request.payload,
                               std::regex(R"(\{"id":[1-9][0-9]*,"method":"local\.query_time"\})")))
      << request.payload;
  EXPECT_TRUE(g_world->log.Has("Zelo_client_in msg: \\{\"id\":", mark));
  ASSERT_TRUE(g_world->log.Wait("Set system time success: 1800000000", mark));
}

class BatteryTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSupervisionState();
    agent_ = g_world->broker.StartAgent();
    SetConfig("hub_config.power.threshold", "20");
    SetConfig(std::string("p2p.") + kCamA + ".battery", "80");
    SetConfig(std::string("p2p.") + kCamB + ".battery", "15");
  }
  int LowBatteryReports() {
    testsupport::Barrier(*agent_);
    int n = 0;
    for (const auto& m : agent_->Messages()) {
      if (m.topic == "zelo/report" && m.payload.find("event.low_battery") != std::string::npos) {
        EXPECT_TRUE(std::regex_match(
            m.payload,
            std::regex(R"(\{"id":[1-9][0-9]*,"method":"event\.low_battery","params":\{\}\})")))
            << m.payload;
        n++;
      }
    }
    return n;
  }
  std::unique_ptr<cloudsim::CloudAgent> agent_;
};

TEST_F(BatteryTest, ACameraBelowTheThresholdIsReportedOnceADayAroundTen) {
  EXPECT_TRUE(CheckCameraBattery());
  const int64_t ten = kMidnight + 10 * 3600;
  EXPECT_EQ(CheckBatteryLower(ten - 601), 0);         // 09:49:59
  EXPECT_EQ(CheckBatteryLower(ten - 600), 1);         // 09:50:00
  EXPECT_EQ(CheckBatteryLower(ten + 300), 0);         // the same day
  EXPECT_EQ(CheckBatteryLower(ten + 600), 0);         // 10:10:00 is outside
  EXPECT_EQ(CheckBatteryLower(ten + kDay + 599), 1);  // the next day, 10:09:59
  EXPECT_EQ(LowBatteryReports(), 2);
  EXPECT_TRUE(g_world->log.Has("threashold: 20, true bat: 15"));
}

TEST_F(BatteryTest, NoWarningWhileEveryCameraIsAtOrAboveTheThreshold) {
  SetConfig(std::string("p2p.") + kCamB + ".battery", "20");
  EXPECT_FALSE(CheckCameraBattery());
  const size_t mark = g_world->log.Mark();
  EXPECT_EQ(CheckBatteryLower(kMidnight + 10 * 3600), 0);
  EXPECT_TRUE(g_world->log.Has("everyday 10 clock check battery", mark));
  EXPECT_EQ(LowBatteryReports(), 0);
}

TEST(SupervisionDuties, NetworkReachabilityFollowsTheUplinksOnTheBoard) {
  ResetSupervisionState();
  EXPECT_EQ(CheckNetConnect(), 1);  // eth0 is up on a new board
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(platform::System("ifconfig eth0 down"), 0);
  EXPECT_EQ(CheckNetConnect(), 0);
  EXPECT_FALSE(IsNetConnected());
  EXPECT_EQ(g_world->log.Count("Network connect changed: down", mark), 1);
  EXPECT_EQ(CheckNetConnect(), 0);  // no change, no new line
  EXPECT_EQ(g_world->log.Count("Network connect changed", mark), 1);
  // the station uplink counts as well
  std::filesystem::create_directories(Board("/sys/class/net/apcli0"));
  testsupport::WriteFile(Board("/sys/class/net/apcli0/operstate"), "up\n");
  EXPECT_EQ(CheckNetConnect(), 1);
  ASSERT_EQ(platform::System("ifconfig eth0 up"), 0);
  EXPECT_EQ(CheckNetConnect(), 1);
}

// --- Duties that reach cameras ---

class CameraDuties : public ::testing::Test {
 protected:
  void SetUp() override {
    ResetSupervisionState();
    camsim::HubEndpoint hub;
    hub.ip = "127.0.0.1";
    hub.camera_port = testsupport::EnvPort(g_world->env, "TARVO_CAMERA_PORT");
    hub.pairing_port = testsupport::EnvPort(g_world->env, "TARVO_PAIRING_PORT");
    hub.wake_port = testsupport::EnvPort(g_world->env, "TARVO_WAKE_PORT");
    // the hub has taken both new connections (the last test's cameras may still look connected)
    const size_t mark = g_world->log.Mark();
    int n = 2;
    for (const char* mac : {kCamA, kCamB}) {
      camsim::CameraConfig config;
      config.mac = mac;
      config.ip = "127.0.0." + std::to_string(n++);
      auto camera = std::make_unique<camsim::Camera>(config, hub);
      std::string error;
      ASSERT_EQ(camera->Start(&error), 0) << error;
      ASSERT_EQ(camera->Connect(&error), 0) << error;
      cameras_.push_back(std::move(camera));
    }
    ASSERT_TRUE(WaitFor([mark] { return g_world->log.Count("init connect sockfd", mark) >= 2; }));
    SetConfig(std::string("p2p.") + kCamA + ".power", "1");
  }
  void TearDown() override {
    for (auto& camera : cameras_) camera->Stop();
  }
  int Pir(size_t i) {
    return cameras_[i]->GetStats().Count(command::kTypePir, command::kSubPirNew);
  }
  camsim::Camera& camera(size_t i) { return *cameras_[i]; }

  std::vector<std::unique_ptr<camsim::Camera>> cameras_;
};

TEST_F(CameraDuties, MotionDetectionFollowsTheScheduleAtItsEdges) {
  // camera A 08:00..18:30; camera B all day
  SetConfig(std::string("p2p.") + kCamA + ".starthour", "8");
  SetConfig(std::string("p2p.") + kCamA + ".startmin", "0");
  SetConfig(std::string("p2p.") + kCamA + ".stophour", "18");
  SetConfig(std::string("p2p.") + kCamA + ".stopmin", "30");
  const int64_t day = kMidnight;
  EXPECT_EQ(CheckScheduleFunc(day + 7 * 3600 + 59 * 60), 0);  // first look: only noted
  EXPECT_EQ(CheckScheduleFunc(day + 8 * 3600), 1);
  ASSERT_TRUE(camera(0).WaitUntil([](const camsim::Stats& s) { return s.pir == 1; }));
  EXPECT_EQ(CheckScheduleFunc(day + 12 * 3600), 0);
  EXPECT_EQ(CheckScheduleFunc(day + 18 * 3600 + 30 * 60), 1);
  ASSERT_TRUE(camera(0).WaitUntil([](const camsim::Stats& s) { return s.pir == 0; }));
  EXPECT_EQ(Pir(0), 2);
  EXPECT_EQ(Pir(1), 0);  // all day: never an edge

  // switched off by the user: leaves its schedule at once
  SetConfig(std::string("p2p.") + kCamB + ".power", "0");
  EXPECT_EQ(CheckScheduleFunc(day + kDay + 9 * 3600), 2);  // A enters, B leaves
  ASSERT_TRUE(camera(1).WaitUntil([](const camsim::Stats& s) { return s.pir == 0; }));
  ASSERT_TRUE(camera(0).WaitUntil([](const camsim::Stats& s) { return s.pir == 1; }));
  SetConfig(std::string("p2p.") + kCamB + ".power", "1");
}

TEST_F(CameraDuties, CameraInformationIsAskedOfEveryConnectedCamera) {
  EXPECT_EQ(SyncCameraListInfo(), 2);
  for (size_t i = 0; i < 2; i++) {
    ASSERT_TRUE(camera(i).WaitUntil(
        [](const camsim::Stats& s) { return s.Count(command::kTypeProp, 0) >= 1; }));
  }
  // a camera whose link dropped is still one of the hub's: its query waits for its return
  const size_t mark = g_world->log.Mark();
  camera(1).Disconnect();
  ASSERT_TRUE(g_world->log.Wait("Camera " + std::string(kCamB) + " closed its connection", mark));
  EXPECT_EQ(SyncCameraListInfo(), 2);
  EXPECT_EQ(g_world->server->FindLiveChannel(kCamB)->QueuedCommands(), 1u);
  std::string error;
  ASSERT_EQ(camera(1).Connect(&error), 0) << error;
  ASSERT_TRUE(camera(1).WaitUntil(
      [](const camsim::Stats& s) { return s.Count(command::kTypeProp, 0) >= 2; }));
}

}  // namespace
