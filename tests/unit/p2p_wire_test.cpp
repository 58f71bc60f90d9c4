// The transport's message format: round trips, stream cutting, and refusal of malformed input
// before any payload is buffered.
#include <gtest/gtest.h>

#include "p2p/wire.h"

using namespace p2p::wire;

namespace {

std::vector<Message> DecodeAll(Decoder& d, const std::vector<uint8_t>& bytes, bool byte_by_byte) {
  std::vector<Message> out;
  auto drain = [&] {
    Message m;
    while (d.Next(&m) == Decoder::kMessage) out.push_back(m);
  };
  if (byte_by_byte) {
    for (uint8_t b : bytes) {
      d.Feed(&b, 1);
      drain();
    }
  } else {
    d.Feed(bytes.data(), bytes.size());
    drain();
  }
  return out;
}

std::vector<uint8_t> Header(uint8_t type, uint8_t channel, uint32_t len) {
  return {kMagic0,
          kMagic1,
          type,
          channel,
          static_cast<uint8_t>(len),
          static_cast<uint8_t>(len >> 8),
          static_cast<uint8_t>(len >> 16),
          static_cast<uint8_t>(len >> 24)};
}

}  // namespace

TEST(P2pWire, MessagesSurviveTheStreamWholeOrByteByByte) {
  Hello hello;
  hello.uid = "TARVOUID000000000001";
  hello.password = "004217";
  hello.library_version = 0x01020304;
  const std::vector<uint8_t> info(28, 0x5a);
  std::vector<uint8_t> video(70000);
  for (size_t i = 0; i < video.size(); ++i) video[i] = static_cast<uint8_t>(i * 7);
  const char ioctrl[] = "{\"mac\":\"AABBCCDDEEFF\"}";

  for (bool byte_by_byte : {false, true}) {
    std::vector<uint8_t> to_hub = EncodeHello(hello);
    for (const auto& part :
         {EncodeLogin(MsgType::kAvLogin, 0, "acc", "{\"sign\":\"x\"}"),
          EncodeIoCtrl(0, 511, ioctrl, sizeof ioctrl - 1), EncodeEmpty(MsgType::kPing, 0),
          EncodeFrame(MsgType::kAudio, 7, 41, info.data(), info.size(), "abc", 3),
          EncodeLoginResult(MsgType::kClientLoginResult, 7, {0, 9})})
      to_hub.insert(to_hub.end(), part.begin(), part.end());
    Decoder hub(Reader::kHub);
    const auto got = DecodeAll(hub, to_hub, byte_by_byte);
    ASSERT_EQ(6u, got.size());
    Hello h;
    ASSERT_TRUE(ParseHello(got[0].payload, &h));
    EXPECT_EQ(hello.uid, h.uid);
    EXPECT_EQ(hello.password, h.password);
    EXPECT_EQ(0x01020304u, h.library_version);
    Login l;
    ASSERT_TRUE(ParseLogin(got[1].payload, &l));
    EXPECT_EQ("acc", l.account);
    EXPECT_EQ("{\"sign\":\"x\"}", l.secret);
    IoCtrl io;
    ASSERT_TRUE(ParseIoCtrl(got[2].payload, &io));
    EXPECT_EQ(511u, io.type);
    EXPECT_EQ(std::string(ioctrl), std::string(io.data.begin(), io.data.end()));
    EXPECT_EQ(static_cast<uint8_t>(MsgType::kPing), got[3].type);
    Frame f;
    ASSERT_TRUE(ParseFrame(got[4].payload, kMaxAudioData, &f));
    EXPECT_EQ(7, got[4].channel);
    EXPECT_EQ(41u, f.number);
    EXPECT_EQ(info, f.info);
    EXPECT_EQ("abc", std::string(f.data.begin(), f.data.end()));
    LoginResult lr;
    ASSERT_TRUE(ParseLoginResult(got[5].payload, &lr));
    EXPECT_EQ(9u, lr.service_type);
    EXPECT_EQ(0u, hub.buffered());

    std::vector<uint8_t> to_viewer =
        EncodeFrame(MsgType::kVideo, 0, 3, info.data(), info.size(), video.data(), video.size());
    const auto result = EncodeHelloResult({-18, -1, 1});
    to_viewer.insert(to_viewer.end(), result.begin(), result.end());
    Decoder viewer(Reader::kViewer);
    const auto seen = DecodeAll(viewer, to_viewer, byte_by_byte);
    ASSERT_EQ(2u, seen.size());
    Frame v;
    ASSERT_TRUE(ParseFrame(seen[0].payload, kMaxVideoData, &v));
    EXPECT_EQ(video, v.data);
    EXPECT_EQ(3u, v.number);
    HelloResult r;
    ASSERT_TRUE(ParseHelloResult(seen[1].payload, &r));
    EXPECT_EQ(-18, r.result);
    EXPECT_EQ(-1, r.sid);
  }
}

TEST(P2pWire, MalformedHeadersFailAtOnceAndStayFailed) {
  struct Case {
    const char* what;
    Reader reader;
    std::vector<uint8_t> bytes;
  };
  const std::vector<Case> cases = {
      {"bad magic", Reader::kHub, {'X', 'P', 0x03, 0, 0, 0, 0, 0}},
      {"unknown type", Reader::kHub, Header(0x7f, 0, 0)},
      {"video sent to the hub", Reader::kHub, Header(0x21, 0, 10)},
      {"session request sent to a viewer", Reader::kViewer, Header(0x01, 0, 10)},
      {"channel 32", Reader::kHub, Header(0x20, 32, 4)},
      {"ping with a payload", Reader::kHub, Header(0x03, 0, 1)},
      // The length alone condemns it: no payload byte has to arrive.
      {"I/O control over 1024 bytes", Reader::kHub, Header(0x20, 0, 4 + 1025)},
      {"audio over the limit", Reader::kHub, Header(0x22, 1, 5 + 64 + 65537)},
      {"4 GiB length", Reader::kViewer, Header(0x21, 0, 0xffffffffu)},
  };
  for (const auto& c : cases) {
    Decoder d(c.reader);
    d.Feed(c.bytes.data(), c.bytes.size());
    Message m;
    EXPECT_EQ(Decoder::kError, d.Next(&m)) << c.what;
    EXPECT_FALSE(d.error().empty()) << c.what;
    // Good bytes after the bad ones are never read.
    const auto ping = EncodeEmpty(MsgType::kPing, 0);
    d.Feed(ping.data(), ping.size());
    EXPECT_EQ(Decoder::kError, d.Next(&m)) << c.what;
  }
}

TEST(P2pWire, EachLengthLimitHoldsAtItsBoundary) {
  // The largest payload of a type is taken (the decoder waits for it); one byte more is
  // refused from the header alone. AV and client logins: 1 + 255 account + 2 + 1024 text;
  // I/O control: 4 + 1024; audio: 5 + 64 frame information + 65536; the results: 12 and 8.
  struct Case {
    const char* what;
    Reader reader;
    uint8_t type;
    uint32_t largest;
  };
  const std::vector<Case> cases = {
      {"AV login", Reader::kHub, 0x10, 1282},
      {"client login", Reader::kViewer, 0x12, 1282},
      {"I/O control to the hub", Reader::kHub, 0x20, 1028},
      {"I/O control to a viewer", Reader::kViewer, 0x20, 1028},
      {"audio to the hub", Reader::kHub, 0x22, 5 + 64 + 65536},
      {"session result", Reader::kViewer, 0x02, 12},
      {"AV login result", Reader::kViewer, 0x11, 8},
      {"client login result", Reader::kHub, 0x13, 8},
  };
  for (const auto& c : cases) {
    for (uint32_t len : {c.largest, c.largest + 1}) {
      Decoder d(c.reader);
      const auto header = Header(c.type, 1, len);
      d.Feed(header.data(), header.size());
      Message m;
      EXPECT_EQ(len == c.largest ? Decoder::kNeedMore : Decoder::kError, d.Next(&m))
          << c.what << ", " << len << " bytes";
    }
  }
}

TEST(P2pWire, PayloadsWithInconsistentLengthsAreRefused) {
  Hello hello;
  hello.uid = "UID";
  hello.password = "123456";
  auto good = EncodeHello(hello);
  std::vector<uint8_t> payload(good.begin() + kHeaderSize, good.end());
  Hello out;
  ASSERT_TRUE(ParseHello(payload, &out));
  // uid length pointing past the end, trailing garbage, every truncation.
  auto longer = payload;
  longer[2] = 200;
  EXPECT_FALSE(ParseHello(longer, &out));
  auto trailing = payload;
  trailing.push_back(0);
  EXPECT_FALSE(ParseHello(trailing, &out));
  for (size_t n = 0; n < payload.size(); ++n) {
    std::vector<uint8_t> cut(payload.begin(), payload.begin() + n);
    EXPECT_FALSE(ParseHello(cut, &out)) << n;
  }

  // A frame whose info length runs past the payload, or whose info is over 64 bytes.
  Frame f;
  EXPECT_FALSE(ParseFrame({1, 0, 0, 0, 10, 1, 2}, kMaxAudioData, &f));
  std::vector<uint8_t> big_info = {0, 0, 0, 0, 65};
  big_info.resize(5 + 65 + 1);
  EXPECT_FALSE(ParseFrame(big_info, kMaxAudioData, &f));
  EXPECT_FALSE(ParseFrame({0, 0, 0, 0, 0, 1, 2, 3}, 2, &f));
  EXPECT_TRUE(ParseFrame({0, 0, 0, 0, 0, 1, 2}, 2, &f));

  // A login whose text length exceeds the limit.
  std::vector<uint8_t> login = {0, 0x01, 0x04};  // account "", text of 1025 bytes
  login.resize(3 + 1025, 'a');
  Login l;
  EXPECT_FALSE(ParseLogin(login, &l));
  LoginResult r;
  EXPECT_FALSE(ParseLoginResult({1, 2, 3}, &r));
  IoCtrl io;
  EXPECT_FALSE(ParseIoCtrl({1, 2, 3}, &io));
}

namespace {

TEST(P2pWire, RdtMessagesRoundTripAndOddSizesOrZeroValuesAreRefused) {
  auto payload = [](const std::vector<uint8_t>& m) {
    return std::vector<uint8_t>(m.begin() + kHeaderSize, m.end());
  };
  RdtOpen open_back;
  ASSERT_TRUE(ParseRdtOpen(payload(EncodeRdtOpen(4, {262144, 7, 3})), &open_back));
  EXPECT_EQ(262144u, open_back.window);
  EXPECT_EQ(7u, open_back.token);
  EXPECT_EQ(3u, open_back.answer);
  RdtClose close;
  ASSERT_TRUE(ParseRdtClose(payload(EncodeRdtClose(4, {kRdtCloseAbort, 9})), &close));
  EXPECT_EQ(kRdtCloseAbort, close.reason);
  EXPECT_EQ(9u, close.token);
  uint32_t credit = 0;
  ASSERT_TRUE(ParseRdtCredit(payload(EncodeRdtCredit(4, 32768)), &credit));
  EXPECT_EQ(32768u, credit);

  // A zero window, token or credit, an unknown reason, a byte short or over: refused.
  EXPECT_FALSE(ParseRdtOpen(payload(EncodeRdtOpen(4, {0, 7, 0})), &open_back));
  EXPECT_FALSE(ParseRdtOpen(payload(EncodeRdtOpen(4, {1, 0, 0})), &open_back));
  EXPECT_FALSE(ParseRdtClose(payload(EncodeRdtClose(4, {2, 9})), &close));
  EXPECT_FALSE(ParseRdtClose(payload(EncodeRdtClose(4, {kRdtCloseExit, 0})), &close));
  EXPECT_FALSE(ParseRdtCredit(payload(EncodeRdtCredit(4, 0)), &credit));
  auto longer = payload(EncodeRdtCredit(4, 1));
  longer.push_back(0);
  EXPECT_FALSE(ParseRdtCredit(longer, &credit));
  longer.resize(3);
  EXPECT_FALSE(ParseRdtCredit(longer, &credit));

  // Data: up to one chunk, both ways; a header announcing more fails before any payload.
  for (Reader reader : {Reader::kHub, Reader::kViewer}) {
    const std::vector<uint8_t> chunk(kMaxRdtData, 0xab);
    Decoder d(reader);
    const auto bytes = EncodeRdtData(31, chunk.data(), chunk.size());
    const auto msgs = DecodeAll(d, bytes, false);
    ASSERT_EQ(1u, msgs.size());
    EXPECT_EQ(31, msgs[0].channel);
    EXPECT_EQ(chunk, msgs[0].payload);
    Decoder over(reader);
    const auto header = Header(static_cast<uint8_t>(MsgType::kRdtData), 1, kMaxRdtData + 1);
    over.Feed(header.data(), header.size());
    Message m;
    EXPECT_EQ(Decoder::kError, over.Next(&m));
    Decoder open_over(reader);
    const auto big_open = Header(static_cast<uint8_t>(MsgType::kRdtOpen), 1, 13);
    open_over.Feed(big_open.data(), big_open.size());
    EXPECT_EQ(Decoder::kError, open_over.Next(&m));
  }
}

}  // namespace
