// The camera link end to end: the real daemon on a board (TARVO_HUB_IP 127.0.0.1, free ports),
// a real broker with the cloud agent simulator sending the cloud's camera commands, and
// simulated cameras (the camsim library) on their own loopback addresses, told apart by the
// hub through the board's ARP table. Cameras pair, connect and log in; commands go out at once
// while a camera is awake and wait for the wake while it sleeps; camera events reach the hub.
// The link's finer cases (UDP wakes, reconnects, unknown cameras, re-pairing, bad input) are
// the camera link integration tests'.
#include <gtest/gtest.h>

#include <chrono>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "camera/frame.h"
#include "camsim/camsim.h"
#include "camsim/camsimarp.h"
#include "cloudsim/cloudsim.h"
#include "support/broker.h"
#include "support/hubcamera.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

// The hub takes a camera as asleep after 3 seconds without a frame (whole seconds of uptime).
constexpr auto kAsleepForTheHub = 3500ms;

class CameraDaemon : public ::testing::Test {
 protected:
  // cameras: "MAC,IP" of cameras paired before the hub starts.
  void Start(const std::vector<std::string>& cameras = {}) {
    ASSERT_TRUE(broker_.Start());
    std::vector<std::string> options = {"--force"};
    for (const auto& c : cameras) {
      options.push_back("--camera");
      options.push_back(c);
    }
    testsupport::MakeBoard(board_.path(), options);
    env_ = testsupport::HubEnv(board_.path(), broker_.Env());
    hub_ = testsupport::CameraEndpoint(env_);
    ASSERT_TRUE(testsupport::StartHub(env_, &daemon_));
    agent_ = broker_.StartAgent();
  }

  void TearDown() override {
    for (auto& c : cameras_) c->Stop();
    if (HasFailure() && daemon_ != nullptr) {
      daemon_->PrintLines("hub: ");
      camera_log_.Print();
    }
  }

  // A started camera with its ARP line.
  camsim::Camera& NewCamera(const std::string& mac, const std::string& ip,
                            camsim::Behaviour behaviour = camsim::Behaviour(), int soft_ver = 203) {
    camsim::CameraConfig config;
    config.mac = mac;
    config.ip = ip;
    config.soft_ver = soft_ver;
    config.expect_ssid = "tarvo-cam-ap";  // the board's camera network
    config.expect_key = "tarvo-cam-secret";
    std::string error;
    EXPECT_EQ(0, camsim::SetArpEntry(board_.path(), ip, mac, &error)) << error;
    cameras_.push_back(std::make_unique<camsim::Camera>(config, hub_, behaviour));
    camsim::Camera& camera = *cameras_.back();
    camera.SetLogger(camera_log_.Logger());
    EXPECT_EQ(0, camera.Start(&error)) << error;
    return camera;
  }

  void Connect(camsim::Camera& camera) {
    std::string error;
    ASSERT_EQ(0, camera.Connect(&error)) << error;
    ASSERT_TRUE(WaitLines("Camera " + camera.mac() + " login hardver: ", 1));
  }

  void Pair(camsim::Camera& camera) {
    const int id = agent_->SendCommand("let_connect_gateway", "");
    EXPECT_EQ("{\"id\":" + std::to_string(id) + ",\"result\":[\"ok\"]}", Reply(id));
    std::string error;
    ASSERT_EQ(0, camera.Pair(&error)) << error;
    // pairing mode is over once the pairing thread has left
    ASSERT_TRUE(WaitLines("exit auth thread", ++pairings_, 20s));
  }

  std::string Reply(int id) {
    std::string reply;
    EXPECT_TRUE(agent_->WaitReply(id, &reply, 20s)) << "no reply to " << id;
    return reply;
  }

  int Lines(const std::string& pattern) { return daemon_->CountLines(pattern); }
  bool WaitLines(const std::string& pattern, int count, std::chrono::milliseconds timeout = 10s) {
    return daemon_->WaitForLines(pattern, count, timeout);
  }

  // Waits until the hub counts the camera as asleep.
  void AsleepForTheHub(camsim::Camera& camera) {
    ASSERT_EQ(0, camera.Sleep());
    ASSERT_TRUE(camera.WaitUntil(
        [](const camsim::Stats& s) { return s.SinceLastFrame() >= kAsleepForTheHub; }, 10s));
  }

  std::string Board(const std::string& path) { return board_.path() + path; }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  camsim::HubEndpoint hub_;
  testsupport::CameraLog camera_log_;
  std::map<std::string, std::string> env_;
  std::unique_ptr<testsupport::Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
  std::vector<std::unique_ptr<camsim::Camera>> cameras_;
  int pairings_ = 0;
};

TEST_F(CameraDaemon, CamerasOnTheirOwnAddressesPairConnectAndLogIn) {
  Start();
  camsim::Camera& a = NewCamera("0A00000000A1", "127.0.0.101");
  camsim::Camera& b = NewCamera("0A00000000B2", "127.0.0.102", camsim::Behaviour(), 305);

  // one camera per period of pairing mode
  Pair(a);
  EXPECT_EQ(1, Lines("auth camera mac: 0A00000000A1$"));
  Pair(b);
  EXPECT_EQ(1, Lines("auth camera mac: 0A00000000B2$"));
  EXPECT_EQ(2, Lines("It's a new camera sync to hub"));
  for (camsim::Camera* c : {&a, &b}) {
    const camsim::Stats s = c->GetStats();
    EXPECT_EQ(1, s.pairings);
    EXPECT_EQ("tarvo-cam-ap", s.ssid);
  }
  const std::string p2p = testsupport::ReadFile(Board("/etc/config/p2p"));
  EXPECT_NE(std::string::npos, p2p.find("config p2p '0A00000000A1'"));
  EXPECT_NE(std::string::npos, p2p.find("config p2p '0A00000000B2'"));

  Connect(a);
  Connect(b);
  EXPECT_EQ(1, Lines("has tcp client ip: 127.0.0.101, mac: \\*0A00000000A1\\*"));
  EXPECT_EQ(1, Lines("has tcp client ip: 127.0.0.102, mac: \\*0A00000000B2\\*"));
  EXPECT_EQ(2, Lines("Recv camera login 1\\.\\.\\."));
  EXPECT_EQ(1, Lines("Camera 0A00000000B2 login hardver: 100, version: 305$"));

  // each camera answers for itself
  for (camsim::Camera* c : {&a, &b}) {
    const int id = agent_->SendCommand("get_camera_prop", "[\"" + c->mac() + "\"]");
    const std::string reply = Reply(id);
    EXPECT_NE(std::string::npos, reply.find("\"mac\":\"" + c->mac() + "\"")) << reply;
    EXPECT_NE(std::string::npos,
              reply.find(c == &b ? "\"version\":\"305\"" : "\"version\":\"203\""))
        << reply;
    EXPECT_EQ(1, c->GetStats().Count(command::kTypeProp, 0));
  }
  const std::string list = Reply(agent_->SendCommand("get_camera_list", ""));
  EXPECT_NE(std::string::npos, list.find("0A00000000A1"));
  EXPECT_NE(std::string::npos, list.find("0A00000000B2"));
}

TEST_F(CameraDaemon, CommandsGoOutAtOnceWhileAwakeAndWaitForTheTcpWakeWhileAsleep) {
  Start({"0A00000000C3,127.0.0.103"});
  camsim::Behaviour behaviour;
  behaviour.heartbeat = 200ms;
  camsim::Camera& cam = NewCamera("0A00000000C3", "127.0.0.103", behaviour);
  Connect(cam);

  // awake: sent at once, no wake
  int id = agent_->SendCommand("set_night_mode", "[\"0A00000000C3\",2]");
  EXPECT_EQ("{\"id\":" + std::to_string(id) + ",\"result\":[\"ok\"]}", Reply(id));
  EXPECT_EQ(2, cam.GetStats().night);
  EXPECT_EQ(0, Lines("send tcp wake package"));
  EXPECT_EQ(0, cam.GetStats().wake_frames);

  // asleep: heartbeats only; the hub keeps two commands and wakes the camera
  AsleepForTheHub(cam);
  ASSERT_TRUE(WaitLines("recv 0A00000000C3 heartbeat len: 1", 3));
  const int night = agent_->SendCommand("set_night_mode", "[\"0A00000000C3\",1]");
  const int prop = agent_->SendCommand("get_camera_prop", "[\"0A00000000C3\"]");
  EXPECT_EQ("{\"id\":" + std::to_string(night) + ",\"result\":[\"ok\"]}", Reply(night));
  EXPECT_NE(std::string::npos, Reply(prop).find("\"night\":1"));
  // the login after the heartbeats reached the hub whole and the queue was replayed
  ASSERT_TRUE(WaitLines("command vector have [12] command", 1));
  EXPECT_GE(Lines("send tcp wake package\\.\\.\\. [0-9]+"), 1);
  EXPECT_EQ(1, Lines("Recv camera login 2\\.\\.\\."));
  EXPECT_EQ(0, Lines("Discard [0-9]+ received bytes"));
  const camsim::Stats s = cam.GetStats();
  EXPECT_EQ(1, s.wakes_tcp);
  EXPECT_EQ(0, s.commands_asleep);  // nothing but the wake reached the sleeping camera
  EXPECT_EQ(2, s.Count(command::kTypeSetting, command::kSubNight));
  EXPECT_EQ(1, s.night);
}

TEST_F(CameraDaemon, MotionAndBatteryEventsReachTheHub) {
  Start({"0A00000000BA,127.0.0.110"});
  camsim::Behaviour behaviour;
  behaviour.pir_stream = 2s;
  camsim::Camera& cam = NewCamera("0A00000000BA", "127.0.0.110", behaviour);
  Connect(cam);
  ASSERT_EQ(0, cam.RaisePir());
  ASSERT_TRUE(WaitLines("(Motion event of camera |Found a PIR event camera: )0A00000000BA", 1));
  ASSERT_TRUE(cam.WaitUntil([](const camsim::Stats& s) { return s.streams == 1 && !s.streaming; }));
  EXPECT_GE(cam.GetStats().video_frames, 1);

  ASSERT_EQ(0, cam.RaiseBattery(3650));
  ASSERT_TRUE(WaitLines("Camera 0A00000000BA battery event, vbat: 3650, ", 1));
  EXPECT_EQ(0, Lines("bat event len is error"));
  EXPECT_EQ(0, Lines("Discard [0-9]+ received bytes"));
}

}  // namespace
