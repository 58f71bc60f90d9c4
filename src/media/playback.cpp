#include "media/playback.h"

#include "core/log.h"

int playback_mgr_init() {
  TLOG(LOG_DEBUG) << "Recording playback is not part of this build yet";
  return 0;
}
