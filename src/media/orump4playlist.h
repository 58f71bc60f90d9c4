// Recording playlists for playback.
#pragma once

int playlist_mgr_init();
