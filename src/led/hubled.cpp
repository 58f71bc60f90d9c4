#include "led/hubled.h"

#include "base/log.h"

int InitLed() {
  TLOG(LOG_DEBUG) << "LED control is not part of this build yet";
  return 0;
}

void SetupLed(int state) {
  TLOG(LOG_DEBUG) << "state: " << state;
}

int InitSyncAndReset() {
  TLOG(LOG_DEBUG) << "Button and reset handling is not part of this build yet";
  return 0;
}
