// Simulated cameras for a daemon started on a board (testsupport::StartHub): where they find
// the hub, their log kept for a failed test's output, and a camera brought up to the point
// where the hub has logged it in.
#pragma once

#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "camsim/camsim.h"
#include "support/testsupport.h"

namespace testsupport {

// The hub's address and camera, pairing and wake ports of a HubEnv environment.
camsim::HubEndpoint CameraEndpoint(const std::map<std::string, std::string>& env);

// A camera of mac on ip that streams the generated test media (mediaprobe.h).
camsim::CameraConfig TestMediaCamera(const std::string& mac, const std::string& ip);

// What the cameras given Logger() log, in order, from any thread.
class CameraLog {
 public:
  camsim::Camera::Logger Logger();
  // Every line to standard error after "camera: ".
  void Print();

 private:
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

// The camera with its ARP entry on the board, logging into log when given, started, connected
// and logged in as the hub's log says. What fails fails the test; the camera is returned even
// then.
std::unique_ptr<camsim::Camera> ConnectCamera(const std::string& board,
                                              const camsim::HubEndpoint& hub,
                                              const camsim::CameraConfig& config,
                                              const camsim::Behaviour& behaviour, Process& daemon,
                                              CameraLog* log = nullptr);

}  // namespace testsupport
