#include "server/mediaserver.h"

#include "core/log.h"

namespace server {

int MediaServer::Init() {
  TLOG(LOG_DEBUG) << "Camera link is not part of this build yet, no camera listener";
  return 0;
}

int MediaServer::StartTutk() {
  TLOG(LOG_DEBUG) << "P2P server is not part of this build yet, no viewers";
  return 0;
}

}  // namespace server

void DisConnectCameraList() {
  TLOG(LOG_DEBUG) << "Camera station list is not part of this build yet";
}
