// Recording playlists for playback.
#pragma once

int playlist_mgr_init();

// Stops the playlist or file transfer that runs for the P2P session sid, if any. 0; harmless
// when nothing plays for that session.
int playlist_stop_play(int sid);

// Starts sending the recording playlist to the viewer of P2P session sid. 0, or -1 when there
// is nothing to send.
int playlist_start_play(int sid);
