// One media server for a test program, as the daemon has one: on a board root of its own with
// the given cameras, its camera listener on a free port, the hub's address on loopback. Register
// it with ::testing::AddGlobalTestEnvironment; the server lives as long as the process.
#pragma once

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "server/mediaserver.h"
#include "support/testsupport.h"

namespace testsupport {

class MediaServerEnvironment : public ::testing::Environment {
 public:
  explicit MediaServerEnvironment(std::vector<std::string> cameras = {});
  void SetUp() override;
  // The server once SetUp has run; null before (or when it failed).
  static server::MediaServer* server();

 private:
  std::vector<std::string> cameras_;
  std::unique_ptr<TempDir> board_;
};

}  // namespace testsupport
