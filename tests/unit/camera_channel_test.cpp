// A live channel over a socket pair: routing by address and type, the answers it stores, the
// sends and the queue while the camera sleeps, and the counters that end in disconnect_mac.
#include "camera/livechannel.h"

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <memory>
#include <sstream>
#include <string>
#include <vector>

#include "camera/cloudrequest.h"
#include "camera/command.h"
#include "core/utils.h"
#include "p2p/client.h"
#include "platform/board.h"
#include "platform/boardmaker.h"
#include "platform/uci.h"
#include "support/logcapture.h"
#include "support/testsupport.h"

namespace {

using Bytes = std::vector<uint8_t>;

const char kCam[] = "0A0B0C0D0E0F";
const char kHub[] = "021A2B3C4D5E";
const uint8_t kCamAddr[6] = {0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
const uint8_t kHubAddr[6] = {0x02, 0x1A, 0x2B, 0x3C, 0x4D, 0x5E};
const uint8_t kZero[6] = {0};

testsupport::TempDir* g_board = nullptr;

class BoardEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    g_board = new testsupport::TempDir();
    platform::BoardOptions layout;
    layout.mac = kHub;
    layout.cameras.push_back({kCam, ""});  // no ARP entry: UDP wakes end at once
    layout.force = true;
    std::string error;
    ASSERT_EQ(platform::MakeBoardRoot(g_board->path(), layout, &error), 0) << error;
    setenv("TARVO_ROOT", g_board->path().c_str(), 1);
  }
  void TearDown() override {
    delete g_board;  // no board root is left behind in the temporary folder
    g_board = nullptr;
  }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new BoardEnvironment);

std::atomic<int64_t> g_uptime{1000};
int64_t FakeUptime() {
  return g_uptime.load();
}

Bytes Frame(const uint8_t* dst, uint8_t type, uint8_t subtype, const Bytes& payload,
            const uint8_t* src = kCamAddr) {
  command::FrameFields f;
  f.src = src;
  f.dst = dst;
  f.type = type;
  f.subtype = subtype;
  Bytes out(payload.size() + 34);
  command::BuildFrame(out.data(), out.size(), f, payload.data(), payload.size());
  return out;
}

Bytes Info(uint32_t vbat, int8_t rssi, uint8_t pir, uint8_t night) {
  _net_cmd_get_info_type info;
  std::memcpy(info.mac, kCamAddr, 6);
  info.hard_ver = 0x101;
  info.soft_ver = 0x205;
  info.vbat = vbat;
  info.rssi = rssi;
  info.pir = pir;
  info.night = night;
  info.power = 1;
  Bytes out(34);
  info.Encode(out.data());
  return out;
}

std::string Config(const char* option) {
  char value[64] = {0};
  zcfg_uci_get((std::string("p2p.") + kCam + "." + option).c_str(), value, sizeof(value));
  return value;
}

int Disconnects() {
  std::ifstream in(platform::BoardPath("/sys/hub/ap_disconnect"));
  int count = 0;
  std::string line;
  while (std::getline(in, line)) count += line == kCam;
  return count;
}

struct FakeRecorder : channel::EventSink {
  std::atomic<bool> recording{false};
  std::atomic<int> events{0}, video{0}, audio{0}, stops{0}, forced{0};
  std::atomic<uint32_t> last_index{0};
  bool IsRecording() override { return recording.load(); }
  int HappenEvent() override {
    events++;
    recording = true;
    return 0;
  }
  void RecvEventVideo(const _net_cmd_type*) override {
    video++;
    last_index++;
  }
  void RecvEventAudio(const _net_cmd_type*) override { audio++; }
  uint32_t LastFrameIndex() override { return last_index.load(); }
  uint32_t EventStartTime() override { return 1700000000; }
  void StopEvent(uint32_t, int force) override {
    stops++;
    forced += force == 1;
    recording = false;
  }
};

class Channel : public ::testing::Test {
 protected:
  void SetUp() override {
    recorder = std::make_shared<FakeRecorder>();
    channel::SetSinkFactory([this](channel::LiveChannel&) { return channel::Sinks{recorder}; });
    auto cam = std::make_shared<camera::Camera>(kCam);
    cam->SetRecordLength(1);
    ch = std::make_unique<channel::LiveChannel>(cam, "02:1a:2b:3c:4d:5e");
    channel::SetSinkFactory({});
    ch->SetUptimeClock(&FakeUptime);
    Connect();
  }
  void TearDown() override {
    ch.reset();
    if (peer >= 0) close(peer);
  }

  void Connect() {
    int sv[2];
    ASSERT_EQ(socketpair(AF_UNIX, SOCK_STREAM, 0, sv), 0);
    if (peer >= 0) close(peer);
    peer = sv[1];
    ch->InitConnect(sv[0]);
  }

  // The camera sends bytes; the channel receives them as the loop would.
  void CameraSends(const Bytes& bytes) {
    ASSERT_EQ(send(peer, bytes.data(), bytes.size(), 0), static_cast<ssize_t>(bytes.size()));
    ch->RecvStreams();
  }

  // The next frame the hub sent, or an empty vector when none comes within a second.
  Bytes HubSent() {
    Bytes frame(32);
    struct pollfd p = {peer, POLLIN, 0};
    if (poll(&p, 1, 1000) != 1) return {};
    if (recv(peer, frame.data(), 32, MSG_WAITALL) != 32) return {};
    const size_t rest = command::AsFrame(frame.data())->Length() + 2u;
    frame.resize(32 + rest);
    if (recv(peer, frame.data() + 32, rest, MSG_WAITALL) != static_cast<ssize_t>(rest)) return {};
    return frame;
  }
  bool NothingSent() {
    struct pollfd p = {peer, POLLIN, 0};
    return poll(&p, 1, 50) == 0;
  }

  std::shared_ptr<FakeRecorder> recorder;
  std::unique_ptr<channel::LiveChannel> ch;
  int peer = -1;
};

TEST_F(Channel, LoginIsTakenUnaddressedAndHubAddressedOnly) {
  const Bytes login = {0x01, 0x01, 0, 0, 0x05, 0x02, 0, 0};
  CameraSends(Frame(kZero, 0xF1, 0, login));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 205);
  EXPECT_EQ(ch->camera().state(), camera::kStateLoggedIn);
  EXPECT_EQ(Config("version"), "205");

  const Bytes login2 = {0x02, 0x01, 0, 0, 0x06, 0x02, 0, 0};
  CameraSends(Frame(kHubAddr, 0xF1, 0, login2));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 206);

  uint8_t ack[6];
  command::AckIdAddress(5, ack);
  CameraSends(Frame(ack, 0xF1, 0, {0x09, 0x09, 0, 0, 0x09, 0x09, 0, 0}));
  const uint8_t other[6] = {0, 0, 0, 0, 0, 0xAA};
  CameraSends(Frame(other, 0xF1, 0, {0x09, 0x09, 0, 0, 0x09, 0x09, 0, 0}));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 206);

  // A short login payload is refused.
  CameraSends(Frame(kZero, 0xF1, 0, {0x09, 0x09, 0, 0}));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 206);
}

TEST_F(Channel, BatteryEventOnlyUnaddressedAndExactlyThirtyFourBytes) {
  testsupport::LogCapture log;
  Bytes info = Info(3900, -60, 1, 0);
  CameraSends(Frame(kHubAddr, 0x82, 0, info));
  EXPECT_EQ(ch->camera().GetStatus().battery, 0);
  Bytes longer = info;
  longer.push_back(0);
  CameraSends(Frame(kZero, 0x82, 0, longer));
  EXPECT_TRUE(log.Has("bat event len is error"));
  EXPECT_EQ(ch->camera().GetStatus().battery, 0);

  CameraSends(Frame(kZero, 0x82, 0, info));
  const camera::Status s = ch->camera().GetStatus();
  EXPECT_EQ(s.battery, 90);
  EXPECT_EQ(s.wifi, 2);
  EXPECT_EQ(Config("battery"), "90");
  EXPECT_EQ(Config("wifi"), "2");
}

TEST_F(Channel, PropertyReplyStoresValuesAndAnswersTheCloudOnce) {
  std::atomic<int> answers{0};
  cloudrequest::Answer got;
  ASSERT_TRUE(cloudrequest::CloudRequests().Add(4242, [&](const cloudrequest::Answer& a) {
    got = a;
    answers++;
  }));
  uint8_t ack[6];
  command::AckIdAddress(4242, ack);
  // Subtype 5 is no property reply, whatever the address.
  CameraSends(Frame(ack, 0x03, 5, Info(4100, -40, 2, 1)));
  CameraSends(Frame(kHubAddr, 0x03, 5, Info(4100, -40, 2, 1)));
  EXPECT_EQ(answers.load(), 0);
  EXPECT_EQ(ch->camera().GetStatus().battery, 0);
  // Too short: nothing stored, nobody answered.
  CameraSends(Frame(ack, 0x03, 0, Bytes(20, 1)));
  EXPECT_EQ(answers.load(), 0);

  CameraSends(Frame(ack, 0x03, 0, Info(4100, -40, 2, 1)));
  CameraSends(Frame(ack, 0x03, 0, Info(4100, -40, 2, 1)));
  EXPECT_EQ(answers.load(), 1);
  EXPECT_EQ(got.mac, kCam);
  EXPECT_EQ(got.status.battery, 100);
  EXPECT_EQ(got.status.wifi, 1);
  EXPECT_EQ(got.status.pir, 2);
  EXPECT_EQ(got.status.night, 1);
  EXPECT_EQ(got.status.hard_ver, 101);
}

TEST_F(Channel, AcknowledgementsOnlyWhenAddressedToTheHub) {
  testsupport::LogCapture log;
  ch->StartAVStream();
  EXPECT_EQ(HubSent()[28], 0x01);
  EXPECT_EQ(ch->StreamWait(), 1);
  CameraSends(Frame(kZero, 0x80, 0, {0x01, 0x02, 0x01}));
  EXPECT_EQ(ch->StreamWait(), 1);
  CameraSends(Frame(kHubAddr, 0x80, 0, {0x01, 0x02, 0x01}));
  EXPECT_EQ(ch->StreamWait(), 0);
  EXPECT_TRUE(log.Has(R"(This is live start ok\.\.\.)"));

  ch->SetVideoQuality(1);
  HubSent();
  // A failed quality change changes nothing and logs nothing.
  CameraSends(Frame(kHubAddr, 0x80, 0, {0x11, 0x02, 0x00}));
  EXPECT_EQ(ch->VideoWidth(), 1920);
  EXPECT_FALSE(log.Has("Set video quality to"));
  CameraSends(Frame(kHubAddr, 0x80, 0, {0x11, 0x02, 0x01}));
  EXPECT_EQ(ch->VideoWidth(), 1280);
  EXPECT_EQ(ch->VideoHeight(), 720);
  EXPECT_TRUE(log.Has("Set video quality to 1 success"));

  // Acknowledgements shorter than three bytes are refused.
  CameraSends(Frame(kHubAddr, 0x80, 0, {0x02, 0x11}));

  ch->SetCameraPir(3);
  HubSent();
  CameraSends(Frame(kHubAddr, 0x80, 0, {0x02, 0x11, 0x01}));
  EXPECT_EQ(ch->camera().GetStatus().pir, 3);
  EXPECT_EQ(Config("pir"), "3");
}

TEST_F(Channel, NightModeAckAnswersItsRequest) {
  std::atomic<int> result{-1};
  ASSERT_TRUE(cloudrequest::CloudRequests().Add(
      99, [&](const cloudrequest::Answer& a) { result = a.result; }));
  ch->SetCameraNightMode(99, 2);
  const Bytes sent = HubSent();
  ASSERT_EQ(sent.size(), 35u);
  EXPECT_EQ(Bytes(sent.begin() + 2, sent.begin() + 8), (Bytes{0x88, 0x88, 99, 0, 0, 0}));
  EXPECT_EQ(sent[32], 2);
  uint8_t ack[6];
  command::AckIdAddress(99, ack);
  CameraSends(Frame(ack, 0x80, 0, {0x11, 0x06, 0x01}));
  EXPECT_EQ(result.load(), 1);
  EXPECT_EQ(ch->camera().GetStatus().night, 2);
  EXPECT_EQ(Config("night"), "2");
}

TEST_F(Channel, VideoWithoutViewerStopsTheStream) {
  // One piece holding a whole 100-byte frame with index 0.
  Bytes piece(16400, 0);
  piece[0] = 100;
  const Bytes frame = {0, 0, 0, 1, 0x65};
  std::copy(frame.begin(), frame.end(), piece.begin() + 16);
  CameraSends(Frame(kZero, 0x8A, 0, piece));
  Bytes sent = HubSent();
  ASSERT_EQ(sent.size(), 34u);
  EXPECT_EQ(sent[28], 0x01);
  EXPECT_EQ(sent[29], 0x03);

  // A viewer on an AV channel the transport does not know: the frame and the audio reach the
  // sends, which fail without ending the viewer.
  testsupport::LogCapture log;
  client::Client viewer(0);
  viewer.SetAvIndex(0);
  ch->RegisteVideoForLiveClient(&viewer);
  CameraSends(Frame(kZero, 0x8A, 0, piece));
  CameraSends(Frame(kZero, 0x8A, 1, Bytes(328, 0xD5)));
  EXPECT_TRUE(log.Has("send video frame error: "));
  EXPECT_TRUE(log.Has("Send audio frame error: "));
  EXPECT_EQ(ch->LastFrameIndex(), 1u);
  EXPECT_TRUE(NothingSent());

  // Media addressed to the hub is not media.
  CameraSends(Frame(kHubAddr, 0x8A, 0, piece));
  EXPECT_EQ(ch->LastFrameIndex(), 1u);
  viewer.SetAvIndex(-1);
  ch->UnRegisteVideoForLiveClient(&viewer);
  EXPECT_EQ(HubSent()[29], 0x03);
}

TEST_F(Channel, MotionEventTakesTheMediaUntilItsLengthIsReached) {
  CameraSends(Frame(kHubAddr, 0x81, 0, {}));
  EXPECT_EQ(recorder->events.load(), 0);
  CameraSends(Frame(kZero, 0x81, 0, {}));
  EXPECT_EQ(recorder->events.load(), 1);

  const Bytes piece = Frame(kZero, 0x8A, 0, Bytes(1000, 0x33));
  for (int i = 0; i < 14; i++) CameraSends(piece);
  CameraSends(Frame(kZero, 0x8A, 1, Bytes(328, 0xD5)));
  EXPECT_EQ(recorder->video.load(), 14);
  EXPECT_EQ(recorder->audio.load(), 1);
  EXPECT_EQ(recorder->stops.load(), 0);
  EXPECT_TRUE(NothingSent());
  // One second recorded: the fifteenth frame ends the event, then stop and sleep go out.
  CameraSends(piece);
  EXPECT_EQ(recorder->stops.load(), 1);
  EXPECT_EQ(recorder->forced.load(), 0);
  Bytes stop = HubSent();
  Bytes sleep = HubSent();
  ASSERT_EQ(stop.size(), 34u);
  ASSERT_EQ(sleep.size(), 34u);
  EXPECT_EQ(stop[29], 0x03);
  EXPECT_EQ(sleep[29], 0x01);

  // A viewer's start of live view abandons a running event.
  CameraSends(Frame(kZero, 0x81, 0, {}));
  ch->StartAVStream();
  EXPECT_EQ(recorder->forced.load(), 1);
}

TEST_F(Channel, AwakeSendsAtOnceAsleepQueuesWakesAndReplaysAfterLogin) {
  CameraSends(Frame(kZero, 0x82, 0, Info(3900, -60, 0, 0)));
  g_uptime += 2;
  EXPECT_EQ(ch->GetCameraInfo(), 1);
  Bytes sent = HubSent();
  ASSERT_EQ(sent.size(), 34u);
  EXPECT_EQ(sent[28], 0x03);
  EXPECT_EQ(ch->QueuedCommands(), 0u);

  g_uptime += 1;  // three seconds since the last frame
  EXPECT_EQ(ch->SetCameraPir(1), 1);
  EXPECT_EQ(ch->ActionSleep(), 1);
  EXPECT_EQ(ch->QueuedCommands(), 2u);
  Bytes wake = HubSent();
  ASSERT_EQ(wake.size(), 34u);
  EXPECT_EQ(wake[28], 0xF0);
  EXPECT_EQ(command::AsFrame(wake.data())->Seq(), 0);
  EXPECT_EQ(HubSent()[28], 0xF0);
  EXPECT_TRUE(NothingSent());

  CameraSends(Frame(kZero, 0xF1, 0, {1, 0, 0, 0, 1, 0, 0, 0}));
  Bytes first = HubSent();
  Bytes second = HubSent();
  ASSERT_EQ(first.size(), 35u);
  EXPECT_EQ(first[28], 0x02);
  EXPECT_EQ(first[32], 1);
  EXPECT_EQ(second[28], 0x01);
  EXPECT_EQ(second[29], 0x01);
  EXPECT_EQ(ch->QueuedCommands(), 0u);
}

TEST_F(Channel, SameCommandWhileAsleepReplacesAndDisconnectsAtSixReplacements) {
  g_uptime += 10;
  const int before = Disconnects();
  for (int i = 0; i < 6; i++) ch->GetCameraInfo();
  EXPECT_EQ(ch->QueuedCommands(), 1u);
  EXPECT_EQ(ch->WakeReplacements(), 5);
  EXPECT_EQ(Disconnects(), before);
  ch->GetCameraInfo();
  EXPECT_EQ(ch->WakeReplacements(), 6);
  EXPECT_EQ(Disconnects(), before + 1);
  ch->ResetCamera();  // another kind of command is queued beside it
  EXPECT_EQ(ch->QueuedCommands(), 2u);
  // A login shows the camera woke: the count starts again.
  CameraSends(Frame(kZero, 0xF1, 0, {1, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_EQ(ch->WakeReplacements(), 0);
}

TEST_F(Channel, RefusedSendsDisconnectOnTheSixthAndStartAgain) {
  testsupport::LogCapture log;
  ch->CloseConnect();
  EXPECT_EQ(ch->camera().state(), camera::kStateLost);
  const int before = Disconnects();
  for (int i = 0; i < 5; i++) EXPECT_EQ(ch->ActionSleep(), -1);
  EXPECT_EQ(ch->SendFailures(), 5);
  EXPECT_EQ(Disconnects(), before);
  EXPECT_EQ(ch->ActionSleep(), -1);
  EXPECT_TRUE(log.Has("Camera don't connect more than 5, disconnet 0A0B0C0D0E0F"));
  EXPECT_EQ(Disconnects(), before + 1);
  EXPECT_EQ(ch->SendFailures(), 0);
}

TEST_F(Channel, HeartbeatByteIsKeptAndCostsTheNextFrame) {
  testsupport::LogCapture log;
  CameraSends(Bytes{0x00});
  EXPECT_TRUE(log.Has("recv 0A0B0C0D0E0F heartbeat len: 1"));
  CameraSends(Frame(kZero, 0xF1, 0, {0x01, 0x01, 0, 0, 0x05, 0x02, 0, 0}));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 0);
  CameraSends(Frame(kZero, 0xF1, 0, {0x01, 0x01, 0, 0, 0x05, 0x02, 0, 0}));
  EXPECT_EQ(ch->camera().GetStatus().soft_ver, 205);
}

TEST_F(Channel, NewConnectionReplacesTheOldAndADroppedLinkKeepsTheCameraWakeable) {
  const int old_peer = peer;
  peer = -1;
  Connect();
  char byte;
  EXPECT_EQ(recv(old_peer, &byte, 1, 0), 0);  // the old connection was shut down
  close(old_peer);
  EXPECT_TRUE(ch->IsConnected());

  // The camera closes its link (to sleep, or it lost it): nothing more is read from it, yet a
  // command is neither refused nor lost: it is queued and the camera woken.
  shutdown(peer, SHUT_WR);
  EXPECT_EQ(ch->RecvStreams(), 0);
  EXPECT_TRUE(ch->IsConnected());
  EXPECT_EQ(ch->camera().state(), camera::kStateConnected);
  ch->GetCameraInfo();
  EXPECT_EQ(ch->QueuedCommands(), 1u);
  EXPECT_EQ(ch->SendFailures(), 0);

  // It connects again and logs in: the queued command reaches it.
  Connect();
  CameraSends(Frame(kZero, 0xF1, 0, {1, 0, 0, 0, 1, 0, 0, 0}));
  EXPECT_TRUE(testsupport::WaitFor([&] { return ch->QueuedCommands() == 0; }));
  Bytes sent = HubSent();
  ASSERT_FALSE(sent.empty());
  EXPECT_EQ(command::AsFrame(sent.data())->type, command::kTypeProp);
  EXPECT_TRUE(testsupport::WaitFor([] { return channel::LiveChannel::ActiveUdpWakes() == 0; },
                                   std::chrono::seconds(10)));
}

TEST(ChannelSchedule, CoversDaySpansAndMidnight) {
  channel::Schedule all;
  EXPECT_TRUE(all.Covers(0));
  EXPECT_TRUE(all.Covers(1439));
  channel::Schedule day{8, 30, 18, 0, 1};
  EXPECT_FALSE(day.Covers(8 * 60 + 29));
  EXPECT_TRUE(day.Covers(8 * 60 + 30));
  EXPECT_FALSE(day.Covers(18 * 60));
  channel::Schedule night{22, 0, 6, 0, 1};
  EXPECT_TRUE(night.Covers(23 * 60));
  EXPECT_TRUE(night.Covers(60));
  EXPECT_FALSE(night.Covers(12 * 60));
}

}  // namespace
