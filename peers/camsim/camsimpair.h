// The camera's side of pairing: a TCP connection from the camera's address to the hub's pairing
// server, tried until the server takes it (the hub opens it only in pairing mode); the pairing
// request; the reply checked (camsimwire.h); then a wait until the hub closes the connection,
// which it does once it has recorded the camera and made its channel.
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <string>

#include "camsim/camsimwire.h"

namespace camsim {

struct PairingAttempt {
  std::string camera_ip;  // the connection's source address
  std::string hub_ip;
  uint16_t port = 0;
  Origin origin;  // source address, sequence number and time of the request
  _net_cmd_get_info_type info;
  std::chrono::steady_clock::time_point deadline;  // to reach the server and get the reply
  std::chrono::milliseconds close_wait{15000};     // for the hub to close after the reply
  std::function<bool()> stopping;                  // ends the attempt early when true
  std::function<void()> on_connect_try;            // called before each connection try
};

// 0 with the credentials of the camera network in *ssid and *key, or -1 with *error set.
int PairWithHub(const PairingAttempt& attempt, std::string* ssid, std::string* key,
                std::string* error);

}  // namespace camsim
