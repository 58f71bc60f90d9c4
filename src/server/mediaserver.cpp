#include "server/mediaserver.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "camera/frame.h"
#include "camera/livechannel.h"
#include "camera/pairing.h"
#include "core/eventloop.h"
#include "core/log.h"
#include "core/utils.h"
#include "platform/board.h"
#include "platform/hwlib.h"
#include "platform/uci.h"

namespace server {
namespace {

constexpr int kMaxSections = 16;
std::atomic<MediaServer*> g_current{nullptr};

// The camera MACs of the sections of uci package "p2p", upper case; other names are skipped.
std::vector<std::string> ConfiguredCameras() {
  std::vector<std::string> macs;
  char list[kMaxSections][kUciSectionNameLen];
  const int count = zcfg_uci_get_section_list("p2p", list, kMaxSections);
  for (int i = 0; i < count; i++) {
    const std::string mac = utils::ConvertToUppercase(std::string(list[i]));
    uint8_t bytes[6];
    if (command::AddressFromText(mac, bytes) < 0) {
      TLOG(LOG_DEBUG) << "Section p2p." << mac << " is no camera, skipped";
      continue;
    }
    macs.push_back(mac);
  }
  return macs;
}

}  // namespace

MediaServer::MediaServer() {
  ev_io_init(&accept_watcher_, &MediaServer::OnAccept, -1, EV_READ);
  accept_watcher_.data = this;
}

MediaServer* MediaServer::Current() {
  return g_current.load();
}

int MediaServer::Init() {
  g_current.store(this);
  for (const std::string& mac : ConfiguredCameras()) {
    TLOG(LOG_DEBUG) << "Init live channel camera: " << mac;
    InsertInLiveChannels(mac, std::make_shared<channel::LiveChannel>(mac));
  }
  if (RunTcpServer() < 0) return -1;
  const char* hook = std::getenv("TARVO_TEST_PAIRING");
  if (hook != nullptr && std::strcmp(hook, "1") == 0) {
    TLOG(LOG_DEBUG) << "TARVO_TEST_PAIRING=1: test hook enters pairing mode";
    StartAuthServer(this);
  }
  return 0;
}

int MediaServer::StartTutk() {
  TLOG(LOG_DEBUG) << "P2P server is not part of this build yet, no viewers";
  return 0;
}

int MediaServer::RunTcpServer() {
  const int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    TLOG(LOG_ERR) << "create camera listener socket failed";
    return -1;
  }
  int on = 1;
  if (setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on)) < 0) {
    TLOG(LOG_DEBUG) << "Setsockopt failed";
  }
  struct sockaddr_in addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.sin_family = AF_INET;
  addr.sin_port = htons(platform::CameraPort());
  if (inet_pton(AF_INET, platform::HubIp().c_str(), &addr.sin_addr) != 1 ||
      bind(fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(addr)) < 0 || listen(fd, 20) < 0) {
    TLOG(LOG_ERR) << "camera listener on " << platform::HubIp() << ":" << platform::CameraPort()
                  << " failed: " << std::strerror(errno);
    close(fd);
    return -1;
  }
  listen_fd_ = fd;
  TLOG(LOG_DEBUG) << "camera listener on " << platform::HubIp() << ":" << platform::CameraPort();
  // Watchers belong to the loop thread, which may already run.
  eventloop::RunInLoop([this, fd] {
    ev_io_set(&accept_watcher_, fd, EV_READ);
    ev_io_start(eventloop::Loop(), &accept_watcher_);
  });
  return 0;
}

void MediaServer::OnAccept(struct ev_loop* /*loop*/, ev_io* watcher, int /*revents*/) {
  static_cast<MediaServer*>(watcher->data)->AcceptCallback();
}

void MediaServer::AcceptCallback() {
  struct sockaddr_in peer;
  socklen_t len = sizeof(peer);
  const int fd = accept4(listen_fd_, reinterpret_cast<struct sockaddr*>(&peer), &len, SOCK_CLOEXEC);
  if (fd < 0) {
    TLOG(LOG_DEBUG) << "Accept timeout";
    return;
  }
  char ip[INET_ADDRSTRLEN] = {0};
  inet_ntop(AF_INET, &peer.sin_addr, ip, sizeof(ip));
  char mac[32] = {0};
  if (utils::GetConnectMacFromArp(ip, mac, sizeof(mac)) < 0) mac[0] = '\0';
  utils::ConvertToUppercase(mac);
  TLOG(LOG_DEBUG) << "has tcp client ip: " << ip << ", mac: *" << mac << "*";
  struct timeval tv;
  tv.tv_sec = 5;
  tv.tv_usec = 0;
  if (setsockopt(fd, SOL_SOCKET, SO_SNDTIMEO, &tv, sizeof(tv)) < 0) {
    TLOG(LOG_DEBUG) << "set tcp send timeout failed";
  }
  try {
    std::shared_ptr<channel::LiveChannel> ch = GetLiveChannel(mac);
    ch->CloseConnect();
    ch->camera().SetIp(ip);
    ch->InitConnect(fd);
  } catch (const std::out_of_range& e) {
    TLOG(LOG_DEBUG) << "New tcp client out of Range error: " << e.what();
    // Nobody owns a connection of an unknown camera.
    close(fd);
  }
}

void MediaServer::InsertInLiveChannels(const std::string& mac,
                                       std::shared_ptr<channel::LiveChannel> channel) {
  std::shared_ptr<channel::LiveChannel> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_channels_.find(mac);
    if (it != live_channels_.end()) {
      old = std::move(it->second);
      it->second = std::move(channel);
    } else {
      live_channels_.emplace(mac, std::move(channel));
    }
  }
  if (old != nullptr) channel::LiveChannel::Release(std::move(old));
}

int MediaServer::TryEraseLiveChannels(const std::string& mac) {
  std::shared_ptr<channel::LiveChannel> channel;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_channels_.find(mac);
    if (it == live_channels_.end()) {
      TLOG(LOG_DEBUG) << "Don't find " << mac << " in live_channels";
      return -1;
    }
    channel = std::move(it->second);
    live_channels_.erase(it);
  }
  TLOG(LOG_DEBUG) << "Erase camera " << mac << " in live_channels succeed";
  channel::LiveChannel::Release(std::move(channel));
  return 0;
}

std::shared_ptr<channel::LiveChannel> MediaServer::GetLiveChannel(const std::string& mac) {
  std::lock_guard<std::mutex> lock(mutex_);
  return live_channels_.at(mac);
}

std::shared_ptr<channel::LiveChannel> MediaServer::FindLiveChannel(const std::string& mac) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = live_channels_.find(mac);
  return it == live_channels_.end() ? nullptr : it->second;
}

std::vector<std::string> MediaServer::LiveChannelMacs() {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> macs;
  for (const auto& entry : live_channels_) macs.push_back(entry.first);
  return macs;
}

void MediaServer::SyncNewCamera(const std::string& mac) {
  std::shared_ptr<channel::LiveChannel> old;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = live_channels_.find(mac);
    if (it != live_channels_.end()) {
      old = std::move(it->second);
      live_channels_.erase(it);
    }
  }
  if (old == nullptr) {
    TLOG(LOG_DEBUG) << "It's a new camera sync to hub";
  } else {
    TLOG(LOG_DEBUG) << "It's exist in live channels, delete old and insert new";
    channel::LiveChannel::Release(std::move(old));
    TLOG(LOG_DEBUG) << "delete succeed.....";
  }
  InsertInLiveChannels(mac, std::make_shared<channel::LiveChannel>(mac));
}

}  // namespace server

void DisConnectCameraList() {
  for (const std::string& mac : server::ConfiguredCameras()) {
    TLOG(LOG_DEBUG) << "Drop camera station " << mac;
    disconnect_mac(mac.c_str());
  }
}
