// Talk-back and live stop through the hub on a real P2P session on loopback. A viewer serves a
// talk-back channel, the media server of this process joins it on the viewer's start message and
// forwards the audio frames to the viewer's camera. The camera is not connected, so each frame
// that reaches its channel is logged as refused there: the lines count the forwarded frames.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "p2p/transport.h"
#include "p2p/wire.h"
#include "server/iotypes.h"
#include "server/mediaserver.h"
#include "support/mediaserverenv.h"
#include "support/p2psession.h"
#include "support/testsupport.h"
#include "viewer/p2pviewer.h"

namespace {

using testsupport::WaitFor;

const char kCam[] = "0A00000000A1";
const char kUid[] = "TARVOTESTUID00000003";
const char kPassword[] = "004217";
constexpr int kWait = 10000;  // ms: only ever reached when something is wrong

const auto* const g_env =
    ::testing::AddGlobalTestEnvironment(new testsupport::MediaServerEnvironment({kCam}));

class Talkback : public ::testing::Test {
 protected:
  void SetUp() override {
    tlog::SetCaptureSink([this](int, const std::string& text) {
      std::lock_guard<std::mutex> lock(mutex_);
      lines_.push_back(text);
    });
    port_ = testsupport::StartHubTransport(kUid, kPassword, 8);
    ASSERT_NE(0, port_);
  }
  void TearDown() override {
    viewer_.Close();
    testsupport::StopHubTransport();
    tlog::SetCaptureSink({});
  }

  // A session of the viewer without any AV channel yet: the hub's session ID.
  int Open() {
    EXPECT_EQ(0, viewer_.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
    return testsupport::ListenForSession(kWait);
  }
  void Handle(int sid, uint32_t type, std::vector<char> payload, int av = 0) {
    payload.resize(1025, '\0');
    testsupport::MediaServerEnvironment::server()->Handle_IOCTRL_Cmd(sid, av, payload.data(),
                                                                     static_cast<int>(type));
  }
  size_t Count(const std::string& piece) {
    std::lock_guard<std::mutex> lock(mutex_);
    size_t n = 0;
    for (const auto& l : lines_) n += l.find(piece) != std::string::npos;
    return n;
  }

  uint16_t port_ = 0;
  p2p::Viewer viewer_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// The hub's talk-back is its only AV channel of the session here, so it is AV index 0.
TEST_F(Talkback, EveryFrameButEachTenthReachesTheCameraUntilTheViewerStops) {
  const int sid = Open();
  ASSERT_GE(sid, 0);
  client::Client* client = testsupport::MediaServerEnvironment::server()->GetClient(sid);
  ASSERT_NE(nullptr, client);
  client->SetCamera(kCam);
  ASSERT_EQ(0, viewer_.OpenTalkback(5));
  Handle(sid, server::IOTYPE_USER_IPCAM_SPEAKERSTART, {5, 0, 0, 0});
  ASSERT_EQ(0, viewer_.WaitTalkback(5, kWait));
  EXPECT_EQ(1, client->talking());

  const std::string refused = std::string("Camera ") + kCam + " tcp can't connected";
  const std::vector<uint8_t> samples(160, 0x55);
  const uint8_t info[16] = {0};
  auto send = [&] {
    return viewer_.SendAudio(5, info, sizeof info, samples.data(), samples.size()) == 0;
  };
  // Frames that come before the hub reads are cleared when it starts: one at a time until the
  // first reaches the camera. Every frame sent until then is gone or forwarded.
  int sent = 0;
  while (Count(refused) == 0 && sent < 60) {
    ASSERT_TRUE(send());
    ++sent;
    WaitFor([&] { return Count(refused) > 0; }, std::chrono::milliseconds(200));
  }
  ASSERT_EQ(1u, Count(refused));
  // From now on every frame but those numbered 0, 10, 20, ... goes on, none is lost.
  size_t expected = 1;
  for (int number = sent; number < sent + 25; ++number) {
    ASSERT_TRUE(send());
    expected += number % 10 != 0;
  }
  EXPECT_TRUE(WaitFor([&] { return Count(refused) >= expected; }, std::chrono::milliseconds(kWait)))
      << Count(refused) << " of " << expected;

  Handle(sid, server::IOTYPE_USER_IPCAM_SPEAKERSTOP,
         {'{', '"', 'm', 'a', 'c', '"', ':', '"', '0', 'A', '0',
          '0', '0', '0', '0', '0', '0', '0', 'A', '1', '"', '}'});
  EXPECT_EQ(0, client->talking());
  // The hub leaves the channel: the viewer's frames are refused from then on.
  EXPECT_TRUE(WaitFor(
      [&] {
        return viewer_.SendAudio(5, info, sizeof info, samples.data(), samples.size()) ==
               AV_ER_CLIENT_NO_AVLOGIN;
      },
      std::chrono::milliseconds(kWait)));
  EXPECT_EQ(expected, Count(refused));
  if (HasFailure()) {
    std::lock_guard<std::mutex> lock(mutex_);
    for (const auto& l : lines_) std::printf("%s\n", l.c_str());
  }
}

// A peer may send what no viewer library does: an empty talk-back frame goes on like any other
// and does not end talk-back.
TEST_F(Talkback, AnEmptyFrameFromAHandDrivenPeerDoesNotEndTalkback) {
  const int fd = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(fd, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_port = htons(port_);
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  ASSERT_EQ(0, connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a));
  auto write = [fd](const std::vector<uint8_t>& bytes) {
    return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == static_cast<ssize_t>(bytes.size());
  };
  p2p::wire::Hello hello;
  hello.uid = kUid;
  hello.password = kPassword;
  ASSERT_TRUE(write(p2p::wire::EncodeHello(hello)));
  const int sid = testsupport::ListenForSession(kWait);
  ASSERT_GE(sid, 0);
  client::Client* client = testsupport::MediaServerEnvironment::server()->GetClient(sid);
  ASSERT_NE(nullptr, client);
  client->SetCamera(kCam);
  Handle(sid, server::IOTYPE_USER_IPCAM_SPEAKERSTART, {6, 0, 0, 0});
  // The hub joins channel 6; the peer says yes.
  p2p::wire::Decoder decoder(p2p::wire::Reader::kViewer);
  bool joined = false;
  while (!joined) {
    p2p::wire::Message m;
    while (!joined && decoder.Next(&m) == p2p::wire::Decoder::kMessage)
      joined = m.type == static_cast<uint8_t>(p2p::wire::MsgType::kClientLogin) && m.channel == 6;
    if (joined) break;
    pollfd p{fd, POLLIN, 0};
    ASSERT_EQ(1, poll(&p, 1, kWait));
    uint8_t buf[4096];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    ASSERT_GT(n, 0);
    decoder.Feed(buf, static_cast<size_t>(n));
  }
  ASSERT_TRUE(write(p2p::wire::EncodeLoginResult(p2p::wire::MsgType::kClientLoginResult, 6, {})));

  const std::string refused = std::string("Camera ") + kCam + " tcp can't connected";
  const std::vector<uint8_t> samples(160, 0x55);
  const uint8_t info[16] = {0};
  uint32_t number = 1;
  while (Count(refused) == 0 && number < 60) {
    ASSERT_TRUE(write(p2p::wire::EncodeFrame(p2p::wire::MsgType::kAudio, 6, number++, info,
                                             sizeof info, samples.data(), samples.size())));
    WaitFor([&] { return Count(refused) > 0; }, std::chrono::milliseconds(200));
  }
  ASSERT_EQ(1u, Count(refused));
  if (number % 10 == 0) ++number;  // neither of the next two is left out
  if ((number + 1) % 10 == 0) number += 2;
  ASSERT_TRUE(write(
      p2p::wire::EncodeFrame(p2p::wire::MsgType::kAudio, 6, number++, info, sizeof info, "", 0)));
  ASSERT_TRUE(write(p2p::wire::EncodeFrame(p2p::wire::MsgType::kAudio, 6, number++, info,
                                           sizeof info, samples.data(), samples.size())));
  EXPECT_TRUE(WaitFor([&] { return Count(refused) == 3; }, std::chrono::milliseconds(kWait)))
      << Count(refused);
  EXPECT_EQ(1, client->talking());
  // Talk-back ends before the transport does: its thread leaves the channel it joined.
  client->SetTalking(0);
  EXPECT_TRUE(WaitFor([&] { return Count("[thread_ReceiveAudio] exit sid: ") > 0; },
                      std::chrono::milliseconds(kWait)));
  close(fd);
}

// Live stop takes back what the hub still holds for the viewer: the frames queued behind a
// viewer that stopped reading are dropped, not delivered after the stop.
TEST_F(Talkback, ALiveStopDropsTheFramesTheViewerHasNotBeenSent) {
  const auto session = testsupport::AcceptViewer(
      viewer_, port_, kUid, kPassword, "v", "x", [](char*, char*) { return 1; }, kWait);
  const int sid = session.sid;
  const int av = session.av;
  ASSERT_GE(av, 0);
  client::Client* client = testsupport::MediaServerEnvironment::server()->GetClient(sid);
  ASSERT_NE(nullptr, client);
  client->SetAvIndex(av);
  // The viewer reads nothing: its library stops taking frames at its limit, the socket fills,
  // then the hub's queue for it.
  const std::vector<char> frame(100000, 0x41);
  const uint8_t info[28] = {0x4E};
  // Full, and staying full: no frame has found room for half a second (the hub's writer can
  // put nothing more on the socket), so the hub holds frames the viewer has not been sent.
  int queued = 0;
  auto last_taken = std::chrono::steady_clock::now();
  while (std::chrono::steady_clock::now() - last_taken < std::chrono::milliseconds(500)) {
    const int rc =
        avSendFrameData(av, frame.data(), static_cast<int>(frame.size()), info, sizeof info);
    if (rc == 0) {
      ++queued;
      last_taken = std::chrono::steady_clock::now();
    } else {
      ASSERT_EQ(AV_ER_EXCEED_MAX_SIZE, rc);
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    ASSERT_LT(queued, 10000);
  }
  std::string stop = std::string("{\"mac\":\"") + kCam + "\"}";
  Handle(sid, 0x2FF, std::vector<char>(stop.begin(), stop.end()), av);
  int delivered = 0;
  p2p::ViewerFrame f;
  while (viewer_.RecvFrame(&f, 500) >= 0) ++delivered;
  EXPECT_LT(delivered, queued);
  client->SetAvIndex(-1);
}

}  // namespace
