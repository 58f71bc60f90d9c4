// Cutting a camera's byte stream into frames: order, partial frames, the heartbeat byte and the
// discard of everything held when bytes are not a frame.
#include "camera/framecutter.h"

#include <gtest/gtest.h>

#include <cstring>
#include <vector>

namespace {

using Bytes = std::vector<uint8_t>;
constexpr size_t kHubBuffer = 17408;

Bytes Frame(uint8_t type, uint8_t subtype, size_t n, uint8_t fill = 0x5A) {
  Bytes payload(n, fill);
  Bytes out(n + 34);
  command::FrameFields f;
  f.type = type;
  f.subtype = subtype;
  EXPECT_EQ(command::BuildFrame(out.data(), out.size(), f, payload.data(), n),
            static_cast<int>(n + 34));
  return out;
}

struct Seen {
  uint8_t type;
  uint8_t subtype;
  size_t size;
};

class Cutter : public ::testing::Test {
 protected:
  command::FrameCutter cutter{kHubBuffer};
  std::vector<Seen> seen;

  // One receive: copies what fits and cuts.
  size_t Feed(const Bytes& bytes) {
    const size_t n = std::min(bytes.size(), cutter.Space());
    std::memcpy(cutter.WritePtr(), bytes.data(), n);
    cutter.Commit(n);
    cutter.Cut([this](const _net_cmd_type* f) {
      seen.push_back({f->type, f->subtype, f->FrameSize()});
    });
    return n;
  }
};

TEST_F(Cutter, TwoFramesInOneReceiveAreRoutedInOrder) {
  Bytes two = Frame(0x82, 0, 34);
  const Bytes login = Frame(0xF1, 0, 8);
  two.insert(two.end(), login.begin(), login.end());
  Feed(two);
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[0].type, 0x82);
  EXPECT_EQ(seen[0].size, 68u);
  EXPECT_EQ(seen[1].type, 0xF1);
  EXPECT_EQ(cutter.Held(), 0u);
}

TEST_F(Cutter, FrameSplitOverThreeReceivesIsRoutedOnceAtTheEnd) {
  const Bytes piece = Frame(0x8A, 0, 16400);
  Feed(Bytes(piece.begin(), piece.begin() + 20));
  Feed(Bytes(piece.begin() + 20, piece.begin() + 9000));
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(cutter.Held(), 9000u);
  Feed(Bytes(piece.begin() + 9000, piece.end()));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].size, 16434u);
  EXPECT_EQ(cutter.Held(), 0u);
}

TEST_F(Cutter, PartialFrameAfterAWholeOneMovesToTheFront) {
  Bytes bytes = Frame(0x8A, 1, 328);
  const Bytes next = Frame(0x8A, 0, 16400);
  bytes.insert(bytes.end(), next.begin(), next.begin() + 100);
  Feed(bytes);
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(cutter.Held(), 100u);
  EXPECT_EQ(0, std::memcmp(cutter.Data(), next.data(), 100));
  Feed(Bytes(next.begin() + 100, next.end()));
  ASSERT_EQ(seen.size(), 2u);
  EXPECT_EQ(seen[1].size, 16434u);
}

TEST_F(Cutter, HeartbeatByteStaysAndCostsTheNextFrame) {
  Feed(Bytes{0x00});
  EXPECT_EQ(cutter.Held(), 1u);  // kept like any other byte
  Feed(Frame(0xF1, 0, 8));
  EXPECT_TRUE(seen.empty());
  EXPECT_EQ(cutter.Held(), 0u);
  EXPECT_EQ(cutter.Discards(), 1u);
  // The stream starts afresh with the next receive.
  Feed(Frame(0xF1, 0, 8));
  EXPECT_EQ(seen.size(), 1u);
}

TEST_F(Cutter, GarbageAndBadTailDiscardEverythingHeld) {
  Bytes garbage(500, 0x68);  // magic bytes everywhere, but no tail where it must be
  Feed(garbage);
  EXPECT_EQ(cutter.Held(), 0u);
  EXPECT_TRUE(seen.empty());

  Bytes bad = Frame(0x03, 0, 34);
  bad[bad.size() - 1] = 0x17;
  const Bytes good = Frame(0x03, 0, 34);
  bad.insert(bad.end(), good.begin(), good.end());
  Feed(bad);
  EXPECT_TRUE(seen.empty());  // the good frame behind the bad one goes too
  EXPECT_EQ(cutter.Held(), 0u);
}

TEST_F(Cutter, EitherByteOfEitherMagicWrongIsNoFrame) {
  // A frame whose second magic was damaged must not reach the channel, whichever byte it is.
  for (size_t at : {0u, 1u, 24u, 25u}) {
    Bytes bad = Frame(0x8A, 0, 40);
    bad[at] = 0x67;
    Feed(bad);
    EXPECT_TRUE(seen.empty()) << "magic byte " << at;
    EXPECT_EQ(cutter.Held(), 0u) << "magic byte " << at;
  }
  EXPECT_EQ(cutter.Discards(), 4u);
  Feed(Frame(0x8A, 0, 40));
  EXPECT_EQ(seen.size(), 1u);
}

TEST_F(Cutter, FewerThanAHeaderWaits) {
  Feed(Bytes(33, 0x00));
  EXPECT_EQ(cutter.Held(), 33u);
  EXPECT_EQ(cutter.Discards(), 0u);
}

TEST_F(Cutter, LengthsBeyondTheBufferAreDiscardedAtOnce) {
  for (uint16_t length : {uint16_t{65535}, uint16_t{17375}}) {
    Bytes head = Frame(0x8A, 0, 0);
    command::PutLe16(head.data() + 26, length);
    head.resize(34);
    Feed(head);
    EXPECT_EQ(cutter.Held(), 0u) << length;
  }
  EXPECT_EQ(cutter.Discards(), 2u);
  // The largest frame that fits the buffer exactly is still cut.
  Feed(Frame(0x8A, 0, kHubBuffer - 34));
  ASSERT_EQ(seen.size(), 1u);
  EXPECT_EQ(seen[0].size, kHubBuffer);
}

TEST_F(Cutter, ReceiveNeverWritesPastTheBuffer) {
  const Bytes piece = Frame(0x8A, 0, 16400);
  Bytes stream;
  for (int i = 0; i < 3; i++) stream.insert(stream.end(), piece.begin(), piece.end());
  size_t off = 0;
  while (off < stream.size()) {
    off += Feed(Bytes(stream.begin() + off, stream.end()));
    ASSERT_LE(cutter.Held(), kHubBuffer);
  }
  EXPECT_EQ(seen.size(), 3u);
}

}  // namespace
