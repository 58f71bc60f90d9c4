// Recording playlists: the events stored on the card, listed to a viewer on request (0x200).
//
// The media code does not reach into storage itself: start-up hands playlist_mgr_init the record
// store, the few calls on the recording tree and its index that playlists and playback need.
// Each session has at most one list thread; it reads the indexes and sends the list in chunks of
// I/O control (playbackmsg.h) through the command sender given to playback_mgr_init, backing off
// while the session's control queue is full. Layouts and decisions: docs/playback.md.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

namespace playlist {

struct IndexRecord {
  uint32_t start = 0;
  uint8_t length = 0;
};

struct RecordStore {
  // The configured cameras' MACs (upper case), in configuration order.
  std::function<std::vector<std::string>()> cameras;
  // A camera's index, oldest first. 0 (also for a camera without index: no records), -1 when
  // the card is not there or the index cannot be read.
  std::function<int(const std::string& mac, std::vector<IndexRecord>* out)> read_index;
  // The path of the clip of an event. 0 found, -2 not on the card, -1 other error.
  std::function<int(const std::string& mac, uint32_t start, std::string* path)> locate_clip;
  // Whether the card is mounted and usable.
  std::function<bool()> card_ready;
};

// The store in use (empty functions before playlist_mgr_init).
const RecordStore& Store();

}  // namespace playlist

// Takes the record store. 0.
int playlist_mgr_init(const playlist::RecordStore& store);

// Stops the playlist, the playback and the file transfer that run for the P2P session sid, if
// any, and waits for their threads. 0; harmless when nothing runs for that session.
int playlist_stop_play(int sid);

// The viewer's event-list request (0x200) on AV channel avIndex of session sid: the JSON payload
// (NUL-terminated). A list already being sent to the session is ended first. The list goes out
// on the session's list thread. 0, or -1 when the request is refused (the viewer gets a refused
// chunk) or the thread cannot start.
int playlist_start_play(int sid, int avIndex, const char* payload);
