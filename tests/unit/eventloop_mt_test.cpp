// The main loop: work posted from other threads runs on the loop thread, in order, and a shell
// command run while the loop runs keeps its exit status.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <atomic>
#include <thread>
#include <vector>

#include "core/eventloop.h"
#include "platform/board.h"
#include "support/testsupport.h"

namespace {

TEST(EventLoop, PostedWorkRunsOnTheLoopThreadInOrderAndChildrenKeepTheirStatus) {
  testsupport::TempDir dir;
  testsupport::MakeBoard(dir.path() + "/root");
  platform::SetRootForTest(dir.path() + "/root");

  std::thread runner([] { eventloop::Run(); });
  const std::thread::id loop_thread = runner.get_id();

  std::vector<int> seen;  // touched only on the loop thread
  std::atomic<int> done{0};
  std::vector<std::thread> posters;
  for (int t = 0; t < 4; ++t) {
    posters.emplace_back([&, t] {
      for (int i = 0; i < 100; ++i)
        eventloop::RunInLoop([&, t, i] {
          EXPECT_EQ(std::this_thread::get_id(), loop_thread);
          seen.push_back(t * 1000 + i);
          done++;
        });
    });
  }
  for (auto& p : posters) p.join();
  ASSERT_TRUE(testsupport::WaitFor([&] { return done.load() == 400; }));

  // while the loop thread runs, a command's exit status reaches the thread that waits for it
  for (int i = 0; i < 20; ++i) {
    int status = platform::System("exit 3");
    ASSERT_TRUE(WIFEXITED(status)) << status;
    EXPECT_EQ(WEXITSTATUS(status), 3);
  }

  eventloop::Stop();
  runner.join();
  // each poster's items kept their order
  for (int t = 0; t < 4; ++t) {
    int last = -1;
    for (int v : seen)
      if (v / 1000 == t) {
        EXPECT_GT(v % 1000, last);
        last = v % 1000;
      }
  }
}

}  // namespace
