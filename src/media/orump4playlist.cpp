#include "media/orump4playlist.h"

#include "core/log.h"

int playlist_mgr_init() {
  TLOG(LOG_DEBUG) << "Recording playlists are not part of this build yet";
  return 0;
}
