#include "housekeeping/systemctrl.h"

#include "core/log.h"

int InitSystemCtrl() {
  TLOG(LOG_DEBUG) << "Periodic supervision is not part of this build yet";
  return 0;
}
