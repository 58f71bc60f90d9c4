// Several simulated cameras in one process and the text commands that drive them: the camera
// descriptions of the command line ("MAC,IP,key=value,...") and the commands read while the
// simulator runs ("pir MAC", "battery MAC 3700", "sleep MAC", "quit", ...).
#pragma once

#include <memory>
#include <string>
#include <vector>

#include "camsim/camsim.h"

namespace camsim {

// Reads "MAC,IP[,KEY=VALUE]..." into config (fields not named keep their values). Keys: hw and
// fw (decimal versions), vbat (mV), rssi (dBm), battery (status 0..2), pir, power, night,
// interval (PIR re-trigger seconds), video and audio (files), ssid and key (expected pairing
// credentials). 0, or -1 with *error set.
int ParseCameraDescription(const std::string& text, CameraConfig* config, std::string* error);

class Simulator {
 public:
  // board: the board root whose ARP table gets each camera's line; empty: none is written.
  Simulator(HubEndpoint hub, Behaviour behaviour, std::string board);
  ~Simulator();
  Simulator(const Simulator&) = delete;
  Simulator& operator=(const Simulator&) = delete;

  // Where the cameras' log lines go; set before Add.
  void SetLogger(Camera::Logger logger);
  // Adds a camera (not started) and writes its ARP line. Refuses a MAC or an address already
  // taken. 0, or -1 with *error set.
  int Add(const CameraConfig& config, std::string* error);
  // Starts every camera not started yet. 0, or -1 with *error set (the others still run).
  int StartAll(std::string* error);
  void StopAll();

  // The camera of a MAC in any spelling, or nullptr.
  Camera* Find(const std::string& mac) const;
  std::vector<Camera*> Cameras() const;

  // Carries out one command line; *reply gets the text to show. 0 when done, 1 for "quit",
  // -1 when the command failed or was not understood (*reply says why). Blank lines and lines
  // starting with '#' do nothing.
  int Execute(const std::string& line, std::string* reply);
  // The commands, one a line, for --help and "help".
  static const char* CommandHelp();
  // One line about a camera: address, connection, sleep, counters.
  static std::string StatusLine(const Camera& camera);

 private:
  struct Entry;
  HubEndpoint hub_;
  Behaviour behaviour_;
  std::string board_;
  Camera::Logger logger_;
  std::vector<std::unique_ptr<Entry>> cameras_;
};

}  // namespace camsim
