// The fixture of end-to-end tests with viewers: the daemon on a board of its own with a real
// broker and the cloud agent simulator, the cloud connected and the agent's credentials file
// holding what a viewer needs to log in; cameras that log in to the hub. A test's fixture
// derives from it and calls MakeBoard and StartHub in its SetUp.
#pragma once

#include <gtest/gtest.h>

#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "camsim/camsim.h"
#include "cloudsim/cloudsim.h"
#include "support/broker.h"
#include "support/hubcamera.h"
#include "support/testsupport.h"
#include "viewer/viewersession.h"

namespace testsupport {

class ViewerHubTest : public ::testing::Test {
 protected:
  // Starts the broker and makes the board with tarvo-mkboard's options.
  void MakeBoard(const std::vector<std::string>& options);
  // Starts the daemon and the agent (whose board and credentials file are set here), tells the
  // hub that the cloud is connected and waits for the credentials.
  void StartHub(cloudsim::Options agent = {});
  // Stops the cameras; on a failure the daemon's and the cameras' logs go to the test's output.
  void TearDown() override;

  // A camera connected and logged in, kept until the test ends.
  camsim::Camera& NewCamera(const camsim::CameraConfig& config,
                            const camsim::Behaviour& behaviour = {});
  // The viewer tool on this hub with these credentials.
  std::unique_ptr<Process> Viewer(const std::vector<std::string>& args);

  Broker broker_;
  TempDir board_;
  std::map<std::string, std::string> env_;
  camsim::HubEndpoint hub_;
  uint16_t p2p_port_ = 0;
  std::unique_ptr<Process> daemon_;
  std::unique_ptr<cloudsim::CloudAgent> agent_;
  std::string creds_path_;
  viewer::AppCredentials creds_;
  CameraLog camera_log_;
  std::vector<std::unique_ptr<camsim::Camera>> cameras_;
};

}  // namespace testsupport
