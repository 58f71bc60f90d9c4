// The identity fields are replaced from one thread while others read them; report ids are drawn
// from several threads at once.
#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "core/configuration.h"
#include "core/utils.h"

namespace {

TEST(ConfigurationThreads, ReadersSeeWholeValuesWhileTheUidIsReplaced) {
  Configuration& config = Configuration::getInstance();
  const std::string a = "SHORTUID";
  const std::string b = "A-MUCH-LONGER-UID-THAT-NEEDS-THE-HEAP-0123456789";
  config.SetP2pUid(a);
  std::atomic<bool> stop{false};
  std::atomic<int> torn{0};
  std::vector<std::thread> readers;
  for (int r = 0; r < 3; r++) {
    readers.emplace_back([&] {
      while (!stop.load()) {
        const std::string uid = config.GetP2pUid();
        if (uid != a && uid != b) torn++;
        const std::string password = config.GetP2pPassword();
        if (!password.empty() && password.size() != 6) torn++;
      }
    });
  }
  for (int i = 0; i < 20000; i++) {
    config.SetP2pUid(i % 2 ? a : b);
    config.SetP2pPassword(i % 2 ? "123456" : "654321");
  }
  stop = true;
  for (auto& t : readers) t.join();
  EXPECT_EQ(torn.load(), 0);
}

TEST(ConfigurationThreads, ReportIdsFromManyThreadsStayInRange) {
  std::atomic<int> bad{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; t++) {
    threads.emplace_back([&] {
      for (int i = 0; i < 2000; i++) {
        const int id = utils::generate_random_id();
        if (id < 1 || id > 10000000) bad++;
      }
    });
  }
  for (auto& t : threads) t.join();
  EXPECT_EQ(bad.load(), 0);
}

}  // namespace
