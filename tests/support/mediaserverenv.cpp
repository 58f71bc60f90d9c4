#include "support/mediaserverenv.h"

#include <cstdlib>
#include <utility>

namespace testsupport {

namespace {
server::MediaServer* g_server = nullptr;
}  // namespace

MediaServerEnvironment::MediaServerEnvironment(std::vector<std::string> cameras)
    : cameras_(std::move(cameras)) {}

void MediaServerEnvironment::SetUp() {
  board_ = std::make_unique<TempDir>();
  std::vector<std::string> args = {"--force"};
  for (const std::string& mac : cameras_) {
    args.push_back("--camera");
    args.push_back(mac);
  }
  MakeBoard(board_->path(), args);
  setenv("TARVO_ROOT", board_->path().c_str(), 1);
  setenv("TARVO_HUB_IP", "127.0.0.1", 1);
  setenv("TARVO_CAMERA_PORT", std::to_string(FreePort()).c_str(), 1);
  auto* server = new server::MediaServer();  // never freed, as the daemon's
  ASSERT_EQ(0, server->Init());
  g_server = server;
}

server::MediaServer* MediaServerEnvironment::server() {
  return g_server;
}

}  // namespace testsupport
