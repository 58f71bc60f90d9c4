// Cloud requests that a camera's live channel carries out.
#include "cloud/cameracmd.h"
#include "cloud/cmdargs.h"
#include "cloud/zelojson.h"
#include "core/log.h"

namespace {

int NoChannel(const char* what, const char* msg) {
  int id = 0;
  if (!cmdargs::GetId(msg, &id)) return -1;
  TLOG(LOG_DEBUG) << what << ": no live channel service on this hub, dropped";
  return -1;
}

}  // namespace

int ProcMsgGetCameraProp(const char* msg) {
  return NoChannel("get_camera_prop", msg);
}
int ProcMsgSetNightMode(const char* msg) {
  return NoChannel("set_night_mode", msg);
}
int ProcMsgDeleteCamera(const char* msg) {
  return NoChannel("delete_camera", msg);
}
int ProcMsgOpenAuth(const char* msg) {
  return NoChannel("let_connect_gateway", msg);
}
