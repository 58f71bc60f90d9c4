#include "viewer/viewersession.h"

#include <sodium.h>

#include <algorithm>

#include "base/log.h"
#include "p2p/iotc.h"
#include "p2p/transport.h"
#include "platform/board.h"

namespace viewer {

namespace {

// Each turn of Hold waits this long for a frame before it looks at the other conditions.
constexpr int kHoldTurnMs = 100;

int MillisecondsUntil(std::chrono::steady_clock::time_point until) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
                        until - std::chrono::steady_clock::now())
                        .count();
  return left > 0 ? static_cast<int>(std::min<long long>(left, kHoldTurnMs)) : 0;
}

}  // namespace

int LoadCredentials(const std::string& path, AppCredentials* out, std::string* error) {
  if (viewer::ReadCredentialsFile(path, out) != 0) {
    *error = "cannot read uid, password and public_key from " + path;
    return -1;
  }
  if (out->device_key.empty() || out->device_token.empty()) {
    *error = path + " holds no device_key or device_token: the login cannot be signed";
    return -1;
  }
  return 0;
}

uint16_t SessionPort(const SessionOptions& options) {
  return options.port != 0 ? options.port : platform::P2pPort(p2p::kDefaultPort);
}

Session::~Session() {
  viewer_.Close();
  sodium_memzero(&keys_, sizeof(keys_));
  sodium_memzero(share_key_.data(), share_key_.size());
}

int Session::Connect(const AppCredentials& credentials, const SessionOptions& options) {
  const uint16_t port = SessionPort(options);
  const int rc = viewer_.Connect(options.host, port, credentials.uid, credentials.password,
                                 options.timeout_ms);
  if (rc != 0) {
    TLOG(LOG_DEBUG) << "viewer: no session on " << options.host << ":" << port << ": "
                    << CodeName(rc);
  }
  return rc;
}

int Session::Login(const AppCredentials& credentials, const SessionOptions& options) {
  if (sodium_init() < 0) return -1;
  make_app_key_pair(&keys_);
  std::string text = make_login_text(options.account, credentials.device_key,
                                     credentials.device_token, credentials.public_key, keys_);
  if (text.empty()) {
    TLOG(LOG_DEBUG) << "viewer: the hub's public key is not 64 hexadecimal digits";
    return -1;
  }
  const int rc = LoginWithText(options.account, text, options.timeout_ms);
  sodium_memzero(&text[0], text.size());
  if (rc != 0) return rc;
  if (app_share_key(credentials.public_key, keys_, share_key_.data()) != 0) {
    TLOG(LOG_DEBUG) << "viewer: no stream key with the hub's public key";
    return -1;
  }
  has_key_ = true;
  return 0;
}

int Session::LoginWithText(const std::string& account, const std::string& text, int timeout_ms) {
  has_key_ = false;
  const int rc = viewer_.Login(account, text, timeout_ms);
  if (rc != 0) TLOG(LOG_DEBUG) << "viewer: login refused: " << CodeName(rc);
  return rc;
}

int Session::Hold(std::chrono::steady_clock::time_point until, const std::atomic<bool>& stop,
                  const Handlers& handlers) {
  for (;;) {
    p2p::ViewerIoCtrl io;
    while (viewer_.RecvIoCtrl(&io, 0) >= 0) {
      if (handlers.ioctrl) handlers.ioctrl(io);
    }
    p2p::ViewerFrame frame;
    const int rc = viewer_.RecvFrame(&frame, MillisecondsUntil(until));
    if (rc < 0 && rc != AV_ER_TIMEOUT) return rc;
    if (rc >= 0 && handlers.frame) handlers.frame(frame);
    // Looked at after every frame too: a camera that streams without pause never lets a wait
    // time out.
    if (stop.load() || std::chrono::steady_clock::now() >= until) return viewer_.status();
  }
}

int Session::SendIoCtrl(uint32_t type, const std::string& payload) {
  return viewer_.SendIoCtrl(type, payload.data(), payload.size());
}

int Session::OpenTalkback(uint8_t channel) {
  return viewer_.OpenTalkback(channel);
}

int Session::WaitTalkback(uint8_t channel, int timeout_ms) {
  return viewer_.WaitTalkback(channel, timeout_ms);
}

int Session::SendTalkAudio(uint8_t channel, const void* info, size_t info_len, const void* data,
                           size_t len) {
  return viewer_.SendAudio(channel, info, info_len, data, len);
}

int Session::CloseTalkback(uint8_t channel) {
  return viewer_.CloseTalkback(channel);
}

void Session::Close() {
  viewer_.Close();
}

void Session::Abort() {
  viewer_.Abort();
}

std::string CodeName(int code) {
  switch (code) {
    case IOTC_ER_NoERROR:
      return "OK";
    case IOTC_ER_TIMEOUT:
      return "IOTC_ER_TIMEOUT";
    case IOTC_ER_INVALID_SID:
      return "IOTC_ER_INVALID_SID";
    case IOTC_ER_EXCEED_MAX_SESSION:
      return "IOTC_ER_EXCEED_MAX_SESSION";
    case IOTC_ER_DEVICE_NOT_LOGGED_IN:
      return "IOTC_ER_DEVICE_NOT_LOGGED_IN";
    case IOTC_ER_UNKNOWN_DEVICE:
      return "IOTC_ER_UNKNOWN_DEVICE";
    case IOTC_ER_WRONG_PASSWORD:
      return "IOTC_ER_WRONG_PASSWORD";
    case IOTC_ER_INVALID_ARG:
      return "IOTC_ER_INVALID_ARG";
    case IOTC_ER_CONNECT_FAILED:
      return "IOTC_ER_CONNECT_FAILED";
    case IOTC_ER_PROTOCOL:
      return "IOTC_ER_PROTOCOL";
    case AV_ER_INVALID_ARG:
      return "AV_ER_INVALID_ARG";
    case AV_ER_EXCEED_MAX_CHANNEL:
      return "AV_ER_EXCEED_MAX_CHANNEL";
    case AV_ER_CLIENT_NO_AVLOGIN:
      return "AV_ER_CLIENT_NO_AVLOGIN";
    case AV_ER_WRONG_VIEWACCorPWD:
      return "AV_ER_WRONG_VIEWACCorPWD";
    case AV_ER_INVALID_SID:
      return "AV_ER_INVALID_SID";
    case AV_ER_TIMEOUT:
      return "AV_ER_TIMEOUT";
    case AV_ER_SESSION_CLOSE_BY_REMOTE:
      return "AV_ER_SESSION_CLOSE_BY_REMOTE";
    case AV_ER_REMOTE_TIMEOUT_DISCONNECT:
      return "AV_ER_REMOTE_TIMEOUT_DISCONNECT";
    case AV_ER_SERVER_EXIT:
      return "AV_ER_SERVER_EXIT";
    default:
      return std::to_string(code);
  }
}

}  // namespace viewer
