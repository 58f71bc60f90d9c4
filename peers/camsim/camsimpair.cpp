#include "camsim/camsimpair.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <thread>

namespace camsim {
namespace {

using Clock = std::chrono::steady_clock;
constexpr int kPollMs = 100;

bool SockAddr(const std::string& ip, uint16_t port, struct sockaddr_in* out) {
  std::memset(out, 0, sizeof(*out));
  out->sin_family = AF_INET;
  out->sin_port = htons(port);
  return inet_pton(AF_INET, ip.c_str(), &out->sin_addr) == 1;
}

bool Stopping(const PairingAttempt& a) {
  return a.stopping && a.stopping();
}

// The connection to the pairing server, tried until the deadline. -1 with *error set.
int Reach(const PairingAttempt& a, std::string* error) {
  struct sockaddr_in local, remote;
  if (!SockAddr(a.camera_ip, 0, &local) || !SockAddr(a.hub_ip, a.port, &remote)) {
    *error = "not an address: " + a.camera_ip + " or " + a.hub_ip;
    return -1;
  }
  for (;;) {
    if (Stopping(a)) {
      *error = "stopped";
      return -1;
    }
    const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      *error = std::string("socket: ") + std::strerror(errno);
      return -1;
    }
    if (a.on_connect_try) a.on_connect_try();
    if (bind(fd, reinterpret_cast<struct sockaddr*>(&local), sizeof(local)) == 0 &&
        connect(fd, reinterpret_cast<struct sockaddr*>(&remote), sizeof(remote)) == 0) {
      return fd;
    }
    const std::string why = std::strerror(errno);
    close(fd);
    if (Clock::now() >= a.deadline) {
      *error =
          "pairing server " + a.hub_ip + ":" + std::to_string(a.port) + " not reachable: " + why;
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(kPollMs));
  }
}

int Exchange(const PairingAttempt& a, int fd, std::string* ssid, std::string* key,
             std::string* error) {
  uint8_t request[_net_cmd_get_info_type::kWireSize + command::kFrameOverhead];
  const int size = BuildPairingRequest(request, sizeof(request), a.origin, a.info);
  if (size < 0 || send(fd, request, static_cast<size_t>(size), MSG_NOSIGNAL) != size) {
    *error = std::string("sending the pairing request: ") + std::strerror(errno);
    return -1;
  }
  uint8_t buf[1024];
  size_t got = 0;
  for (;;) {
    if (Stopping(a)) {
      *error = "stopped";
      return -1;
    }
    if (Clock::now() >= a.deadline) {
      *error = "no pairing reply";
      return -1;
    }
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, kPollMs) <= 0) continue;
    const ssize_t n = recv(fd, buf + got, sizeof(buf) - got, 0);
    if (n <= 0) {
      *error = "the hub closed the pairing connection without a reply";
      return -1;
    }
    got += static_cast<size_t>(n);
    const int parsed = ParsePairingReply(buf, got, a.origin, ssid, key, error);
    if (parsed < 0) return -1;
    if (parsed == 1) break;
    if (got == sizeof(buf)) {
      *error = "pairing reply too long";
      return -1;
    }
  }
  const auto close_deadline = Clock::now() + a.close_wait;
  while (!Stopping(a) && Clock::now() < close_deadline) {
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, kPollMs) <= 0) continue;
    uint8_t sink[256];
    if (recv(fd, sink, sizeof(sink), 0) <= 0) break;
  }
  return 0;
}

}  // namespace

int PairWithHub(const PairingAttempt& attempt, std::string* ssid, std::string* key,
                std::string* error) {
  const int fd = Reach(attempt, error);
  if (fd < 0) return -1;
  const int result = Exchange(attempt, fd, ssid, key, error);
  close(fd);
  return result;
}

}  // namespace camsim
