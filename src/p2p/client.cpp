#include "p2p/client.h"

namespace client {

std::string Client::camera() const {
  std::lock_guard<std::mutex> lock(camera_mutex_);
  return camera_;
}

void Client::SetCamera(const std::string& mac) {
  std::lock_guard<std::mutex> lock(camera_mutex_);
  camera_ = mac;
}

}  // namespace client
