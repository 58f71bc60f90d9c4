#include "media/playback.h"

#include "base/log.h"

int playback_mgr_init() {
  TLOG(LOG_DEBUG) << "Recording playback is not part of this build yet";
  return 0;
}

int HandlePlayback(int sid, int avIndex, const char* /*payload*/) {
  TLOG(LOG_DEBUG) << "No stored recording to play for session " << sid << ", avIndex: " << avIndex;
  return -1;
}
