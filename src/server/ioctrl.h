// The viewer's I/O-control messages: live view of one camera, its video quality, talkback
// (the viewer's audio played on the camera) and the hand-off of playback requests. The session
// thread of a viewer hands every message to MediaServer::Handle_IOCTRL_Cmd, which dispatches it
// by type to the handlers below; all but the talkback thread run on that session thread, one
// message at a time. No live handler answers the viewer; the playback hand-offs (event list
// 0x200, playback 0xF001) answer through the playback code (docs/playback.md), the download
// request (media/filetransfer.h) with IOTYPE_USER_IPCAM_RECORD_DOWNLOAD_RESP, and a live start
// or stop ends the session's playback first.
//
// Payloads are texts zero-filled behind the message (so NUL-terminated) naming the camera by
// "mac" (at most 31 characters, looked up in upper case), with "videoquality" for live start
// and quality changes; the talkback start carries a 4-byte little-endian channel number.
#pragma once

#include <cstdint>

#include "server/iotypes.h"

namespace client {
class Client;
}

namespace server {

class MediaServer;

// Live start: the viewer leaves every other camera it watches, registers for video and audio
// on this one, and the camera is asked to stream (woken first when it sleeps) at the quality.
// 0, or -1 when "mac" is missing or names no camera.
int IpCameraLiveStart(MediaServer& server, int sid, int avIndex, const char* payload,
                      client::Client* client);
// Live stop: the viewer leaves the camera (the camera stops streaming when it was the last) and
// the AV channel's queued audio and video are dropped. 0 or -1.
int IpCameraLiveStop(MediaServer& server, int sid, int avIndex, const char* payload,
                     client::Client* client);
// Quality change of the camera named by "mac"; "videoquality" is required. 0 or -1.
int IpCameraVideoQualityCtrl(MediaServer& server, const char* payload);
// Talkback start: takes the viewer's talkback channel from the first four bytes and starts the
// talkback thread. 0, or -1 when the thread cannot start.
int IpCameraRecvAudio(MediaServer& server, int sid, const char* payload, client::Client* client);
// Talkback stop ("mac" required): the talkback thread ends at its next turn. 0 or -1.
int IpCameraStopAudio(const char* payload, client::Client* client);

// The talkback thread: joins the viewer's talkback channel as AV client (10 s to answer),
// then passes every received audio frame to the camera the viewer watches, except the frames
// whose number is a multiple of ten, until the talking flag is cleared or a receive fails with
// anything but "no data yet" or "frame lost".
void ReceiveAudio(int sid, client::Client* client, MediaServer* server);

}  // namespace server
