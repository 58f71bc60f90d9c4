#include "support/viewerhub.h"

#include "support/viewers.h"

namespace testsupport {

void ViewerHubTest::MakeBoard(const std::vector<std::string>& options) {
  ASSERT_TRUE(broker_.Start());
  testsupport::MakeBoard(board_.path(), options);
}

void ViewerHubTest::StartHub(cloudsim::Options agent) {
  env_ = HubEnv(board_.path(), broker_.Env());
  hub_ = CameraEndpoint(env_);
  p2p_port_ = EnvPort(env_, "TARVO_P2P_PORT");
  ASSERT_TRUE(testsupport::StartHub(env_, &daemon_));
  creds_path_ = board_.path() + "/tmp/app-credentials";
  agent.board = board_.path();
  agent.credentials_file = creds_path_;
  agent_ = broker_.StartAgent(agent);
  agent_->SendLocalStatus("cloud_connected");
  // the file holds the password the hub uses now
  ASSERT_TRUE(WaitForAppCredentials(*daemon_, creds_path_, &creds_));
}

void ViewerHubTest::TearDown() {
  for (auto& c : cameras_) c->Stop();
  if (daemon_ == nullptr) return;
  // a sanitizer build's daemon reports what it finds on its standard error
  EXPECT_FALSE(daemon_->HasLine("ERROR: (Address|Leak|Thread)Sanitizer|runtime error:"));
  if (HasFailure()) {
    daemon_->PrintLines("hub: ");
    camera_log_.Print();
  }
}

camsim::Camera& ViewerHubTest::NewCamera(const camsim::CameraConfig& config,
                                         const camsim::Behaviour& behaviour) {
  cameras_.push_back(ConnectCamera(board_.path(), hub_, config, behaviour, *daemon_, &camera_log_));
  return *cameras_.back();
}

std::unique_ptr<Process> ViewerHubTest::Viewer(const std::vector<std::string>& args) {
  return ViewerTool(creds_path_, p2p_port_, args);
}

}  // namespace testsupport
