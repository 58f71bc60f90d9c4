#include "support/hubcamera.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>

#include "camsim/camsimarp.h"
#include "support/mediaprobe.h"

namespace testsupport {

camsim::HubEndpoint CameraEndpoint(const std::map<std::string, std::string>& env) {
  camsim::HubEndpoint hub;
  hub.ip = env.at("TARVO_HUB_IP");
  hub.camera_port = EnvPort(env, "TARVO_CAMERA_PORT");
  hub.pairing_port = EnvPort(env, "TARVO_PAIRING_PORT");
  hub.wake_port = EnvPort(env, "TARVO_WAKE_PORT");
  return hub;
}

camsim::CameraConfig TestMediaCamera(const std::string& mac, const std::string& ip) {
  camsim::CameraConfig config;
  config.mac = mac;
  config.ip = ip;
  config.video_file = TestMedia("camera-1080p15.h264");
  config.audio_file = TestMedia("camera-8k.alaw");
  return config;
}

camsim::Camera::Logger CameraLog::Logger() {
  return [this](const std::string& mac, const std::string& text) {
    std::lock_guard<std::mutex> lock(mutex_);
    lines_.push_back(mac + " " + text);
  };
}

void CameraLog::Print() {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const auto& line : lines_) std::fprintf(stderr, "camera: %s\n", line.c_str());
}

std::unique_ptr<camsim::Camera> ConnectCamera(const std::string& board,
                                              const camsim::HubEndpoint& hub,
                                              const camsim::CameraConfig& config,
                                              const camsim::Behaviour& behaviour, Process& daemon,
                                              CameraLog* log) {
  std::string error;
  EXPECT_EQ(0, camsim::SetArpEntry(board, config.ip, config.mac, &error)) << error;
  auto camera = std::make_unique<camsim::Camera>(config, hub, behaviour);
  if (log != nullptr) camera->SetLogger(log->Logger());
  EXPECT_EQ(0, camera->Start(&error)) << error;
  EXPECT_EQ(0, camera->Connect(&error)) << error;
  EXPECT_NE(
      "", daemon.WaitForLine("Camera " + config.mac + " login hardver: ", std::chrono::seconds(30)))
      << config.mac << " not logged in";
  return camera;
}

}  // namespace testsupport
