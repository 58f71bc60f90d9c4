// Playback of stored recordings to viewers.
#pragma once

int playback_mgr_init();
