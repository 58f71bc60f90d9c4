#include "p2p/wire.h"

#include <cstring>

namespace p2p {
namespace wire {

namespace {

void PutU16(std::vector<uint8_t>* out, uint16_t v) {
  out->push_back(static_cast<uint8_t>(v));
  out->push_back(static_cast<uint8_t>(v >> 8));
}

void PutU32(std::vector<uint8_t>* out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(v >> (8 * i)));
}

void PutBytes(std::vector<uint8_t>* out, const void* data, size_t len) {
  if (len == 0) return;
  const uint8_t* p = static_cast<const uint8_t*>(data);
  out->insert(out->end(), p, p + len);
}

uint32_t GetU32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

// Starts a message: header with the payload length filled in, room reserved for the payload.
std::vector<uint8_t> Start(MsgType type, uint8_t channel, size_t payload_len) {
  std::vector<uint8_t> out;
  out.reserve(kHeaderSize + payload_len);
  out.push_back(kMagic0);
  out.push_back(kMagic1);
  out.push_back(static_cast<uint8_t>(type));
  out.push_back(channel);
  PutU32(&out, static_cast<uint32_t>(payload_len));
  return out;
}

// Reads fields from a payload, never past its end.
class Cursor {
 public:
  explicit Cursor(const std::vector<uint8_t>& p) : p_(p) {}
  bool U8(uint8_t* v) {
    if (left() < 1) return false;
    *v = p_[pos_++];
    return true;
  }
  bool U16(uint16_t* v) {
    if (left() < 2) return false;
    *v = static_cast<uint16_t>(p_[pos_] | (p_[pos_ + 1] << 8));
    pos_ += 2;
    return true;
  }
  bool U32(uint32_t* v) {
    if (left() < 4) return false;
    *v = GetU32(p_.data() + pos_);
    pos_ += 4;
    return true;
  }
  bool Text(size_t len, size_t max, std::string* out) {
    if (len > max || left() < len) return false;
    out->assign(reinterpret_cast<const char*>(p_.data()) + pos_, len);
    pos_ += len;
    return true;
  }
  bool Bytes(size_t len, size_t max, std::vector<uint8_t>* out) {
    if (len > max || left() < len) return false;
    out->assign(p_.begin() + static_cast<std::ptrdiff_t>(pos_),
                p_.begin() + static_cast<std::ptrdiff_t>(pos_ + len));
    pos_ += len;
    return true;
  }
  size_t left() const { return p_.size() - pos_; }

 private:
  const std::vector<uint8_t>& p_;
  size_t pos_ = 0;
};

// Fixed parts of the payloads.
constexpr size_t kHelloFixed = 2 + 1 + 1 + 4;
constexpr size_t kFrameFixed = 4 + 1;

}  // namespace

size_t MaxPayload(Reader reader, uint8_t type) {
  const bool hub = reader == Reader::kHub;
  switch (static_cast<MsgType>(type)) {
    case MsgType::kHello:
      return hub ? kHelloFixed + kMaxUid + kMaxPassword : 0;
    case MsgType::kHelloResult:
      return hub ? 0 : 12;
    case MsgType::kPing:
    case MsgType::kBye:
    case MsgType::kChannelStop:
      // Empty messages; a byte of payload is already malformed, so 0 means "nothing allowed"
      // here only through the length check in Next.
      return 0;
    case MsgType::kAvLogin:
      return hub ? 1 + kMaxAccount + 2 + kMaxLoginText : 0;
    case MsgType::kAvLoginResult:
      return hub ? 0 : 8;
    case MsgType::kClientLogin:
      return hub ? 0 : 1 + kMaxAccount + 2 + kMaxLoginText;
    case MsgType::kClientLoginResult:
      return hub ? 8 : 0;
    case MsgType::kIoCtrl:
      return 4 + kMaxIoCtrl;
    case MsgType::kVideo:
      return hub ? 0 : kFrameFixed + kMaxFrameInfo + kMaxVideoData;
    case MsgType::kAudio:
      return kFrameFixed + kMaxFrameInfo + kMaxAudioData;
    case MsgType::kRdtOpen:
      return 12;
    case MsgType::kRdtCredit:
      return 4;
    case MsgType::kRdtClose:
      return 8;
    case MsgType::kRdtData:
      return kMaxRdtData;
  }
  return 0;
}

namespace {

bool Acceptable(Reader reader, uint8_t type) {
  switch (static_cast<MsgType>(type)) {
    case MsgType::kPing:
    case MsgType::kBye:
    case MsgType::kChannelStop:
      return true;
    default:
      return MaxPayload(reader, type) > 0;
  }
}

}  // namespace

void Decoder::Feed(const uint8_t* data, size_t len) {
  if (failed_ || len == 0) return;
  // Drop what has been consumed before growing, so the buffer holds at most one message and
  // the bytes that follow it in the same read.
  if (pos_ > 0 && (pos_ == buf_.size() || pos_ > 65536)) {
    buf_.erase(buf_.begin(), buf_.begin() + static_cast<std::ptrdiff_t>(pos_));
    pos_ = 0;
  }
  buf_.insert(buf_.end(), data, data + len);
}

Decoder::Result Decoder::Next(Message* out) {
  if (failed_) return kError;
  const size_t avail = buf_.size() - pos_;
  if (avail < kHeaderSize) return kNeedMore;
  const uint8_t* h = buf_.data() + pos_;
  if (h[0] != kMagic0 || h[1] != kMagic1) {
    failed_ = true;
    error_ = "bad magic";
    return kError;
  }
  const uint8_t type = h[2];
  const uint8_t channel = h[3];
  const uint32_t len = GetU32(h + 4);
  if (!Acceptable(reader_, type)) {
    failed_ = true;
    error_ = "unexpected message type " + std::to_string(type);
    return kError;
  }
  if (channel >= kMaxChannels) {
    failed_ = true;
    error_ = "channel out of range " + std::to_string(channel);
    return kError;
  }
  if (len > MaxPayload(reader_, type)) {
    failed_ = true;
    error_ = "payload of " + std::to_string(len) + " bytes over the limit for type " +
             std::to_string(type);
    return kError;
  }
  if (avail - kHeaderSize < len) return kNeedMore;
  out->type = type;
  out->channel = channel;
  const auto begin = buf_.begin() + static_cast<std::ptrdiff_t>(pos_ + kHeaderSize);
  out->payload.assign(begin, begin + len);
  pos_ += kHeaderSize + len;
  if (pos_ == buf_.size()) {
    buf_.clear();
    pos_ = 0;
  }
  return kMessage;
}

bool ParseHello(const std::vector<uint8_t>& p, Hello* out) {
  Cursor c(p);
  uint8_t uid_len = 0, pw_len = 0;
  if (!c.U16(&out->version) || !c.U8(&uid_len) || !c.Text(uid_len, kMaxUid, &out->uid) ||
      !c.U8(&pw_len) || !c.Text(pw_len, kMaxPassword, &out->password) ||
      !c.U32(&out->library_version))
    return false;
  return c.left() == 0;
}

bool ParseHelloResult(const std::vector<uint8_t>& p, HelloResult* out) {
  Cursor c(p);
  uint32_t result = 0, sid = 0;
  if (!c.U32(&result) || !c.U32(&sid) || !c.U32(&out->library_version)) return false;
  out->result = static_cast<int32_t>(result);
  out->sid = static_cast<int32_t>(sid);
  return c.left() == 0;
}

bool ParseLogin(const std::vector<uint8_t>& p, Login* out) {
  Cursor c(p);
  uint8_t account_len = 0;
  uint16_t secret_len = 0;
  if (!c.U8(&account_len) || !c.Text(account_len, kMaxAccount, &out->account) ||
      !c.U16(&secret_len) || !c.Text(secret_len, kMaxLoginText, &out->secret))
    return false;
  return c.left() == 0;
}

bool ParseLoginResult(const std::vector<uint8_t>& p, LoginResult* out) {
  Cursor c(p);
  uint32_t result = 0;
  if (!c.U32(&result) || !c.U32(&out->service_type)) return false;
  out->result = static_cast<int32_t>(result);
  return c.left() == 0;
}

bool ParseIoCtrl(const std::vector<uint8_t>& p, IoCtrl* out) {
  Cursor c(p);
  if (!c.U32(&out->type)) return false;
  return c.Bytes(c.left(), kMaxIoCtrl, &out->data);
}

bool ParseFrame(const std::vector<uint8_t>& p, size_t max_data, Frame* out) {
  Cursor c(p);
  uint8_t info_len = 0;
  if (!c.U32(&out->number) || !c.U8(&info_len) || !c.Bytes(info_len, kMaxFrameInfo, &out->info))
    return false;
  return c.Bytes(c.left(), max_data, &out->data);
}

bool ParseRdtOpen(const std::vector<uint8_t>& p, RdtOpen* out) {
  Cursor c(p);
  return c.U32(&out->window) && c.U32(&out->token) && c.U32(&out->answer) && c.left() == 0 &&
         out->window > 0 && out->token != 0;
}

bool ParseRdtCredit(const std::vector<uint8_t>& p, uint32_t* bytes) {
  Cursor c(p);
  return c.U32(bytes) && c.left() == 0 && *bytes > 0;
}

bool ParseRdtClose(const std::vector<uint8_t>& p, RdtClose* out) {
  Cursor c(p);
  return c.U32(&out->reason) && c.U32(&out->token) && c.left() == 0 &&
         (out->reason == kRdtCloseExit || out->reason == kRdtCloseAbort) && out->token != 0;
}

std::vector<uint8_t> EncodeEmpty(MsgType type, uint8_t channel) {
  return Start(type, channel, 0);
}

std::vector<uint8_t> EncodeHello(const Hello& h) {
  const size_t uid_len = h.uid.size() < kMaxUid ? h.uid.size() : kMaxUid;
  const size_t pw_len = h.password.size() < kMaxPassword ? h.password.size() : kMaxPassword;
  auto out = Start(MsgType::kHello, 0, kHelloFixed + uid_len + pw_len);
  PutU16(&out, h.version);
  out.push_back(static_cast<uint8_t>(uid_len));
  PutBytes(&out, h.uid.data(), uid_len);
  out.push_back(static_cast<uint8_t>(pw_len));
  PutBytes(&out, h.password.data(), pw_len);
  PutU32(&out, h.library_version);
  return out;
}

std::vector<uint8_t> EncodeHelloResult(const HelloResult& r) {
  auto out = Start(MsgType::kHelloResult, 0, 12);
  PutU32(&out, static_cast<uint32_t>(r.result));
  PutU32(&out, static_cast<uint32_t>(r.sid));
  PutU32(&out, r.library_version);
  return out;
}

std::vector<uint8_t> EncodeLogin(MsgType type, uint8_t channel, const std::string& account,
                                 const std::string& secret) {
  const size_t account_len = account.size() < kMaxAccount ? account.size() : kMaxAccount;
  const size_t secret_len = secret.size() < kMaxLoginText ? secret.size() : kMaxLoginText;
  auto out = Start(type, channel, 1 + account_len + 2 + secret_len);
  out.push_back(static_cast<uint8_t>(account_len));
  PutBytes(&out, account.data(), account_len);
  PutU16(&out, static_cast<uint16_t>(secret_len));
  PutBytes(&out, secret.data(), secret_len);
  return out;
}

std::vector<uint8_t> EncodeLoginResult(MsgType type, uint8_t channel, const LoginResult& r) {
  auto out = Start(type, channel, 8);
  PutU32(&out, static_cast<uint32_t>(r.result));
  PutU32(&out, r.service_type);
  return out;
}

std::vector<uint8_t> EncodeIoCtrl(uint8_t channel, uint32_t type, const void* data, size_t len) {
  auto out = Start(MsgType::kIoCtrl, channel, 4 + len);
  PutU32(&out, type);
  PutBytes(&out, data, len);
  return out;
}

std::vector<uint8_t> EncodeFrame(MsgType type, uint8_t channel, uint32_t number, const void* info,
                                 size_t info_len, const void* data, size_t len) {
  auto out = Start(type, channel, kFrameFixed + info_len + len);
  PutU32(&out, number);
  out.push_back(static_cast<uint8_t>(info_len));
  PutBytes(&out, info, info_len);
  PutBytes(&out, data, len);
  return out;
}

void PutFrameHead(uint8_t* out, MsgType type, uint8_t channel, uint32_t number, const void* info,
                  size_t info_len, size_t len) {
  const uint32_t payload = static_cast<uint32_t>(5 + info_len + len);
  out[0] = kMagic0;
  out[1] = kMagic1;
  out[2] = static_cast<uint8_t>(type);
  out[3] = channel;
  for (int i = 0; i < 4; ++i) {
    out[4 + i] = static_cast<uint8_t>(payload >> (8 * i));
    out[8 + i] = static_cast<uint8_t>(number >> (8 * i));
  }
  out[12] = static_cast<uint8_t>(info_len);
  if (info_len > 0) std::memcpy(out + 13, info, info_len);
}

std::vector<uint8_t> EncodeRdtOpen(uint8_t channel, const RdtOpen& o) {
  auto out = Start(MsgType::kRdtOpen, channel, 12);
  PutU32(&out, o.window);
  PutU32(&out, o.token);
  PutU32(&out, o.answer);
  return out;
}

std::vector<uint8_t> EncodeRdtCredit(uint8_t channel, uint32_t bytes) {
  auto out = Start(MsgType::kRdtCredit, channel, 4);
  PutU32(&out, bytes);
  return out;
}

std::vector<uint8_t> EncodeRdtClose(uint8_t channel, const RdtClose& c) {
  auto out = Start(MsgType::kRdtClose, channel, 8);
  PutU32(&out, c.reason);
  PutU32(&out, c.token);
  return out;
}

std::vector<uint8_t> EncodeRdtData(uint8_t channel, const void* data, size_t len) {
  auto out = Start(MsgType::kRdtData, channel, len);
  PutBytes(&out, data, len);
  return out;
}

}  // namespace wire
}  // namespace p2p
