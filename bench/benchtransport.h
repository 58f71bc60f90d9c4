// The hub's side of the open P2P transport in a benchmark program: the transport on a free
// loopback port, a viewer's session taken with its AV login, and the hub's client of it. A
// benchmark has no test to fail: whatever goes wrong ends the program.
#pragma once

#include <sodium.h>

#include <cstdlib>
#include <future>
#include <memory>
#include <utility>

#include "benchsupport.h"
#include "crypto/hubauth.h"
#include "p2p/client.h"
#include "p2p/iotc.h"

namespace benchsupport {

// The transport for up to `sessions` sessions, logged in as uid with password, and the AV layer
// for av_channels channels; the port it listens on.
inline uint16_t StartTransport(int sessions, int av_channels, const char* uid,
                               const char* password) {
  const uint16_t port = FreePort();
  IOTC_Set_Max_Session_Number(sessions);
  if (IOTC_Initialize2(port) != 0 || IOTC_Device_Login(uid, nullptr, password) != 0 ||
      avInitialize(av_channels) < 0) {
    std::abort();
  }
  return port;
}

struct HubSession {
  int sid;
  int av;
};

// The next session, its AV login on channel 0 let in while login() (on a thread of its own)
// logs the viewer in and says 0.
template <typename Login>
HubSession AcceptSession(Login&& login) {
  int sid = IOTC_ER_TIMEOUT;
  while (sid == IOTC_ER_TIMEOUT) sid = IOTC_Listen(100);
  auto viewer = std::async(std::launch::async, std::forward<Login>(login));
  int resend = 0;
  const int av = sid >= 0 ? avServStart3(sid, AcceptAll, 15, 0, 0, &resend) : -1;
  if (viewer.get() != 0 || av < 0) std::abort();
  return {sid, av};
}

// The hub's client of the session: its AV index, and a random stream key in
// client_encrypt_info.
inline std::unique_ptr<client::Client> KeyedClient(const HubSession& s) {
  auto c = std::make_unique<client::Client>(s.sid);
  c->SetAvIndex(s.av);
  unsigned char key[32];
  randombytes_buf(key, sizeof(key));
  client_encrypt_info.Set(s.sid, key);
  return c;
}

}  // namespace benchsupport
