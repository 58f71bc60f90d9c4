#include "storage/pirupload.h"

#include "base/log.h"

int alarm_upload_init() {
  return 0;
}
int alarm_upload_lock_init() {
  return 0;
}

int InitPirUpload() {
  TLOG(LOG_DEBUG) << "Alarm upload is not part of this build yet";
  return 0;
}
