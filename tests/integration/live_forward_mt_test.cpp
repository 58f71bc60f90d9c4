// Frame forwarding on one live channel: a camera on a socket pair sends video pieces and audio
// packets; viewers on the real P2P transport (loopback) receive them through the channel's
// viewer list, encrypted with their own stream keys. The test thread plays the event loop
// (it calls RecvStreams), the viewers' session slots are real Client records.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sodium.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "camera/camera.h"
#include "camera/livechannel.h"
#include "camsim/camsimwire.h"
#include "crypto/hubauth.h"
#include "crypto/stream_encrypt.h"
#include "p2p/client.h"
#include "p2p/iotc.h"
#include "support/logcapture.h"
#include "support/p2psession.h"
#include "support/testsupport.h"
#include "viewer/p2pviewer.h"
#include "viewer/viewerframe.h"

namespace {

using namespace std::chrono_literals;
using Bytes = std::vector<uint8_t>;
using testsupport::WaitFor;

const char kCam[] = "0A0B0C0D0E0F";
const uint8_t kCamAddr[6] = {0x0A, 0x0B, 0x0C, 0x0D, 0x0E, 0x0F};
const char kHubMac[] = "02:1A:2B:3C:4D:5E";
const char kUid[] = "TARVOLIVETEST0000001";
const char kPassword[] = "314159";
constexpr int kWait = 10000;  // ms; reached only when something is wrong

int AcceptAll(char*, char*) {
  return 1;
}

int64_t AwakeUptime() {
  return 5000;  // a camera that sent a frame just now: commands go out at once
}

// An Annex B frame of n bytes: one slice (IDR for a key frame) with bytes that never form a
// start code.
Bytes MakeFrame(size_t n, bool key, unsigned seed) {
  Bytes f(n);
  f[0] = 0;
  f[1] = 0;
  f[2] = 0;
  f[3] = 1;
  f[4] = key ? 0x65 : 0x41;
  for (size_t i = 5; i < n; i++) f[i] = static_cast<uint8_t>(1 + (i * 37 + seed * 101) % 255);
  return f;
}

class TestEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    board_ = std::make_unique<testsupport::TempDir>();
    testsupport::MakeBoard(board_->path(), {"--force"});
    setenv("TARVO_ROOT", board_->path().c_str(), 1);
    ASSERT_GE(sodium_init(), 0);
    ASSERT_EQ(0, init_work_buffers());
  }
  void TearDown() override { board_.reset(); }

 private:
  std::unique_ptr<testsupport::TempDir> board_;
};
const auto* const g_env = ::testing::AddGlobalTestEnvironment(new TestEnvironment);

class LiveForward : public ::testing::Test {
 protected:
  struct ViewerSlot {
    p2p::Viewer viewer;
    std::unique_ptr<client::Client> client;
    unsigned char key[32];
    int av = -1;
  };

  void SetUp() override {
    port_ = testsupport::StartHubTransport(kUid, kPassword, 12);
    ASSERT_NE(0, port_);

    auto cam = std::make_shared<camera::Camera>(kCam);
    ch_ = std::make_unique<channel::LiveChannel>(cam, kHubMac);
    ch_->SetUptimeClock(&AwakeUptime);
    int sv[2];
    ASSERT_EQ(0, socketpair(AF_UNIX, SOCK_STREAM, 0, sv));
    peer_ = sv[1];
    fcntl(peer_, F_SETFL, fcntl(peer_, F_GETFL) | O_NONBLOCK);
    ch_->InitConnect(sv[0]);
    out_.resize(camsim::kMaxCameraFrame);
  }

  void TearDown() override {
    ch_.reset();
    close(peer_);
    for (auto& v : viewers_) v->viewer.Close();
    viewers_.clear();
    testsupport::StopHubTransport();
  }

  // A viewer logged in on a session; its slot's client holds the AV index and its stream key.
  ViewerSlot& OpenViewer() {
    viewers_.push_back(std::make_unique<ViewerSlot>());
    ViewerSlot& v = *viewers_.back();
    const auto h = testsupport::AcceptViewer(v.viewer, port_, kUid, kPassword, "viewer", "x",
                                             AcceptAll, kWait);
    const int sid = h.sid;
    v.av = h.av;
    v.client = std::make_unique<client::Client>(sid);
    v.client->SetAvIndex(v.av);
    randombytes_buf(v.key, sizeof(v.key));
    EXPECT_EQ(0, client_encrypt_info.Set(sid, v.key));
    return v;
  }

  // The camera's bytes reach the channel as the event loop would hand them over.
  void CameraSends(const uint8_t* bytes, size_t n) {
    size_t sent = 0;
    while (sent < n) {
      const ssize_t r = send(peer_, bytes + sent, n - sent, MSG_NOSIGNAL);
      if (r > 0) sent += static_cast<size_t>(r);
      Pump();
    }
    Pump();
  }
  void Pump() {
    while (ch_->RecvStreams() > 0) {
    }
  }

  // Sends a frame in pieces; total_override and length_override make malformed frames.
  void SendFrame(const Bytes& frame, uint32_t index, int total_override = 0,
                 uint32_t length_override = 0) {
    camsim::VideoFrameHeader h;
    h.length = static_cast<uint32_t>(frame.size());
    h.index = index;
    const int total = camsim::PieceCount(frame.size());
    for (int piece = 1; piece <= total; piece++) {
      const int size = camsim::BuildVideoPiece(out_.data(), out_.size(), Origin(), h, frame.data(),
                                               piece, total);
      ASSERT_GT(size, 0);
      _net_cmd_type* f = command::AsFrame(out_.data());
      if (total_override != 0) f->mark1 = static_cast<uint8_t>(total_override);
      if (length_override != 0) command::PutLe32(f->Payload(), length_override);
      CameraSends(out_.data(), static_cast<size_t>(size));
    }
  }
  void SendAudio(const Bytes& alaw, uint32_t index) {
    const int size = camsim::BuildAudioPacket(out_.data(), out_.size(), Origin(), index, 0,
                                              alaw.data(), alaw.size());
    ASSERT_GT(size, 0);
    CameraSends(out_.data(), static_cast<size_t>(size));
  }
  camsim::Origin Origin() {
    camsim::Origin o;
    o.camera = kCamAddr;
    o.seq = seq_++;
    return o;
  }

  // The next command the hub sent to the camera (type << 8 | subtype), or -1.
  int NextCommand() {
    uint8_t header[32];
    size_t got = 0;
    while (got < sizeof(header)) {
      pollfd p{peer_, POLLIN, 0};
      if (poll(&p, 1, kWait) != 1) return -1;
      const ssize_t r = recv(peer_, header + got, sizeof(header) - got, 0);
      if (r <= 0) return -1;
      got += static_cast<size_t>(r);
    }
    size_t rest = command::AsFrame(header)->Length() + 2u;
    uint8_t skip[64];
    while (rest > 0) {
      pollfd p{peer_, POLLIN, 0};
      if (poll(&p, 1, kWait) != 1) return -1;
      const ssize_t r = recv(peer_, skip, std::min(rest, sizeof(skip)), 0);
      if (r <= 0) return -1;
      rest -= static_cast<size_t>(r);
    }
    return header[28] << 8 | header[29];
  }

  // The viewer's next frame decrypted, with its frame information.
  static bool Receive(ViewerSlot& v, bool* video, Bytes* plain, viewer::FrameInfo* info) {
    p2p::ViewerFrame f;
    if (v.viewer.RecvFrame(&f, kWait) < 0) return false;
    *video = f.video;
    if (viewer::ParseFrameInfo(f.info, info) != 0) return false;
    return viewer::DecryptFrame(f, v.key, plain) == 0;
  }

  uint16_t port_ = 0;
  std::unique_ptr<channel::LiveChannel> ch_;
  int peer_ = -1;
  uint16_t seq_ = 0;
  Bytes out_;
  std::vector<std::unique_ptr<ViewerSlot>> viewers_;
};

constexpr int kStartStream = 0x0102;
constexpr int kStopStream = 0x0103;
constexpr int kSleep = 0x0101;

TEST_F(LiveForward, TwoViewersGetEveryFrameAndPacketDecryptedByteForByte) {
  ViewerSlot& a = OpenViewer();
  ViewerSlot& b = OpenViewer();
  ch_->RegisteVideoForLiveClient(a.client.get());
  ch_->RegisteAudioForLiveClient(a.client.get());
  ch_->RegisteVideoForLiveClient(b.client.get());
  ASSERT_EQ(2u, ch_->LiveClients()->size());

  // One piece, exactly one piece, just over one, a key frame, and the longest frame: 63 pieces
  // (too long for the encryption buffer, so it goes out raw, marked so).
  const std::vector<Bytes> frames = {MakeFrame(5000, false, 1), MakeFrame(16384, false, 2),
                                     MakeFrame(16385, false, 3), MakeFrame(90000, true, 4),
                                     MakeFrame(63 * 16384, false, 5)};
  const Bytes alaw(320, 0x5A);
  for (size_t i = 0; i < frames.size(); i++) {
    SendFrame(frames[i], static_cast<uint32_t>(i));
    SendAudio(alaw, static_cast<uint32_t>(i));
  }
  EXPECT_EQ(5u, ch_->LastFrameIndex());

  for (ViewerSlot* v : {&a, &b}) {
    for (size_t i = 0; i < frames.size(); i++) {
      bool video = false;
      Bytes plain;
      viewer::FrameInfo info;
      ASSERT_TRUE(Receive(*v, &video, &plain, &info)) << "frame " << i;
      ASSERT_TRUE(video);
      EXPECT_EQ(frames[i], plain) << "frame " << i;
      EXPECT_EQ(0x4E, info.codec);
      EXPECT_EQ(i == 3, info.key_frame);
      EXPECT_EQ(2, info.viewers);
      EXPECT_EQ(i, info.frame_index);
      EXPECT_EQ(1920, info.width);
      EXPECT_EQ(1080, info.height);
      EXPECT_LT(info.milliseconds, 1000u);
      EXPECT_EQ(i != 4, info.encrypted) << "frame " << i;

      ASSERT_TRUE(Receive(*v, &video, &plain, &info));
      ASSERT_FALSE(video);
      EXPECT_EQ(alaw, plain);
      EXPECT_EQ(1, info.codec);
      EXPECT_TRUE(info.encrypted);
    }
  }
}

// The work buffer takes a frame whose encrypted form fills it exactly; one byte more and the
// frame goes out raw, marked so. A frame with as many slices as the header can list (and more)
// goes encrypted too. Audio sent well is never logged as an error.
TEST_F(LiveForward, AFrameWhoseEncryptedFormJustFitsTheWorkBufferGoesEncrypted) {
  testsupport::LogCapture log;
  ViewerSlot& v = OpenViewer();
  ch_->RegisteVideoForLiveClient(v.client.get());
  ch_->RegisteAudioForLiveClient(v.client.get());
  const size_t fits = kVideoWorkCapacity + kVideoHeaderRoom - VideoHeaderBytes(1);
  Bytes sliced;
  for (unsigned i = 0; i <= kMaxListedNalus; i++) {
    const Bytes slice = MakeFrame(60, i == 0, 8 + i);
    sliced.insert(sliced.end(), slice.begin(), slice.end());
  }
  const std::vector<Bytes> frames = {MakeFrame(fits, true, 6), sliced,
                                     MakeFrame(fits + 1, false, 7)};
  const Bytes alaw(320, 0x33);
  for (size_t i = 0; i < frames.size(); i++) {
    SendFrame(frames[i], static_cast<uint32_t>(i));
    SendAudio(alaw, static_cast<uint32_t>(i));
  }
  for (size_t i = 0; i < frames.size(); i++) {
    bool video = false;
    Bytes plain;
    viewer::FrameInfo info;
    ASSERT_TRUE(Receive(v, &video, &plain, &info)) << "frame " << i;
    ASSERT_TRUE(video);
    EXPECT_EQ(frames[i], plain) << "frame " << i;
    EXPECT_EQ(i != 2, info.encrypted) << "frame " << i;
    ASSERT_TRUE(Receive(v, &video, &plain, &info));
    EXPECT_FALSE(video);
    EXPECT_EQ(alaw, plain);
  }
  EXPECT_FALSE(log.Has("Send audio frame error"));
}

TEST_F(LiveForward, ReassemblyRefusesOverlongFramesAndDropsPartialOnes) {
  testsupport::LogCapture log;
  ViewerSlot& a = OpenViewer();
  ch_->RegisteVideoForLiveClient(a.client.get());

  // 64 pieces: refused whole, nothing written past the buffer; the next frame goes through.
  SendFrame(MakeFrame(64 * 16384, false, 1), 0);
  EXPECT_TRUE(log.Has("video frame index 0 refused: more than 63 pieces"));
  // A piece claiming a total over 63 is refused from its first piece.
  SendFrame(MakeFrame(20000, false, 2), 1, 200);
  EXPECT_TRUE(log.Has("video frame index 1 refused: more than 63 pieces"));
  // A header length beyond the pieces received.
  SendFrame(MakeFrame(100, false, 3), 2, 0, 16385);
  EXPECT_TRUE(log.Has("video frame index 2 of length 16385 does not fit its 1 pieces, refused"));
  // A piece too short to hold its frame header.
  const uint8_t tiny[8] = {0};
  const int size = camsim::BuildCameraFrame(out_.data(), out_.size(), Origin(), nullptr, 0x8A, 0,
                                            tiny, sizeof(tiny));
  CameraSends(out_.data(), static_cast<size_t>(size));
  EXPECT_TRUE(log.Has("video piece len is error: 8"));

  // Piece 1 of 3 of frame 3, then frame 9 whole: the partial frame is dropped and the channel
  // follows the camera's numbering.
  const Bytes partial = MakeFrame(3 * 16384, false, 4);
  camsim::VideoFrameHeader h;
  h.length = static_cast<uint32_t>(partial.size());
  h.index = 3;
  const int piece =
      camsim::BuildVideoPiece(out_.data(), out_.size(), Origin(), h, partial.data(), 1, 3);
  CameraSends(out_.data(), static_cast<size_t>(piece));
  const Bytes whole = MakeFrame(20000, true, 5);
  SendFrame(whole, 9);
  EXPECT_TRUE(log.Has(R"(\*{4}last_frame_index: 3 != item_index: 9\*{3}, drop it)"));
  EXPECT_EQ(10u, ch_->LastFrameIndex());

  // Only the whole frame reached the viewer.
  bool video = false;
  Bytes plain;
  viewer::FrameInfo info;
  ASSERT_TRUE(Receive(a, &video, &plain, &info));
  EXPECT_EQ(whole, plain);
  EXPECT_EQ(9, info.frame_index);
  EXPECT_TRUE(info.key_frame);
}

TEST_F(LiveForward, FramesThatLostAPieceOrCarryABadSecondMagicNeverReachViewers) {
  ViewerSlot& a = OpenViewer();
  ch_->RegisteVideoForLiveClient(a.client.get());
  camsim::VideoFrameHeader h;

  // Frame 0 in three pieces, the middle one lost on the way: pieces 1 and 3 only. Sent twice:
  // as cut, and with a header length that two pieces could hold (the camera's word for the
  // length is no proof that every piece came).
  const Bytes holed = MakeFrame(2 * 16384 + 500, false, 6);
  h.length = static_cast<uint32_t>(holed.size());
  for (uint32_t length : {h.length, uint32_t{20000}}) {
    h.index = 0;
    for (int piece : {1, 3}) {
      const int size =
          camsim::BuildVideoPiece(out_.data(), out_.size(), Origin(), h, holed.data(), piece, 3);
      command::PutLe32(command::AsFrame(out_.data())->Payload(), length);
      CameraSends(out_.data(), static_cast<size_t>(size));
    }
  }
  // Frame 1 in one piece whose second magic is damaged (either byte).
  const Bytes damaged = MakeFrame(700, false, 7);
  h.length = static_cast<uint32_t>(damaged.size());
  h.index = 1;
  for (size_t at : {24u, 25u}) {
    const int size =
        camsim::BuildVideoPiece(out_.data(), out_.size(), Origin(), h, damaged.data(), 1, 1);
    out_[at] = 0x69;
    CameraSends(out_.data(), static_cast<size_t>(size));
  }
  // Frame 2 whole: the first and only frame the viewer gets.
  const Bytes good = MakeFrame(1200, true, 8);
  SendFrame(good, 2);

  bool video = false;
  Bytes plain;
  viewer::FrameInfo info;
  ASSERT_TRUE(Receive(a, &video, &plain, &info));
  EXPECT_TRUE(video);
  EXPECT_EQ(2, info.frame_index);
  EXPECT_EQ(good, plain);
  EXPECT_EQ(3u, ch_->LastFrameIndex());
}

TEST_F(LiveForward, AFrameWithoutAStartCodeGoesOutWithNoUnitListedAndIsLogged) {
  testsupport::LogCapture log;
  ViewerSlot& a = OpenViewer();
  ch_->RegisteVideoForLiveClient(a.client.get());
  Bytes odd = MakeFrame(600, false, 9);
  odd[2] = 0x02;  // 00 00 02 00: no start code anywhere
  odd[3] = 0x00;
  SendFrame(odd, 0);
  EXPECT_TRUE(log.Has(": live: get nalu info before encrypto fail!$"));
  bool video = false;
  Bytes plain;
  viewer::FrameInfo info;
  ASSERT_TRUE(Receive(a, &video, &plain, &info));
  EXPECT_EQ(odd, plain);
  EXPECT_TRUE(info.encrypted);
}

TEST_F(LiveForward, TranVideoDataCountsPiecesAndReturnsTheNextIndex) {
  const Bytes frame = MakeFrame(2 * 16384 + 10, false, 1);
  camsim::VideoFrameHeader h;
  h.length = static_cast<uint32_t>(frame.size());
  h.index = 0;
  for (int piece = 1; piece <= 3; piece++) {
    camsim::BuildVideoPiece(out_.data(), out_.size(), Origin(), h, frame.data(), piece, 3);
    const int r = ch_->TranVideoData(command::AsFrame(out_.data()));
    EXPECT_EQ(piece < 3 ? piece : 1, r) << "piece " << piece;
  }
  // A one-piece frame completes at once.
  const Bytes one = MakeFrame(100, false, 2);
  h.length = 100;
  h.index = 1;
  camsim::BuildVideoPiece(out_.data(), out_.size(), Origin(), h, one.data(), 1, 1);
  EXPECT_EQ(2, ch_->TranVideoData(command::AsFrame(out_.data())));
}

TEST_F(LiveForward, RegistrationAsymmetriesAndTheStopCommandOnce) {
  testsupport::LogCapture log;
  ViewerSlot& a = OpenViewer();
  ViewerSlot& b = OpenViewer();
  client::Client* ca = a.client.get();
  client::Client* cb = b.client.get();

  // Audio only: no audio goes to it, and the first video frame unregisters it, which empties
  // the list and stops the camera.
  ch_->RegisteAudioForLiveClient(ca);
  EXPECT_TRUE(ch_->IsClientExist(ca));
  SendAudio(Bytes(160, 1), 0);
  SendFrame(MakeFrame(1000, false, 1), 0);
  EXPECT_TRUE(log.Has("Stop client avindex < 0"));
  EXPECT_FALSE(ch_->IsClientExist(ca));
  EXPECT_EQ(0, ca->audioRegistered());
  EXPECT_EQ(kStopStream, NextCommand());

  // Unregistering audio clears only the video flag: the viewer stays, gets no audio, and no
  // stop goes out.
  ch_->RegisteVideoForLiveClient(ca);
  ch_->RegisteAudioForLiveClient(ca);
  ch_->UnRegisteAudioForLiveClient(ca);
  EXPECT_EQ(1, ca->audioRegistered());
  EXPECT_EQ(0, ca->videoRegistered());
  EXPECT_TRUE(ch_->IsClientExist(ca));
  SendAudio(Bytes(160, 2), 1);
  ch_->UnRegisteVideoForLiveClient(ca);
  EXPECT_FALSE(ch_->IsClientExist(ca));
  EXPECT_EQ(kStopStream, NextCommand());

  // Two viewers: the first to leave stops nothing, the last stops the camera once; removing
  // an absent viewer, or from an empty list, sends nothing.
  ch_->RegisteVideoForLiveClient(ca);
  ch_->RegisteVideoForLiveClient(cb);
  ch_->RegisteVideoForLiveClient(cb);  // no duplicate
  EXPECT_EQ(2u, ch_->LiveClients()->size());
  ch_->UnRegisteVideoForLiveClient(ca);
  ch_->UnRegisteVideoForLiveClient(ca);
  ch_->UnRegisteVideoForLiveClient(cb);
  ch_->UnRegisteVideoForLiveClient(cb);
  ch_->TryRemoveLiveClient(ca);
  ch_->ActionSleep();
  EXPECT_EQ(kStopStream, NextCommand());
  EXPECT_EQ(kSleep, NextCommand());

  // A's first frame is the video frame sent after it registered again: the audio packets sent
  // while its video flag was clear never reached it.
  ch_->RegisteVideoForLiveClient(ca);
  const Bytes frame = MakeFrame(2000, false, 3);
  SendFrame(frame, 1);
  bool video = false;
  Bytes plain;
  viewer::FrameInfo info;
  ASSERT_TRUE(Receive(a, &video, &plain, &info));
  EXPECT_TRUE(video);
  EXPECT_EQ(frame, plain);
}

TEST_F(LiveForward, StartAvStreamAsksTheCameraToStream) {
  ASSERT_EQ(1, ch_->StartAVStream());
  EXPECT_EQ(kStartStream, NextCommand());
}

TEST_F(LiveForward, ViewersThatAreGoneLeaveTheList) {
  testsupport::LogCapture log;
  ViewerSlot& a = OpenViewer();
  ViewerSlot& b = OpenViewer();
  ViewerSlot& c = OpenViewer();
  ch_->RegisteVideoForLiveClient(a.client.get());
  ch_->RegisteVideoForLiveClient(b.client.get());
  ch_->RegisteVideoForLiveClient(c.client.get());

  // A says goodbye, B vanishes, C's session is closed by the hub; each is dropped by the first
  // send that learns of it, video or audio.
  a.viewer.Close();
  b.viewer.Abort();
  ASSERT_EQ(0, IOTC_Session_Close(c.client->slot()));
  const Bytes frame = MakeFrame(1000, false, 1);
  uint32_t index = 0;
  ASSERT_TRUE(WaitFor(
      [&] {
        SendFrame(frame, index++);
        SendAudio(Bytes(80, 1), index);
        return !ch_->HasLiveClient();
      },
      20s));
  EXPECT_TRUE(log.Has("stop client AV_ER_SESSION_CLOSE_BY_REMOTE"));
  EXPECT_TRUE(log.Has("stop client AV_ER_REMOTE_TIMEOUT_DISCONNECT"));
  EXPECT_TRUE(log.Has("stop client AV_ER_INVALID_SID"));
  EXPECT_EQ(kStopStream, NextCommand());
}

TEST_F(LiveForward, AViewerThatReadsNothingIsResetAndNeverHoldsUpTheOther) {
  testsupport::LogCapture log;
  ViewerSlot& reader = OpenViewer();
  ViewerSlot& stalled = OpenViewer();
  ch_->RegisteVideoForLiveClient(reader.client.get());
  ch_->RegisteVideoForLiveClient(stalled.client.get());
  const std::string reset = "AV_ER_EXCEED_MAX_SIZE index: " + std::to_string(stalled.av);

  // The stalled viewer's library stops reading once it holds its limit, its socket fills,
  // then the hub's queue for it: from then on its sends fail and its video is reset. The
  // reader takes every frame as it comes.
  const Bytes frame = MakeFrame(100000, false, 1);
  uint32_t index = 0;
  int after_reset = 0;
  while (after_reset < 20 && index < 5000) {
    SendFrame(frame, index);
    bool video = false;
    Bytes plain;
    viewer::FrameInfo info;
    ASSERT_TRUE(Receive(reader, &video, &plain, &info)) << "frame " << index;
    ASSERT_EQ(static_cast<uint16_t>(index), info.frame_index);
    ASSERT_EQ(frame, plain);
    index++;
    if (log.Has(reset)) after_reset++;
  }
  EXPECT_TRUE(log.Has(reset));
  EXPECT_FALSE(log.Has("AV_ER_EXCEED_MAX_SIZE index: " + std::to_string(reader.av)));
  EXPECT_TRUE(ch_->IsClientExist(stalled.client.get()));
}

TEST_F(LiveForward, ListChangesWhileFramesGoOutNeverDisturbTheWalk) {
  ViewerSlot& a = OpenViewer();
  ViewerSlot& b = OpenViewer();
  ViewerSlot& c = OpenViewer();
  ch_->RegisteVideoForLiveClient(a.client.get());
  ch_->RegisteVideoForLiveClient(b.client.get());

  // C joins and leaves without pause (its viewer drains what it gets); a reader walks the
  // snapshots meanwhile. A and B stay and get every frame.
  std::atomic<bool> done{false};
  std::thread drain([&] {
    p2p::ViewerFrame f;
    while (!done.load()) c.viewer.RecvFrame(&f, 50);
  });
  std::thread churn([&] {
    while (!done.load()) {
      ch_->RegisteVideoForLiveClient(c.client.get());
      ch_->RegisteAudioForLiveClient(c.client.get());
      ch_->UnRegisteVideoForLiveClient(c.client.get());
    }
  });
  std::atomic<int> bad_walks{0};
  std::thread walker([&] {
    while (!done.load()) {
      const auto list = ch_->LiveClients();
      std::vector<client::Client*> sorted(list->begin(), list->end());
      std::sort(sorted.begin(), sorted.end());
      if (std::adjacent_find(sorted.begin(), sorted.end()) != sorted.end() || sorted.size() < 2) {
        bad_walks++;
      }
    }
  });
  // 200 frames stay below the transport's 256-frame queue and the viewer library's 256 unread
  // frames, so however late A and B are read nothing is dropped for a full queue.
  const uint32_t kFrames = 100;
  const Bytes frame = MakeFrame(3000, false, 1);
  for (uint32_t i = 0; i < kFrames; i++) {
    SendFrame(frame, i);
    SendAudio(Bytes(160, 3), i);
  }
  done = true;
  churn.join();
  walker.join();
  drain.join();
  EXPECT_EQ(0, bad_walks.load());
  for (ViewerSlot* v : {&a, &b}) {
    for (uint32_t i = 0; i < kFrames; i++) {
      bool video = false;
      Bytes plain;
      viewer::FrameInfo info;
      ASSERT_TRUE(Receive(*v, &video, &plain, &info));
      ASSERT_TRUE(video);
      ASSERT_EQ(static_cast<uint16_t>(i), info.frame_index);
      ASSERT_TRUE(Receive(*v, &video, &plain, &info));
      ASSERT_FALSE(video);
    }
  }
  ch_->UnRegisteVideoForLiveClient(c.client.get());
  EXPECT_EQ(2u, ch_->LiveClients()->size());
}

}  // namespace
