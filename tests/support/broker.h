// A real mosquitto broker for tests: listens on a free loopback port with a generated
// configuration, can be stopped and started again on the same port, and is stopped when the
// object goes. The cloud agent simulator connects to it for the cloud's side.
#pragma once

#include <cstdint>
#include <memory>
#include <string>

#include "cloudsim/cloudsim.h"

#include "support/testsupport.h"

namespace testsupport {

class Broker {
 public:
  // Picks a free port; does not start the broker.
  Broker();
  ~Broker();
  Broker(const Broker&) = delete;
  Broker& operator=(const Broker&) = delete;

  // Starts the broker on the port and waits until it accepts connections. False (with the
  // broker's output in the test log) when it does not come up.
  bool Start();
  // Stops the broker (SIGTERM, then SIGKILL) and waits for it to end.
  void Stop();
  bool Running();

  uint16_t port() const { return port_; }
  // The environment that points the daemon and the tools at this broker.
  std::map<std::string, std::string> Env() const;
  // A cloud agent simulator connected to this broker (the options' host and port are set
  // here); fails the test when it does not connect.
  std::unique_ptr<cloudsim::CloudAgent> StartAgent(cloudsim::Options options = {}) const;

 private:
  TempDir dir_;
  uint16_t port_;
  std::unique_ptr<Process> process_;
};

// Commands are handled one after another on the hub's MQTT thread and their replies keep that
// order: once this later command is answered, an earlier one without a reply never gets one.
void Barrier(cloudsim::CloudAgent& agent);
// How many replies to command id the agent has received.
int RepliesTo(cloudsim::CloudAgent& agent, int id);

// The mosquitto program, or "" when it is not installed.
std::string MosquittoPath();

}  // namespace testsupport
