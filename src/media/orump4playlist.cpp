#include "media/orump4playlist.h"

#include "base/log.h"
#include "media/filetransfer.h"

int playlist_mgr_init() {
  TLOG(LOG_DEBUG) << "Recording playlists are not part of this build yet";
  return 0;
}

int playlist_stop_play(int sid) {
  filetransfer_stop(sid);
  // Recording playback keeps no playlists in this build, so no session has one to stop.
  TLOG(LOG_DEBUG) << "No playlist to stop for session " << sid;
  return 0;
}

int playlist_start_play(int sid) {
  TLOG(LOG_DEBUG) << "No recording playlist to send to session " << sid;
  return -1;
}
