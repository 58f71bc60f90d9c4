// Making a board root: the folder that stands for the hub's file system on a development
// machine (layout in docs/board-root.md). tarvo-mkboard is a command line over MakeBoardRoot;
// tests use it directly.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

namespace platform {

struct BoardCamera {
  std::string mac;  // twelve hexadecimal digits
  std::string ip;   // empty: no ARP entry
};

struct BoardOptions {
  std::string mac = "021A2B3C4D5E";               // hub MAC (eth0 and nvram p2p mac)
  std::string did = "1000000001";                 // nvram p2p did
  std::string key = "TarvoDeviceKey01";           // nvram p2p key
  std::string uid = "TARVOHUB000000000001";       // nvram p2p uid
  std::string token = "tarvo-device-token-0001";  // etc/config/device.token
  std::string ssid = "tarvo-cam-ap";              // wireless.@wifi-iface[2].ssid
  std::string wifi_key = "tarvo-cam-secret";      // wireless.@wifi-iface[2].key
  bool wifi_conf = true;                          // etc/config/wifi.conf present
  bool identity = true;                           // nvram p2p did, key and mac present
  bool card = false;              // an SD card inserted, its driver loaded and mounted
  uint64_t card_size_mib = 8192;  // the card's capacity (also of one inserted later)
  bool set_clock = false;
  int64_t clock = 0;  // with set_clock: the board's clock starts at this epoch second
  std::vector<BoardCamera> cameras;  // paired cameras, at most four
  std::string shim;    // tarvo-shim to install in bin/; empty leaves bin/ without shims
  bool force = false;  // write into a folder that is not empty
};

// Checks every value of the options; false with a reason.
bool ValidateBoardOptions(const BoardOptions& options, std::string* error);

// Creates the board root in dir. 0, or -1 with a reason.
int MakeBoardRoot(const std::string& dir, const BoardOptions& options, std::string* error);

}  // namespace platform
