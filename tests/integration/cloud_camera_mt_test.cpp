// Cloud commands that reach a camera, through the real daemon on a board: a broker started by
// the test, the cloud agent simulator, and a scripted camera on its own loopback address that
// speaks the wire frame and answers property queries, night mode and reset.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "camera/frame.h"
#include "cloudsim/cloudsim.h"
#include "support/broker.h"
#include "support/testsupport.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

constexpr char kCamA[] = "0A00000000A1";
constexpr char kCamAIp[] = "127.0.0.61";
constexpr char kCamB[] = "0A00000000B2";  // paired, never connects

// A camera that logs in and answers what the hub asks, on a real TCP connection.
class ScriptedCamera {
 public:
  ScriptedCamera(std::string mac, std::string ip) : mac_(std::move(mac)), ip_(std::move(ip)) {
    command::AddressFromText(mac_, addr_);
  }
  ~ScriptedCamera() {
    stop_.store(true);
    if (reader_.joinable()) reader_.join();
    if (fd_ >= 0) close(fd_);
  }

  std::atomic<bool> answer_prop{true};
  std::atomic<bool> answer_twice{false};
  std::atomic<int> night_result{1};

  bool Connect(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in local{};
    local.sin_family = AF_INET;
    inet_pton(AF_INET, ip_.c_str(), &local.sin_addr);
    sockaddr_in hub{};
    hub.sin_family = AF_INET;
    hub.sin_port = htons(port);
    inet_pton(AF_INET, "127.0.0.1", &hub.sin_addr);
    if (fd_ < 0 || bind(fd_, reinterpret_cast<sockaddr*>(&local), sizeof(local)) != 0 ||
        connect(fd_, reinterpret_cast<sockaddr*>(&hub), sizeof(hub)) != 0) {
      return false;
    }
    reader_ = std::thread(&ScriptedCamera::Read, this);
    return true;
  }

  void Login() {
    _net_cmd_login_type login;
    login.hard_ver = 0x100;
    login.soft_ver = 0x203;
    uint8_t payload[_net_cmd_login_type::kWireSize];
    login.Encode(payload);
    static const uint8_t kZero[6] = {0};
    Send(kZero, command::kTypeLogin, 0, payload, sizeof(payload));
  }

  // Frames received from the hub so far with this type and subtype.
  int Received(uint8_t type, uint8_t subtype) {
    std::lock_guard<std::mutex> lock(mutex_);
    int n = 0;
    for (const auto& f : frames_) n += (f.first == type && f.second == subtype) ? 1 : 0;
    return n;
  }
  int night() const { return night_.load(); }

 private:
  void Send(const uint8_t dst[6], uint8_t type, uint8_t subtype, const uint8_t* payload, size_t n) {
    command::FrameFields fields;
    fields.src = addr_;
    fields.dst = dst;
    fields.type = type;
    fields.subtype = subtype;
    std::vector<uint8_t> frame(n + command::kFrameOverhead);
    int size = command::BuildFrame(frame.data(), frame.size(), fields, payload, n);
    std::lock_guard<std::mutex> lock(send_mutex_);
    if (size > 0) (void)!write(fd_, frame.data(), static_cast<size_t>(size));
  }

  void Answer(const _net_cmd_type* frame) {
    const uint8_t* reply_to = frame->src_addr;
    if (frame->type == command::kTypeWake) {
      Login();
    } else if (frame->type == command::kTypeProp && answer_prop.load()) {
      _net_cmd_get_info_type info;
      std::memcpy(info.mac, addr_, 6);
      info.hard_ver = 0x100;
      info.soft_ver = 0x203;
      info.battery_status = 1;
      info.pir = 1;
      info.power = 1;
      info.night = static_cast<uint8_t>(night_.load());
      info.vbat = 4019;
      info.rssi = -40;
      uint8_t payload[_net_cmd_get_info_type::kWireSize];
      info.Encode(payload);
      Send(reply_to, command::kTypeProp, 0, payload, sizeof(payload));
      if (answer_twice.load()) Send(reply_to, command::kTypeProp, 0, payload, sizeof(payload));
    } else if (frame->type == command::kTypeSetting && frame->subtype == command::kSubNight) {
      const uint8_t ack[3] = {command::kTypeSetting, command::kSubNight,
                              static_cast<uint8_t>(night_result.load())};
      if (night_result.load() == 1) night_.store(frame->Payload()[0]);
      Send(reply_to, command::kTypeAck, 0, ack, sizeof(ack));
    } else if (frame->type == command::kTypeSetting && frame->subtype == command::kSubReset) {
      const uint8_t ack[3] = {command::kTypeSetting, command::kSubReset, 1};
      Send(reply_to, command::kTypeAck, 0, ack, sizeof(ack));
    }
  }

  void Read() {
    std::vector<uint8_t> buf;
    uint8_t chunk[4096];
    while (!stop_.load()) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 50) <= 0) continue;
      ssize_t n = recv(fd_, chunk, sizeof(chunk), 0);
      if (n <= 0) return;
      buf.insert(buf.end(), chunk, chunk + n);
      while (buf.size() >= command::kFrameOverhead) {
        int check = command::CheckCommand(buf.data(), static_cast<uint16_t>(buf.size()));
        if (check < 0) {
          buf.clear();
          break;
        }
        if (check == 0) break;
        const _net_cmd_type* frame = command::AsFrame(buf.data());
        size_t size = frame->FrameSize();
        {
          std::lock_guard<std::mutex> lock(mutex_);
          frames_.emplace_back(frame->type, frame->subtype);
        }
        Answer(frame);
        buf.erase(buf.begin(), buf.begin() + static_cast<long>(size));
      }
    }
  }

  const std::string mac_;
  const std::string ip_;
  uint8_t addr_[6] = {0};
  int fd_ = -1;
  std::atomic<bool> stop_{false};
  std::atomic<int> night_{0};
  std::thread reader_;
  std::mutex send_mutex_;
  std::mutex mutex_;
  std::vector<std::pair<uint8_t, uint8_t>> frames_;
};

class CloudCamera : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(broker_.Start());
    testsupport::MakeBoard(board_.path(), {"--force", "--camera",
                                           std::string(kCamA) + "," + kCamAIp, "--camera", kCamB});
    const auto env = testsupport::HubEnv(board_.path(), broker_.Env());
    camera_port_ = testsupport::EnvPort(env, "TARVO_CAMERA_PORT");
    ASSERT_TRUE(testsupport::StartHub(env, &daemon_));
    agent_ = broker_.StartAgent();
  }

  void ConnectCamera(ScriptedCamera& camera) {
    ASSERT_TRUE(camera.Connect(camera_port_));
    ASSERT_NE("", daemon_->WaitForLine("init connect sockfd", 10s));
    camera.Login();
  }

  std::string Reply(int id) {
    std::string reply;
    EXPECT_TRUE(agent_->WaitReply(id, &reply)) << "no reply to " << id;
    return reply;
  }

  void Barrier() { testsupport::Barrier(*agent_); }
  int RepliesTo(int id) { return testsupport::RepliesTo(*agent_, id); }

  std::string Board(const std::string& path) { return board_.path() + path; }

  testsupport::Broker broker_;
  testsupport::TempDir board_;
  uint16_t camera_port_ = 0;
  std::unique_ptr<testsupport::Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
};

TEST_F(CloudCamera, PropertyRequestIsAnsweredOnceWithTheCamerasValues) {
  ScriptedCamera camera(kCamA, kCamAIp);
  camera.answer_twice.store(true);
  ConnectCamera(camera);
  int id = agent_->SendCommand("get_camera_prop", std::string("[\"") + kCamA + "\"]");
  std::string reply = Reply(id);
  EXPECT_EQ("{\"id\":" + std::to_string(id) + ",\"result\":{\"mac\":\"" + kCamA +
                "\",\"name\":\"Tarvo Camera\",\"battery\":100,\"battery_status\":1,\"wifi\":1,"
                "\"pir\":1,\"version\":\"203\",\"hardver\":\"100\",\"power\":1,\"night\":0,"
                "\"event\":\"motion\"}}",
            reply);
  // The camera answered twice; the second answer finds nobody waiting.
  ASSERT_TRUE(daemon_->WaitForLines("ACK ID: " + std::to_string(id), 2));
  Barrier();
  EXPECT_EQ(1, RepliesTo(id));
}

TEST_F(CloudCamera, NightModeIsAnsweredWhenTheCameraAcknowledges) {
  ScriptedCamera camera(kCamA, kCamAIp);
  ConnectCamera(camera);
  int id = agent_->SendCommand("set_night_mode", std::string("[\"") + kCamA + "\",2]");
  EXPECT_EQ("{\"id\":" + std::to_string(id) + ",\"result\":[\"ok\"]}", Reply(id));
  EXPECT_EQ(2, camera.night());
  EXPECT_NE(std::string::npos,
            testsupport::ReadFile(Board("/etc/config/p2p")).find("option night '2'"));

  // A refusal by the camera is logged and not answered.
  camera.night_result.store(0);
  int refused = agent_->SendCommand("set_night_mode", std::string("[\"") + kCamA + "\",1]");
  ASSERT_NE("", daemon_->WaitForLine("refused night mode, request " + std::to_string(refused)));
  // Bad requests never reach the camera.
  std::vector<int> bad;
  for (const std::string& params :
       {std::string("[\"") + kCamA + "\"]", std::string("[\"") + kCamA + "\",\"1\"]",
        std::string("[\"") + kCamA + "\",256]", std::string("[\"112233445566\",1]"),
        std::string("[\"") + kCamA + "'\",1]"}) {
    bad.push_back(agent_->SendCommand("set_night_mode", params));
  }
  Barrier();
  EXPECT_EQ(0, RepliesTo(refused));
  for (int b : bad) EXPECT_EQ(0, RepliesTo(b));
  EXPECT_EQ(2, camera.Received(command::kTypeSetting, command::kSubNight));
  EXPECT_TRUE(daemon_->HasLine("Set camera night params length not equal 1"));
  EXPECT_TRUE(daemon_->HasLine("Msg Out of Range error: "));
}

TEST_F(CloudCamera, SilentOrAbsentCameraGetsNoReply) {
  ScriptedCamera camera(kCamA, kCamAIp);
  camera.answer_prop.store(false);
  ConnectCamera(camera);
  int silent = agent_->SendCommand("get_camera_prop", std::string("\"") + kCamA + "\"");
  ASSERT_TRUE(WaitFor([&] { return camera.Received(command::kTypeProp, 0) >= 1; }));
  int absent = agent_->SendCommand("get_camera_prop", std::string("[\"") + kCamB + "\"]");
  ASSERT_NE("", daemon_->WaitForLine("camera not reachable, request " + std::to_string(absent)));
  Barrier();
  EXPECT_EQ(0, RepliesTo(silent));
  EXPECT_EQ(0, RepliesTo(absent));
  EXPECT_TRUE(daemon_->Running());
}

TEST_F(CloudCamera, DeleteUnbindsTheCameraAndRepliesWhenDone) {
  ScriptedCamera camera(kCamA, kCamAIp);
  ConnectCamera(camera);
  const std::string stations_before = testsupport::ReadFile(Board("/sys/hub/ap_disconnect"));
  int bad = agent_->SendCommand("delete_camera", "[\"112233445566\"]");
  int id = agent_->SendCommand("delete_camera", std::string("[\"") + kCamA + "\"]");
  EXPECT_EQ("{\"id\":" + std::to_string(id) + ",\"result\":[\"ok\"]}", Reply(id));
  EXPECT_EQ(0, RepliesTo(bad));
  EXPECT_EQ(1, camera.Received(command::kTypeSetting, command::kSubReset));
  EXPECT_EQ(std::string::npos, testsupport::ReadFile(Board("/etc/config/p2p")).find(kCamA));
  EXPECT_EQ(stations_before + kCamA + "\n", testsupport::ReadFile(Board("/sys/hub/ap_disconnect")));
  // The channel has left the registry, and the list has one camera left.
  agent_->SendCommand("get_camera_prop", std::string("[\"") + kCamA + "\"]");
  ASSERT_NE("", daemon_->WaitForLine("Msg Out of Range error: "));
  std::string list = Reply(agent_->SendCommand("get_camera_list", ""));
  EXPECT_EQ(std::string::npos, list.find(kCamA));
  EXPECT_NE(std::string::npos, list.find(kCamB));
}

TEST_F(CloudCamera, PairingCommandOpensPairingModeOnce) {
  int first = agent_->SendCommand("let_connect_gateway", "");
  EXPECT_EQ("{\"id\":" + std::to_string(first) + ",\"result\":[\"ok\"]}", Reply(first));
  ASSERT_NE("", daemon_->WaitForLine("not in auth, start auth tcp server"));
  int second = agent_->SendCommand("let_connect_gateway", "");
  EXPECT_EQ("{\"id\":" + std::to_string(second) + ",\"result\":[\"ok\"]}", Reply(second));
  EXPECT_NE("", daemon_->WaitForLine("Is in auth, stop new auth command"));
  EXPECT_EQ(1, daemon_->CountLines("not in auth, start auth tcp server"));
}

TEST_F(CloudCamera, ServiceFaultMinus90EndsTheDaemonForARestart) {
  agent_->SendCommand("zeLO.event", "{\"code\":-90,\"ts\":1700000000}");
  ASSERT_NE("", daemon_->WaitForLine("TUTK bug: -90, exit"));
  int status = daemon_->Wait(10s);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(255, WEXITSTATUS(status));
}

}  // namespace
