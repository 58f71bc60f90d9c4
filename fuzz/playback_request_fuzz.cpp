// The viewer's playback and event-list requests as the session thread receives them: at most
// 1024 bytes, not necessarily terminated. A request that passes must name a MAC of twelve
// upper-case hexadecimal digits (nothing else ever forms a path) and times in range; the replies
// built for it must read back as they were written.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>

#include "media/playbackmsg.h"

namespace {

void CheckMac(const std::string& mac) {
  if (mac.size() != 12) std::abort();
  for (char c : mac) {
    if (!std::isxdigit(static_cast<unsigned char>(c)) ||
        std::islower(static_cast<unsigned char>(c))) {
      std::abort();
    }
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > playbackmsg::kMaxRequestBytes) size = playbackmsg::kMaxRequestBytes;
  // An exact-size copy lets the address sanitizer catch any read past what was received.
  std::unique_ptr<char[]> text(new char[size == 0 ? 1 : size]);
  if (size > 0) std::memcpy(text.get(), data, size);
  std::string why;

  playbackmsg::PlayRequest play;
  if (playbackmsg::ParsePlayRequest(text.get(), size, &play, &why)) {
    if (play.cmd == playbackmsg::PlayCommand::kPlay) {
      CheckMac(play.mac);
      if (play.offset > playbackmsg::kMaxOffsetSeconds) std::abort();
    }
    playbackmsg::StateMessage m;
    m.mac = play.mac;
    m.start = play.start;
    m.state = playbackmsg::PlayState::kStarted;
    const auto bytes = playbackmsg::EncodeState(m);
    playbackmsg::StateMessage back;
    if (!playbackmsg::DecodeState(bytes.data(), bytes.size(), &back) || back.start != m.start ||
        back.mac != m.mac) {
      std::abort();
    }
  } else if (why.empty()) {
    std::abort();
  }

  playbackmsg::ListRequest list;
  why.clear();
  if (playbackmsg::ParseListRequest(text.get(), size, &list, &why)) {
    if (!list.all) CheckMac(list.mac);
    const auto chunks =
        playbackmsg::EncodeList(list.id, {{list.all ? "0A00000000D1" : list.mac, list.id, 10}}, 0);
    playbackmsg::ListChunk chunk;
    if (chunks.size() != 1 || chunks[0].size() > playbackmsg::kMaxChunkBytes ||
        !playbackmsg::DecodeListChunk(chunks[0].data(), chunks[0].size(), &chunk) ||
        chunk.id != list.id) {
      std::abort();
    }
  } else if (why.empty()) {
    std::abort();
  }

  // The replies' decoders take the same bytes as a viewer would.
  playbackmsg::ListChunk chunk;
  playbackmsg::DecodeListChunk(data, size, &chunk);
  playbackmsg::StateMessage state;
  playbackmsg::DecodeState(data, size, &state);
  return 0;
}
