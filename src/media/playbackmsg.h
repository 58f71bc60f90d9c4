// The playback messages between a viewer and the hub, one codec for both ends: the JSON requests
// of the event list (0x200) and of playback (0xF001), and the binary replies, event list chunks
// (0xF002) and play states (0xF003). Layouts in docs/playback.md; all integers little-endian.
//
// Parsing never trusts the payload: texts are at most kMaxRequestBytes, every field is checked
// for type and range, and a MAC is twelve hexadecimal digits before it can name anything.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace playbackmsg {

// I/O-control types of the replies (named in server/iotypes.h).
constexpr uint32_t kTypePlaylist = 0xF002;
constexpr uint32_t kTypePlayState = 0xF003;

constexpr size_t kMaxRequestBytes = 1024;
constexpr size_t kMacChars = 12;
// Largest offset into a clip a viewer may ask for, in seconds.
constexpr long long kMaxOffsetSeconds = 86400;

// ---- Requests ----------------------------------------------------------------------------------

struct ListRequest {
  bool all = true;  // no "mac": every camera
  std::string mac;  // upper case, when !all
  uint32_t id = 0;
};

enum class PlayCommand { kPlay, kPause, kResume, kStop };

struct PlayRequest {
  PlayCommand cmd = PlayCommand::kPlay;
  std::string mac;  // upper case; set for kPlay
  uint32_t start = 0;
  uint32_t offset = 0;  // seconds into the clip
};

// The event-list request in text (len bytes, or up to its NUL). true, or false with the reason
// in *why.
bool ParseListRequest(const char* text, size_t len, ListRequest* out, std::string* why);
// The playback request. true, or false with the reason in *why.
bool ParsePlayRequest(const char* text, size_t len, PlayRequest* out, std::string* why);

// Twelve hexadecimal digits, either case.
bool IsMacText(const std::string& text);

// ---- Replies -----------------------------------------------------------------------------------

struct EventEntry {
  std::string mac;  // twelve characters
  uint32_t start = 0;
  uint8_t length = 0;
};

constexpr size_t kChunkHeader = 8;
constexpr size_t kEntryBytes = 17;
constexpr size_t kEntriesPerChunk = 59;
constexpr size_t kMaxChunkBytes = kChunkHeader + kEntriesPerChunk * kEntryBytes;  // 1011

constexpr uint8_t kChunkLast = 1;
constexpr uint8_t kChunkRefused = 2;
constexpr uint8_t kChunkNoCard = 4;

struct ListChunk {
  uint32_t id = 0;
  uint16_t number = 0;
  uint8_t flags = 0;
  std::vector<EventEntry> events;
};

// The chunks of a list: kEntriesPerChunk events each, the last one flagged (plus `flags`);
// at least one chunk.
std::vector<std::vector<uint8_t>> EncodeList(uint32_t id, const std::vector<EventEntry>& events,
                                             uint8_t flags);
// One chunk. false when the bytes are not a whole chunk.
bool DecodeListChunk(const uint8_t* data, size_t len, ListChunk* out);

enum class PlayState : uint8_t {
  kStarted = 1,
  kEnd = 2,
  kStopped = 3,
  kReplaced = 4,
  kError = 5,
  kDeleted = 6,
  kRefused = 7,
};
const char* PlayStateName(PlayState state);

constexpr size_t kStateBytes = 24;

struct StateMessage {
  std::string mac;  // up to twelve characters
  uint32_t start = 0;
  PlayState state = PlayState::kRefused;
  uint32_t frames = 0;
};

std::vector<uint8_t> EncodeState(const StateMessage& message);
// false when the bytes are not a state message or the state is unknown.
bool DecodeState(const uint8_t* data, size_t len, StateMessage* out);

}  // namespace playbackmsg
