// The senders of recording playback: I/O control, video and audio frames to the viewer of one
// session, encrypted and sent as live view sends them (channel::SendVideoLocked and
// SendAudioLocked: the viewer's stream key, the shared work buffers, the same frame
// information). Unlike live view, a viewer whose send lock is busy or whose queue is full is not
// skipped or reset: the sender says kBusy and the play thread offers the frame again.
//
// Called on the sessions' play and list threads. No sender waits: the send lock is only tried.
#pragma once

#include <cstddef>
#include <cstdint>

#include "media/playback.h"

namespace server {

// playback_mgr_init with the three senders below. 0 or -1.
int InitPlaybackSenders();

// playback::kSent, playback::kBusy (control queue full), or a negative transport code (the
// session has no AV channel or is gone).
int PlaybackSendCommand(int sid, uint32_t type, const uint8_t* data, size_t len);
// playback::kSent, playback::kBusy (send lock busy, queue full), or negative (gone, or a frame
// too large for the work buffers).
int PlaybackSendVideo(int sid, const playback::Frame& frame);
int PlaybackSendAudio(int sid, const playback::Frame& frame);

}  // namespace server
