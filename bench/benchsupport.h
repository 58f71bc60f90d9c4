// Set-up shared by the benchmark programs: a free loopback port, an AV login that takes anyone,
// and H.264 frames of a given size in kSlices slices.
#pragma once

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

namespace benchsupport {

constexpr int kSlices = 4;

// A TCP port on 127.0.0.1 that was free a moment ago; ends the program when there is none.
inline uint16_t FreePort() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in a{};
  a.sin_family = AF_INET;
  a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t len = sizeof(a);
  if (fd < 0 || bind(fd, reinterpret_cast<sockaddr*>(&a), sizeof(a)) != 0 ||
      getsockname(fd, reinterpret_cast<sockaddr*>(&a), &len) != 0) {
    std::abort();
  }
  close(fd);
  return ntohs(a.sin_port);
}

// The AV server's password check: every viewer is let in.
inline int AcceptAll(char*, char*) {
  return 1;
}

// Parameter sets (key frame) and kSlices slices filling about `bytes`, slice payload without
// start codes (random bytes with every zero that follows a zero made 0x80, as emulation
// prevention ensures).
inline std::vector<uint8_t> SlicedFrame(size_t bytes, bool key) {
  std::mt19937 random(key ? 1 : 2);
  std::vector<uint8_t> frame;
  if (key) {
    frame.insert(frame.end(),
                 {0,    0,    0,    1, 0x67, 0x64, 0x00, 0x28, 0xAC, 0xD9, 0x40, 0x78, 0x02, 0x27,
                  0xE5, 0xC0, 0x44, 0, 0,    0,    1,    0x68, 0xEB, 0xE3, 0xCB, 0x22, 0xC0});
  }
  const size_t slice = (bytes - frame.size()) / kSlices - 4;
  for (int s = 0; s < kSlices; s++) {
    frame.insert(frame.end(), {0, 0, 0, 1, static_cast<uint8_t>(key ? 0x65 : 0x41)});
    for (size_t i = 1; i < slice; i++) {
      uint8_t b = static_cast<uint8_t>(random());
      if (b == 0 && frame.back() == 0) b = 0x80;
      frame.push_back(b);
    }
  }
  return frame;
}

}  // namespace benchsupport
