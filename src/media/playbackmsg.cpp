#include "media/playbackmsg.h"

#include <json-c/json.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <memory>

namespace playbackmsg {
namespace {

struct JsonDeleter {
  void operator()(json_object* o) const { json_object_put(o); }
};
using Json = std::unique_ptr<json_object, JsonDeleter>;

// The text as one JSON object, or null with the reason.
Json ParseObject(const char* text, size_t len, std::string* why) {
  if (text == nullptr) {
    *why = "no payload";
    return nullptr;
  }
  if (len > kMaxRequestBytes) len = kMaxRequestBytes;
  len = strnlen(text, len);
  if (len == 0) {
    *why = "empty payload";
    return nullptr;
  }
  json_tokener* tok = json_tokener_new();
  if (tok == nullptr) {
    *why = "out of memory";
    return nullptr;
  }
  Json root(json_tokener_parse_ex(tok, text, static_cast<int>(len)));
  const json_tokener_error err = json_tokener_get_error(tok);
  const size_t used = json_tokener_get_parse_end(tok);
  json_tokener_free(tok);
  if (root == nullptr || err != json_tokener_success) {
    *why = "not JSON";
    return nullptr;
  }
  for (size_t i = used; i < len; i++) {
    if (!std::isspace(static_cast<unsigned char>(text[i]))) {
      *why = "bytes after the JSON object";
      return nullptr;
    }
  }
  if (!json_object_is_type(root.get(), json_type_object)) {
    *why = "not a JSON object";
    return nullptr;
  }
  return root;
}

// -1 absent, 0 found and valid, 1 present but invalid.
int GetMac(json_object* root, std::string* mac, std::string* why) {
  json_object* v = nullptr;
  if (!json_object_object_get_ex(root, "mac", &v)) return -1;
  if (!json_object_is_type(v, json_type_string)) {
    *why = "mac is not a string";
    return 1;
  }
  const std::string text(json_object_get_string(v),
                         static_cast<size_t>(json_object_get_string_len(v)));
  if (!IsMacText(text)) {
    *why = "mac is not twelve hexadecimal digits";
    return 1;
  }
  mac->clear();
  for (char c : text)
    mac->push_back(static_cast<char>(std::toupper(static_cast<unsigned char>(c))));
  return 0;
}

// -1 absent, 0 found within [low, high], 1 present but not such an integer.
int GetInt(json_object* root, const char* key, long long low, long long high, long long* out,
           std::string* why) {
  json_object* v = nullptr;
  if (!json_object_object_get_ex(root, key, &v)) return -1;
  if (!json_object_is_type(v, json_type_int)) {
    *why = std::string(key) + " is not an integer";
    return 1;
  }
  errno = 0;
  const int64_t n = json_object_get_int64(v);
  if (errno != 0 || n < low || n > high) {
    *why = std::string(key) + " is out of range";
    return 1;
  }
  *out = n;
  return 0;
}

void PutLe16(uint8_t* p, uint16_t v) {
  p[0] = static_cast<uint8_t>(v);
  p[1] = static_cast<uint8_t>(v >> 8);
}
void PutLe32(uint8_t* p, uint32_t v) {
  for (int i = 0; i < 4; i++) p[i] = static_cast<uint8_t>(v >> (8 * i));
}
uint16_t GetLe16(const uint8_t* p) {
  return static_cast<uint16_t>(p[0] | (p[1] << 8));
}
uint32_t GetLe32(const uint8_t* p) {
  return static_cast<uint32_t>(p[0]) | (static_cast<uint32_t>(p[1]) << 8) |
         (static_cast<uint32_t>(p[2]) << 16) | (static_cast<uint32_t>(p[3]) << 24);
}

}  // namespace

bool IsMacText(const std::string& text) {
  if (text.size() != kMacChars) return false;
  for (char c : text) {
    if (!std::isxdigit(static_cast<unsigned char>(c))) return false;
  }
  return true;
}

bool ParseListRequest(const char* text, size_t len, ListRequest* out, std::string* why) {
  const Json root = ParseObject(text, len, why);
  if (root == nullptr) return false;
  ListRequest r;
  const int mac = GetMac(root.get(), &r.mac, why);
  if (mac > 0) return false;
  r.all = mac < 0;
  long long id = 0;
  if (GetInt(root.get(), "id", 0, UINT32_MAX, &id, why) > 0) return false;
  r.id = static_cast<uint32_t>(id);
  *out = r;
  return true;
}

bool ParsePlayRequest(const char* text, size_t len, PlayRequest* out, std::string* why) {
  const Json root = ParseObject(text, len, why);
  if (root == nullptr) return false;
  PlayRequest r;
  json_object* cmd = nullptr;
  if (json_object_object_get_ex(root.get(), "cmd", &cmd)) {
    if (!json_object_is_type(cmd, json_type_string)) {
      *why = "cmd is not a string";
      return false;
    }
    const std::string c = json_object_get_string(cmd);
    if (c == "play") {
      r.cmd = PlayCommand::kPlay;
    } else if (c == "pause") {
      r.cmd = PlayCommand::kPause;
    } else if (c == "resume") {
      r.cmd = PlayCommand::kResume;
    } else if (c == "stop") {
      r.cmd = PlayCommand::kStop;
    } else {
      *why = "unknown cmd";
      return false;
    }
  }
  const int mac = GetMac(root.get(), &r.mac, why);
  if (mac > 0) return false;
  if (r.cmd != PlayCommand::kPlay) {
    *out = r;
    return true;
  }
  if (mac < 0) {
    *why = "mac is needed";
    return false;
  }
  long long start = 0;
  const int has_start = GetInt(root.get(), "start", 0, UINT32_MAX, &start, why);
  if (has_start > 0) return false;
  if (has_start < 0) {
    *why = "start is needed";
    return false;
  }
  long long offset = 0;
  if (GetInt(root.get(), "offset", 0, kMaxOffsetSeconds, &offset, why) > 0) return false;
  r.start = static_cast<uint32_t>(start);
  r.offset = static_cast<uint32_t>(offset);
  *out = r;
  return true;
}

std::vector<std::vector<uint8_t>> EncodeList(uint32_t id, const std::vector<EventEntry>& events,
                                             uint8_t flags) {
  std::vector<std::vector<uint8_t>> chunks;
  size_t at = 0;
  uint16_t number = 0;
  do {
    const size_t n = std::min(kEntriesPerChunk, events.size() - at);
    std::vector<uint8_t> c(kChunkHeader + n * kEntryBytes, 0);
    PutLe32(c.data(), id);
    PutLe16(c.data() + 4, number++);
    const bool last = at + n == events.size();
    c[6] = static_cast<uint8_t>(flags | (last ? kChunkLast : 0));
    c[7] = static_cast<uint8_t>(n);
    for (size_t i = 0; i < n; i++) {
      const EventEntry& e = events[at + i];
      uint8_t* p = c.data() + kChunkHeader + i * kEntryBytes;
      std::memcpy(p, e.mac.data(), std::min(e.mac.size(), kMacChars));
      PutLe32(p + kMacChars, e.start);
      p[kMacChars + 4] = e.length;
    }
    chunks.push_back(std::move(c));
    at += n;
  } while (at < events.size());
  return chunks;
}

bool DecodeListChunk(const uint8_t* data, size_t len, ListChunk* out) {
  if (data == nullptr || len < kChunkHeader) return false;
  const size_t n = data[7];
  if (n > kEntriesPerChunk || len != kChunkHeader + n * kEntryBytes) return false;
  ListChunk c;
  c.id = GetLe32(data);
  c.number = GetLe16(data + 4);
  c.flags = data[6];
  for (size_t i = 0; i < n; i++) {
    const uint8_t* p = data + kChunkHeader + i * kEntryBytes;
    EventEntry e;
    e.mac.assign(reinterpret_cast<const char*>(p), kMacChars);
    if (!IsMacText(e.mac)) return false;
    e.start = GetLe32(p + kMacChars);
    e.length = p[kMacChars + 4];
    c.events.push_back(e);
  }
  *out = std::move(c);
  return true;
}

const char* PlayStateName(PlayState state) {
  switch (state) {
    case PlayState::kStarted:
      return "started";
    case PlayState::kEnd:
      return "end";
    case PlayState::kStopped:
      return "stopped";
    case PlayState::kReplaced:
      return "replaced";
    case PlayState::kError:
      return "error";
    case PlayState::kDeleted:
      return "deleted";
    case PlayState::kRefused:
      return "refused";
  }
  return "unknown";
}

std::vector<uint8_t> EncodeState(const StateMessage& m) {
  std::vector<uint8_t> b(kStateBytes, 0);
  std::memcpy(b.data(), m.mac.data(), std::min(m.mac.size(), kMacChars));
  PutLe32(b.data() + 12, m.start);
  b[16] = static_cast<uint8_t>(m.state);
  PutLe32(b.data() + 20, m.frames);
  return b;
}

bool DecodeState(const uint8_t* data, size_t len, StateMessage* out) {
  if (data == nullptr || len != kStateBytes) return false;
  const uint8_t s = data[16];
  if (s < static_cast<uint8_t>(PlayState::kStarted) ||
      s > static_cast<uint8_t>(PlayState::kRefused)) {
    return false;
  }
  StateMessage m;
  m.mac.assign(reinterpret_cast<const char*>(data),
               strnlen(reinterpret_cast<const char*>(data), kMacChars));
  m.start = GetLe32(data + 12);
  m.state = static_cast<PlayState>(s);
  m.frames = GetLe32(data + 20);
  *out = m;
  return true;
}

}  // namespace playbackmsg
