// The wire format of the open P2P transport, shared by the hub side and the viewer library.
//
// Every message is an 8-byte header followed by its payload (all integers little-endian):
//   bytes 0-1  magic 'T' 'P'
//   byte  2    message type (MsgType)
//   byte  3    IOTC channel 0..31 (0 for session-level messages)
//   bytes 4-7  payload length
// Each type has its own payload limit, checked on the header before any byte of the payload is
// buffered. docs/p2p-transport.md describes every payload.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace p2p {
namespace wire {

constexpr uint8_t kMagic0 = 'T';
constexpr uint8_t kMagic1 = 'P';
constexpr size_t kHeaderSize = 8;
constexpr uint16_t kProtocolVersion = 1;

constexpr unsigned kMaxChannels = 32;      // IOTC channels 0..31 per session
constexpr size_t kMaxUid = 64;             // uid text in the session request
constexpr size_t kMaxPassword = 64;        // P2P password in the session request
constexpr size_t kMaxAccount = 255;        // AV login account
constexpr size_t kMaxLoginText = 1024;     // AV login text (the viewer's "password")
constexpr size_t kMaxIoCtrl = 1024;        // I/O-control payload
constexpr size_t kMaxFrameInfo = 64;       // frame information blob of a frame
constexpr size_t kMaxVideoData = 1114112;  // 1 MiB + 64 KiB, one video frame
constexpr size_t kMaxAudioData = 65536;    // one audio frame
constexpr size_t kMaxRdtData = 16384;      // one chunk of reliable-transfer data

enum class MsgType : uint8_t {
  kHello = 0x01,              // viewer -> hub: open a session
  kHelloResult = 0x02,        // hub -> viewer: result of the session request
  kPing = 0x03,               // both: keeps the link alive
  kBye = 0x04,                // both: orderly end of the session
  kAvLogin = 0x10,            // viewer -> hub: AV login on a channel the hub serves
  kAvLoginResult = 0x11,      // hub -> viewer: result of that login
  kClientLogin = 0x12,        // hub -> viewer: the hub joins a channel the viewer serves
  kClientLoginResult = 0x13,  // viewer -> hub: result of that join
  kChannelStop = 0x14,        // both: the sender has stopped its side of the channel
  kIoCtrl = 0x20,             // both: one I/O-control message
  kVideo = 0x21,              // hub -> viewer: one video frame
  kAudio = 0x22,              // both: one audio frame
  kRdtOpen = 0x30,            // both: the sender created its end of an RDT channel
  kRdtData = 0x31,            // both: one chunk of RDT data
  kRdtCredit = 0x32,          // both: the sender has read this many more bytes
  kRdtClose = 0x33,           // both: the sender destroyed or aborted its end
};

// Reason of kRdtClose.
constexpr uint32_t kRdtCloseExit = 0;   // RDT_Destroy: everything sent before it is delivered
constexpr uint32_t kRdtCloseAbort = 1;  // RDT_Abort, or a create that timed out

// Who reads the stream: the hub reads what viewers send and the other way round. The set of
// acceptable types and their limits depends on it.
enum class Reader { kHub, kViewer };

// Largest payload a reader accepts for a type; 0 when the type is not acceptable at all.
size_t MaxPayload(Reader reader, uint8_t type);

struct Message {
  uint8_t type = 0;
  uint8_t channel = 0;
  std::vector<uint8_t> payload;
};

// Cuts a byte stream into messages. Bytes are fed as they arrive; Next yields whole messages.
// Once the stream is found malformed (bad magic, unknown or unacceptable type, channel out of
// range, payload over the type's limit) the decoder stays failed.
class Decoder {
 public:
  explicit Decoder(Reader reader) : reader_(reader) {}
  enum Result { kNeedMore, kMessage, kError };
  void Feed(const uint8_t* data, size_t len);
  Result Next(Message* out);
  const std::string& error() const { return error_; }
  // Bytes held and not yet returned.
  size_t buffered() const { return buf_.size() - pos_; }

 private:
  Reader reader_;
  std::vector<uint8_t> buf_;
  size_t pos_ = 0;
  bool failed_ = false;
  std::string error_;
};

// Payloads. Parse functions check every length against the payload and the limits above and
// return false on any inconsistency.
struct Hello {
  uint16_t version = kProtocolVersion;
  std::string uid;
  std::string password;
  uint32_t library_version = 0;
};
struct HelloResult {
  int32_t result = 0;  // 0, or the IOTC code of the refusal
  int32_t sid = -1;
  uint32_t library_version = 0;
};
struct Login {  // kAvLogin and kClientLogin
  std::string account;
  std::string secret;  // login text (kAvLogin) or password (kClientLogin)
};
struct LoginResult {  // kAvLoginResult and kClientLoginResult
  int32_t result = 0;
  uint32_t service_type = 0;
};
struct IoCtrl {
  uint32_t type = 0;
  std::vector<uint8_t> data;
};
struct Frame {  // kVideo and kAudio
  uint32_t number = 0;
  std::vector<uint8_t> info;
  std::vector<uint8_t> data;
};

bool ParseHello(const std::vector<uint8_t>& p, Hello* out);
bool ParseHelloResult(const std::vector<uint8_t>& p, HelloResult* out);
bool ParseLogin(const std::vector<uint8_t>& p, Login* out);
bool ParseLoginResult(const std::vector<uint8_t>& p, LoginResult* out);
bool ParseIoCtrl(const std::vector<uint8_t>& p, IoCtrl* out);
bool ParseFrame(const std::vector<uint8_t>& p, size_t max_data, Frame* out);
// RDT payloads. An end is named by the token its side gave it (never 0), so that messages of an
// end that has gone (a create that timed out) are never taken for those of the next one.
struct RdtOpen {
  uint32_t window = 0;  // bytes the sender can hold unread, > 0
  uint32_t token = 0;   // the sender's end
  uint32_t answer = 0;  // the receiver's end this open meets, or 0 when it knows none yet
};
struct RdtClose {
  uint32_t reason = kRdtCloseExit;
  uint32_t token = 0;  // the sender's end
};
bool ParseRdtOpen(const std::vector<uint8_t>& p, RdtOpen* out);
// kRdtCredit: the bytes read, > 0.
bool ParseRdtCredit(const std::vector<uint8_t>& p, uint32_t* bytes);
bool ParseRdtClose(const std::vector<uint8_t>& p, RdtClose* out);

// Encoders return the whole message, header included. Arguments must respect the limits; the
// callers check them first.
std::vector<uint8_t> EncodeEmpty(MsgType type, uint8_t channel);
std::vector<uint8_t> EncodeHello(const Hello& h);
std::vector<uint8_t> EncodeHelloResult(const HelloResult& r);
std::vector<uint8_t> EncodeLogin(MsgType type, uint8_t channel, const std::string& account,
                                 const std::string& secret);
std::vector<uint8_t> EncodeLoginResult(MsgType type, uint8_t channel, const LoginResult& r);
std::vector<uint8_t> EncodeIoCtrl(uint8_t channel, uint32_t type, const void* data, size_t len);
std::vector<uint8_t> EncodeFrame(MsgType type, uint8_t channel, uint32_t number, const void* info,
                                 size_t info_len, const void* data, size_t len);
// The part of a frame message before its data: FrameHeadBytes(info_len) bytes written to out,
// for data of len bytes to follow.
constexpr size_t FrameHeadBytes(size_t info_len) {
  return kHeaderSize + 5 + info_len;
}
void PutFrameHead(uint8_t* out, MsgType type, uint8_t channel, uint32_t number, const void* info,
                  size_t info_len, size_t len);
std::vector<uint8_t> EncodeRdtOpen(uint8_t channel, const RdtOpen& o);
std::vector<uint8_t> EncodeRdtCredit(uint8_t channel, uint32_t bytes);
std::vector<uint8_t> EncodeRdtClose(uint8_t channel, const RdtClose& c);
// kRdtData with 1..kMaxRdtData bytes.
std::vector<uint8_t> EncodeRdtData(uint8_t channel, const void* data, size_t len);

}  // namespace wire
}  // namespace p2p
