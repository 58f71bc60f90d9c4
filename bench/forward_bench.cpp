// Forwarding one whole frame to four viewers (the fan-out of a live channel: the unit scan once,
// then per viewer the try-lock, the encryption into the video work buffer and the hand-off to
// the transport's send queue) against memcpy of the same bytes four times, for a 1080p key
// frame of about 150 KB and a P frame of about 20 KB. The encryption alone (scan once, encrypt
// four times) is timed in the same run, so what the hand-off to the transport costs shows. The
// viewers are real sessions of the open P2P transport on loopback, drained by threads of their own;
// batches are small enough that no send queue fills, and the forwarding is timed in this thread's
// processor time, so the transport's network thread and the viewers do not count.
#include <benchmark/benchmark.h>
#include <sodium.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>
#include <vector>

#include "benchsupport.h"
#include "benchtransport.h"
#include "camera/camera.h"
#include "camera/frame.h"
#include "camera/livechannel.h"
#include "camera/mediaframe.h"
#include "crypto/hubauth.h"
#include "crypto/stream_encrypt.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "viewer/p2pviewer.h"

namespace {

using benchsupport::AcceptSession;
using benchsupport::KeyedClient;
using benchsupport::kSlices;
using benchsupport::SlicedFrame;
using benchsupport::StartTransport;

constexpr int kViewers = 4;
constexpr size_t kKeyFrameBytes = 150 * 1024;
constexpr size_t kPFrameBytes = 20 * 1024;
const char kUid[] = "TARVOBENCH0000000001";
const char kPassword[] = "271828";

double ThreadSeconds() {
  timespec ts;
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<double>(ts.tv_sec) + static_cast<double>(ts.tv_nsec) * 1e-9;
}

// The hub's side with four viewers registered on one channel. Made once, never torn down.
struct Hub {
  p2p::Viewer viewers[kViewers];
  std::unique_ptr<client::Client> clients[kViewers];
  std::atomic<int64_t> received[kViewers];
  std::thread drains[kViewers];
  std::unique_ptr<channel::LiveChannel> channel;

  Hub() {
    if (sodium_init() < 0 || init_work_buffers() != 0) std::abort();
    const uint16_t port = StartTransport(kViewers, 12, kUid, kPassword);
    channel = std::make_unique<channel::LiveChannel>(
        std::make_shared<camera::Camera>("0A0B0C0D0E0F"), "02:1A:2B:3C:4D:5E");
    for (int i = 0; i < kViewers; i++) {
      p2p::Viewer& v = viewers[i];
      if (v.Connect("127.0.0.1", port, kUid, kPassword) != 0) std::abort();
      clients[i] = KeyedClient(AcceptSession([&v] { return v.Login("viewer", "x", 10000); }));
      received[i] = 0;
      drains[i] = std::thread([this, i] {
        p2p::ViewerFrame f;
        for (;;) {
          if (viewers[i].RecvFrame(&f, 1000) >= 0) received[i]++;
        }
      });
      drains[i].detach();
      channel->RegisteVideoForLiveClient(clients[i].get());
    }
  }

  // Waits until every viewer has received `count` frames.
  void WaitReceived(int64_t count) {
    for (int i = 0; i < kViewers; i++) {
      while (received[i].load() < count) std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
  }
};

Hub& TheHub() {
  static Hub* hub = new Hub();  // its threads run until the process ends
  return *hub;
}

void BM_ForwardToFourVsMemcpy(benchmark::State& state) {
  const bool key = state.range(0) != 0;
  Hub& hub = TheHub();
  const std::vector<uint8_t> frame = SlicedFrame(key ? kKeyFrameBytes : kPFrameBytes, key);
  std::vector<uint8_t> buffer(video::kFrameHeaderBytes + frame.size());
  std::memcpy(buffer.data() + video::kFrameHeaderBytes, frame.data(), frame.size());
  command::PutLe32(buffer.data(), static_cast<uint32_t>(frame.size()));
  const video::H264Frame whole(buffer.data());
  // Each copy to its own buffer, behind the header room as the encryption writes it.
  std::vector<std::vector<uint8_t>> copies(kViewers,
                                           std::vector<uint8_t>(frame.size() + kVideoHeaderRoom));
  // Frames a batch: at most about 600 KB per viewer queue, inside its 1.5 MiB.
  const int batch = key ? 4 : 16;
  int64_t sent = hub.received[0].load();
  double forward_s = 0, copy_s = 0, encrypt_s = 0;
  std::vector<unsigned char> work(kVideoWorkCapacity + kVideoHeaderRoom);
  crypto_nalu_info nalu{};
  unsigned char stream_key[32];
  randombytes_buf(stream_key, sizeof(stream_key));
  for (auto _ : state) {
    hub.WaitReceived(sent);
    const auto w0 = std::chrono::steady_clock::now();
    const double t0 = ThreadSeconds();
    for (int i = 0; i < batch; i++) hub.channel->FanOutVideoFrame(whole);
    const double t1 = ThreadSeconds();
    const auto w1 = std::chrono::steady_clock::now();
    for (int i = 0; i < batch; i++) {
      for (auto& c : copies) {
        std::memcpy(c.data() + VideoHeaderBytes(kSlices), frame.data(), frame.size());
      }
      benchmark::ClobberMemory();
    }
    const double t2 = ThreadSeconds();
    // The encryption part alone: the unit scan once, then one encryption per viewer.
    for (int i = 0; i < batch; i++) {
      get_nalu_info(frame.data(), static_cast<unsigned>(frame.size()), &nalu);
      for (int v = 0; v < kViewers; v++) {
        unsigned out_len = 0;
        video_chacha20_encrypt(frame.data(), static_cast<unsigned>(frame.size()), stream_key,
                               &out_len, &nalu, work.data(), work.size());
        benchmark::DoNotOptimize(out_len);
      }
      benchmark::ClobberMemory();
    }
    const double t3 = ThreadSeconds();
    forward_s += t1 - t0;
    copy_s += t2 - t1;
    encrypt_s += t3 - t2;
    sent += batch;
    state.SetIterationTime(std::chrono::duration<double>(w1 - w0).count());
  }
  hub.WaitReceived(sent);
  const double frames = static_cast<double>(state.iterations()) * batch;
  state.counters["forward_us"] = forward_s / frames * 1e6;
  state.counters["memcpy4_us"] = copy_s / frames * 1e6;
  state.counters["encrypt4_us"] = encrypt_s / frames * 1e6;
  state.counters["ratio"] = forward_s / copy_s;
  state.counters["encrypt_ratio"] = encrypt_s / copy_s;
  state.SetBytesProcessed(static_cast<int64_t>(frames * kViewers * frame.size()));
  state.SetLabel(key ? "key frame 150 KB, 4 viewers" : "P frame 20 KB, 4 viewers");
}
BENCHMARK(BM_ForwardToFourVsMemcpy)->Arg(1)->Arg(0)->UseManualTime();

}  // namespace
