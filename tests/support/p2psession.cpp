#include "support/p2psession.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "p2p/transport.h"
#include "support/testsupport.h"

namespace testsupport {

uint16_t StartHubTransport(const std::string& uid, const std::string& password, int av_channels,
                           bool rdt) {
  p2p::SetLinkTimeouts(p2p::LinkTimeouts());
  const uint16_t port = FreePort();
  IOTC_Set_Max_Session_Number(4);
  const int up = IOTC_Initialize2(port);
  EXPECT_EQ(IOTC_ER_NoERROR, up);
  const int login = IOTC_Device_Login(uid.c_str(), nullptr, password.c_str());
  EXPECT_EQ(IOTC_ER_NoERROR, login);
  const int av = avInitialize(av_channels);
  EXPECT_EQ(av_channels, av);
  const int rdt_up = rdt ? RDT_Initialize() : 1;
  EXPECT_EQ(1, rdt_up);
  const bool ok =
      up == IOTC_ER_NoERROR && login == IOTC_ER_NoERROR && av == av_channels && rdt_up == 1;
  return ok ? port : 0;
}

void StopHubTransport(bool rdt) {
  if (rdt) RDT_DeInitialize();
  avDeInitialize();
  IOTC_DeInitialize();
}

int ListenForSession(int wait_ms) {
  int r = IOTC_ER_TIMEOUT;
  WaitFor(
      [&] {
        r = IOTC_Listen(100);
        return r != IOTC_ER_TIMEOUT;
      },
      std::chrono::milliseconds(wait_ms));
  return r;
}

AcceptedSession AcceptViewer(p2p::Viewer& viewer, uint16_t port, const std::string& uid,
                             const std::string& password, const std::string& account,
                             const std::string& login_text, authFn auth, int wait_ms) {
  AcceptedSession s;
  EXPECT_EQ(0, viewer.Connect("127.0.0.1", port, uid, password, wait_ms));
  s.sid = ListenForSession(wait_ms);
  EXPECT_GE(s.sid, 0);
  auto login =
      std::async(std::launch::async, [&] { return viewer.Login(account, login_text, wait_ms); });
  s.av = avServStart3(s.sid, auth, 15, 0, 0, &s.resend);
  EXPECT_GE(s.av, 0);
  EXPECT_EQ(0, login.get());
  return s;
}

}  // namespace testsupport
