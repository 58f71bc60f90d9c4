// The camera link under threads: the event loop receives while other threads send, queue and
// release; counters and the pending-request registry are shared. Run under ThreadSanitizer.
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <future>
#include <set>
#include <thread>
#include <vector>

#include "camera/cloudrequest.h"
#include "camera/command.h"
#include "camera/livechannel.h"
#include "core/eventloop.h"
#include "platform/boardmaker.h"
#include "support/testsupport.h"

namespace {

using Bytes = std::vector<uint8_t>;
const char kCam[] = "0A0B0C0D0E0F";
const char kHub[] = "021A2B3C4D5E";
const uint8_t kZero[6] = {0};

testsupport::TempDir* g_board = nullptr;
std::thread* g_loop = nullptr;

class LoopEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_board = new testsupport::TempDir();
    platform::BoardOptions layout;
    layout.mac = kHub;
    layout.cameras.push_back({kCam, ""});
    layout.force = true;
    std::string error;
    ASSERT_EQ(platform::MakeBoardRoot(g_board->path(), layout, &error), 0) << error;
    setenv("TARVO_ROOT", g_board->path().c_str(), 1);
    eventloop::Loop();
    g_loop = new std::thread([] { eventloop::Run(); });
  }
  void TearDown() override {
    eventloop::Stop();
    g_loop->join();
    delete g_board;  // no board root is left behind in the temporary folder
    g_board = nullptr;
  }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new LoopEnvironment);

// Runs fn on the loop thread and waits for it.
void OnLoop(std::function<void()> fn) {
  std::promise<void> done;
  eventloop::RunInLoop([&] {
    fn();
    done.set_value();
  });
  done.get_future().wait();
}

Bytes Frame(uint8_t type, const Bytes& payload) {
  command::FrameFields f;
  f.dst = kZero;
  f.type = type;
  Bytes out(payload.size() + 34);
  command::BuildFrame(out.data(), out.size(), f, payload.data(), payload.size());
  return out;
}

std::atomic<int64_t> g_uptime{5000};
int64_t FakeUptime() {
  return g_uptime.load();
}

TEST(CameraThreads, SequenceNumbersAreNotShared) {
  std::vector<std::thread> threads;
  std::vector<std::vector<uint16_t>> got(8);
  for (int t = 0; t < 8; t++) {
    threads.emplace_back([&got, t] {
      for (int i = 0; i < 1000; i++) got[t].push_back(command::NextSeq());
    });
  }
  for (auto& th : threads) th.join();
  std::set<uint16_t> all;
  for (const auto& v : got) all.insert(v.begin(), v.end());
  EXPECT_EQ(all.size(), 8000u);
}

TEST(CameraThreads, RequestAnsweredOnceUnderRace) {
  cloudrequest::PendingRequests reg(std::chrono::seconds(30));
  std::atomic<int> calls{0};
  for (uint32_t id = 0; id < 50; id++) {
    ASSERT_TRUE(reg.Add(id, [&](const cloudrequest::Answer&) { calls++; }));
  }
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&] {
      for (uint32_t id = 0; id < 50; id++) reg.Complete(id, cloudrequest::Answer());
      reg.Expire();
    });
  }
  for (auto& th : threads) th.join();
  EXPECT_EQ(calls.load(), 50);
}

TEST(CameraThreads, SendersQueueAndReleaseWhileTheLoopReceives) {
  auto cam = std::make_shared<camera::Camera>(kCam);
  auto ch = std::make_shared<channel::LiveChannel>(cam, kHub);
  ch->SetUptimeClock(&FakeUptime);
  int sv[2];
  ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
  const int peer = sv[1];
  OnLoop([&] { ch->InitConnect(sv[0]); });

  // The camera side drains everything the hub sends until the hub closes.
  std::atomic<size_t> received{0};
  std::thread reader([&] {
    uint8_t buf[4096];
    ssize_t n;
    while ((n = recv(peer, buf, sizeof(buf), 0)) > 0) received += static_cast<size_t>(n);
  });

  // Four threads send while the camera streams battery events; some commands find the camera
  // asleep and are queued, then a login replays them.
  std::vector<std::thread> senders;
  for (int t = 0; t < 4; t++) {
    senders.emplace_back([&, t] {
      for (int i = 0; i < 20; i++) {
        if (i == 10 && t == 0) g_uptime += 10;
        ch->SetCameraPir(t);
        ch->GetCameraInfo();
        (void)ch->QueuedCommands();
        (void)ch->camera().GetStatus();
      }
    });
  }
  _net_cmd_get_info_type info;
  info.vbat = 3900;
  Bytes battery(34);
  info.Encode(battery.data());
  for (int i = 0; i < 50; i++) {
    const Bytes f = Frame(0x82, battery);
    ASSERT_EQ(send(peer, f.data(), f.size(), 0), static_cast<ssize_t>(f.size()));
  }
  for (auto& th : senders) th.join();
  const Bytes login = Frame(0xF1, {1, 0, 0, 0, 1, 0, 0, 0});
  ASSERT_EQ(send(peer, login.data(), login.size(), 0), static_cast<ssize_t>(login.size()));
  EXPECT_TRUE(testsupport::WaitFor([&] { return ch->QueuedCommands() == 0; }));
  EXPECT_TRUE(testsupport::WaitFor([&] { return cam->GetStatus().battery == 90; }));

  // Released from this thread: the loop closes the connection, the camera sees the end.
  channel::LiveChannel::Release(ch);
  ch.reset();
  reader.join();
  EXPECT_GT(received.load(), 0u);
  EXPECT_TRUE(testsupport::WaitFor([&] { return cam->state() == camera::kStateLost; }));
  close(peer);
  EXPECT_TRUE(testsupport::WaitFor([] { return channel::LiveChannel::ActiveUdpWakes() == 0; }));
}

}  // namespace
