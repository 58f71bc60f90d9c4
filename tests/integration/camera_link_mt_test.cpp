// The camera link over real sockets: an in-process media server on 127.0.0.1 with its event
// loop, and scripted cameras on their own loopback addresses (127.0.0.N, told apart through the
// board's ARP table) that speak the wire frame. Pairing, connecting, logging in, commands while
// awake and asleep, TCP and UDP wakes, reconnects, unknown cameras, re-pairing and bad input.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <thread>
#include <vector>

#include "camera/cloudrequest.h"
#include "camera/command.h"
#include "camera/frame.h"
#include "camera/livechannel.h"
#include "core/configuration.h"
#include "core/eventloop.h"
#include "platform/board.h"
#include "platform/boardmaker.h"
#include "platform/uci.h"
#include "server/mediaserver.h"
#include "server/pairing.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

namespace {

using Bytes = std::vector<uint8_t>;
using std::chrono::milliseconds;
using std::chrono::seconds;
using testsupport::WaitFor;

const char kHubMac[] = "021A2B3C4D5E";
const uint8_t kHubAddr[6] = {0x02, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
const uint8_t kZero[6] = {0};

// Cameras of the board: A and B paired, N new (in the ARP table only), U unknown.
const char kCamA[] = "0A0000000001";
const char kCamB[] = "0A0000000002";
const char kCamN[] = "0A0000000004";
const char kCamBad[] = "0A0000000005";
const char kCamU[] = "0A00000000FF";

struct World {
  testsupport::TempDir board;
  uint16_t camera_port = 0;
  uint16_t pairing_port = 0;
  uint16_t wake_port = 0;
  server::MediaServer* server = nullptr;
  std::thread loop;
  testsupport::LogCapture log;
};
World* g_world = nullptr;

std::string ColonMac(const std::string& mac) {
  std::string out;
  for (size_t i = 0; i < 12; i += 2) {
    if (i > 0) out += ':';
    out += mac.substr(i, 2);
  }
  return out;
}

void AddArp(const std::string& root, const std::string& ip, const std::string& mac) {
  char line[160];
  std::snprintf(line, sizeof(line), "%-16s 0x%-10x0x%-10x%-17s     %-8s %s\n", ip.c_str(), 1, 2,
                ColonMac(mac).c_str(), "*", "ra1");
  std::ofstream(root + "/proc/net/arp", std::ios::app) << line;
}

class WorldEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_world = new World();
    World& w = *g_world;
    platform::BoardOptions layout;
    layout.mac = kHubMac;
    layout.cameras = {{kCamA, "127.0.0.2"}, {kCamB, "127.0.0.3"}};
    layout.shim = testsupport::BinPath("tarvo-shim");
    layout.force = true;
    std::string error;
    ASSERT_EQ(platform::MakeBoardRoot(w.board.path(), layout, &error), 0) << error;
    testsupport::RunShimsUnderEmulator(w.board.path());
    AddArp(w.board.path(), "127.0.0.4", kCamN);
    AddArp(w.board.path(), "127.0.0.5", kCamBad);
    AddArp(w.board.path(), "127.0.0.9", kCamU);
    const auto env = testsupport::HubEnv(w.board.path());
    w.camera_port = testsupport::EnvPort(env, "TARVO_CAMERA_PORT");
    w.pairing_port = testsupport::EnvPort(env, "TARVO_PAIRING_PORT");
    w.wake_port = testsupport::EnvPort(env, "TARVO_WAKE_PORT");
    // The log goes to the capture sink, not to standard error.
    for (const auto& [name, value] : env) {
      if (name != "TARVO_LOG_STDERR") setenv(name.c_str(), value.c_str(), 1);
    }
    Configuration::getInstance().SetMac(ColonMac(kHubMac));
    eventloop::Loop();
    w.loop = std::thread([] { eventloop::Run(); });
    w.server = new server::MediaServer();
    ASSERT_EQ(w.server->Init(), 0);
  }
  void TearDown() override {
    eventloop::Stop();
    g_world->loop.join();
  }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new WorldEnvironment);

std::string Config(const std::string& key) {
  char value[128] = {0};
  if (zcfg_uci_get(key.c_str(), value, sizeof(value)) < 0) return "";
  return value;
}

std::string Operstate(const std::string& ifname) {
  return testsupport::ReadFile(g_world->board.path() + "/sys/class/net/" + ifname + "/operstate");
}

Bytes MakeFrame(const uint8_t* src, const uint8_t* dst, uint8_t type, uint8_t subtype,
                const Bytes& payload, uint16_t seq = 0) {
  command::FrameFields f;
  f.src = src;
  f.dst = dst;
  f.type = type;
  f.subtype = subtype;
  f.seq = seq;
  Bytes out(payload.size() + 34);
  command::BuildFrame(out.data(), out.size(), f, payload.data(), payload.size());
  return out;
}

// A camera scripted by the test: its TCP connection to the hub, its UDP wake socket, and a
// pairing exchange, all from its own loopback address.
class Cam {
 public:
  Cam(std::string mac, std::string ip) : mac_(std::move(mac)), ip_(std::move(ip)) {
    command::AddressFromText(mac_, addr_);
  }
  ~Cam() {
    Close();
    if (udp_ >= 0) close(udp_);
  }
  const uint8_t* addr() const { return addr_; }

  int Dial(uint16_t port) const {
    const int fd = socket(AF_INET, SOCK_STREAM, 0);
    struct sockaddr_in local = Address(ip_, 0);
    struct sockaddr_in hub = Address("127.0.0.1", port);
    if (bind(fd, reinterpret_cast<sockaddr*>(&local), sizeof(local)) < 0 ||
        connect(fd, reinterpret_cast<sockaddr*>(&hub), sizeof(hub)) < 0) {
      close(fd);
      return -1;
    }
    return fd;
  }
  // Connects to the camera listener; the previous connection, if any, is kept in old().
  bool Connect() {
    if (old_ >= 0) close(old_);
    old_ = tcp_;
    rx_.clear();
    tcp_ = Dial(g_world->camera_port);
    return tcp_ >= 0;
  }
  void Close() {
    if (tcp_ >= 0) close(tcp_);
    if (old_ >= 0) close(old_);
    tcp_ = old_ = -1;
  }
  int old() const { return old_; }

  bool Send(const Bytes& bytes) const {
    return send(tcp_, bytes.data(), bytes.size(), MSG_NOSIGNAL) ==
           static_cast<ssize_t>(bytes.size());
  }
  void Login(uint32_t hard, uint32_t soft, const uint8_t* dst = kZero) const {
    _net_cmd_login_type login;
    login.hard_ver = hard;
    login.soft_ver = soft;
    Bytes payload(8);
    login.Encode(payload.data());
    Send(MakeFrame(addr_, dst, 0xF1, 0, payload));
  }
  Bytes Info(uint32_t soft) const {
    _net_cmd_get_info_type info;
    std::memcpy(info.mac, addr_, 6);
    info.hard_ver = 0x123;
    info.soft_ver = soft;
    info.pir = 1;
    info.power = 1;
    info.vbat = 3900;
    info.rssi = -60;
    Bytes out(34);
    info.Encode(out.data());
    return out;
  }

  // The next whole frame from the hub, or empty when none comes in time.
  Bytes Read(milliseconds timeout = seconds(10)) { return ReadFrom(tcp_, &rx_, timeout); }
  // Whether the connection ends (nothing but the end arrives) within the time-out.
  static bool Ends(int fd, milliseconds timeout = seconds(10)) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(timeout.count())) != 1) return false;
    char byte;
    return recv(fd, &byte, 1, 0) == 0;
  }
  bool Ends(milliseconds timeout = seconds(10)) const { return Ends(tcp_, timeout); }

  bool OpenUdp() {
    udp_ = socket(AF_INET, SOCK_DGRAM, 0);
    struct sockaddr_in local = Address(ip_, g_world->wake_port);
    return bind(udp_, reinterpret_cast<sockaddr*>(&local), sizeof(local)) == 0;
  }
  // The next wake datagram: true when it is the 34-byte wake frame to this camera.
  bool UdpWake(milliseconds timeout = seconds(10)) {
    struct pollfd p = {udp_, POLLIN, 0};
    if (poll(&p, 1, static_cast<int>(timeout.count())) != 1) return false;
    uint8_t buf[128];
    const ssize_t n = recv(udp_, buf, sizeof(buf), 0);
    return n == 34 && command::CheckCommand(buf, 34) == 1 && buf[28] == 0xF0 &&
           std::memcmp(buf + 8, addr_, 6) == 0 && std::memcmp(buf + 2, kHubAddr, 6) == 0;
  }
  void DrainUdp() {
    uint8_t buf[128];
    while (recv(udp_, buf, sizeof(buf), MSG_DONTWAIT) > 0) {
    }
  }

  // Pairing: connects to the pairing server (retrying while it starts), sends the bytes and
  // returns the connection.
  int PairingConnection() const {
    int fd = -1;
    WaitFor([&] { return (fd = Dial(g_world->pairing_port)) >= 0; });
    return fd;
  }
  Bytes PairingRequest(uint16_t seq) const {
    return MakeFrame(addr_, kZero, 0x8B, 0, Info(0x200), seq);
  }
  static Bytes ReadFrom(int fd, Bytes* rx, milliseconds timeout) {
    const auto deadline = std::chrono::steady_clock::now() + timeout;
    while (true) {
      if (rx->size() >= 34) {
        const int check = command::CheckCommand(rx->data(), static_cast<uint16_t>(rx->size()));
        if (check == 1) {
          const size_t size = command::AsFrame(rx->data())->FrameSize();
          Bytes frame(rx->begin(), rx->begin() + size);
          rx->erase(rx->begin(), rx->begin() + size);
          return frame;
        }
        if (check < 0) return {};
      }
      const auto left =
          std::chrono::duration_cast<milliseconds>(deadline - std::chrono::steady_clock::now());
      if (left.count() <= 0) return {};
      struct pollfd p = {fd, POLLIN, 0};
      if (poll(&p, 1, static_cast<int>(left.count())) != 1) return {};
      uint8_t buf[4096];
      const ssize_t n = recv(fd, buf, sizeof(buf), 0);
      if (n <= 0) return {};
      rx->insert(rx->end(), buf, buf + n);
    }
  }

 private:
  static struct sockaddr_in Address(const std::string& ip, uint16_t port) {
    struct sockaddr_in a;
    std::memset(&a, 0, sizeof(a));
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    inet_pton(AF_INET, ip.c_str(), &a.sin_addr);
    return a;
  }

  std::string mac_;
  std::string ip_;
  uint8_t addr_[6] = {0};
  int tcp_ = -1;
  int old_ = -1;
  int udp_ = -1;
  Bytes rx_;
};

std::shared_ptr<channel::LiveChannel> Channel(const std::string& mac) {
  return g_world->server->FindLiveChannel(mac);
}

// Connects and logs the camera in; true once its channel has taken the login.
bool ConnectAndLogin(Cam& cam, const std::string& mac, uint32_t soft) {
  if (!cam.Connect()) return false;
  auto ch = Channel(mac);
  if (ch == nullptr) return false;
  if (!WaitFor([&] { return ch->IsConnected() && ch->camera().ip() != ""; })) return false;
  cam.Login(0x123, soft);
  const int expected = command::VersionNumber(soft);
  return WaitFor([&] {
    return ch->camera().GetStatus().soft_ver == expected &&
           ch->camera().state() == camera::kStateLoggedIn;
  });
}

std::atomic<int64_t> g_uptime{100000};
int64_t FakeUptime() {
  return g_uptime.load();
}

TEST(CameraLink, RegistryIsBuiltFromTheConfiguredCameras) {
  const auto macs = g_world->server->LiveChannelMacs();
  EXPECT_NE(std::find(macs.begin(), macs.end(), kCamA), macs.end());
  EXPECT_NE(std::find(macs.begin(), macs.end(), kCamB), macs.end());
  EXPECT_EQ(Channel(kCamN), nullptr);
  EXPECT_THROW(g_world->server->GetLiveChannel(kCamU), std::out_of_range);
  EXPECT_EQ(g_world->server->TryEraseLiveChannels(kCamU), -1);
  EXPECT_EQ(g_world->server->LiveChannelMacs(), macs);
}

TEST(CameraLink, ConnectLoginAndCommandsWhileAwake) {
  Cam cam(kCamA, "127.0.0.2");
  ASSERT_TRUE(ConnectAndLogin(cam, kCamA, 0x105));
  auto ch = Channel(kCamA);
  EXPECT_EQ(ch->camera().ip(), "127.0.0.2");
  EXPECT_EQ(ch->camera().state(), camera::kStateLoggedIn);
  EXPECT_EQ(Config(std::string("p2p.") + kCamA + ".version"), "105");

  ASSERT_EQ(ch->GetCameraInfo(), 1);
  const Bytes query = cam.Read();
  ASSERT_EQ(query.size(), 34u);
  EXPECT_EQ(query[28], 0x03);
  EXPECT_EQ(Bytes(query.begin() + 2, query.begin() + 8), Bytes(kHubAddr, kHubAddr + 6));
  EXPECT_EQ(Bytes(query.begin() + 8, query.begin() + 14), Bytes(cam.addr(), cam.addr() + 6));
  cam.Send(MakeFrame(cam.addr(), kHubAddr, 0x03, 0, cam.Info(0x106)));
  EXPECT_TRUE(WaitFor([&] { return ch->camera().GetStatus().battery == 90; }));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 106);
  EXPECT_EQ(ch->QueuedCommands(), 0u);
}

TEST(CameraLink, QueuedWhileAsleepAndReplayedAfterTcpAndUdpWake) {
  Cam cam(kCamA, "127.0.0.2");
  ASSERT_TRUE(cam.OpenUdp());
  auto ch = Channel(kCamA);
  ch->SetUptimeClock(&FakeUptime);
  ASSERT_TRUE(ConnectAndLogin(cam, kCamA, 0x107));

  // Awake: at once, no wake.
  ASSERT_EQ(ch->SetCameraPir(1), 1);
  Bytes pir = cam.Read();
  ASSERT_EQ(pir.size(), 35u);
  EXPECT_EQ(pir[28], 0x02);
  EXPECT_EQ(pir[29], 0x11);

  // Asleep: the night-mode request waits; the camera answers the TCP wake by logging in.
  g_uptime += 5;
  std::atomic<int> answered{0};
  ASSERT_TRUE(cloudrequest::CloudRequests().Add(
      777, [&](const cloudrequest::Answer& a) { answered = a.result == 1 ? 1 : -1; }));
  ASSERT_EQ(ch->SetCameraNightMode(777, 1), 1);
  EXPECT_EQ(ch->QueuedCommands(), 1u);
  const Bytes wake = cam.Read();
  ASSERT_EQ(wake.size(), 34u);
  EXPECT_EQ(wake[28], 0xF0);
  EXPECT_TRUE(cam.UdpWake());
  cam.Login(0x123, 0x107);
  const Bytes night = cam.Read();
  ASSERT_EQ(night.size(), 35u);
  EXPECT_EQ(night[28], 0x11);
  EXPECT_EQ(night[29], 0x06);
  EXPECT_EQ(Bytes(night.begin() + 2, night.begin() + 8), (Bytes{0x88, 0x88, 0x09, 0x03, 0, 0}));
  uint8_t ack_id[6];
  command::AckIdAddress(777, ack_id);
  cam.Send(MakeFrame(cam.addr(), ack_id, 0x80, 0, {0x11, 0x06, 0x01}));
  EXPECT_TRUE(WaitFor([&] { return answered.load() == 1; }));
  EXPECT_EQ(ch->camera().GetStatus().night, 1);

  // All 30 datagrams of that wake reach the camera's address on the wake port.
  int datagrams = 1;
  while (datagrams < 30 && cam.UdpWake(seconds(5))) datagrams++;
  EXPECT_EQ(datagrams, 30);
  ASSERT_TRUE(WaitFor([] { return channel::LiveChannel::ActiveUdpWakes() == 0; }));
  cam.DrainUdp();

  // Asleep again: this time the camera only hears the UDP wake.
  g_uptime += 5;
  ASSERT_EQ(ch->GetCameraInfo(), 1);
  ASSERT_TRUE(cam.UdpWake());
  EXPECT_EQ(cam.Read()[28], 0xF0);  // the TCP wake it did not act on
  cam.Login(0x123, 0x107, kHubAddr);
  const Bytes query = cam.Read();
  ASSERT_EQ(query.size(), 34u);
  EXPECT_EQ(query[28], 0x03);
  EXPECT_EQ(ch->QueuedCommands(), 0u);
  ch->SetUptimeClock(&channel::LiveChannel::SystemUptime);
  EXPECT_TRUE(WaitFor([] { return channel::LiveChannel::ActiveUdpWakes() == 0; }));
}

TEST(CameraLink, ReconnectReplacesTheOldConnection) {
  Cam cam(kCamB, "127.0.0.3");
  ASSERT_TRUE(ConnectAndLogin(cam, kCamB, 0x110));
  ASSERT_TRUE(cam.Connect());
  EXPECT_TRUE(Cam::Ends(cam.old()));  // the hub closed the first connection
  auto ch = Channel(kCamB);
  cam.Login(0x123, 0x111);
  ASSERT_TRUE(WaitFor([&] { return ch->camera().GetStatus().soft_ver == 111; }));
  ASSERT_EQ(ch->ResetCamera(), 1);
  const Bytes reset = cam.Read();
  ASSERT_EQ(reset.size(), 34u);
  EXPECT_EQ(reset[28], 0x11);
  EXPECT_EQ(reset[29], 0x04);
}

TEST(CameraLink, UnknownCameraChangesNothing) {
  const auto macs = g_world->server->LiveChannelMacs();
  const size_t mark = g_world->log.Mark();
  Cam unknown(kCamU, "127.0.0.9");
  ASSERT_TRUE(unknown.Connect());
  EXPECT_TRUE(unknown.Ends());
  EXPECT_TRUE(g_world->log.Wait("New tcp client out of Range error: ", mark));
  Cam nameless("0A00000000EE", "127.0.0.10");  // not even in the ARP table
  ASSERT_TRUE(nameless.Connect());
  EXPECT_TRUE(nameless.Ends());
  EXPECT_EQ(g_world->server->LiveChannelMacs(), macs);
}

TEST(CameraLink, BadStreamInputCostsOnlyTheBytesHeld) {
  Cam cam(kCamA, "127.0.0.2");
  ASSERT_TRUE(ConnectAndLogin(cam, kCamA, 0x120));
  auto ch = Channel(kCamA);
  const camera::Status before = ch->camera().GetStatus();

  Bytes garbage(5000);
  for (size_t i = 0; i < garbage.size(); i++) garbage[i] = static_cast<uint8_t>(i * 37);
  Bytes truncated = MakeFrame(cam.addr(), kZero, 0x82, 0, cam.Info(0x999));
  truncated.resize(50);
  Bytes huge = MakeFrame(cam.addr(), kZero, 0x82, 0, {});
  command::PutLe16(huge.data() + 26, 65535);
  Bytes oversized = MakeFrame(cam.addr(), kZero, 0x8A, 0, Bytes(30000, 0x68));
  Bytes wrong_tail = MakeFrame(cam.addr(), kZero, 0x82, 0, cam.Info(0x999));
  wrong_tail.back() = 0x00;
  uint32_t soft = 0x130;
  for (const Bytes* bad : {&garbage, &truncated, &huge, &oversized, &wrong_tail}) {
    ASSERT_TRUE(cam.Send(*bad));
    // The next good frame may be lost with bytes still held: log in until one is taken.
    soft++;
    const int expected = command::VersionNumber(soft);
    EXPECT_TRUE(WaitFor([&] {
      cam.Login(0x123, soft);
      return WaitFor([&] { return ch->camera().GetStatus().soft_ver == expected; },
                     milliseconds(200));
    }));
  }
  // Nothing but the versions changed, and the camera kept its connection and its channel.
  const camera::Status after = ch->camera().GetStatus();
  EXPECT_EQ(after.battery, before.battery);
  EXPECT_EQ(after.pir, before.pir);
  EXPECT_EQ(after.vbat, before.vbat);
  EXPECT_TRUE(ch->IsConnected());
  EXPECT_EQ(Channel(kCamA), ch);
}

TEST(CameraLink, PairingRecordsTheCameraAndGivesItAChannel) {
  ASSERT_EQ(Channel(kCamN), nullptr);
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(StartAuthServer(g_world->server), 0);
  EXPECT_EQ(StartAuthServer(g_world->server), -1);  // one pairing server at a time
  EXPECT_TRUE(IsTcpServerStart());
  EXPECT_EQ(Operstate("ra1"), "up\n");

  Cam cam(kCamN, "127.0.0.4");
  const int fd = cam.PairingConnection();
  ASSERT_GE(fd, 0);
  const Bytes request = cam.PairingRequest(0x0102);
  ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  Bytes rx;
  const Bytes reply = Cam::ReadFrom(fd, &rx, seconds(10));
  ASSERT_EQ(reply.size(), 99u);
  EXPECT_EQ(reply[28], 0x0B);
  EXPECT_EQ(reply[29], 0x00);
  EXPECT_EQ(command::AsFrame(reply.data())->Length(), 65);
  EXPECT_EQ(command::AsFrame(reply.data())->Seq(), 0x0102);
  EXPECT_EQ(Bytes(reply.begin() + 2, reply.begin() + 8), Bytes(6, 0xFF));
  EXPECT_EQ(Bytes(reply.begin() + 8, reply.begin() + 14), Bytes(cam.addr(), cam.addr() + 6));
  EXPECT_EQ(reply[32], 1);
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&reply[33])), "tarvo-cam-ap");
  EXPECT_EQ(std::string(reinterpret_cast<const char*>(&reply[65])), "tarvo-cam-secret");
  close(fd);

  EXPECT_TRUE(g_world->log.Wait("It's a new camera sync to hub", mark));
  EXPECT_TRUE(WaitFor([] { return Channel(kCamN) != nullptr; }));
  EXPECT_EQ(Config(std::string("p2p.") + kCamN + ".version"), "200");
  EXPECT_EQ(Config(std::string("p2p.") + kCamN + ".hardver"), "123");
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  EXPECT_FALSE(IsTcpServerStart());
  EXPECT_EQ(Operstate("ra1"), "down\n");
  EXPECT_TRUE(g_world->log.Has("state: 5", mark));
  EXPECT_TRUE(g_world->log.Has("state: 4", mark));
  // The pairing server's log lines, which support staff read, word for word (": " ends the
  // record's head, so each must be the whole text).
  for (const char* line :
       {": start auth tcp server, ifconfig ra1 up ok!$", ": accept_count = 0$",
        ": has a client ip 127\\.0\\.0\\.4 connect$", ": auth camera mac: 0A0000000004$",
        ": Recv succeed!$", ": stop auth tcp server, ifconfig ra1 down ok!$",
        ": exit auth thread\\.{6}$"}) {
    EXPECT_TRUE(g_world->log.Has(line, mark)) << line;
  }

  ASSERT_TRUE(ConnectAndLogin(cam, kCamN, 0x200));
}

TEST(CameraLink, PairingModeTurnedOffEndsThePairingThreadWithoutACamera) {
  // The cloud turns pairing mode off while no camera came: the thread, waiting in accept with
  // its time-out, sees the end and leaves, so pairing can start again.
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(StartAuthServer(g_world->server), 0);
  ASSERT_TRUE(g_world->log.Wait(": accept_count = 0$", mark));  // waiting for a camera
  StopTcpServer();
  EXPECT_FALSE(IsTcpServerStart());
  EXPECT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  EXPECT_EQ(Operstate("ra1"), "down\n");
}

TEST(CameraLink, RePairingReplacesTheChannel) {
  Cam cam(kCamB, "127.0.0.3");
  ASSERT_TRUE(ConnectAndLogin(cam, kCamB, 0x140));
  const auto old = Channel(kCamB);
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(StartAuthServer(g_world->server), 0);
  const int fd = cam.PairingConnection();
  const Bytes request = cam.PairingRequest(9);
  ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  Bytes rx;
  EXPECT_EQ(Cam::ReadFrom(fd, &rx, seconds(10)).size(), 99u);
  close(fd);
  EXPECT_TRUE(g_world->log.Wait("It's exist in live channels, delete old and insert new", mark));
  EXPECT_TRUE(cam.Ends());  // the old channel's connection is closed
  ASSERT_TRUE(WaitFor([&] { return Channel(kCamB) != nullptr && Channel(kCamB) != old; }));
  const auto fresh = Channel(kCamB);
  EXPECT_FALSE(fresh->IsConnected());
  EXPECT_EQ(fresh->camera().GetStatus().soft_ver, 200);  // as recorded by the pairing
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  ASSERT_TRUE(ConnectAndLogin(cam, kCamB, 0x141));
  EXPECT_TRUE(fresh->IsConnected());
}

TEST(CameraLink, BadPairingRequestsGetNoAnswerAndEndPairing) {
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  const auto macs = g_world->server->LiveChannelMacs();
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(StartAuthServer(g_world->server), 0);
  Cam cam(kCamBad, "127.0.0.5");
  const int fd = cam.PairingConnection();
  ASSERT_GE(fd, 0);
  // Whole, well-formed requests whose identity can never be one camera's: all zeros, broadcast,
  // a multicast group. Each is refused before the next is sent (one receive each).
  const std::vector<Bytes> identities = {Bytes(6, 0x00), Bytes(6, 0xFF),
                                         Bytes{0x01, 0x00, 0x5E, 0x00, 0x00, 0x01}};
  for (const Bytes& identity : identities) {
    Bytes info = cam.Info(0x200);
    std::copy(identity.begin(), identity.end(), info.begin());
    const Bytes request = MakeFrame(identity.data(), kZero, 0x8B, 0, info);
    const size_t at = g_world->log.Mark();
    ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
    EXPECT_TRUE(g_world->log.Wait("auth camera mac is no camera address", at))
        << command::AddressText(identity.data());
  }
  Bytes short33 = MakeFrame(cam.addr(), kZero, 0x8B, 0, Bytes(33, 1));
  Bytes video = MakeFrame(cam.addr(), kZero, 0x8A, 0, cam.Info(0x200));
  Bytes cut = cam.PairingRequest(1);
  cut.resize(40);
  for (const Bytes* bad : {&short33, &video, &cut}) {
    ASSERT_EQ(send(fd, bad->data(), bad->size(), 0), static_cast<ssize_t>(bad->size()));
  }
  ASSERT_EQ(send(fd, "hh", 2, 0), 2);
  // No answer at all: the next thing the camera sees is the end of the connection.
  EXPECT_TRUE(Cam::Ends(fd, seconds(30)));
  close(fd);
  EXPECT_TRUE(g_world->log.Has("Recv timeout!!!", mark));
  EXPECT_TRUE(g_world->log.Has("state: 3", mark));
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  EXPECT_EQ(g_world->server->LiveChannelMacs(), macs);
  EXPECT_EQ(Config(std::string("p2p.") + kCamBad + ".version"), "");
  for (const char* identity : {"000000000000", "FFFFFFFFFFFF", "01005E000001"}) {
    EXPECT_EQ(Config(std::string("p2p.") + identity + ".version"), "") << identity;
  }
}

TEST(CameraLink, AFullHubRefusesAFifthCameraUnansweredAndRecordsNothing) {
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  // Four cameras recorded: the board's, any paired before, and made-up ones to fill the list.
  std::vector<std::string> fillers;
  for (const char* mac : {"0A00000000F1", "0A00000000F2", "0A00000000F3", "0A00000000F4"}) {
    char list[8][kUciSectionNameLen] = {};
    if (zcfg_uci_get_section_list("p2p", list, 8) >= 4) break;
    ASSERT_EQ(0, zcfg_uci_set((std::string("p2p.") + mac).c_str(), "camera"));
    fillers.push_back(mac);
  }
  const auto macs = g_world->server->LiveChannelMacs();
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(StartAuthServer(g_world->server), 0);
  const char kFifth[] = "0A0000000006";
  Cam cam(kFifth, "127.0.0.6");
  const int fd = cam.PairingConnection();
  ASSERT_GE(fd, 0);
  const Bytes request = cam.PairingRequest(3);
  ASSERT_EQ(send(fd, request.data(), request.size(), 0), static_cast<ssize_t>(request.size()));
  EXPECT_TRUE(g_world->log.Wait(": auth failed$", mark));
  shutdown(fd, SHUT_WR);                    // the hub's further receives end at once
  EXPECT_TRUE(Cam::Ends(fd, seconds(30)));  // no reply: the connection just ends
  close(fd);
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  EXPECT_TRUE(g_world->log.Has("Camera list have 4 camera, sync new camera error!!!", mark));
  EXPECT_EQ(g_world->server->LiveChannelMacs(), macs);
  EXPECT_EQ(Config(std::string("p2p.") + kFifth + ".version"), "");
  for (const std::string& mac : fillers) zcfg_uci_delete(("p2p." + mac).c_str());
}

TEST(CameraLink, PairingGivesUpAfterTwelveAcceptTimeOuts) {
  ASSERT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  pairing::SetAcceptTimeout(milliseconds(20));
  const size_t mark = g_world->log.Mark();
  ASSERT_EQ(StartAuthServer(g_world->server), 0);
  EXPECT_TRUE(g_world->log.Wait(": accept count timeout, stop tcp$", mark));
  EXPECT_TRUE(WaitFor([] { return !IsAuthServerRunning(); }, seconds(20)));
  pairing::SetAcceptTimeout(milliseconds(0));
  EXPECT_FALSE(IsTcpServerStart());
  EXPECT_EQ(Operstate("ra1"), "down\n");
  // Counts 0 to 11 were logged, one per wait: the twelfth time-out ended pairing.
  EXPECT_TRUE(g_world->log.Has(": accept_count = 11$", mark));
  EXPECT_FALSE(g_world->log.Has(": accept_count = 12$", mark));
}

}  // namespace
