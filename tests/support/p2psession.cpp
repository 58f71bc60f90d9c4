#include "support/p2psession.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>

#include "support/testsupport.h"

namespace testsupport {

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
