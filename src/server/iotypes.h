// The viewer's I/O-control message types and the live defaults they carry: the vocabulary that
// the hub's dispatch (server/ioctrl.h) and every viewer share.
#pragma once

#include <cstdint>

#include "media/playbackmsg.h"

namespace server {

// I/O-control types (the viewer's and the hub's common vocabulary).
constexpr uint32_t IOTYPE_USER_IPCAM_START = 0x1FF;
constexpr uint32_t IOTYPE_USER_IPCAM_SEND_META_START = 0x200;
constexpr uint32_t IOTYPE_USER_IPCAM_STOP = 0x2FF;
constexpr uint32_t IOTYPE_USER_IPCAM_AUDIOSTART = 0x300;
constexpr uint32_t IOTYPE_USER_IPCAM_AUDIOSTOP = 0x301;
constexpr uint32_t IOTYPE_USER_IPCAM_SETSTREAMCTRL_REQ = 0x320;
constexpr uint32_t IOTYPE_USER_IPCAM_SPEAKERSTART = 0x350;
constexpr uint32_t IOTYPE_USER_IPCAM_SPEAKERSTOP = 0x351;
constexpr uint32_t IOTYPE_USER_IPCAM_RECORD_SEEKTIME = 0xF001;
// Replies of recording playback (docs/playback.md): the event list in chunks, and the state of a
// play (started, end of clip, stopped, replaced, error, deleted, refused).
constexpr uint32_t IOTYPE_USER_IPCAM_RECORD_PLAYLIST = playbackmsg::kTypePlaylist;
constexpr uint32_t IOTYPE_USER_IPCAM_RECORD_PLAYSTATE = playbackmsg::kTypePlayState;
// Download of a stored clip or snapshot over RDT, and the hub's answer (docs/playback.md).
constexpr uint32_t IOTYPE_USER_IPCAM_RECORD_DOWNLOAD = 0xF010;
constexpr uint32_t IOTYPE_USER_IPCAM_RECORD_DOWNLOAD_RESP = 0xF011;

// Quality of a live start that names none.
constexpr int kDefaultVideoQuality = 2;

}  // namespace server
