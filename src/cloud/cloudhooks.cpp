// The hub without a firmware update service answers its cloud
// messages here: each is logged and dropped, so the cloud side times out as it does
// for any command the hub cannot carry out. A subsystem that handles one of these defines it in
// its own unit and takes it out of this file.
#include "cloud/cloudhooks.h"

#include "base/log.h"

namespace {

int Drop(const char* what, const char* msg) {
  TLOG(LOG_DEBUG) << "No " << what << " service on this hub, dropped: " << (msg ? msg : "");
  return -1;
}

}  // namespace

int ProcMsgzeloOta(const char* msg) {
  return Drop("firmware update", msg);
}
int ProcMsgGetOtaState(const char* msg) {
  return Drop("firmware update", msg);
}
int ProcMsgGetOtaProgress(const char* msg) {
  return Drop("firmware update", msg);
}
