// The hub's added latency on loopback with four viewers: from the moment the camera hands the
// last byte of a frame to its TCP connection to the moment the first byte of that frame
// reaches each viewer's socket. The hub side is the daemon's own path: the libev loop on a
// thread of its own reads the camera's connection into a live channel, which reassembles the
// frame, encrypts it per viewer and hands it to the open P2P transport, whose network thread
// writes it to the viewers. The viewers are plain sockets speaking the transport's messages,
// so the first byte's arrival is seen as it happens. One frame at a time: the next frame goes
// out once all four viewers have the last one whole. Reported per frame kind: p50 and p99 over
// all viewer deliveries, and of the slowest viewer of each frame.
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <random>
#include <thread>
#include <vector>

#include "benchsupport.h"
#include "benchtransport.h"
#include "camera/camera.h"
#include "camera/livechannel.h"
#include "camsim/camsimwire.h"
#include "core/eventloop.h"
#include "crypto/hubauth.h"
#include "crypto/stream_encrypt.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "p2p/wire.h"

namespace {

using benchsupport::AcceptSession;
using benchsupport::FreePort;
using benchsupport::KeyedClient;
using benchsupport::StartTransport;

using Clock = std::chrono::steady_clock;
namespace wire = p2p::wire;

constexpr int kViewers = 4;
constexpr int kFramesPerKind = 300;
const char kUid[] = "TARVOLATENCY00000001";
const char kPassword[] = "161803";
const uint8_t kCamAddr[6] = {0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};

std::vector<uint8_t> Frame(size_t bytes, bool key, unsigned seed) {
  std::mt19937 random(seed);
  std::vector<uint8_t> f = {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41)};
  while (f.size() < bytes) f.push_back(static_cast<uint8_t>(1 + random() % 255));
  return f;
}

int Connect(uint16_t port) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  if (connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0) std::abort();
  return fd;
}

void SendAll(int fd, const uint8_t* p, size_t n) {
  while (n > 0) {
    const ssize_t r = send(fd, p, n, MSG_NOSIGNAL);
    if (r <= 0) std::abort();
    p += r;
    n -= static_cast<size_t>(r);
  }
}

// A viewer as bytes on a socket: it logs in, then notes when each video message's first byte
// arrives and when the message is whole, and pings the hub now and then.
class RawViewer {
 public:
  explicit RawViewer(uint16_t port) : fd_(Connect(port)) {}

  // Session request and AV login; the hub's side is run by the caller meanwhile.
  void Hello() {
    wire::Hello h;
    h.uid = kUid;
    h.password = kPassword;
    Write(wire::EncodeHello(h));
    wire::Message m;
    if (!Read(&m) || m.type != static_cast<uint8_t>(wire::MsgType::kHelloResult)) std::abort();
    Write(wire::EncodeLogin(wire::MsgType::kAvLogin, 0, "viewer", "x"));
  }
  void WaitLogin() {
    wire::Message m;
    if (!Read(&m) || m.type != static_cast<uint8_t>(wire::MsgType::kAvLoginResult)) std::abort();
  }

  void Start() {
    thread_ = std::thread([this] { Run(); });
  }

  int64_t whole() const { return whole_.load(); }
  // First-byte time of video message k.
  Clock::time_point first(size_t k) {
    std::lock_guard<std::mutex> lock(mu_);
    return firsts_[k];
  }

 private:
  void Write(const std::vector<uint8_t>& b) { SendAll(fd_, b.data(), b.size()); }
  bool Read(wire::Message* m) {
    for (;;) {
      if (decoder_.Next(m) == wire::Decoder::kMessage) return true;
      uint8_t buf[65536];
      const ssize_t n = recv(fd_, buf, sizeof(buf), 0);
      if (n <= 0) return false;
      decoder_.Feed(buf, static_cast<size_t>(n));
    }
  }
  void Run() {
    std::vector<uint8_t> buf(1 << 20);
    Clock::time_point last_ping = Clock::now();
    bool in_message = false;
    for (;;) {
      pollfd p{fd_, POLLIN, 0};
      const int ready = poll(&p, 1, 1000);
      const Clock::time_point now = Clock::now();
      if (now - last_ping > std::chrono::seconds(2)) {
        Write(wire::EncodeEmpty(wire::MsgType::kPing, 0));
        last_ping = now;
      }
      if (ready <= 0) continue;
      const ssize_t n = recv(fd_, buf.data(), buf.size(), 0);
      if (n <= 0) return;
      if (!in_message) {
        std::lock_guard<std::mutex> lock(mu_);
        firsts_.push_back(now);
        in_message = true;
      }
      decoder_.Feed(buf.data(), static_cast<size_t>(n));
      wire::Message m;
      while (decoder_.Next(&m) == wire::Decoder::kMessage) {
        if (m.type != static_cast<uint8_t>(wire::MsgType::kVideo)) continue;
        whole_++;
        in_message = decoder_.buffered() > 0;
        if (in_message) {
          std::lock_guard<std::mutex> lock(mu_);
          firsts_.push_back(now);
        }
      }
    }
  }

  const int fd_;
  wire::Decoder decoder_{wire::Reader::kViewer};
  std::thread thread_;
  std::mutex mu_;
  std::vector<Clock::time_point> firsts_;
  std::atomic<int64_t> whole_{0};
};

// The hub's side: transport, four viewers on one live channel, the camera's connection read by
// the event loop. Made once, never torn down.
struct Hub {
  std::unique_ptr<RawViewer> viewers[kViewers];
  std::unique_ptr<client::Client> clients[kViewers];
  std::shared_ptr<channel::LiveChannel> channel;
  int camera_fd = -1;
  uint16_t seq = 0;
  std::vector<uint8_t> piece = std::vector<uint8_t>(camsim::kMaxCameraFrame);
  int64_t sent = 0;

  Hub() {
    if (sodium_init() < 0 || init_work_buffers() != 0) std::abort();
    const uint16_t port = StartTransport(kViewers, 12, kUid, kPassword);
    channel = std::make_shared<channel::LiveChannel>(
        std::make_shared<camera::Camera>("0A0B0C0D0E0F"), "02:1A:2B:3C:4D:5E");
    for (int i = 0; i < kViewers; i++) {
      viewers[i] = std::make_unique<RawViewer>(port);
      viewers[i]->Hello();
      clients[i] = KeyedClient(AcceptSession([&] {
        viewers[i]->WaitLogin();
        return 0;
      }));
      viewers[i]->Start();
      channel->RegisteVideoForLiveClient(clients[i].get());
    }

    // The camera's TCP connection, handed to the channel on the loop thread.
    const uint16_t camera_port = FreePort();
    const int listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(camera_port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    if (bind(listener, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 || listen(listener, 1)) {
      std::abort();
    }
    camera_fd = Connect(camera_port);
    // The last byte goes out on its own at once; without this Nagle would hold it back until
    // the hub acknowledged the rest, which is the camera's stack, not the hub.
    const int one = 1;
    setsockopt(camera_fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one));
    const int hub_fd = accept(listener, nullptr, nullptr);
    close(listener);
    eventloop::Loop();  // made here, before its thread runs it
    std::thread([] { eventloop::Run(); }).detach();
    std::shared_ptr<channel::LiveChannel> ch = channel;
    eventloop::RunInLoop([ch, hub_fd] { ch->InitConnect(hub_fd); });
  }

  // Sends frame `index` in pieces, the very last byte on its own; returns the time just before
  // that byte is handed to the socket.
  Clock::time_point SendFrame(const std::vector<uint8_t>& frame, uint32_t index) {
    camsim::VideoFrameHeader h;
    h.length = static_cast<uint32_t>(frame.size());
    h.index = index;
    const int total = camsim::PieceCount(frame.size());
    Clock::time_point last;
    for (int p = 1; p <= total; p++) {
      camsim::Origin o;
      o.camera = kCamAddr;
      o.seq = seq++;
      const int size =
          camsim::BuildVideoPiece(piece.data(), piece.size(), o, h, frame.data(), p, total);
      if (size <= 0) std::abort();
      if (p < total) {
        SendAll(camera_fd, piece.data(), static_cast<size_t>(size));
      } else {
        SendAll(camera_fd, piece.data(), static_cast<size_t>(size) - 1);
        last = Clock::now();
        SendAll(camera_fd, piece.data() + size - 1, 1);
      }
    }
    return last;
  }

  void WaitWhole(int64_t count) {
    for (auto& v : viewers) {
      while (v->whole() < count) std::this_thread::sleep_for(std::chrono::microseconds(20));
    }
  }
};

Hub& TheHub() {
  static Hub* hub = new Hub();
  return *hub;
}

double Percentile(std::vector<double> v, double q) {
  std::sort(v.begin(), v.end());
  const size_t i = std::min(v.size() - 1, static_cast<size_t>(q * static_cast<double>(v.size())));
  return v[i];
}

void BM_HubLatencyFourViewers(benchmark::State& state) {
  const bool key = state.range(0) != 0;
  Hub& hub = TheHub();
  std::vector<double> all, slowest;
  for (auto _ : state) {
    for (int k = 0; k < kFramesPerKind; k++) {
      const std::vector<uint8_t> frame = Frame(key ? 150 * 1024 : 20 * 1024, key, k);
      const size_t message = static_cast<size_t>(hub.sent);
      const uint32_t index = static_cast<uint32_t>(hub.sent);  // the channel expects this one
      const Clock::time_point last = hub.SendFrame(frame, index);
      hub.sent++;
      hub.WaitWhole(hub.sent);
      double worst = 0;
      for (auto& v : hub.viewers) {
        const double us =
            std::chrono::duration<double, std::micro>(v->first(message) - last).count();
        all.push_back(us);
        worst = std::max(worst, us);
      }
      slowest.push_back(worst);
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
  state.counters["p50_us"] = Percentile(all, 0.50);
  state.counters["p99_us"] = Percentile(all, 0.99);
  state.counters["slowest_p50_us"] = Percentile(slowest, 0.50);
  state.counters["slowest_p99_us"] = Percentile(slowest, 0.99);
  state.counters["frames"] = static_cast<double>(slowest.size());
  state.SetLabel(key ? "key frame 150 KB, 4 viewers" : "P frame 20 KB, 4 viewers");
}
BENCHMARK(BM_HubLatencyFourViewers)->Arg(1)->Arg(0)->Iterations(1)->Unit(benchmark::kMillisecond);

}  // namespace
