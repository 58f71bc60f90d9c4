#include "viewer/viewerplay.h"

#include "server/iotypes.h"

namespace viewer {

std::string EventListRequest(const std::string& mac, uint32_t id) {
  if (mac.empty()) return "{\"id\":" + std::to_string(id) + "}";
  return "{\"mac\":\"" + mac + "\",\"id\":" + std::to_string(id) + "}";
}

std::string PlayRequest(const std::string& mac, uint32_t start, uint32_t offset) {
  return "{\"mac\":\"" + mac + "\",\"start\":" + std::to_string(start) +
         ",\"offset\":" + std::to_string(offset) + ",\"cmd\":\"play\"}";
}

std::string PlayCommand(const std::string& cmd) {
  return "{\"cmd\":\"" + cmd + "\"}";
}

bool EventList::Add(const p2p::ViewerIoCtrl& message) {
  if (message.type != server::IOTYPE_USER_IPCAM_RECORD_PLAYLIST) return false;
  playbackmsg::ListChunk chunk;
  if (!playbackmsg::DecodeListChunk(message.data.data(), message.data.size(), &chunk)) {
    broken_ = true;
    return false;
  }
  if (chunk.id != id_ || complete_) return false;
  if (chunk.number != next_) broken_ = true;
  next_ = static_cast<uint16_t>(chunk.number + 1);
  flags_ |= chunk.flags;
  events_.insert(events_.end(), chunk.events.begin(), chunk.events.end());
  if ((chunk.flags & playbackmsg::kChunkLast) != 0) complete_ = true;
  return true;
}

bool ReadPlayState(const p2p::ViewerIoCtrl& message, playbackmsg::StateMessage* out) {
  if (message.type != server::IOTYPE_USER_IPCAM_RECORD_PLAYSTATE) return false;
  return playbackmsg::DecodeState(message.data.data(), message.data.size(), out);
}

bool IsFinalState(playbackmsg::PlayState state) {
  return state != playbackmsg::PlayState::kStarted;
}

std::string EventLine(const playbackmsg::EventEntry& event) {
  return "event " + event.mac + " " + std::to_string(event.start) + " " +
         std::to_string(static_cast<int>(event.length));
}

}  // namespace viewer
