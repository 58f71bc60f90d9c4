// The P2P transport's message parser on arbitrary bytes: the stream decoder as the hub and as a
// viewer reads it, and every payload parser (sessions, AV channels, reliable transfer) on each
// message it yields.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "p2p/wire.h"

namespace {

void Parse(const p2p::wire::Message& m) {
  using namespace p2p::wire;
  Hello hello;
  HelloResult hello_result;
  Login login;
  LoginResult login_result;
  IoCtrl io;
  Frame frame;
  RdtOpen rdt_open;
  RdtClose rdt_close;
  uint32_t credit = 0;
  switch (static_cast<MsgType>(m.type)) {
    case MsgType::kHello:
      if (ParseHello(m.payload, &hello) &&
          (hello.uid.size() > kMaxUid || hello.password.size() > kMaxPassword))
        __builtin_trap();
      break;
    case MsgType::kHelloResult:
      ParseHelloResult(m.payload, &hello_result);
      break;
    case MsgType::kAvLogin:
    case MsgType::kClientLogin:
      if (ParseLogin(m.payload, &login) &&
          (login.account.size() > kMaxAccount || login.secret.size() > kMaxLoginText))
        __builtin_trap();
      break;
    case MsgType::kAvLoginResult:
    case MsgType::kClientLoginResult:
      ParseLoginResult(m.payload, &login_result);
      break;
    case MsgType::kIoCtrl:
      if (ParseIoCtrl(m.payload, &io) && io.data.size() > kMaxIoCtrl) __builtin_trap();
      break;
    case MsgType::kVideo:
    case MsgType::kAudio:
      if (ParseFrame(m.payload, kMaxAudioData, &frame) &&
          (frame.info.size() > kMaxFrameInfo || frame.data.size() > kMaxAudioData))
        __builtin_trap();
      break;
    case MsgType::kRdtOpen:
      if (ParseRdtOpen(m.payload, &rdt_open) &&
          (rdt_open.window == 0 || rdt_open.token == 0 || m.payload.size() != 12))
        __builtin_trap();
      break;
    case MsgType::kRdtCredit:
      if (ParseRdtCredit(m.payload, &credit) && (credit == 0 || m.payload.size() != 4))
        __builtin_trap();
      break;
    case MsgType::kRdtClose:
      if (ParseRdtClose(m.payload, &rdt_close) &&
          (rdt_close.token == 0 ||
           (rdt_close.reason != kRdtCloseExit && rdt_close.reason != kRdtCloseAbort)))
        __builtin_trap();
      break;
    case MsgType::kRdtData:
      if (m.payload.size() > kMaxRdtData) __builtin_trap();
      break;
    default:
      break;
  }
}

}  // namespace

// Cuts the input fed in pieces of the given sizes (cycled); returns the messages and whether the
// stream was found malformed.
static std::vector<p2p::wire::Message> Cut(p2p::wire::Reader reader, const uint8_t* data,
                                           size_t size, bool uneven, bool* failed) {
  p2p::wire::Decoder d(reader);
  std::vector<p2p::wire::Message> out;
  size_t pos = 0, step = 1;
  *failed = false;
  while (pos < size && !*failed) {
    const size_t want = uneven ? step : size;
    const size_t n = want < size - pos ? want : size - pos;
    d.Feed(data + pos, n);
    pos += n;
    step = step * 3 % 17 + 1;
    for (;;) {
      p2p::wire::Message m;
      const auto r = d.Next(&m);
      if (r == p2p::wire::Decoder::kError) *failed = true;
      if (r != p2p::wire::Decoder::kMessage) break;
      out.push_back(std::move(m));
    }
  }
  return out;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  for (auto reader : {p2p::wire::Reader::kHub, p2p::wire::Reader::kViewer}) {
    // Fed at once and in uneven pieces, the stream must be cut the same way.
    bool failed_whole = false, failed_pieces = false;
    const auto whole = Cut(reader, data, size, false, &failed_whole);
    const auto pieces = Cut(reader, data, size, true, &failed_pieces);
    if (failed_whole != failed_pieces || whole.size() != pieces.size()) __builtin_trap();
    for (size_t i = 0; i < whole.size(); ++i) {
      const auto& a = whole[i];
      const auto& b = pieces[i];
      if (a.type != b.type || a.channel != b.channel || a.payload != b.payload) __builtin_trap();
      if (a.channel >= p2p::wire::kMaxChannels ||
          a.payload.size() > p2p::wire::MaxPayload(reader, a.type))
        __builtin_trap();
      Parse(a);
    }
  }
  return 0;
}
