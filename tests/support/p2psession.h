// Sessions of the open P2P transport on loopback for tests that run the hub's side through the
// calls of iotc.h in their own process (IOTC_Initialize2 and IOTC_Device_Login done) and the
// viewer's side through the viewer library.
#pragma once

#include <cstdint>
#include <string>

#include "p2p/iotc.h"
#include "viewer/p2pviewer.h"

namespace testsupport {

// The hub's side of the transport up on a free loopback port: default link time-outs, four
// sessions, logged in as uid, AV with av_channels channels, and RDT when asked. Returns the
// port, or 0 after a step failed (which fails the test).
uint16_t StartHubTransport(const std::string& uid, const std::string& password, int av_channels,
                           bool rdt = false);
// Takes down what StartHubTransport brought up.
void StopHubTransport(bool rdt = false);

// The next IOTC_Listen result other than a time-out; IOTC_ER_TIMEOUT after wait_ms.
int ListenForSession(int wait_ms);

struct AcceptedSession {
  int sid = -1;     // the hub's session
  int av = -1;      // the hub's AV index on channel 0
  int resend = -1;  // what avServStart3 says of resending
};

// The viewer's session opened to port and its AV login (account, login text) on channel 0
// checked by auth, as the hub's session thread runs it. A step that fails fails the test.
AcceptedSession AcceptViewer(p2p::Viewer& viewer, uint16_t port, const std::string& uid,
                             const std::string& password, const std::string& account,
                             const std::string& login_text, authFn auth, int wait_ms);

}  // namespace testsupport
