// The recording tree as playback sees it: the record store handed to playlist_mgr_init (the
// configured cameras, the index read under timestamp_mutex, the clip located with IsFileExist,
// the card's state). Start-up makes it once.
#pragma once

#include "media/orump4playlist.h"

playlist::RecordStore MakeRecordStore();
