// Recording playlists for playback.
#pragma once

int playlist_mgr_init();

// Stops the playlist or file transfer that runs for the P2P session sid, if any. 0; harmless
// when nothing plays for that session.
int playlist_stop_play(int sid);
