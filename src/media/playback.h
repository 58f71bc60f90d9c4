// Playback of stored recordings to viewers.
#pragma once

int playback_mgr_init();

// A viewer's request to play a stored recording from a point in time (the raw payload of the
// seek-time message, NUL-terminated) on AV channel avIndex of session sid. 0, or -1 when
// nothing is played.
int HandlePlayback(int sid, int avIndex, const char* payload);
