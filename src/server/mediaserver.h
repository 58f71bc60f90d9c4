// The media server: the camera listener and channel registry, and the P2P side.
#pragma once

namespace server {

class MediaServer {
 public:
  // Builds one live channel per paired camera and starts the camera listener. 0 or -1.
  int Init();
  // Starts the P2P login and listen threads. 0 or -1.
  int StartTutk();
};

}  // namespace server

// Clears the hub's record of connected camera stations.
void DisConnectCameraList();
