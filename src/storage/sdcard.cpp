#include "storage/sdcard.h"

#include "core/log.h"

// Interim bodies: the card is reported absent until the card code lands on this branch.
int InitSdCard() {
  return 0;
}
int UpdateSdCardStatus() {
  return SDCARD_STATUS_OFF;
}
int GetSdCardStatus() {
  return SDCARD_STATUS_OFF;
}
int GetSdCardRecordPath(char*, int) {
  TLOG(LOG_DEBUG) << "sdcard no exist";
  return -1;
}
