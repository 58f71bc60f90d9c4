#include "storage/sdcard.h"

#include "base/log.h"

int InitSdCard() {
  TLOG(LOG_DEBUG) << "SD card management is not part of this build yet";
  return 0;
}
