#include "crypto/hubauth.h"

#include <sodium.h>

#include "core/log.h"

int libsodium_init() {
  if (sodium_init() < 0) {
    TLOG(LOG_ERR) << "libsodium init failed";
    return -1;
  }
  TLOG(LOG_DEBUG) << "libsodium init ok";
  return 0;
}
