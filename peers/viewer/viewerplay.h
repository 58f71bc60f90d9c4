// The viewer's side of recording playback: the requests it sends (event list 0x200, playback
// 0xF001) and what it makes of the hub's replies (event list chunks, play states), as the viewer
// tool and the tests use them. Layouts in docs/playback.md; the codec is the hub's
// (media/playbackmsg.h).
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "media/playbackmsg.h"
#include "viewer/p2pviewer.h"

namespace viewer {

// {"mac":MAC,"id":ID}, or {"id":ID} for every camera (mac empty).
std::string EventListRequest(const std::string& mac, uint32_t id);
// {"mac":MAC,"start":START,"offset":OFFSET,"cmd":"play"}.
std::string PlayRequest(const std::string& mac, uint32_t start, uint32_t offset);
// {"cmd":CMD}: "stop", "pause" or "resume".
std::string PlayCommand(const std::string& cmd);

// Gathers the chunks of one event list (the request's id); chunks of other ids are ignored.
class EventList {
 public:
  explicit EventList(uint32_t id) : id_(id) {}
  // Takes an I/O-control message; true when it was a chunk of this list.
  bool Add(const p2p::ViewerIoCtrl& message);
  // The last chunk has come (in order, none missing).
  bool complete() const { return complete_; }
  // A chunk came out of order or malformed.
  bool broken() const { return broken_; }
  uint8_t flags() const { return flags_; }
  const std::vector<playbackmsg::EventEntry>& events() const { return events_; }

 private:
  uint32_t id_;
  uint16_t next_ = 0;
  bool complete_ = false;
  bool broken_ = false;
  uint8_t flags_ = 0;
  std::vector<playbackmsg::EventEntry> events_;
};

// A play state message, or false for anything else.
bool ReadPlayState(const p2p::ViewerIoCtrl& message, playbackmsg::StateMessage* out);
// Whether a play in this state is over (end, stopped, replaced, error, deleted, refused).
bool IsFinalState(playbackmsg::PlayState state);

// "event MAC START LENGTH" as the tool prints it.
std::string EventLine(const playbackmsg::EventEntry& event);

}  // namespace viewer
