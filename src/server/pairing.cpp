#include "server/pairing.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <system_error>
#include <thread>

#include "base/log.h"
#include "camera/command.h"
#include "core/configuration.h"
#include "led/hubled.h"
#include "platform/board.h"
#include "platform/uci.h"
#include "server/mediaserver.h"

namespace {

constexpr int kAcceptTimeouts = 11;  // accept_count at which pairing gives up (12 time-outs)
constexpr int kReceiveAttempts = 10;
constexpr auto kLedHold = std::chrono::seconds(3);
constexpr std::chrono::milliseconds kAcceptTimeout{5000};

std::atomic<long> g_accept_timeout_ms{kAcceptTimeout.count()};

std::atomic<bool> g_running{false};  // pairing mode on
std::atomic<int> g_accept_count{0};
std::atomic<bool> g_started{false};  // a pairing thread runs
std::mutex g_pairing_mutex;          // held while a pairing connection is served

std::string ConfigText(const char* key) {
  char value[128] = {0};
  if (zcfg_uci_get(key, value, sizeof(value)) < 0) value[0] = '\0';
  return value;
}

void SetTimeout(int fd, int option, std::chrono::milliseconds timeout, const char* failure) {
  struct timeval tv;
  tv.tv_sec = static_cast<time_t>(timeout.count() / 1000);
  tv.tv_usec = static_cast<suseconds_t>(timeout.count() % 1000 * 1000);
  if (setsockopt(fd, SOL_SOCKET, option, &tv, sizeof(tv)) < 0) TLOG(LOG_DEBUG) << failure;
}

}  // namespace

namespace pairing {

void SetAcceptTimeout(std::chrono::milliseconds timeout) {
  g_accept_timeout_ms.store(timeout.count() > 0 ? timeout.count() : kAcceptTimeout.count());
}

int ParsePairingRequest(const uint8_t* buf, size_t n, _net_cmd_get_info_type* info) {
  const uint16_t count = static_cast<uint16_t>(n > 0xFFFF ? 0xFFFF : n);
  if (buf == nullptr || command::CheckCommand(buf, count) != 1) return 0;
  const _net_cmd_type* frame = command::AsFrame(buf);
  if (frame->type != command::kTypePairRequest) return 0;
  if (frame->Length() != _net_cmd_get_info_type::kWireSize) return 0;
  return _net_cmd_get_info_type::Decode(frame->Payload(), frame->Length(), info) == 0 ? 1 : 0;
}

bool IsCameraAddress(const uint8_t mac[6]) {
  // A group address (its first byte odd; broadcast is one) never belongs to one device.
  if ((mac[0] & 0x01) != 0) return false;
  for (int i = 0; i < 6; i++) {
    if (mac[i] != 0) return true;
  }
  return false;
}

int BuildPairingReply(const _net_cmd_type* request, const std::string& ssid, const std::string& key,
                      uint8_t* out, size_t cap) {
  if (cap < command::kFrameOverhead + command::kPairReplySize) return -1;
  command::Command::InitAuthCommand(request, out);
  _net_cmd_type* reply = command::AsFrame(out);
  reply->type = command::kTypePairReply;
  reply->subtype = 0;
  reply->SetLength(command::kPairReplySize);
  command::EncodePairingReply(ssid, key, reply->Payload());
  return command::CloseFrame(out);
}

}  // namespace pairing

bool IsTcpServerStart() {
  return g_running.load();
}

bool IsAuthServerRunning() {
  return g_started.load();
}

void StartTcpServer() {
  platform::System("ifconfig ra1 up");
  TLOG(LOG_DEBUG) << "start auth tcp server, ifconfig ra1 up ok!";
  g_accept_count.store(0);
  SetupLed(5);
  g_running.store(true);
}

void StopTcpServer() {
  platform::System("ifconfig ra1 down");
  TLOG(LOG_DEBUG) << "stop auth tcp server, ifconfig ra1 down ok!";
  g_accept_count.store(0);
  g_running.store(false);
  ForgetLedState();
  SetupLed(kLedReady);
}

int StartAuthServer(server::MediaServer* server) {
  if (server == nullptr) return -1;
  bool expected = false;
  if (!g_started.compare_exchange_strong(expected, true)) {
    TLOG(LOG_DEBUG) << "Is in auth, stop new auth command";
    return -1;
  }
  TLOG(LOG_DEBUG) << "not in auth, start auth tcp server";
  StartTcpServer();
  try {
    std::thread(tcp_server_thread_function, server).detach();
  } catch (const std::system_error& e) {
    TLOG(LOG_ERR) << "Start auth thread failed: " << e.what();
    StopTcpServer();
    g_started.store(false);
    return -1;
  }
  return 0;
}

int RecvTcpData(int sockfd, std::string* mac) {
  uint8_t buf[pairing::kRequestBufferSize];
  const ssize_t n = recv(sockfd, buf, sizeof(buf), 0);
  if (n <= 0) return 0;
  _net_cmd_get_info_type info;
  if (pairing::ParsePairingRequest(buf, static_cast<size_t>(n), &info) != 1) {
    TLOG(LOG_DEBUG) << "Not a pairing request, " << n << " bytes ignored";
    return 0;
  }
  const std::string text = command::AddressText(info.mac);
  TLOG(LOG_DEBUG) << "auth camera mac: " << text;
  if (!pairing::IsCameraAddress(info.mac)) {
    TLOG(LOG_DEBUG) << "auth camera mac is no camera address";
    return 0;
  }
  if (mac != nullptr) *mac = text;
  const std::string hardver = std::to_string(command::VersionNumber(info.hard_ver));
  const std::string version = std::to_string(command::VersionNumber(info.soft_ver));
  const int vbat = static_cast<int>(info.vbat > 100000 ? 100000 : info.vbat);
  if (SaveInfoToConfig(text.c_str(), hardver.c_str(), version.c_str(), info.pir, info.power,
                       info.night, vbat, info.rssi) < 0) {
    TLOG(LOG_DEBUG) << "auth failed";
    return 0;
  }
  uint8_t reply[command::kFrameOverhead + command::kPairReplySize];
  const int size =
      pairing::BuildPairingReply(command::AsFrame(buf), ConfigText("wireless.@wifi-iface[2].ssid"),
                                 ConfigText("wireless.@wifi-iface[2].key"), reply, sizeof(reply));
  if (send(sockfd, reply, static_cast<size_t>(size), MSG_NOSIGNAL) != size) {
    TLOG(LOG_DEBUG) << "Send pairing reply to camera " << text << " failed";
  }
  return 1;
}

void tcp_server_thread_function(server::MediaServer* server) {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    TLOG(LOG_ERR) << "create auth socket failed";
    StopTcpServer();
    g_started.store(false);
    return;
  }
  int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
    TLOG(LOG_DEBUG) << "setsockopt failed";
  }
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(platform::PairingPort());
  inet_pton(AF_INET, platform::HubIp().c_str(), &addr.sin_addr);
  if (bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) < 0) {
    TLOG(LOG_ERR) << "bind socketed failed";
    std::exit(1);
  }
  if (listen(fd, 20) < 0) {
    TLOG(LOG_ERR) << "listen socketed failed";
    std::exit(1);
  }
  SetTimeout(fd, SO_RCVTIMEO, std::chrono::milliseconds(g_accept_timeout_ms.load()),
             "Set accept timeout failed");

  while (g_running.load()) {
    TLOG(LOG_DEBUG) << "accept_count = " << g_accept_count.load();
    struct sockaddr_in peer;
    socklen_t len = sizeof(peer);
    const int conn = accept4(fd, reinterpret_cast<struct sockaddr*>(&peer), &len, SOCK_CLOEXEC);
    if (conn < 0) {
      if (g_accept_count.load() >= kAcceptTimeouts) {
        TLOG(LOG_DEBUG) << "accept count timeout, stop tcp";
        StopTcpServer();
        break;
      }
      g_accept_count.fetch_add(1);
      continue;
    }
    std::lock_guard<std::mutex> lock(g_pairing_mutex);
    char ip[INET_ADDRSTRLEN] = {0};
    inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
    TLOG(LOG_DEBUG) << "has a client ip " << ip << " connect";
    std::string mac;
    bool accepted = false;
    for (int i = 0; i < kReceiveAttempts && !accepted; i++) {
      SetTimeout(conn, SO_RCVTIMEO, std::chrono::seconds(1), "set conn timeout failed");
      accepted = RecvTcpData(conn, &mac) == 1;
    }
    if (!accepted) {
      TLOG(LOG_DEBUG) << "Recv timeout!!!";
      SetupLed(3);
      std::this_thread::sleep_for(kLedHold);
      close(conn);
      StopTcpServer();
      break;
    }
    server->SyncNewCamera(mac);
    TLOG(LOG_DEBUG) << "Recv succeed!";
    SetupLed(4);
    std::this_thread::sleep_for(kLedHold);
    close(conn);
    StopTcpServer();
  }
  close(fd);
  g_started.store(false);
  TLOG(LOG_DEBUG) << "exit auth thread......";
}
