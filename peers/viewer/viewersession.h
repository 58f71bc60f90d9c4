// The viewer tool's session with the hub, done as the phone app does it: open a P2P session
// with the hub's uid and P2P password, log in on AV channel 0 with a fresh app key pair whose
// public key is signed as the cloud signs it for the app (device key, device token and the
// hub's public key), keep the stream key both ends derive, hold the session while handing on
// what the hub sends, and close it.
//
// What the app would get from the cloud comes from the credentials file that the cloud agent
// simulator writes (cloudsim/credentials.h). The device token and the keys are never logged
// or printed.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "crypto/viewerlogin.h"
#include "viewer/credentials.h"
#include "viewer/p2pviewer.h"

namespace viewer {

using AppCredentials = viewer::Credentials;

// Reads a credentials file. 0, or -1 with the reason in *error. A file without device_key or
// device_token is refused too: the login cannot be signed without them.
int LoadCredentials(const std::string& path, AppCredentials* out, std::string* error);

struct SessionOptions {
  std::string host = "127.0.0.1";
  uint16_t port = 0;               // 0: TARVO_P2P_PORT, else the transport's default
  std::string account = "viewer";  // the hub keeps at most 15 characters
  int timeout_ms = 10000;          // for the session request and for the login each
};

// The port a session goes to: options.port, else TARVO_P2P_PORT, else the default.
uint16_t SessionPort(const SessionOptions& options);

// What the hub sends during Hold; either may be empty.
struct Handlers {
  std::function<void(const p2p::ViewerFrame&)> frame;
  std::function<void(const p2p::ViewerIoCtrl&)> ioctrl;
};

class Session {
 public:
  Session() = default;
  ~Session();
  Session(const Session&) = delete;
  Session& operator=(const Session&) = delete;

  // Opens a session for the credentials' uid and password. 0 or an IOTC code (iotc.h).
  int Connect(const AppCredentials& credentials, const SessionOptions& options);
  // Logs in with a new app key pair and its sign; on success the stream key is kept. 0 or an
  // AV code; -1 when the credentials' hub public key is not 64 hexadecimal digits.
  int Login(const AppCredentials& credentials, const SessionOptions& options);
  // Logs in with a login text as it stands (no stream key). 0 or an AV code.
  int LoginWithText(const std::string& account, const std::string& text, int timeout_ms);

  // Holds the session until `until`, until stop becomes true, or until the session ends,
  // handing every frame and I/O-control message on as it comes. 0 when the session is still
  // open, else the AV code of its end.
  int Hold(std::chrono::steady_clock::time_point until, const std::atomic<bool>& stop,
           const Handlers& handlers);

  // One I/O-control message to the hub. 0 or an AV code.
  int SendIoCtrl(uint32_t type, const std::string& payload);

  // Talkback: the viewer serves a channel (1..31) that the hub joins to receive audio. Open it
  // before asking the hub to talk, wait for the hub to join, send audio frames (numbered from 0
  // by the library), close it. Each returns 0 or an AV code.
  int OpenTalkback(uint8_t channel);
  int WaitTalkback(uint8_t channel, int timeout_ms);
  int SendTalkAudio(uint8_t channel, const void* info, size_t info_len, const void* data,
                    size_t len);
  int CloseTalkback(uint8_t channel);

  // Says goodbye; Abort drops the connection instead, as a viewer that vanishes.
  void Close();
  void Abort();

  int sid() const { return viewer_.sid(); }
  // The transport underneath, for its reliable transfer (RDT) calls.
  p2p::Viewer& transport() { return viewer_; }
  // 0 while open, else the AV code of the session's end.
  int status() const { return viewer_.status(); }
  // The stream key the hub encrypts this viewer's media with; valid after a successful Login.
  bool has_key() const { return has_key_; }
  const unsigned char* key() const { return share_key_.data(); }

 private:
  p2p::Viewer viewer_;
  app_key_pair keys_{};
  std::array<unsigned char, kLoginKeyBytes> share_key_{};
  bool has_key_ = false;
};

// The name of an IOTC or AV code ("IOTC_ER_WRONG_PASSWORD"), or the number as text.
std::string CodeName(int code);

}  // namespace viewer
