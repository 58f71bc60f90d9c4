// Cloud requests waiting on camera answers: answered once, dropped after their time-out.
#include "camera/cloudrequest.h"

#include <gtest/gtest.h>

namespace {

using cloudrequest::Answer;
using cloudrequest::Clock;
using cloudrequest::PendingRequests;

struct FakeClock {
  Clock::time_point now{};
  std::function<Clock::time_point()> Fn() {
    return [this] { return now; };
  }
};

TEST(CloudRequest, AnsweredExactlyOnce) {
  FakeClock clock;
  PendingRequests reg(std::chrono::seconds(30), clock.Fn());
  int calls = 0;
  Answer seen;
  ASSERT_TRUE(reg.Add(7, [&](const Answer& a) {
    calls++;
    seen = a;
  }));
  EXPECT_FALSE(reg.Add(7, [&](const Answer&) { calls += 100; }));  // the first one stays
  Answer a;
  a.mac = "0A0B0C0D0E0F";
  a.result = 1;
  EXPECT_TRUE(reg.Complete(7, a));
  EXPECT_FALSE(reg.Complete(7, a));
  EXPECT_FALSE(reg.Complete(8, a));
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(seen.mac, "0A0B0C0D0E0F");
  EXPECT_EQ(reg.Size(), 0u);
  // The id can wait again once answered.
  EXPECT_TRUE(reg.Add(7, nullptr));
}

TEST(CloudRequest, TimeOutDropsWithoutAnswering) {
  FakeClock clock;
  PendingRequests reg(std::chrono::seconds(30), clock.Fn());
  int calls = 0;
  ASSERT_TRUE(reg.Add(1, [&](const Answer&) { calls++; }));
  clock.now += std::chrono::seconds(20);
  ASSERT_TRUE(reg.Add(2, [&](const Answer&) { calls++; }));
  clock.now += std::chrono::seconds(10);  // request 1 is 30 s old
  EXPECT_EQ(reg.Expire(), 1u);
  EXPECT_FALSE(reg.Complete(1, Answer()));
  // A late answer finds nothing even when nobody expired the registry in between.
  clock.now += std::chrono::seconds(25);
  EXPECT_FALSE(reg.Complete(2, Answer()));
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(reg.Size(), 0u);
}

TEST(CloudRequest, CancelBoundAndReentrantHandler) {
  FakeClock clock;
  PendingRequests reg(std::chrono::seconds(30), clock.Fn());
  ASSERT_TRUE(reg.Add(1, nullptr));
  EXPECT_TRUE(reg.Cancel(1));
  EXPECT_FALSE(reg.Cancel(1));

  for (uint32_t id = 0; id < PendingRequests::kMaxPending; id++) ASSERT_TRUE(reg.Add(id, nullptr));
  EXPECT_FALSE(reg.Add(100000, nullptr));
  clock.now += std::chrono::seconds(31);
  EXPECT_TRUE(reg.Add(100000, nullptr));  // the old ones expired on the way
  EXPECT_EQ(reg.Size(), 1u);

  // A handler may use the registry: it runs outside the lock.
  bool inner = false;
  ASSERT_TRUE(reg.Add(5, [&](const Answer&) { inner = reg.Add(6, nullptr); }));
  EXPECT_TRUE(reg.Complete(5, Answer()));
  EXPECT_TRUE(inner);
}

}  // namespace
