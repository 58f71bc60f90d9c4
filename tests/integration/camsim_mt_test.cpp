// The camera simulator over real sockets against a scripted hub made with the hub's own frame
// code: the hub side receives exactly as the hub does (a fixed buffer cut with the hub's frame
// cutter, a lone heartbeat byte kept at its front), sends commands, wake frames and datagrams,
// and plays the pairing server. The simulator's threads run under ThreadSanitizer.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <functional>
#include <future>
#include <iterator>
#include <mutex>
#include <thread>

#include "camera/command.h"
#include "camera/framecutter.h"
#include "camsim/camsim.h"
#include "camsim/camsimimage.h"
#include "camsim/camsimmedia.h"
#include "server/pairing.h"
#include "support/testsupport.h"
#include "support/webserver.h"

namespace {

using Bytes = std::vector<uint8_t>;
using std::chrono::milliseconds;
using testsupport::WaitFor;

const char kHubMac[] = "021A2B3C4D5E";

int Listener(uint16_t* port) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  int on = 1;
  setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(*port);
  inet_pton(AF_INET, "127.0.0.1", &addr.sin_addr);
  if (bind(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) != 0 || listen(fd, 8) != 0) {
    close(fd);
    return -1;
  }
  socklen_t len = sizeof(addr);
  getsockname(fd, reinterpret_cast<sockaddr*>(&addr), &len);
  *port = ntohs(addr.sin_port);
  return fd;
}

// A hub frame seen by the scripted hub.
struct Got {
  uint8_t type = 0;
  uint8_t subtype = 0;
  std::string dst;
  Bytes frame;
  int64_t at_ns = 0;  // CLOCK_MONOTONIC after the read that completed it
  const _net_cmd_type* header() const { return command::AsFrame(frame.data()); }
  Bytes payload() const { return Bytes(frame.begin() + 32, frame.end() - 2); }
  bool keepalive() const { return type == 0 && dst == "686868686868"; }
};

// The hub's camera listener, one camera at a time: a newer connection replaces the older one,
// which the hub closes, as the live channel does.
class ScriptedHub {
 public:
  ScriptedHub() : rx_(17408) {
    listen_fd_ = Listener(&port_);
    thread_ = std::thread(&ScriptedHub::Run, this);
  }
  ~ScriptedHub() {
    stop_.store(true);
    thread_.join();
    close(listen_fd_);
    if (conn_ >= 0) close(conn_);
  }
  uint16_t port() const { return port_; }

  std::vector<Got> Frames() {
    std::lock_guard<std::mutex> lock(mutex_);
    return frames_;
  }
  // The frames other than keep-alives, in order.
  std::vector<Got> Traffic() {
    std::vector<Got> out;
    for (auto& g : Frames()) {
      if (!g.keepalive()) out.push_back(std::move(g));
    }
    return out;
  }
  // Video frames whose last piece has arrived.
  size_t WholeVideoFrames() {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& g : frames_) {
      n += g.type == command::kTypeMedia && g.subtype == command::kSubVideo &&
                   g.header()->mark1 == g.header()->mark2
               ? 1
               : 0;
    }
    return n;
  }
  // The last frame of this type and subtype, waiting for the n-th.
  Got Nth(uint8_t type, uint8_t subtype, size_t n) {
    Got found;
    EXPECT_TRUE(WaitFor([&] {
      size_t seen = 0;
      for (const auto& g : Frames()) {
        if (g.type == type && g.subtype == subtype && ++seen == n) {
          found = g;
          return true;
        }
      }
      return false;
    })) << "no frame "
        << int(type) << "/" << int(subtype) << " #" << n;
    return found;
  }
  int Accepts() {
    std::lock_guard<std::mutex> lock(mutex_);
    return static_cast<int>(peers_.size());
  }
  std::vector<std::string> Peers() {
    std::lock_guard<std::mutex> lock(mutex_);
    return peers_;
  }
  int OneByteReceives() { return one_byte_.load(); }
  uint64_t Discards() { return discards_.load(); }
  size_t Held() { return held_.load(); }

  // A command to the camera, built as the hub builds it (src: an ACK ID address or nullptr).
  void Send(const std::string& camera, uint8_t type, uint8_t subtype, const Bytes& payload,
            const uint8_t* src = nullptr) {
    uint8_t frame[1388];
    const int n = command::BuildCommand(command::Command(camera, kHubMac), frame, sizeof(frame),
                                        type, subtype, payload.data(), payload.size(), src);
    ASSERT_GT(n, 0);
    SendBytes(frame, static_cast<size_t>(n));
  }
  void SendWake(const std::string& camera) {
    uint8_t wake[34];
    ASSERT_EQ(34, command::BuildWakeFrame(command::Command(camera, kHubMac), wake));
    SendBytes(wake, sizeof(wake));
  }
  void CloseConnection() {
    std::lock_guard<std::mutex> lock(mutex_);
    if (conn_ >= 0) shutdown(conn_, SHUT_RDWR);
  }

 private:
  void SendBytes(const uint8_t* p, size_t n) {
    std::lock_guard<std::mutex> lock(mutex_);
    ASSERT_GE(conn_, 0);
    ASSERT_EQ(static_cast<ssize_t>(n), send(conn_, p, n, MSG_NOSIGNAL));
  }

  void Run() {
    while (!stop_.load()) {
      int conn;
      {
        std::lock_guard<std::mutex> lock(mutex_);
        conn = conn_;
      }
      pollfd fds[2] = {{listen_fd_, POLLIN, 0}, {conn, POLLIN, 0}};
      if (poll(fds, 2, 20) <= 0) continue;
      if (fds[0].revents != 0) {
        sockaddr_in peer{};
        socklen_t len = sizeof(peer);
        const int fd = accept4(listen_fd_, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
        if (fd < 0) continue;
        char ip[INET_ADDRSTRLEN] = {0};
        inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
        std::lock_guard<std::mutex> lock(mutex_);
        if (conn_ >= 0) close(conn_);
        conn_ = fd;
        rx_.Clear();
        peers_.push_back(ip);
        continue;
      }
      if (conn >= 0 && fds[1].revents != 0) Read(conn);
    }
  }

  void Read(int conn) {
    if (rx_.Space() == 0) rx_.Clear();
    const ssize_t got = recv(conn, rx_.WritePtr(), rx_.Space(), MSG_DONTWAIT);
    if (got <= 0) {
      std::lock_guard<std::mutex> lock(mutex_);
      if (conn_ == conn) {
        close(conn_);
        conn_ = -1;
      }
      return;
    }
    if (got == 1) one_byte_++;
    rx_.Commit(static_cast<size_t>(got));
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    std::vector<Got> cut;
    rx_.Cut([&](const _net_cmd_type* f) {
      Got g;
      g.type = f->type;
      g.subtype = f->subtype;
      g.dst = command::AddressText(f->dst_addr);
      g.frame.assign(f->Bytes(), f->Bytes() + f->FrameSize());
      g.at_ns = static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
      cut.push_back(std::move(g));
    });
    held_.store(rx_.Held());
    discards_.store(rx_.Discards());
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto& g : cut) frames_.push_back(std::move(g));
  }

  uint16_t port_ = 0;
  int listen_fd_ = -1;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  command::FrameCutter rx_;  // reader thread only
  std::atomic<int> one_byte_{0};
  std::atomic<uint64_t> discards_{0};
  std::atomic<size_t> held_{0};
  std::mutex mutex_;
  int conn_ = -1;
  std::vector<Got> frames_;
  std::vector<std::string> peers_;
};

camsim::CameraConfig Config(const std::string& mac, const std::string& ip) {
  camsim::CameraConfig c;
  c.mac = mac;
  c.ip = ip;
  c.hard_ver = 100;
  c.soft_ver = 203;
  c.vbat = 3900;
  c.rssi = -61;
  c.pir = 1;
  c.night = 0;
  c.pir_interval = 60;
  return c;
}

camsim::HubEndpoint Endpoint(uint16_t camera_port, uint16_t pairing_port = 1) {
  camsim::HubEndpoint hub;
  hub.ip = "127.0.0.1";
  hub.camera_port = camera_port;
  hub.pairing_port = pairing_port;
  hub.wake_port = testsupport::FreePort();
  return hub;
}

void StartAndConnect(camsim::Camera& cam, ScriptedHub& hub) {
  std::string error;
  ASSERT_EQ(0, cam.Start(&error)) << error;
  ASSERT_EQ(0, cam.Connect(&error)) << error;
  hub.Nth(command::kTypeLogin, 0, 1);
}

// The hub's upgrade command: the image's URL behind a zero byte.
void SendUpgrade(ScriptedHub& hub, const std::string& mac, const std::string& url) {
  Bytes payload(65, 0);
  std::memcpy(payload.data() + 1, url.data(), url.size());
  hub.Send(mac, command::kTypeControl, command::kSubUpgrade, payload);
}

void SendDatagram(const std::string& ip, uint16_t port, const uint8_t* p, size_t n) {
  const int fd = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  sockaddr_in to{};
  to.sin_family = AF_INET;
  to.sin_port = htons(port);
  inet_pton(AF_INET, ip.c_str(), &to.sin_addr);
  EXPECT_EQ(static_cast<ssize_t>(n),
            sendto(fd, p, n, 0, reinterpret_cast<sockaddr*>(&to), sizeof(to)));
  close(fd);
}

TEST(Camsim, ConnectsFromItsOwnAddressLogsInAndKeepsTheHubInformed) {
  ScriptedHub hub;
  camsim::Behaviour b;
  b.keepalive = milliseconds(50);
  camsim::Camera cam(Config("0A0000000081", "127.0.0.81"), Endpoint(hub.port()), b);
  StartAndConnect(cam, hub);
  ASSERT_EQ(std::vector<std::string>{"127.0.0.81"}, hub.Peers());
  const Got login = hub.Frames()[0];
  EXPECT_EQ(command::kTypeLogin, login.type);
  EXPECT_EQ("000000000000", login.dst);  // the first login of a connection is unaddressed
  EXPECT_EQ("0A0000000081", command::AddressText(login.header()->src_addr));
  EXPECT_EQ(Bytes({0x00, 0x01, 0x00, 0x00, 0x03, 0x02, 0x00, 0x00}), login.payload());
  // awake: keep-alive frames, routed to nobody, no byte lost
  ASSERT_TRUE(WaitFor([&] { return hub.Frames().size() >= 4; }));
  for (const Got& g : hub.Frames()) {
    EXPECT_TRUE(g.type == command::kTypeLogin || g.keepalive());
  }
  EXPECT_EQ(0u, hub.Discards());
  const camsim::Stats s = cam.GetStats();
  EXPECT_TRUE(s.connected);
  EXPECT_TRUE(s.awake);
  EXPECT_EQ(1, s.logins);
  EXPECT_GE(s.keepalives, 3);
  // and they keep coming (an event, not a time: a loaded machine may pause this thread)
  EXPECT_TRUE(WaitFor([&] { return cam.GetStats().keepalives > s.keepalives; }));
}

TEST(Camsim, CommandsAreAnsweredToTheirSource) {
  ScriptedHub hub;
  const std::string mac = "0A0000000082";
  camsim::Camera cam(Config(mac, "127.0.0.82"), Endpoint(hub.port()));
  StartAndConnect(cam, hub);

  // property query from the hub, then from an ACK ID
  hub.Send(mac, command::kTypeProp, 0, {});
  Got prop = hub.Nth(command::kTypeProp, 0, 1);
  EXPECT_EQ(kHubMac, prop.dst);
  _net_cmd_get_info_type info;
  ASSERT_EQ(0, _net_cmd_get_info_type::Decode(prop.payload().data(), prop.payload().size(), &info));
  EXPECT_EQ(mac, command::AddressText(info.mac));
  EXPECT_EQ(Bytes({127, 0, 0, 82}), Bytes(info.ip, info.ip + 4));
  EXPECT_EQ(0x100u, info.hard_ver);
  EXPECT_EQ(0x203u, info.soft_ver);
  EXPECT_EQ(3900u, info.vbat);
  EXPECT_EQ(-61, info.rssi);
  EXPECT_EQ(1, info.pir);
  EXPECT_EQ(60, info.pir_interval);
  uint8_t ack_id[6];
  command::AckIdAddress(0x01020304, ack_id);
  hub.Send(mac, command::kTypeProp, 0, {}, ack_id);
  EXPECT_EQ("888804030201", hub.Nth(command::kTypeProp, 0, 2).dst);

  // settings: each acknowledged to its source and kept
  command::AckIdAddress(77, ack_id);
  hub.Send(mac, command::kTypeSetting, command::kSubNight, {2}, ack_id);
  Got ack = hub.Nth(command::kTypeAck, 0, 1);
  EXPECT_EQ("88884D000000", ack.dst);
  EXPECT_EQ(Bytes({0x11, 0x06, 0x01}), ack.payload());
  hub.Send(mac, command::kTypePir, command::kSubPirNew, {0, 40});
  ack = hub.Nth(command::kTypeAck, 0, 2);
  EXPECT_EQ(kHubMac, ack.dst);
  EXPECT_EQ(Bytes({0x02, 0x30, 0x01}), ack.payload());
  Bytes quality(20);
  command::EncodeVideoQuality(1, quality.data());
  hub.Send(mac, command::kTypeSetting, command::kSubVideoQuality, quality);
  EXPECT_EQ(Bytes({0x11, 0x02, 0x01}), hub.Nth(command::kTypeAck, 0, 3).payload());
  hub.Send(mac, command::kTypeSetting, command::kSubReset, {});
  EXPECT_EQ(Bytes({0x11, 0x04, 0x01}), hub.Nth(command::kTypeAck, 0, 4).payload());
  // a start without its time is refused, and so is an upgrade whose image cannot be fetched
  // (once the fetch has failed); an unknown command is not answered
  hub.Send(mac, command::kTypeControl, command::kSubStartStream, {});
  EXPECT_EQ(Bytes({0x01, 0x02, 0x00}), hub.Nth(command::kTypeAck, 0, 5).payload());
  Bytes url(65, 0);
  std::memcpy(url.data() + 1, "http://127.0.0.1:1/cam.bin", 26);
  hub.Send(mac, command::kTypeControl, command::kSubUpgrade, url);
  EXPECT_EQ(Bytes({0x01, 0x06, 0x00}), hub.Nth(command::kTypeAck, 0, 6).payload());
  hub.Send(mac, 0x05, 0x05, {1, 2});
  // talk-back audio of any subtype but 1 is refused: not played, not counted as talk-back
  hub.Send(mac, command::kTypeTalk, 0, Bytes(320, 0xD5));
  hub.Send(mac, command::kTypeTalk, 2, Bytes(320, 0xD5));
  // a frame for another camera on this connection is left alone
  hub.Send("0A00000000FF", command::kTypeProp, 0, {});
  hub.Send(mac, command::kTypeProp, 0, {}, ack_id);
  prop = hub.Nth(command::kTypeProp, 0, 3);
  ASSERT_EQ(0, _net_cmd_get_info_type::Decode(prop.payload().data(), prop.payload().size(), &info));
  EXPECT_EQ(2, info.night);
  EXPECT_EQ(0, info.pir);
  EXPECT_EQ(30, info.pir_interval);

  const std::vector<Got> traffic = hub.Traffic();
  ASSERT_EQ(10u, traffic.size());  // login, 3 properties, 6 acks, nothing for the rest
  EXPECT_EQ(command::kTypeProp, traffic.back().type);
  EXPECT_EQ(command::kTypeAck, traffic[traffic.size() - 2].type);
  const camsim::Stats s = cam.GetStats();
  EXPECT_EQ(1280, s.width);
  EXPECT_EQ(720, s.height);
  EXPECT_EQ(500, s.bitrate);
  EXPECT_EQ(1, s.resets);
  EXPECT_EQ(1, s.upgrades);
  EXPECT_EQ(0, s.upgrades_done);
  EXPECT_NE(std::string::npos, s.upgrade_error.find("127.0.0.1:1/cam.bin")) << s.upgrade_error;
  EXPECT_EQ(1, s.foreign_frames);
  EXPECT_EQ(2, s.refused_frames);
  EXPECT_EQ(0, s.talk_frames);
  EXPECT_EQ(0, s.talk_bytes);
  EXPECT_FALSE(s.streaming);
  EXPECT_EQ(3, s.Count(command::kTypeProp, 0));
  EXPECT_EQ("88884D000000", s.received.back().src);
  EXPECT_EQ(0u, hub.Discards());
}

TEST(Camsim, HeartbeatsWhileAsleepNeverCostTheNextFrame) {
  ScriptedHub hub;
  const std::string mac = "0A0000000083";
  camsim::Behaviour b;
  b.heartbeat = milliseconds(10);
  b.keepalive = milliseconds(100);
  camsim::Camera cam(Config(mac, "127.0.0.83"), Endpoint(hub.port()), b);
  StartAndConnect(cam, hub);
  hub.Send(mac, command::kTypeProp, 0, {});  // the camera learns the hub's address
  hub.Nth(command::kTypeProp, 0, 1);

  ASSERT_EQ(0, cam.Sleep());
  // The hub holds the heartbeat bytes at the front of its buffer; the camera stops at 26.
  ASSERT_TRUE(WaitFor([&] { return cam.GetStats().heartbeats == 26 && hub.Held() == 26; }));
  const size_t frames_asleep = hub.Frames().size();
  EXPECT_FALSE(WaitFor([&] { return cam.GetStats().heartbeats > 26; }, milliseconds(300)));
  EXPECT_GE(hub.OneByteReceives(), 1);
  EXPECT_EQ(frames_asleep, hub.Frames().size());
  EXPECT_GE(cam.GetStats().SinceLastFrame(), milliseconds(300));

  // Woken by the TCP wake frame: the heartbeat bytes become a keep-alive frame, then the login
  // addressed to the hub arrives whole.
  hub.SendWake(mac);
  const Got login = hub.Nth(command::kTypeLogin, 0, 2);
  EXPECT_EQ(kHubMac, login.dst);
  std::vector<Got> frames = hub.Frames();
  ASSERT_GE(frames.size(), frames_asleep + 2);
  EXPECT_TRUE(frames[frames_asleep].keepalive());
  EXPECT_EQ(command::kTypeLogin, frames[frames_asleep + 1].type);
  camsim::Stats s = cam.GetStats();
  EXPECT_TRUE(s.awake);
  EXPECT_EQ(1, s.wakes_tcp);
  EXPECT_EQ(1, s.wake_frames);

  // A command that reaches the sleeping camera wakes it too; the answer follows the login.
  ASSERT_EQ(0, cam.Sleep());
  ASSERT_TRUE(WaitFor([&] { return cam.GetStats().heartbeats >= 29; }));
  hub.Send(mac, command::kTypeProp, 0, {});
  hub.Nth(command::kTypeProp, 0, 2);
  const std::vector<Got> traffic = hub.Traffic();
  ASSERT_GE(traffic.size(), 2u);
  EXPECT_EQ(command::kTypeLogin, traffic[traffic.size() - 2].type);
  s = cam.GetStats();
  EXPECT_EQ(1, s.wakes_command);
  EXPECT_EQ(1, s.commands_asleep);
  EXPECT_EQ(0u, hub.Discards());
}

TEST(Camsim, UdpWakeDatagramsWakeOnlyTheirSleepingCamera) {
  ScriptedHub hub;
  const std::string mac = "0A0000000084";
  camsim::Behaviour b;
  b.wake_on_tcp = false;
  const camsim::HubEndpoint ep = Endpoint(hub.port());
  camsim::Camera cam(Config(mac, "127.0.0.84"), ep, b);
  StartAndConnect(cam, hub);
  ASSERT_EQ(0, cam.Sleep());

  // the TCP wake frame is seen and ignored
  hub.SendWake(mac);
  ASSERT_TRUE(WaitFor([&] { return cam.GetStats().wake_frames == 1; }));
  EXPECT_FALSE(cam.GetStats().awake);

  uint8_t other[34];
  ASSERT_EQ(34, command::BuildWakeFrame(command::Command("0A00000000FF", kHubMac), other));
  SendDatagram("127.0.0.84", ep.wake_port, other, sizeof(other));
  const uint8_t junk[5] = {0x68, 0x68, 1, 2, 3};
  SendDatagram("127.0.0.84", ep.wake_port, junk, sizeof(junk));
  uint8_t wake[34];
  ASSERT_EQ(34, command::BuildWakeFrame(command::Command(mac, kHubMac), wake));
  SendDatagram("127.0.0.84", ep.wake_port, wake, sizeof(wake));
  ASSERT_TRUE(cam.WaitUntil([](const camsim::Stats& s) { return s.awake; }));
  const Got login = hub.Nth(command::kTypeLogin, 0, 2);
  EXPECT_EQ(kHubMac, login.dst);  // the address came with the datagram
  // awake: further datagrams of the burst change nothing
  SendDatagram("127.0.0.84", ep.wake_port, wake, sizeof(wake));
  ASSERT_TRUE(WaitFor([&] { return cam.GetStats().wake_datagrams == 2; }));
  camsim::Stats s = cam.GetStats();
  EXPECT_EQ(1, s.wakes_udp);
  EXPECT_EQ(0, s.wakes_tcp);
  EXPECT_EQ(2, s.logins);

  // a camera that ignores datagrams stays asleep
  camsim::Behaviour deaf;
  deaf.wake_on_udp = false;
  const camsim::HubEndpoint ep2 = Endpoint(hub.port());
  camsim::Camera cam2(Config("0A0000000085", "127.0.0.85"), ep2, deaf);
  StartAndConnect(cam2, hub);
  ASSERT_EQ(0, cam2.Sleep());
  ASSERT_EQ(34, command::BuildWakeFrame(command::Command("0A0000000085", kHubMac), wake));
  SendDatagram("127.0.0.85", ep2.wake_port, wake, sizeof(wake));
  ASSERT_TRUE(WaitFor([&] { return cam2.GetStats().wake_datagrams == 1; }));
  EXPECT_FALSE(cam2.GetStats().awake);
}

// Reassembles the video pieces the hub received into frames, as the hub's forwarding does.
struct Reassembled {
  std::vector<Bytes> frames;
  std::vector<uint32_t> indices;
  std::vector<uint32_t> keys;
  Bytes audio;
  std::vector<uint32_t> audio_indices;
  std::vector<int64_t> last_piece_ns;  // arrival of each frame's last piece
};
Reassembled Reassemble(const std::vector<Got>& frames) {
  Reassembled r;
  Bytes building;
  int expect_piece = 1;
  for (const Got& g : frames) {
    if (g.type != command::kTypeMedia) continue;
    const Bytes p = g.payload();
    if (g.subtype == command::kSubAudio) {
      EXPECT_GE(p.size(), 8u);
      r.audio.insert(r.audio.end(), p.begin() + 8, p.end());
      r.audio_indices.push_back(command::GetLe32(p.data()));
      continue;
    }
    EXPECT_EQ(16400u, p.size());
    EXPECT_EQ("000000000000", g.dst);
    const uint8_t total = g.header()->mark1;
    const uint8_t piece = g.header()->mark2;
    EXPECT_EQ(expect_piece, piece);
    building.insert(building.end(), p.begin() + 16, p.end());
    if (piece == total) {
      const uint32_t length = command::GetLe32(p.data());
      EXPECT_EQ((length + 16383) / 16384, total);
      building.resize(length);
      r.frames.push_back(building);
      r.keys.push_back(command::GetLe32(p.data() + 4));
      r.indices.push_back(command::GetLe32(p.data() + 12));
      r.last_piece_ns.push_back(g.at_ns);
      building.clear();
      expect_piece = 1;
    } else {
      expect_piece++;
    }
  }
  return r;
}

TEST(Camsim, StreamsItsClipInTheHubsLayoutUntilStopped) {
  ScriptedHub hub;
  const std::string mac = "0A0000000086";
  testsupport::TempDir dir;
  camsim::CameraConfig config = Config(mac, "127.0.0.86");
  config.send_log_file = dir.path() + "/sends.csv";
  camsim::Camera cam(config, Endpoint(hub.port()));
  StartAndConnect(cam, hub);
  hub.Send(mac, command::kTypeControl, command::kSubStartStream, {0xD2, 0x04, 0x00, 0x00});
  EXPECT_EQ(Bytes({0x01, 0x02, 0x01}), hub.Nth(command::kTypeAck, 0, 1).payload());
  // past the end of the 30-frame clip: it plays again, the frame index goes on
  ASSERT_TRUE(WaitFor([&] { return hub.WholeVideoFrames() >= 32; }, std::chrono::seconds(20)));
  hub.Send(mac, command::kTypeControl, command::kSubStopStream, {});
  EXPECT_EQ(Bytes({0x01, 0x03, 0x01}), hub.Nth(command::kTypeAck, 0, 2).payload());
  hub.Send(mac, command::kTypeProp, 0, {});
  hub.Nth(command::kTypeProp, 0, 1);

  const std::vector<Got> frames = hub.Frames();
  const Reassembled r = Reassemble(frames);
  auto clip = camsim::VideoClip::Synthetic();
  for (size_t i = 0; i < r.frames.size(); i++) {
    EXPECT_EQ(clip->at(i).data, r.frames[i]) << i;
    EXPECT_EQ(i, r.indices[i]);
    EXPECT_EQ(i % 15 == 0 ? 1u : 0u, r.keys[i]) << i;
  }
  // one audio packet of A-law silence per video frame, 8000 bytes a second
  ASSERT_EQ(r.frames.size(), r.audio_indices.size());
  EXPECT_EQ(Bytes(camsim::AudioPosition(r.frames.size(), 15), 0xD5), r.audio);
  // nothing streams after the stop is acknowledged
  bool stopped = false;
  for (const Got& g : frames) {
    if (g.type == command::kTypeAck && g.payload() == Bytes({1, 3, 1})) stopped = true;
    EXPECT_FALSE(stopped && g.type == command::kTypeMedia);
  }
  const camsim::Stats s = cam.GetStats();
  EXPECT_FALSE(s.streaming);
  EXPECT_EQ(1234u, s.stream_time);
  EXPECT_EQ(static_cast<int>(r.frames.size()), s.video_frames);
  EXPECT_EQ(0u, hub.Discards());

  // The send log: a line per frame, its index, and a time no later than the arrival of the
  // frame's last piece at the hub (the hub cannot have a byte the camera has not handed on).
  std::ifstream log(config.send_log_file);
  std::string line;
  std::getline(log, line);
  EXPECT_EQ("index,sent_ns", line);
  size_t n = 0;
  int64_t previous = 0;
  while (std::getline(log, line)) {
    const size_t comma = line.find(',');
    ASSERT_NE(std::string::npos, comma) << line;
    ASSERT_LT(n, r.frames.size());
    EXPECT_EQ(std::to_string(r.indices[n]), line.substr(0, comma));
    const int64_t sent = std::stoll(line.substr(comma + 1));
    EXPECT_GT(sent, previous);
    EXPECT_LE(sent, r.last_piece_ns[n]) << "frame " << n;
    previous = sent;
    n++;
  }
  EXPECT_EQ(r.frames.size(), n);
}

TEST(Camsim, StreamsTheGeneratedTestMediaByteForByte) {
  const std::string dir = std::string(TARVO_BIN_DIR) + "/test-media";
  if (std::system(
          (testsupport::SourcePath("scripts/make-test-media.sh") + " " + dir + " >/dev/null")
              .c_str()) != 0) {
    GTEST_SKIP() << "ffmpeg did not make the test media";
  }
  ScriptedHub hub;
  const std::string mac = "0A0000000087";
  camsim::CameraConfig config = Config(mac, "127.0.0.87");
  config.video_file = dir + "/camera-1080p15.h264";
  config.audio_file = dir + "/camera-8k.alaw";
  camsim::Camera cam(config, Endpoint(hub.port()));
  StartAndConnect(cam, hub);
  hub.Send(mac, command::kTypeControl, command::kSubStartStream, {0, 0, 0, 0});
  ASSERT_TRUE(WaitFor([&] { return hub.WholeVideoFrames() >= 60; }, std::chrono::seconds(30)));
  hub.Send(mac, command::kTypeControl, command::kSubStopStream, {});
  hub.Nth(command::kTypeAck, 0, 2);
  const Reassembled r = Reassemble(hub.Frames());
  Bytes video;
  for (size_t i = 0; i < 60; i++) video.insert(video.end(), r.frames[i].begin(), r.frames[i].end());
  std::ifstream vin(config.video_file, std::ios::binary);
  EXPECT_EQ(Bytes((std::istreambuf_iterator<char>(vin)), std::istreambuf_iterator<char>()), video);
  std::ifstream ain(config.audio_file, std::ios::binary);
  const Bytes audio((std::istreambuf_iterator<char>(ain)), std::istreambuf_iterator<char>());
  ASSERT_GE(r.audio.size(), 32000u);
  EXPECT_EQ(audio, Bytes(r.audio.begin(), r.audio.begin() + 32000));
  EXPECT_EQ(0u, hub.Discards());
}

TEST(Camsim, MotionAndBatteryEventsWakeTheCamera) {
  ScriptedHub hub;
  const std::string mac = "0A0000000088";
  camsim::Behaviour b;
  b.pir_stream = milliseconds(300);
  camsim::Camera cam(Config(mac, "127.0.0.88"), Endpoint(hub.port()), b);
  StartAndConnect(cam, hub);
  hub.Send(mac, command::kTypeProp, 0, {});
  hub.Nth(command::kTypeProp, 0, 1);
  ASSERT_EQ(0, cam.Sleep());

  ASSERT_EQ(0, cam.RaisePir());
  const Got pir = hub.Nth(command::kTypePirEvent, 0, 1);
  EXPECT_EQ("000000000000", pir.dst);
  hub.Nth(command::kTypeMedia, command::kSubVideo, 1);
  std::vector<Got> traffic = hub.Traffic();
  EXPECT_EQ(command::kTypeLogin, traffic[2].type);  // login, property, login, motion, video
  EXPECT_EQ(kHubMac, traffic[2].dst);
  EXPECT_EQ(command::kTypePirEvent, traffic[3].type);
  // nobody stops it: the motion stream ends by itself
  ASSERT_TRUE(cam.WaitUntil([](const camsim::Stats& s) { return !s.streaming; }));

  ASSERT_EQ(0, cam.RaiseBattery(3650));
  const Got battery = hub.Nth(command::kTypeBatteryEvent, 0, 1);
  EXPECT_EQ("000000000000", battery.dst);
  ASSERT_EQ(34u, battery.payload().size());
  _net_cmd_get_info_type info;
  ASSERT_EQ(0, _net_cmd_get_info_type::Decode(battery.payload().data(), 34, &info));
  EXPECT_EQ(3650u, info.vbat);
  const camsim::Stats s = cam.GetStats();
  EXPECT_EQ(1, s.pir_events);
  EXPECT_EQ(1, s.battery_events);
  EXPECT_EQ(1, s.wakes_self);
  EXPECT_EQ(0u, hub.Discards());
}

TEST(Camsim, ReconnectsReplaceConnections) {
  ScriptedHub hub;
  const std::string mac = "0A0000000089";
  camsim::Behaviour b;
  b.reconnect = milliseconds(50);
  camsim::Camera cam(Config(mac, "127.0.0.89"), Endpoint(hub.port()), b);
  StartAndConnect(cam, hub);
  // a second connection while the first is open: the hub drops the first
  std::string error;
  ASSERT_EQ(0, cam.Connect(&error)) << error;
  ASSERT_TRUE(cam.WaitUntil([](const camsim::Stats& s) { return s.replaced_closes == 1; }));
  EXPECT_EQ(2, hub.Accepts());
  EXPECT_EQ("000000000000", hub.Nth(command::kTypeLogin, 0, 2).dst);
  // the hub closes the connection: the camera comes back by itself
  hub.CloseConnection();
  ASSERT_TRUE(WaitFor([&] { return hub.Accepts() == 3; }));
  hub.Nth(command::kTypeLogin, 0, 3);
  EXPECT_EQ(1, cam.GetStats().hub_closes);
  EXPECT_EQ(std::vector<std::string>(3, "127.0.0.89"), hub.Peers());
  // after Disconnect it stays away
  cam.Disconnect();
  EXPECT_FALSE(WaitFor([&] { return hub.Accepts() > 3; }, milliseconds(300)));
  EXPECT_FALSE(cam.GetStats().connected);
  EXPECT_EQ(-1, cam.RaisePir());
}

// A pairing server that answers one request with the hub's reply, changed by tamper.
class PairingServer {
 public:
  explicit PairingServer(uint16_t port, std::function<void(uint8_t*)> tamper = nullptr)
      : port_(port), tamper_(std::move(tamper)) {
    fd_ = Listener(&port_);
    thread_ = std::thread([this] {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 20000) <= 0) return;
      sockaddr_in peer{};
      socklen_t len = sizeof(peer);
      const int conn = accept4(fd_, reinterpret_cast<sockaddr*>(&peer), &len, SOCK_CLOEXEC);
      if (conn < 0) return;
      char ip[INET_ADDRSTRLEN] = {0};
      inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
      uint8_t buf[1024];
      const ssize_t n = recv(conn, buf, sizeof(buf), 0);
      _net_cmd_get_info_type info;
      if (n > 0 && pairing::ParsePairingRequest(buf, static_cast<size_t>(n), &info) == 1) {
        uint8_t reply[99];
        pairing::BuildPairingReply(command::AsFrame(buf), "cam-net", "cam-secret", reply,
                                   sizeof(reply));
        if (tamper_) tamper_(reply);
        send(conn, reply, sizeof(reply), MSG_NOSIGNAL);
        std::lock_guard<std::mutex> lock(mutex_);
        info_ = info;
        peer_ = ip;
      }
      close(conn);
    });
  }
  ~PairingServer() {
    thread_.join();
    close(fd_);
  }
  uint16_t port() const { return port_; }
  std::string peer() {
    std::lock_guard<std::mutex> lock(mutex_);
    return peer_;
  }
  _net_cmd_get_info_type info() {
    std::lock_guard<std::mutex> lock(mutex_);
    return info_;
  }

 private:
  uint16_t port_;
  std::function<void(uint8_t*)> tamper_;
  int fd_ = -1;
  std::thread thread_;
  std::mutex mutex_;
  _net_cmd_get_info_type info_;
  std::string peer_;
};

TEST(Camsim, PairsWithThePairingServerAndChecksTheReply) {
  std::string error;
  {
    // The server opens only after the camera started trying.
    const uint16_t port = testsupport::FreePort();
    camsim::CameraConfig config = Config("0A000000008A", "127.0.0.90");
    config.expect_ssid = "cam-net";
    config.expect_key = "cam-secret";
    camsim::Camera cam(config, Endpoint(1, port));
    ASSERT_EQ(0, cam.Start(&error)) << error;
    auto paired = std::async(std::launch::async, [&] { return cam.Pair(&error); });
    ASSERT_TRUE(cam.WaitUntil([](const camsim::Stats& s) { return s.pair_attempts >= 2; }));
    PairingServer server(port);
    ASSERT_EQ(0, paired.get()) << error;
    const camsim::Stats s = cam.GetStats();
    EXPECT_EQ(1, s.pairings);
    EXPECT_EQ("cam-net", s.ssid);
    EXPECT_EQ("cam-secret", s.key);
    EXPECT_EQ("127.0.0.90", server.peer());
    const _net_cmd_get_info_type info = server.info();
    EXPECT_EQ("0A000000008A", command::AddressText(info.mac));
    EXPECT_EQ(100, command::VersionNumber(info.hard_ver));
    EXPECT_EQ(203, command::VersionNumber(info.soft_ver));
    EXPECT_EQ(3900u, info.vbat);
    EXPECT_EQ(-61, info.rssi);
  }
  struct Case {
    std::function<void(uint8_t*)> tamper;
    std::string expect_ssid;
    const char* why;
  };
  const std::vector<Case> cases = {
      {[](uint8_t* r) { r[16] ^= 1; }, "", "seq"},
      {[](uint8_t* r) { r[32] = 0; }, "", "refused"},
      {nullptr, "other-net", "expected other-net"},
  };
  for (const Case& c : cases) {
    PairingServer server(0, c.tamper);
    camsim::CameraConfig config = Config("0A000000008A", "127.0.0.90");
    config.expect_ssid = c.expect_ssid;
    camsim::Camera cam(config, Endpoint(1, server.port()));
    ASSERT_EQ(0, cam.Start(&error)) << error;
    EXPECT_EQ(-1, cam.Pair(&error));
    EXPECT_NE(std::string::npos, error.find(c.why)) << error;
    EXPECT_EQ(0, cam.GetStats().pairings);
  }
  camsim::Behaviour quick;
  quick.pair_timeout = milliseconds(300);
  camsim::Camera lonely(Config("0A000000008A", "127.0.0.90"), Endpoint(1, testsupport::FreePort()),
                        quick);
  ASSERT_EQ(0, lonely.Start(&error)) << error;
  EXPECT_EQ(-1, lonely.Pair(&error));
  EXPECT_NE(std::string::npos, error.find("not reachable")) << error;
}

TEST(Camsim, UpgradesFromTheGivenAddressAndComesBackWithTheImagesVersion) {
  ScriptedHub hub;
  testsupport::WebServerOptions site;
  site.tls = false;
  testsupport::WebServer web(site);
  ASSERT_TRUE(web.Start());
  testsupport::WriteFile(web.root() + "/camera.muz", camsim::MakeImage(205, 100000));
  testsupport::WriteFile(web.root() + "/other.bin", "not a camera image");
  const std::string mac = "0A0000000086";
  camsim::Behaviour b;
  b.reboot = milliseconds(100);
  camsim::Camera cam(Config(mac, "127.0.0.86"), Endpoint(hub.port()), b);
  StartAndConnect(cam, hub);
  auto upgrade = [&](const std::string& url) { SendUpgrade(hub, mac, url); };

  // what cannot be fetched, or is no image, is refused once the fetch has ended
  upgrade(web.Url("/missing.muz"));
  EXPECT_EQ(Bytes({0x01, 0x06, 0x00}), hub.Nth(command::kTypeAck, 0, 1).payload());
  EXPECT_NE(std::string::npos, cam.GetStats().upgrade_error.find("404"));
  upgrade(web.Url("/other.bin"));
  EXPECT_EQ(Bytes({0x01, 0x06, 0x00}), hub.Nth(command::kTypeAck, 0, 2).payload());
  EXPECT_NE(std::string::npos, cam.GetStats().upgrade_error.find("no camera image"));

  // an image: accepted, then the camera restarts and logs in with its version
  upgrade(web.Url("/camera.muz"));
  const Got ack = hub.Nth(command::kTypeAck, 0, 3);
  EXPECT_EQ(Bytes({0x01, 0x06, 0x01}), ack.payload());
  EXPECT_EQ(kHubMac, ack.dst);
  ASSERT_TRUE(cam.WaitUntil([](const camsim::Stats& s) { return s.logins == 2; }));
  const Got login = hub.Nth(command::kTypeLogin, 0, 2);
  EXPECT_EQ("000000000000", login.dst);  // a new connection's first login
  EXPECT_EQ(Bytes({0x00, 0x01, 0x00, 0x00, 0x05, 0x02, 0x00, 0x00}), login.payload());
  EXPECT_EQ(2, hub.Accepts());
  const camsim::Stats s = cam.GetStats();
  EXPECT_EQ(205, s.soft_ver);
  EXPECT_EQ(1, s.upgrades_done);
  EXPECT_EQ(3, s.upgrades);
  EXPECT_EQ(3,
            web.CountRequests([](const testsupport::WebRequest& r) { return r.method == "GET"; }));
}

TEST(Camsim, ACameraToldToFailRefusesUpgradesWithoutFetching) {
  ScriptedHub hub;
  const std::string mac = "0A0000000087";
  camsim::Behaviour b;
  b.fail_upgrade = true;
  camsim::Camera cam(Config(mac, "127.0.0.87"), Endpoint(hub.port()), b);
  StartAndConnect(cam, hub);
  SendUpgrade(hub, mac, "http://127.0.0.1:1/camera.muz");
  EXPECT_EQ(Bytes({0x01, 0x06, 0x00}), hub.Nth(command::kTypeAck, 0, 1).payload());
  EXPECT_EQ("told to fail", cam.GetStats().upgrade_error);
  EXPECT_EQ(1, hub.Accepts());
  EXPECT_EQ(203, cam.GetStats().soft_ver);
}

TEST(Camsim, ToolTakesCommandsOnStandardInput) {
  ScriptedHub hub;
  const std::string mac = "0A000000008B";
  const std::string wake = std::to_string(testsupport::FreePort());
  const std::string tool = testsupport::BinPath("tarvo-camsim");
  const std::string script = "printf 'battery " + mac + " 3650\\nsleep all\\nstatus\\nquit\\n' | " +
                             testsupport::ProgramForShell(tool) +
                             " --board '' --hub-ip 127.0.0.1 --camera-port " +
                             std::to_string(hub.port()) + " --wake-port " + wake + " --camera " +
                             mac + ",127.0.0.91,fw=204";
  testsupport::Process run({"/bin/sh", "-c", script}, {});
  EXPECT_EQ(0, run.Wait(std::chrono::seconds(20)));
  EXPECT_TRUE(run.HasLine("^" + mac + ": connect ok$")) << ::testing::PrintToString(run.Lines());
  EXPECT_TRUE(run.HasLine("^" + mac + ": battery ok$"));
  EXPECT_TRUE(
      run.HasLine("^" + mac + " 127.0.0.91 connected asleep .*vbat=3650 fw=204 upgrades=0/0$"));
  EXPECT_TRUE(run.HasLine("^\\[ *[0-9.]+\\] " + mac + " battery event sent, 3650 mV$"));
  const Got login = hub.Nth(command::kTypeLogin, 0, 1);
  EXPECT_EQ(Bytes({0x00, 0x01, 0x00, 0x00, 0x04, 0x02, 0x00, 0x00}), login.payload());
  _net_cmd_get_info_type info;
  const Got battery = hub.Nth(command::kTypeBatteryEvent, 0, 1);
  ASSERT_EQ(0, _net_cmd_get_info_type::Decode(battery.payload().data(), 34, &info));
  EXPECT_EQ(3650u, info.vbat);

  testsupport::Process help({tool, "--help"}, {});
  EXPECT_EQ(0, help.Wait());
  EXPECT_TRUE(help.HasLine("--camera MAC,IP\\[,KEY=VALUE\\]"));
  EXPECT_TRUE(help.HasLine("^  pir MAC "));
  EXPECT_TRUE(help.HasLine("^  battery MAC MV "));
  testsupport::Process bad({tool, "--camera", "0A00000000,127.0.0.91"}, {});
  EXPECT_EQ(2 << 8, bad.Wait());
  EXPECT_TRUE(bad.HasLine("not a MAC"));
}

}  // namespace
