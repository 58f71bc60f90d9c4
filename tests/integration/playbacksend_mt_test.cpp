// The senders of recording playback on a media server of this process: a viewer logged in over
// the real P2P transport (loopback) receives the play's messages and frames, encrypted with its
// own stream key and described as live view describes them; a busy viewer is told busy, and
// what cannot be sent is refused.
#include <gtest/gtest.h>
#include <sodium.h>

#include <cstdlib>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "crypto/hubauth.h"
#include "crypto/stream_encrypt.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "server/mediaserver.h"
#include "server/playbacksend.h"
#include "support/logcapture.h"
#include "support/mediaserverenv.h"
#include "support/p2psession.h"
#include "support/testsupport.h"
#include "viewer/p2pviewer.h"
#include "viewer/viewerframe.h"

namespace {

using Bytes = std::vector<uint8_t>;
using testsupport::WaitFor;

const char kUid[] = "TARVOTESTUID00000005";
const char kPassword[] = "271828";
constexpr int kWait = 10000;  // ms; reached only when something is wrong

int AcceptAll(char*, char*) {
  return 1;
}

// An Annex B frame of n bytes: one slice (IDR for a key frame) with bytes that never form a
// start code.
Bytes MakeFrame(size_t n, bool key) {
  Bytes f(n);
  f[3] = 1;
  f[4] = key ? 0x65 : 0x41;
  for (size_t i = 5; i < n; i++) f[i] = static_cast<uint8_t>(1 + (i * 37) % 255);
  return f;
}

// The server of a hub without cameras, with the stream encryption ready.
class ServerEnvironment : public testsupport::MediaServerEnvironment {
 public:
  void SetUp() override {
    ASSERT_GE(sodium_init(), 0);
    ASSERT_EQ(0, init_work_buffers());
    MediaServerEnvironment::SetUp();
  }
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new ServerEnvironment);

class PlaybackSend : public ::testing::Test {
 protected:
  void SetUp() override {
    port_ = testsupport::StartHubTransport(kUid, kPassword, 8);
    ASSERT_NE(0, port_);
    const auto session =
        testsupport::AcceptViewer(viewer_, port_, kUid, kPassword, "v", "x", AcceptAll, kWait);
    sid_ = session.sid;
    const int av = session.av;
    ASSERT_GE(av, 0);
    client_ = server_play.load()->GetClient(sid_);
    ASSERT_NE(nullptr, client_);
    client_->SetAvIndex(av);
    randombytes_buf(key_, sizeof(key_));
    ASSERT_EQ(0, client_encrypt_info.Set(sid_, key_));
  }
  void TearDown() override {
    if (client_ != nullptr) client_->SetAvIndex(-1);
    viewer_.Close();
    testsupport::StopHubTransport();
  }

  // The viewer's next frame decrypted, with its frame information.
  bool Receive(bool* video, Bytes* plain, viewer::FrameInfo* info) {
    p2p::ViewerFrame f;
    if (viewer_.RecvFrame(&f, kWait) < 0) return false;
    *video = f.video;
    if (viewer::ParseFrameInfo(f.info, info) != 0) return false;
    return viewer::DecryptFrame(f, key_, plain) == 0;
  }

  uint16_t port_ = 0;
  p2p::Viewer viewer_;
  int sid_ = -1;
  client::Client* client_ = nullptr;
  unsigned char key_[32];
};

TEST_F(PlaybackSend, FramesAndMessagesReachTheViewerEncryptedAndDescribed) {
  testsupport::LogCapture log;
  const Bytes message = {1, 2, 3, 4, 5};
  EXPECT_EQ(playback::kSent, server::PlaybackSendCommand(sid_, 0x200, message.data(), 5));
  p2p::ViewerIoCtrl io;
  ASSERT_GE(viewer_.RecvIoCtrl(&io, kWait), 0);
  EXPECT_EQ(0x200u, io.type);
  EXPECT_EQ(message, io.data);

  for (const bool key : {true, false}) {
    const Bytes frame = MakeFrame(key ? 3000 : 700, key);
    playback::Frame f;
    f.data = frame.data();
    f.size = frame.size();
    f.key = key;
    f.index = key ? 0 : 1;
    f.width = 1920;
    f.height = 1080;
    f.seconds = 1700000001;
    f.milliseconds = key ? 0 : 66;
    ASSERT_EQ(playback::kSent, server::PlaybackSendVideo(sid_, f));
    bool video = false;
    Bytes plain;
    viewer::FrameInfo info;
    ASSERT_TRUE(Receive(&video, &plain, &info));
    EXPECT_TRUE(video);
    EXPECT_TRUE(plain == frame);
    EXPECT_TRUE(info.encrypted);
    EXPECT_EQ(key, info.key_frame);  // told by the frame's first unit
    EXPECT_EQ(1, info.viewers);
    EXPECT_EQ(f.index, info.frame_index);
    EXPECT_EQ(1920, info.width);
    EXPECT_EQ(1080, info.height);
    EXPECT_EQ(1700000001u, info.seconds);
    EXPECT_EQ(f.milliseconds, info.milliseconds);
  }

  // A frame without a start code lists no unit: it still goes out whole, and that (only that)
  // is logged.
  const Bytes odd(500, 0x41);
  playback::Frame o;
  o.data = odd.data();
  o.size = odd.size();
  ASSERT_EQ(playback::kSent, server::PlaybackSendVideo(sid_, o));
  {
    bool video = false;
    Bytes plain;
    viewer::FrameInfo info;
    ASSERT_TRUE(Receive(&video, &plain, &info));
    EXPECT_TRUE(plain == odd);
  }
  EXPECT_EQ(1, log.Count(": playback: get nalu info before encrypto fail!$"));

  const Bytes alaw(320, 0xD5);
  playback::Frame a;
  a.data = alaw.data();
  a.size = alaw.size();
  a.milliseconds = 123456;
  ASSERT_EQ(playback::kSent, server::PlaybackSendAudio(sid_, a));
  bool video = true;
  Bytes plain;
  viewer::FrameInfo info;
  ASSERT_TRUE(Receive(&video, &plain, &info));
  EXPECT_FALSE(video);
  EXPECT_TRUE(plain == alaw);
  EXPECT_EQ(123456u, info.milliseconds);
}

TEST_F(PlaybackSend, ABusyViewerIsToldBusyAndWhatCannotGoOutIsRefused) {
  const Bytes frame = MakeFrame(1000, true);
  const Bytes alaw(160, 0xD5);
  playback::Frame v;
  v.data = frame.data();
  v.size = frame.size();
  playback::Frame a;
  a.data = alaw.data();
  a.size = alaw.size();
  {
    // Live view holds the viewer's send lock: the play offers its frames again later.
    std::lock_guard<std::mutex> live(client_->sendLock());
    EXPECT_EQ(playback::kBusy, server::PlaybackSendVideo(sid_, v));
    EXPECT_EQ(playback::kBusy, server::PlaybackSendAudio(sid_, a));
  }
  // Empty frames, frames larger than the work buffers, sessions without a viewer.
  playback::Frame empty = v;
  empty.size = 0;
  EXPECT_EQ(AV_ER_INVALID_ARG, server::PlaybackSendVideo(sid_, empty));
  const Bytes huge(kVideoWorkCapacity + 1, 0);
  playback::Frame big = v;
  big.data = huge.data();
  big.size = huge.size();
  testsupport::LogCapture log;
  EXPECT_EQ(AV_ER_INVALID_ARG, server::PlaybackSendVideo(sid_, big));
  EXPECT_TRUE(
      log.Has(": Playback frame of " + std::to_string(huge.size()) + " bytes is too large$"));
  const Bytes loud(kAudioWorkCapacity + 1, 0xD5);
  playback::Frame long_audio = a;
  long_audio.data = loud.data();
  long_audio.size = loud.size();
  EXPECT_EQ(AV_ER_INVALID_ARG, server::PlaybackSendAudio(sid_, long_audio));
  EXPECT_EQ(AV_ER_INVALID_ARG, server::PlaybackSendVideo(7, v));
  EXPECT_EQ(AV_ER_INVALID_SID, server::PlaybackSendCommand(7, 0x200, alaw.data(), 4));
  client_->SetAvIndex(-1);  // the viewer's AV channel has gone
  EXPECT_EQ(AV_ER_INVALID_SID, server::PlaybackSendVideo(sid_, v));
  EXPECT_EQ(AV_ER_INVALID_SID, server::PlaybackSendAudio(sid_, a));
  EXPECT_EQ(AV_ER_INVALID_SID, server::PlaybackSendCommand(sid_, 0x200, alaw.data(), 4));
  // Nothing of it reached the viewer.
  p2p::ViewerFrame f;
  EXPECT_EQ(AV_ER_TIMEOUT, viewer_.RecvFrame(&f, 100));
}

}  // namespace
