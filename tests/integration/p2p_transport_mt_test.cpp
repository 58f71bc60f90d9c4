// The open P2P transport end to end on loopback: the hub side through the calls of iotc.h, the
// viewers through the viewer library or, for misbehaving ones, raw sockets.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <future>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "core/configuration.h"
#include "p2p/iotc.h"
#include "p2p/transport.h"
#include "p2p/wire.h"
#include "support/logcapture.h"
#include "support/p2psession.h"
#include "support/testsupport.h"
#include "viewer/p2pviewer.h"

namespace {

using namespace std::chrono_literals;
using testsupport::WaitFor;

const char kUid[] = "TARVOTESTUID00000001";
const char kPassword[] = "004217";
const char kAccount[] = "viewer";
const char kGoodLogin[] = "{\"public_key\":\"aa\",\"sign\":\"bb\",\"account\":\"viewer\"}";
constexpr int kWait = 10000;  // ms: generous, only ever reached when something is wrong

std::mutex g_auth_mu;
std::vector<std::pair<std::string, std::string>> g_auth_seen;

int Auth(char* account, char* text) {
  std::lock_guard<std::mutex> lock(g_auth_mu);
  g_auth_seen.emplace_back(account, text);
  return std::string(account) == kAccount && std::string(text) == kGoodLogin ? 1 : 0;
}

std::atomic<unsigned> g_login_flags{0};
void LoginInfo(unsigned flags) {
  g_login_flags = flags;
}

std::vector<uint8_t> Pattern(size_t n, unsigned seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>((i * 131 + seed * 7) ^ (i >> 9));
  return v;
}

std::vector<uint8_t> Info(unsigned seed) {
  std::vector<uint8_t> info(28);
  for (size_t i = 0; i < info.size(); ++i) info[i] = static_cast<uint8_t>(seed + i);
  return info;
}

// A hand-driven connection, for viewers that misbehave.
class RawViewer {
 public:
  explicit RawViewer(uint16_t port) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&a), sizeof a) == 0;
  }
  ~RawViewer() { close(fd_); }
  bool connected() const { return connected_; }
  void Write(const std::vector<uint8_t>& bytes) {
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL));
  }
  // Opens a session and returns the hub's result code.
  int Hello(const std::string& uid, const std::string& password) {
    p2p::wire::Hello h;
    h.uid = uid;
    h.password = password;
    Write(p2p::wire::EncodeHello(h));
    p2p::wire::Message m;
    if (!Read(&m)) return 1;
    p2p::wire::HelloResult r;
    if (!p2p::wire::ParseHelloResult(m.payload, &r)) return 2;
    return r.result;
  }
  // Reads the next message; false on end of stream or after kWait.
  bool Read(p2p::wire::Message* m) {
    for (;;) {
      if (decoder_.Next(m) == p2p::wire::Decoder::kMessage) return true;
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, kWait) <= 0) return false;
      uint8_t buf[65536];
      const ssize_t n = recv(fd_, buf, sizeof buf, 0);
      if (n <= 0) return false;
      decoder_.Feed(buf, static_cast<size_t>(n));
    }
  }
  // True once the hub has closed the connection (pings and other messages are skipped).
  bool ClosedByHub() {
    p2p::wire::Message m;
    while (Read(&m)) {
    }
    pollfd p{fd_, POLLIN, 0};
    return poll(&p, 1, 0) == 1;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
  p2p::wire::Decoder decoder_{p2p::wire::Reader::kViewer};
};

class P2pTransport : public ::testing::Test {
 protected:
  void SetUp() override { Start(p2p::LinkTimeouts(), true); }
  void TearDown() override {
    avDeInitialize();
    IOTC_DeInitialize();
  }

  void Start(const p2p::LinkTimeouts& timing, bool login) {
    p2p::SetLinkTimeouts(timing);
    port_ = testsupport::FreePort();
    IOTC_Set_Max_Session_Number(4);
    IOTC_Get_Login_Info_ByCallBackFn(LoginInfo);
    ASSERT_EQ(IOTC_ER_NoERROR, IOTC_Initialize2(port_));
    if (login) {
      ASSERT_EQ(IOTC_ER_NoERROR, IOTC_Device_Login(kUid, nullptr, kPassword));
    }
    ASSERT_EQ(12, avInitialize(12));
  }

  int Listen() { return testsupport::ListenForSession(kWait); }

  using HubSide = testsupport::AcceptedSession;
  // A viewer session with the AV login on channel 0 accepted, as the hub's session thread
  // would run it.
  HubSide Open(p2p::Viewer& v) {
    const auto h =
        testsupport::AcceptViewer(v, port_, kUid, kPassword, kAccount, kGoodLogin, Auth, kWait);
    EXPECT_EQ(h.sid, v.sid());
    EXPECT_EQ(0, h.resend);
    return h;
  }

  // Waits until a hub-side receive reports something other than a time-out.
  static int RecvIoCtrlCode(int av) {
    unsigned type = 0;
    char buf[1024];
    int r = AV_ER_TIMEOUT;
    WaitFor(
        [&] {
          r = avRecvIOCtrl(av, &type, buf, sizeof buf, 50);
          return r != AV_ER_TIMEOUT;
        },
        std::chrono::milliseconds(kWait));
    return r;
  }

  uint16_t port_ = 0;
};

TEST_F(P2pTransport, FourSessionsAtOnceAndTheFifthIsRefused) {
  EXPECT_EQ(static_cast<unsigned>(IOTC_LOGIN_LISTENING | IOTC_LOGIN_ACCEPTING),
            g_login_flags.load());
  p2p::Viewer viewers[4];
  std::set<int> sids;
  for (auto& v : viewers) {
    const HubSide h = Open(v);
    sids.insert(h.sid);
    st_SInfo info;
    ASSERT_EQ(0, IOTC_Session_Check(h.sid, &info));
    EXPECT_EQ(IOTC_MODE_LAN, info.Mode);
    EXPECT_STREQ("127.0.0.1", info.RemoteIP);
    EXPECT_STREQ(kUid, info.UID);
    EXPECT_EQ(p2p::kLibraryVersion, info.IOTCVersion);
  }
  EXPECT_EQ((std::set<int>{0, 1, 2, 3}), sids);

  p2p::Viewer fifth;
  EXPECT_EQ(IOTC_ER_EXCEED_MAX_SESSION, fifth.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
  EXPECT_EQ(IOTC_ER_EXCEED_MAX_SESSION, Listen());

  // A freed slot is taken by the next viewer, under the same session ID.
  const int freed = viewers[2].sid();
  viewers[2].Close();
  EXPECT_EQ(0, IOTC_Session_Close(freed));
  const HubSide again = Open(fifth);
  EXPECT_EQ(freed, again.sid);
}

TEST_F(P2pTransport, WrongUidOrPasswordIsRefusedWithoutASession) {
  testsupport::LogCapture log;
  p2p::Viewer v;
  EXPECT_EQ(IOTC_ER_UNKNOWN_DEVICE, v.Connect("127.0.0.1", port_, "OTHERUID", kPassword, kWait));
  EXPECT_TRUE(log.Wait("P2P session request from 127\\.0\\.0\\.1:[0-9]+ refused \\(-28\\)"));
  EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, v.Connect("127.0.0.1", port_, kUid, "004218", kWait));
  EXPECT_TRUE(log.Wait("P2P session request from 127\\.0\\.0\\.1:[0-9]+ refused \\(-29\\)"));
  EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, v.Connect("127.0.0.1", port_, kUid, "", kWait));
  EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, v.Connect("127.0.0.1", port_, kUid, "0042170", kWait));
  EXPECT_EQ(IOTC_ER_TIMEOUT, IOTC_Listen(100));
  // Nothing of the refused attempts holds a slot: four viewers still get in.
  p2p::Viewer viewers[4];
  for (auto& ok : viewers) EXPECT_GE(Open(ok).sid, 0);
}

TEST_F(P2pTransport, PasswordIsTheHubsCurrentOneWhenLoginFixesNone) {
  ASSERT_EQ(0, IOTC_Device_Login(kUid, nullptr, nullptr));
  Configuration::getInstance().SetP2pPassword("123456");
  p2p::Viewer v;
  EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, v.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
  EXPECT_EQ(0, v.Connect("127.0.0.1", port_, kUid, "123456", kWait));
  EXPECT_GE(Listen(), 0);
  // A new password counts from the next session request on.
  Configuration::getInstance().SetP2pPassword("654321");
  p2p::Viewer w;
  EXPECT_EQ(IOTC_ER_WRONG_PASSWORD, w.Connect("127.0.0.1", port_, kUid, "123456", kWait));
  EXPECT_EQ(0, w.Connect("127.0.0.1", port_, kUid, "654321", kWait));
}

TEST_F(P2pTransport, RefusedAvLoginReachesTheViewerBeforeTheSessionCloses) {
  {
    std::lock_guard<std::mutex> lock(g_auth_mu);
    g_auth_seen.clear();
  }
  p2p::Viewer v;
  ASSERT_EQ(0, v.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
  const int sid = Listen();
  ASSERT_GE(sid, 0);
  auto login = std::async(std::launch::async, [&] { return v.Login("intruder", "{}", kWait); });
  int resend = -1;
  EXPECT_EQ(AV_ER_WRONG_VIEWACCorPWD, avServStart3(sid, Auth, 15, 0, 0, &resend));
  EXPECT_EQ(0, IOTC_Session_Close(sid));
  EXPECT_EQ(AV_ER_WRONG_VIEWACCorPWD, login.get());
  p2p::ViewerFrame f;
  EXPECT_EQ(AV_ER_SESSION_CLOSE_BY_REMOTE, v.RecvFrame(&f, kWait));
  std::lock_guard<std::mutex> lock(g_auth_mu);
  ASSERT_EQ(1u, g_auth_seen.size());
  EXPECT_EQ("intruder", g_auth_seen[0].first);
  EXPECT_EQ("{}", g_auth_seen[0].second);
}

TEST_F(P2pTransport, AvStartEndsOnTimeOutOrWhenTheSessionIsClosed) {
  p2p::Viewer v;
  ASSERT_EQ(0, v.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
  const int sid = Listen();
  ASSERT_GE(sid, 0);
  int resend = -1;
  EXPECT_EQ(AV_ER_TIMEOUT, avServStart3(sid, Auth, 1, 0, 0, &resend));
  auto start =
      std::async(std::launch::async, [&] { return avServStart3(sid, Auth, 60, 0, 0, &resend); });
  // Closing the session ends the wait (the second start may or may not have begun yet).
  ASSERT_TRUE(WaitFor([&] {
    IOTC_Session_Close(sid);
    return start.wait_for(0ms) == std::future_status::ready;
  }));
  EXPECT_EQ(AV_ER_INVALID_SID, start.get());
  EXPECT_EQ(IOTC_ER_INVALID_SID, IOTC_Session_Close(sid));
  EXPECT_EQ(AV_ER_INVALID_SID, avServStart3(sid, Auth, 1, 0, 0, &resend));
}

TEST_F(P2pTransport, IoControlBothWays) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  const std::string start = "{\"mac\":\"AABBCCDDEEFF\",\"videoquality\":2}";
  ASSERT_EQ(0, v.SendIoCtrl(0x1FF, start.data(), start.size()));
  ASSERT_EQ(0, v.SendIoCtrl(0x350, "\x05\0\0\0", 4));
  std::vector<uint8_t> full(1024, 'x');
  ASSERT_EQ(0, v.SendIoCtrl(0xF001, full.data(), full.size()));
  ASSERT_EQ(0, v.SendIoCtrl(0x2FF, nullptr, 0));

  unsigned type = 0;
  char buf[1024];
  std::memset(buf, 0, sizeof buf);
  ASSERT_EQ(static_cast<int>(start.size()), avRecvIOCtrl(h.av, &type, buf, sizeof buf, kWait));
  EXPECT_EQ(0x1FFu, type);
  EXPECT_EQ(start, std::string(buf));
  ASSERT_EQ(4, avRecvIOCtrl(h.av, &type, buf, sizeof buf, kWait));
  EXPECT_EQ(0x350u, type);
  EXPECT_EQ(0, std::memcmp(buf, "\x05\0\0\0", 4));
  // A message larger than the caller's buffer is reported and dropped.
  EXPECT_EQ(AV_ER_BUFPARA_MAXSIZE_INSUFF, avRecvIOCtrl(h.av, &type, buf, 100, kWait));
  EXPECT_EQ(0, avRecvIOCtrl(h.av, &type, buf, sizeof buf, kWait));
  EXPECT_EQ(0x2FFu, type);
  EXPECT_EQ(AV_ER_TIMEOUT, avRecvIOCtrl(h.av, &type, buf, sizeof buf, 50));

  ASSERT_EQ(0, avSendIOCtrl(h.av, 0x321, "reply", 5));
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendIOCtrl(h.av, 0x321, buf, 1025));
  p2p::ViewerIoCtrl got;
  ASSERT_EQ(5, v.RecvIoCtrl(&got, kWait));
  EXPECT_EQ(0x321u, got.type);
  EXPECT_EQ("reply", std::string(got.data.begin(), got.data.end()));
}

TEST_F(P2pTransport, FramesArriveIntactAndInOrder) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  constexpr unsigned kFrames = 120;
  // Sizes from a few bytes to the largest video frame; audio interleaved.
  auto video_size = [](unsigned i) -> size_t {
    return i == 60 ? p2p::wire::kMaxVideoData : 1 + (i * 7919) % 200000;
  };
  std::thread sender([&] {
    for (unsigned i = 0; i < kFrames; ++i) {
      const auto data = Pattern(video_size(i), i);
      const auto info = Info(i);
      int r;
      // A full queue is the viewer being behind: wait for room rather than drop.
      while ((r = avSendFrameData(h.av, reinterpret_cast<const char*>(data.data()),
                                  static_cast<int>(data.size()), info.data(), 28)) ==
             AV_ER_EXCEED_MAX_SIZE)
        std::this_thread::sleep_for(1ms);
      ASSERT_EQ(0, r);
      const auto audio = Pattern(160, i + 1000);
      while ((r = avSendAudioData(h.av, reinterpret_cast<const char*>(audio.data()), 160,
                                  info.data(), 16)) == AV_ER_EXCEED_MAX_SIZE)
        std::this_thread::sleep_for(1ms);
      ASSERT_EQ(0, r);
    }
  });
  for (unsigned i = 0; i < 2 * kFrames; ++i) {
    p2p::ViewerFrame f;
    const int n = v.RecvFrame(&f, kWait);
    ASSERT_GE(n, 0) << "frame " << i;
    const unsigned k = i / 2;
    EXPECT_EQ(i % 2 == 0, f.video);
    EXPECT_EQ(k, f.number);
    EXPECT_EQ(0, f.channel);
    if (f.video) {
      EXPECT_EQ(Info(k), f.info);
      ASSERT_EQ(video_size(k), f.data.size());
      EXPECT_TRUE(Pattern(video_size(k), k) == f.data) << "video frame " << k;
    } else {
      const auto info = Info(k);
      EXPECT_EQ(std::vector<uint8_t>(info.begin(), info.begin() + 16), f.info);
      EXPECT_TRUE(Pattern(160, k + 1000) == f.data) << "audio frame " << k;
    }
  }
  sender.join();
  const char one = 1;
  EXPECT_EQ(AV_ER_INVALID_ARG,
            avSendFrameData(h.av, &one, static_cast<int>(p2p::wire::kMaxVideoData) + 1, &one, 1));
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendFrameData(h.av, &one, 1, &one, 65));
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendFrameData(h.av, nullptr, 1, &one, 1));
}

int64_t MonotonicNs() {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<int64_t>(now.tv_sec) * 1000000000 + now.tv_nsec;
}

// The viewer's arrival times (what latency measurements compare with a camera's send times):
// each frame's first and last byte lie between its send and its reception, a frame larger than
// one read has its first byte before its last, and a frame that begins in the read that ended
// the one before it does not take that one's earlier start.
TEST_F(P2pTransport, ArrivalTimesOfEachFrameLieBetweenItsSendAndItsReception) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  const std::vector<size_t> sizes = {100, 300000, 300000, 50};
  const int64_t sent = MonotonicNs();
  for (size_t i = 0; i < sizes.size(); i++) {
    const auto data = Pattern(sizes[i], static_cast<unsigned>(i));
    const auto info = Info(static_cast<unsigned>(i));
    ASSERT_EQ(0, avSendFrameData(h.av, reinterpret_cast<const char*>(data.data()),
                                 static_cast<int>(data.size()), info.data(), 28));
  }
  int64_t previous_last = 0;
  for (size_t i = 0; i < sizes.size(); i++) {
    p2p::ViewerFrame f;
    ASSERT_EQ(static_cast<int>(sizes[i]), v.RecvFrame(&f, kWait));
    const int64_t received = MonotonicNs();
    EXPECT_LE(sent, f.first_byte_ns) << "frame " << i;
    EXPECT_LE(f.first_byte_ns, f.last_byte_ns) << "frame " << i;
    EXPECT_LE(f.last_byte_ns, received) << "frame " << i;
    EXPECT_GE(f.first_byte_ns, previous_last) << "frame " << i;
    if (sizes[i] > 65536) EXPECT_LT(f.first_byte_ns, f.last_byte_ns) << "frame " << i;
    previous_last = f.last_byte_ns;
  }
}

// The frame of a fill call: Pattern(size, seed) written into the transport's message, or a
// refusal.
struct PatternFill {
  unsigned seed = 0;
  bool refuse = false;
  int calls = 0;
};
int FillPattern(void* context, unsigned char* dst, int size) {
  auto* fill = static_cast<PatternFill*>(context);
  fill->calls++;
  if (fill->refuse) {
    std::memset(dst, 0xAB, static_cast<size_t>(size));  // scribbles, then gives up
    return -1;
  }
  const auto data = Pattern(static_cast<size_t>(size), fill->seed);
  std::memcpy(dst, data.data(), data.size());
  return 0;
}

TEST_F(P2pTransport, FilledFramesArriveAsWrittenAndAFailedFillQueuesNothing) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  // Alternating sizes make the kept buffers be reused for shorter and longer frames; a frame
  // whose fill fails takes no number and leaves nothing behind in a buffer used later.
  const size_t sizes[] = {150000, 20000, 150000, 70, 20001, 149999, 1};
  unsigned sent = 0;
  for (unsigned i = 0; i < 7; ++i) {
    if (i == 3) {
      PatternFill bad{99, true};
      const auto info = Info(99);
      EXPECT_EQ(AV_ER_INVALID_ARG,
                avSendFrameDataFill(h.av, 5000, info.data(), 28, FillPattern, &bad));
      EXPECT_EQ(1, bad.calls);
    }
    PatternFill fill{i, false};
    const auto info = Info(i);
    int r;
    while ((r = avSendFrameDataFill(h.av, static_cast<int>(sizes[i]), info.data(), 28, FillPattern,
                                    &fill)) == AV_ER_EXCEED_MAX_SIZE)
      std::this_thread::sleep_for(1ms);
    ASSERT_EQ(0, r);
    sent++;
    // Received before the next is sent, so the next reuses what this one went out in.
    p2p::ViewerFrame f;
    ASSERT_GE(v.RecvFrame(&f, kWait), 0);
    EXPECT_TRUE(f.video);
    EXPECT_EQ(i, f.number);
    EXPECT_EQ(Info(i), f.info);
    EXPECT_TRUE(Pattern(sizes[i], i) == f.data) << "frame " << i;
  }
  EXPECT_EQ(7u, sent);
  // Arguments are checked before the fill is called.
  PatternFill unused;
  const char one = 1;
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendFrameDataFill(h.av, 0, &one, 1, FillPattern, &unused));
  EXPECT_EQ(AV_ER_INVALID_ARG,
            avSendFrameDataFill(h.av, static_cast<int>(p2p::wire::kMaxVideoData) + 1, &one, 1,
                                FillPattern, &unused));
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendFrameDataFill(h.av, 10, &one, 65, FillPattern, &unused));
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendFrameDataFill(h.av, 10, &one, 1, nullptr, &unused));
  EXPECT_EQ(0, unused.calls);
  // A closed channel: the written frame is not queued.
  avServStop(h.av);
  PatternFill late{7, false};
  EXPECT_NE(0, avSendFrameDataFill(h.av, 10, &one, 1, FillPattern, &late));
}

TEST_F(P2pTransport, AViewerThatReadsNothingFillsOnlyItsOwnQueueAndResetEmptiesIt) {
  p2p::Viewer stalled, reader;
  const HubSide s = Open(stalled);
  const HubSide r = Open(reader);
  const auto data = Pattern(64 * 1024, 3);
  const auto info = Info(3);
  auto send = [&](int av) {
    return avSendFrameData(av, reinterpret_cast<const char*>(data.data()),
                           static_cast<int>(data.size()), info.data(), 28);
  };

  std::atomic<unsigned> received{0};
  std::thread consumer([&] {
    p2p::ViewerFrame f;
    while (reader.RecvFrame(&f, kWait) >= 0) {
      if (f.number != received || f.data != data) break;
      ++received;
    }
  });

  // Send to both until the stalled viewer's queue stays full (its library has stopped reading
  // and the socket buffers are full); the other one keeps receiving.
  unsigned sent_stalled = 0, sent_reader = 0, refused_in_a_row = 0, refused = 0;
  for (unsigned i = 0; i < 100000 && refused_in_a_row < 100; ++i) {
    const int code = send(s.av);
    if (code == 0) {
      ++sent_stalled;
      refused_in_a_row = 0;
    } else {
      ASSERT_EQ(AV_ER_EXCEED_MAX_SIZE, code);
      ++refused;
      ++refused_in_a_row;
      std::this_thread::sleep_for(2ms);
    }
    int rc;
    while ((rc = send(r.av)) == AV_ER_EXCEED_MAX_SIZE) std::this_thread::sleep_for(1ms);
    ASSERT_EQ(0, rc);
    ++sent_reader;
  }
  ASSERT_EQ(100u, refused_in_a_row);
  EXPECT_GT(sent_stalled, 0u);
  EXPECT_TRUE(WaitFor([&] { return received == sent_reader; }, std::chrono::milliseconds(kWait)))
      << received << " of " << sent_reader;

  // A reset drops what is queued: there is room again, and the frames dropped leave a gap in the
  // numbers the stalled viewer finally sees.
  EXPECT_EQ(0, avServResetBuffer(s.av, RESET_VIDEO, 1000));
  ASSERT_EQ(0, send(s.av));
  const unsigned last = sent_stalled;  // number of the frame just queued
  unsigned expected = 0, seen = 0;
  bool gap = false;
  for (;;) {
    p2p::ViewerFrame f;
    ASSERT_GE(stalled.RecvFrame(&f, kWait), 0) << "after " << seen << " frames";
    ++seen;
    if (f.number != expected) gap = true;
    ASSERT_GE(f.number, expected);
    EXPECT_EQ(data, f.data);
    expected = f.number + 1;
    if (f.number == last) break;
  }
  EXPECT_TRUE(gap);
  EXPECT_LT(seen, sent_stalled + 1);

  reader.Close();
  consumer.join();
}

TEST_F(P2pTransport, ClosingViewerAndHubSideCodes) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  ASSERT_EQ(0, v.SendIoCtrl(0x300, "a", 1));
  v.Close();
  // What arrived is read first, then the end.
  unsigned type = 0;
  char buf[16];
  EXPECT_EQ(1, avRecvIOCtrl(h.av, &type, buf, sizeof buf, kWait));
  EXPECT_EQ(AV_ER_SESSION_CLOSE_BY_REMOTE, RecvIoCtrlCode(h.av));
  const char byte = 0;
  EXPECT_EQ(AV_ER_SESSION_CLOSE_BY_REMOTE, avSendFrameData(h.av, &byte, 1, &byte, 1));
  EXPECT_EQ(AV_ER_SESSION_CLOSE_BY_REMOTE, avSendAudioData(h.av, &byte, 1, &byte, 1));
  st_SInfo info;
  EXPECT_EQ(IOTC_ER_SESSION_CLOSE_BY_REMOTE, IOTC_Session_Check(h.sid, &info));

  // The hub's own close: the channel index and the session ID are dead.
  avServStop(h.av);
  EXPECT_EQ(AV_ER_INVALID_SID, avSendFrameData(h.av, &byte, 1, &byte, 1));
  EXPECT_EQ(0, IOTC_Session_Close(h.sid));
  EXPECT_EQ(IOTC_ER_INVALID_SID, IOTC_Session_Check(h.sid, &info));
  EXPECT_EQ(AV_ER_INVALID_ARG, avSendFrameData(99, &byte, 1, &byte, 1));
}

TEST_F(P2pTransport, HubClosingTellsTheViewer) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  avServStop(h.av);
  int r = 0;
  EXPECT_TRUE(WaitFor([&] { return (r = v.SendIoCtrl(1, "x", 1)) != 0; }));
  EXPECT_EQ(AV_ER_SERVER_EXIT, r);
  EXPECT_EQ(0, IOTC_Session_Close(h.sid));
  p2p::ViewerIoCtrl io;
  EXPECT_EQ(AV_ER_SESSION_CLOSE_BY_REMOTE, v.RecvIoCtrl(&io, kWait));
}

TEST_F(P2pTransport, VanishedViewerIsReportedAndItsSlotServesTheNext) {
  p2p::Viewer viewers[4];
  HubSide hubs[4];
  for (int i = 0; i < 4; ++i) hubs[i] = Open(viewers[i]);
  viewers[1].Abort();
  EXPECT_EQ(AV_ER_REMOTE_TIMEOUT_DISCONNECT, RecvIoCtrlCode(hubs[1].av));
  const char byte = 0;
  EXPECT_EQ(AV_ER_REMOTE_TIMEOUT_DISCONNECT, avSendFrameData(hubs[1].av, &byte, 1, &byte, 1));
  // Until the hub closes it, the session holds its slot.
  p2p::Viewer next;
  EXPECT_EQ(IOTC_ER_EXCEED_MAX_SESSION, next.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
  EXPECT_EQ(IOTC_ER_EXCEED_MAX_SESSION, Listen());
  avServStop(hubs[1].av);
  ASSERT_EQ(0, IOTC_Session_Close(hubs[1].sid));
  EXPECT_EQ(hubs[1].sid, Open(next).sid);
  // The others never noticed.
  for (int i : {0, 2, 3}) EXPECT_EQ(0, viewers[i].status());
}

TEST_F(P2pTransport, GarbageClosesOnlyThatSession) {
  p2p::Viewer good;
  const HubSide g = Open(good);

  // Garbage instead of a session request: the connection goes, no session is made.
  RawViewer junk(port_);
  ASSERT_TRUE(junk.connected());
  junk.Write({'G', 'E', 'T', ' ', '/', ' ', 'H', 'T', 'T', 'P'});
  EXPECT_TRUE(junk.ClosedByHub());

  // Garbage inside a session: a length over the limit, refused before any payload.
  RawViewer bad(port_);
  ASSERT_EQ(0, bad.Hello(kUid, kPassword));
  const int bad_sid = Listen();
  ASSERT_GE(bad_sid, 0);
  bad.Write({'T', 'P', 0x20, 0, 0xff, 0xff, 0xff, 0x7f});
  EXPECT_TRUE(bad.ClosedByHub());
  st_SInfo info;
  EXPECT_EQ(IOTC_ER_REMOTE_TIMEOUT_DISCONNECT, IOTC_Session_Check(bad_sid, &info));

  // A well-formed but inconsistent AV login closes that session too.
  RawViewer liar(port_);
  ASSERT_EQ(0, liar.Hello(kUid, kPassword));
  const int liar_sid = Listen();
  ASSERT_GE(liar_sid, 0);
  liar.Write({'T', 'P', 0x10, 0, 3, 0, 0, 0, 9, 'a', 'b'});
  EXPECT_TRUE(liar.ClosedByHub());
  EXPECT_EQ(IOTC_ER_REMOTE_TIMEOUT_DISCONNECT, IOTC_Session_Check(liar_sid, &info));

  // The good viewer still talks both ways.
  ASSERT_EQ(0, good.SendIoCtrl(0x320, "q", 1));
  unsigned type = 0;
  char buf[16];
  EXPECT_EQ(1, avRecvIOCtrl(g.av, &type, buf, sizeof buf, kWait));
  ASSERT_EQ(0, avSendIOCtrl(g.av, 7, "ok", 2));
  p2p::ViewerIoCtrl io;
  EXPECT_EQ(2, good.RecvIoCtrl(&io, kWait));
  EXPECT_EQ(0, IOTC_Session_Check(g.sid, &info));
}

TEST_F(P2pTransport, TalkbackAudioArrivesWithFrameNumbers) {
  p2p::Viewer v;
  const HubSide h = Open(v);
  // Nobody serves channel 6: the join is refused at once.
  unsigned serv_type = 99;
  int resend = -1;
  EXPECT_EQ(AV_ER_SERV_NO_RESPONSE,
            avClientStart2(h.sid, nullptr, nullptr, 10, &serv_type, 6, &resend));

  ASSERT_EQ(0, v.OpenTalkback(5));
  const int talk = avClientStart2(h.sid, nullptr, nullptr, 10, &serv_type, 5, &resend);
  ASSERT_GE(talk, 0);
  EXPECT_NE(h.av, talk);
  EXPECT_EQ(0u, serv_type);
  ASSERT_EQ(0, v.WaitTalkback(5, kWait));
  avClientCleanAudioBuf(talk);
  char buf[2048];
  char info[28];
  unsigned no = 0;
  EXPECT_EQ(AV_ER_DATA_NOREADY, avRecvAudioData(talk, buf, sizeof buf, info, 28, &no));

  constexpr unsigned kFrames = 30;
  for (unsigned i = 0; i < kFrames; ++i) {
    const auto data = Pattern(320 + i, i);
    const auto fi = Info(i);
    ASSERT_EQ(0, v.SendAudio(5, fi.data(), fi.size(), data.data(), data.size()));
  }
  for (unsigned i = 0; i < kFrames; ++i) {
    int n = AV_ER_DATA_NOREADY;
    ASSERT_TRUE(WaitFor([&] {
      n = avRecvAudioData(talk, buf, sizeof buf, info, 28, &no);
      return n != AV_ER_DATA_NOREADY;
    }));
    ASSERT_EQ(static_cast<int>(320 + i), n);
    EXPECT_EQ(i, no);
    EXPECT_EQ(Pattern(320 + i, i), std::vector<uint8_t>(buf, buf + n));
    EXPECT_EQ(Info(i), std::vector<uint8_t>(info, info + 28));
  }
  // The viewer stops serving: the hub's receive reports it once the queue is empty.
  ASSERT_EQ(0, v.CloseTalkback(5));
  int end = AV_ER_DATA_NOREADY;
  ASSERT_TRUE(WaitFor([&] {
    end = avRecvAudioData(talk, buf, sizeof buf, info, 28, &no);
    return end != AV_ER_DATA_NOREADY;
  }));
  EXPECT_EQ(AV_ER_SERVER_EXIT, end);
  avClientStop(talk);
  EXPECT_EQ(AV_ER_INVALID_SID, avRecvAudioData(talk, buf, sizeof buf, info, 28, &no));
  // The session itself goes on.
  ASSERT_EQ(0, v.SendIoCtrl(0x351, "x", 1));
  unsigned type = 0;
  EXPECT_EQ(1, avRecvIOCtrl(h.av, &type, buf, sizeof buf, kWait));
}

TEST_F(P2pTransport, ListenReportsMisuseAndShutdown) {
  auto first = std::async(std::launch::async, [] {
    int r;
    while ((r = IOTC_Listen(0)) == IOTC_ER_LISTEN_ALREADY_CALLED) {
    }
    return r;
  });
  // Once the first call waits, a second one is refused.
  EXPECT_TRUE(WaitFor([] { return IOTC_Listen(1) == IOTC_ER_LISTEN_ALREADY_CALLED; }));
  avDeInitialize();
  ASSERT_EQ(0, IOTC_DeInitialize());
  EXPECT_EQ(IOTC_ER_EXIT_LISTEN, first.get());
  EXPECT_EQ(IOTC_ER_NOT_INITIALIZED, IOTC_Listen(10));
  EXPECT_EQ(IOTC_ER_NOT_INITIALIZED, IOTC_Device_Login(kUid, nullptr, kPassword));

  // Up again, but with no uid yet: viewers are told the device is not logged in.
  Start(p2p::LinkTimeouts(), false);
  EXPECT_EQ(IOTC_ER_ALREADY_INITIALIZED, IOTC_Initialize2(port_));
  p2p::Viewer v;
  EXPECT_EQ(IOTC_ER_DEVICE_NOT_LOGGED_IN, v.Connect("127.0.0.1", port_, kUid, kPassword, kWait));
  EXPECT_EQ(IOTC_ER_INVALID_ARG, IOTC_Device_Login("", nullptr, nullptr));
  EXPECT_EQ(IOTC_ER_INVALID_ARG, IOTC_Device_Login("has space", nullptr, nullptr));
  unsigned version = 0;
  IOTC_Get_Version(&version);
  EXPECT_EQ(0x01000000u, version);
  EXPECT_EQ(0x01000000, avGetAVApiVer());
  EXPECT_GE(RDT_Initialize(), 1);
  EXPECT_EQ(0, RDT_DeInitialize());
}

class P2pTransportFastLink : public P2pTransport {
 protected:
  void SetUp() override {
    p2p::LinkTimeouts t;
    t.ping_ms = 50;
    t.idle_ms = 600;
    t.hello_ms = 600;
    t.linger_ms = 600;
    Start(t, true);
  }
  void TearDown() override {
    P2pTransport::TearDown();
    p2p::SetLinkTimeouts(p2p::LinkTimeouts());
  }
};

TEST_F(P2pTransportFastLink, AQuietViewerKeepsItsSessionAndASilentOneIsLost) {
  p2p::Viewer quiet;
  const HubSide q = Open(quiet);
  RawViewer silent(port_);  // sends no pings
  ASSERT_EQ(0, silent.Hello(kUid, kPassword));
  const int silent_sid = Listen();
  ASSERT_GE(silent_sid, 0);
  st_SInfo info;
  EXPECT_TRUE(WaitFor(
      [&] { return IOTC_Session_Check(silent_sid, &info) == IOTC_ER_REMOTE_TIMEOUT_DISCONNECT; }));
  // Many receive time-outs later (far beyond the idle time), the quiet viewer is still there.
  unsigned type = 0;
  char buf[16];
  for (int i = 0; i < 40; ++i)
    ASSERT_EQ(AV_ER_TIMEOUT, avRecvIOCtrl(q.av, &type, buf, sizeof buf, 50));
  EXPECT_EQ(0, IOTC_Session_Check(q.sid, &info));
  EXPECT_EQ(0, quiet.status());

  // A connection that never asks for a session is closed.
  RawViewer mute(port_);
  ASSERT_TRUE(mute.connected());
  EXPECT_TRUE(mute.ClosedByHub());
}

}  // namespace
