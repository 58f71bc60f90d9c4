#include "support/broker.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <signal.h>
#include <sys/socket.h>
#include <unistd.h>

#include <chrono>

namespace testsupport {

namespace {

bool Accepts(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) return false;
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(port);
  bool ok = connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof(addr)) == 0;
  close(fd);
  return ok;
}

}  // namespace

std::string MosquittoPath() {
  for (const char* path : {"/usr/sbin/mosquitto", "/usr/bin/mosquitto", "/usr/local/sbin/mosquitto",
                           "/usr/local/bin/mosquitto"}) {
    if (access(path, X_OK) == 0) return path;
  }
  return "";
}

Broker::Broker() : port_(FreePort()) {}

Broker::~Broker() {
  Stop();
}

bool Broker::Start() {
  if (Running()) return true;
  const std::string program = MosquittoPath();
  if (program.empty()) {
    ADD_FAILURE() << "mosquitto is not installed (scripts/install-deps.sh)";
    return false;
  }
  const std::string conf = dir_.path() + "/mosquitto.conf";
  WriteFile(conf, "listener " + std::to_string(port_) +
                      " 127.0.0.1\n"
                      "allow_anonymous true\n"
                      "persistence false\n"
                      "log_dest stdout\n"
                      "log_type error\n"
                      "log_type warning\n");
  process_ = std::make_unique<Process>(std::vector<std::string>{program, "-c", conf},
                                       std::map<std::string, std::string>{});
  bool up =
      WaitFor([&] { return Accepts(port_) || !process_->Running(); }, std::chrono::seconds(15)) &&
      process_->Running();
  if (!up) {
    ADD_FAILURE() << "mosquitto did not start on port " << port_ << ":\n"
                  << ::testing::PrintToString(process_->Lines());
    process_.reset();
  }
  return up;
}

void Broker::Stop() {
  if (!process_) return;
  if (process_->Running()) {
    process_->Signal(SIGTERM);
    if (process_->Wait(std::chrono::seconds(10)) == -1) {
      process_->Signal(SIGKILL);
      process_->Wait(std::chrono::seconds(10));
    }
  }
  process_.reset();
}

bool Broker::Running() {
  return process_ && process_->Running();
}

std::map<std::string, std::string> Broker::Env() const {
  return {{"TARVO_MQTT_HOST", "127.0.0.1"}, {"TARVO_MQTT_PORT", std::to_string(port_)}};
}

std::unique_ptr<cloudsim::CloudAgent> Broker::StartAgent(cloudsim::Options options) const {
  options.host = "127.0.0.1";
  options.port = port_;
  auto agent = std::make_unique<cloudsim::CloudAgent>(options);
  std::string error;
  EXPECT_EQ(0, agent->Start(std::chrono::seconds(10), &error)) << error;
  return agent;
}

void Barrier(cloudsim::CloudAgent& agent) {
  const int id = agent.SendCommand("get_power_threshold", "");
  EXPECT_TRUE(agent.WaitReply(id, nullptr)) << "no reply to the barrier command";
}

int RepliesTo(cloudsim::CloudAgent& agent, int id) {
  const std::string head = "{\"id\":" + std::to_string(id) + ",";
  int n = 0;
  for (const auto& m : agent.Messages()) {
    if (m.topic == "zelo/command_ack" && m.payload.compare(0, head.size(), head) == 0) n++;
  }
  return n;
}

}  // namespace testsupport
