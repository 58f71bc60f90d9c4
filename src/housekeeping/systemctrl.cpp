#include "housekeeping/systemctrl.h"

#include <pthread.h>

#include <cassert>

#include "base/log.h"
#include "cloud/credreport.h"

int InitSystemCtrl() {
  TLOG(LOG_DEBUG) << "Periodic supervision is not part of this build yet";
  pthread_t uidpwd;
  const int ret = pthread_create(&uidpwd, nullptr, UidPwdFunc, nullptr);
  if (ret != 0) {
    TLOG(LOG_ERR) << "thread thread_uidpwd create ret: " << ret;
    assert(ret == 0);
    return -1;
  }
  pthread_detach(uidpwd);
  return 0;
}
