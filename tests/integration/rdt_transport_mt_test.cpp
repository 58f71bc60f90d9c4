// Reliable transfer (RDT) of the open P2P transport on loopback: the hub's RDT calls of iotc.h
// against the viewer library, and raw sockets for viewers that break the rules.
#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <future>
#include <thread>

#include "p2p/iotc.h"
#include "p2p/transport.h"
#include "p2p/wire.h"
#include "support/logcapture.h"
#include "support/p2psession.h"
#include "support/testsupport.h"
#include "viewer/p2pviewer.h"

namespace {

using testsupport::WaitFor;

const char kUid[] = "TARVOTESTUID00000002";
const char kPassword[] = "004217";
constexpr int kWait = 10000;  // ms: only ever reached when something is wrong

int Auth(char*, char*) {
  return 1;
}

std::vector<uint8_t> Pattern(size_t n, unsigned seed) {
  std::vector<uint8_t> v(n);
  for (size_t i = 0; i < n; ++i) v[i] = static_cast<uint8_t>((i * 131 + seed * 7) ^ (i >> 11));
  return v;
}

// Reads an RDT channel on the viewer until it ends; the bytes and the end code.
std::pair<std::vector<uint8_t>, int> ViewerReadAll(p2p::Viewer& v, int id) {
  std::vector<uint8_t> got;
  std::vector<uint8_t> buf(50000);  // not a multiple of the chunk size on purpose
  for (;;) {
    const int n = v.RdtRead(id, buf.data(), buf.size(), kWait);
    if (n < 0) return {got, n};
    got.insert(got.end(), buf.begin(), buf.begin() + n);
  }
}

std::pair<std::vector<uint8_t>, int> HubReadAll(int id) {
  std::vector<uint8_t> got;
  std::vector<char> buf(30000);
  for (;;) {
    const int n = RDT_Read(id, buf.data(), static_cast<int>(buf.size()), kWait);
    if (n < 0) return {got, n};
    got.insert(got.end(), buf.begin(), buf.begin() + n);
  }
}

// Reads a raw connection until a message of the type has come; false on end or after kWait.
bool ReadUntil(int fd, p2p::wire::MsgType type) {
  p2p::wire::Decoder d(p2p::wire::Reader::kViewer);
  for (;;) {
    p2p::wire::Message m;
    while (d.Next(&m) == p2p::wire::Decoder::kMessage)
      if (m.type == static_cast<uint8_t>(type)) return true;
    pollfd p{fd, POLLIN, 0};
    if (poll(&p, 1, kWait) <= 0) return false;
    uint8_t buf[4096];
    const ssize_t n = recv(fd, buf, sizeof buf, 0);
    if (n <= 0) return false;
    d.Feed(buf, static_cast<size_t>(n));
  }
}

class Rdt : public ::testing::Test {
 protected:
  void SetUp() override {
    port_ = testsupport::StartHubTransport(kUid, kPassword, 8, true);
    ASSERT_NE(0, port_);
  }
  void TearDown() override { testsupport::StopHubTransport(true); }

  int Listen() { return testsupport::ListenForSession(kWait); }

  // A viewer's connection on a raw socket that has said hello (the hub's session still to be
  // listened for); -1 when the hub could not be reached.
  int RawSession() const {
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(port_);
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    p2p::wire::Hello h;
    h.uid = kUid;
    h.password = kPassword;
    const auto hello = p2p::wire::EncodeHello(h);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr*>(&a), sizeof a) != 0 ||
        send(fd, hello.data(), hello.size(), 0) != static_cast<ssize_t>(hello.size())) {
      if (fd >= 0) close(fd);
      return -1;
    }
    return fd;
  }

  // A session with the AV login on channel 0 done; the hub's AV index in *av.
  int Open(p2p::Viewer& v, int* av = nullptr) {
    const auto h = testsupport::AcceptViewer(v, port_, kUid, kPassword, "viewer", "x", Auth, kWait);
    if (av != nullptr) *av = h.av;
    return h.sid;
  }

  // Both ends of an RDT channel on IOTC channel ch: the hub's ID.
  static int Pair(p2p::Viewer& v, int sid, uint8_t ch) {
    auto viewer_end = std::async(std::launch::async, [&] { return v.RdtCreate(ch, kWait); });
    const int id = RDT_Create(sid, kWait, ch);
    EXPECT_EQ(ch, viewer_end.get());
    return id;
  }

  uint16_t port_ = 0;
};

TEST_F(Rdt, BytesArriveWholeBothWaysAndDestroyEndsTheReaderAfterTheData) {
  p2p::Viewer v;
  const int sid = Open(v);
  // A viewer end that nobody meets times out and leaves the channel free.
  EXPECT_EQ(RDT_ER_TIMEOUT, v.RdtCreate(7, 50));
  EXPECT_EQ(RDT_ER_TIMEOUT, v.RdtCreate(7, 50));  // and again: not taken by the first
  auto early = std::async(std::launch::async, [&] { return v.RdtCreate(3, kWait); });
  const int down = RDT_Create(sid, kWait, 3);
  ASSERT_GE(down, 0);
  ASSERT_EQ(3, early.get());
  auto late_hub = std::async(std::launch::async, [&] { return RDT_Create(sid, kWait, 4); });
  ASSERT_EQ(4, v.RdtCreate(4, kWait));
  const int up = late_hub.get();
  ASSERT_GE(up, 0);
  EXPECT_EQ(RDT_ER_CHANNEL_OCCUPIED, RDT_Create(sid, 100, 3));
  EXPECT_EQ(RDT_ER_CHANNEL_OCCUPIED, v.RdtCreate(4, 100));

  // Hub to viewer: 3 MiB plus an odd tail in writes of uneven sizes, then destroy.
  const auto data = Pattern(3 * 1024 * 1024 + 4321, 1);
  auto writer = std::async(std::launch::async, [&] {
    size_t done = 0, step = 1000;
    while (done < data.size()) {
      const size_t n = std::min(step, data.size() - done);
      if (RDT_Write(down, reinterpret_cast<const char*>(data.data()) + done, static_cast<int>(n)) !=
          static_cast<int>(n))
        return false;
      done += n;
      step = step * 7 % 200000 + 1;
    }
    return RDT_Destroy(down) == 0;
  });
  // Viewer to hub at the same time: 1 MiB, then the viewer destroys its end.
  const auto back = Pattern(1024 * 1024, 2);
  auto viewer_writer = std::async(std::launch::async, [&] {
    return v.RdtWrite(4, back.data(), back.size()) == static_cast<int>(back.size()) &&
           v.RdtDestroy(4) == 0;
  });
  const auto got = ViewerReadAll(v, 3);
  const auto hub_got = HubReadAll(up);
  EXPECT_TRUE(writer.get());
  EXPECT_TRUE(viewer_writer.get());
  EXPECT_EQ(RDT_ER_REMOTE_EXIT, got.second);
  EXPECT_TRUE(got.first == data);
  EXPECT_EQ(RDT_ER_REMOTE_EXIT, hub_got.second);
  EXPECT_TRUE(hub_got.first == back);
  // A write to an end the viewer has destroyed fails; a freed ID is no ID.
  EXPECT_EQ(RDT_ER_REMOTE_EXIT, RDT_Write(up, "x", 1));
  EXPECT_EQ(0, RDT_Destroy(up));
  EXPECT_EQ(RDT_ER_INVALID_RDT_ID, RDT_Write(up, "x", 1));
  EXPECT_EQ(RDT_ER_INVALID_RDT_ID, RDT_Destroy(down));
  EXPECT_EQ(0, v.RdtDestroy(3));
  // Both channels can be used again.
  const int again = Pair(v, sid, 3);
  EXPECT_GE(again, 0);
  EXPECT_EQ(0, RDT_Destroy(again));
}

TEST_F(Rdt, ASlowReaderHoldsTheHubToOneWindowAndWriteWaitsForCredit) {
  p2p::Viewer v;
  const int sid = Open(v);
  const int id = Pair(v, sid, 2);
  ASSERT_GE(id, 0);
  const auto data = Pattern(6 * 1024 * 1024, 3);
  std::atomic<size_t> written{0};
  auto writer = std::async(std::launch::async, [&] {
    for (size_t done = 0; done < data.size(); done += 65536) {
      if (RDT_Write(id, reinterpret_cast<const char*>(data.data()) + done, 65536) != 65536)
        return false;
      written = done + 65536;
    }
    return RDT_Destroy(id) == 0;
  });
  // The viewer reads nothing: the writer stops after one window, the bytes sit in the viewer's
  // buffer, none are left in the hub's queue.
  ASSERT_TRUE(WaitFor([&] { return v.RdtPending(2) == static_cast<int>(p2p::kRdtWindow); },
                      std::chrono::milliseconds(kWait)));
  st_RDT_Status st{};
  EXPECT_EQ(0, RDT_Status_Check(id, &st));
  EXPECT_EQ(0u, st.BufSizeInSendQueue);
  EXPECT_LE(written.load(), static_cast<size_t>(p2p::kRdtWindow));
  // A trickle of reads lets the writer on by no more than what was read.
  std::vector<uint8_t> got(data.size());
  size_t have = 0;
  for (int i = 0; i < 20; ++i) {
    const int n = v.RdtRead(2, got.data() + have, 4000, kWait);
    ASSERT_GT(n, 0);
    have += static_cast<size_t>(n);
    ASSERT_EQ(0, RDT_Status_Check(id, &st));
    EXPECT_LE(st.BufSizeInSendQueue, p2p::kRdtWindow);
    EXPECT_LE(v.RdtPending(2), static_cast<int>(p2p::kRdtWindow));
  }
  EXPECT_LE(written.load(), have + p2p::kRdtWindow + 65536);
  for (;;) {
    const size_t room = std::min<size_t>(got.size() - have, 100000);
    uint8_t spare;
    const int n = v.RdtRead(2, room > 0 ? got.data() + have : &spare, room > 0 ? room : 1, kWait);
    if (n < 0) {
      EXPECT_EQ(RDT_ER_REMOTE_EXIT, n);
      break;
    }
    ASSERT_GT(room, 0u) << "more bytes than were written";
    have += static_cast<size_t>(n);
  }
  EXPECT_TRUE(writer.get());
  EXPECT_EQ(data.size(), have);
  EXPECT_TRUE(got == data);
}

TEST_F(Rdt, AbortDestroyAndSessionEndsGiveTheirCodesOnBothSides) {
  p2p::Viewer v;
  const int sid = Open(v);
  const std::vector<char> big(4 * 1024 * 1024, 'a');
  // The viewer aborts while the hub's write waits for credit.
  int id = Pair(v, sid, 1);
  auto blocked = std::async(
      std::launch::async, [&] { return RDT_Write(id, big.data(), static_cast<int>(big.size())); });
  ASSERT_TRUE(WaitFor([&] { return v.RdtPending(1) > 0; }, std::chrono::milliseconds(kWait)));
  EXPECT_EQ(0, v.RdtAbort(1));
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, blocked.get());
  char c;
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, RDT_Read(id, &c, 1, 0));
  EXPECT_EQ(0, RDT_Destroy(id));
  EXPECT_EQ(RDT_ER_INVALID_RDT_ID, v.RdtRead(1, &c, 1, 0));

  // The hub aborts: the viewer's read gets the code at once, unread data is dropped.
  id = Pair(v, sid, 1);
  ASSERT_EQ(100, RDT_Write(id, big.data(), 100));
  ASSERT_TRUE(WaitFor([&] { return v.RdtPending(1) == 100; }, std::chrono::milliseconds(kWait)));
  EXPECT_EQ(0, RDT_Abort(id));
  ASSERT_TRUE(WaitFor([&] { return v.RdtPending(1) == RDT_ER_REMOTE_ABORT; },
                      std::chrono::milliseconds(kWait)));
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, v.RdtRead(1, &c, 1, 0));
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, v.RdtWrite(1, "x", 1));
  EXPECT_EQ(0, v.RdtDestroy(1));

  // The hub's own abort from another thread ends its waiting write.
  id = Pair(v, sid, 1);
  auto waiting = std::async(
      std::launch::async, [&] { return RDT_Write(id, big.data(), static_cast<int>(big.size())); });
  ASSERT_TRUE(WaitFor([&] { return v.RdtPending(1) > 0; }, std::chrono::milliseconds(kWait)));
  EXPECT_EQ(0, RDT_Abort(id));
  EXPECT_EQ(RDT_ER_LOCAL_ABORT, waiting.get());
  EXPECT_EQ(0, v.RdtDestroy(1));

  // No viewer end within the time-out.
  EXPECT_EQ(RDT_ER_TIMEOUT, RDT_Create(sid, 50, 9));
  EXPECT_EQ(RDT_ER_INVALID_ARG, RDT_Create(sid, 50, 32));

  // The viewer says goodbye while the hub's write waits: the write ends with its code.
  id = Pair(v, sid, 1);
  auto left = std::async(std::launch::async,
                         [&] { return RDT_Write(id, big.data(), static_cast<int>(big.size())); });
  ASSERT_TRUE(WaitFor([&] { return v.RdtPending(1) > 0; }, std::chrono::milliseconds(kWait)));
  v.Close();
  EXPECT_EQ(RDT_ER_SESSION_CLOSE_BY_REMOTE, left.get());
  EXPECT_EQ(RDT_ER_SESSION_CLOSE_BY_REMOTE, RDT_Read(id, &c, 1, 0));
  EXPECT_EQ(0, RDT_Destroy(id));
  EXPECT_EQ(0, IOTC_Session_Close(sid));

  // A viewer that vanishes; then the hub closing a session ends the viewer's reads.
  p2p::Viewer w;
  int sid2 = Open(w);
  id = Pair(w, sid2, 5);
  auto lost = std::async(std::launch::async,
                         [&] { return RDT_Write(id, big.data(), static_cast<int>(big.size())); });
  ASSERT_TRUE(WaitFor([&] { return w.RdtPending(5) > 0; }, std::chrono::milliseconds(kWait)));
  w.Abort();
  EXPECT_EQ(RDT_ER_REMOTE_TIMEOUT_DISCONNECT, lost.get());
  EXPECT_EQ(0, RDT_Destroy(id));
  EXPECT_EQ(0, IOTC_Session_Close(sid2));

  p2p::Viewer x;
  sid2 = Open(x);
  id = Pair(x, sid2, 5);
  ASSERT_GE(id, 0);
  EXPECT_EQ(0, IOTC_Session_Close(sid2));
  EXPECT_EQ(RDT_ER_SESSION_CLOSED, RDT_Write(id, "x", 1));
  EXPECT_EQ(RDT_ER_SESSION_CLOSE_BY_REMOTE, x.RdtRead(5, &c, 1, kWait));
  EXPECT_EQ(0, RDT_Destroy(id));
}

TEST_F(Rdt, MediaFramesKeepFlowingDuringABigTransferAndTheTransferDuringFrames) {
  p2p::Viewer v;
  int av = -1;
  const int sid = Open(v, &av);
  const int id = Pair(v, sid, 2);
  ASSERT_GE(id, 0);
  // A transfer that runs until the hub aborts it, read as fast as it comes.
  auto writer = std::async(std::launch::async, [&] {
    const std::vector<char> piece(256 * 1024, 'r');
    for (;;) {
      const int rc = RDT_Write(id, piece.data(), static_cast<int>(piece.size()));
      if (rc < 0) return rc;
    }
  });
  std::atomic<size_t> read{0};
  auto reader = std::async(std::launch::async, [&] {
    std::vector<uint8_t> buf(65536);
    for (;;) {
      const int n = v.RdtRead(2, buf.data(), buf.size(), kWait);
      if (n < 0) return n;
      read += static_cast<size_t>(n);
    }
  });
  ASSERT_TRUE(
      WaitFor([&] { return read.load() > 4 * p2p::kRdtWindow; }, std::chrono::milliseconds(kWait)));
  // Every frame queued meanwhile arrives, in order, and the transfer moves on while they do.
  const std::vector<char> frame(20000, 'v');
  constexpr int kFrames = 40;
  const size_t before = read.load();
  for (int i = 0; i < kFrames; ++i) {
    ASSERT_EQ(0, avSendFrameData(av, frame.data(), static_cast<int>(frame.size()), nullptr, 0));
    p2p::ViewerFrame f;
    ASSERT_EQ(static_cast<int>(frame.size()), v.RecvFrame(&f, kWait));
    EXPECT_EQ(static_cast<uint32_t>(i), f.number);
  }
  EXPECT_GT(read.load(), before);
  EXPECT_EQ(0, RDT_Abort(id));
  // The writer was either waiting for credit (the abort ends that wait) or between two writes
  // (the next finds the channel gone); both end it.
  const int written = writer.get();
  EXPECT_TRUE(written == RDT_ER_LOCAL_ABORT || written == RDT_ER_INVALID_RDT_ID) << written;
  EXPECT_EQ(RDT_ER_REMOTE_ABORT, reader.get());
}

// A viewer that breaks the RDT rules loses its session; the hub goes on.
TEST_F(Rdt, DataBeyondTheWindowOrUnowedCreditEndsTheSession) {
  struct Case {
    const char* name;
    std::function<std::vector<uint8_t>()> bytes;
    const char* why;
  };
  using p2p::wire::EncodeRdtData;
  using p2p::wire::MsgType;
  const auto open = [](uint32_t token) {
    return p2p::wire::EncodeRdtOpen(6, p2p::wire::RdtOpen{1 << 20, token, 0});
  };
  const std::vector<uint8_t> chunk(p2p::wire::kMaxRdtData, 0x55);
  const Case cases[] = {
      {"beyond window",
       [&] {
         std::vector<uint8_t> out = open(1);
         for (size_t sent = 0; sent <= p2p::kRdtWindow; sent += chunk.size()) {
           auto m = EncodeRdtData(6, chunk.data(), chunk.size());
           out.insert(out.end(), m.begin(), m.end());
         }
         return out;
       },
       "RDT data beyond the window on channel 6"},
      {"unowed credit",
       [&] {
         std::vector<uint8_t> out = open(1);
         auto m = p2p::wire::EncodeRdtCredit(6, 1);
         out.insert(out.end(), m.begin(), m.end());
         return out;
       },
       "RDT credit beyond the window on channel 6"},
      {"second open",
       [&] {
         std::vector<uint8_t> out = open(1);
         auto m = open(2);
         out.insert(out.end(), m.begin(), m.end());
         return out;
       },
       "second RDT open on channel 6"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.name);
    testsupport::LogCapture log;
    const int fd = RawSession();
    ASSERT_GE(fd, 0);
    const int sid = Listen();
    ASSERT_GE(sid, 0);
    auto hub_end = std::async(std::launch::async, [&] { return RDT_Create(sid, kWait, 6); });
    // The hub's end is open before the viewer's messages come.
    ASSERT_TRUE(ReadUntil(fd, MsgType::kRdtOpen));
    const auto bytes = c.bytes();
    ASSERT_EQ(static_cast<ssize_t>(bytes.size()),
              send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL));
    EXPECT_TRUE(log.Wait("closed on bad input: " + std::string(c.why)));
    const int id = hub_end.get();
    if (id >= 0) {
      char buf[64];
      int rc = 0;
      while ((rc = RDT_Read(id, buf, sizeof buf, kWait)) > 0) {
      }
      EXPECT_EQ(RDT_ER_REMOTE_TIMEOUT_DISCONNECT, rc);
      EXPECT_EQ(0, RDT_Destroy(id));
    } else {
      EXPECT_EQ(RDT_ER_REMOTE_TIMEOUT_DISCONNECT, id);
    }
    EXPECT_EQ(0, IOTC_Session_Close(sid));
    close(fd);
  }
  // The hub still serves RDT.
  p2p::Viewer v;
  const int sid = Open(v);
  const int id = Pair(v, sid, 1);
  EXPECT_GE(id, 0);
  EXPECT_EQ(5, RDT_Write(id, "hello", 5));
  char buf[8];
  EXPECT_EQ(5, v.RdtRead(1, buf, sizeof buf, kWait));
}

TEST_F(Rdt, SixteenChannelsAtMostAndAnIdOutsideTheTableIsNoId) {
  using p2p::kRdtCapacity;
  testsupport::LogCapture log;
  p2p::Viewer v;
  const int sid = Open(v);
  std::vector<int> ids;
  for (uint8_t ch = 1; ch <= kRdtCapacity; ++ch) {
    ids.push_back(Pair(v, sid, ch));
    ASSERT_GE(ids.back(), 0);
  }
  EXPECT_EQ(RDT_ER_EXCEED_MAX_CHANNEL, RDT_Create(sid, 100, kRdtCapacity + 1));
  EXPECT_TRUE(log.Has(": P2P session " + std::to_string(sid) + ": every RDT channel is in use$"));
  char c = 0;
  for (int bad : {-1, kRdtCapacity, kRdtCapacity + 1}) {
    EXPECT_EQ(RDT_ER_INVALID_RDT_ID, RDT_Read(bad, &c, 1, 0)) << bad;
    EXPECT_EQ(RDT_ER_INVALID_RDT_ID, RDT_Write(bad, "x", 1)) << bad;
    EXPECT_EQ(RDT_ER_INVALID_RDT_ID, RDT_Destroy(bad)) << bad;
  }
  // One freed, one more can be made.
  ASSERT_EQ(0, RDT_Destroy(ids[0]));
  EXPECT_EQ(0, v.RdtDestroy(1));
  EXPECT_GE(Pair(v, sid, kRdtCapacity + 1), 0);
}

// An end of the hub still waiting for the viewer when RDT ends is withdrawn: the viewer is told,
// so its next end on that channel cannot pair with one that is gone.
TEST_F(Rdt, EndingRdtWithdrawsAnEndStillWaitingForTheViewer) {
  const int fd = RawSession();
  ASSERT_GE(fd, 0);
  const int sid = Listen();
  ASSERT_GE(sid, 0);
  p2p::wire::Decoder d(p2p::wire::Reader::kViewer);
  auto next = [&](p2p::wire::MsgType type, uint8_t channel) {
    for (;;) {
      p2p::wire::Message m;
      while (d.Next(&m) == p2p::wire::Decoder::kMessage)
        if (m.type == static_cast<uint8_t>(type) && m.channel == channel) return true;
      pollfd p{fd, POLLIN, 0};
      if (poll(&p, 1, kWait) <= 0) return false;
      uint8_t buf[4096];
      const ssize_t n = recv(fd, buf, sizeof buf, 0);
      if (n <= 0) return false;
      d.Feed(buf, static_cast<size_t>(n));
    }
  };
  auto hub_end = std::async(std::launch::async, [&] { return RDT_Create(sid, kWait, 6); });
  ASSERT_TRUE(next(p2p::wire::MsgType::kRdtOpen, 6));
  RDT_DeInitialize();
  EXPECT_EQ(RDT_ER_NOT_INITIALIZED, hub_end.get());
  EXPECT_TRUE(next(p2p::wire::MsgType::kRdtClose, 6));
  ASSERT_EQ(1, RDT_Initialize());
  close(fd);
}

}  // namespace
